// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/FCP7Exporter.hpp"

#include "Trelvane/export/XmlText.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fmt/printf.h>
#include <map>
#include <set>
#include <string_view>

namespace trelvane::FCP7Exporter {

// ---- rates ----------------------------------------------------------------------------------

double RateInfo::effectiveRate() const {
    return ntsc ? timebase * 1000.0 / 1001.0 : static_cast<double>(timebase);
}

namespace {

// Frame counts stay far inside int so that start + duration can't overflow either.
constexpr double kFrameLimit = 1'000'000'000.0;

int clampedRound(double value) {
    if (std::isnan(value)) return 0;
    return static_cast<int>(std::round(std::clamp(value, -kFrameLimit, kFrameLimit)));
}

} // namespace

int RateInfo::frames(double seconds) const {
    return clampedRound(seconds * effectiveRate());
}

RateInfo rateInfo(double fps) {
    if (fps < 23.99) return {24, true};
    if (fps < 24.5) return {24, false};
    if (fps < 27) return {25, false};
    if (fps < 29.99) return {30, true};
    if (fps < 31) return {30, false};
    if (fps < 51) return {50, false};
    if (fps < 59.99) return {60, true};
    return {60, false};
}

// ---- plans ----------------------------------------------------------------------------------

std::optional<float> pictureFrameRate(const ClipItem& clip) {
    std::optional<float> rate = clip.frameRate;
    if (clip.pictureURL && *clip.pictureURL != clip.url)
        rate = clip.conformFrameRate ? clip.conformFrameRate
                                     : (clip.recordFrameRate ? clip.recordFrameRate : clip.frameRate);
    if (!rate || !(*rate > 0) || !std::isfinite(*rate)) return std::nullopt;
    return rate;
}

bool ClipPlan::hasCompanionPicture() const {
    return clip.pictureURL && *clip.pictureURL != clip.url;
}

int videoSourceChannelCount(const TrackSource& track) {
    bool anyPicture = false;
    int most = 1;
    for (const auto& clip : track.clips)
        if (clip.pictureURL) {
            anyPicture = true;
            most = std::max(most, clip.channelCount);
        }
    return anyPicture ? most : 2;
}

int sourceChannelCount(const TrackSource& track) {
    int most = 1;
    for (const auto& clip : track.clips)
        most = std::max(most, clip.channelCount);
    return most;
}

AudioTrackMap videoAudioTrackMap(const std::vector<TrackSource>& videoSrcs, ChannelLayout channels) {
    AudioTrackMap map;
    for (const auto& track : videoSrcs) {
        const int n = channels == ChannelLayout::perChannel ? videoSourceChannelCount(track) : 1;
        std::vector<int> tracks;
        for (int k = 1; k <= n; ++k)
            tracks.push_back(map.next + k);
        map.perSource.push_back(std::move(tracks));
        map.next += n;
    }
    return map;
}

std::vector<ClipPlan> makePlans(const std::vector<TrackSource>& videoSrcs,
                                const std::vector<TrackSource>& audioSrcs, ChannelLayout channels) {
    const AudioTrackMap map = videoAudioTrackMap(videoSrcs, channels);
    int nextFile = 1, nextMaster = 1, nextItem = 1;
    std::map<Url, int> fileIDs;
    const auto fileNumber = [&](const Url& url) {
        const auto [it, inserted] = fileIDs.try_emplace(url, nextFile);
        if (inserted) ++nextFile;
        return it->second;
    };

    std::vector<ClipPlan> plans;
    for (std::size_t i = 0; i < videoSrcs.size(); ++i) {
        const auto& tracks = map.perSource[i];
        const int n = static_cast<int>(tracks.size());
        for (std::size_t j = 0; j < videoSrcs[i].clips.size(); ++j) {
            const ClipItem& clip = videoSrcs[i].clips[j];
            ClipPlan plan;
            plan.clip = clip;
            plan.fileID = fileNumber(clip.url);
            plan.videoItemID = nextItem;
            for (int k = 0; k < n; ++k) {
                plan.audioItemIDs.push_back(nextItem + 1 + k);
                plan.audioTrackIdxs.push_back(tracks[static_cast<std::size_t>(k)]);
            }
            nextItem += n + 1;
            plan.ch1ItemID = plan.audioItemIDs.front();
            plan.ch1TrackIdx = plan.audioTrackIdxs.front();
            if (n >= 2) {
                plan.ch2ItemID = plan.audioItemIDs[1];
                plan.ch2TrackIdx = plan.audioTrackIdxs[1];
            }
            plan.videoTrackIdx = static_cast<int>(i) + 1;
            plan.clipIndexInTrack = static_cast<int>(j) + 1;
            plan.isVideo = true;
            plan.channelCount = clip.pictureURL ? std::max(clip.channelCount, 1) : 2;
            plan.masterClipID = nextMaster;
            if (clip.pictureURL) {
                plan.pictureFileID = fileNumber(*clip.pictureURL);
                plan.pictureMasterID = nextMaster + 1;
                nextMaster += 2;
            } else {
                nextMaster += 1;
            }
            plans.push_back(std::move(plan));
        }
    }

    int t = map.next;
    for (std::size_t k = 0; k < audioSrcs.size(); ++k) {
        const int n = channels == ChannelLayout::perChannel ? sourceChannelCount(audioSrcs[k]) : 1;
        std::vector<int> tracks;
        for (int c = 1; c <= n; ++c)
            tracks.push_back(t + c);
        t += n;
        for (std::size_t j = 0; j < audioSrcs[k].clips.size(); ++j) {
            const ClipItem& clip = audioSrcs[k].clips[j];
            ClipPlan plan;
            plan.clip = clip;
            plan.fileID = fileNumber(clip.url);
            for (int c = 0; c < n; ++c)
                plan.audioItemIDs.push_back(nextItem + c);
            nextItem += n;
            plan.ch1ItemID = plan.audioItemIDs.front();
            plan.ch1TrackIdx = tracks.front();
            plan.masterClipID = nextMaster++;
            plan.clipIndexInTrack = static_cast<int>(j) + 1;
            plan.isVideo = false;
            plan.channelCount = n;
            plan.audioTrackIdxs = tracks;
            plan.audioSourceIndex = static_cast<int>(k);
            plans.push_back(std::move(plan));
        }
    }
    return plans;
}

// ---- clip helpers ---------------------------------------------------------------------------

std::optional<double> driftCorrection(const ClipItem& clip, double frameSeconds) {
    const auto speed = clip.driftSpeed(frameSeconds);
    if (!speed || !std::isfinite(*speed) || !(*speed > 0)) return std::nullopt;
    return speed;
}

std::optional<ItemTiming> pictureTiming(const ClipItem& clip, const RateInfo& ri) {
    if (!clip.pictureURL || *clip.pictureURL == clip.url) return std::nullopt;
    const auto drift = driftCorrection(clip, 1.0 / ri.effectiveRate());
    const double played = clip.pictureDuration();
    ItemTiming timing;
    timing.timelineFrames = std::max(ri.frames(drift ? played / *drift : played), 1);
    const bool counted = clip.pictureFrames && *clip.pictureFrames >= 1;
    timing.sourceFrames = counted ? *clip.pictureFrames : std::max(ri.frames(played), 1);
    const double speed = static_cast<double>(timing.sourceFrames) / timing.timelineFrames * 100.0;
    // Below a twentieth of a percent a conform's remap would only add rounding noise; a drift is
    // corrected only where it moves the end by a quarter of a frame, so it always counts.
    if (drift ? timing.sourceFrames != timing.timelineFrames : std::fabs(speed - 100.0) >= 0.05)
        timing.speed = speed;
    return timing;
}

ItemTiming fileTiming(const ClipItem& clip, const RateInfo& ri) {
    const double frameSeconds = 1.0 / ri.effectiveRate();
    ItemTiming timing;
    timing.sourceFrames = ri.frames(clip.duration);
    const auto drift = driftCorrection(clip, frameSeconds);
    timing.timelineFrames = ri.frames(drift ? clip.duration / *drift : clip.duration);
    if (drift && timing.sourceFrames != timing.timelineFrames && timing.timelineFrames > 0)
        timing.speed = static_cast<double>(timing.sourceFrames) / timing.timelineFrames * 100.0;
    return timing;
}

std::string speedText(const ItemTiming& timing) {
    const double speed = timing.speed.value_or(100.0);
    int decimals = 3;
    for (double scale = 1e3; decimals < 9; ++decimals, scale *= 10) {
        const double written = std::round(speed * scale) / scale;
        if (std::round(timing.timelineFrames * written / 100.0) == timing.sourceFrames) break;
    }
    return fmt::sprintf("%.*f", decimals, speed);
}

std::optional<std::string> reelName(const ClipItem& clip) {
    if (clip.recordingDate) {
        const std::time_t seconds =
            std::chrono::duration_cast<std::chrono::seconds>(clip.recordingDate->time_since_epoch()).count();
        std::tm local{};
        if (::localtime_r(&seconds, &local) != nullptr) {
            char text[16];
            if (std::strftime(text, sizeof text, "%Y%m%d", &local) == 8) return std::string(text);
        }
    }
    const std::string folder = clip.url.deletingLastPathComponent().lastPathComponent();
    if (folder.empty() || folder == "/") return std::nullopt;
    return folder;
}

std::string localFileURL(const Url& url) {
    std::error_code ec;
    auto resolved = std::filesystem::weakly_canonical(url.fsPath(), ec);
    const std::string path = ec || resolved.empty() ? url.path() : resolved.lexically_normal().string();
    return "file://localhost" + percentEncoded(path, UrlChars::path);
}

Timecode framesToDropFrame30(int frames) {
    // Ten minutes at 29.97 hold 17,982 frames; every minute but each tenth drops two numbers.
    const long long f = std::max(frames, 0);
    long long n = f + 18 * (f / 17982);
    const long long m = f % 17982;
    if (m > 1799) n += 2 + 2 * ((m - 1800) / 1798);
    return {static_cast<int>((n / 108000) % 24), static_cast<int>((n / 1800) % 60),
            static_cast<int>((n / 30) % 60), static_cast<int>(n % 30)};
}

std::string escape(std::string_view text) {
    return XmlText::escape(text);
}

// ---- writer ---------------------------------------------------------------------------------

namespace {

struct Writer {
    RateInfo ri;
    ExportStyle style = ExportStyle::premiere;
    ChannelLayout channels = ChannelLayout::perChannel;
    int width = 3840;
    int height = 2160;
    // File numbers already written in full inside the sequence (resolve style) and in the bins
    // (premiere style): each file is written out exactly once.
    std::set<int> writtenInSequence;
    std::set<int> writtenInBins;
    std::vector<std::string> lines;

