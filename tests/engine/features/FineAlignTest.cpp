// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/FineAlign.hpp"

#include "MediaSupport.hpp"
#include "TrelvaneEngine/media/AudioStreamReader.hpp"
#include "engine/features/Signals.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <numbers>
#include <random>
#include <vector>

using namespace trelvane;
using namespace trelvane::test;

namespace {

// Another device's colouring: a resonant boost near 2.5 kHz and a roll-off towards the top,
// then its own noise at `snr` dB below the signal. The filter is symmetric about its centre, so it
// colours without delaying: the only shift is the one a case asks for. (A real microphone's
// minimum-phase response adds a group delay of a fraction of a millisecond that no method can tell
// from a shift.)
std::vector<float> colour(const std::vector<float>& x, double snr, unsigned seed) {
    constexpr int half = 16;
    const double centre = 2 * std::numbers::pi * 2500 / kRate;
    std::vector<double> boost(2 * half + 1);
    double sum = 0;
    for (int k = -half; k <= half; ++k)
        sum += 0.5 + 0.5 * std::cos(std::numbers::pi * k / (half + 1));
    for (int k = -half; k <= half; ++k)
        boost[std::size_t(k + half)] =
            (k == 0 ? 1.0 : 0.0) +
            1.5 * (0.5 + 0.5 * std::cos(std::numbers::pi * k / (half + 1))) * std::cos(centre * k) / sum;
    std::vector<double> h(boost.size() + 2, 0.0); // then [1/4, 1/2, 1/4]
    for (std::size_t i = 0; i < boost.size(); ++i)
        for (std::size_t j = 0; j < 3; ++j)
            h[i + j] += boost[i] * (j == 1 ? 0.5 : 0.25);
    const long reach = long(h.size() / 2);
    std::vector<float> y(x.size(), 0.0f);
    double power = 0;
    for (std::size_t n = 0; n < x.size(); ++n) {
        double v = 0;
        for (long k = -reach; k <= reach; ++k)
            if (const long m = long(n) - k; m >= 0 && m < long(x.size()))
                v += h[std::size_t(k + reach)] * x[std::size_t(m)];
        y[n] = float(v);
        power += v * v;
    }
    const float level = float(std::sqrt(power / double(x.size()) / std::pow(10.0, snr / 10.0)));
    const auto hiss = noise(x.size(), seed, level);
    for (std::size_t i = 0; i < y.size(); ++i)
        y[i] += hiss[i];
    return y;
}

// A real recording (a voice prompt), at the refinement's rate, repeated to `n` samples.
std::vector<float> recording(std::size_t n) {
    const auto url = Url::fromPath("/usr/share/asterisk/sounds/en_US_f_Allison/demo-instruct.wav");
    AudioStreamReader reader(url, 0, kRate);
    std::vector<float> stereo;
    while (reader.read(stereo, 4096) > 0) {
    }
    std::vector<float> mono;
    for (std::size_t i = 0; i + 1 < stereo.size(); i += 2)
        mono.push_back(stereo[i]);
    std::vector<float> out(n);
    for (std::size_t i = 0; i < n && !mono.empty(); ++i)
        out[i] = mono[i % mono.size()];
    return out;
}

} // namespace

TEST(FineAlign, FindsAFractionalShiftThroughColouringAndNoise) {
    constexpr std::size_t n = 2 * kRate;
    const auto speech = recording(n + 4000);
    const auto hiss = noise(n + 4000, 3);
    // source, shift in samples, the other side's SNR in dB
    const std::tuple<const char*, double, double> cases[] = {{"noise", 0.37, 20},   {"noise", -12.5, 10},
                                                             {"noise", 151.83, 5},  {"speech", 0.5, 20},
                                                             {"speech", -3.21, 10}, {"speech", 402.66, 10}};
    for (const auto& [source, shift, snr] : cases) {
        SCOPED_TRACE(std::string(source) + " shifted " + std::to_string(shift));
        const auto& x = std::string(source) == "noise" ? hiss : speech;
        const std::vector<float> a = resample(x, 1.0, -1000, n); // both from well inside x
        const auto b = colour(resample(x, 1.0, shift - 1000, n), snr, 7);
        const auto lag = FineAlign::gccPhat(a, b, 800);
        ASSERT_TRUE(lag);
        EXPECT_NEAR(lag->samples, shift, 0.05);
        EXPECT_GT(lag->confidence, 20);
        // Swapped, the same shift the other way.
        const auto back = FineAlign::gccPhat(b, a, 800);
        ASSERT_TRUE(back);
        EXPECT_NEAR(back->samples, -shift, 0.05);
    }
    // Unrelated sound has no peak worth the name; too little sound or a lag beyond it is refused.
    const auto other = FineAlign::gccPhat(noise(n, 1), noise(n, 2), 800);
    ASSERT_TRUE(other);
    EXPECT_LT(other->confidence, 6);
    EXPECT_FALSE(FineAlign::gccPhat(noise(63, 1), noise(63, 2), 8));
    EXPECT_FALSE(FineAlign::gccPhat(noise(100, 1), noise(100, 2), 100));
    EXPECT_FALSE(FineAlign::gccPhat(noise(100, 1), noise(100, 2), -1));
    EXPECT_FALSE(FineAlign::gccPhat(std::vector<float>(1000, 0.0f), noise(1000, 2), 10));
}

