// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/OTIOExporter.hpp"

#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/XmlText.hpp"
#include "TrelvaneEngine/support/Utf8.hpp"

#include <algorithm>
#include <cmath>
#include <optional>

namespace trelvane::OTIOExporter {

namespace {

using nlohmann::json;

// JSON text must be UTF-8; file names may not be.
std::string utf8(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = Utf8::sequenceLength(text, i);
        if (length == 0) {
            out += Utf8::kReplacement;
            ++i;
        } else {
            out.append(text.substr(i, length));
            i += length;
        }
    }
    return out;
}

// `seconds` counted at `rate`, rounded half away from zero; kept far inside what a double holds
// exactly whatever a clip claims, and 0 for what is no number.
long long count(double seconds, double rate) {
    constexpr double kLimit = 1e12;
    const double value = seconds * rate;
    if (std::isnan(value)) return 0;
    return static_cast<long long>(std::round(std::clamp(value, -kLimit, kLimit)));
}

json rationalTime(double rate, long long frames) {
    return json{{"OTIO_SCHEMA", "RationalTime.1"}, {"rate", rate}, {"value", static_cast<double>(frames)}};
}

json timeRange(double rate, long long start, long long duration) {
    return json{{"OTIO_SCHEMA", "TimeRange.1"},
                {"start_time", rationalTime(rate, start)},
                {"duration", rationalTime(rate, duration)}};
}

json item(std::string_view schema, std::string name) {
    return json{{"OTIO_SCHEMA", std::string(schema)},
                {"metadata", json::object()},
                {"name", std::move(name)},
                {"source_range", nullptr},
                {"effects", json::array()},
                {"markers", json::array()},
                {"enabled", true}};
}

// One clip to lay down: its file, where it starts and how long it runs on the timeline, and how
// long its media is, in units of its track's rate; the speed that cancels its clock's drift.
struct Entry {
    const ClipItem* clip = nullptr;
    Url file;
    long long start = 0;
    long long duration = 0;
    long long available = 0;
    std::optional<double> speed;
};

// The rate sound is placed at where frames would move it.
constexpr double kAudioRate = 48000;

struct Lane {
    json track;
    long long end = 0;
};

class Layout {
  public:
    Layout(double rate, ChannelLayout channels) : timelineRate_(rate), channels_(channels) {}

    // Lays the entries of one source on as few tracks of one kind as will hold them; their times
    // count at `rate`.
    void addSource(const std::string& name, std::string_view kind, std::vector<Entry> entries, double rate) {
        rate_ = rate;
        std::stable_sort(entries.begin(), entries.end(),
                         [](const Entry& a, const Entry& b) { return a.start < b.start; });
        std::vector<Lane> lanes;
        for (const Entry& e : entries) {
            long long start = e.start, duration = e.duration, sourceStart = 0;
            if (start < 0) {
                sourceStart = -start;
                duration -= sourceStart;
                start = 0;
                if (duration <= 0) continue;
            }
            auto lane =
                std::find_if(lanes.begin(), lanes.end(), [&](const Lane& l) { return l.end <= start; });
            if (lane == lanes.end()) {
                Lane fresh;
                const std::string trackName =
                    lanes.empty() ? name : name + " " + std::to_string(lanes.size() + 1);
                fresh.track = item("Track.1", utf8(trackName));
                fresh.track["kind"] = std::string(kind);
                fresh.track["children"] = json::array();
                lanes.push_back(std::move(fresh));
                lane = std::prev(lanes.end());
            }
            if (start > lane->end) {
                json gap = item("Gap.1", "");
                gap["source_range"] = timeRange(rate_, 0, start - lane->end);
                lane->track["children"].push_back(std::move(gap));
            }
            lane->track["children"].push_back(clip(e, sourceStart, duration));
            lane->end = start + duration;
        }
        for (auto& lane : lanes)
            tracks_.push_back(std::move(lane.track));
    }

    json finish() && {
        json stack = item("Stack.1", "tracks");
        stack["children"] = std::move(tracks_);
        return json{{"OTIO_SCHEMA", "Timeline.1"},
                    {"metadata", json::object()},
                    {"name", "Trelvane Timeline"},
                    {"global_start_time", rationalTime(timelineRate_, 0)},
                    {"tracks", std::move(stack)}};
    }

