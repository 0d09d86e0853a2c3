// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The feature audio matching rests on: a clip's analysis audio (mono float at 16 kHz) turned once
// into eight log-energy series, one per logarithmic frequency band, at 25 frames per second. Two
// clips are compared by correlating them band by band and fusing the eight results. Band envelopes
// rather than waveforms make a match survive different microphones, levels and phase.
//
// All operations are pure functions of their arguments, callable from any thread. Refusals are an
// empty result, never an exception. Besides the read-only FFT plans, `peaks` keeps the transforms
// of recently searched references in a process-wide cache under its own lock (about 512 MB, oldest
// dropped first, pinned references kept): its results never depend on what the cache holds.

#include "TrelvaneEngine/model/BandFeature.hpp"

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace trelvane::SpectralBands {

inline constexpr int kSampleRate = 16'000; // Hz, of the analysis audio
inline constexpr int kWindow = 1'024;      // samples, 64 ms: the FFT length
inline constexpr unsigned kLog2Window = 10;
inline constexpr int kHop = 640;      // samples, 40 ms
inline constexpr int kFrameRate = 25; // frames per second
inline constexpr int kBandCount = 8;
inline constexpr int kMinimumFrames = 5; // a shorter feature or slice is refused
// FFT bin edges (bins of 15.625 Hz): band b sums bins kBandEdges[b] to kBandEdges[b + 1] - 1, so
// the bands run from 15.625 Hz to the Nyquist frequency. They are clamp(int(exp2(i * 9 / 8)), 1, 512)
// for i from 1 to 8, truncated, after a first edge of 1.
inline constexpr std::array<int, kBandCount + 1> kBandEdges = {1, 2, 4, 10, 22, 49, 107, 234, 512};

// Eight z-scored band-energy series at kFrameRate, kBandCount of them (see BandFeature).
using Feature = BandFeature;

// One candidate alignment of a clip against a reference.
struct Peak {
    // Seconds from the reference's start to the clip's start; negative when the clip starts first.
    double offsetSeconds = 0;
    // Height of the fused correlation at this lag, in standard deviations above the mean of the
    // searched range.
    float score = 0;

    bool operator==(const Peak&) const = default;
};

// The feature of `pcm`, samples at 16 kHz: frames of 1,024 samples every 640, so
// (pcm.size() - 1024) / 640 + 1 frames, each band z-scored over the whole. Fewer than 5 frames
// (under 3,584 samples) give the empty feature; never fails.
Feature compute(std::span<const float> pcm);

// The cut of `feature` from `fromSec` for `durationSec` (seconds, rounded half away from zero to
// frames at 25 fps; a negative start counts as 0), each band z-scored again on its own. Nothing
// when the cut has 4 frames or fewer, runs past the end (it is not shortened), the feature hasn't
// exactly 8 bands of `frames` values, or either argument is not finite.
std::optional<Feature> slice(const Feature& feature, double fromSec, double durationSec);

// The best `topK` offsets of `clip` against `ref`, best first, none closer than
// `minSeparationSec` to a better one. The clip must be strictly shorter than the reference (a
// caller wanting the other case swaps them). Only offsets that keep at least `minOverlapSec` of
// the clip on the reference are searched (truncated to whole frames; a negative value counts as
// none), further limited to [minOffsetSec, maxOffsetSec] (seconds, rounded half away from zero to
// frames); an infinite bound means none on that side. Only the searched lags are computed, so a
// narrow range costs less than the whole. Empty when `topK` is below 1, either feature
// has fewer than 5 frames or bands of another length than its `frames`, the band counts differ, no
// band varies, the range is empty or flat, or `minOverlapSec` is not a number.
std::vector<Peak> peaks(const Feature& clip, const Feature& ref, double minOffsetSec, double maxOffsetSec,
                        double minOverlapSec, int topK, double minSeparationSec);

// A clip about to be searched against many references in a row (a window against every span of a
// pool): its transforms are made once per transform length and kept here for the later calls.
// Refers to `clip`, which must outlive it unchanged. One thread at a time.
class ClipSearch {
  public:
    explicit ClipSearch(const Feature& clip) : clip_(clip) {}
    const Feature& clip() const { return clip_; }

    struct Transforms {
        // The packed spectra of every band zero-padded to the length, band after band.
        std::vector<float> spectra;
        // Per band, a quarter of the squared magnitude of each packed bin (the plain DFT's power),
        // bins 0 to length / 2 (DC, the inner bins, Nyquist), band after band.
        std::vector<double> power;
    };
    // Of `setupLength`, a transform length with a plan; made on first use. Empty when the clip
    // doesn't fit the length or the length has no plan.
    const Transforms& transforms(std::size_t setupLength);

  private:
    const Feature& clip_;
    std::map<std::size_t, Transforms> byLength_;
};

// `peaks(search.clip(), ref, ...)`, the same values, with the clip's transforms taken from `search`.
std::vector<Peak> peaks(ClipSearch& search, const Feature& ref, double minOffsetSec, double maxOffsetSec,
                        double minOverlapSec, int topK, double minSeparationSec);

struct OffsetRange {
    double minOffsetSec = 0;
    double maxOffsetSec = 0;
};

// Several clips against one reference, each over its own range (the windows of one clip against a
// span): result i is what `peaks(*searches[i], ref, ranges[i]...)` gives, computed together so that
// the reference is read once for all. Every result empty when the two lists differ in length.
std::vector<std::vector<Peak>> peaks(std::span<ClipSearch* const> searches, const Feature& ref,
                                     std::span<const OffsetRange> ranges, double minOverlapSec, int topK,
                                     double minSeparationSec);

// A promise that `ref` stays alive and unchanged as long as the pin (or a copy of it) lives. Searches
// against a pinned reference find what the cache keeps of it by its address alone, without
// comparing its contents on every call, and the cache never drops it while pinned; when the last pin
// goes, what the cache keeps of it goes too. A run that searches the same references thousands of
// times pins them for its duration.
class ReferencePin {
  public:
    explicit ReferencePin(const Feature& ref);

  private:
    std::shared_ptr<void> held_; // unpins when the last copy goes
};

// What the cache keeps of searched references, in bytes: their copies and transforms.
std::size_t keptTransformBytes();

// `values` less their mean, divided by their standard deviation unless that is 1e-9 or less (then
// only centred). The normalisation of every band; exposed for its tests.
std::vector<float> zscore(std::span<const float> values);

} // namespace trelvane::SpectralBands
