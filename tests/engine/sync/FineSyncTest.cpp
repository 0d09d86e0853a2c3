// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/FineSync.hpp"

#include "TestSupport.hpp"
#include "engine/features/Signals.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stop_token>
#include <string>
#include <vector>

using namespace trelvane;
using namespace trelvane::test;

namespace {

namespace fs = std::filesystem;

// One performance heard by a camera from its start, a recorder from 10 s and a fraction of a
// sample on, a second recorder whose clock runs 125 ppm slow from 5 s on, and a clip of sound that
// has nothing to do with it; each placed by the band sync a few tens of milliseconds out.
struct Shoot {
    static constexpr double kRecorderStart = 160067.37 / kRate;
    static constexpr double kDriftingStart = 5.0;
    static constexpr double kDriftPPM = 125;

    TempDir dir;
    std::vector<TrackSource> tracks;

    Shoot() {
        const auto master = noise(std::size_t(70 * kRate), 21);
        writeWav(dir / "cam.wav", resample(master, 1.0, 0, 60 * kRate));
        writeWav(dir / "rec.wav", resample(master, 1.0, -kRecorderStart * kRate, 30 * kRate));
        writeWav(dir / "drift.wav",
                 resample(master, 1 + kDriftPPM * 1e-6, -kDriftingStart * kRate, std::size_t(50 * kRate)));
        writeWav(dir / "stray.wav", noise(std::size_t(15 * kRate), 99));
        tracks = {track("Cam", SourceType::video, {clip("cam.wav", 0, 60)}),
                  track("Rec", SourceType::audio,
                        {clip("rec.wav", kRecorderStart + 0.017, 30), clip("stray.wav", 44, 15)}),
                  track("Rec2", SourceType::audio, {clip("drift.wav", kDriftingStart - 0.023, 50)})};
    }

    ClipItem clip(const std::string& name, double at, double seconds) const {
        ClipItem c;
        c.url = Url::fromPath(dir / name);
        c.startOffset = at;
        c.duration = seconds;
        c.syncStatus = SyncStatus::synced;
        return c;
    }
    static TrackSource track(const std::string& name, SourceType type, std::vector<ClipItem> clips) {
        TrackSource t;
        t.name = name;
        t.type = type;
        t.clips = std::move(clips);
        return t;
    }
};

FineSync::Options options(std::optional<fs::path> cache = std::nullopt) {
    FineSync::Options o;
    o.align = FineSync::defaultAlignOptions();
    o.cacheFolder = std::move(cache);
    o.workers = 2;
    return o;
}

const ClipItem& at(const std::vector<TrackSource>& tracks, int si, int ci) {
    return tracks[std::size_t(si)].clips[std::size_t(ci)];
}

} // namespace

TEST(FineSync, PlacesClipsToAFractionOfASampleAndMeasuresTheDriftingRecorder) {
    Shoot shoot;
    const auto refined = FineSync::refine(shoot.tracks, options(), {});
    const ClipItem &cam = at(refined, 0, 0), &rec = at(refined, 1, 0), &drifting = at(refined, 2, 0);
    // Against the camera, whose clock is the timeline's, within half a sample (31 us).
    EXPECT_NEAR(rec.startOffset - cam.startOffset, Shoot::kRecorderStart, 3e-5);
    EXPECT_NEAR(drifting.startOffset - cam.startOffset, Shoot::kDriftingStart, 3e-5);
    ASSERT_TRUE(drifting.driftPPM && cam.driftPPM && rec.driftPPM);
    EXPECT_NEAR(*drifting.driftPPM, Shoot::kDriftPPM, 2);
    EXPECT_NEAR(*cam.driftPPM, 0, 2);
    EXPECT_NEAR(*rec.driftPPM, 0, 2);
    EXPECT_LT(*drifting.driftUncertaintyPPM, 2);
    EXPECT_EQ(drifting.refinementNote.value_or("").rfind("lined up to the sample with '", 0), 0u);
    // Its drift moves its end by 6 ms: the tool tip says so; the others' says nothing of a clock.
    EXPECT_NE(drifting.placementExplanation().find(" · clock +125."), std::string::npos);
    EXPECT_EQ(rec.refinementNote.value_or("").find("clock"), std::string::npos);
    // The timeline still starts at 0.
    EXPECT_DOUBLE_EQ(cam.startOffset, 0);

    // Sound unrelated to everything it overlaps keeps where the band sync put it against the
    // clips around it, and says why.
    const ClipItem& stray = at(refined, 1, 1);
    EXPECT_FALSE(stray.driftPPM);
    EXPECT_EQ(stray.refinementNote.value_or(""),
              "band placement kept (within a frame) — its sound and the clips "
              "around it did not agree closely enough in enough windows");
    EXPECT_NE(stray.placementExplanation().find("band placement kept"), std::string::npos);
    EXPECT_NEAR(stray.startOffset - cam.startOffset, 44, 0.05);
}

