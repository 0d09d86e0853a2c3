// SPDX-License-Identifier: GPL-3.0-or-later
// The last look at a region once every pass is done. Each pair of overlapping clips of different
// tracks is measured at the offset the timeline gives them, and the measurements are solved
// together by least squares. A clip stays `synced` only where that consensus ties its own sound,
// through clips of other tracks, to the reference; what disagrees with it is moved when several
// clips agree on where it belongs, and left `weak` where it is more than a frame out otherwise.
//
// The passes judge one clip against a pool at a time, and a hit that is wrong but self-consistent
// (a repeated passage, a reference clip its clock put a second off, the clips matched to that clip)
// survives them. Measured against everything that overlaps it, such a clip stands out.
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"
#include "TrelvaneEngine/sync/SyncRun.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace trelvane::SyncEngine::detail {

namespace {

constexpr double kFrame = 0.04; // one feature frame: what a match can tell apart
// Two measurements of one truth, each placed between frames, lie well within a frame and a half of
// each other. Within this they agree; a measurement further than this from the consensus of the
// others is taken for a false peak.
constexpr double kMeasureTolerance = 0.06;
// Clips that must agree before a placed clip is moved: one measurement against another is a
// disagreement, not a verdict.
constexpr int kLeastWitnesses = 2;
// A measurement that lands where the timeline predicted is believed from here: where the top of
// some 3,000 lags falls does not depend on its height, and it falls within a frame and a half of a
// place named in advance by chance about once in a thousand. A true pair of clips often scores
// this low on a window of quiet or of sound only one of them hears well.
constexpr float kAgreeingFloor = 3.0f;
// A clip whose consensus lies further than this from where it stands is moved there. Two or more
// measurements solved together place a clip finer than the one match that put it there.
constexpr double kLeastMove = kFrame / 2;

struct Node {
    int si = 0, ci = 0;
    double start = 0, end = 0;
};

using PairwiseOffsetSolver::Measurement;

// Placements whose position rests on no audio at all; the check leaves their status alone.
bool placedWithoutAudio(const ClipItem& clip) {
    using enum PlacementPass;
    const auto pass = clip.placementPass;
    return !pass || *pass == clock || *pass == interpolated || *pass == interpolatedNoAudio ||
           *pass == unlinkedBackup;
}

int rootOf(std::vector<int>& parent, int i) {
    while (parent[i] != i)
        i = parent[i] = parent[parent[i]];
    return i;
}

// Nodes joined by the given measurements: each node's group, groups numbered by their first node.
std::vector<int> groupsBy(int n, const std::vector<Measurement>& ms) {
    std::vector<int> parent(n);
    std::iota(parent.begin(), parent.end(), 0);
    for (const auto& m : ms)
        parent[rootOf(parent, m.to)] = rootOf(parent, m.from);
    std::vector<int> group(n, -1);
    std::map<int, int> number;
    for (int i = 0; i < n; ++i) {
        const int root = rootOf(parent, i);
        if (!number.count(root)) number[root] = static_cast<int>(number.size());
        group[i] = number[root];
    }
    return group;
}

// The groups of two or more nodes that the measurements join, in order of their first node.
std::vector<std::vector<int>> componentsOf(int n, const std::vector<Measurement>& ms) {
    const auto group = groupsBy(n, ms);
    std::vector<std::vector<int>> all(n == 0 ? 0 : *std::max_element(group.begin(), group.end()) + 1);
    for (int i = 0; i < n; ++i)
        all[group[i]].push_back(i);
    std::erase_if(all, [](const std::vector<int>& members) { return members.size() < 2; });
    return all;
}

// The measurements among a group's members, renumbered by their place in `members`.
std::vector<Measurement> within(const std::vector<int>& members, const std::vector<Measurement>& ms) {
    std::map<int, int> at;
    for (int m : members)
        at[m] = static_cast<int>(at.size());
    std::vector<Measurement> mine;
    for (const auto& m : ms)
        if (at.count(m.from) && at.count(m.to)) mine.push_back({at[m.from], at[m.to], m.offset, m.weight});
    return mine;
}

// Drops the measurements that disagree with the consensus of the others, the worst first, until
// every group agrees within the tolerance.
std::vector<Measurement> consistent(int n, std::vector<Measurement> ms, const Run& run) {
    for (bool changed = true; changed;) {
        changed = false;
        run.poll();
        for (const auto& members : componentsOf(n, ms)) {
            const auto local = within(members, ms);
            const auto solved = PairwiseOffsetSolver::solve(static_cast<int>(members.size()), 0, local);
            const auto residuals = PairwiseOffsetSolver::residuals(local, solved);
            const double worst = *std::max_element(residuals.begin(), residuals.end());
            if (worst <= kMeasureTolerance) continue;
            // Halving the worst lets one false peak go at once without taking the true ones its
            // pull has bent with it.
            const double cut = std::max(kMeasureTolerance, worst / 2);
            std::set<std::pair<int, int>> drop;
            for (std::size_t i = 0; i < local.size(); ++i)
                if (residuals[i] > cut) drop.insert({members[local[i].from], members[local[i].to]});
            std::erase_if(ms, [&](const Measurement& m) { return drop.count({m.from, m.to}) != 0; });
            changed = true;
        }
    }
    return ms;
}

} // namespace

