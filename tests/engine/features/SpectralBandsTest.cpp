// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SpectralBands.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

using namespace trelvane;
namespace SB = trelvane::SpectralBands;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

std::vector<float> noise(std::size_t n, unsigned seed, float sd = 1.0f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, sd);
    std::vector<float> v(n);
    for (auto& x : v)
        x = dist(rng);
    return v;
}

// The band feature written out plainly: windowed DFT per frame in double, energies of the spectrum
// at `spectrumScale` times the plain DFT, log1p, then the z-score (pinned on its own below).
std::vector<std::vector<float>> plainBands(const std::vector<float>& pcm, double windowNorm,
                                           double spectrumScale) {
    const std::size_t frames = (pcm.size() - 1024) / 640 + 1;
    std::vector<std::vector<float>> bands(8, std::vector<float>(frames));
    std::vector<double> x(1024);
    for (std::size_t f = 0; f < frames; ++f) {
        for (std::size_t i = 0; i < 1024; ++i)
            x[i] = pcm[f * 640 + i] * windowNorm * 0.5 *
                   (1 - std::cos(2 * std::numbers::pi * static_cast<double>(i) / 1024));
        for (std::size_t b = 0; b < 8; ++b) {
            double energy = 0;
            for (int k = SB::kBandEdges[b]; k < SB::kBandEdges[b + 1]; ++k) {
                double re = 0, im = 0;
                for (std::size_t j = 0; j < 1024; ++j) {
                    const double phase = 2 * std::numbers::pi * static_cast<double>(k * j % 1024) / 1024;
                    re += x[j] * std::cos(phase);
                    im -= x[j] * std::sin(phase);
                }
                energy += spectrumScale * spectrumScale * (re * re + im * im);
            }
            bands[b][f] = static_cast<float>(std::log1p(energy));
        }
    }
    for (auto& b : bands)
        b = SB::zscore(b);
    return bands;
}

// A feature of `frames` frames of independent z-scored noise per band.
SB::Feature randomFeature(int frames, unsigned seed) {
    SB::Feature f;
    f.frames = frames;
    for (unsigned b = 0; b < 8; ++b)
        f.bands.push_back(SB::zscore(noise(static_cast<std::size_t>(frames), seed * 16 + b)));
    return f;
}

// `length` frames of `ref` from `start` (may be negative: frames before the reference are fresh
// noise), with some noise of its own, normalised again.
SB::Feature cutOf(const SB::Feature& ref, int start, int length, unsigned seed) {
    SB::Feature f;
    f.frames = length;
    for (std::size_t b = 0; b < ref.bands.size(); ++b) {
        auto extra = noise(static_cast<std::size_t>(length), seed * 16 + static_cast<unsigned>(b), 0.5f);
        for (int i = 0; i < length; ++i) {
            const int j = start + i;
            if (j >= 0 && j < ref.frames)
                extra[static_cast<std::size_t>(i)] += ref.bands[b][static_cast<std::size_t>(j)];
        }
        f.bands.push_back(SB::zscore(extra));
    }
    return f;
}

int lagOf(const SB::Peak& p) {
    return static_cast<int>(std::lround(p.offsetSeconds * 25));
}

