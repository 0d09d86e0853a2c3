// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"
#include "TrelvaneEngine/sync/SyncRun.hpp"

#include <algorithm>
#include <cmath>

namespace trelvane::SyncEngine {

using detail::ClipKey;
using detail::Run;

namespace detail {

std::vector<int> Run::regionClips(int si) const {
    std::vector<int> out;
    for (int ci = 0; ci < static_cast<int>(tracks[si].clips.size()); ++ci)
        if (inRegion(si, ci)) out.push_back(ci);
    return out;
}

double Run::maxClip(int si) const {
    double m = 0;
    for (int ci : regionClips(si))
        m = std::max(m, tracks[si].clips[ci].duration);
    return m;
}

int Run::regionClipCount(int si) const {
    return static_cast<int>(regionClips(si).size());
}

PriorContext Run::priorContext(int si) const {
    PriorContext c;
    if (reference >= 0) c.referenceName = tracks[reference].name;
    c.isReference = si == reference;
    c.epoch = epoch;
    c.base = base;
    return c;
}

void Run::advance(double steps, const std::string& clipName) {
    if (totalClips > 0) progress = std::min(progress + steps * 0.999 / totalClips, 0.999);
    if (onProgress) onProgress({progress, clipName});
}

void Run::setClip(int si, int ci, double pos, Placement placement) {
    ClipItem& clip = tracks[si].clips[ci];
    const bool usable = clip.audioUsability == AudioUsability::ok;
    clip.startOffset = pos;
    clip.tcDisagrees = false;
    switch (placement) {
    case Placement::matched: {
        auto info = matchInfo.find(clip.id);
        if (info != matchInfo.end() && info->second.kind) {
            const float score = info->second.score;
            clip.syncStatus = score >= kStrongScore ? SyncStatus::synced
                              : score >= kWeakFloor ? SyncStatus::weak
                                                    : SyncStatus::failed;
            clip.matchScore = score;
            clip.placementPass = info->second.kind;
        } else {
            clip.syncStatus = SyncStatus::synced;
            clip.matchScore.reset();
            clip.placementPass = PlacementPass::chain;
        }
        clip.tcDisagrees = timecodeDisagrees(clip, pos, fullPool);
        break;
    }
    case Placement::clock:
        clip.syncStatus = usable ? SyncStatus::weak : SyncStatus::pending;
        clip.matchScore.reset();
        clip.placementPass = PlacementPass::clock;
        break;
    case Placement::interp:
        clip.syncStatus = usable ? SyncStatus::failed : SyncStatus::pending;
        clip.matchScore.reset();
        clip.placementPass = usable ? PlacementPass::interpolated : PlacementPass::interpolatedNoAudio;
        break;
    }
    placed.insert({si, ci});
    if (onPlace) onPlace(clip.id, clip.startOffset, clip.syncStatus);
}

void Run::refreshMatchSpans() {
    // The primary pool holds what chain seeds may be found on: the reference and the cameras fixed
    // as backbone. The full pool adds every audio track that has joined.
    auto build = [&](bool refOnly, std::vector<int>& contributors) {
        std::vector<Span> spans;
        contributors.clear();
        for (int si : poolOrder) {
            if (!poolTracks.count(si)) continue;
            const bool backbone = backboneTracks.count(si) != 0;
            if (!backbone) {
                if (tracks[si].type != SourceType::audio) continue;
                if (si != reference && refOnly) continue;
            }
            if (holdOut && heldTracks.count(si)) continue;
            const bool lenient = backbone && holdOut;
            const std::size_t before = spans.size();
            for (int ci = 0; ci < static_cast<int>(tracks[si].clips.size()); ++ci) {
                if (!inRegion(si, ci) || !placed.count({si, ci})) continue;
                const ClipItem& clip = tracks[si].clips[ci];
                const auto pass = clip.placementPass;
                if (pass == PlacementPass::unlinkedBackup) continue;
                if (!lenient && (pass == PlacementPass::interpolated || pass == PlacementPass::clock))
                    continue;
                if (clip.duration < kShortestMatchableClip) continue;
                spans.push_back(span(si, ci));
            }
            if (spans.size() > before) contributors.push_back(si);
        }
        return spans;
    };
    primaryPool = build(true, primaryTracks);
    fullPool = build(false, fullTracks);
}

Span Run::span(int si, int ci) {
    Span s = spanOf(tracks[si].clips[ci]);
    s.kept = kept(si, ci);
    return s;
}

std::optional<SpectralBands::Reference> Run::kept(int si, int ci) {
    const ClipItem& clip = tracks[si].clips[ci];
    if (!clip.bandFeature) return std::nullopt;
    return references.reference({si, ci}, *clip.bandFeature);
}

Bounds priorWindow(const Run& run, int si, int ci, std::span<const Span> spans) {
    const TrackSource& track = run.tracks[si];
    const ClipItem& clip = track.clips[ci];
    Bounds window;
    auto clock = clockWindow(track, clip, run.priorContext(si));
    if (clock) window = *clock;
    if (auto tc = tcWindow(clip, spans)) {
        const Bounds both{std::max(window.lo, tc->lo), std::min(window.hi, tc->hi)};
        if (both.lo < both.hi) window = both;
    }
    return window;
}

std::vector<std::optional<Match>> searchInParallel(Run& run, const std::vector<SearchJob>& jobs,
                                                   const std::vector<Span>& spans, bool allowSingleStrong,
                                                   bool boundedByWindow, double progressStep) {
    std::vector<std::optional<Match>> results(jobs.size());
    bool cancelled = false;
    // Children read the pool and the features through pointers into `run.tracks`; nothing mutates
    // either until the window has drained.
    const std::function<std::optional<Match>(std::size_t)> job = [&](std::size_t i) -> std::optional<Match> {
        const SearchJob& j = jobs[i];
        const ClipItem& clip = run.tracks[j.si].clips[j.ci];
        if (clip.duration < kShortestMatchableClip || !clip.bandFeature) return std::nullopt;
        const bool bounded = boundedByWindow && j.window.lo < j.window.hi;
        const double lo = bounded ? j.window.lo : -kUnbounded;
        const double hi = bounded ? j.window.hi : kUnbounded;
        return multiWindowMatch(&*clip.bandFeature, clip.duration, lo, hi, spans, allowSingleStrong);
    };
    const std::function<void(std::size_t, std::optional<Match>)> onResult = [&](std::size_t i,
                                                                                std::optional<Match> m) {
        if (run.stop.stop_requested()) {
            cancelled = true;
            return;
        }
        if (progressStep > 0)
            run.advance(progressStep, run.tracks[jobs[i].si].clips[jobs[i].ci].url.baseName());
        results[i] = m;
    };
    WorkerWindow::run<std::optional<Match>>(run.workers, jobs.size(), job, onResult, run.stop);
    if (cancelled || run.stop.stop_requested()) throw Cancelled{};
    return results;
}

} // namespace detail

namespace {

// How the reference of a region is chosen. A camera counts towards a multi-camera shoot when it
// holds a clip of a minute or more and more than four clips with sound: shorter or fewer is b-roll.
constexpr double kCameraLongestClip = 60.0;
constexpr int kCameraClipsWithSound = 4;
// A recorder of takes: more than two of them, none as long as twenty minutes.
constexpr int kTakeRecorderClips = 2;
constexpr double kTakeRecorderLongestClip = 1200.0;
// Three cameras (or two beside takes) share more of the shoot with each other than with any
// recorder, so one of them anchors the region.
constexpr std::size_t kCamerasFirst = 3;
// A recorder of three clips or more outranks a longer one of fewer as the reference.
constexpr int kReferenceRecorderClips = 3;

std::string regionKeyOf(const TrackSource& track, const ClipItem& clip) {
    if (clip.dayRegion) return *clip.dayRegion;
    if (track.dayRegion) return *track.dayRegion;
    return "default";
}

bool regionBefore(const std::string& a, const std::string& b) {
    const bool dayA = a.rfind("day-", 0) == 0, dayB = b.rfind("day-", 0) == 0;
    if (dayA != dayB) return dayA;
    return a < b;
}

int bandFrames(const ClipItem& clip) {
    return clip.bandFeature ? clip.bandFeature->frames : 0;
}

std::string joinNames(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    std::string out;
    for (const auto& n : names)
        out += (out.empty() ? "" : ", ") + n;
    return out.empty() ? "(none)" : out;
}

void logPools(Run& run) {
    auto describe = [&](const std::vector<Span>& spans, const std::vector<int>& contributors) {
        std::vector<std::string> names;
        for (int si : contributors)
            names.push_back(run.tracks[si].name);
        int ready = 0;
        for (const Span& s : spans)
            if (s.bands && s.bands->frames >= SpectralBands::kMinimumFrames) ++ready;
        return fmt::sprintf("%s, %d segment(s) (ready=%d with bands)", joinNames(names),
                            static_cast<int>(spans.size()), ready);
    };
    EngineLog::logf("[SyncEngine]  region '%s' primary audio pool: %s", run.regionKey,
                    describe(run.primaryPool, run.primaryTracks));
    EngineLog::logf("[SyncEngine]  region '%s' full audio pool: %s", run.regionKey,
                    describe(run.fullPool, run.fullTracks));
}

// Clips long enough, with usable audio and a feature: those a search can prove.
int matchableCount(const Run& run, const std::vector<ClipKey>& clips) {
    int matchable = 0;
    for (const auto& [si, ci] : clips) {
        const ClipItem& clip = run.tracks[si].clips[ci];
        if (clip.duration >= kShortestMatchableClip && clip.audioUsability == AudioUsability::ok &&
            bandFrames(clip) >= SpectralBands::kMinimumFrames)
            ++matchable;
    }
    return matchable;
}

// A track is trusted as evidence for the tracks after it when most of its matchable clips were
// proved by audio and they did not all pile onto one loud moment. Fewer anchors can be a chance
// chain, and a wrong track in the pool would mislead every track searched against it.
bool acceptedIntoPool(const Run& run, int si, const detail::TrackOutcome& outcome) {
    if (outcome.hotSpot || outcome.matched == 0) return false;
    std::vector<ClipKey> clips;
    for (int ci : run.regionClips(si))
        clips.push_back({si, ci});
    return outcome.matched * 2 >= matchableCount(run, clips);
}

void joinPool(Run& run, int si, bool backbone) {
    if (!run.poolTracks.count(si)) run.poolOrder.push_back(si);
    run.poolTracks.insert(si);
    if (backbone) run.backboneTracks.insert(si);
    const std::size_t primaryBefore = run.primaryPool.size();
    run.refreshMatchSpans();
    // Pass 1 searches the primary pool only: what it found stands until that pool changes.
    if (run.primaryPool.size() != primaryBefore) ++run.poolVersion;
}

// Camera-group clips in shooting order: by recording date when every clip has one, else card by
// card in track order.
std::vector<ClipKey> orderedFlatClips(const Run& run, const std::vector<int>& groupTracks) {
    std::vector<ClipKey> out;
    bool allDated = true;
    for (int si : groupTracks)
        for (int ci : run.regionClips(si)) {
            out.push_back({si, ci});
            allDated = allDated && run.tracks[si].clips[ci].recordingDate.has_value();
        }
    if (allDated)
        std::stable_sort(out.begin(), out.end(), [&](const ClipKey& a, const ClipKey& b) {
            return *run.tracks[a.first].clips[a.second].recordingDate <
                   *run.tracks[b.first].clips[b.second].recordingDate;
        });
    return out;
}

void syncRegion(Run& run, const std::string& key, const std::vector<ClipKey>& members) {
    run.regionKey = key;
    run.region = std::set<ClipKey>(members.begin(), members.end());
    std::set<int> trackSet;
    for (const auto& m : members)
        trackSet.insert(m.first);
    run.regionTracks.assign(trackSet.begin(), trackSet.end());
    run.primaryPool.clear();
    run.fullPool.clear();
    run.poolOrder.clear();
    run.poolTracks.clear();
    run.backboneTracks.clear();
    run.heldTracks.clear();
    run.holdOut = false;
    run.segments.clear();
    run.unlinked.clear();
    run.doneTracks.clear();
    run.epoch.reset();

    const auto& tracks = run.tracks;
    std::vector<int> recorders, cameras, longRecorders, takeRecorders;
    for (int si : run.regionTracks) {
        if (tracks[si].siblingOf) continue;
        if (tracks[si].type == SourceType::audio) {
            recorders.push_back(si);
        } else if (run.maxClip(si) >= kCameraLongestClip) {
            int ok = 0;
            for (int ci : run.regionClips(si))
                if (tracks[si].clips[ci].audioUsability == AudioUsability::ok) ++ok;
            if (ok > kCameraClipsWithSound) cameras.push_back(si);
        }
    }
    int longest = -1;
    for (int si : recorders) {
        if (run.maxClip(si) >= kLongRecording) {
            longRecorders.push_back(si);
            if (longest < 0 || run.maxClip(si) > run.maxClip(longest)) longest = si;
        }
        if (run.regionClipCount(si) > kTakeRecorderClips && run.maxClip(si) < kTakeRecorderLongestClip)
            takeRecorders.push_back(si);
    }
    const bool camerasFirst =
        cameras.size() >= kCamerasFirst ||
        (cameras.size() == kCamerasFirst - 1 && (recorders.empty() || !takeRecorders.empty()));

    auto largestMaxClip = [&](const std::vector<int>& candidates) {
        int best = -1;
        for (int si : candidates)
            if (best < 0 || run.maxClip(si) > run.maxClip(best)) best = si;
        return best;
    };
    int ref = -1;
    if (longest >= 0) {
        ref = longest;
    } else if (camerasFirst) {
        ref = largestMaxClip(cameras);
    } else if (!recorders.empty()) {
        int most = -1;
        for (int si : recorders)
            if (most < 0 || run.regionClipCount(si) > run.regionClipCount(most)) most = si;
        ref = run.regionClipCount(most) >= kReferenceRecorderClips ? most : largestMaxClip(recorders);
    } else {
        std::vector<int> nonSiblings;
        for (int si : run.regionTracks)
            if (!tracks[si].siblingOf) nonSiblings.push_back(si);
        ref = largestMaxClip(nonSiblings.empty() ? run.regionTracks : nonSiblings);
    }
    run.reference = ref;

    // The region's clock epoch.
    std::optional<Date> refEarliest, othersEarliest;
    for (int si : run.regionTracks)
        for (int ci : run.regionClips(si))
            if (const auto& d = tracks[si].clips[ci].recordingDate) {
                auto& slot = si == ref ? refEarliest : othersEarliest;
                if (!slot || *d < *slot) slot = *d;
            }
    std::vector<int> others;
    for (int si : run.regionTracks)
        if (si != ref) others.push_back(si);
    const bool overlaps =
        detail::clockRangesOverlap(detail::clockRange(run, {ref}), detail::clockRange(run, others));
    if (overlaps) {
        run.epoch = refEarliest;
    } else {
        run.epoch = othersEarliest;
        EngineLog::logf(
            "[SyncEngine]  ref '%s' clock doesn't overlap the rest of region '%s' — ignoring it for "
            "the region epoch (still used for content matching)",
            tracks[ref].name, key);
    }
    EngineLog::logf("[SyncEngine] region '%s' ref '%s' (%d tracks,%d clips) @ base=%.0f", key,
                    tracks[ref].name, static_cast<int>(run.regionTracks.size()),
                    static_cast<int>(members.size()), run.base);

    // The reference and its pool. A camera as reference is the ruler all the same: its sound enters
    // the pool as a backbone track would.
    run.poolOrder.push_back(ref);
    run.poolTracks.insert(ref);
    if (tracks[ref].type == SourceType::video) run.backboneTracks.insert(ref);
    detail::layoutReference(run);
    run.doneTracks.insert(ref);

    // Long backups the clock cannot tie to the reference.
    for (int si : recorders) {
        if (si == ref) continue;
        run.poll();
        if (!detail::isLongBackup(run, si) || detail::clocksOverlapRef(run, ref, si)) continue;
        if (auto pos = detail::probeBackupLinkage(run, si)) {
            detail::placeBackupLinked(run, si, *pos);
            run.doneTracks.insert(si);
        } else {
            run.unlinked.push_back(si);
        }
    }
    run.refreshMatchSpans();
    logPools(run);
    if (!run.unlinked.empty()) {
        for (int si : run.unlinked) {
            run.poll();
            detail::placeUnlinked(run, si);
            run.doneTracks.insert(si);
        }
        run.refreshMatchSpans();
        EngineLog::logf(
            "[SyncEngine]  region '%s' pools after unlinked backups: primary %d, full %d segment(s)", key,
            static_cast<int>(run.primaryPool.size()), static_cast<int>(run.fullPool.size()));
    }

    // Channel tracks follow their leaders once the leaders have a place; a channel whose audio
    // disagrees becomes a track of its own.
    std::vector<int> siblings, ownTracks;
    for (int si : run.regionTracks)
        if (tracks[si].siblingOf && si != ref) siblings.push_back(si);
    auto leaderOf = [&](int si) {
        for (int li = 0; li < static_cast<int>(tracks.size()); ++li)
            if (tracks[li].id == *tracks[si].siblingOf) return li;
        return -1;
    };
    std::vector<int> waitingSiblings;
    auto mirrorReady = [&](bool final) {
        std::vector<int> still;
        for (int si : waitingSiblings) {
            run.poll();
            const int leader = leaderOf(si);
            if (leader >= 0 && run.doneTracks.count(leader)) {
                detail::mirrorSibling(run, si, leader);
                run.doneTracks.insert(si);
            } else if (final) {
                ownTracks.push_back(si);
            } else {
                still.push_back(si);
            }
        }
        waitingSiblings = still;
    };
    for (int si : siblings) {
        run.poll();
        const int leader = leaderOf(si);
        if (leader < 0 || !std::binary_search(run.regionTracks.begin(), run.regionTracks.end(), leader)) {
            ownTracks.push_back(si);
        } else if (detail::siblingVerified(run, si, leader)) {
            waitingSiblings.push_back(si);
        } else {
            ownTracks.push_back(si);
        }
    }
    mirrorReady(false);

    // The remaining tracks: camera groups first, then cameras (against the reference alone when
    // cameras go first), then everything else.
    std::vector<int> remaining;
    for (int si : run.regionTracks)
        if (!run.doneTracks.count(si) && !tracks[si].siblingOf) remaining.push_back(si);
    for (int si : ownTracks)
        remaining.push_back(si);
    std::sort(remaining.begin(), remaining.end());

    // The rest is placed unit by unit: a single track, or the cards of one camera group as one
    // chain. A unit waits while Pass 1 leaves some of its clips unproved and other units may
    // still grow the primary pool; it is searched again whenever the pool has grown, because the
    // units placed meanwhile often bridge it to the reference. When every waiting unit is stuck,
    // the one that proved the largest share goes as it stands. A unit is placed once, so nothing
    // placed ever moves.
    struct Unit {
        std::vector<int> members;
        std::optional<std::string> group;
        int probedAt = -1;
        int probes = 0;
        long hits = 0;
        int matchable = 0;
        std::vector<std::optional<Match>> pass1;
    };
    auto unitClips = [&](const Unit& u) {
        if (u.group) return orderedFlatClips(run, u.members);
        std::vector<ClipKey> clips;
        for (int ci : run.regionClips(u.members.front()))
            clips.push_back({u.members.front(), ci});
        return clips;
    };
    enum class Phase { cameraBackbone, recordersAfterBackbone, otherTracks };
    auto place = [&](Unit& u, Phase phase) {
        const auto clips = unitClips(u);
        const std::string name = u.group ? *u.group : tracks[u.members.front()].name;
        const bool retried = u.probes > 1;
        if (retried)
            EngineLog::logf("[SyncEngine]  retrying '%s' against the other cameras (lavs excluded)", name);
        int matched = 0;
        bool accepted = false;
        if (u.group) {
            if (camerasFirst)
                EngineLog::logf("[SyncEngine]  camera group '%s' (cameras-first): %d clip(s) on %d card(s)",
                                name, static_cast<int>(clips.size()), static_cast<int>(u.members.size()));
            matched = detail::syncClipChain(run, clips, name, &u.pass1);
            accepted = matched > 0 && 2 * matched >= matchableCount(run, clips);
        } else {
            const auto outcome = detail::syncOneTrack(run, u.members.front(), &u.pass1);
            matched = outcome.matched;
            accepted = acceptedIntoPool(run, u.members.front(), outcome);
        }
        for (int si : u.members)
            run.doneTracks.insert(si);
        if (retried && matched > 0)
            EngineLog::logf("[SyncEngine]  '%s' matched on retry (%d of %d clips)", name, matched,
                            static_cast<int>(clips.size()));
        if (accepted) {
            for (int si : u.members)
                joinPool(run, si, phase == Phase::cameraBackbone || tracks[si].type == SourceType::video);
            if (phase == Phase::cameraBackbone)
                EngineLog::logf(
                    "[SyncEngine]  camera '%s' paired against the camera backbone (%d matched) — added "
                    "to the pool",
                    name, matched);
            else
                EngineLog::logf("[SyncEngine]  '%s' (%d matched of %d clips) — added to the pool%s", name,
                                matched, static_cast<int>(clips.size()),
                                phase == Phase::otherTracks ? " for the cameras after it" : "");
        }
        mirrorReady(false);
    };
    auto probe = [&](Unit& u) {
        const auto clips = unitClips(u);
        detail::Ladder ladder(run, clips);
        const auto jobs = ladder.seedJobs(run.primaryPool);
        if (u.pass1.size() != jobs.size()) {
            u.pass1 = detail::searchInParallel(run, jobs, run.primaryPool, false, true, 0.0);
        } else {
            // Searched again, only the clips that found nothing strong: a hit already made stands.
            std::vector<detail::SearchJob> again;
            std::vector<std::size_t> where;
            for (std::size_t j = 0; j < jobs.size(); ++j)
                if (!u.pass1[j] || u.pass1[j]->score < kStrongScore) {
                    again.push_back(jobs[j]);
                    where.push_back(j);
                }
            const auto found = detail::searchInParallel(run, again, run.primaryPool, false, true, 0.0);
            for (std::size_t i = 0; i < where.size(); ++i)
                u.pass1[where[i]] = found[i];
        }
        u.probedAt = run.poolVersion;
        ++u.probes;
        u.hits = std::count_if(u.pass1.begin(), u.pass1.end(),
                               [](const auto& m) { return m && m->score >= kStrongScore; });
        u.matchable = matchableCount(run, clips);
    };
    // With `setAside`, a stuck unit is placed only when at least half of its matchable clips are
    // proved (what acceptance into the pool asks); when even the best falls short, all waiting units
    // go to `setAside` instead, to be placed once more of the timeline has sound to fill from.
    auto runUnits = [&](std::vector<Unit> units, Phase phase, std::vector<Unit>* setAside = nullptr) {
        std::vector<Unit*> pending;
        for (auto& u : units)
            pending.push_back(&u);
        while (!pending.empty()) {
            std::vector<Unit*> waiting;
            bool placedAny = false;
            for (Unit* u : pending) {
                run.poll();
                if (u->probedAt != run.poolVersion) probe(*u);
                if (u->hits >= u->matchable) {
                    place(*u, phase);
                    placedAny = true;
                } else {
                    waiting.push_back(u);
                }
            }
            if (!placedAny && !waiting.empty()) {
                auto share = [](const Unit* u) {
                    return static_cast<double>(u->hits) / std::max(u->matchable, 1);
                };
                auto best = waiting.begin();
                for (auto it = waiting.begin(); it != waiting.end(); ++it)
                    if (share(*it) > share(*best)) best = it;
                if (setAside != nullptr && 2 * (*best)->hits < (*best)->matchable) {
                    for (Unit* u : waiting) {
                        EngineLog::logf(
                            "[SyncEngine]  '%s' waits for the recorders (%ld of %d clips proved against "
                            "the camera backbone)",
                            u->group ? *u->group : tracks[u->members.front()].name, u->hits, u->matchable);
                        setAside->push_back(std::move(*u));
                    }
                    return;
                }
                place(**best, phase);
                waiting.erase(best);
            }
            pending = std::move(waiting);
        }
    };

    std::map<std::string, Unit> groups;
    std::vector<Unit> singles;
    for (int si : remaining) {
        if (tracks[si].cameraGroup) {
            auto& g = groups[*tracks[si].cameraGroup];
            g.group = *tracks[si].cameraGroup;
            g.members.push_back(si);
        } else {
            singles.push_back(Unit{{si}, std::nullopt, -1, 0, 0, 0, {}});
        }
    }

    if (camerasFirst) {
        // The cameras make the backbone, against the reference alone; their groups go first.
        std::vector<Unit> backbone, rest;
        for (auto& [_, g] : groups)
            backbone.push_back(g);
        std::vector<int> held;
        for (auto& u : singles) {
            const int si = u.members.front();
            if (std::find(cameras.begin(), cameras.end(), si) != cameras.end()) {
                backbone.push_back(u);
            } else {
                if (tracks[si].type == SourceType::audio) held.push_back(si);
                rest.push_back(u);
            }
        }
        std::vector<std::string> heldNames;
        for (int si : held)
            heldNames.push_back(tracks[si].name);
        int cameraCount = 0;
        for (const auto& u : backbone)
            cameraCount += static_cast<int>(u.members.size());
        std::string line =
            fmt::sprintf("[SyncEngine]  cameras-first: pairing %d camera(s) against '%s' with %d span(s)",
                         cameraCount, tracks[ref].name, static_cast<int>(run.primaryPool.size()));
        if (!held.empty())
            line += fmt::sprintf(" other recorder(s) held out of the pool (%s)", joinNames(heldNames));
        EngineLog::log(line);
        run.heldTracks.insert(held.begin(), held.end());
        run.holdOut = true;
        run.refreshMatchSpans();
        ++run.poolVersion;
        // A camera whose clips the backbone mostly can't prove waits: placed now, its unproved clips
        // would take their clocks for good, while the recorders, once placed, give Pass 3 sound to
        // fill them from.
        std::vector<Unit> waitingCameras;
        runUnits(backbone, Phase::cameraBackbone, &waitingCameras);
        run.holdOut = false;
        run.refreshMatchSpans();
        ++run.poolVersion;
        EngineLog::logf(
            "[SyncEngine]  cameras-first: camera backbone fixed (%d span(s)) — recorders are now placed "
            "against it",
            static_cast<int>(run.primaryPool.size()));
        runUnits(rest, Phase::recordersAfterBackbone);
        runUnits(std::move(waitingCameras), Phase::otherTracks);
    } else {
        // Recorders first, then camera groups, then single cameras: a recorder is better evidence
        // for the cameras after it than a camera's own microphone.
        std::vector<Unit> ordered;
        for (auto& u : singles)
            if (tracks[u.members.front()].type == SourceType::audio) ordered.push_back(u);
        for (auto& [_, g] : groups)
            ordered.push_back(g);
        for (auto& u : singles)
            if (tracks[u.members.front()].type != SourceType::audio) ordered.push_back(u);
        runUnits(ordered, Phase::otherTracks);
    }
    // A channel whose leader never got a place (it had none in this region) is matched on its own.
    mirrorReady(true);
    std::vector<Unit> orphans;
    for (int si : ownTracks)
        if (!run.doneTracks.count(si)) orphans.push_back(Unit{{si}, std::nullopt, -1, 0, 0, 0, {}});
    runUnits(orphans, Phase::otherTracks);
    detail::checkTimeline(run);

    double latestEnd = run.base;
    for (const auto& [si, ci] : run.region)
        latestEnd = std::max(latestEnd, tracks[si].clips[ci].startOffset + tracks[si].clips[ci].duration);
    run.base = latestEnd + kRegionGap;
}

} // namespace

std::vector<TrackSource> synchronise(std::vector<TrackSource> sources, const ProgressFn& onProgress,
                                     const Place& onPlace, std::stop_token stop, int workers) {
    if (sources.size() < 2) return sources;
    Run run(sources, onProgress, onPlace, stop,
            workers > 0 ? workers : std::max(WorkerWindow::processorCount(), 2));
    // A new run judges every clip afresh: nothing of an earlier run's notes survives.
    for (auto& track : run.tracks)
        for (auto& clip : track.clips) {
            clip.placementNote.reset();
            clip.tcDisagrees = false;
        }
    try {
        for (const auto& track : run.tracks) {
            int bands = 0;
            double longest = 0;
            for (const auto& clip : track.clips) {
                if (bandFrames(clip) >= SpectralBands::kMinimumFrames) ++bands;
                longest = std::max(longest, clip.duration);
            }
            EngineLog::logf(
                "[SyncEngine]  track '%s' [session=%s region=%s]: %d clips, bands=%d, dur[max=%.0f]",
                track.name, track.session, track.dayRegion.value_or("default"),
                static_cast<int>(track.clips.size()), bands, longest);
            run.totalClips += static_cast<int>(track.clips.size());
        }

        std::vector<std::string> sessionOrder;
        std::map<std::string, std::vector<int>> bySession;
        for (int si = 0; si < static_cast<int>(run.tracks.size()); ++si) {
            const auto& s = run.tracks[si].session;
            if (!bySession.count(s)) sessionOrder.push_back(s);
            bySession[s].push_back(si);
        }
        auto sessionDur = [&](const std::vector<int>& indices) {
            double sum = 0;
            for (int si : indices)
                for (const auto& clip : run.tracks[si].clips)
                    sum += clip.duration;
            return sum;
        };
        std::stable_sort(sessionOrder.begin(), sessionOrder.end(),
                         [&](const std::string& a, const std::string& b) {
                             return sessionDur(bySession[a]) > sessionDur(bySession[b]);
                         });
        EngineLog::logf("[SyncEngine] %d session(s) [proto ref-track]",
                        static_cast<int>(sessionOrder.size()));

        for (const auto& session : sessionOrder) {
            std::map<std::string, std::vector<ClipKey>> regions;
            for (int si : bySession[session])
                for (int ci = 0; ci < static_cast<int>(run.tracks[si].clips.size()); ++ci)
                    regions[regionKeyOf(run.tracks[si], run.tracks[si].clips[ci])].push_back({si, ci});
            std::vector<std::string> keys;
            for (const auto& [k, _] : regions)
                keys.push_back(k);
            std::sort(keys.begin(), keys.end(), regionBefore);
            for (const auto& key : keys) {
                run.poll();
                syncRegion(run, key, regions[key]);
            }
        }
        resolveOverlaps(run.tracks);
        normaliseOffsets(run.tracks);
        logReport(run.tracks, run.matchInfo);
        return std::move(run.tracks);
    } catch (const detail::Cancelled&) {
        EngineLog::log("[SyncEngine] cancelled — the session is left as it was");
        return sources;
    }
}

} // namespace trelvane::SyncEngine
