// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// One offset per node from measured offsets between pairs of nodes, by weighted least squares with
// one node pinned at zero. Used where clips were compared only with each other (camera clusters,
// stacks of takes). Dense elimination in cubic time: node counts are the clips of one cluster or
// stack, and small.

#include <span>
#include <vector>

namespace trelvane::PairwiseOffsetSolver {

struct Measurement {
    int from = 0;
    int to = 0;
    double offset = 0; // measured x[to] - x[from], seconds
    float weight = 0;  // confidence, usually a correlation score; 0 or less is ignored
};

// One offset per node; `master`'s entry is 0. A node with no measurement, or a part of the graph
// not connected to `master`, settles at 0. Never fails: ends outside 0..nodeCount-1 are ignored.
std::vector<double> solve(int nodeCount, int master, std::span<const Measurement> measurements);

// abs((solved[to] - solved[from]) - offset) for each measurement (0 where an end is out of range).
std::vector<double> residuals(std::span<const Measurement> measurements, std::span<const double> solved);

} // namespace trelvane::PairwiseOffsetSolver
