// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

using namespace trelvane;
namespace PS = trelvane::PairwiseOffsetSolver;
using M = PS::Measurement;

TEST(PairwiseOffsetSolver, EmptyAndSingleNodeNeedNoMeasurements) {
    EXPECT_TRUE(PS::solve(0, 0, {}).empty());
    const std::vector<M> one{{0, 0, 3.0, 5.0f}};
    EXPECT_EQ(PS::solve(1, 0, one), std::vector<double>{0.0});
}

TEST(PairwiseOffsetSolver, OneMeasurementIsReproducedLessTheDiagonalLoad) {
    const std::vector<M> m{{0, 1, 2.5, 10.0f}};
    const auto x = PS::solve(2, 0, m);
    ASSERT_EQ(x.size(), 2u);
    EXPECT_EQ(x[0], 0.0);
    // 10 x = 25 with 0.000001 added to the diagonal.
    EXPECT_DOUBLE_EQ(x[1], 25.0 / (10.0 + 0.000001));
    EXPECT_LT(x[1], 2.5);
    EXPECT_NEAR(x[1], 2.5, 1e-6);

    // Seen from the other end, with node 1 as master: node 0 starts 2.5 s earlier.
    const auto y = PS::solve(2, 1, m);
    EXPECT_EQ(y[1], 0.0);
    EXPECT_NEAR(y[0], -2.5, 1e-6);
}

TEST(PairwiseOffsetSolver, IgnoredMeasurementsChangeNothing) {
    const std::vector<M> base{{0, 1, 2.5, 10.0f}, {1, 2, -1.0, 4.0f}};
    const auto expected = PS::solve(4, 0, base);

    std::vector<M> noisy = base;
    noisy.push_back({0, 2, 100.0, 0.0f}); // no weight
    noisy.push_back({1, 2, 50.0, -3.0f}); // negative weight
    noisy.push_back({2, 2, 7.0, 9.0f});   // a node against itself
    EXPECT_EQ(PS::solve(4, 0, noisy), expected);
    EXPECT_NEAR(expected[2], 1.5, 1e-5);
    EXPECT_EQ(expected[3], 0.0) << "a node without measurements stays at 0";

    const std::vector<M> onlyIgnored{{0, 1, 100.0, 0.0f}, {1, 1, 3.0, 2.0f}};
    EXPECT_EQ(PS::solve(3, 0, onlyIgnored), (std::vector<double>{0.0, 0.0, 0.0}));
}

TEST(PairwiseOffsetSolver, EndOutOfRangeIsIgnoredAtThatEndOnly) {
    // The node's own end still counts, held against a fixed 0 like the master.
    const auto anchored = PS::solve(2, 0, std::vector<M>{{1, 0, 7.0, 9.0f}});
    EXPECT_NEAR(anchored[1], -7.0, 1e-5);
    EXPECT_EQ(PS::solve(2, 0, std::vector<M>{{1, 9, 7.0, 9.0f}}), anchored);
    EXPECT_EQ(PS::solve(2, 0, std::vector<M>{{-4, 1, -7.0, 9.0f}}), anchored);
    EXPECT_EQ(PS::solve(2, 0, std::vector<M>{{-4, 9, 7.0, 9.0f}}), (std::vector<double>{0.0, 0.0}));
}

TEST(PairwiseOffsetSolver, ConsistentGraphIsRecoveredAroundAnyMaster) {
    const std::vector<double> truth{0.0, 12.25, -3.5, 40.0, 7.75};
    std::vector<M> m;
    float w = 3.0f;
    for (int i = 0; i < 5; ++i)
        for (int j = i + 1; j < 5; ++j) {
            if ((i + j) % 3 == 0) continue; // not every pair measured
            m.push_back({i, j, truth[static_cast<std::size_t>(j)] - truth[static_cast<std::size_t>(i)], w});
            w += 1.5f;
        }
    for (int master = 0; master < 5; ++master) {
        const auto x = PS::solve(5, master, m);
        ASSERT_EQ(x.size(), 5u);
        EXPECT_EQ(x[static_cast<std::size_t>(master)], 0.0);
        for (std::size_t k = 0; k < 5; ++k)
            EXPECT_NEAR(x[k], truth[k] - truth[static_cast<std::size_t>(master)], 1e-4) << master << " " << k;
        for (double r : PS::residuals(m, x))
            EXPECT_LT(r, 1e-4);
    }
}