    void add(int indent, std::string_view text) {
        std::string line(static_cast<std::size_t>(indent), ' ');
        line += text;
        lines.push_back(std::move(line));
    }

    bool emitFullInSequence(int fileID) {
        if (style != ExportStyle::resolve) return false;
        return writtenInSequence.insert(fileID).second;
    }
    bool emitFullInBin(int fileID) {
        if (style != ExportStyle::premiere) return false;
        return writtenInBins.insert(fileID).second;
    }

    void rateXML(int indent) { rateXML(indent, ri); }
    void rateXML(int indent, const RateInfo& rate) {
        add(indent, "<rate>");
        add(indent + 2, fmt::sprintf("<timebase>%d</timebase>", rate.timebase));
        add(indent + 2, fmt::sprintf("<ntsc>%s</ntsc>", rate.ntsc ? "TRUE" : "FALSE"));
        add(indent, "</rate>");
    }

    // The rate a file's own frames run at. The editors describe a picture file at its own rate
    // (its frame count, timecode and samples) even in a sequence of another rate, and only the
    // clip items count in the sequence's frames; a 24 fps take described at 25 would claim a
    // length and a timecode it doesn't have. Sound files have no frames of their own and take the
    // sequence's rate.
    RateInfo fileRate(const ClipItem& clip) const {
        const auto rate = pictureFrameRate(clip);
        return rate ? rateInfo(standardFrameRate(*rate)) : ri;
    }

