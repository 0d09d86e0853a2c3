// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numbers>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace trelvane;
using trelvane::test::TempDir;
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

std::vector<double> zscored(std::vector<double> v) {
    double mean = 0;
    for (double x : v)
        mean += x;
    mean /= static_cast<double>(v.size());
    double sq = 0;
    for (double& x : v) {
        x -= mean;
        sq += x * x;
    }
    const double sd = std::sqrt(sq / static_cast<double>(v.size()));
    if (sd > 1e-9)
        for (double& x : v)
            x /= sd;
    return v;
}

// The band feature written out plainly: windowed DFT per frame in double, energies of the spectrum
// at `spectrumScale` times the plain DFT, log1p, z-score.
std::vector<std::vector<double>> plainBands(const std::vector<float>& pcm, double windowNorm,
                                            double spectrumScale) {
    const int frames = static_cast<int>((pcm.size() - 1024) / 640 + 1);
    std::vector<double> cosTable(1024), sinTable(1024);
    for (int i = 0; i < 1024; ++i) {
        cosTable[static_cast<std::size_t>(i)] = std::cos(2 * std::numbers::pi * i / 1024);
        sinTable[static_cast<std::size_t>(i)] = std::sin(2 * std::numbers::pi * i / 1024);
    }
    std::vector<std::vector<double>> bands(8, std::vector<double>(static_cast<std::size_t>(frames)));
    std::vector<double> x(1024);
    for (int f = 0; f < frames; ++f) {
        for (std::size_t i = 0; i < 1024; ++i)
            x[i] = pcm[static_cast<std::size_t>(f) * 640 + i] * windowNorm * 0.5 * (1 - cosTable[i]);
        for (std::size_t b = 0; b < 8; ++b) {
            double energy = 0;
            for (int k = SB::kBandEdges[b]; k < SB::kBandEdges[b + 1]; ++k) {
                double re = 0, im = 0;
                for (std::size_t j = 0; j < 1024; ++j) {
                    const std::size_t t = (static_cast<std::size_t>(k) * j) % 1024;
                    re += x[j] * cosTable[t];
                    im -= x[j] * sinTable[t];
                }
                energy += spectrumScale * spectrumScale * (re * re + im * im);
            }
            bands[b][static_cast<std::size_t>(f)] = std::log1p(energy);
        }
    }
    for (auto& b : bands)
        b = zscored(b);
    return bands;
}

double largestDifference(const SB::Feature& f, const std::vector<std::vector<double>>& bands) {
    double worst = 0;
    for (std::size_t b = 0; b < 8; ++b)
        for (std::size_t i = 0; i < bands[b].size(); ++i)
            worst = std::max(worst, std::abs(f.bands[b][i] - bands[b][i]));
    return worst;
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

// The fused correlation written out plainly, in double: each band's linear correlation divided by
// its RMS over all P points, summed; then the score of `lag` against the lags lo..hi.
double plainScore(const SB::Feature& clip, const SB::Feature& ref, int lo, int hi, int lag) {
    std::size_t p = 1;
    while (p < static_cast<std::size_t>(clip.frames + ref.frames - 1))
        p *= 2;
    const int first = -(clip.frames - 1), last = ref.frames - 1;
    std::vector<double> fused(static_cast<std::size_t>(last - first + 1), 0.0);
    for (std::size_t b = 0; b < clip.bands.size(); ++b) {
        std::vector<double> r(fused.size(), 0.0);
        double sq = 0;
        for (int k = first; k <= last; ++k) {
            double s = 0;
            for (int m = 0; m < clip.frames; ++m)
                if (m + k >= 0 && m + k < ref.frames)
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
    double sum = 0, sq = 0;
    for (int k = lo; k <= hi; ++k) {
        sum += fused[static_cast<std::size_t>(k - first)];
        sq += fused[static_cast<std::size_t>(k - first)] * fused[static_cast<std::size_t>(k - first)];
    }
    const double n = hi - lo + 1;
    const double mean = sum / n;
    return (fused[static_cast<std::size_t>(lag - first)] - mean) / std::sqrt(sq / n - mean * mean);
}

int lagOf(const SB::Peak& p) {
    return static_cast<int>(std::lround(p.offsetSeconds * 25));
}

// Real music, mono float at 16 kHz, decoded by the ffmpeg CLI.
std::vector<float> decodeMusic(const TempDir& tmp, const std::string& name, double fromSec, double seconds) {
    const auto src = std::filesystem::path("/usr/share/games/wesnoth/1.16/data/core/music") / name;
    const auto raw = tmp / (name + ".f32");
    const std::string cmd = "ffmpeg -nostdin -hide_banner -loglevel error -y -ss " + std::to_string(fromSec) +
                            " -t " + std::to_string(seconds) + " -i '" + src.string() +
                            "' -ac 1 -ar 16000 -f f32le '" + raw.string() + "'";
    if (std::system(cmd.c_str()) != 0) return {};
    std::ifstream in(raw, std::ios::binary);
    std::vector<float> pcm(std::filesystem::file_size(raw) / sizeof(float));
    in.read(reinterpret_cast<char*>(pcm.data()), static_cast<std::streamsize>(pcm.size() * sizeof(float)));
    return pcm;
}

// A bright recorder: first difference (a gentle high-pass), its own gain and hiss.
std::vector<float> brightRecorder(std::span<const float> x, unsigned seed) {
    const auto hiss = noise(x.size(), seed, 0.01f);
    std::vector<float> y(x.size());
    float prev = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        y[i] = 0.7f * (x[i] - 0.9f * prev) + hiss[i];
        prev = x[i];
    }
    return y;
}

// A dull recorder: one-pole low-pass near 900 Hz, another gain, more hiss.
std::vector<float> dullRecorder(std::span<const float> x, unsigned seed) {
    const auto hiss = noise(x.size(), seed, 0.02f);
    std::vector<float> y(x.size());
    float state = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        state += 0.3f * (x[i] - state);
        y[i] = 1.8f * state + hiss[i];
    }
    return y;
}

} // namespace

