// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "engine/sync/SyncFixtures.hpp"

#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <gtest/gtest.h>
#include <iostream>
#include <stop_token>

namespace trelvane::test {
namespace {

const Performance& performance() {
    static const Performance perf(900.0);
    return perf;
}

const ClipItem& clipNamed(const std::vector<TrackSource>& tracks, const std::string& baseName) {
    for (const auto& t : tracks)
        for (const auto& c : t.clips)
            if (c.url.baseName() == baseName) return c;
    throw std::runtime_error("no clip " + baseName);
}

// A recorder of two long takes with a trusted clock, and a camera of four clips without one.
std::vector<TrackSource> recorderAndCamera() {
    const auto& perf = performance();
    return {
        makeTrack(perf, "Rec", SourceType::audio,
                  {{"R1", 10, 290, true, 10, ClockQuality::embedded},
                   {"R2", 320, 380, true, 320, ClockQuality::embedded}},
                  0.3f, 11),
        makeTrack(perf, "Cam", SourceType::video,
                  {{"C1", 40, 60}, {"C2", 150, 90}, {"C3", 400, 45}, {"C4", 600, 30}}, 0.8f, 21),
    };
}

// The engine's log, shown when the test fails: it says how each clip was placed.
struct EngineLogOnFailure : LogCapture {
    ~EngineLogOnFailure() {
        if (::testing::Test::HasFailure())
            for (const auto& line : lines())
                std::cerr << line << '\n';
    }
};

std::vector<TrackSource> run(std::vector<TrackSource> sources, int workers = 2) {
    return SyncEngine::synchronise(std::move(sources), nullptr, nullptr, {}, workers);
}

TEST(SyncEngine, CameraClipsLandWhereTheyWereRecordedAgainstTheRecorder) {
    EngineLogOnFailure log;
    // Progress stays below one and names the clips, without their extensions.
    double last = 0, highest = 0;
    int calls = 0;
    bool named = true;
    const auto out = SyncEngine::synchronise(
        recorderAndCamera(),
        [&](double f, const std::string& name) {
            ++calls;
            last = f;
            highest = std::max(highest, f);
            named = named && !name.empty() && name.find('.') == std::string::npos;
        },
        nullptr, {}, 2);
    EXPECT_GT(calls, 5);
    EXPECT_LE(highest, 0.999);
    EXPECT_GT(last, 0.5);
    EXPECT_TRUE(named);
    const double r1 = clipNamed(out, "R1").startOffset;
    EXPECT_EQ(r1, 0.0) << "the earliest clip starts the timeline";
    EXPECT_NEAR(clipNamed(out, "R2").startOffset - r1, 310.0, 1e-9)
        << "the reference keeps its clock's pause";
    EXPECT_EQ(clipNamed(out, "R1").placementPass, "ref");
    for (auto [name, truth] : {std::pair{"C1", 40.0}, {"C2", 150.0}, {"C3", 400.0}, {"C4", 600.0}}) {
        const auto& c = clipNamed(out, name);
        EXPECT_NEAR(c.startOffset - r1, truth - 10.0, 0.04) << name;
        EXPECT_EQ(c.syncStatus, SyncStatus::synced) << name;
        ASSERT_TRUE(c.matchScore) << name;
        EXPECT_GE(*c.matchScore, 7.0f) << name;
    }
    EXPECT_TRUE(log.contains("[SyncEngine] region 'default' ref 'Rec' (2 tracks,6 clips) @ base=0"));
    EXPECT_TRUE(log.contains("[SyncEngine] DONE: timeline=690s (0h11m), synced=6 weak=0 failed=0 / 6"));
}

TEST(SyncEngine, ResultsAndLogDoNotDependOnTheNumberOfWorkers) {
    auto sources = recorderAndCamera();
    sources.push_back(makeTrack(performance(), "CamB", SourceType::video,
                                {{"B1", 20, 70}, {"B2", 250, 40}, {"B3", 500, 120}}, 0.9f, 31));
    std::vector<std::string> logs[2];
    std::vector<TrackSource> outs[2];
    int i = 0;
    for (int workers : {1, 8}) {
        EngineLogOnFailure log;
        outs[i] = run(sources, workers);
        logs[i] = log.lines();
        ++i;
    }
    EXPECT_EQ(logs[0], logs[1]);
    for (std::size_t t = 0; t < outs[0].size(); ++t)
        for (std::size_t c = 0; c < outs[0][t].clips.size(); ++c) {
            const auto& a = outs[0][t].clips[c];
            const auto& b = outs[1][t].clips[c];
            EXPECT_EQ(a.startOffset, b.startOffset);
            EXPECT_EQ(a.syncStatus, b.syncStatus);
            EXPECT_EQ(a.matchScore, b.matchScore);
            EXPECT_EQ(a.placementPass, b.placementPass);
        }
}

TEST(SyncEngine, ACancelledRunLeavesEveryClipAsItWas) {
    auto sources = recorderAndCamera();
    sources[1].clips[2].startOffset = 77;
    std::stop_source stop;
    int places = 0;
    EngineLogOnFailure log;
    const auto out = SyncEngine::synchronise(
        sources, nullptr,
        [&](const Uuid&, double, SyncStatus) {
            if (++places == 3) stop.request_stop();
        },
        stop.get_token(), 2);
    EXPECT_GE(places, 3);
    ASSERT_EQ(out.size(), sources.size());
    for (std::size_t t = 0; t < out.size(); ++t)
        for (std::size_t c = 0; c < out[t].clips.size(); ++c) {
            EXPECT_EQ(out[t].clips[c].startOffset, sources[t].clips[c].startOffset);
            EXPECT_EQ(out[t].clips[c].syncStatus, SyncStatus::pending);
            EXPECT_FALSE(out[t].clips[c].placementPass);
        }
    EXPECT_EQ(log.countStartingWith("[SyncEngine] DONE"), 0);

    // One track alone is returned as it came.
    auto one = recorderAndCamera();
    one.resize(1);
    one[0].clips[0].startOffset = 123;
    const auto alone = run(one);
    EXPECT_EQ(alone[0].clips[0].startOffset, 123);
    EXPECT_EQ(alone[0].clips[0].syncStatus, SyncStatus::pending);
}

TEST(SyncEngine, DayRegionsComeInOrderAndDefaultComesLast) {
    auto sources = recorderAndCamera();
    sources[0].clips[0].dayRegion = "day-1";
    sources[1].clips[0].dayRegion = "day-1";
    sources[0].clips[1].dayRegion = "day-0";
    sources[1].clips[2].dayRegion = "day-0";
    EngineLogOnFailure log;
    run(sources);
    std::vector<std::string> regions;
    for (const auto& line : log.lines())
        if (line.starts_with("[SyncEngine] region '"))
            regions.push_back(line.substr(21, line.find('\'', 21) - 21));
    EXPECT_EQ(regions, (std::vector<std::string>{"day-0", "day-1", "default"}));
}

TEST(SyncEngine, ARegionWithoutAudioTracksTakesTheLongestCameraAsReference) {
    const auto& perf = performance();
    std::vector<TrackSource> cams{
        makeTrack(perf, "CamA", SourceType::video, {{"A1", 10, 100}, {"A2", 200, 150}}, 0.5f, 41),
        makeTrack(perf, "CamB", SourceType::video, {{"B1", 50, 80}, {"B2", 230, 60}}, 0.5f, 51),
    };
    EngineLogOnFailure log;
    const auto out = run(cams);
    EXPECT_TRUE(log.contains("[SyncEngine] region 'default' ref 'CamA' (2 tracks,4 clips) @ base=0"));
    EXPECT_TRUE(log.contains("[SyncEngine]  ref 'CamA' has no full clock — laid end to end"));
    // Laid end to end, A2 follows A1 at once; B1 matches inside A1.
    EXPECT_NEAR(clipNamed(out, "B1").startOffset - clipNamed(out, "A1").startOffset, 40.0, 0.04);
}

TEST(SyncEngine, ThreeCamerasAndATakeRecorderPutTheCamerasFirst) {
    const auto& perf = performance();
    // Cameras with clocks of their own, so that the reference camera is laid out by its clock.
    auto camera = [&](const std::string& name, double from, double longest, unsigned seed) {
        std::vector<ClipSpec> clips;
        for (int i = 0; i < 5; ++i) {
            const double start = from + i * 150.0;
            clips.push_back({name + std::to_string(i), start, i == 2 ? longest : 70.0, true, start,
                             ClockQuality::embedded});
        }
        return makeTrack(perf, name, SourceType::video, clips, 0.6f, seed);
    };
    std::vector<TrackSource> sources{camera("CamA", 10, 80, 61), camera("CamB", 30, 85, 71),
                                     camera("CamC", 50, 95, 81)};
    std::vector<ClipSpec> takes;
    for (int i = 0; i < 6; ++i)
        takes.push_back({"T" + std::to_string(i), 20 + i * 130.0, 40});
    sources.push_back(makeTrack(perf, "Lav", SourceType::audio, takes, 0.4f, 91));
    EngineLogOnFailure log;
    const auto out = run(sources);
    EXPECT_EQ(log.countStartingWith("[SyncEngine] region 'default' ref 'CamC'"), 1) << "longest camera clip";
    EXPECT_EQ(log.countStartingWith("[SyncEngine]  cameras-first: pairing 2 camera(s) against 'CamC'"), 1);
    EXPECT_EQ(log.countStartingWith("[SyncEngine]  cameras-first: camera backbone fixed"), 1);
    const double base = clipNamed(out, "CamC0").startOffset - 50;
    for (int i = 0; i < 6; ++i) {
        const auto& t = clipNamed(out, "T" + std::to_string(i));
        EXPECT_NEAR(t.startOffset - base, 20 + i * 130.0, 0.04) << i;
    }
}

TEST(SyncEngine, TheLastCheckMovesATakeItsClockMisplacedWithEverythingMatchedToIt) {
    const auto& perf = performance();
    // Three cameras put the cameras first; the reference camera's file dates put its second take
    // 2 s late, and the clips matched to that take follow it. The recorder hears all of it.
    const auto dated = [](const std::string& name, double start, double dur, double clockError = 0) {
        return ClipSpec{name, start, dur, true, start + clockError, ClockQuality::filesystem};
    };
    const std::vector<ClipSpec> camC{dated("C0", 10, 100), dated("C1", 130, 110, 2.0), dated("C2", 260, 150),
                                     dated("C3", 430, 100), dated("C4", 560, 100)};
    const std::vector<ClipSpec> camA{{"A0", 20, 70},  {"A1", 140, 70}, {"A2", 250, 70},
                                     {"A3", 380, 70}, {"A4", 500, 70}, {"A5", 620, 70}};
    const std::vector<ClipSpec> camB{{"B0", 60, 60},  {"B1", 175, 60}, {"B2", 300, 60},
                                     {"B3", 440, 60}, {"B4", 540, 60}, {"B5", 605, 60}};
    const std::vector<ClipSpec> rec{{"R0", 0, 800, true, 0, ClockQuality::embedded}};
    const std::vector<TrackSource> sources{makeTrack(perf, "CamC", SourceType::video, camC, 0.7f, 101),
                                           makeTrack(perf, "CamA", SourceType::video, camA, 0.7f, 111),
                                           makeTrack(perf, "CamB", SourceType::video, camB, 0.7f, 121),
                                           makeTrack(perf, "Rec", SourceType::audio, rec, 0.4f, 131)};
    EngineLogOnFailure log;
    const auto out = run(sources);
    ASSERT_EQ(log.countStartingWith("[SyncEngine] region 'default' ref 'CamC'"), 1);
    EXPECT_GE(log.countStartingWith("[SyncEngine]  check: "), 1);
    const double shift = clipNamed(out, "R0").startOffset;
    for (const auto* specs : {&camC, &camA, &camB})
        for (const auto& spec : *specs) {
            const auto& clip = clipNamed(out, spec.name);
            EXPECT_NEAR(clip.startOffset - shift, spec.start, 0.04) << spec.name;
            EXPECT_EQ(clip.syncStatus, SyncStatus::synced) << spec.name;
        }
}

TEST(SyncEngine, AReferenceTakeNoOtherTrackHearsIsLeftWeak) {
    auto sources = recorderAndCamera();
    // A third take of the recorder, after every camera clip.
    sources[0].clips.push_back(makeTrack(performance(), "Rec", SourceType::audio,
                                         {{"R3", 720, 150, true, 720, ClockQuality::embedded}}, 0.3f, 12)
                                   .clips.front());
    EngineLogOnFailure log;
    const auto out = run(sources);
    const auto& r3 = clipNamed(out, "R3");
    EXPECT_EQ(r3.syncStatus, SyncStatus::weak);
    EXPECT_EQ(r3.placementExplanation(),
              "Reference track — everything else is measured against it · no other "
              "track's sound confirms it — laid out by its own clock");
    for (const char* confirmed : {"R1", "R2", "C1", "C4"})
        EXPECT_EQ(clipNamed(out, confirmed).syncStatus, SyncStatus::synced) << confirmed;
}

TEST(SyncEngine, AHotSpotTrackIsLaidByItsClockWithoutScores) {
    const auto& perf = performance();
    // Four long clips whose sound is all the same minute: a loud event, not a chain.
    std::vector<ClipSpec> clips;
    for (int i = 0; i < 4; ++i)
        clips.push_back({"H" + std::to_string(i), 100, 130, true, 100.0 + i * 200, ClockQuality::embedded});
    std::vector<TrackSource> sources{
        makeTrack(perf, "Rec", SourceType::audio, {{"R1", 0, 800, true, 0, ClockQuality::embedded}}, 0.3f, 3),
        makeTrack(perf, "Cam", SourceType::video, clips, 0.5f, 5),
    };
    EngineLogOnFailure log;
    const auto out = run(sources);
    EXPECT_EQ(log.countStartingWith("[SyncEngine]  track 'Cam': 4 clips spanning"), 1);
    for (const auto& c : out[1].clips) {
        EXPECT_FALSE(c.matchScore);
        EXPECT_TRUE(c.placementPass == "clock" || c.placementPass == "interp") << *c.placementPass;
    }
}

TEST(SyncEngine, SilentClipsArePendingNeverFailed) {
    auto sources = recorderAndCamera();
    sources.push_back(makeTrack(performance(), "Mute", SourceType::video,
                                {{"M1", 100, 30, false}, {"M2", 300, 20, false}}, 0.5f, 9));
    const auto out = run(sources);
    for (const auto& c : out[2].clips) {
        EXPECT_EQ(c.syncStatus, SyncStatus::pending);
        EXPECT_EQ(c.placementPass, "interp-noaudio");
    }
}

TEST(SyncEngine, AChannelTrackMirrorsItsLeader) {
    auto sources = recorderAndCamera();
    auto channel = makeTrack(performance(), "Rec_2", SourceType::audio,
                             {{"R1_2", 10, 290, true, 10, ClockQuality::embedded},
                              {"R2_2", 320, 380, true, 320, ClockQuality::embedded}},
                             0.5f, 99);
    channel.siblingOf = sources[0].id;
    channel.clips[0].siblingLeaderID = sources[0].clips[0].id;
    channel.clips[1].siblingLeaderID = sources[0].clips[1].id;
    sources.push_back(channel);
    EngineLogOnFailure log;
    const auto out = run(sources);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(out[2].clips[i].startOffset, out[0].clips[i].startOffset);
        EXPECT_EQ(out[2].clips[i].placementPass, "sibling-ref");
        EXPECT_EQ(out[2].clips[i].placementNote, "channel of 'Rec'");
    }
    EXPECT_EQ(log.countStartingWith("[SyncEngine]  channel track 'Rec_2' follows 'Rec'"), 1);
}

TEST(SyncEngine, AChannelWhoseSoundDisagreesIsMatchedAsItsOwnTrack) {
    auto sources = recorderAndCamera();
    // Named as a channel of the recorder, but recorded elsewhere in the performance.
    auto stranger = makeTrack(performance(), "Rec_2", SourceType::audio,
                              {{"S1", 500, 120, true, 10, ClockQuality::embedded}}, 0.5f, 77);
    stranger.siblingOf = sources[0].id;
    stranger.clips[0].siblingLeaderID = sources[0].clips[0].id;
    sources.push_back(stranger);
    EngineLogOnFailure log;
    const auto out = run(sources);
    EXPECT_EQ(log.countStartingWith(
                  "[SyncEngine]  'Rec_2' looked like a channel of 'Rec' but its audio does not agree"),
              1);
    EXPECT_NEAR(clipNamed(out, "S1").startOffset - clipNamed(out, "R1").startOffset, 490.0, 0.04);
}

TEST(SyncEngine, CamerasTheBackboneCannotProveWaitForTheRecorders) {
    // Three cameras put the cameras first, against the camera with the longest clip, which covers
    // the first 410 s only. The other two cameras have two of six clips there and wrong file
    // clocks; the recorder, held out meanwhile, hears the whole show. Placed at once, their later
    // clips would keep their wrong clocks; waiting, they are proved against the recorder.
    const auto& perf = performance();
    std::vector<ClipSpec> refClips;
    for (const auto& [start, length] :
         {std::pair{10.0, 60.0}, {80.0, 60.0}, {150.0, 120.0}, {280.0, 60.0}, {350.0, 60.0}})
        refClips.push_back({"C" + std::to_string(static_cast<int>(start)), start, length, true, start,
                            ClockQuality::embedded});
    auto camera = [&](const std::string& name, std::vector<double> starts, unsigned seed) {
        std::vector<ClipSpec> clips;
        for (const double start : starts)
            clips.push_back({name + std::to_string(static_cast<int>(start)), start, 65.0, true, start + 25.0,
                             ClockQuality::filesystem});
        return makeTrack(perf, name, SourceType::video, clips, 0.6f, seed);
    };
    std::vector<TrackSource> sources{makeTrack(perf, "CamC", SourceType::video, refClips, 0.6f, 101),
                                     camera("CamA", {30, 300, 450, 560, 670, 780}, 111),
                                     camera("CamB", {90, 360, 500, 610, 720, 800}, 121),
                                     makeTrack(perf, "Rec", SourceType::audio,
                                               {{"Rec1", 20.0, 850.0, true, 20.0, ClockQuality::embedded}},
                                               0.4f, 131)};
    EngineLogOnFailure log;
    const auto out = run(sources);
    EXPECT_EQ(log.countStartingWith("[SyncEngine] region 'default' ref 'CamC'"), 1);
    EXPECT_EQ(log.countStartingWith("[SyncEngine]  'CamA' waits for the recorders (2 of 6 clips"), 1);
    EXPECT_EQ(log.countStartingWith("[SyncEngine]  'CamB' waits for the recorders (2 of 6 clips"), 1);
    const double base = clipNamed(out, "C10").startOffset - 10;
    for (const auto& track : {"CamA", "CamB"})
        for (const auto& clip : out[track == std::string("CamA") ? 1 : 2].clips) {
            const double start = std::stod(clip.url.baseName().substr(4));
            EXPECT_NEAR(clip.startOffset - base, start, 0.04) << clip.url.baseName();
            EXPECT_EQ(clip.syncStatus, SyncStatus::synced) << clip.url.baseName();
        }
    EXPECT_NEAR(clipNamed(out, "Rec1").startOffset - base, 20.0, 0.04);
}

} // namespace
} // namespace trelvane::test