// The peak search written out plainly, in double: every band's linear correlation at every lag by
// sums, over its RMS across all P points, fused; then the range, the local maxima, the order and
// the suppression, one step after another.
std::vector<SB::Peak> plainPeaks(const SB::Feature& clip, const SB::Feature& ref, double minOffsetSec,
                                 double maxOffsetSec, double minOverlapSec, int topK,
                                 double minSeparationSec) {
    std::size_t p = 1;
    while (p < static_cast<std::size_t>(clip.frames + ref.frames - 1))
        p *= 2;
    const int first = -clip.frames, last = ref.frames;
    std::vector<double> fused(static_cast<std::size_t>(last - first + 1), 0.0);
    for (std::size_t b = 0; b < clip.bands.size(); ++b) {
        std::vector<double> r(fused.size(), 0.0);
        double sq = 0;
        for (int k = first; k <= last; ++k) {
            double s = 0;
            for (int m = std::max(0, -k); m < clip.frames && m + k < ref.frames; ++m)
                s += static_cast<double>(ref.bands[b][static_cast<std::size_t>(m + k)]) *
                     clip.bands[b][static_cast<std::size_t>(m)];
            r[static_cast<std::size_t>(k - first)] = s;
            sq += s * s;
        }
        const double rms = std::sqrt(sq / static_cast<double>(p));
        if (rms <= 1e-9) continue;
        for (std::size_t i = 0; i < r.size(); ++i)
            fused[i] += r[i] / rms;
    }
    const int overlap = static_cast<int>(minOverlapSec * 25);
    if (overlap >= clip.frames) return {};
    int lo = overlap - clip.frames, hi = ref.frames - overlap;
    if (std::isfinite(minOffsetSec)) lo = std::clamp(static_cast<int>(std::round(minOffsetSec * 25)), lo, hi);
    if (std::isfinite(maxOffsetSec))
        hi = std::clamp(static_cast<int>(std::round(maxOffsetSec * 25)), overlap - clip.frames, hi);
    const auto at = [&](int lag) { return fused[static_cast<std::size_t>(lag - first)]; };
    double sum = 0, sq = 0;
    for (int k = lo; k <= hi; ++k)
        sum += at(k), sq += at(k) * at(k);
    const double n = hi - lo + 1, mean = sum / n, sd = std::sqrt(sq / n - mean * mean);
    std::vector<std::pair<int, double>> candidates;
    for (int k = lo; k <= hi; ++k)
        if ((k == lo || at(k) >= at(k - 1)) && (k == hi || at(k) >= at(k + 1)))
            candidates.emplace_back(k, (at(k) - mean) / sd);
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    const int sep = std::max(static_cast<int>(std::round(minSeparationSec * 25)), 1);
    std::vector<SB::Peak> kept;
    for (const auto& [lag, score] : candidates) {
        if (static_cast<int>(kept.size()) >= topK) break;
        if (std::any_of(kept.begin(), kept.end(),
                        [&](const SB::Peak& k) { return std::abs(lagOf(k) - lag) < sep; }))
            continue;
        kept.push_back({lag / 25.0, static_cast<float>(score)});
    }
    return kept;
}

// `found` is `plain` up to rounding: the same lags in the same order with scores within `tolerance`,
// except where the plain scores of two candidates lie so close that rounding may swap them, after
// which the lists may go their own ways.
void expectSamePeaks(const std::vector<SB::Peak>& found, const std::vector<SB::Peak>& plain,
                     const std::string& what) {
    constexpr float tolerance = 2e-4f;
    ASSERT_EQ(found.size(), plain.size()) << what;
    for (std::size_t i = 0; i < plain.size(); ++i) {
        const bool nearTie = i + 1 < plain.size() && plain[i].score - plain[i + 1].score < 4 * tolerance;
        EXPECT_EQ(lagOf(found[i]), lagOf(plain[i])) << what << ", peak " << i;
        EXPECT_NEAR(found[i].score, plain[i].score, tolerance * std::max(1.0f, std::abs(plain[i].score)))
            << what << ", peak " << i;
        if (nearTie) break;
    }
}

} // namespace