TEST(PairwiseOffsetSolver, ConflictingMeasurementsSettleAtWeightedCompromise) {
    // 0→1 says 1.0, 1→2 says 1.0, 0→2 says 2.6 with twice the weight.
    const std::vector<M> m{{0, 1, 1.0, 1.0f}, {1, 2, 1.0, 1.0f}, {0, 2, 2.6, 2.0f}};
    const auto x = PS::solve(3, 0, m);
    // The normal equations written out: (2+e) x1 - x2 = 1 - 1 = 0; -x1 + (3+e) x2 = 1 + 5.2.
    const double e = 0.000001;
    const double a11 = 2 + e, a12 = -1, a21 = -1, a22 = 3 + e, b1 = 0.0, b2 = 6.2;
    const double det = a11 * a22 - a12 * a21;
    EXPECT_NEAR(x[1], (b1 * a22 - a12 * b2) / det, 1e-9);
    EXPECT_NEAR(x[2], (a11 * b2 - a21 * b1) / det, 1e-9);
    // The weighted compromise lies between what the two routes to node 2 say.
    EXPECT_GT(x[2], 2.0);
    EXPECT_LT(x[2], 2.6);

    const auto r = PS::residuals(m, x);
    ASSERT_EQ(r.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_NEAR(
            r[i],
            std::fabs((x[static_cast<std::size_t>(m[i].to)] - x[static_cast<std::size_t>(m[i].from)]) -
                      m[i].offset),
            1e-12);
    EXPECT_GT(r[0], 0.1);
    EXPECT_GT(r[2], 0.05);
    // The heavier measurement is bent less.
    EXPECT_LT(r[2], r[0] + r[1]);
}

TEST(PairwiseOffsetSolver, PartCutOffFromMasterKeepsItsShapeAroundZero) {
    const std::vector<M> m{{0, 1, 4.0, 8.0f}, {2, 3, 5.0, 8.0f}};
    const auto x = PS::solve(4, 0, m);
    EXPECT_NEAR(x[1], 4.0, 1e-5);
    EXPECT_NEAR(x[3] - x[2], 5.0, 1e-5);
    EXPECT_NEAR(x[2] + x[3], 0.0, 1e-5);
    for (double v : x)
        EXPECT_TRUE(std::isfinite(v));
}

TEST(PairwiseOffsetSolver, MasterOutOfRangeLeavesEveryNodeFree) {
    // No node is pinned: only the diagonal load holds the system, which stays finite.
    const std::vector<M> m{{0, 1, 2.0, 5.0f}};
    const auto x = PS::solve(2, 7, m);
    ASSERT_EQ(x.size(), 2u);
    EXPECT_NEAR(x[1] - x[0], 2.0, 1e-5);
    EXPECT_NEAR(x[0] + x[1], 0.0, 1e-5);
}

TEST(PairwiseOffsetSolver, ResidualsOfOutOfRangeEndsAreZero) {
    const std::vector<M> m{{0, 1, 1.0, 1.0f}, {0, 5, 1.0, 1.0f}, {-2, 1, 1.0, 1.0f}};
    const std::vector<double> solved{0.0, 3.0};
    EXPECT_EQ(PS::residuals(m, solved), (std::vector<double>{2.0, 0.0, 0.0}));
    EXPECT_TRUE(PS::residuals({}, solved).empty());
}

TEST(PairwiseOffsetSolver, LargeNoisyChainStaysCloseToTruth) {
    // Forty nodes in a chain with cross links, each measurement off by up to 20 ms: pivoting keeps
    // the elimination stable and the solution within the noise.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> pos(-100, 100), err(-0.02, 0.02);
    std::vector<double> truth(40);
    for (auto& t : truth)
        t = pos(rng);
    truth[0] = 0;
    std::vector<M> m;
    for (int i = 0; i + 1 < 40; ++i) {
        m.push_back({i, i + 1,
                     truth[static_cast<std::size_t>(i + 1)] - truth[static_cast<std::size_t>(i)] + err(rng),
                     10.0f});
        if (i + 3 < 40)
            m.push_back(
                {i + 3, i,
                 truth[static_cast<std::size_t>(i)] - truth[static_cast<std::size_t>(i + 3)] + err(rng),
                 7.0f});
    }
    const auto x = PS::solve(40, 0, m);
    for (std::size_t k = 0; k < 40; ++k)
        EXPECT_NEAR(x[k], truth[k], 0.2) << k;
}
