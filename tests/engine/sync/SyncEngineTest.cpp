// SPDX-License-Identifier: GPL-3.0-or-later
#include "engine/sync/SyncFixtures.hpp"

#include <stop_token>

namespace trelvane::test {
namespace {

const SpectralBands::Feature& performance() {
    static const auto perf = noiseBands(900 * kFps, 7);
    return perf;
}

// A recorder of two long takes with a trusted clock, and a camera of four clips without one.
std::vector<TrackSource> recorderAndCamera() {
    const auto& perf = performance();
    return {
        makeTrack(perf, "Rec", SourceType::audio, {clocked("R1", 10, 290, 10), clocked("R2", 320, 380, 320)},
                  0.3f, 11),
        makeTrack(perf, "Cam", SourceType::video,
                  {{"C1", 40, 60}, {"C2", 150, 90}, {"C3", 400, 45}, {"C4", 600, 30}}, 0.8f, 21),
    };
}

TEST(SyncEngine, CameraClipsLandWhereTheyWereRecordedAgainstTheRecorder) {
    Shoot s(recorderAndCamera());
    // Progress stays below one and names the clips, without their extensions.
    double last = 0, highest = 0;
    int calls = 0;
    bool named = true;
    // The earliest clip starts the timeline; the reference keeps its clock's pause.
    const auto out =
        s.run({{"C1", 30, synced}, {"C2", 140, synced}, {"C3", 390, synced}, {"C4", 590, synced}}, 2,
              [&](const Progress& p) {
                  ++calls;
                  last = p.fraction;
                  highest = std::max(highest, p.fraction);
                  named = named && !p.current.empty() && p.current.find('.') == std::string::npos;
              });
    EXPECT_GT(calls, 5);
    EXPECT_LE(highest, 0.999);
    EXPECT_GT(last, 0.5);
    EXPECT_TRUE(named);
    EXPECT_EQ(s.clip("R1").startOffset, 0.0);
    EXPECT_NEAR(s.clip("R2").startOffset, 310.0, 1e-9);
    EXPECT_EQ(clipNamed(out, "R1").placementPass, PlacementPass::reference);
    for (const char* name : {"C1", "C2", "C3", "C4"})
        EXPECT_GE(s.clip(name).matchScore.value_or(0), 7.0f) << name;
    EXPECT_TRUE(s.log.contains("[SyncEngine] region 'default' ref 'Rec' (2 tracks,6 clips) @ base=0"));
    EXPECT_TRUE(s.log.contains("[SyncEngine] DONE: timeline=690s (0h11m), synced=6 weak=0 failed=0 / 6"));
}

TEST(SyncEngine, ResultsAndLogDoNotDependOnTheNumberOfWorkersAndDayRegionsComeInOrder) {
    auto sources = recorderAndCamera();
    sources.push_back(makeTrack(performance(), "CamB", SourceType::video,
                                {{"B1", 20, 70}, {"B2", 250, 40}, {"B3", 500, 120}}, 0.9f, 31));
    sources[0].clips[0].dayRegion = sources[1].clips[0].dayRegion = "day-1";
    sources[0].clips[1].dayRegion = sources[1].clips[2].dayRegion = "day-0";
    std::vector<std::string> logs[2];
    std::vector<TrackSource> outs[2];
    for (int i : {0, 1}) {
        Shoot s(sources);
        outs[i] = s.run({}, i == 0 ? 1 : 8);
        logs[i] = s.log.lines();
    }
    EXPECT_EQ(logs[0], logs[1]);
    std::vector<std::string> regions;
    for (const auto& line : logs[0])
        if (line.starts_with("[SyncEngine] region '"))
            regions.push_back(line.substr(21, line.find('\'', 21) - 21));
    EXPECT_EQ(regions, (std::vector<std::string>{"day-0", "day-1", "default"}));
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
    Shoot s;
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
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine] DONE"), 0);