    void fileTimecodeXML(const ClipItem& clip, const RateInfo& rate, int indent,
                         std::optional<double> seconds, bool dropFrame) {
        double at = seconds ? *seconds : clip.startTimecode.value_or(0.0);
        if (!(at > 0)) at = 0;
        int frame = 0;
        std::string text;
        std::string display;
        if (dropFrame && rate.ntsc && rate.timebase == 30) {
            frame = rate.frames(at);
            const Timecode tc = framesToDropFrame30(frame);
            text = fmt::sprintf("%02d;%02d;%02d;%02d", tc.hours, tc.minutes, tc.seconds, tc.frames);
            display = "DF";
        } else {
            const int base = std::max(rate.timebase, 1);
            frame = std::max(clampedRound(at * base), 0);
            text = fmt::sprintf("%02d:%02d:%02d:%02d", frame / (3600 * base), (frame / (60 * base)) % 60,
                                (frame / base) % 60, frame % base);
            display = "NDF";
        }
        add(indent, "<timecode>");
        rateXML(indent + 2, rate);
        add(indent + 2, "<string>" + text + "</string>");
        add(indent + 2, fmt::sprintf("<frame>%d</frame>", frame));
        add(indent + 2, "<displayformat>" + display + "</displayformat>");
        if (const auto reel = reelName(clip)) {
            add(indent + 2, "<reel>");
            add(indent + 4, "<name>" + escape(*reel) + "</name>");
            add(indent + 2, "</reel>");
        }
        add(indent, "</timecode>");
    }

    void videoSampleCharacteristics(int indent, const RateInfo& rate, int w, int h) {
        add(indent, "<samplecharacteristics>");
        rateXML(indent + 2, rate);
        add(indent + 2, fmt::sprintf("<width>%d</width>", w));
        add(indent + 2, fmt::sprintf("<height>%d</height>", h));
        add(indent + 2, "<anamorphic>FALSE</anamorphic>");
        add(indent + 2, "<pixelaspectratio>square</pixelaspectratio>");
        add(indent + 2, "<fielddominance>none</fielddominance>");
        add(indent, "</samplecharacteristics>");
    }

    void audioSampleCharacteristics(int indent) {
        add(indent, "<samplecharacteristics>");
        add(indent + 2, "<depth>16</depth>");
        add(indent + 2, "<samplerate>48000</samplerate>");
        add(indent, "</samplecharacteristics>");
    }

    void fileXML(const ClipPlan& plan, bool emitFull, int indent) {
        if (!emitFull) {
            add(indent, fmt::sprintf("<file id=\"file-%d\"/>", plan.fileID));
            return;
        }
        const ClipItem& clip = plan.clip;
        add(indent, fmt::sprintf("<file id=\"file-%d\">", plan.fileID));
        add(indent + 2, "<name>" + escape(clip.url.lastPathComponent()) + "</name>");
        add(indent + 2, "<pathurl>" + escape(localFileURL(clip.url)) + "</pathurl>");
        const bool picture = plan.isVideo && !plan.hasCompanionPicture();
        const RateInfo rate = picture ? fileRate(clip) : ri;
        rateXML(indent + 2, rate);
        add(indent + 2, fmt::sprintf("<duration>%d</duration>", rate.frames(clip.duration)));
        // Camera files carry drop-frame timecode at 29.97; sound files count plain frames.
        fileTimecodeXML(clip, rate, indent + 2, std::nullopt, picture);
        add(indent + 2, "<media>");
        if (picture) {
            add(indent + 4, "<video>");
            videoSampleCharacteristics(indent + 6, rate, clip.pixelWidth.value_or(width),
                                       clip.pixelHeight.value_or(height));
            add(indent + 4, "</video>");
        }
        if (plan.isVideo && plan.channelCount == 2) {
            // A camera's stereo pair: one element, so the editor keeps it as a pair.
            add(indent + 4, "<audio>");
            audioSampleCharacteristics(indent + 6);
            add(indent + 6, "<channelcount>2</channelcount>");
            add(indent + 6, "<layout>stereo</layout>");
            for (int ch = 1; ch <= 2; ++ch) {
                add(indent + 6, "<audiochannel>");
                add(indent + 8, fmt::sprintf("<sourcechannel>%d</sourcechannel>", ch));
                add(indent + 8,
                    ch == 1 ? "<channellabel>left</channellabel>" : "<channellabel>right</channellabel>");
                add(indent + 6, "</audiochannel>");
            }
            add(indent + 4, "</audio>");
        } else {
            for (int ch = 1; ch <= plan.channelCount; ++ch) {
                add(indent + 4, "<audio>");
                audioSampleCharacteristics(indent + 6);
                add(indent + 6, "<channelcount>1</channelcount>");
                add(indent + 6, "<audiochannel>");
                add(indent + 8, fmt::sprintf("<sourcechannel>%d</sourcechannel>", ch));
                add(indent + 6, "</audiochannel>");
                add(indent + 4, "</audio>");
            }
        }
        add(indent + 2, "</media>");
        add(indent, "</file>");
    }

