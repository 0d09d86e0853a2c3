// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/FCPXMLExporter.hpp"

#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/XmlText.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <map>
#include <numeric>
#include <string_view>

namespace trelvane::FCPXMLExporter {

namespace {

// Frame sizes the editor has a named preset for, besides 1280 wide and 1920 by 1080.
constexpr std::array<std::string_view, 25> kKnownFrameSizes = {
    "640x360",   "640x480",   "720x486",   "720x576",   "960x540",   "960x720",   "1280x1080",
    "1440x1080", "2048x1024", "2048x1080", "2048x1152", "2048x1536", "3840x1920", "3840x2160",
    "4096x2048", "4096x2160", "4096x2304", "5120x2160", "5120x2700", "5120x2880", "5760x2880",
    "6144x3160", "7680x3840", "7680x4320", "8192x4320",
};

std::optional<std::string_view> rateToken(const FCP7Exporter::RateInfo& ri) {
    switch (ri.timebase) {
    case 24:
        return ri.ntsc ? "2398" : "24";
    case 25:
        return "25";
    case 30:
        return ri.ntsc ? "2997" : "30";
    case 50:
        return "50";
    case 60:
        return ri.ntsc ? "5994" : "60";
    default:
        return std::nullopt;
    }
}

struct FrameDuration {
    long long num = 1;
    long long den = 24;
    std::string text() const { return fmt::format("{}/{}s", num, den); }
};

FrameDuration frameDuration(const FCP7Exporter::RateInfo& ri) {
    if (ri.ntsc) return {1001, ri.timebase * 1000LL};
    return {1, ri.timebase};
}

// Frame counts are kept well inside 64 bits, whatever a clip claims.
constexpr double kFrameLimit = 1e12;

// The rate every sound asset is described at; sound-only clips are placed on its samples.
constexpr long long kAudioRate = 48000;

// Where a clip lies on the timeline: its offset and duration as written, and its end in units of
// 1/den s, rounded up to a whole frame (the gap must hold it).
struct Placement {
    std::string offset;
    std::string duration;
    long long end = 0;
};

struct Builder {
    FCP7Exporter::RateInfo ri;
    FrameDuration fd;
    int nextID = 1;
    std::map<std::string, std::string> formatIDs;
    std::map<Url, std::string> assetIDs;
    std::vector<std::string> formatLines;
    std::vector<std::string> assetLines;
    std::vector<std::string> clipLines;
    // The furthest clip end, in units of 1/den s: rounded offsets and durations can reach a frame
    // past the rounded timeline length, and the gap must hold every clip.
    long long end = 0;

    // `seconds` in whole frames, in units of 1/den s. Rounded to the nearest frame (half away from
    // zero), as the FCP7 and OTIO documents round: truncating would put a clip that sits past the
    // middle of a frame one frame earlier in Final Cut Pro than in the other editors, and every
    // document of one timeline must put each clip on the same frame.
    long long num(double seconds) const {
        if (!(seconds > 0)) return 0;
        const double frames = std::round(std::min(seconds * ri.effectiveRate(), kFrameLimit));
        return static_cast<long long>(frames) * fd.num;
    }
    std::string rational(long long n) const { return n == 0 ? "0s" : fmt::format("{}/{}s", n, fd.den); }
    std::string time(double seconds) const { return rational(num(seconds)); }
    double frameSeconds() const { return 1.0 / ri.effectiveRate(); }
    // A count of 1/den s in seconds.
    double toSeconds(long long n) const { return static_cast<double>(n) / static_cast<double>(fd.den); }

    // `seconds` in whole samples, clamped as `num` clamps.
    static long long samples(double seconds) {
        if (!(seconds > 0)) return 0;
        return static_cast<long long>(std::round(std::min(seconds, kFrameLimit) * kAudioRate));
    }
    // Samples as the shortest exact fraction of a second: 49008 -> "1021/1000s".
    static std::string audioRational(long long samples) {
        if (samples == 0) return "0s";
        const long long d = std::gcd(samples, kAudioRate);
        if (d == kAudioRate) return fmt::format("{}s", samples / d);
        return fmt::format("{}/{}s", samples / d, kAudioRate / d);
    }
    // Whether `seconds` lies within half a sample of a frame: then the frame is written, exactly as
    // for picture, and a sound clip placed on a frame reads the same as before samples were offered.
    bool onFrame(double seconds) const {
        if (!(seconds > 0)) return true;
        const double frames = std::min(seconds * ri.effectiveRate(), kFrameLimit);
        return std::fabs(frames - std::round(frames)) * frameSeconds() * kAudioRate <= 0.5;
    }
    // Whole frames that hold `seconds`: the end of a clip placed between frames.
    long long framesCeil(double seconds) const {
        if (!(seconds > 0)) return 0;
        const double frames = std::ceil(std::min(seconds * ri.effectiveRate(), kFrameLimit) - 1e-6);
        return static_cast<long long>(frames) * fd.num;
    }

