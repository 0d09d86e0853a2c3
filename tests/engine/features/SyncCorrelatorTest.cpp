// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SyncCorrelator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
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

} // namespace

TEST(SyncCorrelator, CorrelationIsTwiceThePlainCircularOneOverAtLeastEightPoints) {
    // na, nb, P: the next power of two of na + nb - 1, at least 8; fewer points are refused (0).
    // The cases both ways round pin which input leads: a lag k means a[m + k] meets b[m].
    const std::tuple<std::size_t, std::size_t, std::size_t> cases[] = {
        {3, 3, 8}, {4, 2, 8}, {5, 11, 16}, {37, 100, 256}, {100, 37, 256}, {2, 3, 0},
        {3, 2, 0}, {0, 1, 0}, {1, 1, 0},   {0, 0, 0},      {0, 9, 0},      {9, 0, 0}};
    unsigned seed = 10;
    for (const auto& [na, nb, p] : cases) {
        SCOPED_TRACE(std::to_string(na) + "+" + std::to_string(nb));
        const auto a = noise(na, ++seed), b = noise(nb, ++seed);
        const auto r = SyncCorrelator::fftCrossCorrelate(a, b);
        ASSERT_EQ(r.has_value(), p > 0);
        if (!r) continue;
        ASSERT_EQ(r->length, static_cast<int>(p));
        ASSERT_EQ(r->values.size(), p);
        for (std::size_t k = 0; k < p; ++k) {
            double s = 0; // both inputs zero-padded to P
            for (std::size_t m = 0; m < nb; ++m)
                if ((m + k) % p < na) s += static_cast<double>(a[(m + k) % p]) * b[m];
            EXPECT_NEAR(r->values[k], 2 * s, 1e-3 * (1 + std::abs(2 * s))) << "k " << k;
        }
    }
    // The shared plans stop at the sizes a correlation may take.
    EXPECT_EQ(SyncCorrelator::sharedFFTSetup(0), nullptr);
    EXPECT_EQ(SyncCorrelator::sharedFFTSetup(SyncCorrelator::kMaxLog2n + 1), nullptr);
}

TEST(CrossCorrelator, MagnitudeEnvelopeIsTheRmsOfEachWholeBlockDroppingTheTail) {
    for (const auto& [samples, blocks] :
         {std::pair<std::size_t, std::size_t>{0, 0}, {159, 0}, {160, 1}, {321, 2}})
        EXPECT_EQ(CrossCorrelator::magnitudeEnvelope(std::vector<float>(samples, 1.0f), 160).size(), blocks)
            << samples << " samples";
    auto samples = noise(160 * 12 + 77, 3);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] *= i < 160 * 12 ? static_cast<float>(1 + i / 160) : 1000.0f; // louder blocks, a huge tail
    const auto env = CrossCorrelator::magnitudeEnvelope(samples, 160);
    ASSERT_EQ(env.size(), 12u);
    for (std::size_t b = 0; b < 12; ++b) {
        double sum = 0;
        for (std::size_t i = b * 160; i < (b + 1) * 160; ++i)
            sum += static_cast<double>(samples[i]) * samples[i];
        EXPECT_NEAR(env[b], std::sqrt(sum / 160), 1e-5 * (1 + env[b])) << "block " << b;
    }
}

TEST(CrossCorrelatorDeathTest, MagnitudeEnvelopeStopsTheProgramOnANonPositiveBlock) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::vector<float> samples(400, 0.5f);
    EXPECT_DEATH(CrossCorrelator::magnitudeEnvelope(samples, 0), "block length 0");
    EXPECT_DEATH(CrossCorrelator::magnitudeEnvelope(samples, -160), "block length -160");
}