    void pictureFileXML(const ClipPlan& plan, const ItemTiming& timing, bool emitFull, int indent) {
        const int id = plan.pictureFileID.value_or(plan.fileID);
        if (!emitFull) {
            add(indent, fmt::sprintf("<file id=\"file-%d\"/>", id));
            return;
        }
        const ClipItem& clip = plan.clip;
        const Url picture = clip.pictureURL.value_or(clip.url);
        add(indent, fmt::sprintf("<file id=\"file-%d\">", id));
        add(indent + 2, "<name>" + escape(picture.lastPathComponent()) + "</name>");
        add(indent + 2, "<pathurl>" + escape(localFileURL(picture)) + "</pathurl>");
        const RateInfo rate = fileRate(clip);
        rateXML(indent + 2, rate);
        // A picture whose frame count is unknown is as long as it plays, counted at its own rate.
        const bool counted = clip.pictureFrames && *clip.pictureFrames >= 1;
        add(indent + 2, fmt::sprintf("<duration>%d</duration>",
                                     counted ? timing.sourceFrames : rate.frames(clip.pictureDuration())));
        fileTimecodeXML(clip, rate, indent + 2, clip.pictureTimecode.value_or(0.0), true);
        add(indent + 2, "<media>");
        add(indent + 4, "<video>");
        videoSampleCharacteristics(indent + 6, rate, clip.pixelWidth.value_or(width),
                                   clip.pixelHeight.value_or(height));
        add(indent + 4, "</video>");
        add(indent + 2, "</media>");
        add(indent, "</file>");
    }

    void sourceTrack(int indent, std::string_view mediaType, int index) {
        add(indent, "<sourcetrack>");
        add(indent + 2, fmt::sprintf("<mediatype>%s</mediatype>", mediaType));
        add(indent + 2, fmt::sprintf("<trackindex>%d</trackindex>", index));
        add(indent, "</sourcetrack>");
    }

    void masterClipHead(int id, const std::string& name, int duration) {
        add(8, fmt::sprintf("<clip id=\"masterclip-%d\">", id));
        add(10, fmt::sprintf("<masterclipid>masterclip-%d</masterclipid>", id));
        add(10, "<ismasterclip>TRUE</ismasterclip>");
        add(10, "<name>" + escape(name) + "</name>");
        add(10, fmt::sprintf("<duration>%d</duration>", duration));
        rateXML(10);
        add(10, "<in>-1</in>");
        add(10, "<out>-1</out>");
        add(10, "<media>");
    }

    void masterClipXML(const ClipPlan& plan) {
        const std::string name = plan.clip.url.lastPathComponent();
        const int duration = ri.frames(plan.clip.duration);
        masterClipHead(plan.masterClipID, name, duration);
        if (plan.isVideo && !plan.hasCompanionPicture()) {
            add(12, "<video>");
            add(14, "<track>");
            add(16, fmt::sprintf("<clipitem id=\"mc%dv\">", plan.masterClipID));
            add(18, fmt::sprintf("<masterclipid>masterclip-%d</masterclipid>", plan.masterClipID));
            add(18, "<name>" + escape(name) + "</name>");
            add(18, fmt::sprintf("<duration>%d</duration>", duration));
            rateXML(18);
            sourceTrack(18, "video", 1);
            add(16, "</clipitem>");
            add(14, "</track>");
            add(12, "</video>");
        }
        add(12, "<audio>");
        const bool full = emitFullInBin(plan.fileID);
        for (int ch = 1; ch <= plan.channelCount; ++ch) {
            add(14, "<track>");
            add(16, fmt::sprintf("<clipitem id=\"mc%da%d\" premiereChannelType=\"mono\">", plan.masterClipID,
                                 ch));
            add(18, fmt::sprintf("<masterclipid>masterclip-%d</masterclipid>", plan.masterClipID));
            add(18, "<name>" + escape(name) + "</name>");
            add(18, fmt::sprintf("<duration>%d</duration>", duration));
            rateXML(18);
            // Only the first channel names the file; the others are its channels by source track.
            if (ch == 1) fileXML(plan, full, 18);
            sourceTrack(18, "audio", ch);
            add(16, "</clipitem>");
            add(14, "</track>");
        }
        add(12, "</audio>");
        add(10, "</media>");
        add(8, "</clip>");
    }