TEST(SpectralBands, AFeatureNeedsFiveFramesOfA640SampleHop) {
    EXPECT_EQ(SB::compute(std::vector<float>(1023, 0.1f)), SB::Feature{});
    const auto tooShort = SB::compute(noise(3583, 1));
    EXPECT_EQ(tooShort.frames, 0);
    EXPECT_TRUE(tooShort.bands.empty());

    const auto five = SB::compute(noise(3584, 1));
    EXPECT_EQ(five.frames, 5);
    ASSERT_EQ(five.bands.size(), 8u);
    for (const auto& b : five.bands)
        EXPECT_EQ(b.size(), 5u);
    EXPECT_EQ(SB::compute(noise(3584 + 639, 1)).frames, 5);
    EXPECT_EQ(SB::compute(noise(3584 + 640, 1)).frames, 6);
    EXPECT_EQ(SB::compute(noise(16'000 * 10, 1)).frames, 249); // (160000 - 1024) / 640 + 1
}

TEST(SpectralBands, ComputeIsTheLogEnergyOfEachBandOfTheDoubledWindowedSpectrumZscored) {
    // Quiet noise whose level changes from frame to frame, so that the band energies straddle the
    // knee of log1p where any change of scale shows.
    std::vector<float> pcm = noise(1024 + 7 * 640 + 300, 5);
    for (std::size_t i = 0; i < pcm.size(); ++i)
        pcm[i] *= 0.001f + 0.004f * static_cast<float>((i / 640) % 5);
    const auto f = SB::compute(pcm);
    ASSERT_EQ(f.frames, 8);
    ASSERT_EQ(f.bands.size(), 8u);

    const double norm = std::sqrt(8.0 / 3.0);
    EXPECT_LT(largestDifference(f, plainBands(pcm, norm, 2.0)), 2e-4);
    // The comparison can tell the scale of the spectrum and the window's normalisation apart.
    EXPECT_GT(largestDifference(f, plainBands(pcm, norm, 1.0)), 0.01);
    EXPECT_GT(largestDifference(f, plainBands(pcm, 1.0, 2.0)), 0.01);
}

TEST(SpectralBands, ZscoreCentresAndScalesToUnitDeviationUnlessTheSeriesIsFlat) {
    const auto z = SB::zscore(std::vector<float>{1, 2, 3, 4});
    const float sd = std::sqrt(1.25f);
    ASSERT_EQ(z.size(), 4u);
    EXPECT_FLOAT_EQ(z[0], -1.5f / sd);
    EXPECT_FLOAT_EQ(z[1], -0.5f / sd);
    EXPECT_FLOAT_EQ(z[2], 0.5f / sd);
    EXPECT_FLOAT_EQ(z[3], 1.5f / sd);

    // A constant series centres to exact zeros, however odd its value.
    for (float c : {0.0f, 0.1f, 3.3333333f, -1234.567f}) {
        const auto flat = SB::zscore(std::vector<float>(1001, c));
        EXPECT_TRUE(std::all_of(flat.begin(), flat.end(), [](float v) { return v == 0.0f; })) << c;
    }
    // Variation at or below 1e-9 is only centred, not blown up.
    const auto tiny = SB::zscore(std::vector<float>{1e-10f, -1e-10f});
    EXPECT_FLOAT_EQ(tiny[0], 1e-10f);
    EXPECT_FLOAT_EQ(tiny[1], -1e-10f);
    EXPECT_TRUE(SB::zscore({}).empty());
}

TEST(SpectralBands, SliceIsARenormalisedCutThatNeverRunsPastTheEnd) {
    const auto whole = SB::compute(noise(16'000 * 10, 9));
    ASSERT_EQ(whole.frames, 249);

    const auto cut = SB::slice(whole, 1.0, 2.0);
    ASSERT_TRUE(cut.has_value());
    EXPECT_EQ(cut->frames, 50);
    ASSERT_EQ(cut->bands.size(), 8u);
    for (std::size_t b = 0; b < 8; ++b) {
        const std::vector<float> part(whole.bands[b].begin() + 25, whole.bands[b].begin() + 75);
        EXPECT_EQ(cut->bands[b], SB::zscore(part)) << "band " << b;
        double mean = 0, sq = 0;
        for (float v : cut->bands[b])
            mean += v;
        mean /= 50;
        for (float v : cut->bands[b])
            sq += (v - mean) * (v - mean);
        EXPECT_NEAR(mean, 0.0, 1e-5);
        EXPECT_NEAR(std::sqrt(sq / 50), 1.0, 1e-4);
        // Not merely the cut of the normalised whole.
        EXPECT_NE(cut->bands[b], part);
    }

    // Frames are rounded half away from zero: 0.1 s is 2.5 frames, so the cut starts at frame 3;
    // 0.18 s is 4.5 frames, so it is 5 frames long and accepted.
    const auto rounded = SB::slice(whole, 0.1, 0.18);
    ASSERT_TRUE(rounded.has_value());
    EXPECT_EQ(rounded->frames, 5);
    EXPECT_EQ(rounded->bands[0],
              SB::zscore(std::vector<float>(whole.bands[0].begin() + 3, whole.bands[0].begin() + 8)));
    // A negative start counts as the first frame.
    const auto early = SB::slice(whole, -3.0, 1.0);
    ASSERT_TRUE(early.has_value());
    EXPECT_EQ(early->bands[2],
              SB::zscore(std::vector<float>(whole.bands[2].begin(), whole.bands[2].begin() + 25)));
    // Up to the last frame is fine; one more is refused, not shortened.
    EXPECT_TRUE(SB::slice(whole, 8.96, 1.0).has_value()); // frames 224 to 248
    EXPECT_FALSE(SB::slice(whole, 9.0, 1.0).has_value());
    EXPECT_FALSE(SB::slice(whole, 9.0, 2.0).has_value());
    EXPECT_FALSE(SB::slice(whole, 1.0, 0.14).has_value()); // 4 frames
    EXPECT_FALSE(SB::slice(whole, 1.0, -1.0).has_value());
    EXPECT_FALSE(SB::slice(whole, 1e300, 1.0).has_value());
    EXPECT_FALSE(SB::slice(whole, 0.0, 1e300).has_value());
    EXPECT_FALSE(SB::slice(whole, std::nan(""), 1.0).has_value());
    EXPECT_FALSE(SB::slice(whole, 0.0, kInf).has_value());

    auto seven = whole;
    seven.bands.pop_back();
    EXPECT_FALSE(SB::slice(seven, 1.0, 2.0).has_value());
    auto ragged = whole;
    ragged.bands[4].resize(100);
    EXPECT_FALSE(SB::slice(ragged, 1.0, 2.0).has_value());
}

TEST(SpectralBands, PeaksFindACutOfTheReferenceAtItsLagWithScoresInStandardDeviations) {
    const auto ref = randomFeature(500, 1);
    const auto after = cutOf(ref, 100, 100, 2);
    const auto found = SB::peaks(after, ref, -kInf, kInf, 1.0, 3, 1.0);
    ASSERT_FALSE(found.empty());
    EXPECT_DOUBLE_EQ(found[0].offsetSeconds, 4.0);
    // The whole range is lagMin = 25 - 100 to lagMax = 500 - 25.
    EXPECT_NEAR(found[0].score, plainScore(after, ref, -75, 475, 100), 1e-3 * found[0].score);
    EXPECT_GT(found[0].score, 7.0f);

    // A clip that starts before the reference has a negative offset.
    const auto before = cutOf(ref, -20, 100, 3);
    const auto early = SB::peaks(before, ref, -kInf, kInf, 1.0, 1, 1.0);
    ASSERT_EQ(early.size(), 1u);
    EXPECT_DOUBLE_EQ(early[0].offsetSeconds, -0.8);

    // Bounds narrow the searched range, and the score is measured against that range alone.
    const auto bounded = SB::peaks(after, ref, 1.0, 6.0, 1.0, 10, 0.0);
    ASSERT_FALSE(bounded.empty());
    EXPECT_EQ(lagOf(bounded[0]), 100);
    EXPECT_NEAR(bounded[0].score, plainScore(after, ref, 25, 150, 100), 1e-3 * bounded[0].score);
    for (const auto& p : bounded) {
        EXPECT_GE(p.offsetSeconds, 1.0);
        EXPECT_LE(p.offsetSeconds, 6.0);
    }
    const auto elsewhere = SB::peaks(after, ref, 5.0, 15.0, 1.0, 10, 0.0);
    for (const auto& p : elsewhere)
        EXPECT_NE(lagOf(p), 100);
    // Bounds past the overlap limits are held to them.
    const auto wide = SB::peaks(after, ref, -1000.0, 1000.0, 1.0, 1, 1.0);
    ASSERT_EQ(wide.size(), 1u);
    EXPECT_EQ(wide[0], found[0]);

    // Bounds round half away from zero: 0.1 s is lag 3 (not 2), -0.1 s is lag -3.
    const auto atTwo = cutOf(ref, 2, 100, 4);
    ASSERT_EQ(lagOf(SB::peaks(atTwo, ref, -kInf, kInf, 1.0, 1, 1.0).at(0)), 2);
    for (const auto& p : SB::peaks(atTwo, ref, 0.1, kInf, 1.0, 100, 0.0))
        EXPECT_GE(lagOf(p), 3);
    const auto atMinusTwo = cutOf(ref, -2, 100, 5);
    ASSERT_EQ(lagOf(SB::peaks(atMinusTwo, ref, -kInf, kInf, 1.0, 1, 1.0).at(0)), -2);
    for (const auto& p : SB::peaks(atMinusTwo, ref, -kInf, -0.1, 1.0, 100, 0.0))
        EXPECT_LE(lagOf(p), -3);
}

TEST(SpectralBands, PeaksKeepTheBestFewApartFromEachOther) {
    const auto ref = randomFeature(600, 11);
    const auto clip = cutOf(ref, 250, 120, 12);

    const auto many = SB::peaks(clip, ref, -kInf, kInf, 2.0, 12, 1.0);
    ASSERT_EQ(many.size(), 12u);
    EXPECT_EQ(lagOf(many[0]), 250);
    for (std::size_t i = 0; i < many.size(); ++i) {
        if (i > 0) {
            EXPECT_GE(many[i - 1].score, many[i].score);
        }
        for (std::size_t j = 0; j < i; ++j)
            EXPECT_GE(std::abs(lagOf(many[i]) - lagOf(many[j])), 25) << i << " vs " << j;
    }
    const auto one = SB::peaks(clip, ref, -kInf, kInf, 2.0, 1, 2.0);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0], many[0]);

    // Without separation every local maximum may be kept, neighbours of the best included; with a
    // wider one the same walk drops more, so its picks are a subset of the narrower one's.
    const auto dense = SB::peaks(clip, ref, -kInf, kInf, 2.0, 400, 0.0);
    const auto sparse = SB::peaks(clip, ref, -kInf, kInf, 2.0, 400, 0.4);
    EXPECT_GT(dense.size(), sparse.size());
    for (const auto& p : sparse)
        EXPECT_NE(std::find(dense.begin(), dense.end(), p), dense.end());
    for (std::size_t i = 0; i < sparse.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            EXPECT_GE(std::abs(lagOf(sparse[i]) - lagOf(sparse[j])), 10);
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
    SB::Feature clip;
    clip.frames = 100;
    for (const auto& band : ref.bands)
        clip.bands.push_back(SB::zscore(std::vector<float>(band.begin() + 200, band.begin() + 300)));

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

    ASSERT_FALSE(SB::peaks(clip, ref, -kInf, kInf, 1.0, 1, 1.0).empty());
    EXPECT_TRUE(SB::peaks(clip, ref, -kInf, kInf, 1.0, 0, 1.0).empty()); // topK below 1
    EXPECT_TRUE(SB::peaks(clip, ref, -kInf, kInf, 1.0, -5, 1.0).empty());
    // The clip must be strictly the shorter one, whatever the overlap asked for.
    const auto same = cutOf(ref, 0, 300, 23);
    EXPECT_TRUE(SB::peaks(same, ref, -kInf, kInf, 0.0, 1, 1.0).empty());
    EXPECT_TRUE(SB::peaks(ref, clip, -kInf, kInf, 0.0, 1, 1.0).empty());
    EXPECT_FALSE(SB::peaks(cutOf(ref, 0, 299, 23), ref, -kInf, kInf, 0.0, 1, 1.0).empty());
    // Fewer than five frames on either side.
    EXPECT_TRUE(SB::peaks(cutOf(ref, 0, 4, 24), ref, -kInf, kInf, 0.0, 1, 1.0).empty());
    EXPECT_TRUE(SB::peaks(SB::Feature{}, ref, -kInf, kInf, 0.0, 1, 1.0).empty());
    EXPECT_FALSE(SB::peaks(cutOf(ref, 0, 5, 24), ref, -kInf, kInf, 0.0, 1, 1.0).empty());
    // Band counts differ; bands of another length than the frame count.
    auto sevenBands = clip;
    sevenBands.bands.pop_back();
    EXPECT_TRUE(SB::peaks(sevenBands, ref, -kInf, kInf, 1.0, 1, 1.0).empty());
    auto ragged = ref;
    ragged.bands[3].resize(10);
    EXPECT_TRUE(SB::peaks(clip, ragged, -kInf, kInf, 1.0, 1, 1.0).empty());
    auto overstated = clip;
    overstated.frames = 250;
    EXPECT_TRUE(SB::peaks(overstated, ref, -kInf, kInf, 1.0, 1, 1.0).empty());
    // Overlap at or above the clip's length; just under it (truncated to 99 frames) still works.
    EXPECT_TRUE(SB::peaks(clip, ref, -kInf, kInf, 4.0, 1, 1.0).empty());
    EXPECT_TRUE(SB::peaks(clip, ref, -kInf, kInf, 50.0, 1, 1.0).empty());
    EXPECT_TRUE(SB::peaks(clip, ref, -kInf, kInf, kInf, 1, 1.0).empty());
    EXPECT_TRUE(SB::peaks(clip, ref, -kInf, kInf, std::nan(""), 1, 1.0).empty());
    EXPECT_FALSE(SB::peaks(clip, ref, -kInf, kInf, 3.999, 1, 1.0).empty());
    // An empty search range.
    EXPECT_TRUE(SB::peaks(clip, ref, 6.0, 5.0, 1.0, 1, 1.0).empty());
    // Hostile numbers elsewhere give an answer or nothing, never a crash.
    EXPECT_FALSE(SB::peaks(clip, ref, -1e300, 1e300, -1e300, 1, kInf).empty());
    EXPECT_FALSE(SB::peaks(clip, ref, std::nan(""), std::nan(""), 1.0, 1, std::nan("")).empty());
}

TEST(SpectralBands, ConstantBandsAreLeftOutOfTheFusion) {
    const auto ref = randomFeature(400, 31);
    const auto clip = cutOf(ref, 120, 80, 32);
    auto flatRef = ref, flatClip = clip;
    flatRef.bands[5].assign(400, 0.0f);
    flatClip.bands[5].assign(80, 0.0f);
    auto sevenRef = ref, sevenClip = clip;
    sevenRef.bands.erase(sevenRef.bands.begin() + 5);
    sevenClip.bands.erase(sevenClip.bands.begin() + 5);

    const auto withFlat = SB::peaks(flatClip, flatRef, -kInf, kInf, 1.0, 5, 1.0);
    ASSERT_FALSE(withFlat.empty());
    EXPECT_EQ(lagOf(withFlat[0]), 120);
    EXPECT_TRUE(std::isfinite(withFlat[0].score));
    // A flat band weighs nothing: the same as not having it.
    EXPECT_EQ(withFlat, SB::peaks(sevenClip, sevenRef, -kInf, kInf, 1.0, 5, 1.0));
    // Flat in the clip only is enough to leave the band out.
    auto flatInClipOnly = clip;
    flatInClipOnly.bands[5].assign(80, 0.0f);
    EXPECT_EQ(SB::peaks(flatInClipOnly, ref, -kInf, kInf, 1.0, 5, 1.0), withFlat);

    // Silence everywhere: nothing to fuse.
    const auto silentRef = SB::compute(std::vector<float>(16'000 * 20, 0.0f));
    const auto silentClip = SB::compute(std::vector<float>(16'000 * 6, 0.25f));
    ASSERT_EQ(silentRef.frames, 499);
    for (const auto& b : silentClip.bands)
        EXPECT_TRUE(std::all_of(b.begin(), b.end(), [](float v) { return v == 0.0f; }));
    EXPECT_TRUE(SB::peaks(silentClip, silentRef, -kInf, kInf, 1.0, 3, 1.0).empty());
    EXPECT_TRUE(SB::peaks(silentClip, ref, -kInf, kInf, 1.0, 3, 1.0).empty());
}

TEST(SpectralBands, TwoCutsOfOneRecordingThroughDifferentRecordersMeetAtTheirTrueDistance) {
    TempDir tmp;
    for (const std::string name : {"battle.ogg", "elvish-theme.ogg"}) {
        const auto music = decodeMusic(tmp, name, 30.0, 40.0);
        ASSERT_GE(music.size(), 16'000u * 39) << name;
        const std::span<const float> all(music);

        // The clip starts 13.37 s into the reference: a lag of 334.25 frames.
        const auto ref = SB::compute(brightRecorder(all.subspan(0, 16'000 * 30), 1));
        const auto clip = SB::compute(dullRecorder(all.subspan(213'920, 16'000 * 10), 2));
        const auto found = SB::peaks(clip, ref, -kInf, kInf, 5.0, 3, 1.0);
        ASSERT_EQ(found.size(), 3u) << name;
        EXPECT_NEAR(found[0].offsetSeconds, 13.37, 0.04) << name;
        EXPECT_GT(found[0].score, found[1].score + 1.0f) << name;

        // A clip that starts 5 s before the reference and runs 10 s into it.
        const auto later = SB::compute(brightRecorder(all.subspan(16'000 * 10, 16'000 * 29), 3));
        const auto earlier = SB::compute(dullRecorder(all.subspan(16'000 * 5, 16'000 * 15), 4));
        const auto early = SB::peaks(earlier, later, -kInf, kInf, 3.0, 3, 1.0);
        ASSERT_EQ(early.size(), 3u) << name;
        EXPECT_NEAR(early[0].offsetSeconds, -5.0, 0.04) << name;
        EXPECT_GT(early[0].score, early[1].score + 1.0f) << name;

        // A slice of the reference where the clip lies (frame 334, 0.01 s before the clip's
        // start) finds its place in the clip, the roles swapped as the slice is the shorter.
        const auto part = SB::slice(ref, 13.37, 8.0);
        ASSERT_TRUE(part.has_value());
        const auto back = SB::peaks(*part, clip, -kInf, kInf, 5.0, 1, 1.0);
        ASSERT_EQ(back.size(), 1u);
        EXPECT_NEAR(back[0].offsetSeconds, 0.0, 0.04) << name;
    }
}

namespace {

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

// Overwrites `ref` in place with other contents of the same shape, then expects the search of
// `clip` (found at `lagBefore` in the old contents) to answer from the new ones.
void expectAChangeInPlaceSeen(SB::Feature& ref, const SB::Feature& clip, int lagBefore, unsigned seed,
                              const std::string& what) {
    const auto moved = cutOf(ref, 1900, ref.frames, seed);
    for (std::size_t b = 0; b < ref.bands.size(); ++b)
        std::copy(moved.bands[b].begin(), moved.bands[b].end(), ref.bands[b].begin());
    const auto after = SB::peaks(clip, ref, -kInf, kInf, 2.0, 3, 1.0);
    expectSamePeaks(after, plainPeaks(clip, ref, -kInf, kInf, 2.0, 3, 1.0), what);
    EXPECT_NE(lagOf(after.at(0)), lagBefore) << what;
}

} // namespace

TEST(SpectralBands, PeaksMatchThePlainSearchOverBoundedAndUnboundedRanges) {
    struct Case {
        int refFrames, clipFrames, cutAt;
        double lo, hi, overlap;
        int topK;
        double separation;
    };
    // Clips short and long against the reference, with a true place or none (cutAt far outside),
    // whole ranges, ranges within one block, across several, at both ends and below zero.
    const std::vector<Case> cases = {
        {3000, 600, 1200, -kInf, kInf, 5.0, 8, 1.0},   {3000, 600, 1200, 40.0, 56.0, 5.0, 5, 0.5},
        {3000, 600, 9000, -kInf, kInf, 2.0, 12, 0.2},  {3000, 600, -300, -20.0, 3.0, 1.0, 6, 0.4},
        {5000, 40, 2500, -kInf, kInf, 0.0, 10, 0.0},   {5000, 40, 2500, 99.0, 101.5, 0.0, 4, 0.1},
        {5000, 40, 4980, 190.0, kInf, 0.5, 5, 0.3},    {4000, 5, 17, -kInf, 2.0, 0.0, 7, 0.0},
        {4000, 1500, 2000, -kInf, kInf, 10.0, 6, 2.0}, {4000, 1500, 2000, 60.0, 100.0, 10.0, 3, 1.0},
        {700, 690, 5, -kInf, kInf, 1.0, 5, 1.0},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& c = cases[i];
        const auto ref = randomFeature(c.refFrames, 100 + static_cast<unsigned>(i));
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

TEST(SpectralBands, PeaksNeverAnswerFromAnEarlierReferenceOfTheSameShape) {
    auto ref = randomFeature(3000, 31);
    const auto clip = cutOf(ref, 700, 300, 32);
    const auto before = SB::peaks(clip, ref, -kInf, kInf, 2.0, 3, 1.0);
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(lagOf(before[0]), 700);
    // The same vectors, changed in place: whatever was kept of the old contents must not be used.
    expectAChangeInPlaceSeen(ref, clip, 700, 33, "changed reference");
}

TEST(SpectralBands, PeaksFromManyThreadsAtOnceGiveTheSerialResult) {
    const auto ref = randomFeature(6000, 41);
    std::vector<SB::Feature> clips;
    for (unsigned i = 0; i < 8; ++i)
        clips.push_back(cutOf(ref, 500 * static_cast<int>(i) + 100, 200 + 50 * static_cast<int>(i), 50 + i));
    std::vector<std::vector<SB::Peak>> serial;
    for (const auto& clip : clips)
        serial.push_back(SB::peaks(clip, ref, -kInf, kInf, 2.0, 3, 1.0));
    for (int round = 0; round < 3; ++round) {
        const auto other = randomFeature(6000, 60 + static_cast<unsigned>(round)); // a cold reference
        std::vector<std::vector<SB::Peak>> parallel(clips.size());
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < clips.size(); ++i)
            threads.emplace_back([&, i] {
                parallel[i] = SB::peaks(clips[i], ref, -kInf, kInf, 2.0, 3, 1.0);
                SB::peaks(clips[i], other, -kInf, kInf, 2.0, 3, 1.0);
            });
        for (auto& t : threads)
            t.join();
        EXPECT_EQ(parallel, serial) << "round " << round;
    }
}
TEST(SpectralBands, PeaksOfClipsOfManyLengthsAgainstOneReferenceMatchThePlainSearch) {
    // What one call leaves behind for a reference must serve the next, whatever its clip's length
    // and range: clips of 40 to 1,000 frames, alternating, over the whole range and a window.
    const auto ref = randomFeature(9500, 77);
    for (const int length : {450, 300, 1000, 600, 40, 1000, 300}) {
        const auto clip = cutOf(ref, 3000, length, 78 + static_cast<unsigned>(length));
        const std::string what = std::to_string(length) + " frames";
        expectSamePeaks(SB::peaks(clip, ref, -kInf, kInf, 1.0, 3, 1.0),
                        plainPeaks(clip, ref, -kInf, kInf, 1.0, 3, 1.0), what);
        expectSamePeaks(SB::peaks(clip, ref, 100.0, 160.0, 1.0, 3, 1.0),
                        plainPeaks(clip, ref, 100.0, 160.0, 1.0, 3, 1.0), what + ", window");
    }
}

TEST(SpectralBands, OnePeakWantedIsTheFirstOfTheLongerList) {
    // The single best is found without listing every local maximum; it must still be the first of
    // the highest score, including where a repeating reference gives many equal or nearly equal
    // tops (the first of them wins).
    std::vector<std::pair<SB::Feature, SB::Feature>> pairs;
    for (unsigned i = 0; i < 4; ++i) {
        const auto ref = randomFeature(4000 + 700 * static_cast<int>(i), 300 + i);
        pairs.emplace_back(
            cutOf(ref, 900 * static_cast<int>(i) + 50, 300 + 200 * static_cast<int>(i), 310 + i), ref);
    }
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
        SB::Feature clip;
        clip.frames = period * 3;
        for (const auto& band : ref.bands)
            clip.bands.emplace_back(band.begin() + period / 2, band.begin() + period / 2 + clip.frames);
        pairs.emplace_back(clip, ref);
    }
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const auto& [clip, ref] = pairs[i];
        for (const auto& [lo, hi] : {std::pair{-kInf, kInf}, std::pair{10.0, 60.0}}) {
            const auto many = SB::peaks(clip, ref, lo, hi, 1.0, 4, 0.0);
            ASSERT_FALSE(many.empty()) << "pair " << i;
            EXPECT_EQ(SB::peaks(clip, ref, lo, hi, 1.0, 1, 0.0), std::vector<SB::Peak>{many.front()})
                << "pair " << i << ", range from " << lo;
        }
    }
}

TEST(SpectralBands, OneClipSearchServesReferencesOfAnyLengthWithTheSameResults) {
    // A window is searched against every span of a pool in turn, and its transforms are kept
    // between the calls: each answer must be the one a fresh search gives, whatever came before.
    const auto clip = cutOf(randomFeature(30000, 401), 12000, 700, 402);
    std::vector<SB::Feature> refs;
    for (const int frames : {30000, 900, 5000, 30000, 1200, 70000})
        refs.push_back(randomFeature(frames, 410 + static_cast<unsigned>(frames % 97)));
    refs[0] = randomFeature(30000, 401); // holds the clip at 12,000
    SB::ClipSearch search(clip);
    for (int pass = 0; pass < 2; ++pass)
        for (std::size_t r = 0; r < refs.size(); ++r) {
            const std::string what = "reference " + std::to_string(r) + ", pass " + std::to_string(pass);
            EXPECT_EQ(SB::peaks(search, refs[r], -kInf, kInf, 2.0, 1, 1.0),
                      SB::peaks(clip, refs[r], -kInf, kInf, 2.0, 1, 1.0))
                << what;
            EXPECT_EQ(SB::peaks(search, refs[r], 20.0, 30.0, 2.0, 3, 1.0),
                      SB::peaks(clip, refs[r], 20.0, 30.0, 2.0, 3, 1.0))
                << what;
        }
    EXPECT_EQ(lagOf(SB::peaks(search, refs[0], -kInf, kInf, 2.0, 1, 1.0).at(0)), 12000);
}

TEST(SpectralBands, AReferenceChangedAfterItsPinIsGoneIsSeenAsNew) {
    auto ref = randomFeature(3000, 51);
    const auto clip = cutOf(ref, 700, 300, 52);
    {
        const SB::ReferencePin pin(ref);
        const SB::ReferencePin copy = pin; // a copy keeps the promise alive too
        EXPECT_EQ(lagOf(SB::peaks(clip, ref, -kInf, kInf, 2.0, 1, 1.0).at(0)), 700);
    }
    expectAChangeInPlaceSeen(ref, clip, 700, 53, "changed after unpinning");
}

TEST(SpectralBands, WhatAPinKeptGoesWithItsLastPin) {
    const auto ref = randomFeature(20000, 61);
    const auto clip = cutOf(ref, 4000, 600, 62);
    const std::size_t before = SB::keptTransformBytes();
    {
        const SB::ReferencePin pin(ref);
        std::optional<SB::ReferencePin> second(std::in_place, ref);
        EXPECT_EQ(lagOf(SB::peaks(clip, ref, -kInf, kInf, 2.0, 1, 1.0).at(0)), 4000);
        const std::size_t held = SB::keptTransformBytes();
        EXPECT_GT(held, before + sizeof(float) * 8 * 20000); // a copy of the bands and their transforms
        second.reset();
        EXPECT_EQ(SB::keptTransformBytes(), held) << "one pin is still there";
    }
    EXPECT_EQ(SB::keptTransformBytes(), before);
    // Unpinned, a reference is kept between searches as before.
    SB::peaks(clip, ref, -kInf, kInf, 2.0, 1, 1.0);
    EXPECT_GT(SB::keptTransformBytes(), before);
}

TEST(SpectralBands, ClipsSearchedTogetherGetWhatEachGetsAlone) {
    // Windows of one clip share a span's blocks; clips of other lengths, ranges far apart or
    // refused, and a clip as long as the reference ride along without changing anyone's answer.
    const auto ref = randomFeature(40000, 501);
    std::vector<SB::Feature> clips;
    for (const auto& [at, length] : {std::pair{5000, 900}, std::pair{20000, 900}, std::pair{33000, 900},
                                     std::pair{12000, 2500}, std::pair{100, 40000}})
        clips.push_back(cutOf(ref, at, length, 502 + static_cast<unsigned>(at % 251)));
    const std::vector<SB::OffsetRange> ranges = {
        {-kInf, kInf}, {700.0, 900.0}, {1400.0, 1430.0}, {-kInf, kInf}, {-kInf, kInf}};
    std::vector<SB::ClipSearch> searches;
    searches.reserve(clips.size());
    for (const auto& clip : clips)
        searches.emplace_back(clip);
    std::vector<SB::ClipSearch*> all;
    for (auto& search : searches)
        all.push_back(&search);
    for (const int topK : {1, 3}) {
        const auto together = SB::peaks(all, ref, ranges, 2.0, topK, 1.0);
        ASSERT_EQ(together.size(), clips.size());
        for (std::size_t i = 0; i < clips.size(); ++i)
            EXPECT_EQ(together[i], SB::peaks(clips[i], ref, ranges[i].minOffsetSec, ranges[i].maxOffsetSec,
                                             2.0, topK, 1.0))
                << "clip " << i << ", top " << topK;
        EXPECT_EQ(lagOf(together[0].at(0)), 5000);
        EXPECT_EQ(lagOf(together[1].at(0)), 20000);
        EXPECT_EQ(lagOf(together[3].at(0)), 12000);
        EXPECT_TRUE(together[2].empty() ||
                    lagOf(together[2][0]) != 33000); // its place lies outside the range
        EXPECT_TRUE(together[4].empty());            // not shorter than the reference
    }
    // One range short: nothing is searched.
    const auto mismatched = SB::peaks(all, ref, std::span(ranges).first(4), 2.0, 1, 1.0);
    ASSERT_EQ(mismatched.size(), clips.size());
    for (const auto& found : mismatched)
        EXPECT_TRUE(found.empty());
}
