// SPDX-License-Identifier: GPL-3.0-or-later
// A camera chain: clips shot one after another on one camera (or one camera over several cards).
// Only the longest run of audio hits that agrees with the clips' own order and lengths is believed
// at once; every other clip must then find its place inside the brackets the chain leaves, by ever
// weaker means, until the layout gives what remains a place by clock or by interpolation.
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"
#include "TrelvaneEngine/sync/SyncRun.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace trelvane::SyncEngine::detail {

Ladder::Ladder(Run& r, std::vector<ClipKey> list) : run(r), clips(std::move(list)) {
    prefixDur.assign(clips.size() + 1, 0.0);
    for (int k = 0; k < count(); ++k)
        prefixDur[k + 1] = prefixDur[k] + dur(k);
    order.resize(clips.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return dur(a) > dur(b); });
}

Bounds Ladder::bracket(int k, bool strongOnly) const {
    const std::set<int>& by = strongOnly ? strong : anchors;
    const double widen = strongOnly ? kChainSlack : 0.0;
    Bounds b;
    auto above = by.upper_bound(k);
    if (above != by.begin()) {
        const int below = *std::prev(above);
        b.lo = posOf.at(below) + dur(below) - widen;
    }
    if (above != by.end()) b.hi = posOf.at(*above) - dur(k) + widen;
    return b;
}

void Ladder::accept(int k, const Match& hit, double lo, double hi, PlacementPass kind) {
    const double pos = std::max(lo, std::min(hit.pos, hi));
    anchors.insert(k);
    posOf[k] = pos;
    if (hit.score >= kStrongScore) strong.insert(k);
    run.matchInfo[clip(k).id] = MatchInfo{hit.pos, hit.score, kind};
    run.setClip(clips[k].first, clips[k].second, pos, Placement::matched);
}

std::vector<SearchJob> Ladder::seedJobs(std::span<const Span> spans) const {
    std::vector<SearchJob> jobs;
    for (int k : order)
        jobs.push_back(
            {clips[k].first, clips[k].second, priorWindow(run, clips[k].first, clips[k].second, spans)});
    return jobs;
}

LayoutCounts Ladder::layout() {
    const std::vector<int> sorted(anchors.begin(), anchors.end());
    auto counts = layoutChain(
        sorted, posOf, [&](int k) { return dur(k); }, [&](int k) { return clip(k).recordingDate; },
        [&](int k, double pos, Placement placement) {
            run.setClip(clips[k].first, clips[k].second, pos, placement);
            run.advance(0.5, name(k));
        },
        run.base, count());
    std::vector<std::string> names;
    for (int k = 0; k < count(); ++k)
        names.push_back(name(k));
    for (int k = 0; k < count(); ++k) {
        if (anchors.count(k)) continue;
        ClipItem& c = run.tracks[clips[k].first].clips[clips[k].second];
        c.placementNote = neighbourNote(k, sorted, names);
    }
    return counts;
}

