// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/OTIOExporter.hpp"

#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/XmlText.hpp"
#include "TrelvaneEngine/support/Utf8.hpp"

#include <algorithm>

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

// One clip to lay down: its file, where it starts and how long it runs, in frames.
struct Entry {
    const ClipItem* clip = nullptr;
    Url file;
    long long start = 0;
    long long duration = 0;
    long long available = 0;
};

struct Lane {
    json track;
    long long end = 0;
};

class Layout {
  public:
    Layout(double rate, ChannelLayout channels) : rate_(rate), channels_(channels) {}

    // Lays the entries of one source on as few tracks of one kind as will hold them.
    void addSource(const std::string& name, std::string_view kind, std::vector<Entry> entries) {
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
                    {"global_start_time", rationalTime(rate_, 0)},
                    {"tracks", std::move(stack)}};
    }

  private:
    json clip(const Entry& e, long long sourceStart, long long duration) const {
        const std::string name = utf8(e.file.lastPathComponent());
        json reference{
            {"OTIO_SCHEMA", "ExternalReference.1"},
            {"metadata", json::object()},
            {"name", name},
            {"available_range", timeRange(rate_, 0, std::max(e.available, sourceStart + duration))},
            {"available_image_bounds", nullptr},
            {"target_url", XmlText::fileURLString(e.file)}};
        json c = item("Clip.2", name);
        c["source_range"] = timeRange(rate_, sourceStart, duration);
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

    double rate_;
    ChannelLayout channels_;
    json tracks_ = json::array();
};

} // namespace

json document(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels) {
    const auto ri = FCP7Exporter::rateInfo(fps);
    Layout layout(ri.effectiveRate(), channels);
    const auto entry = [&](const ClipItem& clip, const Url& file, double seconds) {
        Entry e;
        e.clip = &clip;
        e.file = file;
        e.start = ri.frames(clip.startOffset);
        e.duration = std::max(ri.frames(seconds), 0);
        e.available = std::max(ri.frames(clip.duration), 0);
        return e;
    };
    // Pictures first, then sound, as the editors list their tracks.
    for (const auto& track : sources) {
        if (track.type != SourceType::video) continue;
        // A camera's own sound and a take's sidecar sound go on audio tracks beside the pictures,
        // as the FCP7 and FCPXML documents carry them: without them the editor gets picture only.
        std::vector<Entry> pictures, sounds;
        for (const auto& clip : track.clips) {
            if (clip.pictureURL && *clip.pictureURL != clip.url)
                pictures.push_back(entry(clip, *clip.pictureURL, clip.pictureDuration()));
            else
                pictures.push_back(entry(clip, clip.url, clip.duration));
            if (clip.audioUsability != AudioUsability::none)
                sounds.push_back(entry(clip, clip.url, clip.duration));
        }
        layout.addSource(track.name, "Video", std::move(pictures));
        if (!sounds.empty()) layout.addSource(track.name + " sound", "Audio", std::move(sounds));
    }
    for (const auto& track : sources) {
        if (track.type != SourceType::audio) continue;
        std::vector<Entry> entries;
        for (const auto& clip : track.clips)
            entries.push_back(entry(clip, clip.url, clip.duration));
        layout.addSource(track.name, "Audio", std::move(entries));
    }
    return std::move(layout).finish();
}

std::string build(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels) {
    return document(sources, fps, channels).dump(4);
}

} // namespace trelvane::OTIOExporter
