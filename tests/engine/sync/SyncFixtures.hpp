// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Shoots made of band features alone: noise bands standing for a long performance, and clips that
// are cuts of it (each roughened by noise of its own, as a different microphone would hear it),
// with known true positions. Enough for the sync engine, which never decodes, and cheap enough for
// shoots of an hour.

#include "TestSupport.hpp"
#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"
#include "engine/sync/SyntheticBands.hpp"

#include <gtest/gtest.h>

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace trelvane::test {

// 2025-06-14 19:30:00 UTC, as a fixed start of the performance, and `seconds` after it.
inline Date dateAt(double seconds) {
    return dateFromUnixSeconds(1'749'929'400.0 + seconds);
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

inline ClipSpec clocked(const std::string& name, double start, double dur, double clock,
                        ClockQuality q = ClockQuality::embedded) {
    return {name, start, dur, true, clock, q};
}

// A track of `clips`, each the cut of `perf` it spans under `roughness` times its strength of noise
// of its own (seeds differ per clip).
inline TrackSource makeTrack(const SpectralBands::Feature& perf, const std::string& name, SourceType type,
                             const std::vector<ClipSpec>& clips, float roughness = 0.6f, unsigned seed = 1) {
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
            c.bandFeature = noisyBands(
                cutBands(perf, static_cast<int>(spec.start * kFps), static_cast<int>(spec.duration * kFps)),
                roughness, s++ * 7919u);
        else
            c.audioUsability = AudioUsability::silent;
        if (spec.clock) c.recordingDate = dateAt(*spec.clock);
        c.clockQuality = spec.quality;
        t.clips.push_back(std::move(c));
    }
    return t;
}

template <typename Tracks> auto& clipNamed(Tracks& tracks, const std::string& baseName) {
    for (auto& t : tracks)
        for (auto& c : t.clips)
            if (c.url.baseName() == baseName) return c;
    throw std::runtime_error("no clip " + baseName);
}

inline constexpr auto synced = SyncStatus::synced, weak = SyncStatus::weak, pending = SyncStatus::pending;

struct Expect {
    const char* clip;
    double at; // timeline position, seconds
    SyncStatus status;
};

// A shoot to synchronise, with the engine's log, shown when the test fails: it says how each clip
// was placed.
struct Shoot {
    std::vector<TrackSource> tracks;
    LogCapture log;

    explicit Shoot(std::vector<TrackSource> t = {}) : tracks(std::move(t)) {}
    ~Shoot() {
        if (::testing::Test::HasFailure())
            for (const auto& line : log.lines())
                std::cerr << line << '\n';
    }
    ClipItem& clip(const std::string& name) { return clipNamed(tracks, name); }
    // Runs the sync, keeps its result in `tracks` and checks every expectation to the frame.
    std::vector<TrackSource> run(const std::vector<Expect>& expected = {}, int workers = 2,
                                 const ProgressFn& progress = nullptr) {
        tracks = SyncEngine::synchronise(tracks, progress, nullptr, {}, workers);
        for (const auto& e : expected) {
            EXPECT_NEAR(clip(e.clip).startOffset, e.at, kFrame) << e.clip;
            EXPECT_EQ(clip(e.clip).syncStatus, e.status) << e.clip;
        }
        return tracks;
    }
};

} // namespace trelvane::test
