// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The feature audio matching rests on: a clip's analysis audio (mono float at 16 kHz) turned once
// into eight log-energy series, one per logarithmic frequency band, at 25 frames per second. Two
// clips are compared by correlating them band by band and fusing the eight results. Band envelopes
// rather than waveforms make a match survive different microphones, levels and phase.
//
// All operations are pure functions of their arguments, callable from any thread. Refusals are an
// empty result, never an exception. Besides the read-only FFT plans, nothing is kept between calls
// unless the caller keeps it: a `Reference` holds the transforms of one searched feature for as long
// as it lives, and a `ReferenceCache` hands out the references of one run by the names the run gives
// them. Results never depend on what either holds.

#include "TrelvaneEngine/model/BandFeature.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <utility>
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

struct OffsetRange {
    double minOffsetSec = 0;
    double maxOffsetSec = 0;
};

// The most the references sharing one budget keep. Block spectra past it are made for the call
// and let go, so a search costs more but gives the same values. Still needed with an owner: a
// reference holds up to twice its feature per transform grid and a run searches at several grids,
// so what a run keeps grows with the hours of sound in its pools (some 430 MB for 26 hours of
// clips); a longer shoot would otherwise hold gigabytes for the length of its run.
inline constexpr std::size_t kMaxKeptBytes = std::size_t{512} << 20;

struct ReferenceSpectra; // what is kept of one reference; defined where it is searched

// A feature about to be searched in many times, with what the searches keep of it between calls:
// its short autocorrelations and the spectra of its blocks, made on first use. Refers to the
// feature, which must outlive every copy unchanged. Copies share what is kept; any number of
// threads may search one at a time.
class Reference {
  public:
    // A reference with a budget of its own, kept as long as it (or a copy) lives: for searches of
    // one feature in a row that no run names (tests, a one-off comparison).
    explicit Reference(const Feature& feature);
    const Feature& feature() const { return *feature_; }
    // What its searches have kept so far, in bytes.
    std::size_t keptBytes() const;

  private:
    friend class ReferenceCache;
    friend struct ReferenceAccess; // the searches, which read and fill `spectra_`
    Reference(const Feature& feature, std::shared_ptr<std::atomic<std::size_t>> budget);

    const Feature* feature_;
    std::shared_ptr<ReferenceSpectra> spectra_;
};

// The references one run searches in (the spans of a sync run's pools, the clips of a stack build),
// each made once under the name the run gives it and kept until the cache goes, all within one
// budget of `maxBytes`. The owner promises that a name always stands for the same feature, alive
// and unchanged while the cache lives: the cache never looks at the feature's address or contents
// to tell references apart. Safe to use from any thread.
class ReferenceCache {
  public:
    // Two numbers the owner names a reference by, e.g. (track, clip).
    using Key = std::pair<int, int>;

    explicit ReferenceCache(std::size_t maxBytes = kMaxKeptBytes);
    ReferenceCache(const ReferenceCache&) = delete;
    ReferenceCache& operator=(const ReferenceCache&) = delete;

    // The reference named `key`, made from `feature` the first time the name is asked for.
    Reference reference(Key key, const Feature& feature);
    // What all its references keep, in bytes.
    std::size_t keptBytes() const;

  private:
    mutable std::mutex lock_;
    std::map<Key, Reference> references_;
    std::shared_ptr<std::atomic<std::size_t>> budget_; // bytes still free
};

// `peaks(search.clip(), ref.feature(), ...)`, the same values, with the clip's transforms taken
// from `search` and the reference's from `ref`.
std::vector<Peak> peaks(ClipSearch& search, const Reference& ref, double minOffsetSec, double maxOffsetSec,
                        double minOverlapSec, int topK, double minSeparationSec);

// Several clips against one reference, each over its own range (the windows of one clip against a
// span): result i is what `peaks(*searches[i], ref, ranges[i]...)` gives, computed together so that
// the reference is read once for all. Every result empty when the two lists differ in length.
std::vector<std::vector<Peak>> peaks(std::span<ClipSearch* const> searches, const Reference& ref,
                                     std::span<const OffsetRange> ranges, double minOverlapSec, int topK,
                                     double minSeparationSec);

// `values` less their mean, divided by their standard deviation unless that is 1e-9 or less (then
// only centred). The normalisation of every band; exposed for its tests.
std::vector<float> zscore(std::span<const float> values);

} // namespace trelvane::SpectralBands
