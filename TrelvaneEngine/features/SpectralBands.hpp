// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <vector>

namespace trelvane::SpectralBands {

// Eight z-scored band-energy series at 25 frames per second (window 1,024 samples, hop 640 at
// 16 kHz). `frames` is the length of each series; 0 for an empty feature, whose `bands` is empty.
struct Feature {
    std::vector<std::vector<float>> bands;
    int frames = 0;

    bool operator==(const Feature&) const = default;
};

} // namespace trelvane::SpectralBands