    void pictureMasterClipXML(const ClipPlan& plan, const ItemTiming& timing) {
        const int id = plan.pictureMasterID.value_or(plan.masterClipID);
        const std::string name = plan.clip.pictureURL.value_or(plan.clip.url).lastPathComponent();
        masterClipHead(id, name, timing.sourceFrames);
        add(12, "<video>");
        add(14, "<track>");
        add(16, fmt::sprintf("<clipitem id=\"mc%d\">", id));
        add(18, fmt::sprintf("<masterclipid>masterclip-%d</masterclipid>", id));
        add(18, "<name>" + escape(name) + "</name>");
        add(18, fmt::sprintf("<duration>%d</duration>", timing.sourceFrames));
        rateXML(18);
        pictureFileXML(plan, timing, emitFullInBin(plan.pictureFileID.value_or(plan.fileID)), 18);
        sourceTrack(18, "video", 1);
        add(16, "</clipitem>");
        add(14, "</track>");
        add(12, "</video>");
        add(10, "</media>");
        add(8, "</clip>");
    }

    void binXML(const std::string& name, const std::vector<const ClipPlan*>& plans) {
        add(4, "<bin>");
        add(6, "<name>" + escape(name) + "</name>");
        add(6, "<children>");
        for (const ClipPlan* plan : plans) {
            if (const auto timing = pictureTiming(plan->clip, ri)) pictureMasterClipXML(*plan, *timing);
            masterClipXML(*plan);
        }
        add(6, "</children>");
        add(4, "</bin>");
    }

    void videoFormatXML(int indent) {
        add(indent, "<format>");
        add(indent + 2, "<samplecharacteristics>");
        rateXML(indent + 4);
        add(indent + 4, "<codec>");
        add(indent + 6, "<name>Apple ProRes 422</name>");
        add(indent + 6, "<appspecificdata>");
        add(indent + 8, "<appname>Final Cut Pro</appname>");
        add(indent + 8, "<appmanufacturer>Apple Inc.</appmanufacturer>");
        add(indent + 8, "<appversion>7.0</appversion>");
        add(indent + 6, "</appspecificdata>");
        add(indent + 4, "</codec>");
        add(indent + 4, fmt::sprintf("<width>%d</width>", width));
        add(indent + 4, fmt::sprintf("<height>%d</height>", height));
        add(indent + 4, "<anamorphic>FALSE</anamorphic>");
        add(indent + 4, "<pixelaspectratio>square</pixelaspectratio>");
        add(indent + 4, "<fielddominance>none</fielddominance>");
        add(indent + 4, "<colordepth>24</colordepth>");
        add(indent + 2, "</samplecharacteristics>");
        add(indent, "</format>");
    }

    void timeRemapXML(const ItemTiming& timing, int indent) {
        if (!timing.speed) return;
        const auto parameter = [&](std::string_view id, const std::optional<std::string>& min,
                                   const std::optional<std::string>& max,
                                   const std::optional<std::string>& value) {
            add(indent + 4, "<parameter authoringApp=\"PremierePro\">");
            add(indent + 6, fmt::sprintf("<parameterid>%s</parameterid>", id));
            add(indent + 6, fmt::sprintf("<name>%s</name>", id));
            if (min) add(indent + 6, "<valuemin>" + *min + "</valuemin>");
            if (max) add(indent + 6, "<valuemax>" + *max + "</valuemax>");
            if (value) add(indent + 6, "<value>" + *value + "</value>");
        };
        add(indent, "<filter>");
        add(indent + 2, "<effect>");
        add(indent + 4, "<name>Time Remap</name>");
        add(indent + 4, "<effectid>timeremap</effectid>");
        add(indent + 4, "<effectcategory>motion</effectcategory>");
        add(indent + 4, "<effecttype>motion</effecttype>");
        add(indent + 4, "<mediatype>video</mediatype>");
        parameter("variablespeed", "0", "1", "0");
        add(indent + 4, "</parameter>");
        parameter("speed", "-100000", "100000", speedText(timing));
        add(indent + 4, "</parameter>");
        parameter("reverse", std::nullopt, std::nullopt, "FALSE");
        add(indent + 4, "</parameter>");
        parameter("frameblending", std::nullopt, std::nullopt, "FALSE");
        add(indent + 4, "</parameter>");
        parameter("graphdict", "0", std::to_string(timing.timelineFrames), std::nullopt);
        add(indent + 6, "<keyframe>");
        add(indent + 8, "<when>0</when>");
        add(indent + 8, "<value>0</value>");
        add(indent + 8, "<speedvirtualkf>TRUE</speedvirtualkf>");
        add(indent + 8, "<speedkfin>TRUE</speedkfin>");
        add(indent + 6, "</keyframe>");
        add(indent + 6, "<keyframe>");
        add(indent + 8, fmt::sprintf("<when>%d</when>", timing.timelineFrames));
        add(indent + 8, fmt::sprintf("<value>%d</value>", timing.sourceFrames));
        add(indent + 8, "<speedvirtualkf>TRUE</speedvirtualkf>");
        add(indent + 8, "<speedkfout>TRUE</speedkfout>");
        add(indent + 6, "</keyframe>");
        add(indent + 6, "<interpolation>");
        add(indent + 8, "<name>FCPCurve</name>");
        add(indent + 6, "</interpolation>");
        add(indent + 4, "</parameter>");
        add(indent + 2, "</effect>");
        add(indent, "</filter>");
    }

