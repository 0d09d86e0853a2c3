// SPDX-License-Identifier: GPL-3.0-or-later
// The reference track is laid first, by its own clock, and is the ruler for every other track.
// Long backup recordings beside it, and channel files of one recorder, are tied to it here.
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/sync/SyncRun.hpp"

#include <algorithm>
#include <cmath>

namespace trelvane::SyncEngine::detail {

namespace {

constexpr double kClockSlack = 900.0;
constexpr double kLongBackup = 1800.0;
constexpr double kChainTolerance = 2.0;
constexpr double kSingleWitness = 14.0;
constexpr double kCalibrationFloor = 0.15;
constexpr double kCalibrationCeiling = 60.0;
constexpr double kCalibrationAgreement = 0.08; // seconds: two feature frames
constexpr std::size_t kCalibrationVotes = 2;
constexpr double kSiblingSlack = 0.5;  // seconds a strong channel peak may lie from its leader
constexpr double kSiblingExact = 0.08; // two feature frames: where a weak one must lie

// Votes of a clip's three windows searched in `spans`: each a position of the clip's start.
std::vector<Vote> windowVotes(const ClipItem& clip, std::span<const Span> spans, int* tried) {
    std::vector<Vote> votes;
    if (!clip.bandFeature || clip.duration < kShortestMatchableClip) return votes;
    const double w = std::min(clip.duration * 0.4, kMaxWindow);
    if (w < 10.0) return votes;
    for (double f : kWindowFractions) {
        auto s = windowStart(clip.duration, w, f);
        if (!s) continue;
        auto slice = SpectralBands::slice(*clip.bandFeature, *s, w);
        if (!slice) continue;
        if (tried) ++*tried;
        if (auto hit = bestMatch(spans, &*slice, -kUnbounded, kUnbounded); hit && hit->score >= kStrongScore)
            votes.push_back({hit->pos - *s, hit->score});
    }
    return votes;
}

} // namespace

ClockSpan clockRange(const Run& run, const std::vector<int>& trackIndices) {
    ClockSpan range;
    for (int si : trackIndices)
        for (int ci : run.regionClips(si))
            if (const auto& d = run.tracks[si].clips[ci].recordingDate) {
                if (!range) range = std::make_pair(*d, *d);
                range->first = std::min(range->first, *d);
                range->second = std::max(range->second, *d);
            }
    return range;
}

bool clockRangesOverlap(const ClockSpan& a, const ClockSpan& b) {
    if (!a || !b) return true;
    return secondsBetween(a->first, b->second) <= 2 * kClockSlack &&
           secondsBetween(b->first, a->second) <= 2 * kClockSlack;
}

void layoutReference(Run& run) {
    const int ref = run.reference;
    auto& track = run.tracks[ref];
    const auto clips = run.regionClips(ref);
    bool fullClock = clips.size() > 1;
    std::optional<Date> refStart;
    for (int ci : clips) {
        const auto& d = track.clips[ci].recordingDate;
        if (!d)
            fullClock = false;
        else if (!refStart || *d < *refStart)
            refStart = *d;
    }
    double cursor = run.base, pauses = 0;
    run.segments.assign(1, {});
    for (int ci : clips) {
        run.poll();
        ClipItem& clip = track.clips[ci];
        double at = cursor;
        if (fullClock) {
            const double wanted = run.base + secondsBetween(*clip.recordingDate, *refStart);
            if (wanted - cursor > kPlausiblePause) {
                EngineLog::logf(
                    "[SyncEngine]  ref '%s' clip '%s' dated %.1f days after the previous clip ended — too "
                    "implausible to be a real pause, butt-joining instead (check this file's date/time)",
                    track.name, clip.url.baseName(), (wanted - cursor) / 86400.0);
            } else if (wanted > cursor + kRegionGap) {
                at = wanted;
                pauses += wanted - cursor;
                if (!run.segments.back().empty()) run.segments.emplace_back();
            }
        }
        run.segments.back().push_back(ci);
        clip.startOffset = at;
        clip.syncStatus = SyncStatus::synced;
        clip.matchScore.reset();
        clip.placementPass = PlacementPass::reference;
        clip.tcDisagrees = false;
        run.placed.insert({ref, ci});
        run.advance(1, clip.url.baseName());
        if (run.onPlace) run.onPlace(clip.id, at, SyncStatus::synced);
        cursor = at + clip.duration;
    }
    if (run.segments.back().empty()) run.segments.pop_back();
    run.refreshMatchSpans();
    if (pauses > 1.0)
        EngineLog::logf("[SyncEngine]  ref '%s' laid out by its own clock — %.1f min of pauses kept",
                        track.name, pauses / 60.0);
    if (!fullClock) EngineLog::logf("[SyncEngine]  ref '%s' has no full clock — laid end to end", track.name);
}

bool isLongBackup(Run& run, int si) {
    const auto& track = run.tracks[si];
    const auto clips = run.regionClips(si);
    if (clips.empty()) return false;
    double longest = 0, total = 0;
    for (int ci : clips) {
        longest = std::max(longest, track.clips[ci].duration);
        total += track.clips[ci].duration;
    }
    if (clips.size() < 3) return longest >= kLongBackup;
    if (total < kLongBackup) return false;
    for (std::size_t i = 1; i < clips.size(); ++i) {
        const ClipItem& a = track.clips[clips[i - 1]];
        const ClipItem& b = track.clips[clips[i]];
        if (!a.recordingDate || !b.recordingDate || !trustedClock(a.clockQuality) ||
            !trustedClock(b.clockQuality))
            return false;
        const double gap = secondsBetween(*b.recordingDate, *a.recordingDate) - a.duration;
        if (std::abs(gap) > kChainTolerance) return false;
    }
    EngineLog::logf(
        "[SyncEngine]  '%s': %d files chain by their own clock into one %.0f-min recording — treated as a "
        "long backup",
        track.name, static_cast<int>(clips.size()), total / 60.0);
    return true;
}

bool clocksOverlapRef(const Run& run, int ref, int si) {
    return clockRangesOverlap(clockRange(run, {ref}), clockRange(run, {si}));
}

std::optional<double> probeBackupLinkage(Run& run, int si) {
    const auto& track = run.tracks[si];
    std::vector<Vote> votes;
    int tried = 0;
    double before = 0;
    for (int ci : run.regionClips(si)) {
        run.poll();
        const ClipItem& clip = track.clips[ci];
        for (Vote v : windowVotes(clip, run.fullPool, &tried))
            votes.push_back({v.pos - before, v.score});
        before += clip.duration;
    }
    auto cluster = largestCluster(votes, kVoteTolerance);
    if (cluster.size() >= 2) {
        const double pos = weightedMean(cluster);
        EngineLog::logf("[SyncEngine]  '%s' content consensus: %d window votes clustered @ %.0f", track.name,
                        static_cast<int>(cluster.size()), pos);
        return pos;
    }
    Vote best{0, 0};
    for (const Vote& v : votes)
        if (v.score > best.score) best = v;
    const bool linking = best.score >= kSingleWitness;
    EngineLog::logf(
        "[SyncEngine]  '%s' single-witness probe: %d window(s) tried, best score=%.1f @ %.0fs (need %.1f) "
        "— %s",
        track.name, tried, best.score, best.pos, kSingleWitness,
        linking ? "linking" : "not enough, deferring");
    if (!linking) return std::nullopt;
    return best.pos;
}

void placeBackupLinked(Run& run, int si, double pos) {
    auto& track = run.tracks[si];
    const double start = pos;
    for (int ci : run.regionClips(si)) {
        ClipItem& clip = track.clips[ci];
        clip.startOffset = pos;
        clip.syncStatus = SyncStatus::synced;
        clip.matchScore.reset();
        clip.placementPass = PlacementPass::linkedBackup;
        clip.tcDisagrees = false;
        run.matchInfo[clip.id] = MatchInfo{pos, 0, PlacementPass::linkedBackup};
        run.placed.insert({si, ci});
        if (run.onPlace) run.onPlace(clip.id, pos, SyncStatus::synced);
        pos += clip.duration;
        run.advance(1, clip.url.baseName());
    }
    if (!run.poolTracks.count(si)) run.poolOrder.push_back(si);
    run.poolTracks.insert(si);
    EngineLog::logf(
        "[SyncEngine]  long-backup '%s' clock disagreed with the ref but the audio agrees — linked by "
        "content @ %.0fs",
        track.name, start);
    for (std::size_t seg = 0; seg < run.segments.size(); ++seg)
        calibrateSegmentIfNeeded(run, seg, si);
    run.refreshMatchSpans();
}

void placeUnlinked(Run& run, int si) {
    double latest = run.base;
    std::string after;
    for (const auto& [ti, ci] : run.region) {
        if (!run.placed.count({ti, ci})) continue;
        const ClipItem& c = run.tracks[ti].clips[ci];
        if (c.startOffset + c.duration >= latest) {
            latest = c.startOffset + c.duration;
            after = c.url.baseName();
        }
    }
    auto& track = run.tracks[si];
    double pos = latest;
    for (int ci : run.regionClips(si)) {
        ClipItem& clip = track.clips[ci];
        clip.startOffset = pos;
        clip.syncStatus = SyncStatus::weak;
        clip.matchScore.reset();
        clip.placementPass = PlacementPass::unlinkedBackup;
        clip.placementNote = "after '" + after + "'";
        clip.tcDisagrees = false;
        run.placed.insert({si, ci});
        if (run.onPlace) run.onPlace(clip.id, pos, SyncStatus::weak);
        run.advance(1, clip.url.baseName());
        pos += clip.duration;
    }
    EngineLog::logf("[SyncEngine]  unlinked long-backup '%s'", track.name);
}

void calibrateSegmentIfNeeded(Run& run, std::size_t segment, int backup) {
    auto& ref = run.tracks[run.reference];
    const auto& clips = run.segments[segment];
    if (clips.empty()) return;
    std::vector<Span> spans;
    for (int ci : run.regionClips(backup)) {
        const ClipItem& c = run.tracks[backup].clips[ci];
        if (c.duration >= kShortestMatchableClip) spans.push_back(run.span(backup, ci));
    }
    const double segmentStart = ref.clips[clips.front()].startOffset;
    std::vector<Vote> votes;
    for (int ci : clips) {
        const ClipItem& clip = ref.clips[ci];
        for (Vote v : windowVotes(clip, spans, nullptr))
            votes.push_back({v.pos - (clip.startOffset - segmentStart), v.score});
    }
    // A segment's clock is overruled only by several strong windows that agree to a frame or two:
    // one window, or votes scattered over seconds, is as likely a repeated passage as a clock
    // error, and a segment moved on it drags every clip matched to it along.
    auto cluster = largestCluster(votes, kCalibrationAgreement);
    float best = 0;
    for (const Vote& v : cluster)
        best = std::max(best, v.score);
    if (cluster.size() < kCalibrationVotes || best < kStrongScore) return;
    const double correction = weightedMean(cluster) - segmentStart;
    if (!(std::abs(correction) > kCalibrationFloor && std::abs(correction) < kCalibrationCeiling)) return;
    for (int ci : clips) {
        ClipItem& clip = ref.clips[ci];
        clip.startOffset += correction;
        if (run.onPlace) run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
    }
    EngineLog::logf(
        "[SyncEngine]  ref '%s' take %d/%d calibrated %+.2fs against '%s' content (score=%.1f) — its own "
        "clock was never audio-verified",
        ref.name, static_cast<int>(segment) + 1, static_cast<int>(run.segments.size()), correction,
        run.tracks[backup].name, best);
}

namespace {

// The leader clip of a channel clip; the first clip of the leader with that id.
int leaderClipIndex(const Run& run, int leader, const ClipItem& clip) {
    if (!clip.siblingLeaderID) return -1;
    const auto& clips = run.tracks[leader].clips;
    for (int ci = 0; ci < static_cast<int>(clips.size()); ++ci)
        if (clips[ci].id == *clip.siblingLeaderID) return ci;
    return -1;
}

} // namespace

bool siblingVerified(Run& run, int si, int leader) {
    // The first channel clip that names a leader clip is the witness: any one take shows whether
    // the two files hold the same sound.
    const ClipItem* mine = nullptr;
    const ClipItem* theirs = nullptr;
    for (int ci : run.regionClips(si)) {
        const int li = leaderClipIndex(run, leader, run.tracks[si].clips[ci]);
        if (li >= 0) {
            mine = &run.tracks[si].clips[ci];
            theirs = &run.tracks[leader].clips[li];
            break;
        }
    }
    if (!mine || !mine->bandFeature || !theirs->bandFeature ||
        mine->bandFeature->frames < SpectralBands::kMinimumFrames ||
        theirs->bandFeature->frames < SpectralBands::kMinimumFrames)
        return true;
    // Both files start together, so the two clips are measured as the timeline would hold them:
    // the middle of the take scored against a minute either side, not against the few lags next to
    // where a channel would sit, where the true peak's own shoulders are most of what there is and
    // a real channel pair scored barely above noise. A lav and a boom hear one scene quite
    // differently, so a peak from the weak floor counts where a channel must sit, to the frame: of
    // some 3,000 lags, unrelated sound tops there by chance once in hundreds, and rarely that high.
    const auto found = measureOverlap(*theirs, 0.0, *mine, 0.0);
    // Too short a take to measure says nothing either way; the grouping stands.
    if (!found) return true;
    const float score = found->score;
    const double offset = -found->pos;
    if (score >= kStrongScore && std::abs(offset) < kSiblingSlack) return true;
    if (score >= kWeakFloor && std::abs(offset) <= kSiblingExact) return true;
    EngineLog::logf(
        "[SyncEngine]  '%s' looked like a channel of '%s' but its audio does not agree (score %.1f, offset "
        "%+.2fs) — matching it as its own track",
        run.tracks[si].name, run.tracks[leader].name, score, offset);
    return false;
}

void mirrorSibling(Run& run, int si, int leader) {
    auto& track = run.tracks[si];
    const std::string& leaderName = run.tracks[leader].name;
    double cursor = run.base;
    int mirrored = 0;
    for (int ci : run.regionClips(si)) {
        ClipItem& clip = track.clips[ci];
        const int li = leaderClipIndex(run, leader, clip);
        if (li >= 0 && run.placed.count({leader, li})) {
            const ClipItem& lead = run.tracks[leader].clips[li];
            clip.startOffset = lead.startOffset;
            clip.syncStatus = lead.syncStatus;
            clip.matchScore = lead.matchScore;
            clip.placementPass = lead.placementPass;
            if (clip.placementPass) clip.placementPass = channelOf(*clip.placementPass);
            clip.placementNote = "channel of '" + leaderName + "'";
            clip.tcDisagrees = lead.tcDisagrees;
            ++mirrored;
        } else {
            clip.startOffset = cursor;
            clip.syncStatus =
                clip.audioUsability == AudioUsability::ok ? SyncStatus::failed : SyncStatus::pending;
            clip.matchScore.reset();
            clip.placementPass = PlacementPass::interpolated;
            clip.placementNote = "no matching take on '" + leaderName + "'";
        }
        cursor = clip.startOffset + clip.duration;
        run.placed.insert({si, ci});
        run.advance(1, clip.url.baseName());
        if (run.onPlace) run.onPlace(clip.id, clip.startOffset, clip.syncStatus);
    }
    EngineLog::logf("[SyncEngine]  channel track '%s' follows '%s' — %d clip(s) mirrored", track.name,
                    leaderName, mirrored);
}

} // namespace trelvane::SyncEngine::detail
