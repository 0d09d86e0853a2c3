// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Shoots made of band features alone: one long "performance" of broadband noise whose feature is
// computed once, and clips that are cuts of it (each roughened by its own noise, as a different
// microphone would), with known true positions. Enough for the sync engine, which never decodes.

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "engine/sync/SyntheticBands.hpp"

#include <chrono>
#include <random>
#include <string>
#include <vector>

namespace trelvane::test {

class Performance {
  public:
    // `seconds` of noise at 16 kHz whose level jumps every frame, so that the bands have sharp
    // structure, as speech has.
    explicit Performance(double seconds, unsigned seed = 7) {
        std::mt19937 rng(seed);
        std::normal_distribution<float> noise(0.0f, 1.0f);
        std::uniform_real_distribution<float> level(0.05f, 1.0f);
        std::vector<float> pcm(static_cast<std::size_t>(seconds * SpectralBands::kSampleRate));
        float gain = 0.5f;
        for (std::size_t i = 0; i < pcm.size(); ++i) {
            if (i % 640 == 0) gain = level(rng);
            pcm[i] = gain * noise(rng) * 0.2f;
        }
        feature_ = SpectralBands::compute(pcm);
    }

    // The cut [start, start + duration) with `roughness` standard deviations of noise on each band.
    SpectralBands::Feature cut(double start, double duration, float roughness, unsigned seed) const {
        auto f = SpectralBands::slice(feature_, start, duration);
        if (!f) return {};
        std::mt19937 rng(seed);
        std::normal_distribution<float> noise(0.0f, roughness);
        for (auto& band : f->bands)
            for (auto& v : band)
                v += noise(rng);
        return *f;
    }

    const SpectralBands::Feature& feature() const { return feature_; }

  private:
    SpectralBands::Feature feature_;
};

inline Date dateAt(double secondsAfterEpoch) {
    // 2025-06-14 19:30:00 UTC, as a fixed start of the performance.
    const auto epoch = std::chrono::sys_seconds{std::chrono::seconds{1749929400}};
    return std::chrono::time_point_cast<std::chrono::microseconds>(epoch) +
           std::chrono::microseconds(static_cast<long long>(secondsAfterEpoch * 1e6));
}

struct ClipSpec {
    ClipSpec(std::string n, double s, double d, bool audio = true, std::optional<double> c = std::nullopt,
             ClockQuality q = ClockQuality::none)
        : name(std::move(n)), start(s), duration(d), withAudio(audio), clock(c), quality(q) {}

    std::string name;
    double start = 0; // true position in the performance, seconds
    double duration = 0;
    bool withAudio = true;
    std::optional<double> clock; // recording date as seconds after the performance's start
    ClockQuality quality = ClockQuality::none;
};

// A track of `clips`, each with the feature `featureOf(spec, seed)` gives it (seeds differ per clip).
template <typename FeatureOf>
TrackSource trackOf(const std::string& name, SourceType type, const std::vector<ClipSpec>& clips,
                    unsigned seed, const FeatureOf& featureOf) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = "/shoot";
    unsigned s = seed;
    for (const auto& spec : clips) {
        ClipItem c;
        c.url =
            Url::fromPath("/shoot/" + name + "/" + spec.name + (type == SourceType::audio ? ".wav" : ".mov"));
        c.duration = spec.duration;
        if (spec.withAudio)
            c.bandFeature = featureOf(spec, s++ * 7919u);
        else
            c.audioUsability = AudioUsability::silent;
        if (spec.clock) c.recordingDate = dateAt(*spec.clock);
        c.clockQuality = spec.quality;
        t.clips.push_back(std::move(c));
    }
    return t;
}

inline TrackSource makeTrack(const Performance& perf, const std::string& name, SourceType type,
                             const std::vector<ClipSpec>& clips, float roughness = 0.6f, unsigned seed = 1) {
    return trackOf(name, type, clips, seed, [&](const ClipSpec& spec, unsigned s) {
        return perf.cut(spec.start, spec.duration, roughness, s);
    });
}

// The same from band noise standing for the performance (no audio at all): cheap enough for shoots
// of an hour. Each clip is its cut under `roughness` times its strength of noise of its own.
inline TrackSource makeTrack(const SpectralBands::Feature& perf, const std::string& name, SourceType type,
                             const std::vector<ClipSpec>& clips, float roughness = 0.6f, unsigned seed = 1) {
    return trackOf(name, type, clips, seed, [&](const ClipSpec& spec, unsigned s) {
        return noisyBands(
            cutBands(perf, static_cast<int>(spec.start * kFps), static_cast<int>(spec.duration * kFps)),
            roughness, s);
    });
}

} // namespace trelvane::test