    // One track alone is returned as it came.
    Shoot one(recorderAndCamera());
    one.tracks.resize(1);
    one.tracks[0].clips[0].startOffset = 123;
    one.run({{"R1", 123, pending}});
}

TEST(SyncEngine, ARegionWithoutAudioTracksTakesTheLongestCameraAsReference) {
    const auto& perf = performance();
    Shoot s({makeTrack(perf, "CamA", SourceType::video, {{"A1", 10, 100}, {"A2", 200, 150}}, 0.5f, 41),
             makeTrack(perf, "CamB", SourceType::video, {{"B1", 50, 80}, {"B2", 230, 60}}, 0.5f, 51)});
    // Laid end to end, A2 follows A1 at once; B1 matches inside A1. A2's place is a guess that only
    // B2 agrees with, and nothing ties B2 to A1: both stay weak.
    s.run({{"A1", 0, synced}, {"B1", 40, synced}, {"A2", 100, weak}, {"B2", 130, weak}});
    EXPECT_TRUE(s.log.contains("[SyncEngine] region 'default' ref 'CamA' (2 tracks,4 clips) @ base=0"));
    EXPECT_TRUE(s.log.contains("[SyncEngine]  ref 'CamA' has no full clock — laid end to end"));
}

TEST(SyncEngine, ThreeCamerasAndATakeRecorderPutTheCamerasFirst) {
    const auto& perf = performance();
    // Cameras with clocks of their own, so that the reference camera is laid out by its clock.
    auto camera = [&](const std::string& name, double from, double longest, unsigned seed) {
        std::vector<ClipSpec> clips;
        for (int i = 0; i < 5; ++i)
            clips.push_back(clocked(name + std::to_string(i), from + i * 150.0, i == 2 ? longest : 70.0,
                                    from + i * 150.0));
        return makeTrack(perf, name, SourceType::video, clips, 0.6f, seed);
    };
    std::vector<ClipSpec> takes;
    for (int i = 0; i < 6; ++i)
        takes.push_back({"T" + std::to_string(i), 20 + i * 130.0, 40});
    Shoot s({camera("CamA", 10, 80, 61), camera("CamB", 30, 85, 71), camera("CamC", 50, 95, 81),
             makeTrack(perf, "Lav", SourceType::audio, takes, 0.4f, 91)});
    s.run();
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine] region 'default' ref 'CamC'"), 1)
        << "longest camera clip";
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  cameras-first: pairing 2 camera(s) against 'CamC'"), 1);
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  cameras-first: camera backbone fixed"), 1);
    const double base = s.clip("CamC0").startOffset - 50;
    for (int i = 0; i < 6; ++i)
        EXPECT_NEAR(s.clip("T" + std::to_string(i)).startOffset - base, 20 + i * 130.0, 0.04) << i;
}

TEST(SyncEngine, TheLastCheckMovesATakeItsClockMisplacedWithEverythingMatchedToIt) {
    const auto& perf = performance();
    // Three cameras put the cameras first; the reference camera's file dates put its second take
    // 2 s late, and the clips matched to that take follow it. The recorder hears all of it.
    const auto dated = [](const std::string& name, double start, double dur, double clockError = 0) {
        return clocked(name, start, dur, start + clockError, ClockQuality::filesystem);
    };
    const std::vector<ClipSpec> camC{dated("C0", 10, 100), dated("C1", 130, 110, 2.0), dated("C2", 260, 150),
                                     dated("C3", 430, 100), dated("C4", 560, 100)};
    const std::vector<ClipSpec> camA{{"A0", 20, 70},  {"A1", 140, 70}, {"A2", 250, 70},
                                     {"A3", 380, 70}, {"A4", 500, 70}, {"A5", 620, 70}};
    const std::vector<ClipSpec> camB{{"B0", 60, 60},  {"B1", 175, 60}, {"B2", 300, 60},
                                     {"B3", 440, 60}, {"B4", 540, 60}, {"B5", 605, 60}};
    Shoot s({makeTrack(perf, "CamC", SourceType::video, camC, 0.7f, 101),
             makeTrack(perf, "CamA", SourceType::video, camA, 0.7f, 111),
             makeTrack(perf, "CamB", SourceType::video, camB, 0.7f, 121),
             makeTrack(perf, "Rec", SourceType::audio, {clocked("R0", 0, 800, 0)}, 0.4f, 131)});
    s.run();
    ASSERT_EQ(s.log.countStartingWith("[SyncEngine] region 'default' ref 'CamC'"), 1);
    EXPECT_GE(s.log.countStartingWith("[SyncEngine]  check: "), 1);
    const double shift = s.clip("R0").startOffset;
    for (const auto* specs : {&camC, &camA, &camB})
        for (const auto& spec : *specs) {
            EXPECT_NEAR(s.clip(spec.name).startOffset - shift, spec.start, 0.04) << spec.name;
            EXPECT_EQ(s.clip(spec.name).syncStatus, SyncStatus::synced) << spec.name;
        }
}

TEST(SyncEngine, AReferenceTakeNoOtherTrackHearsIsLeftWeakAndSilentClipsPending) {
    auto sources = recorderAndCamera();
    // A third take of the recorder, after every camera clip, and a camera that recorded no sound.
    sources[0].clips.push_back(
        makeTrack(performance(), "Rec", SourceType::audio, {clocked("R3", 720, 150, 720)}, 0.3f, 12)
            .clips.front());
    sources.push_back(makeTrack(performance(), "Mute", SourceType::video,
                                {{"M1", 100, 30, false}, {"M2", 300, 20, false}}, 0.5f, 9));
    Shoot s(sources);
    const auto out = s.run();
    EXPECT_EQ(s.clip("R3").syncStatus, SyncStatus::weak);
    EXPECT_EQ(s.clip("R3").placementExplanation(),
              "Reference track — everything else is measured against it · no other "
              "track's sound confirms it — laid out by its own clock");
    for (const char* confirmed : {"R1", "R2", "C1", "C4"})
        EXPECT_EQ(s.clip(confirmed).syncStatus, SyncStatus::synced) << confirmed;
    for (const auto& c : out[2].clips) {
        EXPECT_EQ(c.syncStatus, SyncStatus::pending);
        EXPECT_EQ(c.placementPass, PlacementPass::interpolatedNoAudio);
    }
}