TEST(SpectralBands, AFeatureNeedsFiveFramesOfA640SampleHop) {
    // (samples - 1024) / 640 + 1 frames; under five is the empty feature.
    const std::pair<std::size_t, int> cases[] = {{1023, 0},       {3583, 0},       {3584, 5},
                                                 {3584 + 639, 5}, {3584 + 640, 6}, {16'000 * 10, 249}};
    for (const auto& [samples, frames] : cases) {
        const auto f = SB::compute(noise(samples, 1));
        SCOPED_TRACE(std::to_string(samples) + " samples");
        if (frames == 0) {
            EXPECT_EQ(f, SB::Feature{});
            continue;
        }
        EXPECT_EQ(f.frames, frames);
        ASSERT_EQ(f.bands.size(), 8u);
        for (const auto& b : f.bands)
            EXPECT_EQ(b.size(), static_cast<std::size_t>(frames));
    }
}

TEST(SpectralBands, ComputeIsTheLogEnergyOfEachBandOfTheDoubledWindowedSpectrumZscored) {
    // Quiet noise whose level changes from frame to frame, so that the band energies straddle the
    // knee of log1p where any change of scale shows.
    std::vector<float> pcm = noise(1024 + 7 * 640 + 300, 5);
    for (std::size_t i = 0; i < pcm.size(); ++i)
        pcm[i] *= 0.001f + 0.004f * static_cast<float>((i / 640) % 5);
    const auto f = SB::compute(pcm);
    ASSERT_EQ(f.frames, 8);
    const auto largestDifference = [&](double windowNorm, double spectrumScale) {
        const auto bands = plainBands(pcm, windowNorm, spectrumScale);
        double worst = 0;
        for (std::size_t b = 0; b < 8; ++b)
            for (std::size_t i = 0; i < 8; ++i)
                worst = std::max(worst, static_cast<double>(std::abs(f.bands[b][i] - bands[b][i])));
        return worst;
    };
    const double norm = std::sqrt(8.0 / 3.0);
    EXPECT_LT(largestDifference(norm, 2.0), 2e-4);
    // The comparison can tell the scale of the spectrum and the window's normalisation apart.
    EXPECT_GT(largestDifference(norm, 1.0), 0.01);
    EXPECT_GT(largestDifference(1.0, 2.0), 0.01);
}

TEST(SpectralBands, ZscoreCentresAndScalesToUnitDeviationUnlessTheSeriesIsFlat) {
    const float sd = std::sqrt(1.25f);
    const auto z = SB::zscore(std::vector<float>{1, 2, 3, 4});
    EXPECT_EQ(z, (std::vector<float>{-1.5f / sd, -0.5f / sd, 0.5f / sd, 1.5f / sd}));
    // A constant series centres to exact zeros, however odd its value.
    for (float c : {0.0f, 0.1f, 3.3333333f, -1234.567f})
        EXPECT_EQ(SB::zscore(std::vector<float>(1001, c)), std::vector<float>(1001, 0.0f)) << c;
    // Variation at or below 1e-9 is only centred, not blown up.
    EXPECT_EQ(SB::zscore(std::vector<float>{1e-10f, -1e-10f}), (std::vector<float>{1e-10f, -1e-10f}));
    EXPECT_TRUE(SB::zscore({}).empty());
}

TEST(SpectralBands, SliceIsARenormalisedCutThatNeverRunsPastTheEnd) {
    const auto whole = SB::compute(noise(16'000 * 10, 9));
    ASSERT_EQ(whole.frames, 249);
    // Seconds round half away from zero to frames (0.1 s is 2.5 frames, so frame 3; 0.18 s is 4.5, so
    // 5); a negative start is the first frame; a cut past the end or under five frames is refused.
    struct Case {
        double from, duration;
        int first, frames; // frames 0: refused
    };
    const Case cases[] = {{1.0, 2.0, 25, 50},   {0.1, 0.18, 3, 5},         {-3.0, 1.0, 0, 25},
                          {8.96, 1.0, 224, 25}, {9.0, 1.0, 0, 0},          {9.0, 2.0, 0, 0},
                          {1.0, 0.14, 0, 0},    {1.0, -1.0, 0, 0},         {1e300, 1.0, 0, 0},
                          {0.0, 1e300, 0, 0},   {std::nan(""), 1.0, 0, 0}, {0.0, kInf, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " s for " + std::to_string(c.duration) + " s");
        const auto cut = SB::slice(whole, c.from, c.duration);
        ASSERT_EQ(cut.has_value(), c.frames > 0);
        if (!cut) continue;
        EXPECT_EQ(cut->frames, c.frames);
        ASSERT_EQ(cut->bands.size(), 8u);
        for (std::size_t b = 0; b < 8; ++b) {
            const auto begin = whole.bands[b].begin() + c.first;
            const std::vector<float> part(begin, begin + c.frames);
            EXPECT_EQ(cut->bands[b], SB::zscore(part)) << "band " << b;
            EXPECT_NE(cut->bands[b], part) << "not merely the cut of the normalised whole";
        }
    }
    auto seven = whole, ragged = whole;
    seven.bands.pop_back(), ragged.bands[4].resize(100);
    EXPECT_FALSE(SB::slice(seven, 1.0, 2.0).has_value());
    EXPECT_FALSE(SB::slice(ragged, 1.0, 2.0).has_value());
}

TEST(SpectralBands, PeaksMatchThePlainSearchOverBoundedAndUnboundedRanges) {
    struct Case {
        int refFrames, clipFrames, cutAt;
        double lo, hi, overlap;
        int topK;
        double separation;
    };
    // Clips short and long against the reference, with a true place or none (cutAt far outside),
    // whole ranges, ranges within one block, across several, at both ends and below zero; bounds
    // past the overlap limits, and bounds on half frames (0.1 s is lag 3, -0.1 s lag -3) next to a
    // true place at lag 2 or -2. Cases of one reference length share the reference, so what one
    // call leaves behind for it must serve the next clip, whatever its length and range.
    const std::vector<Case> cases = {
        {3000, 600, 1200, -kInf, kInf, 5.0, 8, 1.0},   {3000, 600, 1200, 40.0, 56.0, 5.0, 5, 0.5},
        {3000, 600, 9000, -kInf, kInf, 2.0, 12, 0.2},  {3000, 600, -300, -20.0, 3.0, 1.0, 6, 0.4},
        {5000, 40, 2500, -kInf, kInf, 0.0, 10, 0.0},   {5000, 40, 2500, 99.0, 101.5, 0.0, 4, 0.1},
        {5000, 40, 4980, 190.0, kInf, 0.5, 5, 0.3},    {4000, 5, 17, -kInf, 2.0, 0.0, 7, 0.0},
        {4000, 1500, 2000, -kInf, kInf, 10.0, 6, 2.0}, {4000, 1500, 2000, 60.0, 100.0, 10.0, 3, 1.0},
        {700, 690, 5, -kInf, kInf, 1.0, 5, 1.0},       {500, 100, 100, -1000.0, 1000.0, 1.0, 3, 1.0},
        {500, 100, 2, 0.1, kInf, 1.0, 5, 0.0},         {500, 100, -2, -kInf, -0.1, 1.0, 5, 0.0},
        {4700, 500, 950, -kInf, kInf, 1.0, 1, 0.0},    {5400, 700, 1850, 10.0, 60.0, 1.0, 1, 0.0},
        {9500, 450, 3000, -kInf, kInf, 1.0, 3, 1.0},   {9500, 1000, 3000, 100.0, 160.0, 1.0, 3, 1.0},
        {9500, 40, 3000, 100.0, 160.0, 1.0, 3, 1.0},   {9500, 1000, 3000, -kInf, kInf, 1.0, 3, 1.0},
        {9500, 300, 3000, 100.0, 160.0, 1.0, 3, 1.0},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& c = cases[i];
        const auto ref = randomFeature(c.refFrames, static_cast<unsigned>(c.refFrames));
        const auto clip = cutOf(ref, c.cutAt, c.clipFrames, 200 + static_cast<unsigned>(i));
        const auto plain = plainPeaks(clip, ref, c.lo, c.hi, c.overlap, c.topK, c.separation);
        const std::string what = "case " + std::to_string(i);
        ASSERT_FALSE(plain.empty()) << what;
        const auto found = SB::peaks(clip, ref, c.lo, c.hi, c.overlap, c.topK, c.separation);
        expectSamePeaks(found, plain, what);
        // Again, now from what the first call left behind for this reference.
        EXPECT_EQ(SB::peaks(clip, ref, c.lo, c.hi, c.overlap, c.topK, c.separation), found) << what;
    }
}

TEST(SpectralBands, PeaksExactlyTheSeparationApartAreBothKept) {
    // A reference that repeats every 25 frames (1 s), swelling and fading around frame 250, under a
    // little noise of its own, and an exact cut of it: the fused correlation peaks at the true lag
    // and again every 25 frames around it, lower the further away.
    SB::Feature ref;
    ref.frames = 500;
    for (unsigned b = 0; b < 8; ++b) {
        const auto pattern = noise(25, 100 + b);
        auto v = noise(500, 200 + b, 0.05f);
        for (std::size_t i = 0; i < v.size(); ++i)
            v[i] += pattern[i % 25] *
                    static_cast<float>(std::exp(-std::pow((static_cast<double>(i) - 250) / 80, 2)));
        ref.bands.push_back(SB::zscore(v));
    }
    const auto clip = SB::slice(ref, 8.0, 4.0).value(); // frames 200 to 299
    const auto found = SB::peaks(clip, ref, -kInf, kInf, 2.0, 3, 1.0);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(lagOf(found[0]), 200);
    EXPECT_EQ(std::min(lagOf(found[1]), lagOf(found[2])), 175);
    EXPECT_EQ(std::max(lagOf(found[1]), lagOf(found[2])), 225);
    // One frame more of separation and the neighbours at 25 frames must go.
    const auto wider = SB::peaks(clip, ref, -kInf, kInf, 2.0, 3, 1.04);
    ASSERT_EQ(wider.size(), 3u);
    for (const auto& p : wider)
        EXPECT_EQ(std::abs(lagOf(p) - 200) % 50, 0) << p.offsetSeconds;
}

TEST(SpectralBands, PeaksRefuseWhatTheyCannotMeasure) {
    const auto ref = randomFeature(300, 21);
    const auto clip = cutOf(ref, 50, 100, 22); // 4.0 s long
    const auto same = cutOf(ref, 0, 300, 23), oneShorter = cutOf(ref, 0, 299, 23);
    const auto four = cutOf(ref, 0, 4, 24), five = cutOf(ref, 0, 5, 24);
    auto sevenBands = clip, overstated = clip, ragged = ref;
    sevenBands.bands.pop_back(), overstated.frames = 250, ragged.bands[3].resize(10);
    struct Case {
        const char* what;
        const SB::Feature &clip, &ref;
        double lo, hi, overlap;
        int topK;
        bool found;
    };
    const SB::Feature none, silentRef = SB::compute(std::vector<float>(16'000 * 20, 0.0f)),
                            silentClip = SB::compute(std::vector<float>(16'000 * 6, 0.25f));
    const Case cases[] = {
        {"a clip in its reference", clip, ref, -kInf, kInf, 1.0, 1, true},
        {"topK 0", clip, ref, -kInf, kInf, 1.0, 0, false},
        {"a clip as long as the reference", same, ref, -kInf, kInf, 0.0, 1, false},
        {"a clip longer than the reference", ref, clip, -kInf, kInf, 0.0, 1, false},
        {"a clip one frame shorter", oneShorter, ref, -kInf, kInf, 0.0, 1, true},
        {"four frames", four, ref, -kInf, kInf, 0.0, 1, false},
        {"no frames", none, ref, -kInf, kInf, 0.0, 1, false},
        {"five frames", five, ref, -kInf, kInf, 0.0, 1, true},
        {"seven bands against eight", sevenBands, ref, -kInf, kInf, 1.0, 1, false},
        {"a band shorter than the frames", clip, ragged, -kInf, kInf, 1.0, 1, false},
        {"frames overstated", overstated, ref, -kInf, kInf, 1.0, 1, false},
        // Overlap at or above the clip's length; just under it (truncated to 99 frames) still works.
        {"overlap of the whole clip", clip, ref, -kInf, kInf, 4.0, 1, false},
        {"infinite overlap", clip, ref, -kInf, kInf, kInf, 1, false},
        {"overlap not a number", clip, ref, -kInf, kInf, std::nan(""), 1, false},
        {"overlap just under the clip", clip, ref, -kInf, kInf, 3.999, 1, true},
        {"an empty range", clip, ref, 6.0, 5.0, 1.0, 1, false},
        {"silence everywhere", silentClip, silentRef, -kInf, kInf, 1.0, 3, false},
        {"a silent clip", silentClip, ref, -kInf, kInf, 1.0, 3, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(SB::peaks(c.clip, c.ref, c.lo, c.hi, c.overlap, c.topK, 1.0).empty(), !c.found) << c.what;
}

TEST(SpectralBands, ConstantBandsAreLeftOutOfTheFusion) {
    const auto ref = randomFeature(400, 31);
    const auto clip = cutOf(ref, 120, 80, 32);
    auto flatRef = ref, flatClip = clip, sevenRef = ref, sevenClip = clip;
    flatRef.bands[5].assign(400, 0.0f), flatClip.bands[5].assign(80, 0.0f);
    sevenRef.bands.erase(sevenRef.bands.begin() + 5), sevenClip.bands.erase(sevenClip.bands.begin() + 5);

    const auto withFlat = SB::peaks(flatClip, flatRef, -kInf, kInf, 1.0, 5, 1.0);
    ASSERT_FALSE(withFlat.empty());
    EXPECT_EQ(lagOf(withFlat[0]), 120);
    EXPECT_TRUE(std::isfinite(withFlat[0].score));
    // A flat band weighs nothing: the same as not having it, and flat in the clip alone is enough.
    EXPECT_EQ(withFlat, SB::peaks(sevenClip, sevenRef, -kInf, kInf, 1.0, 5, 1.0));
    EXPECT_EQ(SB::peaks(flatClip, ref, -kInf, kInf, 1.0, 5, 1.0), withFlat);
}

TEST(SpectralBands, APinKeepsAReferenceUntilItsLastCopyGoesAndAReferenceChangedInPlaceIsSeenAsNew) {
    auto ref = randomFeature(20000, 61);
    const auto clip = cutOf(ref, 4000, 600, 62);
    const auto best = [&] { return lagOf(SB::peaks(clip, ref, -kInf, kInf, 2.0, 1, 1.0).at(0)); };
    const std::size_t before = SB::keptTransformBytes();
    {
        const SB::ReferencePin pin(ref);
        std::optional<SB::ReferencePin> copy(pin); // a copy keeps the promise alive too
        EXPECT_EQ(best(), 4000);
        const std::size_t held = SB::keptTransformBytes();
        EXPECT_GT(held, before + sizeof(float) * 8 * 20000); // a copy of the bands and their transforms
        copy.reset();
        EXPECT_EQ(SB::keptTransformBytes(), held) << "one pin is still there";
    }
    EXPECT_EQ(SB::keptTransformBytes(), before) << "what the pins kept goes with the last of them";
    EXPECT_EQ(best(), 4000);
    EXPECT_GT(SB::keptTransformBytes(), before) << "unpinned, a reference is kept between searches";
    // The same vectors overwritten with the reference 1,900 frames on: nothing kept of the old is used.
    const auto moved = cutOf(ref, 1900, ref.frames, 63);
    for (std::size_t b = 0; b < ref.bands.size(); ++b)
        std::copy(moved.bands[b].begin(), moved.bands[b].end(), ref.bands[b].begin());
    EXPECT_EQ(best(), 2100);
}

TEST(SpectralBands, PeaksFromManyThreadsAtOnceGiveTheSerialResult) {
    const auto ref = randomFeature(6000, 41);
    std::vector<SB::Feature> clips;
    std::vector<std::vector<SB::Peak>> serial;
    for (int i = 0; i < 8; ++i) {
        clips.push_back(cutOf(ref, 500 * i + 100, 200 + 50 * i, 50 + static_cast<unsigned>(i)));
        serial.push_back(SB::peaks(clips.back(), ref, -kInf, kInf, 2.0, 3, 1.0));
    }
    for (unsigned round = 0; round < 3; ++round) {
        const auto other = randomFeature(6000, 60 + round); // a cold reference searched alongside
        std::vector<std::vector<SB::Peak>> parallel(clips.size());
        {
            std::vector<std::jthread> threads;
            for (std::size_t i = 0; i < clips.size(); ++i)
                threads.emplace_back([&, i] {
                    parallel[i] = SB::peaks(clips[i], ref, -kInf, kInf, 2.0, 3, 1.0);
                    SB::peaks(clips[i], other, -kInf, kInf, 2.0, 3, 1.0);
                });
        }
        EXPECT_EQ(parallel, serial) << "round " << round;
    }
}

TEST(SpectralBands, OnePeakWantedIsTheFirstOfTheLongerList) {
    // The single best is found without listing every local maximum; it must still be the first of
    // the highest score where a repeating reference gives many equal or nearly equal tops.
    for (const int period : {64, 128, 256}) {
        const auto motif = randomFeature(period, 320 + static_cast<unsigned>(period));
        SB::Feature ref;
        ref.frames = period * 40;
        for (const auto& band : motif.bands) {
            std::vector<float> repeated;
            for (int r = 0; r < 40; ++r)
                repeated.insert(repeated.end(), band.begin(), band.end());
            ref.bands.push_back(repeated);
        }
        // Three periods from the middle of one.
        const auto clip = SB::slice(ref, period / 50.0, period * 3 / 25.0).value();
        for (const auto& [lo, hi] : {std::pair{-kInf, kInf}, std::pair{10.0, 60.0}}) {
            const auto many = SB::peaks(clip, ref, lo, hi, 1.0, 4, 0.0);
            ASSERT_FALSE(many.empty()) << "period " << period;
            EXPECT_EQ(SB::peaks(clip, ref, lo, hi, 1.0, 1, 0.0), std::vector<SB::Peak>{many.front()})
                << "period " << period << ", range from " << lo;
        }
    }
}

TEST(SpectralBands, ClipSearchesAloneOrTogetherGetWhatAFreshSearchGetsFromReferencesOfAnyLength) {
    // Windows of one clip share a span's blocks; clips of other lengths, ranges far apart or
    // refused, and a clip as long as the reference ride along without changing anyone's answer.
    // The searches keep their transforms from one reference to the next, whatever its length.
    const auto ref = randomFeature(40000, 501);
    std::vector<SB::Feature> clips;
    for (const auto& [at, length] : {std::pair{5000, 900}, std::pair{20000, 900}, std::pair{33000, 900},
                                     std::pair{12000, 2500}, std::pair{100, 40000}})
        clips.push_back(cutOf(ref, at, length, 502 + static_cast<unsigned>(at % 251)));
    const std::vector<SB::OffsetRange> ranges = {
        {-kInf, kInf}, {700.0, 900.0}, {1400.0, 1430.0}, {-kInf, kInf}, {-kInf, kInf}};
    std::vector<SB::ClipSearch> searches(clips.begin(), clips.end());
    std::vector<SB::ClipSearch*> all;
    for (auto& search : searches)
        all.push_back(&search);
    const std::vector<SB::Feature> refs = {ref, randomFeature(900, 503), randomFeature(5000, 504),
                                           randomFeature(70000, 505), ref};
    for (std::size_t r = 0; r < refs.size(); ++r)
        for (const int topK : {1, 3}) {
            const auto together = SB::peaks(all, refs[r], ranges, 2.0, topK, 1.0);
            ASSERT_EQ(together.size(), clips.size());
            for (std::size_t i = 0; i < clips.size(); ++i) {
                const auto& [lo, hi] = ranges[i];
                const auto fresh = SB::peaks(clips[i], refs[r], lo, hi, 2.0, topK, 1.0);
                EXPECT_EQ(together[i], fresh) << "reference " << r << ", clip " << i << ", top " << topK;
                EXPECT_EQ(SB::peaks(searches[i], refs[r], lo, hi, 2.0, topK, 1.0), fresh)
                    << "alone: reference " << r << ", clip " << i << ", top " << topK;
            }
            if (r > 0) continue;
            EXPECT_EQ(lagOf(together[0].at(0)), 5000);
            EXPECT_EQ(lagOf(together[3].at(0)), 12000);
            EXPECT_TRUE(together[2].empty() || lagOf(together[2][0]) != 33000) << "its place is out of range";
            EXPECT_TRUE(together[4].empty()) << "not shorter than the reference";
        }
    // One range short: nothing is searched.
    const auto mismatched = SB::peaks(all, ref, std::span(ranges).first(4), 2.0, 1, 1.0);
    EXPECT_EQ(mismatched, std::vector<std::vector<SB::Peak>>(clips.size()));
}