TEST(FineSync, ASecondRunReadsEveryPairFromTheCacheAndGivesTheSameBits) {
    Shoot shoot;
    const fs::path cache = shoot.dir / "cache";
    const auto first = FineSync::refine(shoot.tracks, options(cache), {});
    // The media swapped for noise of the same size and time: only the cache can still tell.
    for (const char* name : {"cam.wav", "rec.wav", "drift.wav", "stray.wav"}) {
        const fs::path file = shoot.dir / name;
        const auto when = fs::last_write_time(file);
        const auto size = fs::file_size(file);
        std::ofstream(file, std::ios::binary | std::ios::trunc) << std::string(size, '\x5a');
        fs::last_write_time(file, when);
    }
    const auto second = FineSync::refine(shoot.tracks, options(cache), {});
    for (int si = 0; si < 3; ++si)
        for (int ci = 0; ci < int(shoot.tracks[std::size_t(si)].clips.size()); ++ci) {
            EXPECT_EQ(at(first, si, ci).startOffset, at(second, si, ci).startOffset);
            EXPECT_EQ(at(first, si, ci).driftPPM, at(second, si, ci).driftPPM);
            EXPECT_EQ(at(first, si, ci).refinementNote, at(second, si, ci).refinementNote);
        }
    // Without it nothing can be measured, and every clip keeps its band placement.
    const auto uncached = FineSync::refine(shoot.tracks, options(), {});
    EXPECT_FALSE(at(uncached, 2, 0).driftPPM);
    EXPECT_EQ(at(uncached, 2, 0).refinementNote.value_or("").rfind("band placement kept", 0), 0u);
}

TEST(FineSync, AStopLeavesTheTimelineAsItWasAndWeakClipsFollowSyncedOnes) {
    Shoot shoot;
    std::stop_source stop;
    stop.request_stop();
    const auto stopped = FineSync::refine(shoot.tracks, options(), {}, stop.get_token());
    EXPECT_EQ(at(stopped, 1, 0).startOffset, at(shoot.tracks, 1, 0).startOffset);

    // A weak clip is lined up with the synced clips it overlaps but never moves them, and one
    // that can't be says nothing: weak already tells the user to check it by ear.
    shoot.tracks[1].clips[0].syncStatus = SyncStatus::weak;
    shoot.tracks[1].clips[1].syncStatus = SyncStatus::weak;
    const auto withWeak = FineSync::refine(shoot.tracks, options(), {});
    EXPECT_NEAR(at(withWeak, 1, 0).startOffset - at(withWeak, 0, 0).startOffset, Shoot::kRecorderStart, 3e-5);
    EXPECT_EQ(at(withWeak, 1, 0).syncStatus, SyncStatus::weak);
    EXPECT_NEAR(at(withWeak, 2, 0).startOffset - at(withWeak, 0, 0).startOffset, Shoot::kDriftingStart, 3e-5);
    EXPECT_FALSE(at(withWeak, 1, 1).refinementNote);

    // Nothing else is measured, and a synced clip with no synced partner says so.
    for (auto& track : shoot.tracks)
        for (auto& clip : track.clips)
            clip.syncStatus = SyncStatus::failed;
    shoot.tracks[0].clips[0].syncStatus = SyncStatus::synced;
    const auto lone = FineSync::refine(shoot.tracks, options(), {});
    EXPECT_EQ(at(lone, 1, 0).startOffset, at(shoot.tracks, 1, 0).startOffset);
    EXPECT_FALSE(at(lone, 1, 0).refinementNote);
    EXPECT_EQ(at(lone, 0, 0).refinementNote.value_or(""),
              "band placement kept (within a frame) — no clip of another track overlaps it by 6 s");
}