TEST(SyncEngine, AHotSpotTrackIsLaidByItsClockWithoutScores) {
    const auto& perf = performance();
    // Four long clips whose sound is all the same minute: a loud event, not a chain.
    std::vector<ClipSpec> clips;
    for (int i = 0; i < 4; ++i)
        clips.push_back(clocked("H" + std::to_string(i), 100, 130, 100.0 + i * 200));
    Shoot s({makeTrack(perf, "Rec", SourceType::audio, {clocked("R1", 0, 800, 0)}, 0.3f, 3),
             makeTrack(perf, "Cam", SourceType::video, clips, 0.5f, 5)});
    const auto out = s.run();
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  track 'Cam': 4 clips spanning"), 1);
    for (const auto& c : out[1].clips) {
        EXPECT_FALSE(c.matchScore);
        EXPECT_TRUE(c.placementPass == PlacementPass::clock || c.placementPass == PlacementPass::interpolated)
            << rawValue(c.placementPass.value());
    }
}

TEST(SyncEngine, AChannelTrackMirrorsItsLeaderUnlessItsSoundDisagrees) {
    auto sources = recorderAndCamera();
    auto channel = makeTrack(performance(), "Rec_2", SourceType::audio,
                             {clocked("R1_2", 10, 290, 10), clocked("R2_2", 320, 380, 320)}, 0.5f, 99);
    // Named as a channel of the recorder, but recorded elsewhere in the performance.
    auto stranger =
        makeTrack(performance(), "Rec_3", SourceType::audio, {clocked("S1", 500, 120, 10)}, 0.5f, 77);
    channel.siblingOf = stranger.siblingOf = sources[0].id;
    channel.clips[0].siblingLeaderID = stranger.clips[0].siblingLeaderID = sources[0].clips[0].id;
    channel.clips[1].siblingLeaderID = sources[0].clips[1].id;
    sources.push_back(channel);
    sources.push_back(stranger);
    Shoot s(sources);
    const auto out = s.run({{"S1", 490, synced}});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(out[2].clips[i].startOffset, out[0].clips[i].startOffset);
        EXPECT_EQ(out[2].clips[i].placementPass, PlacementPass::channelOfReference);
        EXPECT_EQ(out[2].clips[i].placementNote, "channel of 'Rec'");
    }
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  channel track 'Rec_2' follows 'Rec'"), 1);
    EXPECT_EQ(s.log.countStartingWith(
                  "[SyncEngine]  'Rec_3' looked like a channel of 'Rec' but its audio does not agree"),
              1);
}

TEST(SyncEngine, CamerasTheBackboneCannotProveWaitForTheRecorders) {
    // Three cameras put the cameras first, against the camera with the longest clip, which covers
    // the first 410 s only. The other two cameras have two of six clips there and wrong file
    // clocks; the recorder, held out meanwhile, hears the whole show. Placed at once, their later
    // clips would keep their wrong clocks; waiting, they are proved against the recorder.
    const auto& perf = performance();
    const std::vector<ClipSpec> refClips{clocked("C10", 10, 60, 10), clocked("C80", 80, 60, 80),
                                         clocked("C150", 150, 120, 150), clocked("C280", 280, 60, 280),
                                         clocked("C350", 350, 60, 350)};
    auto camera = [&](const std::string& name, std::vector<double> starts, unsigned seed) {
        std::vector<ClipSpec> clips;
        for (const double start : starts)
            clips.push_back(clocked(name + std::to_string(static_cast<int>(start)), start, 65.0, start + 25.0,
                                    ClockQuality::filesystem));
        return makeTrack(perf, name, SourceType::video, clips, 0.6f, seed);
    };
    Shoot s({makeTrack(perf, "CamC", SourceType::video, refClips, 0.6f, 101),
             camera("CamA", {30, 300, 450, 560, 670, 780}, 111),
             camera("CamB", {90, 360, 500, 610, 720, 800}, 121),
             makeTrack(perf, "Rec", SourceType::audio, {clocked("Rec1", 20.0, 850.0, 20.0)}, 0.4f, 131)});
    s.run();
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine] region 'default' ref 'CamC'"), 1);
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  'CamA' waits for the recorders (2 of 6 clips"), 1);
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  'CamB' waits for the recorders (2 of 6 clips"), 1);
    const double base = s.clip("C10").startOffset - 10;
    for (std::size_t track : {1, 2})
        for (const auto& clip : s.tracks[track].clips) {
            const double start = std::stod(clip.url.baseName().substr(4));
            EXPECT_NEAR(clip.startOffset - base, start, 0.04) << clip.url.baseName();
            EXPECT_EQ(clip.syncStatus, SyncStatus::synced) << clip.url.baseName();
        }
    EXPECT_NEAR(s.clip("Rec1").startOffset - base, 20.0, 0.04);
}

} // namespace
} // namespace trelvane::test
