// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using namespace trelvane;
using namespace trelvane::SyncEngine;
using trelvane::test::LogCapture;

namespace {

ClipItem clipAt(double start, double duration, const std::string& file = "clip.mov") {
    ClipItem c;
    c.url = Url::fromPath("/shoot/" + file);
    c.startOffset = start;
    c.duration = duration;
    return c;
}

TrackSource trackOf(const std::string& name, std::vector<ClipItem> clips) {
    TrackSource t;
    t.name = name;
    t.clips = std::move(clips);
    return t;
}

} // namespace

TEST(Finishing, OverlapsBeyondToleranceArePushedInStoredOrderAndTheTimelineStartsAtZero) {
    std::vector<TrackSource> tracks{
        trackOf("A", {clipAt(0, 10), clipAt(10.0 - 0.05, 10)}),
        trackOf("B", {clipAt(0, 10), clipAt(10.0 - 0.06, 10)}),
        trackOf("C", {clipAt(0, 10), clipAt(5, 10), clipAt(16, 4), clipAt(2, 1)})};
    resolveOverlaps(tracks);
    EXPECT_EQ(tracks[0].clips[1].startOffset, 10.0 - 0.05); // exactly 0.05 s is rounding
    EXPECT_EQ(tracks[1].clips[1].startOffset, 10.0);
    // A pushed clip pushes the next; nothing is sorted, so a clip stored late but placed early moves too.
    EXPECT_EQ(tracks[2].clips[1].startOffset, 10.0);
    EXPECT_EQ(tracks[2].clips[2].startOffset, 20.0);
    EXPECT_EQ(tracks[2].clips[3].startOffset, 24.0);

    // Days are laid in the order of their regions: a clip of the day laid first, stored after a
    // clip of a later-laid day, stays where it was placed; its own day's clips still push it.
    auto later = clipAt(600, 100), first = clipAt(0, 100), next = clipAt(50, 10);
    later.dayRegion = "day-1";
    first.dayRegion = next.dayRegion = "day-0";
    std::vector<TrackSource> days{trackOf("D", {later, first, next})};
    resolveOverlaps(days);
    EXPECT_EQ(days[0].clips[1].startOffset, 0.0);
    EXPECT_EQ(days[0].clips[2].startOffset, 100.0);

    // The normalised timeline starts at zero.
    std::vector<TrackSource> spread{trackOf("A", {clipAt(-12.5, 10), clipAt(3, 10)}),
                                    trackOf("B", {clipAt(-4, 10)}), trackOf("Empty", {})};
    normaliseOffsets(spread);
    EXPECT_EQ(spread[0].clips[0].startOffset, 0.0);
    EXPECT_EQ(spread[0].clips[1].startOffset, 15.5);
    EXPECT_EQ(spread[1].clips[0].startOffset, 8.5);
    // A late start moves back; within a millisecond of zero is zero already.
    for (const auto& [start, normalised] : {std::pair{40.0, 0.0}, {0.0005, 0.0005}}) {
        std::vector<TrackSource> one{trackOf("A", {clipAt(start, 10), clipAt(100, 10)})};
        normaliseOffsets(one);
        EXPECT_EQ(one[0].clips[0].startOffset, normalised) << start;
        EXPECT_EQ(one[0].clips[1].startOffset, 100 - start + normalised) << start;
    }
}

TEST(Finishing, ReportListsEveryClipAndSumsUpEvenWhenThereAreNone) {
    ClipItem synced = clipAt(0, 12.5, "A001.mov");
    synced.syncStatus = SyncStatus::synced;
    synced.matchScore = 9.14f;
    synced.placementPass = PlacementPass::chain;
    ClipItem clocked = clipAt(12.5, 7.5, "B002.wav");
    clocked.syncStatus = SyncStatus::weak;
    clocked.placementPass = PlacementPass::clock;
    ClipItem failed = clipAt(3600, 125, "C003.mov");
    failed.syncStatus = SyncStatus::failed;
    failed.placementPass = PlacementPass::interpolated;
    ClipItem pending = clipAt(20, 5);
    pending.syncStatus = SyncStatus::pending;
    std::map<Uuid, MatchInfo> info{{synced.id, MatchInfo{3.21, 9.14f, PlacementPass::chain}},
                                   {clocked.id, MatchInfo{std::nullopt, 0.0f, std::nullopt}}};
    const std::vector<TrackSource> tracks{trackOf("Cam A", {synced, failed}),
                                          trackOf("Zoom", {clocked, pending})};

    LogCapture log;
    logReport(tracks, info);
    const std::vector<std::string> expected{
        "[SyncEngine] LAYOUT 'Cam A'",
        "[SyncEngine]    A001.mov                      start=0.0s  end=12.5s  synced  raw=3.2 score=9.1 [A1]",
        "[SyncEngine]    C003.mov                      start=3600.0s  end=3725.0s  failed         score=   "
        "[interp]",
        "[SyncEngine] LAYOUT 'Zoom'",
        "[SyncEngine]    B002.wav                      start=12.5s  end=20.0s  weak         score=   [clock]",
        "[SyncEngine]    clip.mov                      start=20.0s  end=25.0s  pending         score=   []",
        "[SyncEngine] DONE: timeline=3725s (1h02m), synced=1 weak=1 failed=1 / 4",
    };
    EXPECT_EQ(log.lines(), expected);

    LogCapture none;
    logReport({}, {});
    EXPECT_EQ(none.lines(), std::vector<std::string>{
                                "[SyncEngine] DONE: timeline=0s (0h00m), synced=0 weak=0 failed=0 / 0"});
}
