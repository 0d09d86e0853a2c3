// SPDX-License-Identifier: GPL-3.0-or-later
// The worker side of the analysis: what one clip's job computes.
#include "Trelvane/session/SyncViewModel.hpp"

#include <algorithm>
#include <cmath>

namespace trelvane {

std::vector<float> SyncViewModel::buildWaveform(std::span<const float> samples, double duration) {
    if (samples.empty() || !(duration > 0)) return {};
    const auto bars = static_cast<std::size_t>(std::clamp(std::floor(duration), 10.0, 1000.0));
    const std::size_t block = std::max<std::size_t>(1, samples.size() / bars);
    std::vector<float> out(bars, 0.0f);
    float peak = 0;
    for (std::size_t b = 0; b < bars; ++b) {
        const std::size_t start = b * block;
        // A short clip may have fewer samples than bars; the bars past the end stay 0. Samples
        // beyond the last whole block are left out.
        if (start >= samples.size()) break;
        const std::size_t end = std::min(samples.size(), start + block);
        double sum = 0;
        for (std::size_t i = start; i < end; ++i) sum += static_cast<double>(samples[i]) * samples[i];
        out[b] = static_cast<float>(std::sqrt(sum / static_cast<double>(end - start)));
        peak = std::max(peak, out[b]);
    }
    if (peak > 0)
        for (float& v : out) v = std::sqrt(v / peak);
    return out;
}

} // namespace trelvane
