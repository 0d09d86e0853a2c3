// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/stacks/StackBuilder.hpp"

#include "TrelvaneEngine/support/EngineLog.hpp"

#include <cstddef>

namespace trelvane::StackBuilder {

std::optional<Advice> advice(const std::vector<TrackSource>& sources, int maxProbes) {
    // One device can't record the same moment twice: clips of one device that share audio are
    // repeated takes over a playback.
    std::map<std::string, std::vector<const ClipItem*>> byDevice;
    for (const auto& t : sources)
        for (const auto& c : t.clips) {
            if (!c.bandFeature || !(c.duration >= kAdviceShortestClip)) continue;
            byDevice[c.deviceName ? *c.deviceName : "track:" + t.id.string()].push_back(&c);
        }

    int probed = 0, matches = 0;
    Advice found;
    bool budgetSpent = false;
    for (const auto& [device, clips] : byDevice) {
        if (budgetSpent) break;
        const std::size_t n = clips.size();
        if (n < 2) continue;
        // An even sample, so that a long card is not read pair by pair.
        const std::size_t step = std::max<std::size_t>(n, 4) / 4;
        std::vector<const ClipItem*> sample;
        for (std::size_t i = 0; i < n; i += step)
            sample.push_back(clips[i]);
        for (std::size_t i = 0; i < sample.size() && !budgetSpent; ++i)
            for (std::size_t j = i + 1; j < sample.size(); ++j) {
                if (probed >= maxProbes) {
                    budgetSpent = true;
                    break;
                }
                const auto result = compare(*sample[i], *sample[j]);
                ++probed;
                if (!result || !result->confident) continue;
                if (++matches == 1) {
                    found.example = {sample[i]->url.baseName(), sample[j]->url.baseName()};
                    const double offset = result->offset;
                    found.overlapSeconds =
                        std::max(0.0, std::min(sample[i]->duration, sample[j]->duration + offset) -
                                          std::max(offset, 0.0));
                }
            }
    }

    if (matches == 0) return std::nullopt;
    if (matches < 2 || static_cast<double>(matches) < static_cast<double>(probed) / 4.0) {
        EngineLog::logf(
            "[Stacks] advice withheld: %d of %d sampled pair(s) share audio (need ≥2 and ≥25%%) — reads "
            "as an ordinary shoot",
            matches, probed);
        return std::nullopt;
    }
    found.matches = matches;
    found.probed = probed;
    EngineLog::logf(
        "[Stacks] advice: %d of %d sampled pair(s) from one device share music (e.g. %s / %s, %ds in common)",
        matches, probed, found.example.first, found.example.second, static_cast<int>(found.overlapSeconds));
    return found;
}

} // namespace trelvane::StackBuilder
