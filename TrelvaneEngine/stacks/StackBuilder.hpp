// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Stack mode: repeated takes over one playback are grouped by shared audio and laid one above the
// other. These are the records the session controller exchanges with the stack builder.
//
// Every clip is compared with every other by its band feature; clips that share audio form a
// stack, aligned by least squares over the measured offsets; the stacks are laid one after another
// in shooting order and packed into rows that become the new tracks. All operations are pure
// functions of their arguments, safe on any thread; nothing is raised. Log lines go to EngineLog
// under the tag "[Stacks]", in the same order whatever the number of workers.

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/support/Progress.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace trelvane::StackBuilder {

struct Stack {
    // Each member's offset inside the stack in seconds; the earliest member stands at 0.
    std::map<Uuid, double> positions;
    // The greatest position + duration of the members.
    double length = 0;
    // The earliest recording date among the members.
    std::optional<Date> recordedAt;
};

struct Result {
    std::vector<TrackSource> tracks;
    std::vector<Stack> stacks;
    // File names, without extension, of the clips that share audio with no other.
    std::vector<std::string> unmatched;
    int comparisons = 0;
    int matches = 0;
};

// Whether the material looks like repeated takes: clips of one device that share audio.
struct Advice {
    int matches = 0;
    int probed = 0;
    std::pair<std::string, std::string> example;
    double overlapSeconds = 0;
};

// ---- constants ----------------------------------------------------------------------------------

// Two clips are compared only when the longer lasts at most this many times the shorter.
inline constexpr double kMaxDurationRatio = 3.0;
// Above this many pairs the material is a whole shoot, not a set of takes; it is said in the log.
inline constexpr int kPairWarning = 2'000;
// Windows cut from the shorter clip: half its length, at most 45 s; none under 10 s, so a clip
// under 20 s is never compared.
inline constexpr double kLongestWindow = 45.0;
inline constexpr double kShortestWindow = 10.0;
// Window centres, as fractions of the shorter clip.
inline constexpr std::array<double, 3> kWindowCentres = {0.15, 0.45, 0.75};
// The search of each window over the whole of the longer clip.
inline constexpr double kMinOverlapSec = 8.0;
inline constexpr double kMinSeparationSec = 0.5;
inline constexpr int kTopK = 1;
// A window votes from this score on (standard deviations).
inline constexpr float kVoteScore = 7.0f;
// Votes at most this far apart (seconds) agree.
inline constexpr double kVoteAgreement = 0.1;
// Seconds: an edge whose residual is above this is inconsistent with its stack; also how close an
// ambiguous pair's option must lie to the solved offset to be taken.
inline constexpr double kResidualTolerance = 0.5;
inline constexpr int kReconcileRounds = 2;
// Weight factor of an ambiguous pair taken on its first option, with nothing firm to decide it.
inline constexpr float kUnresolvedWeightFactor = 0.5f;
// Seconds between two stacks on the timeline.
inline constexpr double kStackGap = 2.0;
// Seconds a clip may start before its row's end and still join the row.
inline constexpr double kPackTolerance = 0.001;
// Progress is reported each time this many pairs have been compared.
inline constexpr int kProgressEvery = 16;
// Advice: only clips this long take part (a shorter one is never compared), and the controller
// samples this many pairs.
inline constexpr double kAdviceShortestClip = 20.0;
inline constexpr int kAdviceProbes = 12;

// ---- operations ---------------------------------------------------------------------------------

// Where `b` starts relative to `a`, in seconds, as the windows of the shorter clip vote.
struct Comparison {
    double offset = 0;
    float score = 0;                  // the best score behind `offset`
    std::vector<double> alternatives; // the agreeing votes, or all votes when none agree
    bool confident = false;           // at least two windows agree within 0.1 s
};

// Nothing when either clip lacks a band feature or usable audio, when the shorter is under 20 s,
// or when no window scores 7.0 or more. `aKept` and `bKept`, when given, are what the build keeps
// of the clips' features.
std::optional<Comparison> compare(const ClipItem& a, const ClipItem& b,
                                  const SpectralBands::Reference* aKept = nullptr,
                                  const SpectralBands::Reference* bKept = nullptr);

// The pair comparisons run on worker threads, at most this many at a time.
inline int defaultWorkers() {
    return WorkerWindow::requestedWorkers().value_or(std::max(WorkerWindow::processorCount(), 2));
}

// Stacks the clips of `sources` (features extracted). `onProgress` (optional) hears fractions
// 0…1, with no clip name, on the calling thread. Blocking; meant for a worker thread. Once `stop` is
// requested no further pair is compared and the given tracks come back unchanged, with nothing else in the
// result. The result does not depend on `workers`.
Result build(const std::vector<TrackSource>& sources, const ProgressFn& onProgress = {},
             std::stop_token stop = {}, int workers = defaultWorkers());

// Whether clips of one device share audio, from an even sample of each device's clips, at most
// `maxProbes` pairs in all. Nothing when no sampled pair matches (silently) or when fewer than 2
// or under a quarter of them do (with a log line).
std::optional<Advice> advice(const std::vector<TrackSource>& sources, int maxProbes = kAdviceProbes);

// ---- parts of `build`, exposed for their tests ----------------------------------------------------

// A pair whose windows did not agree: a single vote, or votes more than 0.1 s apart.
struct AmbiguousPair {
    int from = 0;
    int to = 0;
    std::vector<double> options;
    float score = 0;
};

// Positions of `nodes` (flat clip indices) from the edges between them, one round of dropping
// inconsistent edges included. Nodes without edges stand at 0.
std::map<int, double> solve(std::span<const int> nodes,
                            std::span<const PairwiseOffsetSolver::Measurement> edges);

// The edges the ambiguous pairs add: each takes the option the firm pairs' solution points at, or
// failing that its first option at half weight.
std::vector<PairwiseOffsetSolver::Measurement>
reconcile(std::span<const AmbiguousPair> ambiguous, std::span<const PairwiseOffsetSolver::Measurement> edges,
          int clipCount);

// Rows of clips that do not overlap, each in order of position. `at` gives each node's position
// (absent counts as 0); `clips` the flat clip list that the nodes index.
std::vector<std::vector<int>> pack(std::span<const int> nodes, const std::map<int, double>& at,
                                   std::span<const ClipItem> clips);

// A picture clip: it has a picture file, or its own file is a video format.
bool isVideo(const ClipItem& clip);

} // namespace trelvane::StackBuilder
