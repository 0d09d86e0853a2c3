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

TEST(CrossCorrelatorDeathTest, MagnitudeEnvelopeTakesWholeBlocksAndStopsTheProgramOnANonPositiveOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::vector<float> samples(400, 0.5f);
    EXPECT_DEATH(CrossCorrelator::magnitudeEnvelope(samples, 0), "block length 0");
    EXPECT_DEATH(CrossCorrelator::magnitudeEnvelope(samples, -160), "block length -160");
    // Whole blocks only: the tail is dropped.
    for (const auto& [count, blocks] : {std::pair<std::size_t, std::size_t>{159, 0}, {321, 2}})
        EXPECT_EQ(CrossCorrelator::magnitudeEnvelope(std::vector<float>(count, 1.0f), 160).size(), blocks);
}
