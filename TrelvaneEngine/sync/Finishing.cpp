// SPDX-License-Identifier: GPL-3.0-or-later
// The last step of a run: no real overlaps inside a track, a timeline that starts at zero, and the
// report of where everything went.

#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

namespace trelvane::SyncEngine {

namespace {

constexpr double kOverlapTolerance = 0.05; // rounding of two placements, not a real overlap
constexpr double kOriginTolerance = 0.001;

} // namespace

void resolveOverlaps(std::vector<TrackSource>& tracks) {
    for (auto& track : tracks) {
        // A clip is measured against the one stored before it in its own day region only: days are
        // laid out in the order of their proposals, not of the files, and a later day's clip
        // pushed past an earlier day's would be thrown out of the day it was placed in.
        std::map<std::string, const ClipItem*> previous;
        for (auto& clip : track.clips) {
            const std::string region = clip.dayRegion.value_or(track.dayRegion.value_or(""));
            if (const auto it = previous.find(region); it != previous.end()) {
                const double prevEnd = it->second->startOffset + it->second->duration;
                if (clip.startOffset < prevEnd - kOverlapTolerance) clip.startOffset = prevEnd;
            }
            previous[region] = &clip;
        }
    }
}

void normaliseOffsets(std::vector<TrackSource>& tracks) {
    std::optional<double> earliest;
    for (const auto& track : tracks)
        for (const auto& clip : track.clips)
            if (!earliest || clip.startOffset < *earliest) earliest = clip.startOffset;
    if (!earliest || !(std::abs(*earliest) > kOriginTolerance)) return;
    for (auto& track : tracks)
        for (auto& clip : track.clips)
            clip.startOffset -= *earliest;
}

void logReport(const std::vector<TrackSource>& tracks, const std::map<Uuid, MatchInfo>& matchInfo) {
    double timeline = 0;
    int synced = 0, weak = 0, failed = 0, total = 0;
    for (const auto& track : tracks) {
        EngineLog::logf("[SyncEngine] LAYOUT '%s'", track.name);
        for (const auto& clip : track.clips) {
            const double end = clip.startOffset + clip.duration;
            const auto info = matchInfo.find(clip.id);
            const std::string raw = info != matchInfo.end() && info->second.raw
                                        ? fmt::sprintf("raw=%.1f", *info->second.raw)
                                        : std::string("      ");
            const std::string score =
                clip.matchScore ? fmt::sprintf("score=%.1f", *clip.matchScore) : std::string("score=  ");
            EngineLog::logf("[SyncEngine]    %-28s  start=%.1fs  end=%.1fs  %s  %s %s [%s]",
                            clip.url.lastPathComponent(), clip.startOffset, end,
                            std::string(rawValue(clip.syncStatus)), raw, score,
                            clip.placementPass ? rawValue(*clip.placementPass) : std::string_view());

            timeline = total == 0 ? end : std::max(timeline, end);
            ++total;
            if (clip.syncStatus == SyncStatus::synced) ++synced;
            if (clip.syncStatus == SyncStatus::weak) ++weak;
            if (clip.syncStatus == SyncStatus::failed) ++failed;
        }
    }
    // Whole seconds, held to a range an int can count in, so a broken clip cannot break the line.
    const long long whole =
        std::isfinite(timeline) ? static_cast<long long>(std::clamp(timeline, -1e12, 1e12)) : 0;
    EngineLog::logf("[SyncEngine] DONE: timeline=%.0fs (%dh%02dm), synced=%d weak=%d failed=%d / %d",
                    timeline, static_cast<int>(whole / 3600), static_cast<int>(whole % 3600 / 60), synced,
                    weak, failed, total);
}

} // namespace trelvane::SyncEngine
