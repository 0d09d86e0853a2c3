// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Synchronisation: gives every clip of a shoot a place on one shared timeline by matching its
// sound against what is already placed. One reference track is laid out first by its own clock,
// its audio becomes the matching pool, and every other track is placed against that pool, pass by
// pass. A namespace of static operations; the state of a run lives in `synchronise`.
//
// The primitives below are pure functions of their arguments, callable from any thread; they
// report "no evidence" by an empty result, never by an exception.

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/support/Progress.hpp"

#include <array>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace trelvane::SyncEngine {

// ---- placement constants (seconds unless said otherwise) ----------------------------------------
inline constexpr double kLongClip = 300.0;          // threshold of the long-rescue steps
inline constexpr double kLongRecording = 2700.0;    // a recorder this long outranks all as reference
inline constexpr float kStrongScore = 7.0f;         // synced; may anchor a chain
inline constexpr float kWeakFloor = 4.5f;           // below: rejected; up to kStrongScore: weak
inline constexpr float kSingleStrongWindow = 14.0f; // one window alone is believed from here
inline constexpr double kRegionGap = 2.0;           // between regions; largest pause closed on the ref
inline constexpr double kPlausiblePause = 604800.0; // seven days; more is a wrong clock
inline constexpr double kMinOverlap = 8.0;          // least overlap of any search
inline constexpr double kPeakSeparation = 0.5;
inline constexpr double kVoteTolerance = 5.0; // votes of one place lie this close
inline constexpr double kMaxWindow = 45.0;
inline constexpr std::array<double, 3> kWindowFractions = {0.15, 0.45, 0.75};
inline constexpr double kChainSlack = 3.0;
inline constexpr double kUnbounded = std::numeric_limits<double>::infinity();

// One segment of the matching pool: a placed clip.
struct Span {
    double off = 0; // timeline position of the segment's start (the clip's startOffset)
    double dur = 0;
    // The clip's band feature. Points into the run's working copy of the tracks, whose clip lists
    // never change size during a run, so it outlives every search that reads it.
    const SpectralBands::Feature* bands = nullptr;
    // What the run keeps of `bands` between searches, searched in its place. None outside a run:
    // each search then makes its own.
    std::optional<SpectralBands::Reference> kept;
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
    std::optional<double> startTC; // seconds
};

// A search result: the timeline position of the searched clip's start and its score.
struct Match {
    double pos = 0;
    float score = 0;
    bool operator==(const Match&) const = default;
};

struct Bounds {
    double lo = -kUnbounded;
    double hi = kUnbounded;
};

// What the run remembers of an audio placement: `kind` becomes the clip's placementPass, `raw`
// keeps the unclamped audio position. A Pass 1 hit not yet part of a chain has no kind: it only
// keeps its position for the report.
struct MatchInfo {
    std::optional<double> raw;
    float score = 0;
    std::optional<PlacementPass> kind;
};

struct Vote {
    double pos = 0;
    float score = 0;
};

// ---- match primitives ---------------------------------------------------------------------------

// `feature` searched in each span with the clip's start limited to [lo, hi]; the best score wins,
// the earlier span on a tie. A span with exactly the clip's frame count is never searched. Nothing
// when the feature is absent or under 5 frames, or no span gives a peak.
std::optional<Match> bestMatch(std::span<const Span> spans, const SpectralBands::Feature* feature, double lo,
                               double hi);

// The start of the window of length `w` centred at `fraction` of a clip of `dur`, clamped into the
// clip; nothing when the window does not fit.
std::optional<double> windowStart(double dur, double w, double fraction);

// The largest cluster of votes lying within `tolerance` (inclusive) of one vote; a later cluster
// replaces the kept one only when strictly larger. Empty for no votes.
std::vector<Vote> largestCluster(std::span<const Vote> votes, double tolerance);
// sum(pos * score) / max(sum(score), 0.000001).
double weightedMean(std::span<const Vote> votes);

// A long clip tested by three windows that must agree (two votes within 5 s); a short clip (window
// under 10 s) by one whole-clip search. A lone vote counts only with `allowSingleStrong` and a
// score of at least 14.
std::optional<Match> multiWindowMatch(const SpectralBands::Feature* feature, double dur, double lo, double hi,
                                      std::span<const Span> spans, bool allowSingleStrong);

// Where the clip's timecode puts it against the pool's timecoded spans, widened by 1.5 s either
// side; nothing without a clip timecode or a timecoded span.
std::optional<Bounds> tcWindow(const ClipItem& clip, std::span<const Span> spans);

// What the run knows when narrowing a search by clock.
struct PriorContext {
    std::string referenceName; // the reference track's name
    bool isReference = false;  // the searched clip's track is the reference
    std::optional<Date> epoch; // clock time of the region's start
    double base = 0;           // timeline position of the region's start
};