  private:
    // A drift-corrected clip spans its timeline length and plays its media at `speed` over it;
    // what it trims from its start is counted in its media.
    json clip(const Entry& e, long long trimmed, long long duration) const {
        const std::string name = utf8(e.file.lastPathComponent());
        const double speed = e.speed.value_or(1.0);
        const auto media = [&](long long timeline) {
            return static_cast<long long>(std::round(static_cast<double>(timeline) * speed));
        };
        const long long sourceStart = e.speed ? media(trimmed) : trimmed;
        json reference{
            {"OTIO_SCHEMA", "ExternalReference.1"},
            {"metadata", json::object()},
            {"name", name},
            {"available_range", timeRange(rate_, 0, std::max(e.available, media(trimmed + duration)))},
            {"available_image_bounds", nullptr},
            {"target_url", XmlText::fileURLString(e.file)}};
        json c = item("Clip.2", name);
        c["source_range"] = timeRange(rate_, sourceStart, duration);
        if (e.speed)
            c["effects"].push_back(json{{"OTIO_SCHEMA", "LinearTimeWarp.1"},
                                        {"metadata", json::object()},
                                        {"name", ""},
                                        {"effect_name", "LinearTimeWarp"},
                                        {"time_scalar", *e.speed}});
        c["media_references"] = json{{"DEFAULT_MEDIA", std::move(reference)}};
        c["active_media_reference_key"] = "DEFAULT_MEDIA";
        const ClipItem& clip = *e.clip;
        c["metadata"]["trelvane"] = json{
            {"syncStatus", std::string(rawValue(clip.syncStatus))},
            {"matchScore", clip.matchScore ? json(*clip.matchScore) : json(nullptr)},
            {"channelCount", std::max(clip.channelCount, 1)},
            {"channelLayout", std::string(rawValue(channels_))},
        };
        return c;
    }

    double timelineRate_;
    double rate_ = 0;
    ChannelLayout channels_;
    json tracks_ = json::array();
};

} // namespace

json document(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels) {
    const auto ri = FCP7Exporter::rateInfo(fps);
    const double frameRate = ri.effectiveRate();
    Layout layout(frameRate, channels);
    // `seconds` is the media's length; a drift-corrected clip covers it stretched.
    const auto entry = [&](const ClipItem& clip, const Url& file, double seconds, double rate) {
        Entry e;
        e.clip = &clip;
        e.file = file;
        e.speed = FCP7Exporter::driftCorrection(clip, 1.0 / frameRate);
        e.start = count(clip.startOffset, rate);
        e.duration = std::max(count(e.speed ? seconds / *e.speed : seconds, rate), 0LL);
        e.available = std::max(count(clip.duration, rate), 0LL);
        return e;
    };
    // Sound stays on frames while every clip of its source sits on one; a source with a clip
    // between frames, or one whose drift is corrected, is counted in samples, so that it lands
    // where its sound aligns and ends where its stretched sound ends.
    const auto soundRate = [&](const std::vector<const ClipItem*>& clips) {
        for (const ClipItem* clip : clips) {
            const double frames = clip->startOffset * frameRate;
            if (std::isfinite(frames) &&
                std::fabs(frames - std::round(frames)) / frameRate * kAudioRate > 0.5)
                return kAudioRate;
            if (FCP7Exporter::driftCorrection(*clip, 1.0 / frameRate)) return kAudioRate;
        }
        return frameRate;
    };
    // Pictures first, then sound, as the editors list their tracks.
    for (const auto& track : sources) {
        if (track.type != SourceType::video) continue;
        // A camera's own sound and a take's sidecar sound go on audio tracks beside the pictures,
        // as the FCP7 and FCPXML documents carry them: without them the editor gets picture only.
        std::vector<const ClipItem*> sounding;
        for (const auto& clip : track.clips)
            if (clip.audioUsability != AudioUsability::none) sounding.push_back(&clip);
        const double rate = soundRate(sounding);
        std::vector<Entry> pictures, sounds;
        for (const auto& clip : track.clips) {
            if (clip.pictureURL && *clip.pictureURL != clip.url)
                pictures.push_back(entry(clip, *clip.pictureURL, clip.pictureDuration(), frameRate));
            else
                pictures.push_back(entry(clip, clip.url, clip.duration, frameRate));
        }
        for (const ClipItem* clip : sounding)
            sounds.push_back(entry(*clip, clip->url, clip->duration, rate));
        layout.addSource(track.name, "Video", std::move(pictures), frameRate);
        if (!sounds.empty()) layout.addSource(track.name + " sound", "Audio", std::move(sounds), rate);
    }
    for (const auto& track : sources) {
        if (track.type != SourceType::audio) continue;
        std::vector<const ClipItem*> clips;
        for (const auto& clip : track.clips)
            clips.push_back(&clip);
        const double rate = soundRate(clips);
        std::vector<Entry> entries;
        for (const ClipItem* clip : clips)
            entries.push_back(entry(*clip, clip->url, clip->duration, rate));
        layout.addSource(track.name, "Audio", std::move(entries), rate);
    }
    return std::move(layout).finish();
}

std::string build(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels) {
    return document(sources, fps, channels).dump(4);
}

} // namespace trelvane::OTIOExporter
