// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The state of one synchronisation run, shared by reference by its passes (driver, reference
// track, clip chain, track passes). Only the run's own thread touches it; the parallel searches
// get copies of what they read and hand values back.

#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace trelvane::SyncEngine::detail {

// Thrown at a cancellation poll and caught by `synchronise`, which then returns its input: no
// partial placement may survive a cancelled run.
struct Cancelled {};

inline double secondsBetween(const Date& later, const Date& earlier) {
    return std::chrono::duration<double>(later - earlier).count();
}

inline bool trustedClock(ClockQuality q) {
    return q == ClockQuality::filename || q == ClockQuality::embedded;
}

using ClipKey = std::pair<int, int>; // (track index, clip index)

// A placed clip as a segment of a pool.
inline Span spanOf(const ClipItem& clip) {
    Span s;
    s.off = clip.startOffset;
    s.dur = clip.duration;
    s.bands = clip.bandFeature ? &*clip.bandFeature : nullptr;
    s.date = clip.recordingDate;
    s.quality = clip.clockQuality;
    s.startTC = clip.startTimecode;
    return s;
}

struct Run {
    Run(std::vector<TrackSource> t, const ProgressFn& progressFn, const Place& placeFn, std::stop_token s,
        int w)
        : tracks(std::move(t)), onProgress(progressFn), onPlace(placeFn), stop(std::move(s)), workers(w) {}

    std::vector<TrackSource> tracks;
    const ProgressFn& onProgress;
    const Place& onPlace;
    std::stop_token stop;
    int workers = 2;

    int totalClips = 0;
    double progress = 0;
    double base = 0;
    std::set<ClipKey> placed;
    std::map<Uuid, MatchInfo> matchInfo;
    std::vector<Span> primaryPool, fullPool;
    std::vector<int> primaryTracks, fullTracks; // the tracks that gave each pool its spans

    // The region in hand.
    std::string regionKey;
    std::set<ClipKey> region;
    std::vector<int> regionTracks;
    int reference = -1;
    std::optional<Date> epoch;
    std::vector<std::vector<int>> segments; // clip indices of the reference, one list per kept pause
    std::vector<int> unlinked;
    std::set<int> doneTracks; // tracks of the region whose clips all have a place

    // What `refreshMatchSpans` builds the pools from.
    std::vector<int> poolOrder;
    std::set<int> poolTracks, backboneTracks, heldTracks;
    bool holdOut = false;
    int poolVersion = 0; // grows whenever the pools may have changed
    // What the searches keep of the clips they search in, by (track, clip): a pool's spans are
    // searched thousands of times, and the clip lists and features never change while the run lasts.
    SpectralBands::ReferenceCache references;

    void poll() const {
        if (stop.stop_requested()) throw Cancelled{};
    }
    bool inRegion(int si, int ci) const { return region.count({si, ci}) != 0; }
    // The track's clip indices in the region, in track order.
    std::vector<int> regionClips(int si) const;
    double maxClip(int si) const;
    int regionClipCount(int si) const;
    const std::string& name(int si) const { return tracks[si].name; }
    PriorContext priorContext(int si) const;

    void advance(double steps, const std::string& clipName);
    // Writes an audio-proved, clocked or interpolated position as the track passes do, with the
    // timecode check for a match, and reports it.
    void setClip(int si, int ci, double pos, Placement placement);
    void refreshMatchSpans();
    // The clip as a span of a pool, searched through what the run keeps of it.
    Span span(int si, int ci);
    // What the run keeps of the clip's feature; nothing without one.
    std::optional<SpectralBands::Reference> kept(int si, int ci);
};

// The earliest and latest recording dates of the given tracks' clips in the region.
using ClockSpan = std::optional<std::pair<Date, Date>>;
ClockSpan clockRange(const Run& run, const std::vector<int>& trackIndices);
// Two clock ranges overlap once each is widened by 900 s at both ends; a range without dates
// overlaps everything.
bool clockRangesOverlap(const ClockSpan& a, const ClockSpan& b);

