// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SyncCorrelator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <set>
#include <thread>
#include <vector>

using namespace trelvane;

namespace {

std::vector<float> noise(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, 1.0f);
    std::vector<float> v(n);
    for (auto& x : v)
        x = dist(rng);
    return v;
}

// The plain DFT, X[k] = sum x[n] e^(-2 pi i k n / N), in double.
std::vector<std::pair<double, double>> plainDft(const std::vector<float>& x) {
    const std::size_t n = x.size();
    std::vector<std::pair<double, double>> out(n);
    for (std::size_t k = 0; k < n; ++k) {
        double re = 0, im = 0;
        for (std::size_t j = 0; j < n; ++j) {
            const double phase =
                -2.0 * std::numbers::pi * static_cast<double>(k * j % n) / static_cast<double>(n);
            re += x[j] * std::cos(phase);
            im += x[j] * std::sin(phase);
        }
        out[k] = {re, im};
    }
    return out;
}

// Twice the circular correlation over p points, with both inputs zero-padded to p.
std::vector<double> plainCorrelation(const std::vector<float>& a, const std::vector<float>& b,
                                     std::size_t p) {
    std::vector<double> out(p);
    for (std::size_t k = 0; k < p; ++k) {
        double s = 0;
        for (std::size_t m = 0; m < b.size(); ++m) {
            const std::size_t i = (m + k) % p;
            if (i < a.size()) s += static_cast<double>(a[i]) * b[m];
        }
        out[k] = 2 * s;
    }
    return out;
}

std::size_t argmax(const std::vector<float>& v) {
    return static_cast<std::size_t>(std::max_element(v.begin(), v.end()) - v.begin());
}

} // namespace

TEST(SyncCorrelator, ForwardTransformIsTwiceThePlainDftWithDcAndNyquistPackedInElementZero) {
    const auto* setup = SyncCorrelator::sharedFFTSetup(4);
    ASSERT_NE(setup, nullptr);
    ASSERT_EQ(setup->length(), 16u);
    ASSERT_EQ(setup->log2n(), 4u);
    auto ws = setup->makeWorkspace();
    ASSERT_EQ(ws.signal().size(), 16u);
    ASSERT_EQ(ws.real().size(), 8u);
    ASSERT_EQ(ws.imag().size(), 8u);

    const auto x = noise(16, 1);
    std::copy(x.begin(), x.end(), ws.signal().begin());
    setup->forward(ws);
    const auto dft = plainDft(x);
    EXPECT_NEAR(ws.real()[0], 2 * dft[0].first, 1e-4);
    EXPECT_NEAR(ws.imag()[0], 2 * dft[8].first, 1e-4);
    for (std::size_t k = 1; k < 8; ++k) {
        EXPECT_NEAR(ws.real()[k], 2 * dft[k].first, 1e-4) << "bin " << k;
        EXPECT_NEAR(ws.imag()[k], 2 * dft[k].second, 1e-4) << "bin " << k;
    }
    // The input is left for the caller.
    EXPECT_TRUE(std::equal(x.begin(), x.end(), ws.signal().begin()));
}

