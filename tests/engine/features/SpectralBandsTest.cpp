// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SpectralBands.hpp"

#include "engine/features/Signals.hpp"

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

using test::noise;

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

TEST(SpectralBands, PeaksRefuseWhatTheyCannotMeasure) {
    const auto ref = randomFeature(300, 21), clip = cutOf(ref, 50, 100, 22); // 4.0 s long
    const auto same = cutOf(ref, 0, 300, 23);
    const auto four = cutOf(ref, 0, 4, 24), five = cutOf(ref, 0, 5, 24);
    auto sevenBands = clip, overstated = clip, ragged = ref;
    sevenBands.bands.pop_back(), overstated.frames = 250, ragged.bands[3].resize(10);
    const SB::Feature silentClip = SB::compute(std::vector<float>(16'000 * 6, 0.25f));
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
                          {"four frames", four, ref},
                          {"five frames", five, ref, true},
                          {"seven bands against eight", sevenBands, ref},
                          {"a band shorter than the frames", clip, ragged},
                          {"frames overstated", overstated, ref},
                          // At or above the clip's length; just under it (truncated to 99 frames) works.
                          {"overlap of the whole clip", clip, ref, false, 4.0},
                          {"overlap just under the clip", clip, ref, true, 3.999},
                          {"an empty range", clip, ref, false, 1.0, 6.0, 5.0},
                          {"a silent clip", silentClip, ref, false, 1.0, -kInf, kInf, 3}};
    for (const auto& c : cases)
        EXPECT_EQ(SB::peaks(c.clip, c.ref, c.lo, c.hi, c.overlap, c.topK, 1.0).empty(), !c.found) << c.what;
}