    std::string nextResourceID() { return fmt::format("r{}", nextID++); }

    std::string formatID(int w, int h, double rate) {
        const auto rateInfo = FCP7Exporter::rateInfo(rate);
        const std::string duration = frameDuration(rateInfo).text();
        const std::string key = fmt::format("{}x{}@{}", w, h, duration);
        if (const auto it = formatIDs.find(key); it != formatIDs.end()) return it->second;
        const std::string id = nextResourceID();
        formatIDs.emplace(key, id);
        std::string line = "    <format id=\"" + id + "\"";
        if (const auto name = presetName(w, h, rate)) line += " name=\"" + *name + "\"";
        line += fmt::format(" frameDuration=\"{}\" width=\"{}\" height=\"{}\"/>", duration, w, h);
        formatLines.push_back(std::move(line));
        return id;
    }

    // The asset of a file, made on first use.
    std::string assetID(const Url& file, const std::string& start, const std::string& duration,
                        const std::string& attributes) {
        if (const auto it = assetIDs.find(file); it != assetIDs.end()) return it->second;
        const std::string id = nextResourceID();
        assetIDs.emplace(file, id);
        assetLines.push_back("    <asset id=\"" + id + "\" name=\"" +
                             XmlText::escape(file.lastPathComponent()) + "\" start=\"" + start +
                             "\" duration=\"" + duration + "\" " + attributes + "\">");
        assetLines.push_back("      <media-rep kind=\"original-media\" src=\"" +
                             XmlText::escape(XmlText::fileURLString(file)) + "\"/>");
        assetLines.push_back("    </asset>");
        return id;
    }

    double pictureRate(const ClipItem& clip, double fallback) const {
        const auto rate = FCP7Exporter::pictureFrameRate(clip);
        return rate ? standardFrameRate(*rate) : fallback;
    }

    // The source side start of the picture, mapped to the clip's time by the speed ratio; whole
    // frames, so that the start stays on a frame boundary.
    long long pictureStartNum(const ClipItem& clip, double ratio) const {
        const long long n = num(clip.pictureTimecode.value_or(0.0));
        if (ratio == 0) return n;
        return static_cast<long long>(std::round(static_cast<double>(n / fd.num) / ratio)) * fd.num;
    }

    // A picture clip: offset and duration on the frame grid, as the editor requires of video.
    Placement framed(const ClipItem& clip, long long duration) const {
        const long long offset = num(clip.startOffset);
        return {rational(offset), rational(duration), offset + duration};
    }

    // A sound-only clip: on its sample where it lies between frames, so that two recorders line up
    // to the sample; a drift-corrected clip also runs for its stretched length to the sample, with
    // the time map that plays its whole asset over that length.
    Placement sound(const ClipItem& clip, std::vector<std::string>& children) const {
        const bool between = !onFrame(clip.startOffset);
        const auto speed = FCP7Exporter::driftCorrection(clip, frameSeconds());
        if (!between && !speed) return framed(clip, num(clip.duration));
        Placement p;
        p.offset = between ? audioRational(samples(clip.startOffset)) : time(clip.startOffset);
        if (!speed) {
            p.duration = time(clip.duration);
            p.end = framesCeil(clip.startOffset + toSeconds(num(clip.duration)));
            return p;
        }
        // The asset is described in whole frames; that whole length is what is stretched.
        const double media = toSeconds(num(clip.duration));
        const long long stretched = samples(media / *speed);
        p.duration = audioRational(stretched);
        p.end =
            framesCeil(clip.startOffset + static_cast<double>(stretched) / static_cast<double>(kAudioRate));
        timeMap(children, "0s", p.duration, rational(num(clip.duration)), true);
        return p;
    }

    // Two points, the clip's start and end: a constant speed. A clock's error is undone by
    // playing the sound slower or faster as it was recorded, pitch and all.
    static void timeMap(std::vector<std::string>& children, const std::string& from, const std::string& to,
                        const std::string& value, bool drift, const std::string& fromValue = "0s") {
        children.push_back(drift ? "            <timeMap preservesPitch=\"0\">" : "            <timeMap>");
        children.push_back("              <timept time=\"" + from + "\" value=\"" + fromValue +
                           "\" interp=\"smooth2\"/>");
        children.push_back("              <timept time=\"" + to + "\" value=\"" + value +
                           "\" interp=\"smooth2\"/>");
        children.push_back("            </timeMap>");
    }