// ---- reference track ------------------------------------------------------------------------
void layoutReference(Run& run);
bool isLongBackup(Run& run, int si);
bool clocksOverlapRef(const Run& run, int ref, int si);
std::optional<double> probeBackupLinkage(Run& run, int si);
void placeBackupLinked(Run& run, int si, double pos);
void placeUnlinked(Run& run, int si);
void calibrateSegmentIfNeeded(Run& run, std::size_t segment, int backup);
bool siblingVerified(Run& run, int si, int leader);
void mirrorSibling(Run& run, int si, int leader);

// ---- clip chain and track passes ----------------------------------------------------------------

struct SearchJob {
    int si = 0, ci = 0;
    Bounds window;
};

// The clips one ladder of passes places (a camera chain or one track), with what is anchored so far.
// Indices `k` are positions in `clips`.
struct Ladder {
    Ladder(Run& run, std::vector<ClipKey> clips);

    Run& run;
    std::vector<ClipKey> clips;
    std::set<int> anchors;
    std::set<int> strong; // anchors of a score of at least kStrongScore
    std::map<int, double> posOf;
    std::vector<double> prefixDur; // running sums of durations, one longer than `clips`
    std::vector<int> order;        // indices by descending duration, stable

    int count() const { return static_cast<int>(clips.size()); }
    const ClipItem& clip(int k) const { return run.tracks[clips[k].first].clips[clips[k].second]; }
    const TrackSource& track(int k) const { return run.tracks[clips[k].first]; }
    double dur(int k) const { return clip(k).duration; }
    std::string name(int k) const { return clip(k).url.baseName(); }
    std::optional<SpectralBands::Reference> kept(int k) const {
        return run.kept(clips[k].first, clips[k].second);
    }

    // From the end of the nearest anchor below `k` to the start of the nearest above less k's
    // duration; open where there is none. `strongOnly` brackets by strong anchors, 3 s wider.
    Bounds bracket(int k, bool strongOnly = false) const;
    // Anchors a clip found by audio: clamped into [lo, hi], the unclamped position kept as raw.
    void accept(int k, const Match& hit, double lo, double hi, PlacementPass kind);
    // Pass 1 jobs over `spans`, longest clip first.
    std::vector<SearchJob> seedJobs(std::span<const Span> spans) const;
    // Free clips by clock or interpolation, then the notes of the free clips.
    LayoutCounts layout();
    // The long rescue: every long clip still free, its whole sound searched within its bracket in
    // `spans`. A camera chain (`withBroll`) then tries the window its B-roll gives and says which
    // clips are left to interpolation; a track's log lines name `trackName`.
    void rescueLongClips(std::span<const Span> spans, bool withBroll, const std::string& trackName = {});
};

// Pass 1 results already searched for these clips against the current primary pool, in the
// order of `Ladder::seedJobs`; nothing to search them here.
using Pass1 = std::vector<std::optional<Match>>;
// Returns the number of anchored clips.
int syncClipChain(Run& run, const std::vector<ClipKey>& clips, const std::string& label,
                  const Pass1* pass1 = nullptr);
struct TrackOutcome {
    int matched = 0;
    bool hotSpot = false;
};
TrackOutcome syncOneTrack(Run& run, int si, const Pass1* pass1 = nullptr);

// The last check of the region in hand: overlapping clips of different tracks measured against each
// other, solved together; `synced` kept only where that proves a clip, what disagrees moved or left
// weak.
void checkTimeline(Run& run);

// A search window for a clip before any pass: its clock window (audio tracks only), narrowed by
// where its timecode puts it against `spans`. Unbounded when neither says anything.
Bounds priorWindow(const Run& run, int si, int ci, std::span<const Span> spans);

// The parallel search of Pass 1: `multiWindowMatch` of each job over `spans` on worker threads,
// results kept by job index. `progressStep` of a clip's progress step per result.
std::vector<std::optional<Match>> searchInParallel(Run& run, const std::vector<SearchJob>& jobs,
                                                   const std::vector<Span>& spans, bool allowSingleStrong,
                                                   bool boundedByWindow, double progressStep = 0.5);

} // namespace trelvane::SyncEngine::detail
