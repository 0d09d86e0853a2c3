// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

using namespace trelvane;
namespace PS = trelvane::PairwiseOffsetSolver;
using M = PS::Measurement;

TEST(PairwiseOffsetSolver, MeasurementsItCannotUseChangeNothing) {
    EXPECT_TRUE(PS::solve(0, 0, {}).empty());
    EXPECT_EQ(PS::solve(1, 0, std::vector<M>{{0, 0, 3.0, 5.0f}}), std::vector<double>{0.0});
    // One measurement: 10 x = 25 with 0.000001 added to the diagonal.
    EXPECT_DOUBLE_EQ(PS::solve(2, 0, std::vector<M>{{0, 1, 2.5, 10.0f}})[1], 25.0 / (10.0 + 0.000001));
    const std::vector<M> base{{0, 1, 2.5, 10.0f}, {1, 2, -1.0, 4.0f}};
    const auto expected = PS::solve(4, 0, base);
    EXPECT_NEAR(expected[2], 1.5, 1e-5);
    EXPECT_EQ(expected[3], 0.0) << "a node without measurements stays at 0";
    std::vector<M> noisy = base;
    noisy.push_back({0, 2, 100.0, 0.0f}); // no weight
    noisy.push_back({1, 2, 50.0, -3.0f}); // negative weight
    noisy.push_back({2, 2, 7.0, 9.0f});   // a node against itself
    EXPECT_EQ(PS::solve(4, 0, noisy), expected);

    // An end out of range is ignored at that end only: the other is held against a fixed 0.
    const auto anchored = PS::solve(2, 0, std::vector<M>{{1, 0, 7.0, 9.0f}});
    EXPECT_NEAR(anchored[1], -7.0, 1e-5);
    EXPECT_EQ(PS::solve(2, 0, std::vector<M>{{1, 9, 7.0, 9.0f}}), anchored);
    EXPECT_EQ(PS::solve(2, 0, std::vector<M>{{-4, 1, -7.0, 9.0f}}), anchored);
    EXPECT_EQ(PS::solve(2, 0, std::vector<M>{{-4, 9, 7.0, 9.0f}}), (std::vector<double>{0.0, 0.0}));
    const std::vector<M> ends{{0, 1, 1.0, 1.0f}, {0, 5, 1.0, 1.0f}, {-2, 1, 1.0, 1.0f}};
    EXPECT_EQ(PS::residuals(ends, std::vector<double>{0.0, 3.0}), (std::vector<double>{2.0, 0.0, 0.0}));
}

TEST(PairwiseOffsetSolver, ConsistentGraphIsRecoveredAroundAnyMasterAndANoisyOneCloseToTruth) {
    const std::vector<double> truth{0.0, 12.25, -3.5, 40.0, 7.75};
    std::vector<M> m;
    float w = 3.0f;
    for (int i = 0; i < 5; ++i)
        for (int j = i + 1; j < 5; ++j)
            if ((i + j) % 3 != 0) m.push_back({i, j, truth[j] - truth[i], w += 1.5f}); // not every pair
    for (int master = 0; master < 5; ++master) {
        const auto x = PS::solve(5, master, m);
        for (std::size_t k = 0; k < 5; ++k)
            EXPECT_NEAR(x[k], truth[k] - truth[master], 1e-4) << master << " " << k;
        for (double r : PS::residuals(m, x))
            EXPECT_LT(r, 1e-4);
    }

    // Forty nodes in a chain with cross links, each measurement off by up to 20 ms: pivoting keeps
    // the elimination stable and the solution within the noise.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> pos(-100, 100), err(-0.02, 0.02);
    std::vector<double> far(40);
    for (std::size_t k = 1; k < 40; ++k)
        far[k] = pos(rng);
    std::vector<M> links;
    for (int i = 0; i + 1 < 40; ++i) {
        links.push_back({i, i + 1, far[i + 1] - far[i] + err(rng), 10.0f});
        if (i + 3 < 40) links.push_back({i + 3, i, far[i] - far[i + 3] + err(rng), 7.0f});
    }
    const auto solved = PS::solve(40, 0, links);
    for (std::size_t k = 0; k < 40; ++k)
        EXPECT_NEAR(solved[k], far[k], 0.2) << k;
}

TEST(PairwiseOffsetSolver, ConflictingMeasurementsCompromiseAndLooseOnesCentreOnZero) {
    // 0→1 says 1.0, 1→2 says 1.0, 0→2 says 2.6 with twice the weight. The normal equations:
    // (2+e) x1 - x2 = 0; -x1 + (3+e) x2 = 6.2.
    const std::vector<M> m{{0, 1, 1.0, 1.0f}, {1, 2, 1.0, 1.0f}, {0, 2, 2.6, 2.0f}};
    const auto x = PS::solve(3, 0, m);
    const double e = 0.000001, det = (2 + e) * (3 + e) - 1;
    EXPECT_NEAR(x[1], 6.2 / det, 1e-9);
    EXPECT_NEAR(x[2], (2 + e) * 6.2 / det, 1e-9);
    const auto r = PS::residuals(m, x);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_NEAR(r[i], std::fabs(x[m[i].to] - x[m[i].from] - m[i].offset), 1e-12);
    EXPECT_LT(r[2], r[0] + r[1]) << "the heavier measurement is bent less";

    // Parts not tied to the master keep their shape around zero.
    const auto parts = PS::solve(4, 0, std::vector<M>{{0, 1, 4.0, 8.0f}, {2, 3, 5.0, 8.0f}});
    EXPECT_NEAR(parts[1], 4.0, 1e-5);
    EXPECT_NEAR(parts[3] - parts[2], 5.0, 1e-5);
    EXPECT_NEAR(parts[2] + parts[3], 0.0, 1e-5);
    // A master out of range pins nothing: only the diagonal load holds the system.
    const auto free = PS::solve(2, 7, std::vector<M>{{0, 1, 2.0, 5.0f}});
    EXPECT_NEAR(free[1] - free[0], 2.0, 1e-5);
    EXPECT_NEAR(free[0] + free[1], 0.0, 1e-5);
}
