// SPDX-License-Identifier: GPL-3.0-or-later
// One whole track placed against the pool: the ladder of the camera chain, with what belongs to
// single tracks — the hot-spot test, an unbracketed seed when nothing anchors, and a last probe of
// the whole pool.
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/sync/SyncRun.hpp"

#include <algorithm>
#include <cmath>

namespace trelvane::SyncEngine::detail {

namespace {

constexpr double kHotSpotFootage = 300.0;
constexpr double kHotSpotSpread = 0.3;
// How many of the longest clips a track with no Pass 1 anchor offers to the unbracketed seed
// search. The longest clips carry the most evidence; a few are enough to find one true seed, and
// every further try is another chance of a false one.
constexpr int kSeedCandidates = 4;
constexpr double kOpenLow = 0.0;
constexpr double kOpenHigh = 1000000000000.0;

bool hotSpot(const Ladder& ladder, const std::map<int, Match>& results) {
    if (results.size() <= 2) return false;
    const int first = results.begin()->first, last = results.rbegin()->first;
    const double footage = ladder.prefixDur[last] - ladder.prefixDur[first];
    const double window = std::abs(results.rbegin()->second.pos - results.begin()->second.pos);
    if (!(footage > kHotSpotFootage && window < kHotSpotSpread * footage)) return false;
    EngineLog::logf(
        "[SyncEngine]  track '%s': %d clips spanning %.0f min of footage all correlate to a %.0f s window — "
        "a hot spot in the pool, not a chain. Laying the whole track by its own clock.",
        ladder.track(0).name, static_cast<int>(results.size()), footage / 60.0, window);
    return true;
}

// The longest clips searched once more, over the whole pool and without bounds; the first strong
// hit seeds the chain.
std::optional<std::pair<int, Match>> seed(Ladder& ladder, const std::vector<Span>& spans) {
    int tried = 0;
    for (int k : ladder.order) {
        if (tried == kSeedCandidates) break;
        const ClipItem& clip = ladder.clip(k);
        if (clip.duration < kShortestMatchableClip || !clip.bandFeature) continue;
        ++tried;
        ladder.run.poll();
        auto hit = multiWindowMatch(&*clip.bandFeature, clip.duration, -kUnbounded, kUnbounded, spans, true);
        if (hit && hit->score >= kStrongScore) return std::make_pair(k, *hit);
    }
    return std::nullopt;
}

void wholePoolProbe(Ladder& ladder, const std::vector<Span>& full) {
    Run& run = ladder.run;
    std::vector<SearchJob> jobs;
    std::vector<int> ks;
    for (int k : ladder.order) {
        if (ladder.anchors.count(k) || ladder.dur(k) < kShortestMatchableClip) continue;
        jobs.push_back({ladder.clips[k].first, ladder.clips[k].second, Bounds{}});
        ks.push_back(k);
    }
    const auto found = searchInParallel(run, jobs, full, false, false, 0.0);
    // Hits are judged in the order of the clips, not of their arrival, so that the outcome does not
    // depend on which search finished first.
    for (std::size_t j = 0; j < jobs.size(); ++j) {
        run.poll();
        const int k = ks[j];
        if (!found[j] || found[j]->score < kWeakFloor) continue;
        const Bounds range = ladder.bracket(k, true);
        const Match hit = *found[j];
        if (hit.pos >= range.lo && hit.pos <= range.hi) {
            const double lo = range.lo <= kOpenLow ? -kUnbounded : range.lo;
            const double hi = range.hi > kOpenHigh ? kUnbounded : range.hi;
            ladder.accept(k, hit, lo, hi, PlacementPass::poolProbe);
            EngineLog::logf("[SyncEngine]  '%s' found by whole-pool probe @ %.1fs score=%.1f — no bracket",
                            ladder.name(k), hit.pos, hit.score);
        } else {
            const std::string where = std::isfinite(range.hi) ? fmt::sprintf("%.0f…%.0f", range.lo, range.hi)
                                                              : fmt::sprintf("after %.0fs", range.lo);
            EngineLog::logf(
                "[SyncEngine]  '%s' whole-pool probe @ %.1fs score=%.1f — out of order with the strong "
                "chain (%s), ignored",
                ladder.name(k), hit.pos, hit.score, where);
        }
    }
}

} // namespace

TrackOutcome syncOneTrack(Run& run, int si, const Pass1* searched) {
    std::vector<ClipKey> list;
    for (int ci : run.regionClips(si))
        list.push_back({si, ci});
    TrackOutcome outcome;
    if (list.empty()) return outcome;
    Ladder ladder(run, list);
    const std::vector<Span> primary = run.primaryPool;
    const std::vector<Span> full = run.fullPool;
    const std::string& name = run.tracks[si].name;

    const auto jobs = ladder.seedJobs(primary);
    const auto found = searched ? *searched : searchInParallel(run, jobs, primary, false, true);
    if (searched)
        for (const auto& job : jobs)
            run.advance(0.5, run.tracks[job.si].clips[job.ci].url.baseName());
    std::map<int, Match> results;
    for (std::size_t j = 0; j < jobs.size(); ++j)
        if (found[j] && found[j]->score >= kStrongScore) results[ladder.order[j]] = *found[j];

    outcome.hotSpot = hotSpot(ladder, results);
    if (!outcome.hotSpot) {
        std::optional<std::pair<int, Match>> seeded;
        if (results.empty() && (seeded = seed(ladder, full))) results[seeded->first] = seeded->second;
        std::vector<std::pair<int, double>> items;
        for (const auto& [k, m] : results)
            items.push_back({k, m.pos});
        for (int k : longestConsistentChain(items, ladder.prefixDur, kChainSlack)) {
            ladder.accept(k, results.at(k), -kUnbounded, kUnbounded, PlacementPass::chain);
            ladder.strong.insert(k);
        }
        if (seeded && ladder.anchors.count(seeded->first))
            EngineLog::logf(
                "[SyncEngine]  track '%s': no Pass 1 anchor — seeded %s from an unbracketed whole-pool "
                "window probe",
                name, ladder.name(seeded->first));

        for (int k : ladder.order) {
            if (ladder.anchors.count(k) || ladder.dur(k) < kShortestMatchableClip) continue;
            run.poll();
            const Bounds b = ladder.bracket(k);
            if (!(b.lo < b.hi)) continue;
            const auto& feature = ladder.clip(k).bandFeature;
            auto hit = bestMatch(full, feature ? &*feature : nullptr, b.lo, b.hi);
            if (hit && hit->score >= kWeakFloor)
                ladder.accept(k, *hit, b.lo, b.hi, PlacementPass::bracketFill);
        }
        ladder.rescueLongClips(full, false, name);
        wholePoolProbe(ladder, full);
    }

    const auto counts = ladder.layout();
    if (counts.byClock > 0)
        EngineLog::logf("[SyncEngine]  track '%s': %d unmatched clip(s) placed by their own clock", name,
                        counts.byClock);
    EngineLog::logf("[SyncEngine]  track '%s': %d anchors of %d clips", name,
                    static_cast<int>(ladder.anchors.size()), ladder.count());
    outcome.matched = static_cast<int>(ladder.anchors.size());
    return outcome;
}

} // namespace trelvane::SyncEngine::detail