void checkTimeline(Run& run) {
    std::vector<Node> nodes;
    for (const auto& [si, ci] : run.region) {
        if (!run.placed.count({si, ci})) continue;
        const ClipItem& c = run.tracks[si].clips[ci];
        if (c.duration < kShortestMatchableClip || c.audioUsability != AudioUsability::ok || !c.bandFeature ||
            c.bandFeature->frames < SpectralBands::kMinimumFrames)
            continue;
        nodes.push_back({si, ci, c.startOffset, c.startOffset + c.duration});
    }
    std::stable_sort(nodes.begin(), nodes.end(),
                     [](const Node& a, const Node& b) { return a.start < b.start; });
    const int n = static_cast<int>(nodes.size());
    auto clipOf = [&](int i) -> ClipItem& { return run.tracks[nodes[i].si].clips[nodes[i].ci]; };
    const int ref = run.reference;

    std::vector<std::pair<int, int>> pairs;
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n && nodes[j].start < nodes[i].end; ++j)
            if (nodes[j].si != nodes[i].si) pairs.push_back({i, j});
    std::vector<std::optional<Match>> measured(pairs.size());
    const std::function<std::optional<Match>(std::size_t)> job = [&](std::size_t p) {
        const auto [i, j] = pairs[p];
        return measureOverlap(clipOf(i), nodes[i].start, clipOf(j), nodes[j].start);
    };
    const std::function<void(std::size_t, std::optional<Match>)> keep =
        [&](std::size_t p, std::optional<Match> m) { measured[p] = m; };
    WorkerWindow::run<std::optional<Match>>(run.workers, pairs.size(), job, keep, run.stop);
    run.poll();

    // Each measurement as what the sound says: x[to] - x[from]. One that lands where the timeline
    // predicted is believed from the agreeing floor, one that lands elsewhere from the weak floor;
    // one that says the timeline is wrong counts only beside another that agrees with it, the
    // better of them strong.
    std::vector<Measurement> usable;
    for (std::size_t p = 0; p < pairs.size(); ++p)
        if (measured[p] &&
            (measured[p]->score >= kWeakFloor ||
             (measured[p]->score >= kAgreeingFloor && std::abs(measured[p]->pos) <= kMeasureTolerance))) {
            const auto [i, j] = pairs[p];
            usable.push_back({i, j, nodes[j].start - nodes[i].start + measured[p]->pos, measured[p]->score});
        }
    std::vector<double> at(n);
    for (int i = 0; i < n; ++i)
        at[i] = nodes[i].start;
    auto disagreement = [&](const Measurement& m) { return m.offset - (at[m.to] - at[m.from]); };

    // Groups the timeline already holds together: clips whose sound agrees where they stand.
    std::vector<Measurement> agreeing;
    for (const auto& m : usable)
        if (std::abs(disagreement(m)) <= kMeasureTolerance) agreeing.push_back(m);
    const std::vector<int> group = groupsBy(n, agreeing);
    const int groupCount = n == 0 ? 0 : *std::max_element(group.begin(), group.end()) + 1;
    std::vector<std::vector<int>> members(groupCount);
    std::vector<int> refClips(groupCount, 0);
    for (int i = 0; i < n; ++i) {
        members[group[i]].push_back(i);
        if (nodes[i].si == ref) ++refClips[group[i]];
    }

    // The group tied to the reference: the one of two or more clips holding most of its clips, or
    // the largest where none holds one. Other groups join it only where several measurements agree
    // on how far the whole group is off: one is a disagreement, not a verdict.
    std::vector<bool> proved(groupCount, false);
    int main = -1;
    for (int g = 0; g < groupCount; ++g) {
        if (members[g].size() < 2) continue;
        if (main < 0 || refClips[g] > refClips[main] ||
            (refClips[g] == refClips[main] && members[g].size() > members[main].size()))
            main = g;
    }
    if (main >= 0) proved[main] = true;
    int moved = 0;
    auto joinByEvidence = [&] {
        for (;;) {
            int best = -1;
            std::vector<Vote> bestCluster;
            for (int g = 0; g < groupCount; ++g) {
                if (proved[g]) continue;
                std::vector<Vote> shifts;
                for (const auto& m : usable) {
                    if (group[m.to] == g && proved[group[m.from]])
                        shifts.push_back({disagreement(m), m.weight});
                    if (group[m.from] == g && proved[group[m.to]])
                        shifts.push_back({-disagreement(m), m.weight});
                }
                // As with the windows of a clip: votes that agree count from the weak floor, and
                // the best of them must be strong.
                auto cluster = largestCluster(shifts, kMeasureTolerance);
                float top = 0;
                for (const Vote& v : cluster)
                    top = std::max(top, v.score);
                if (static_cast<int>(cluster.size()) >= kLeastWitnesses && top >= kStrongScore &&
                    cluster.size() > bestCluster.size())
                    best = g, bestCluster = std::move(cluster);
            }
            if (best < 0) return;
            const double shift = weightedMean(bestCluster);
            for (int i : members[best]) {
                at[i] += shift;
                clipOf(i).placementNote =
                    fmt::sprintf("moved %+.2f s to agree with %d overlapping measurements", shift,
                                 static_cast<int>(bestCluster.size()));
            }
            proved[best] = true;
            moved += static_cast<int>(members[best].size());
            EngineLog::logf("[SyncEngine]  check: %d clip(s) with '%s' moved %+.2fs — %d overlapping "
                            "measurement(s) agree",
                            static_cast<int>(members[best].size()),
                            clipOf(members[best].front()).url.baseName(), shift,
                            static_cast<int>(bestCluster.size()));
        }
    };
    joinByEvidence();
    // A reference with a trusted clock of its own ties its takes to each other: a group holding
    // one of them stands where that clock put it, unless the sound moved it above.
    bool trustedRef = ref >= 0;
    for (int ci : run.regionClips(ref)) {
        const ClipItem& c = run.tracks[ref].clips[ci];
        trustedRef = trustedRef && c.recordingDate && trustedClock(c.clockQuality);
    }
    if (trustedRef) {
        for (int g = 0; g < groupCount; ++g)
            if (refClips[g] > 0 && members[g].size() >= 2) proved[g] = true;
        joinByEvidence();
    }

    // The proved clips solved together; a clip out of place by that consensus is moved when two or
    // more clips witness it, and left unproved otherwise.
    std::vector<bool> inProved(n, false);
    for (int i = 0; i < n; ++i)
        inProved[i] = proved[group[i]];
    std::vector<Measurement> among;
    for (const auto& m : usable)
        if (inProved[m.from] && inProved[m.to]) among.push_back(m);
    const auto kept = consistent(n, among, run);
    std::vector<std::set<int>> witnesses(n);
    std::vector<float> bestScore(n, 0.0f);
    std::vector<int> bestWitness(n, -1);
    for (const auto& m : kept)
        for (auto [self, other] : {std::pair{m.from, m.to}, std::pair{m.to, m.from}}) {
            witnesses[self].insert(other);
            if (m.weight > bestScore[self]) bestScore[self] = m.weight, bestWitness[self] = other;
        }
    std::vector<double> shift(n, 0.0);
    for (const auto& component : componentsOf(n, kept)) {
        auto local = within(component, kept);
        for (auto& m : local)
            m.offset -= at[component[m.to]] - at[component[m.from]];
        // Solved as corrections to where the clips stand, pinned where most of them already agree.
        const auto solved = PairwiseOffsetSolver::solve(static_cast<int>(component.size()), 0, local);
        std::size_t bestAt = 0;
        int bestCount = -1;
        for (std::size_t k = 0; k < component.size(); ++k) {
            int count = 0;
            for (double other : solved)
                if (std::abs(other - solved[k]) <= kFrame) ++count;
            if (count > bestCount) bestAt = k, bestCount = count;
        }
        for (std::size_t k = 0; k < component.size(); ++k)
            shift[component[k]] = solved[k] - solved[bestAt];
    }

    std::map<ClipKey, double> placedAt;
    for (const auto& key : run.region)
        placedAt[key] = run.tracks[key.first].clips[key.second].startOffset;
    int confirmed = 0, demoted = 0;
    auto demote = [&](ClipItem& clip, std::string note) {
        if (clip.syncStatus != SyncStatus::synced) return;
        clip.syncStatus = SyncStatus::weak;
        clip.placementNote = std::move(note);
        ++demoted;
        EngineLog::logf("[SyncEngine]  check: '%s' left weak — %s", clip.url.baseName(), *clip.placementNote);
        if (run.onPlace) run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
    };
    for (int i = 0; i < n; ++i) {
        run.poll();
        ClipItem& clip = clipOf(i);
        // Positions resting on no audio keep their status; they move with their group all the same.
        const bool audioPlaced = !placedWithoutAudio(clip);
        if (std::abs(at[i] - clip.startOffset) > 0) {
            clip.startOffset = at[i];
            if (run.onPlace) run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
        }
        if (!audioPlaced) continue;
        if (!inProved[i]) {
            const bool linked = std::any_of(usable.begin(), usable.end(), [&](const Measurement& m) {
                return (m.from == i && inProved[m.to]) || (m.to == i && inProved[m.from]);
            });
            if (linked)
                demote(clip, "its sound and the clips around it disagree on its place — check by ear");
            else if (members[group[i]].size() >= 2)
                demote(clip, "confirmed only by clips that nothing ties to the reference");
            else
                demote(clip, nodes[i].si == ref
                                 ? "no other track's sound confirms it — laid out by its own clock"
                                 : "no overlapping clip of another track confirms it");
            continue;
        }
        if (bestWitness[i] < 0) {
            demote(clip, "no overlapping clip of another track confirms it");
            continue;
        }
        const std::string witness = clipOf(bestWitness[i]).url.baseName();
        const bool witnessed = static_cast<int>(witnesses[i].size()) >= kLeastWitnesses;
        // One clip against another disagrees by up to a frame with no fault of either.
        if (!witnessed && std::abs(shift[i]) > kFrame) {
            demote(clip,
                   fmt::sprintf("the sound of '%s' puts it %+.2f s away — check by ear", witness, shift[i]));
            continue;
        }
        if (witnessed && std::abs(shift[i]) > kLeastMove) {
            clip.startOffset += shift[i];
            clip.placementNote = fmt::sprintf("moved %+.2f s to agree with %d overlapping clips", shift[i],
                                              static_cast<int>(witnesses[i].size()));
            ++moved;
            EngineLog::logf("[SyncEngine]  check: '%s' moved %+.2fs to agree with %d overlapping clip(s)",
                            clip.url.baseName(), shift[i], static_cast<int>(witnesses[i].size()));
        }
        if (clip.syncStatus != SyncStatus::synced && bestScore[i] >= kStrongScore) {
            // Its own sound now proves it: it matched a clip that is itself tied to the reference.
            clip.syncStatus = SyncStatus::synced;
            clip.matchScore = std::max(clip.matchScore.value_or(0.0f), bestScore[i]);
            if (!clip.placementNote) clip.placementNote = "confirmed by the sound of '" + witness + "'";
        }
        ++confirmed;
        if (run.onPlace) run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
    }
    // A clip laid by its clock was laid from the audio anchor after it in its track, or before it
    // when there is none: where the check moved that anchor, the clock puts the clip along with it.
    for (int si : run.regionTracks) {
        const auto clips = run.regionClips(si);
        auto movedBy = [&](int ci) { return run.tracks[si].clips[ci].startOffset - placedAt[{si, ci}]; };
        for (std::size_t k = 0; k < clips.size(); ++k) {
            ClipItem& clip = run.tracks[si].clips[clips[k]];
            if (clip.placementPass != PlacementPass::clock || movedBy(clips[k]) != 0) continue;
            std::optional<int> anchor;
            for (std::size_t l = k + 1; l < clips.size() && !anchor; ++l)
                if (!placedWithoutAudio(run.tracks[si].clips[clips[l]])) anchor = clips[l];
            for (std::size_t l = k; l-- > 0 && !anchor;)
                if (!placedWithoutAudio(run.tracks[si].clips[clips[l]])) anchor = clips[l];
            if (!anchor || movedBy(*anchor) == 0) continue;
            clip.startOffset += movedBy(*anchor);
            if (run.onPlace) run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
        }
    }
    // A clip whose own sound could not be compared at all proves nothing either.
    std::set<ClipKey> measurable;
    for (const Node& node : nodes)
        measurable.insert({node.si, node.ci});
    for (const auto& [si, ci] : run.region) {
        ClipItem& clip = run.tracks[si].clips[ci];
        if (measurable.count({si, ci}) || !run.placed.count({si, ci}) || placedWithoutAudio(clip)) continue;
        demote(clip, "its own sound could not be compared");
    }
    EngineLog::logf("[SyncEngine]  region '%s' check: %d overlap(s) measured, %d agree or disagree clearly; "
                    "%d clip(s) confirmed, %d "
                    "moved, %d left weak",
                    run.regionKey, static_cast<int>(pairs.size()), static_cast<int>(usable.size()), confirmed,
                    moved, demoted);
}

} // namespace trelvane::SyncEngine::detail
