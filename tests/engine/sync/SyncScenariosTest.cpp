// SPDX-License-Identifier: GPL-3.0-or-later
// Shoots built to send the sync passes down their rarer roads: a long backup recording that ties a
// reference of takes together, the fallbacks of a camera chain, and the whole-pool probe of a track.
// Each asserts where the clips land against the truth it was built from, and how far they are
// trusted, so that a pass that misplaces a clip or calls a guess proved fails here.
#include "engine/sync/SyncFixtures.hpp"

#include <cmath>
#include <numbers>

namespace trelvane::test {
namespace {

// `f` with a steady hum (a sine of `level` on every band, period 3.2 s) over frames [from, to),
// normalised again: a pulse that correlates with itself at every period.
void addHum(SpectralBands::Feature& f, int from, int to, float level) {
    for (auto& band : f.bands) {
        for (int t = from; t < to; ++t)
            band[t] += level * static_cast<float>(std::sin(2 * std::numbers::pi * t / 80.0));
        band = SpectralBands::zscore(band);
    }
}

TEST(SyncScenarios, ALongBackupTiesTheTakesAndCalibratesOnlyTakesTwoWindowsAgreeOn) {
    // Four takes whose clocks put the second and the fourth 3 s late, and a backup of the first 31
    // minutes whose clock is two days off. The backup hears all of take 2 but only the first
    // window of take 4: take 2 moves to its sound, take 4 keeps its clock and is left weak.
    const auto perf = noiseBands(2200 * kFps, 501);
    Shoot s;
    s.tracks = {makeTrack(perf, "Takes", SourceType::audio,
                          {clocked("T1", 100, 300, 100), clocked("T2", 900, 300, 903),
                           clocked("T3", 1250, 300, 1250), clocked("T4", 1780, 300, 1783)},
                          0.4f, 11),
                makeTrack(perf, "Backup", SourceType::audio, {clocked("B", 0, 1870, 2 * 86400.0)}, 0.4f, 21)};
    s.run({{"B", 0, synced},
           {"T1", 100, synced},
           {"T2", 900, synced},
           {"T3", 1250, synced},
           {"T4", 1783, weak}});
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  long-backup 'Backup' clock disagreed with the ref"), 1);
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  ref 'Takes' take 2/4 calibrated -"), 1);
    int calibrated = 0;
    for (const auto& line : s.log.lines())
        calibrated += line.find(" calibrated ") != std::string::npos;
    EXPECT_EQ(calibrated, 1);
}

TEST(SyncScenarios, ALongTakeTheChainCannotFindIsRescuedOnceAShortClipNarrowsItsBracket) {
    // A camera chain against one long recording. The long take K plays under a hum that the
    // recorder also heard, loudly, a few minutes later: searched between C0 and C3 the hum's
    // echoes bury its peak. J's timecode is wrong, so only Pass 3 finds it; placed, it narrows
    // K's bracket to where the hum is not, and the long rescue finds K there. Laid between its
    // neighbours instead, K would sit 8 s late.
    const auto perf = noiseBands(1200 * kFps, 601);
    Shoot s;
    s.tracks = {makeTrack(perf, "Rec", SourceType::audio, {clocked("R1", 0, 1100, 0)}, 0.3f, 31),
                makeTrack(perf, "Cam", SourceType::video,
                          {{"C0", 450, 60}, {"K", 512, 340}, {"J", 870, 60}, {"C3", 1000, 60}}, 0.6f, 41)};
    s.tracks[1].cameraGroup = "cam-0";
    s.clip("R1").startTimecode = 0.0;
    s.clip("J").startTimecode = 970.0;
    addHum(*s.clip("R1").bandFeature, 880 * kFps, 1000 * kFps, 6.0f);
    auto& k = *s.clip("K").bandFeature;
    addHum(k, 0, k.frames, 1.5f);
    s.run({{"R1", 0, synced},
           {"C0", 450, synced},
           {"K", 512, synced},
           {"J", 870, synced},
           {"C3", 1000, synced}});
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  long rescue 'K' @ 512.0s"), 1);
}

TEST(SyncScenarios, TwoCamerasThePoolNeverHeardStayTogetherButWeak) {
    // Cards of two cameras in one group, whose clocks are an hour off and 5 s apart; both shot A2
    // and B2 during the recorder's break. Matched only against each other, they keep their true
    // offset to each other inside the room the chain leaves them, and nothing calls them proved.
    const auto perf = noiseBands(1100 * kFps, 701);
    const auto cam = [](const std::string& name, double start, double dur, double clockError = 3600) {
        return clocked(name, start, dur, start + clockError, ClockQuality::filename);
    };
    Shoot s;
    s.tracks = {makeTrack(perf, "Rec", SourceType::audio,
                          {clocked("R1", 0, 400, 0), clocked("R2", 560, 440, 560)}, 0.3f, 51),
                makeTrack(perf, "CardA", SourceType::video,
                          {cam("A1", 300, 100), cam("A2", 420, 100), cam("A3", 600, 100)}, 0.6f, 61),
                makeTrack(perf, "CardB", SourceType::video, {cam("B2", 430, 80, 3605)}, 0.6f, 71)};
    s.tracks[1].cameraGroup = s.tracks[2].cameraGroup = "cam-0";
    s.run({{"R1", 0, synced}, {"A1", 300, synced}, {"A3", 600, synced}});
    const ClipItem &a2 = s.clip("A2"), &b2 = s.clip("B2");
    EXPECT_NEAR(b2.startOffset - a2.startOffset, 10.0, kFrame);
    EXPECT_GE(a2.startOffset, 400.0);
    EXPECT_LE(a2.startOffset + a2.duration, 600.0);
    EXPECT_EQ(a2.syncStatus, SyncStatus::weak);
    EXPECT_EQ(b2.syncStatus, SyncStatus::weak);
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  camera cluster 'A2'"), 1);
}

TEST(SyncScenarios, TheWholePoolProbeFindsAClipItsClockAndItsWholeSoundBothMiss) {
    // One remote rolled the recorder's second take and L2 together, so they run exactly as long:
    // a whole-clip search never compares a clip with a segment of its own length. L2's clock is
    // 2,000 s off, so Pass 1 looks elsewhere too; the probe's windows find it after the strong L1.
    const auto perf = noiseBands(700 * kFps, 801);
    Shoot s;
    s.tracks = {makeTrack(perf, "Rec", SourceType::audio,
                          {clocked("R1", 0, 300, 0), clocked("R2", 400, 250, 400)}, 0.3f, 81),
                makeTrack(perf, "Lav", SourceType::audio,
                          {clocked("L1", 100, 150, 100), clocked("L2", 400, 250, 2400)}, 0.4f, 91)};
    s.run({{"L1", 100, synced}, {"L2", 400, synced}});
    EXPECT_EQ(s.log.countStartingWith("[SyncEngine]  'L2' found by whole-pool probe @ 400.0s"), 1);
}

} // namespace
} // namespace trelvane::test
