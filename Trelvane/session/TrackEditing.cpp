// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/TrackEditing.hpp"

#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/NaturalOrder.hpp"

#include <algorithm>
#include <optional>

namespace trelvane::TrackEditing {

std::set<Uuid> clipsOfTrack(const Sources& sources, const Uuid& trackID) {
    std::set<Uuid> out;
    for (const auto& t : sources)
        if (t.id == trackID)
            for (const auto& c : t.clips)
                out.insert(c.id);
    return out;
}

std::set<Uuid> allClips(const Sources& sources) {
    std::set<Uuid> out;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            out.insert(c.id);
    return out;
}

bool toggleMute(Sources& sources, const Uuid& trackID) {
    for (auto& t : sources)
        if (t.id == trackID) {
            t.isMuted = !t.isMuted;
            return true;
        }
    return false;
}

bool moveToNewTrack(Sources& sources, const std::set<Uuid>& clipIDs) {
    const bool any = std::any_of(sources.begin(), sources.end(), [&](const TrackSource& t) {
        return std::any_of(t.clips.begin(), t.clips.end(),
                           [&](const ClipItem& c) { return clipIDs.contains(c.id); });
    });
    if (!any) return false;

    std::vector<ClipItem> moved;
    std::optional<std::string> session;
    Sources kept;
    for (auto& t : sources) {
        std::vector<ClipItem> stay;
        bool lost = false;
        for (auto& c : t.clips) {
            if (clipIDs.contains(c.id)) {
                if (!session) session = t.session;
                moved.push_back(std::move(c));
                lost = true;
            } else {
                stay.push_back(std::move(c));
            }
        }
        if (stay.empty() && lost) continue;
        t.clips = std::move(stay);
        if (lost) {
            t.type = IngestEngine::inferredType(t.clips);
            IngestEngine::recomputeOffsets(t);
        }
        kept.push_back(std::move(t));
    }
    std::stable_sort(moved.begin(), moved.end(), [](const ClipItem& a, const ClipItem& b) {
        return localizedStandardLess(a.url.lastPathComponent(), b.url.lastPathComponent());
    });
    TrackSource track;
    track.type = IngestEngine::inferredType(moved);
    std::vector<std::string> names;
    for (const auto& t : kept)
        names.push_back(t.name);
    track.name = IngestEngine::uniqueName(moved.front().url.baseName(), track.type, names);
    track.id = IngestEngine::newTrackId("selection", moved, kept);
    track.clips = std::move(moved);
    track.session = session.value_or("");
    track.lockedGrouping = true;
    IngestEngine::recomputeOffsets(track);
    kept.push_back(std::move(track));
    sources = IngestEngine::sortSources(std::move(kept));
    return true;
}

void deleteClips(Sources& sources, const std::set<Uuid>& clipIDs, bool relayout) {
    Sources kept;
    for (auto& t : sources) {
        const auto before = t.clips.size();
        std::erase_if(t.clips, [&](const ClipItem& c) { return clipIDs.contains(c.id); });
        if (t.clips.empty()) continue;
        if (relayout && t.clips.size() != before) IngestEngine::recomputeOffsets(t);
        kept.push_back(std::move(t));
    }
    sources = std::move(kept);
}

void recomputeOffsets(Sources& sources, std::size_t sourceIndex) {
    if (sourceIndex < sources.size()) IngestEngine::recomputeOffsets(sources[sourceIndex]);
}

std::map<Uuid, double> moveClips(Sources& sources, const std::map<Uuid, double>& offsets) {
    std::map<Uuid, double> moved;
    for (auto& t : sources)
        for (auto& c : t.clips)
            if (auto it = offsets.find(c.id); it != offsets.end()) {
                c.startOffset = it->second;
                moved[c.id] = it->second;
            }
    return moved;
}

void resetStatuses(Sources& sources) {
    for (auto& t : sources)
        for (auto& c : t.clips)
            c.syncStatus = SyncStatus::pending;
}

bool adoptMetadata(Sources& live, const Sources& read) {
    std::map<Uuid, const ClipItem*> found;
    for (const auto& t : read)
        for (const auto& c : t.clips)
            if (c.duration > 0) found.emplace(c.id, &c);
    bool any = false;
    for (auto& t : live) {
        bool changed = false;
        for (auto& c : t.clips) {
            if (c.duration > 0) continue;
            const auto it = found.find(c.id);
            if (it == found.end()) continue;
            c = *it->second;
            changed = true;
        }
        if (!changed) continue;
        IngestEngine::recomputeOffsets(t);
        any = true;
    }
    return any;
}

std::map<Uuid, Uuid> trackOfClips(const Sources& sources) {
    std::map<Uuid, Uuid> tracks;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            tracks.emplace(c.id, t.id);
    return tracks;
}

Sources mergeRunResult(Sources result, const Sources& live, const std::map<Uuid, Uuid>& trackAtStart) {
    std::set<Uuid> liveClips, moved;
    std::map<Uuid, const TrackSource*> liveTracks;
    for (const auto& t : live) {
        liveTracks.emplace(t.id, &t);
        for (const auto& c : t.clips) {
            liveClips.insert(c.id);
            if (auto at = trackAtStart.find(c.id); at != trackAtStart.end() && at->second != t.id)
                moved.insert(c.id);
        }
    }
    // What the result keeps: the clips still there and still on the track the run found them on.
    const auto keeps = [&](const ClipItem& c) { return liveClips.contains(c.id) && !moved.contains(c.id); };
    std::set<Uuid> held;
    for (const auto& t : result)
        for (const auto& c : t.clips)
            if (keeps(c)) held.insert(c.id);
    const auto asAdded = [&](ClipItem clip) {
        if (moved.contains(clip.id)) clip.syncStatus = SyncStatus::pending;
        return clip;
    };

    Sources merged;
    for (auto& t : result) {
        const auto before = t.clips.size();
        std::erase_if(t.clips, [&](const ClipItem& c) { return !keeps(c); });
        if (const auto twin = liveTracks.find(t.id); twin != liveTracks.end()) {
            t.isMuted = twin->second->isMuted;
            double end = 0;
            for (const auto& c : t.clips)
                end = std::max(end, c.startOffset + c.duration);
            for (const auto& c : twin->second->clips) {
                if (held.contains(c.id)) continue;
                t.clips.push_back(asAdded(c));
                t.clips.back().startOffset = end;
                end += c.duration;
            }
        }
        if (t.clips.empty() && before > 0) continue;
        merged.push_back(std::move(t));
    }
    const std::set<Uuid> resultTracks = [&] {
        std::set<Uuid> ids;
        for (const auto& t : merged)
            ids.insert(t.id);
        return ids;
    }();
    for (const auto& t : live) {
        if (resultTracks.contains(t.id)) continue;
        TrackSource added = t;
        const auto before = added.clips.size();
        std::erase_if(added.clips, [&](const ClipItem& c) { return held.contains(c.id); });
        for (auto& c : added.clips)
            c = asAdded(std::move(c));
        if (added.clips.empty()) continue;
        if (added.clips.size() != before) IngestEngine::recomputeOffsets(added);
        merged.push_back(std::move(added));
    }
    return merged;
}

} // namespace trelvane::TrackEditing