    std::string clipLine(const std::string& ref, int lane, const Placement& at, const std::string& name,
                         const std::string& start, const std::optional<int>& role,
                         const std::vector<std::string>& children) {
        end = std::max(end, at.end);
        std::string line = "        <asset-clip ref=\"" + ref + "\" lane=\"" + std::to_string(lane) +
                           "\" offset=\"" + at.offset + "\" name=\"" + XmlText::escape(name) +
                           "\" duration=\"" + at.duration + "\" start=\"" + start;
        if (role) line += "\" audioRole=\"dialogue.dialogue-" + std::to_string(*role);
        if (children.empty()) return line + "\"/>";
        line += "\">";
        for (const auto& child : children)
            line += "\n" + child;
        return line + "\n        </asset-clip>";
    }
};

} // namespace

std::optional<std::string> presetName(int width, int height, double fps) {
    const auto token = rateToken(FCP7Exporter::rateInfo(fps));
    if (!token) return std::nullopt;
    if (width == 1280) return fmt::format("FFVideoFormat720p{}", *token);
    if (width == 1920 && height == 1080) return fmt::format("FFVideoFormat1080p{}", *token);
    const std::string size = fmt::format("{}x{}", width, height);
    if (std::find(kKnownFrameSizes.begin(), kKnownFrameSizes.end(), size) != kKnownFrameSizes.end())
        return fmt::format("FFVideoFormat{}p{}", size, *token);
    return std::nullopt;
}

double speedRatio(const ClipItem& clip) {
    if (!clip.pictureURL || *clip.pictureURL == clip.url) return 0;
    if (!clip.recordFrameRate || !clip.conformFrameRate) return 0;
    if (!(*clip.recordFrameRate > 0) || !(*clip.conformFrameRate > 0)) return 0;
    const double ratio =
        static_cast<double>(*clip.recordFrameRate) / static_cast<double>(*clip.conformFrameRate);
    if (!std::isfinite(ratio) || std::fabs(ratio - 1.0) < 0.001) return 0;
    return ratio;
}

std::string build(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels) {
    Builder b;
    b.ri = FCP7Exporter::rateInfo(fps);
    b.fd = frameDuration(b.ri);

    double end = 0;
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            end = std::max(end, clip.startOffset + clip.duration);

    // The sequence takes the commonest picture size of the video clips; the first met wins a tie.
    std::vector<std::pair<std::pair<int, int>, int>> sizes;
    for (const auto& track : sources) {
        if (track.type != SourceType::video) continue;
        for (const auto& clip : track.clips) {
            const std::pair<int, int> size{clip.pixelWidth.value_or(1920), clip.pixelHeight.value_or(1080)};
            auto it =
                std::find_if(sizes.begin(), sizes.end(), [&](const auto& s) { return s.first == size; });
            if (it == sizes.end())
                sizes.push_back({size, 1});
            else
                ++it->second;
        }
    }
    std::pair<int, int> size{1920, 1080};
    int most = 0;
    for (const auto& [s, count] : sizes)
        if (count > most) {
            size = s;
            most = count;
        }
    if (!presetName(size.first, size.second, fps))
        size = size.first > 1920 ? std::pair{3840, 2160} : std::pair{1920, 1080};
    const std::string sequenceFormat = b.formatID(size.first, size.second, fps);

    int lane = 0;
    int role = 0;
    const auto soundAttributes = [](int count) {
        return fmt::format("hasAudio=\"1\" audioSources=\"1\" audioChannels=\"{}\" audioRate=\"48000", count);
    };

    for (const auto& track : sources) {
        if (track.type != SourceType::video) continue;
        const int pictureLane = ++lane;
        // Sidecar sound of separate pictures gets a lane of its own, right above the pictures.
        std::optional<int> sidecarLane, sidecarRole;
        for (const auto& clip : track.clips) {
            const bool companion = clip.pictureURL && *clip.pictureURL != clip.url;
            const Url file = companion ? *clip.pictureURL : clip.url;
            const int w = clip.pixelWidth.value_or(1920), h = clip.pixelHeight.value_or(1080);
            const std::string format = b.formatID(w, h, b.pictureRate(clip, fps));
            const bool withSound = !companion && clip.audioUsability != AudioUsability::none;
            std::string attributes = "hasVideo=\"1\" videoSources=\"1\" format=\"" + format;
            if (withSound)
                attributes += "\" " + fmt::format("hasAudio=\"1\" audioSources=\"1\" audioChannels=\"{}\" "
                                                  "audioRate=\"48000",
                                                  std::max(clip.channelCount, 2));

            // A conformed picture and a drifting clock both change the speed; together they multiply.
            const auto drift = FCP7Exporter::driftCorrection(clip, b.frameSeconds());
            const double conform = speedRatio(clip);
            const double ratio = drift ? (conform == 0 ? 1.0 : conform) * *drift : conform;
            const double sourceSeconds =
                companion && clip.pictureFrames && clip.conformFrameRate && *clip.conformFrameRate > 0
                    ? *clip.pictureFrames / static_cast<double>(*clip.conformFrameRate)
                    : clip.pictureDuration();
            const std::string assetStart = b.time(clip.pictureTimecode.value_or(0.0));
            const std::string assetDuration = b.time(companion ? sourceSeconds : clip.duration);
            const std::string ref = b.assetID(file, assetStart, assetDuration, attributes);

            std::vector<std::string> children;
            long long duration = b.num(clip.pictureDuration());
            const long long start = b.pictureStartNum(clip, ratio);
            if (ratio != 0) {
                const double startSeconds = clip.pictureTimecode.value_or(0.0);
                const long long v0 = b.num(startSeconds), v1 = b.num(startSeconds + sourceSeconds);
                const long long t0 = start, t1 = b.num((startSeconds + sourceSeconds) / ratio);
                Builder::timeMap(children, b.rational(t0), b.rational(t1), b.rational(v1), drift.has_value(),
                                 b.rational(v0));
                duration = std::max(t1 - t0, 0LL);
            }
            b.clipLines.push_back(b.clipLine(ref, pictureLane, b.framed(clip, duration),
                                             file.lastPathComponent(), b.rational(start), std::nullopt,
                                             children));

            if (companion && clip.audioUsability != AudioUsability::none) {
                if (!sidecarLane) {
                    sidecarLane = ++lane;
                    sidecarRole = ++role;
                }
                const std::string soundRef = b.assetID(clip.url, "0s", b.time(clip.duration),
                                                       soundAttributes(std::max(clip.channelCount, 1)));
                std::vector<std::string> soundChildren;
                const Placement at = b.sound(clip, soundChildren);
                b.clipLines.push_back(b.clipLine(soundRef, *sidecarLane, at, clip.url.lastPathComponent(),
                                                 "0s", sidecarRole, soundChildren));
            }
        }
    }

    for (const auto& track : sources) {
        if (track.type != SourceType::audio) continue;
        const int n = channels == ChannelLayout::perChannel ? FCP7Exporter::sourceChannelCount(track) : 1;
        const int firstLane = lane + 1, firstRole = role + 1;
        lane += n;
        role += n;
        for (const auto& clip : track.clips) {
            const int count = std::max(clip.channelCount, 1);
            const std::string ref = b.assetID(clip.url, "0s", b.time(clip.duration), soundAttributes(count));
            std::vector<std::string> timing;
            const Placement at = b.sound(clip, timing);
            if (n == 1) {
                b.clipLines.push_back(
                    b.clipLine(ref, firstLane, at, clip.url.lastPathComponent(), "0s", firstRole, timing));
                continue;
            }
            // One lane per channel; a clip with fewer channels than its track leaves the rest empty.
            for (int c = 0; c < std::min(n, count); ++c) {
                std::vector<std::string> children = timing;
                children.push_back(fmt::format(
                    "            <audio-channel-source srcCh=\"{}\" role=\"dialogue.dialogue-{}\"/>", c + 1,
                    firstRole + c));
                b.clipLines.push_back(b.clipLine(ref, firstLane + c, at, clip.url.lastPathComponent(), "0s",
                                                 firstRole + c, children));
            }
        }
    }

    const std::string length = b.rational(std::max(b.num(end), b.end));
    std::vector<std::string> lines;
    lines.emplace_back("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    lines.emplace_back("<!DOCTYPE fcpxml>");
    lines.emplace_back("<fcpxml version=\"1.10\">");
    lines.emplace_back("  <resources>");
    lines.insert(lines.end(), b.formatLines.begin(), b.formatLines.end());
    lines.insert(lines.end(), b.assetLines.begin(), b.assetLines.end());
    lines.emplace_back("  </resources>");
    lines.emplace_back("  <library>");
    lines.emplace_back("    <event name=\"Trelvane\">");
    lines.emplace_back("      <project name=\"Trelvane Timeline\">");
    lines.push_back("        <sequence format=\"" + sequenceFormat + "\" duration=\"" + length +
                    "\" tcStart=\"0s\" tcFormat=\"NDF\" audioLayout=\"stereo\" audioRate=\"48k\">");
    lines.emplace_back("          <spine>");
    lines.push_back("            <gap name=\"Gap\" offset=\"0s\" start=\"0s\" duration=\"" + length + "\">");
    lines.insert(lines.end(), b.clipLines.begin(), b.clipLines.end());
    lines.emplace_back("            </gap>");
    lines.emplace_back("          </spine>");
    lines.emplace_back("        </sequence>");
    lines.emplace_back("      </project>");
    lines.emplace_back("    </event>");
    lines.emplace_back("  </library>");
    lines.emplace_back("</fcpxml>");

    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) out += '\n';
        out += lines[i];
    }
    return out;
}

} // namespace trelvane::FCPXMLExporter
