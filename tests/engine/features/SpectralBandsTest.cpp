// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SpectralBands.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <random>
#include <span>
#include <string>
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
                std::complex<double> bin = 0;
                for (std::size_t j = 0; j < 1024; ++j)
                    bin += std::polar(x[j], -2 * std::numbers::pi * static_cast<double>(k * j % 1024) / 1024);
                energy += spectrumScale * spectrumScale * std::norm(bin);
            }
            bands[b][f] = static_cast<float>(std::log1p(energy));
        }
    }
    for (auto& b : bands)
        b = SB::zscore(b);
    return bands;
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

// A feature of `frames` frames of independent z-scored noise per band.
SB::Feature randomFeature(int frames, unsigned seed) {
    return cutOf(SB::Feature{std::vector<std::vector<float>>(8), 0}, 0, frames, seed);
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
    std::vector<double> fused(static_cast<std::size_t>(last - first + 1), 0.0), r(fused.size());
    for (std::size_t b = 0; b < clip.bands.size(); ++b) {
        double sq = 0;
        for (int k = first; k <= last; ++k) {
            double& s = r[static_cast<std::size_t>(k - first)] = 0;
            for (int m = std::max(0, -k); m < clip.frames && m + k < ref.frames; ++m)
                s += static_cast<double>(ref.bands[b][static_cast<std::size_t>(m + k)]) *
                     clip.bands[b][static_cast<std::size_t>(m)];
            sq += s * s;
        }
        const double rms = std::sqrt(sq / static_cast<double>(p));
        for (std::size_t i = 0; i < r.size() && rms > 1e-9; ++i)
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
                     [](const auto& x, const auto& y) { return x.second > y.second; });
    const int sep = std::max(static_cast<int>(std::round(minSeparationSec * 25)), 1);
    std::vector<SB::Peak> kept;
    for (const auto& [lag, score] : candidates)
        if (static_cast<int>(kept.size()) < topK &&
            std::none_of(kept.begin(), kept.end(),
                         [&](const SB::Peak& k) { return std::abs(lagOf(k) - lag) < sep; }))
            kept.push_back({lag / 25.0, static_cast<float>(score)});
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
        EXPECT_EQ(lagOf(found[i]), lagOf(plain[i])) << what << ", peak " << i;
        EXPECT_NEAR(found[i].score, plain[i].score, tolerance * std::max(1.0f, std::abs(plain[i].score)))
            << what << ", peak " << i;
        if (i + 1 < plain.size() && plain[i].score - plain[i + 1].score < 4 * tolerance) break;
    }
}

} // namespace

