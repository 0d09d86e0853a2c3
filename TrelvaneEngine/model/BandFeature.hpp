// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The record a clip's analysis leaves for matching, kept in the model so that the clip model and
// the cache hold it without depending on how it is computed (SpectralBands computes it and knows
// it as `SpectralBands::Feature`).

#include <vector>

namespace trelvane {

// Eight z-scored band-energy series at 25 frames per second (window 1,024 samples, hop 640 at
// 16 kHz). `frames` is the length of each series; 0 for an empty feature, whose `bands` is empty.
struct BandFeature {
    std::vector<std::vector<float>> bands;
    int frames = 0;

    bool operator==(const BandFeature&) const = default;
};

} // namespace trelvane