// The clock window of an audio track's clip: ±360 s around a text-sync offset to the reference,
// else ±900 s (embedded clock) or ±1350 s (file-name clock) around its date less the epoch plus
// the base. Nothing for a video track or a clip without a trusted clock.
std::optional<Bounds> clockWindow(const TrackSource& track, const ClipItem& clip,
                                  const PriorContext& context);

// `bestMatch` of the clip's feature in [lo, hi], narrowed first by `clockWindow` when
// `useClockPrior` is set (an empty intersection keeps [lo, hi]).
std::optional<Match> clipMatch(const TrackSource& track, const ClipItem& clip, double lo, double hi,
                               std::span<const Span> spans, bool useClockPrior, const PriorContext& context);

// Two clips compared with each other by windows of the shorter (at most `maxWindow`, at least 10 s)
// in the longer: `pos` is the offset from `a` to `b` (b's start less a's), `score` the best of the
// agreeing votes. Nothing unless both have a band feature and usable audio, and two votes agree.
// `aKept` and `bKept`, when given, are what the run keeps of the clips' features.
std::optional<Match> compareClips(const ClipItem& a, const ClipItem& b, double maxWindow, double tolerance,
                                  const SpectralBands::Reference* aKept = nullptr,
                                  const SpectralBands::Reference* bKept = nullptr);

// What the sound of two overlapping clips says of the timeline that holds them: a window of the
// middle of their overlap (four fifths of it, at most 90 s) is cut from `a` and searched in `b`
// within 60 s either side of where the timeline puts it, the score taken against that whole
// stretch, the peak placed between frames. `pos` is how far b's
// start must move (later when positive) for the sound to line up; 0 when the timeline is right.
// Nothing when the overlap is under 10 s, either clip lacks a feature or usable audio, or no lag
// can be scored.
std::optional<Match> measureOverlap(const ClipItem& a, double aStart, const ClipItem& b, double bStart);

// Whether the clip's timecode puts it further from `placedPos` than two frames (1/12 s without a
// frame rate), judged by the nearest timecoded span. False without a timecode or timecoded span.
bool timecodeDisagrees(const ClipItem& clip, double placedPos, std::span<const Span> spans);

// ---- chain layout -------------------------------------------------------------------------------

enum class Placement { matched, clock, interp };

// The longest run of hits (clip index, position), in clip order, whose distances cover the footage
// between them less `slack`. Returns the chosen clip indices ascending.
std::vector<int> longestConsistentChain(std::span<const std::pair<int, double>> items,
                                        std::span<const double> prefixDur, double slack);

struct LayoutCounts {
    int byClock = 0;
    int byInterp = 0;
};

// Places the anchors at `posOf` and the free clips between them by their clocks, or spread evenly
// over the room when the clocks contradict the anchors. `count` clips, indices 0..count-1.
LayoutCounts layoutChain(std::span<const int> anchors, const std::map<int, double>& posOf,
                         const std::function<double(int)>& dur,
                         const std::function<std::optional<Date>(int)>& clock,
                         const std::function<void(int, double, Placement)>& setClip, double base, int count);

// "between 'a' and 'b'", "after 'a'", "before 'b'" from the nearest anchors, or nothing.
std::optional<std::string> neighbourNote(int k, std::span<const int> anchors,
                                         std::span<const std::string> names);

// ---- finishing ----------------------------------------------------------------------------------

// Pushes a clip that overlaps its predecessor in the same track and day region by more than
// 0.05 s to its end.
void resolveOverlaps(std::vector<TrackSource>& tracks);
// Moves the timeline so that its earliest clip starts at 0 (left alone within 0.001 s).
void normaliseOffsets(std::vector<TrackSource>& tracks);
// The LAYOUT lines of every track and the DONE summary, to the engine log.
void logReport(const std::vector<TrackSource>& tracks, const std::map<Uuid, MatchInfo>& matchInfo);

// ---- the run ------------------------------------------------------------------------------------

using Place = std::function<void(const Uuid& clipID, double offset, SyncStatus status)>;

// Places every clip of `sources` (features already extracted) on one timeline and sets its result
// fields. `onProgress` hears the fraction done and the clip just handled, on the calling thread.
// Returns `sources` unchanged when there are fewer than two tracks or when `stop` is requested
// during the run. `workers` is the size of the parallel search window; 0 means
// max(processors, 2). The result does not depend on it.
std::vector<TrackSource> synchronise(std::vector<TrackSource> sources, const ProgressFn& onProgress,
                                     const Place& onPlace, std::stop_token stop = {}, int workers = 0);

} // namespace trelvane::SyncEngine
