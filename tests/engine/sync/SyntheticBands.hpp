// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Band features made directly, without audio: eight series of seeded noise, cut and mixed so that
// the offset between two features is known to the frame. White noise correlates with itself only
// at one lag, which makes every true match a sharp, strong peak and every false one weak.

#include "TrelvaneEngine/features/SpectralBands.hpp"

#include <random>
#include <span>
#include <vector>

namespace trelvane::test {

inline constexpr int kFps = SpectralBands::kFrameRate;
inline constexpr double kFrame = 1.0 / kFps;

inline SpectralBands::Feature noiseBands(int frames, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, 1.0f);
    SpectralBands::Feature f;
    f.frames = frames;
    for (int b = 0; b < SpectralBands::kBandCount; ++b) {
        std::vector<float> band(static_cast<std::size_t>(frames));
        for (auto& x : band)
            x = dist(rng);
        f.bands.push_back(SpectralBands::zscore(band));
    }
    return f;
}

// Frames [from, from + frames) of `f`, normalised again as a feature of its own.
inline SpectralBands::Feature cutBands(const SpectralBands::Feature& f, int from, int frames) {
    SpectralBands::Feature c;
    c.frames = frames;
    for (const auto& band : f.bands)
        c.bands.push_back(SpectralBands::zscore(std::span<const float>(band).subspan(
            static_cast<std::size_t>(from), static_cast<std::size_t>(frames))));
    return c;
}

// `f` under seeded noise of `level` times its own strength: the same sound, heard worse.
inline SpectralBands::Feature noisyBands(const SpectralBands::Feature& f, float level, unsigned seed) {
    const auto n = noiseBands(f.frames, seed);
    SpectralBands::Feature m;
    m.frames = f.frames;
    for (std::size_t i = 0; i < f.bands.size(); ++i) {
        std::vector<float> band(f.bands[i].size());
        for (std::size_t k = 0; k < band.size(); ++k)
            band[k] = f.bands[i][k] + level * n.bands[i][k];
        m.bands.push_back(SpectralBands::zscore(band));
    }
    return m;
}

} // namespace trelvane::test