TEST(FineAlign, RefinesAPairAndMeasuresItsDriftOrRefusesUnrelatedSound) {
    TempDir dir;
    constexpr double seconds = 40;
    const auto n = std::size_t(seconds * kRate);
    const auto x = colour(noise(n + 8000, 11), 30, 12);
    const auto a = resample(x, 1.0, -4000, n);
    writeWav(dir / "a.wav", a);
    // drift in ppm, shift in samples (b's first sample lies `shift` samples before a's)
    const std::pair<double, double> cases[] = {{0, 37.4}, {120, 100.3}, {-45, -210.8}};
    for (const auto& [ppm, shift] : cases) {
        SCOPED_TRACE("drift " + std::to_string(ppm) + " ppm, shift " + std::to_string(shift));
        const auto b = colour(resample(x, 1 + ppm * 1e-6, shift - 4000, n), 10, 13);
        writeWav(dir / "b.wav", b);
        // Both placed at 0, as a band sync a few milliseconds out would put them.
        const FineAlign::Pair pair{
            Url::fromPath(dir / "a.wav"), 0, Url::fromPath(dir / "b.wav"), 0, 0, seconds};
        const auto r = FineAlign::refinePair(pair);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->windowsAgreeing, 6);
        EXPECT_NEAR(r->driftPPM, ppm, 3);
        EXPECT_LT(r->driftUncertaintyPPM, 1);
        // b's first sample belongs at -shift on a's timeline; later ones drift by ppm.
        EXPECT_NEAR(r->correctionAt(0), -shift / kRate, 2e-5);
        EXPECT_NEAR(r->correctionAt(30), -shift / kRate + 30 * ppm * 1e-6, 2e-5);
    }
    writeWav(dir / "c.wav", noise(n, 99));
    EXPECT_FALSE(FineAlign::refinePair(
        {Url::fromPath(dir / "a.wav"), 0, Url::fromPath(dir / "c.wav"), 0, 0, seconds}));
    // An overlap shorter than two windows, or a file that is not media, is refused as well.
    EXPECT_FALSE(
        FineAlign::refinePair({Url::fromPath(dir / "a.wav"), 0, Url::fromPath(dir / "b.wav"), 0, 10, 13.9}));
    EXPECT_FALSE(FineAlign::refinePair(
        {Url::fromPath(dir / "a.wav"), 0, Url::fromPath(dir / "none.wav"), 0, 0, seconds}));
}

// Pairs of the demo shoot placed a band frame or so from where their sound lines up (as the band
// sync leaves them): the refinement brings each within a millisecond of the true placement, which
// already counts each device's distance from the stage.
TEST(FineAlign, PlacesDemoRecordingsWithinAMillisecond) {
    const std::string root = TRELVANE_SOURCE_DIR;
    ASSERT_EQ(std::system(("bash " + quoted(root + "/scripts/make-demo.sh") + " >/dev/null").c_str()), 0);
    const auto truth = nlohmann::json::parse(slurp(root + "/demo/truth.json"));
    const auto find = [&](const std::string& path) {
        for (const auto& f : truth["files"])
            if (f["path"] == path) return f;
        ADD_FAILURE() << path << " is not in the demo";
        return nlohmann::json();
    };
    // reference, other, how far the other is misplaced (seconds)
    const std::tuple<const char*, const char*, double> cases[] = {
        {"shoot/Zoom/ZOOM0001.WAV", "shoot/CamA_Card1/C0002.MP4", 0.023},
        {"shoot/Zoom/ZOOM0002.WAV", "shoot/Tascam/Tr1/TASCAM_0002_Tr1.wav", -0.017},
        {"shoot/CamA_Card2/C0007.MP4", "shoot/CamB/A001_C004_0614QZ.MOV", 0.031}};
    for (const auto& [reference, other, error] : cases) {
        SCOPED_TRACE(other);
        const auto a = find(reference), b = find(other);
        if (a.is_null() || b.is_null()) continue;
        const double aStart = a["start"], bStart = b["start"];
        const double start = std::max(aStart, bStart);
        const double end =
            std::min(aStart + a["duration"].get<double>(), bStart + b["duration"].get<double>());
        const FineAlign::Pair pair{Url::fromPath(root + "/demo/" + reference),
                                   aStart,
                                   Url::fromPath(root + "/demo/" + other),
                                   bStart + error,
                                   start,
                                   end};
        const auto r = FineAlign::refinePair(pair);
        ASSERT_TRUE(r);
        EXPECT_GE(r->windowsAgreeing, 4);
        EXPECT_NEAR(r->correctionAt(bStart), -error, 1e-3);
        EXPECT_LT(std::abs(r->driftPPM), 5);
    }
}