TEST(SpectralBands, ComputeIsTheLogEnergyOfEachBandOfTheDoubledWindowedSpectrumZscored) {
    // (samples - 1024) / 640 + 1 frames of eight bands; under five is the empty feature.
    EXPECT_EQ(SB::compute(noise(3583, 1)), SB::Feature{});
    for (const auto& [samples, frames] :
         {std::pair<std::size_t, int>{3584, 5}, {3584 + 639, 5}, {3584 + 640, 6}}) {
        const auto f = SB::compute(noise(samples, 1));
        EXPECT_EQ(f.frames, frames) << samples << " samples";
        ASSERT_EQ(f.bands.size(), 8u) << samples << " samples";
        for (const auto& band : f.bands)
            EXPECT_EQ(band.size(), static_cast<std::size_t>(frames));
    }
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
    EXPECT_EQ(SB::zscore(std::vector<float>{1, 2, 3, 4}),
              (std::vector<float>{-1.5f / sd, -0.5f / sd, 0.5f / sd, 1.5f / sd}));
    // A constant centres to exact zeros, whatever it is; variation at or below 1e-9 is only centred.
    for (float c : {0.0f, 0.1f, 3.3333333f, -1234.567f})
        EXPECT_EQ(SB::zscore(std::vector<float>(1001, c)), std::vector<float>(1001, 0.0f)) << c;
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
        const auto cut = SB::slice(whole, c.from, c.duration);
        ASSERT_EQ(cut.has_value(), c.frames > 0) << c.from << " s for " << c.duration << " s";
        if (!cut) continue;
        EXPECT_EQ(cut->frames, c.frames);
        ASSERT_EQ(cut->bands.size(), 8u);
        for (std::size_t b = 0; b < 8; ++b)
            EXPECT_EQ(cut->bands[b], SB::zscore(std::span(whole.bands[b]).subspan(c.first, c.frames))) << b;
    }
    auto seven = whole, ragged = whole;
    seven.bands.pop_back(), ragged.bands[4].resize(100);
    EXPECT_FALSE(SB::slice(seven, 1.0, 2.0) || SB::slice(ragged, 1.0, 2.0));
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
    // true place at lag 2 or -2. A flat band weighs nothing, whether flat in the clip alone or in both.
    const std::vector<Case> cases = {
        {3000, 600, 1200, -kInf, kInf, 5.0, 8, 1.0},   {3000, 600, 1200, 40.0, 56.0, 5.0, 5, 0.5},
        {3000, 600, 9000, -kInf, kInf, 2.0, 12, 0.2},  {3000, 600, -300, -20.0, 3.0, 1.0, 6, 0.4},
        {5000, 40, 2500, -kInf, kInf, 0.0, 10, 0.0},   {5000, 40, 2500, 99.0, 101.5, 0.0, 4, 0.1},
        {5000, 40, 4980, 190.0, kInf, 0.5, 5, 0.3},    {4000, 5, 17, -kInf, 2.0, 0.0, 7, 0.0},
        {4000, 1500, 2000, -kInf, kInf, 10.0, 6, 2.0}, {4000, 1500, 2000, 60.0, 100.0, 10.0, 3, 1.0},
        {700, 690, 5, -kInf, kInf, 1.0, 5, 1.0},       {500, 100, 100, -1000.0, 1000.0, 1.0, 3, 1.0},
        {500, 100, 2, 0.1, kInf, 1.0, 5, 0.0},         {500, 100, -2, -kInf, -0.1, 1.0, 5, 0.0},
        {4700, 500, 950, -kInf, kInf, 1.0, 1, 0.0},    {5400, 700, 1850, 10.0, 60.0, 1.0, 1, 0.0},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& c = cases[i];
        auto ref = randomFeature(c.refFrames, static_cast<unsigned>(c.refFrames));
        auto clip = cutOf(ref, c.cutAt, c.clipFrames, 200 + static_cast<unsigned>(i));
        if (i % 3 > 0) clip.bands[i % 8].assign(clip.bands[i % 8].size(), 0.0f);
        if (i % 3 > 1) ref.bands[i % 8].assign(ref.bands[i % 8].size(), 0.0f);
        const auto plain = plainPeaks(clip, ref, c.lo, c.hi, c.overlap, c.topK, c.separation);
        const std::string what = "case " + std::to_string(i);
        ASSERT_FALSE(plain.empty()) << what;
        expectSamePeaks(SB::peaks(clip, ref, c.lo, c.hi, c.overlap, c.topK, c.separation), plain, what);
    }
}

