// SPDX-License-Identifier: GPL-3.0-or-later
// Camera groups: one camera that filled several cards shows up as several video tracks whose file
// numbers go on counting from one track to the next. Detection only proposes; the user decides.
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Text.hpp"

#include <algorithm>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace trelvane {

namespace {

// The largest step between the last file number of one card and the first of the next that still
// reads as the same camera: a few clips deleted in camera or left on the card are normal.
constexpr long long kMaxNumberGap = 32;

bool continues(const TrackSource& last, const TrackSource& next) {
    if (last.clips.empty() || next.clips.empty()) return false;
    const auto a = IngestEngine::clipNumericKey(last.clips.back().url);
    const auto b = IngestEngine::clipNumericKey(next.clips.front().url);
    if (!a || !b) return false;
    if (a->prefix != b->prefix) return false;
    return b->num > a->num && b->num - a->num <= kMaxNumberGap;
}

} // namespace

std::vector<int> IngestEngine::tracksInClipOrder(const std::vector<TrackSource>& sources,
                                                 std::vector<int> indices) {
    auto before = [&](int a, int b) {
        const auto& ca = sources[static_cast<std::size_t>(a)].clips;
        const auto& cb = sources[static_cast<std::size_t>(b)].clips;
        if (ca.empty() || cb.empty()) return a < b;
        if (chronologicalOrder(ca.front().url, cb.front().url)) return true;
        if (chronologicalOrder(cb.front().url, ca.front().url)) return false;
        return a < b;
    };
    // With empty and non-empty tracks mixed, "by index" and "by file" can form a cycle, which
    // std::sort is allowed to answer by running off the end; an insertion sort stays in bounds and
    // ends whatever the comparison says, and there are only a handful of tracks.
    for (std::size_t i = 1; i < indices.size(); ++i)
        for (std::size_t j = i; j > 0 && before(indices[j], indices[j - 1]); --j)
            std::swap(indices[j], indices[j - 1]);
    return indices;
}

std::vector<CameraGroupProposal> IngestEngine::detectCameraGroups(const std::vector<TrackSource>& sources) {
    // Sessions in order of first appearance, so that the proposals come out in a fixed order.
    std::vector<std::string> sessionOrder;
    std::map<std::string, std::vector<int>> bySession;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const auto& s = sources[i];
        if (s.type != SourceType::video) continue;
        auto [it, inserted] = bySession.try_emplace(s.session);
        if (inserted) sessionOrder.push_back(s.session);
        it->second.push_back(static_cast<int>(i));
    }

    std::vector<CameraGroupProposal> proposals;
    for (const auto& session : sessionOrder) {
        if (bySession[session].size() < 2) continue;
        const auto indices = tracksInClipOrder(sources, bySession[session]);

        std::vector<int> cluster;
        auto flushCluster = [&] {
            if (cluster.size() >= 2) {
                CameraGroupProposal p;
                p.session = session;
                std::vector<std::string> pieces;
                for (std::size_t k = 0; k < cluster.size(); ++k) {
                    const auto& t = sources[static_cast<std::size_t>(cluster[k])];
                    p.trackIDs.push_back(t.id);
                    p.trackNames.push_back(t.name);
                    p.clipCount += static_cast<int>(t.clips.size());
                    if (k == 0) continue;
                    const auto& prev = sources[static_cast<std::size_t>(cluster[k - 1])];
                    if (prev.clips.empty() || t.clips.empty()) continue;
                    pieces.push_back(prev.clips.back().url.baseName() + " → " +
                                     t.clips.front().url.baseName());
                }
                const auto& first = sources[static_cast<std::size_t>(cluster.front())];
                if (!first.clips.empty())
                    if (const auto key = clipNumericKey(first.clips.front().url))
                        p.filenamePrefix = key->prefix;
                p.sequenceHint = joined(pieces, ", ");
                proposals.push_back(std::move(p));
            }
            cluster.clear();
        };

        for (const int idx : indices) {
            if (!cluster.empty() && !continues(sources[static_cast<std::size_t>(cluster.back())],
                                               sources[static_cast<std::size_t>(idx)]))
                flushCluster();
            cluster.push_back(idx);
        }
        flushCluster();
    }
    return proposals;
}

std::vector<TrackSource> IngestEngine::applyCameraGroups(std::vector<TrackSource> sources,
                                                         const std::vector<CameraGroupProposal>& proposals,
                                                         const std::set<Uuid>& accepted) {
    // Keys are handed out to accepted groups only, so "cam-0", "cam-1", … have no gaps.
    int counter = 0;
    for (const auto& p : proposals) {
        if (!accepted.contains(p.id)) continue;
        std::vector<std::size_t> found;
        for (const auto& id : p.trackIDs) {
            for (std::size_t i = 0; i < sources.size(); ++i) {
                if (sources[i].id != id) continue;
                if (std::find(found.begin(), found.end(), i) == found.end()) found.push_back(i);
                break;
            }
        }
        if (found.size() < 2) continue;
        const std::string key = "cam-" + std::to_string(counter++);

        // The cards of one camera follow one another in time: one running position over all of
        // them, never restarting at a new track.
        double position = 0;
        for (const auto i : found) {
            sources[i].cameraGroup = key;
            for (auto& clip : sources[i].clips) {
                clip.startOffset = position;
                position += clip.duration;
            }
        }
        EngineLog::logf("[Ingest] camera group '%s': %s (%d clips, prefix=%s)", key,
                        joined(p.trackNames, ", "), p.clipCount, p.filenamePrefix);
    }
    return sources;
}

} // namespace trelvane
