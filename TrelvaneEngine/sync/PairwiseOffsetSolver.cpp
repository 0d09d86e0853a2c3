// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"

#include <cmath>
#include <cstddef>
#include <utility>

namespace trelvane::PairwiseOffsetSolver {

namespace {

// Keeps a node without measurements, or a part of the graph cut off from the master, solvable: it
// settles at 0 instead of making the system singular.
constexpr double kDiagonalLoad = 0.000001;
// A pivot or diagonal entry this small is taken as zero.
constexpr double kSingular = 1e-12;

// Gaussian elimination with partial pivoting. Unknowns the system leaves open come out as 0.
std::vector<double> gaussianSolve(std::vector<std::vector<double>> a, std::vector<double> b) {
    const std::size_t n = b.size();
    if (n == 0) return {};
    for (std::size_t col = 0; col < n; ++col) {
        std::size_t pivot = col;
        for (std::size_t row = col + 1; row < n; ++row)
            if (std::fabs(a[row][col]) > std::fabs(a[pivot][col])) pivot = row;
        if (pivot != col) {
            std::swap(a[pivot], a[col]);
            std::swap(b[pivot], b[col]);
        }
        if (std::fabs(a[col][col]) <= kSingular) continue;
        for (std::size_t row = col + 1; row < n; ++row) {
            const double factor = a[row][col] / a[col][col];
            for (std::size_t k = col; k < n; ++k)
                a[row][k] -= factor * a[col][k];
            b[row] -= factor * b[col];
        }
    }
    std::vector<double> x(n, 0.0);
    for (std::size_t i = n; i-- > 0;) {
        if (std::fabs(a[i][i]) <= kSingular) {
            x[i] = 0;
            continue;
        }
        double sum = b[i];
        for (std::size_t k = i + 1; k < n; ++k)
            sum -= a[i][k] * x[k];
        x[i] = sum / a[i][i];
    }
    return x;
}

} // namespace

std::vector<double> solve(int nodeCount, int master, std::span<const Measurement> measurements) {
    if (nodeCount <= 0) return {};
    std::vector<double> result(static_cast<std::size_t>(nodeCount), 0.0);
    if (nodeCount == 1) return result;

    // Row of each free node, -1 for the master (and for anything out of range).
    std::vector<int> row(static_cast<std::size_t>(nodeCount), -1);
    int freeCount = 0;
    for (int node = 0; node < nodeCount; ++node)
        if (node != master) row[static_cast<std::size_t>(node)] = freeCount++;
    auto rowOf = [&](int node) {
        return node >= 0 && node < nodeCount ? row[static_cast<std::size_t>(node)] : -1;
    };

    const auto n = static_cast<std::size_t>(freeCount);
    std::vector<std::vector<double>> a(n, std::vector<double>(n, 0.0));
    std::vector<double> b(n, 0.0);
    for (const auto& m : measurements) {
        if (m.from == m.to || !(m.weight > 0)) continue;
        const double w = m.weight;
        const int rf = rowOf(m.from), rt = rowOf(m.to);
        if (rf >= 0) {
            a[static_cast<std::size_t>(rf)][static_cast<std::size_t>(rf)] += w;
            b[static_cast<std::size_t>(rf)] -= m.offset * w;
        }
        if (rt >= 0) {
            a[static_cast<std::size_t>(rt)][static_cast<std::size_t>(rt)] += w;
            b[static_cast<std::size_t>(rt)] += m.offset * w;
        }
        if (rf >= 0 && rt >= 0) {
            a[static_cast<std::size_t>(rf)][static_cast<std::size_t>(rt)] -= w;
            a[static_cast<std::size_t>(rt)][static_cast<std::size_t>(rf)] -= w;
        }
    }
    for (std::size_t i = 0; i < n; ++i)
        a[i][i] += kDiagonalLoad;

    const auto x = gaussianSolve(std::move(a), std::move(b));
    for (int node = 0; node < nodeCount; ++node)
        if (const int r = rowOf(node); r >= 0)
            result[static_cast<std::size_t>(node)] = x[static_cast<std::size_t>(r)];
    return result;
}

std::vector<double> residuals(std::span<const Measurement> measurements, std::span<const double> solved) {
    std::vector<double> out;
    out.reserve(measurements.size());
    const auto size = static_cast<long long>(solved.size());
    for (const auto& m : measurements) {
        if (m.from < 0 || m.to < 0 || m.from >= size || m.to >= size) {
            out.push_back(0);
            continue;
        }
        out.push_back(std::fabs(
            (solved[static_cast<std::size_t>(m.to)] - solved[static_cast<std::size_t>(m.from)]) - m.offset));
    }
    return out;
}

} // namespace trelvane::PairwiseOffsetSolver