    void loggingInfo(int indent) {
        add(indent, "<logginginfo>");
        for (const char* element : {"description", "scene", "shottake", "lognote", "good",
                                    "originalvideofilename", "originalaudiofilename"})
            add(indent + 2, fmt::sprintf("<%s></%s>", element, element));
        add(indent, "</logginginfo>");
    }

    void labelXML(const ClipItem& clip, int indent) {
        if (clip.audioUsability != AudioUsability::ok) return;
        const char* colour = nullptr;
        switch (clip.syncStatus) {
        case SyncStatus::pending:
            return;
        case SyncStatus::synced:
            colour = "Forest";
            break;
        case SyncStatus::weak:
            colour = "Mango";
            break;
        case SyncStatus::failed:
            colour = "Rose";
            break;
        }
        add(indent, "<labels>");
        add(indent + 2, fmt::sprintf("<label2>%s</label2>", colour));
        add(indent, "</labels>");
    }

    void link(int itemID, std::string_view mediaType, int trackIndex, int clipIndex) {
        add(10, "<link>");
        add(12, fmt::sprintf("<linkclipref>clipitem-%d</linkclipref>", itemID));
        add(12, fmt::sprintf("<mediatype>%s</mediatype>", mediaType));
        add(12, fmt::sprintf("<trackindex>%d</trackindex>", trackIndex));
        add(12, fmt::sprintf("<clipindex>%d</clipindex>", clipIndex));
        add(10, "</link>");
    }

    void itemTiming(const std::string& name, int masterID, int sourceFrames, int start, int length) {
        add(10, fmt::sprintf("<masterclipid>masterclip-%d</masterclipid>", masterID));
        add(10, "<name>" + escape(name) + "</name>");
        add(10, "<enabled>TRUE</enabled>");
        add(10, fmt::sprintf("<duration>%d</duration>", sourceFrames));
        rateXML(10);
        add(10, fmt::sprintf("<start>%d</start>", start));
        add(10, fmt::sprintf("<end>%d</end>", start + length));
        add(10, "<in>0</in>");
        add(10, fmt::sprintf("<out>%d</out>", length));
    }

    void videoClipItemXML(const ClipPlan& plan) {
        const ClipItem& clip = plan.clip;
        const auto timing = pictureTiming(clip, ri);
        const int start = ri.frames(clip.startOffset);
        const int videoID = plan.videoItemID.value_or(0);
        add(8, fmt::sprintf("<clipitem id=\"clipitem-%d\">", videoID));
        if (timing) {
            itemTiming(clip.pictureURL->lastPathComponent(), plan.pictureMasterID.value_or(plan.masterClipID),
                       timing->sourceFrames, start, timing->timelineFrames);
        } else {
            const ItemTiming own = fileTiming(clip, ri);
            itemTiming(clip.url.lastPathComponent(), plan.masterClipID, own.sourceFrames, start,
                       own.timelineFrames);
        }
        add(10, "<alphatype>none</alphatype>");
        add(10, "<pixelaspectratio>square</pixelaspectratio>");
        add(10, "<anamorphic>FALSE</anamorphic>");
        if (timing) {
            pictureFileXML(plan, *timing, emitFullInSequence(plan.pictureFileID.value_or(plan.fileID)), 10);
            timeRemapXML(*timing, 10);
        } else {
            fileXML(plan, emitFullInSequence(plan.fileID), 10);
            timeRemapXML(fileTiming(clip, ri), 10);
        }
        link(videoID, "video", plan.videoTrackIdx.value_or(1), plan.clipIndexInTrack);
        for (std::size_t k = 0; k < plan.audioItemIDs.size(); ++k)
            link(plan.audioItemIDs[k], "audio", plan.audioTrackIdxs[k], plan.clipIndexInTrack);
        loggingInfo(10);
        labelXML(clip, 10);
        add(8, "</clipitem>");
    }

    void audioClipItemXML(const ClipPlan& plan, std::size_t channelIndex, int trackIdx, bool peel) {
        const ClipItem& clip = plan.clip;
        const int itemID = plan.audioItemIDs[channelIndex];
        const ItemTiming timing = fileTiming(clip, ri);
        add(8, fmt::sprintf("<clipitem id=\"clipitem-%d\" premiereChannelType=\"%s\">", itemID,
                            plan.channelCount != 1 ? "stereo" : "mono"));
        itemTiming(clip.url.lastPathComponent(), plan.masterClipID, timing.sourceFrames,
                   ri.frames(clip.startOffset), timing.timelineFrames);
        fileXML(plan, emitFullInSequence(plan.fileID), 10);
        sourceTrack(10, "audio", static_cast<int>(channelIndex) + 1);
        timeRemapXML(timing, 10);
        link(plan.videoItemID.value_or(0), "video", plan.videoTrackIdx.value_or(1), plan.clipIndexInTrack);
        for (std::size_t k = 0; k < plan.audioItemIDs.size(); ++k)
            if (!peel || k == channelIndex)
                link(plan.audioItemIDs[k], "audio", k == channelIndex ? trackIdx : plan.audioTrackIdxs[k],
                     plan.clipIndexInTrack);
        loggingInfo(10);
        labelXML(clip, 10);
        add(8, "</clipitem>");
    }