TEST(SyncCorrelator, InverseTransformIsPTimesThePlainInverseSoARoundTripScalesBy2P) {
    const auto* setup = SyncCorrelator::sharedFFTSetup(4);
    ASSERT_NE(setup, nullptr);
    auto ws = setup->makeWorkspace();
    const auto fill = [&](float dc, float nyquist, std::size_t bin, float re, float im) {
        std::fill(ws.real().begin(), ws.real().end(), 0.0f);
        std::fill(ws.imag().begin(), ws.imag().end(), 0.0f);
        ws.real()[0] = dc;
        ws.imag()[0] = nyquist;
        if (bin > 0) {
            ws.real()[bin] = re;
            ws.imag()[bin] = im;
        }
        setup->inverse(ws);
    };
    // The plain inverse carries 1/P; P times that is the bare sum over the Hermitian spectrum.
    fill(1, 0, 0, 0, 0);
    for (float v : ws.signal())
        EXPECT_NEAR(v, 1.0f, 1e-6);
    fill(0, 1, 0, 0, 0);
    for (std::size_t n = 0; n < 16; ++n)
        EXPECT_NEAR(ws.signal()[n], n % 2 == 0 ? 1.0f : -1.0f, 1e-6);
    fill(0, 0, 3, 0.5f, -0.25f);
    for (std::size_t n = 0; n < 16; ++n) {
        const double phase = 2.0 * std::numbers::pi * 3.0 * static_cast<double>(n) / 16.0;
        EXPECT_NEAR(ws.signal()[n], 2 * (0.5 * std::cos(phase) + 0.25 * std::sin(phase)), 1e-5) << n;
    }

    const auto x = noise(16, 2);
    std::copy(x.begin(), x.end(), ws.signal().begin());
    setup->forward(ws);
    const std::vector<float> spectrum(ws.real().begin(), ws.real().end());
    setup->inverse(ws);
    for (std::size_t n = 0; n < 16; ++n)
        EXPECT_NEAR(ws.signal()[n], 32.0f * x[n], 1e-4);
    // The packed spectrum is not consumed by the inverse.
    EXPECT_TRUE(std::equal(spectrum.begin(), spectrum.end(), ws.real().begin()));
}

TEST(SyncCorrelator, CorrelationIsTwiceThePlainCircularCorrelationOverTheNextPowerOfTwo) {
    const std::vector<std::pair<std::size_t, std::size_t>> sizes = {
        {3, 3}, {4, 2}, {5, 11}, {37, 100}, {100, 37}};
    unsigned seed = 10;
    for (const auto& [na, nb] : sizes) {
        const auto a = noise(na, ++seed);
        const auto b = noise(nb, ++seed);
        const auto r = SyncCorrelator::fftCrossCorrelate(a, b);
        ASSERT_TRUE(r.has_value()) << na << "+" << nb;
        std::size_t p = 2;
        while (p < na + nb - 1)
            p *= 2;
        p = std::max<std::size_t>(p, 8);
        ASSERT_EQ(r->length, static_cast<int>(p));
        ASSERT_EQ(r->values.size(), p);
        const auto expected = plainCorrelation(a, b, p);
        for (std::size_t k = 0; k < p; ++k)
            EXPECT_NEAR(r->values[k], expected[k], 1e-3 * (1 + std::abs(expected[k])))
                << na << "+" << nb << " k " << k;
    }
}

TEST(SyncCorrelator, InputsTooShortForAnEightPointTransformAreRefused) {
    const std::vector<float> one(1, 1.0f), two(2, 1.0f), three(3, 1.0f);
    const auto r33 = SyncCorrelator::fftCrossCorrelate(three, three); // n 5, P 8
    ASSERT_TRUE(r33.has_value());
    EXPECT_EQ(r33->length, 8);
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate(two, three).has_value()); // n 4, P 4
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate(three, two).has_value());
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({}, one).has_value());  // n 0
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate(one, one).has_value()); // n 1
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({}, {}).has_value());
    // Nothing to correlate with, however long the other side.
    const std::vector<float> nine(9, 1.0f);
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate({}, nine).has_value());
    EXPECT_FALSE(SyncCorrelator::fftCrossCorrelate(nine, {}).has_value());
}

TEST(SyncCorrelator, DelayedCopyPeaksAtTheDelayWhenItIsTheFirstInputAndAtPMinusTheDelayOtherwise) {
    const auto x = noise(200, 42);
    const std::size_t d = 37;
    std::vector<float> delayed(d, 0.0f);
    delayed.insert(delayed.end(), x.begin(), x.end());

    const auto first = SyncCorrelator::fftCrossCorrelate(delayed, x);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->length, 512);
    EXPECT_EQ(argmax(first->values), d);
    // Twice the energy of x at the match.
    double energy = 0;
    for (float v : x)
        energy += static_cast<double>(v) * v;
    EXPECT_NEAR(first->values[d], 2 * energy, 1e-3 * energy);

    const auto second = SyncCorrelator::fftCrossCorrelate(x, delayed);
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(argmax(second->values), 512 - d);
}

