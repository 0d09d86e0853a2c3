// SPDX-License-Identifier: GPL-3.0-or-later
// Tracks and clips as the grouping stages see them: paths, lengths, labels and clocks, no media.
#pragma once

#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <optional>
#include <string>
#include <vector>

namespace trelvane::test {

inline ClipItem clip(const std::string& path, double duration = 10.0, std::optional<std::string> label = {}) {
    ClipItem c;
    c.url = Url::fromPath(path);
    c.duration = duration;
    c.deviceName = std::move(label);
    return c;
}

inline ClipItem dated(ClipItem c, double unixSeconds, ClockQuality quality) {
    c.recordingDate = dateFromUnixSeconds(unixSeconds);
    c.clockQuality = quality;
    return c;
}

inline TrackSource track(const std::string& name, std::vector<ClipItem> clips,
                         SourceType type = SourceType::audio, const std::string& session = "/shoot") {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = session;
    t.clips = std::move(clips);
    return t;
}

inline std::vector<std::string> names(const std::vector<TrackSource>& tracks) {
    std::vector<std::string> out;
    for (const auto& t : tracks)
        out.push_back(t.name);
    return out;
}

inline std::vector<std::string> fileNames(const TrackSource& t) {
    std::vector<std::string> out;
    for (const auto& c : t.clips)
        out.push_back(c.url.lastPathComponent());
    return out;
}

// The captured lines that contain `part`.
inline std::vector<std::string> linesWith(const LogCapture& log, const std::string& part) {
    std::vector<std::string> out;
    for (const auto& line : log.lines())
        if (line.find(part) != std::string::npos) out.push_back(line);
    return out;
}

} // namespace trelvane::test