    void audioChannelClipItemXML(const ClipPlan& plan, std::size_t channelSlot, bool peel) {
        const ClipItem& clip = plan.clip;
        const int itemID = plan.audioItemIDs[channelSlot];
        const ItemTiming timing = fileTiming(clip, ri);
        add(8, fmt::sprintf("<clipitem id=\"clipitem-%d\" premiereChannelType=\"mono\">", itemID));
        itemTiming(clip.url.lastPathComponent(), plan.masterClipID, timing.sourceFrames,
                   ri.frames(clip.startOffset), timing.timelineFrames);
        fileXML(plan, emitFullInSequence(plan.fileID), 10);
        sourceTrack(10, "audio", static_cast<int>(channelSlot) + 1);
        timeRemapXML(timing, 10);
        // Channels of one recording move together unless they were peeled onto tracks of their own.
        if (!peel && plan.audioItemIDs.size() > 1)
            for (std::size_t k = 0; k < plan.audioItemIDs.size(); ++k)
                link(plan.audioItemIDs[k], "audio", plan.audioTrackIdxs[k], plan.clipIndexInTrack);
        loggingInfo(10);
        labelXML(clip, 10);
        add(8, "</clipitem>");
    }

    void trackTail() {
        add(8, "<enabled>TRUE</enabled>");
        add(8, "<locked>FALSE</locked>");
    }
};

constexpr std::string_view kSequenceOpen =
    "<sequence TL.SQAudioVisibleBase=\"0\" TL.SQVideoVisibleBase=\"0\" TL.SQVisibleBaseTime=\"0\" "
    "TL.SQHideShyTracks=\"0\" TL.SQHeaderWidth=\"236\" MZ.Sequence.AudioTimeDisplayFormat=\"200\" "
    "MZ.Sequence.PreviewFrameSizeHeight=\"%d\" MZ.Sequence.PreviewFrameSizeWidth=\"%d\" "
    "MZ.Sequence.PreviewRenderingClassID=\"1061109567\" "
    "MZ.Sequence.PreviewRenderingPresetCodec=\"1634755443\" "
    "MZ.Sequence.PreviewRenderingPresetPath=\"EncoderPresets/SequencePreview/"
    "795454d9-d3c2-429d-9474-923ab13b7018/QuickTime.epr\" MZ.Sequence.PreviewUseMaxRenderQuality=\"true\" "
    "MZ.Sequence.PreviewUseMaxBitDepth=\"true\" "
    "MZ.Sequence.EditingModeGUID=\"795454d9-d3c2-429d-9474-923ab13b7018\" "
    "MZ.Sequence.VideoTimeDisplayFormat=\"110\" explodedTracks=\"true\">";

constexpr std::string_view kVideoTrackOpen = "<track TL.SQTrackShy=\"0\" TL.SQTrackExpandedHeight=\"17\" "
                                             "TL.SQTrackExpanded=\"0\" MZ.TrackTargeted=\"%s\">";

constexpr std::string_view kAudioTrackOpen =
    "<track TL.SQTrackAudioKeyframeStyle=\"0\" TL.SQTrackShy=\"0\" TL.SQTrackExpandedHeight=\"17\" "
    "TL.SQTrackExpanded=\"0\" MZ.TrackTargeted=\"%s\" PannerCurrentValue=\"0.5\" PannerIsInverted=\"true\" "
    "PannerStartKeyframe=\"-91445760000000000,0.5,0,0,0,0,0,0\" PannerName=\"Balance\" "
    "currentExplodedTrackIndex=\"%d\" totalExplodedTrackCount=\"%d\" premiereTrackType=\"Mono\">";

// The most common picture size among the clips that state one; the first met wins a tie.
std::pair<int, int> sequenceFrameSize(const std::vector<TrackSource>& sources) {
    std::vector<std::pair<std::pair<int, int>, int>> counts;
    for (const auto& track : sources)
        for (const auto& clip : track.clips) {
            if (!clip.pixelWidth || !clip.pixelHeight) continue;
            const std::pair<int, int> size{*clip.pixelWidth, *clip.pixelHeight};
            auto it =
                std::find_if(counts.begin(), counts.end(), [&](const auto& c) { return c.first == size; });
            if (it == counts.end())
                counts.push_back({size, 1});
            else
                ++it->second;
        }
    std::pair<int, int> best{3840, 2160};
    int bestCount = 0;
    for (const auto& [size, count] : counts)
        if (count > bestCount) {
            best = size;
            bestCount = count;
        }
    return best;
}

} // namespace

std::string buildXML(const std::vector<TrackSource>& sources, double fps, ExportStyle style,
                     ChannelLayout channels) {
    Writer w;
    w.ri = rateInfo(fps);
    w.style = style;
    w.channels = channels;

    std::vector<TrackSource> videoSrcs, audioSrcs;
    for (const auto& track : sources)
        (track.type == SourceType::video ? videoSrcs : audioSrcs).push_back(track);

    double end = 0;
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            if (const auto drift = driftCorrection(clip, 1.0 / w.ri.effectiveRate()))
                end = std::max(end, clip.startOffset + clip.duration / *drift);
            else
                end = std::max(end, clip.startOffset + clip.duration);
    const int sequenceFrames = w.ri.frames(end);

    const std::vector<ClipPlan> plans = makePlans(videoSrcs, audioSrcs, channels);
    const AudioTrackMap map = videoAudioTrackMap(videoSrcs, channels);
    std::tie(w.width, w.height) = sequenceFrameSize(sources);

    // The plans of each source, in the order makePlans made them.
    std::vector<std::vector<const ClipPlan*>> videoPlans(videoSrcs.size()), audioPlans(audioSrcs.size());
    {
        std::size_t p = 0;
        for (std::size_t i = 0; i < videoSrcs.size(); ++i)
            for (std::size_t j = 0; j < videoSrcs[i].clips.size(); ++j)
                videoPlans[i].push_back(&plans[p++]);
        for (std::size_t k = 0; k < audioSrcs.size(); ++k)
            for (std::size_t j = 0; j < audioSrcs[k].clips.size(); ++j)
                audioPlans[k].push_back(&plans[p++]);
    }
    const bool peel = channels == ChannelLayout::perChannel;

    w.lines.emplace_back("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    w.lines.emplace_back("<!DOCTYPE xmeml>");
    w.lines.emplace_back("<xmeml version=\"4\">");
    w.add(2, "<project>");
    w.add(4, "<name>Trelvane</name>");
    w.add(4, "<children>");
    for (std::size_t i = 0; i < videoSrcs.size(); ++i)
        w.binXML(videoSrcs[i].name, videoPlans[i]);
    for (std::size_t k = 0; k < audioSrcs.size(); ++k)
        w.binXML(audioSrcs[k].name, audioPlans[k]);

    w.add(0, fmt::sprintf(std::string(kSequenceOpen), w.height, w.width));
    w.add(2, "<name>Trelvane Timeline</name>");
    w.add(2, fmt::sprintf("<duration>%d</duration>", sequenceFrames));
    w.rateXML(2);
    w.add(2, "<media>");
    w.add(4, "<video>");
    w.videoFormatXML(6);
    for (std::size_t i = 0; i < videoSrcs.size(); ++i) {
        w.add(6, fmt::sprintf(std::string(kVideoTrackOpen), i == 0 ? "1" : "0"));
        for (const ClipPlan* plan : videoPlans[i])
            w.videoClipItemXML(*plan);
        w.trackTail();
        w.add(6, "</track>");
    }
    if (videoSrcs.empty()) {
        // The importers expect at least one video track.
        w.add(6, fmt::sprintf(std::string(kVideoTrackOpen), "0"));
        w.trackTail();
        w.add(6, "</track>");
    }
    w.add(4, "</video>");

    w.add(4, "<audio>");
    w.add(6, "<numOutputChannels>2</numOutputChannels>");
    w.add(6, "<format>");
    w.audioSampleCharacteristics(8);
    w.add(6, "</format>");
    w.add(6, "<outputs>");
    for (int index = 1; index <= 2; ++index) {
        w.add(8, "<group>");
        w.add(10, fmt::sprintf("<index>%d</index>", index));
        w.add(10, "<numchannels>1</numchannels>");
        w.add(10, "<downmix>0</downmix>");
        w.add(10, "<channel>");
        w.add(12, fmt::sprintf("<index>%d</index>", index));
        w.add(10, "</channel>");
        w.add(8, "</group>");
    }
    w.add(6, "</outputs>");
    const auto audioTrack = [&](int trackNumber, int place, int count, const auto& items) {
        const bool exploded = channels == ChannelLayout::perChannel;
        w.add(6, fmt::sprintf(std::string(kAudioTrackOpen), trackNumber < 3 ? "1" : "0", exploded ? place : 0,
                              exploded ? count : 1));
        items();
        w.trackTail();
        // Tracks alternate between the two outputs.
        w.add(8, fmt::sprintf("<outputchannelindex>%d</outputchannelindex>", ((trackNumber - 1) % 2) + 1));
        w.add(6, "</track>");
    };
    for (std::size_t i = 0; i < videoSrcs.size(); ++i) {
        const auto& tracks = map.perSource[i];
        for (std::size_t c = 0; c < tracks.size(); ++c)
            audioTrack(tracks[c], static_cast<int>(c), static_cast<int>(tracks.size()), [&] {
                for (const ClipPlan* plan : videoPlans[i])
                    w.audioClipItemXML(*plan, c, tracks[c], peel);
            });
    }
    int trackNumber = map.next;
    for (std::size_t k = 0; k < audioSrcs.size(); ++k) {
        const int n = channels == ChannelLayout::perChannel ? sourceChannelCount(audioSrcs[k]) : 1;
        for (int c = 0; c < n; ++c)
            audioTrack(trackNumber + c + 1, c, n, [&] {
                for (const ClipPlan* plan : audioPlans[k])
                    w.audioChannelClipItemXML(*plan, static_cast<std::size_t>(c), peel);
            });
        trackNumber += n;
    }
    w.add(4, "</audio>");
    w.add(2, "</media>");
    w.add(2, "<timecode>");
    w.rateXML(4);
    w.add(4, "<string>00:00:00:00</string>");
    w.add(4, "<frame>0</frame>");
    w.add(4, "<displayformat>NDF</displayformat>");
    w.add(2, "</timecode>");
    w.add(0, "</sequence>");
    w.add(4, "</children>");
    w.add(2, "</project>");
    w.add(0, "</xmeml>");

    std::string out;
    std::size_t size = 0;
    for (const auto& line : w.lines)
        size += line.size() + 1;
    out.reserve(size);
    for (std::size_t i = 0; i < w.lines.size(); ++i) {
        if (i > 0) out += '\n';
        out += w.lines[i];
    }
    return out;
}

} // namespace trelvane::FCP7Exporter