namespace {

constexpr double kCrossWindow = 45.0;
constexpr double kCrossTolerance = 0.5;

bool brollPass(std::optional<PlacementPass> pass) {
    return pass == PlacementPass::chain || pass == PlacementPass::bracketFill;
}

// Where B-roll shot during a long take says the take lies: the offsets of short clips of the
// region's video tracks that audio has placed inside the bracket.
std::optional<Bounds> brollPrior(const Run& run, double dur, const Bounds& bracket) {
    std::vector<double> offsets;
    for (const auto& [si, ci] : run.region) {
        if (run.tracks[si].type != SourceType::video || !run.placed.count({si, ci})) continue;
        const ClipItem& c = run.tracks[si].clips[ci];
        if (c.duration >= kLongClip) continue;
        if (c.syncStatus != SyncStatus::synced && c.syncStatus != SyncStatus::weak) continue;
        if (!brollPass(c.placementPass)) continue;
        // Inside the room the long take spans between its anchors.
        if (c.startOffset < bracket.lo || c.startOffset > bracket.hi + dur) continue;
        offsets.push_back(c.startOffset);
    }
    if (offsets.size() < 2) return std::nullopt;
    const double first = *std::min_element(offsets.begin(), offsets.end());
    Bounds w{std::max(first - 30.0, bracket.lo), std::min(first + std::max(240.0, dur * 0.55), bracket.hi)};
    const double least = dur * 0.2 > 60.0 ? dur * 0.2 : 60.0;
    if (w.hi - w.lo < least) return std::nullopt;
    return w;
}

void pass1(Ladder& ladder, const std::vector<Span>& pass1Spans, const Pass1* searched,
           std::map<int, Match>& results) {
    Run& run = ladder.run;
    const auto jobs = ladder.seedJobs(pass1Spans);
    const auto found = searched ? *searched : searchInParallel(run, jobs, pass1Spans, false, true);
    if (searched)
        for (const auto& job : jobs)
            run.advance(0.5, run.tracks[job.si].clips[job.ci].url.baseName());
    for (std::size_t j = 0; j < jobs.size(); ++j) {
        if (!found[j] || found[j]->score < kStrongScore) continue;
        const int k = ladder.order[j];
        results[k] = *found[j];
        run.matchInfo[ladder.clip(k).id] = MatchInfo{found[j]->pos, found[j]->score, std::nullopt};
    }
}

void anchorChain(Ladder& ladder, const std::map<int, Match>& results) {
    std::vector<std::pair<int, double>> items;
    for (const auto& [k, m] : results)
        items.push_back({k, m.pos});
    for (int k : longestConsistentChain(items, ladder.prefixDur, kChainSlack)) {
        const Match& m = results.at(k);
        ladder.accept(k, m, -kUnbounded, kUnbounded, PlacementPass::chain);
    }
}

void cameraCross(Ladder& ladder) {
    Run& run = ladder.run;
    for (int k : ladder.order) {
        if (ladder.anchors.count(k) || ladder.dur(k) < kShortestMatchableClip) continue;
        run.poll();
        const Bounds b = ladder.bracket(k);
        if (!(b.lo < b.hi)) continue;
        std::optional<Match> best;
        const auto kept = ladder.kept(k);
        for (int other : ladder.anchors) {
            const auto otherKept = ladder.kept(other);
            auto m = compareClips(ladder.clip(k), ladder.clip(other), kCrossWindow, kCrossTolerance,
                                  kept ? &*kept : nullptr, otherKept ? &*otherKept : nullptr);
            if (!m) continue;
            const double candidate = ladder.posOf.at(other) - m->pos;
            if (candidate < b.lo - 3.0 || candidate > b.hi + 3.0) continue;
            if (!best || m->score > best->score) best = Match{candidate, m->score};
        }
        if (!best) continue;
        ladder.accept(k, *best, b.lo, b.hi, PlacementPass::cameraCross);
        EngineLog::logf(
            "[SyncEngine]  camera cross '%s' @ %.1fs score=%.1f (matched a sibling camera, no external "
            "audio nearby)",
            ladder.name(k), ladder.posOf.at(k), best->score);
    }
}

void cameraCluster(Ladder& ladder) {
    Run& run = ladder.run;
    std::vector<int> free;
    for (int k = 0; k < ladder.count(); ++k)
        if (!ladder.anchors.count(k) && ladder.dur(k) >= kShortestMatchableClip) free.push_back(k);
    if (free.size() < 2) return;
    const int n = static_cast<int>(free.size());
    std::vector<PairwiseOffsetSolver::Measurement> measured;
    std::vector<int> parent(n);
    std::iota(parent.begin(), parent.end(), 0);
    std::function<int(int)> root = [&](int i) { return parent[i] == i ? i : parent[i] = root(parent[i]); };
    std::vector<std::optional<SpectralBands::Reference>> kept;
    for (int k : free)
        kept.push_back(ladder.kept(k));
    const auto keptOf = [&](int i) { return kept[i] ? &*kept[i] : nullptr; };
    for (int i = 0; i < n; ++i) {
        run.poll();
        for (int j = i + 1; j < n; ++j) {
            auto m = compareClips(ladder.clip(free[i]), ladder.clip(free[j]), kCrossWindow, kCrossTolerance,
                                  keptOf(i), keptOf(j));
            if (!m) continue;
            measured.push_back({i, j, m->pos, m->score});
            parent[root(j)] = root(i);
        }
    }
    // Brackets as the chain stood before any cluster was laid.
    std::vector<Bounds> brackets;
    for (int k : free)
        brackets.push_back(ladder.bracket(k));
    std::map<int, std::vector<int>> groups;
    for (int i = 0; i < n; ++i)
        groups[root(i)].push_back(i);
    for (const auto& [_, members] : groups) {
        if (members.size() < 2) continue;
        std::map<int, int> local;
        for (int m : members)
            local[m] = static_cast<int>(local.size());
        std::vector<PairwiseOffsetSolver::Measurement> mine;
        std::vector<float> bestScore(members.size(), 0.0f);
        for (const auto& m : measured)
            if (local.count(m.from) && local.count(m.to)) {
                mine.push_back({local[m.from], local[m.to], m.offset, m.weight});
                bestScore[local[m.from]] = std::max(bestScore[local[m.from]], m.weight);
                bestScore[local[m.to]] = std::max(bestScore[local[m.to]], m.weight);
            }
        int master = 0;
        for (std::size_t i = 1; i < members.size(); ++i)
            if (ladder.dur(free[members[i]]) > ladder.dur(free[members[master]]))
                master = static_cast<int>(i);
        const auto solved = PairwiseOffsetSolver::solve(static_cast<int>(members.size()), master, mine);
        Bounds room;
        for (std::size_t i = 0; i < members.size(); ++i) {
            const Bounds& b = brackets[members[i]];
            room.lo = std::max(room.lo, b.lo - solved[i]);
            room.hi = std::min(room.hi, b.hi - solved[i]);
        }
        if (!(room.lo < room.hi)) continue;
        // A cluster with no bound at all has nothing tying it to the timeline; the layout places
        // its clips by clock or between their neighbours instead of at an invented spot.
        const bool loFinite = std::isfinite(room.lo), hiFinite = std::isfinite(room.hi);
        if (!loFinite && !hiFinite) continue;
        const double at = loFinite && hiFinite ? (room.lo + room.hi) / 2 : loFinite ? room.lo : room.hi;
        for (std::size_t i = 0; i < members.size(); ++i) {
            const int k = free[members[i]];
            ladder.accept(k, Match{at + solved[i], bestScore[i]}, -kUnbounded, kUnbounded,
                          PlacementPass::cameraCluster);
        }
        EngineLog::logf(
            "[SyncEngine]  camera cluster '%s' @ %.1fs — %d clip(s), no external audio anywhere nearby, "
            "synced only against each other",
            ladder.name(free[members[master]]), at, static_cast<int>(members.size()));
    }
}

void siblingPropagation(Ladder& ladder) {
    for (int k : ladder.order) {
        if (ladder.anchors.count(k) || ladder.dur(k) < kLongClip) continue;
        ladder.run.poll();
        const Bounds b = ladder.bracket(k);
        if (!(b.lo < b.hi)) continue;
        const double middle = std::isfinite(b.lo) && std::isfinite(b.hi) ? (b.lo + b.hi) / 2
                              : std::isfinite(b.lo)                      ? b.lo
                                                                         : b.hi;
        const ClipItem& mine = ladder.clip(k);
        int winner = -1;
        for (int other : ladder.anchors) {
            const double d = ladder.dur(other);
            if (d < kLongClip) continue;
            const double pos = ladder.posOf.at(other);
            if (pos < b.lo - 3.0 || pos + d > b.hi + 3.0) continue;
            const ClipItem& theirs = ladder.clip(other);
            const double shorter = std::min(d, mine.duration);
            bool qualifies = std::abs(d - mine.duration) <= std::max(0.2 * shorter, 90.0);
            if (!qualifies && mine.recordingDate && theirs.recordingDate && trustedClock(mine.clockQuality) &&
                trustedClock(theirs.clockQuality))
                qualifies = std::abs(secondsBetween(*mine.recordingDate, *theirs.recordingDate)) <= 120.0;
            if (!qualifies) continue;
            if (winner < 0 || std::abs(pos - middle) < std::abs(ladder.posOf.at(winner) - middle))
                winner = other;
        }
        if (winner < 0) continue;
        const double pos = std::max(b.lo, std::min(ladder.posOf.at(winner), b.hi));
        ladder.anchors.insert(k);
        ladder.posOf[k] = pos;
        // Its own audio proved nothing: it stands beside its sibling, and a borrowed score would
        // claim a proof it never had. It is weak until its own sound confirms the place.
        ladder.run.matchInfo[mine.id] = MatchInfo{std::nullopt, kStrongScore, PlacementPass::siblingCamera};
        ladder.run.setClip(ladder.clips[k].first, ladder.clips[k].second, pos, Placement::matched);
        ClipItem& written = ladder.run.tracks[ladder.clips[k].first].clips[ladder.clips[k].second];
        written.syncStatus = SyncStatus::weak;
        written.matchScore.reset();
        written.placementNote = "alongside '" + ladder.name(winner) + "'";
        EngineLog::logf("[SyncEngine]  sibling prop '%s' ← '%s' @ %.1fs", ladder.name(k), ladder.name(winner),
                        pos);
    }
}

} // namespace