TEST(SyncCorrelator, SharedSetupIsOnePlanPerSizeWhateverTheNumberOfThreadsAsking) {
    EXPECT_EQ(SyncCorrelator::sharedFFTSetup(0), nullptr);
    EXPECT_EQ(SyncCorrelator::sharedFFTSetup(SyncCorrelator::kMaxLog2n + 1), nullptr);

    constexpr int kThreads = 8;
    std::vector<const SyncCorrelator::FFTSetup*> got(kThreads, nullptr);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back(
                [&got, t] { got[static_cast<std::size_t>(t)] = SyncCorrelator::sharedFFTSetup(13); });
    }
    ASSERT_NE(got[0], nullptr);
    EXPECT_EQ(std::set<const SyncCorrelator::FFTSetup*>(got.begin(), got.end()).size(), 1u);
    EXPECT_EQ(got[0]->length(), 8192u);
    EXPECT_EQ(SyncCorrelator::sharedFFTSetup(13), got[0]);
    EXPECT_NE(SyncCorrelator::sharedFFTSetup(12), got[0]);
    EXPECT_EQ(SyncCorrelator::sharedFFTSetup(12)->length(), 4096u);
}

TEST(SyncCorrelator, CorrelationsRunningInParallelGiveTheSerialResult) {
    const auto a = noise(3000, 7);
    const auto b = noise(700, 8);
    const auto serial = SyncCorrelator::fftCrossCorrelate(a, b);
    ASSERT_TRUE(serial.has_value());
    constexpr int kThreads = 4;
    std::vector<std::vector<float>> results(kThreads);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < 5; ++i)
                    if (auto r = SyncCorrelator::fftCrossCorrelate(a, b))
                        results[static_cast<std::size_t>(t)] = r->values;
            });
    }
    for (const auto& r : results)
        EXPECT_EQ(r, serial->values);
}

TEST(CrossCorrelator, MagnitudeEnvelopeIsTheRmsOfEachWholeBlockDroppingTheTail) {
    EXPECT_TRUE(CrossCorrelator::magnitudeEnvelope(std::vector<float>(159, 1.0f), 160).empty());
    EXPECT_TRUE(CrossCorrelator::magnitudeEnvelope({}, 160).empty());
    EXPECT_EQ(CrossCorrelator::magnitudeEnvelope(std::vector<float>(321, 1.0f), 160).size(), 2u);

    auto samples = noise(160 * 12 + 77, 3);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] *= static_cast<float>(1 + i / 160); // a louder block each time
    // Hugely loud tail samples, which must not count.
    for (std::size_t i = 160 * 12; i < samples.size(); ++i)
        samples[i] = 1000.0f;
    const auto env = CrossCorrelator::magnitudeEnvelope(samples, 160);
    ASSERT_EQ(env.size(), 12u);
    for (std::size_t b = 0; b < 12; ++b) {
        double sum = 0;
        for (std::size_t i = b * 160; i < (b + 1) * 160; ++i)
            sum += static_cast<double>(samples[i]) * samples[i];
        EXPECT_NEAR(env[b], std::sqrt(sum / 160), 1e-5 * (1 + env[b])) << "block " << b;
    }
    const auto small = CrossCorrelator::magnitudeEnvelope(std::vector<float>{3, -4, 0, 0, 5}, 2);
    ASSERT_EQ(small.size(), 2u);
    EXPECT_FLOAT_EQ(small[0], std::sqrt(12.5f));
    EXPECT_FLOAT_EQ(small[1], 0.0f);
}

TEST(CrossCorrelatorDeathTest, MagnitudeEnvelopeStopsTheProgramOnANonPositiveBlock) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::vector<float> samples(400, 0.5f);
    EXPECT_DEATH(CrossCorrelator::magnitudeEnvelope(samples, 0), "block length 0");
    EXPECT_DEATH(CrossCorrelator::magnitudeEnvelope(samples, -160), "block length -160");
}
