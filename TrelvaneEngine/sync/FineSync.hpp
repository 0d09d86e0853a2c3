// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The last stage of a track-mode sync: every synced clip's place refined from a band frame (40 ms)
// to a fraction of a sample, and each clip's clock drift measured, so that a lavalier laid under a
// camera's sound, or two recorders laid together, neither echo nor comb.
//
// Each synced clip is refined against the clips of other tracks that overlap it most (`FineAlign`
// on a pair: short windows of both files, a phase-weighted correlation per window, a line through
// the windows' lags). The pairs measured are then solved together, drift first and then places,
// by weighted least squares over the graph they make, so that a chain of clips does not add up
// the error of each link; a pair that disagrees with the rest is dropped, the worst first. A
// synced clip with no pair left keeps the band placement and says why in its `refinementNote`.
// A weak clip is refined the same way against the synced clips that overlap it, where they agree
// on it, without moving them (and stays weak: its place is still the user's to check). A clip
// that was not refined (placed by clock or between neighbours, too short, refused) moves with the
// refined clip nearest it, so that it stays where the band sync put it against its neighbours.
//
// Drift is told against the timeline's clock, which is the pictures': the clips that pairs of two
// minutes or more tie together get their clocks from those pairs alone, and in each such group the
// median drift of the video clips is zero (of all clips where there is no video), so a recorder
// whose clock runs fast is the clip that gets corrected, never the cameras. A clip only short pairs
// reach takes its clock from the clips they tie it to; a short pair's few ppm of error never tilt
// one group's clock against another's.
//
// Each pair's measurement is kept in the feature cache under both files' keys and everything the
// measurement depends on, a refusal included: a second run decodes nothing and gives the same
// bytes.
//
// Threads: `refine` runs on the calling thread and decodes on `workers` threads; progress is
// reported on the calling thread. A stop returns the input unchanged.

#include "TrelvaneEngine/features/FineAlign.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/support/Progress.hpp"

#include <filesystem>
#include <optional>
#include <stop_token>
#include <vector>

namespace trelvane::FineSync {

struct Options {
    // The windows every pair is measured with first.
    FineAlign::Options align;
    // Those a synced clip that no partner could be measured against tries again with: longer
    // and more of them, for sound that is quiet or sparse where the quick ones fell.
    FineAlign::Options thorough;
    // Each synced clip is measured against at most this many clips of other tracks, those that
    // overlap it longest: two give the solve a second opinion on every clip.
    int partnersPerClip = 2;
    // The shortest overlap measured: room for windows that agree and a drift worth the name.
    double leastOverlap = 6.0;
    // Where pair measurements are kept; nothing keeps none.
    std::optional<std::filesystem::path> cacheFolder;
    // Decoding threads; 0 means max(processors, 2).
    int workers = 0;
};

// The windows FineSync asks of each pair first: four of a second. Fewer and shorter than
// FineAlign's own defaults (six of two seconds, the thorough retry), which measure one pair as well
// as it can be measured; here every clip is measured twice and solved with its neighbours, and the
// decoding is the stage's cost.
FineAlign::Options defaultAlignOptions();

// A pair's measurement, the file offsets relative: `pair.referenceOffset` is 0 and the result's
// `centre` is a time from the reference file's start. Reads the cache first when a folder is given,
// and stores what it measured there. Nothing when the pair is refused.
std::optional<FineAlign::Refinement> measurePair(const FineAlign::Pair& pair, const FineAlign::Options& align,
                                                 const std::optional<std::filesystem::path>& cacheFolder);

// Refines the synced and weak clips of `tracks` (placed by a track-mode sync) as above and sets
// `startOffset`, `driftPPM`, `driftUncertaintyPPM` and `refinementNote`; clears the last two
// fields' earlier values on every clip first. The timeline is moved so that its earliest clip
// starts at 0 again.
std::vector<TrackSource> refine(std::vector<TrackSource> tracks, const Options& options,
                                const ProgressFn& onProgress, std::stop_token stop = {});

} // namespace trelvane::FineSync