void Ladder::rescueLongClips(std::span<const Span> spans, bool withBroll, const std::string& trackName) {
    for (int k : order) {
        if (anchors.count(k) || dur(k) < kLongClip) continue;
        run.poll();
        const Bounds b = bracket(k);
        if (!(b.lo < b.hi)) continue;
        const auto context = run.priorContext(clips[k].first);
        if (auto hit = clipMatch(track(k), clip(k), b.lo, b.hi, spans, false, context);
            hit && hit->score >= kWeakFloor) {
            accept(k, *hit, b.lo, b.hi, PlacementPass::bracketFill);
            if (withBroll)
                EngineLog::logf("[SyncEngine]  long rescue '%s' @ %.1fs score=%.1f (window %.0f…%.0f)",
                                name(k), posOf.at(k), hit->score, b.lo, b.hi);
            else
                EngineLog::logf("[SyncEngine]  long rescue '%s' @ %.1fs score=%.1f (track '%s')", name(k),
                                posOf.at(k), hit->score, trackName);
            continue;
        }
        if (!withBroll) continue;
        if (auto w = brollPrior(run, dur(k), b)) {
            if (auto hit = clipMatch(track(k), clip(k), w->lo, w->hi, spans, false, context);
                hit && hit->score >= kWeakFloor) {
                accept(k, *hit, b.lo, b.hi, PlacementPass::brollRescue);
                EngineLog::logf(
                    "[SyncEngine]  long rescue '%s' @ %.1fs score=%.1f via B-roll prior (%.0f…%.0f)", name(k),
                    posOf.at(k), hit->score, w->lo, w->hi);
                continue;
            }
        }
        EngineLog::logf("[SyncEngine]  long rescue miss '%s' (%.0fs) window %.0f…%.0f — will interp", name(k),
                        dur(k), b.lo, b.hi);
    }
}

