// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Close gaps: squeezes out the stretches of timeline in which no clip of any track runs, keeping
// every clip's place relative to its neighbours.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <map>
#include <optional>
#include <vector>

namespace trelvane::GapCloser {

// A pause up to this long (seconds) is no gap.
inline constexpr double kGapTolerance = 0.5;
// Less than this much removal in all (seconds) is not worth moving anything.
inline constexpr double kMinimumRemoval = 0.5;
inline constexpr double kBoundaryTolerance = 0.0001;

struct Closed {
    std::map<Uuid, double> offsets; // clip id -> new start
    double removed = 0;             // seconds taken out, the lead-in included
    int gaps = 0;                   // inner gaps closed (the lead-in not counted)
};

// The new positions, or nothing when there are no clips or nothing worth closing.
std::optional<Closed> closedOffsets(const std::vector<TrackSource>& sources);

} // namespace trelvane::GapCloser