TEST(SpectralBands, PeaksRefuseWhatTheyCannotMeasure) {
    const auto ref = randomFeature(300, 21), clip = cutOf(ref, 50, 100, 22); // 4.0 s long
    const auto same = cutOf(ref, 0, 300, 23), oneShorter = cutOf(ref, 0, 299, 23);
    const auto four = cutOf(ref, 0, 4, 24), five = cutOf(ref, 0, 5, 24);
    auto sevenBands = clip, overstated = clip, ragged = ref;
    sevenBands.bands.pop_back(), overstated.frames = 250, ragged.bands[3].resize(10);
    const SB::Feature none, silentRef = SB::compute(std::vector<float>(16'000 * 20, 0.0f)),
                            silentClip = SB::compute(std::vector<float>(16'000 * 6, 0.25f));
    struct Case {
        const char* what;
        const SB::Feature &clip, &ref;
        bool found = false;
        double overlap = 0.0, lo = -kInf, hi = kInf;
        int topK = 1;
    };
    const Case cases[] = {{"a clip in its reference", clip, ref, true},
                          {"topK 0", clip, ref, false, 1.0, -kInf, kInf, 0},
                          {"a clip as long as the reference", same, ref},
                          {"a clip longer than the reference", ref, clip},
                          {"a clip one frame shorter", oneShorter, ref, true},
                          {"four frames", four, ref},
                          {"no frames", none, ref},
                          {"five frames", five, ref, true},
                          {"seven bands against eight", sevenBands, ref},
                          {"a band shorter than the frames", clip, ragged},
                          {"frames overstated", overstated, ref},
                          // At or above the clip's length; just under it (truncated to 99 frames) works.
                          {"overlap of the whole clip", clip, ref, false, 4.0},
                          {"infinite overlap", clip, ref, false, kInf},
                          {"overlap not a number", clip, ref, false, std::nan("")},
                          {"overlap just under the clip", clip, ref, true, 3.999},
                          {"an empty range", clip, ref, false, 1.0, 6.0, 5.0},
                          {"silence everywhere", silentClip, silentRef, false, 1.0, -kInf, kInf, 3},
                          {"a silent clip", silentClip, ref, false, 1.0, -kInf, kInf, 3}};
    for (const auto& c : cases)
        EXPECT_EQ(SB::peaks(c.clip, c.ref, c.lo, c.hi, c.overlap, c.topK, 1.0).empty(), !c.found) << c.what;
}

// Windows of one clip share a span's blocks; clips of other lengths, ranges far apart and a clip as
// long as the reference ride along without changing anyone's answer. The searches keep their
// transforms from one reference to the next, whatever its length, and the cache keeps the
// references' from one search to the next; within a budget of one byte, blocks are made anew.
TEST(SpectralBands, SearchesTogetherThroughACacheGetWhatAFreshSearchGets) {
    const std::vector<SB::Feature> refs = {randomFeature(40000, 501), randomFeature(900, 503),
                                           randomFeature(70000, 505)};
    std::vector<SB::Feature> clips;
    for (const auto& [at, length] :
         {std::pair{5000, 900}, std::pair{33000, 900}, std::pair{12000, 2500}, std::pair{100, 40000}})
        clips.push_back(cutOf(refs[0], at, length, 502 + static_cast<unsigned>(at % 251)));
    const std::vector<SB::OffsetRange> ranges = {
        {-kInf, kInf}, {1400.0, 1430.0}, {-kInf, kInf}, {-kInf, kInf}};
    std::vector<SB::ClipSearch> searches(clips.begin(), clips.end());
    std::vector<SB::ClipSearch*> all;
    for (auto& search : searches)
        all.push_back(&search);
    SB::ReferenceCache cache, tight(1);
    for (const int r : {0, 1, 2, 0}) {
        const auto best = SB::peaks(all, cache.reference({0, r}, refs[r]), ranges, 2.0, 1, 1.0);
        const auto top3 = SB::peaks(all, cache.reference({0, r}, refs[r]), ranges, 2.0, 3, 1.0);
        ASSERT_EQ(top3.size(), clips.size());
        EXPECT_EQ(SB::peaks(all, tight.reference({0, r}, refs[r]), ranges, 2.0, 3, 1.0), top3) << r;
        for (std::size_t i = 0; i < clips.size(); ++i) {
            const auto fresh =
                SB::peaks(clips[i], refs[r], ranges[i].minOffsetSec, ranges[i].maxOffsetSec, 2.0, 3, 1.0);
            EXPECT_EQ(top3[i], fresh) << "reference " << r << ", clip " << i;
            // The single best, found without listing the rest, is the first of the list.
            EXPECT_EQ(best[i], std::vector<SB::Peak>(fresh.begin(), fresh.begin() + (fresh.empty() ? 0 : 1)));
            EXPECT_TRUE(r != 0 || i != 0 || lagOf(fresh.at(0)) == 5000);
            EXPECT_TRUE(r != 0 || i != 3 || fresh.empty()) << "not shorter than the reference";
        }
    }
    EXPECT_GT(tight.keptBytes(), 0u);
    EXPECT_LT(tight.keptBytes(), cache.keptBytes());
    EXPECT_EQ(SB::peaks(all, cache.reference({0, 0}, refs[0]), std::span(ranges).first(3), 2.0, 1, 1.0),
              std::vector<std::vector<SB::Peak>>(clips.size()))
        << "one range short: nothing is searched";
}