int syncClipChain(Run& run, const std::vector<ClipKey>& list, const std::string& label,
                  const Pass1* searched) {
    if (list.empty()) return 0;
    const std::vector<Span> pass1Spans = run.primaryPool;
    const std::vector<Span> pass3Spans = run.fullPool;
    Ladder ladder(run, list);

    EngineLog::logf("[SyncEngine]  camera chain Pass1 '%s' on %d primary segment(s)", label,
                    static_cast<int>(pass1Spans.size()));
    std::map<int, Match> results;
    pass1(ladder, pass1Spans, searched, results);
    anchorChain(ladder, results);

    EngineLog::logf("[SyncEngine]  camera chain Pass3 '%s' on %d segment(s)", label,
                    static_cast<int>(pass3Spans.size()));
    for (int k : ladder.order) {
        if (ladder.anchors.count(k) || ladder.dur(k) < kShortestMatchableClip) continue;
        run.poll();
        const Bounds b = ladder.bracket(k);
        if (!(b.lo < b.hi)) continue;
        auto hit = clipMatch(ladder.track(k), ladder.clip(k), b.lo, b.hi, pass3Spans, true,
                             run.priorContext(ladder.clips[k].first));
        if (hit && hit->score >= kWeakFloor) ladder.accept(k, *hit, b.lo, b.hi, PlacementPass::bracketFill);
    }

    ladder.rescueLongClips(pass3Spans, true);

    cameraCross(ladder);
    cameraCluster(ladder);
    siblingPropagation(ladder);

    const auto counts = ladder.layout();
    EngineLog::logf("[SyncEngine]  camera chain '%s': %d anchors of %d clips, %d placed by clock", label,
                    static_cast<int>(ladder.anchors.size()), ladder.count(), counts.byClock);
    return static_cast<int>(ladder.anchors.size());
}

} // namespace trelvane::SyncEngine::detail
