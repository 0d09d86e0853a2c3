// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <gtest/gtest.h>
#include <string_view>
#include <tuple>

using namespace trelvane;

namespace {

ClipItem clipAt(const std::string& path, double duration) {
    ClipItem c;
    c.url = Url::fromPath(path);
    c.duration = duration;
    return c;
}

} // namespace

TEST(TrackModels, FrameRatesSnapToTheNearestEditingRateSubtitleAndPictureDuration) {
    const std::pair<float, float> cases[] = {{24.5f, 24.0f}, {29.96f, 29.97f}, {0.0f, 23.976f},
                                             {27.0f, 25.0f}, {1000.0f, 60.0f}, {59.0f, 59.94f}};
    for (const auto& [fps, rate] : cases)
        EXPECT_FLOAT_EQ(standardFrameRate(fps), rate) << fps;
}

TEST(TrackModels, EveryPlacementPassHasItsTextAndChannelsFollowTheirLead) {
    using enum PlacementPass;
    // The pass, its text, and the text of a channel clip whose lead it placed.
    const std::tuple<PlacementPass, std::string_view, std::string_view> cases[] = {
        {reference, "ref", "sibling-ref"},
        {linkedBackup, "linked", "sibling-linked"},
        {unlinkedBackup, "unlinked", "sibling-unlinked"},
        {chain, "A1", "sibling-A1"},
        {bracketFill, "A3", "sibling-A3"},
        {brollRescue, "A3b-broll", "sibling-A3b-broll"},
        {cameraCross, "A3cam", "sibling-A3cam"},
        {cameraCluster, "A3cluster", "sibling-A3cluster"},
        {poolProbe, "A4", "sibling-A4"},
        {siblingCamera, "sibling", "sibling-sibling"},
        {clock, "clock", "sibling-clock"},
        {interpolated, "interp", "sibling-interp"},
        {interpolatedNoAudio, "interp-noaudio", "sibling-interp-noaudio"},
        {stack, "stack", "stack"},
        {stackAlone, "stack-alone", "stack-alone"},
        {channelOfChain, "sibling-A1", "sibling-A1"},
    };
    for (const auto& [pass, text, channel] : cases) {
        EXPECT_EQ(rawValue(pass), text);
        EXPECT_EQ(rawValue(channelOf(pass)), channel) << text;
    }
}

TEST(TrackModels, SubtitleCountsClipsAndNamesTheFirstPicturesExtension) {
    TrackSource t;
    EXPECT_EQ(t.subtitle(), "0 clips  ·  ");
    t.clips.push_back(clipAt("/s/rec/take.wav", 10));
    EXPECT_EQ(t.subtitle(), "1 clip  ·  WAV");
    t.clips.front().pictureURL = Url::fromPath("/s/A001.RDC/A001_C001_001.r3d");
    t.clips.push_back(clipAt("/s/rec/take2.wav", 10));
    EXPECT_EQ(t.subtitle(), "2 clips  ·  R3D");

    // A picture's duration prefers its frames, then trims the sidecar's.
    ClipItem c = clipAt("/a.wav", 0.4);
    EXPECT_DOUBLE_EQ(c.pictureDuration(), 0.4);
    c.pictureURL = Url::fromPath("/a.r3d");
    EXPECT_DOUBLE_EQ(c.pictureDuration(), 0.0);
    c.duration = 10.0;
    c.pictureFrames = 240;
    c.recordFrameRate = 0.0f;
    EXPECT_DOUBLE_EQ(c.pictureDuration(), 10.0 - 0.512);
    c.recordFrameRate = 24.0f;
    EXPECT_DOUBLE_EQ(c.pictureDuration(), 10.0);
}

TEST(TrackModels, AFailedClipsBucketNamesWhatStoodInTheWay) {
    // duration, pass, usability: the bucket of a failed clip
    using enum PlacementPass;
    const std::tuple<double, std::optional<PlacementPass>, AudioUsability, const char*> cases[] = {
        {3, std::nullopt, AudioUsability::ok, "shorter than 5 s"},
        {5, std::nullopt, AudioUsability::ok, "no audio nearby"},
        {5, interpolatedNoAudio, AudioUsability::ok, "no audio nearby"},
        {5, clock, AudioUsability::ok, "placed by clock"},
        {5, stackAlone, AudioUsability::ok, "no matching take"},
        {5, chain, AudioUsability::ok, "not found"},
        {3, chain, AudioUsability::undecodable, "no usable audio"}};
    for (const auto& [duration, pass, usability, bucket] : cases) {
        ClipItem c = clipAt("/a.wav", duration);
        c.syncStatus = SyncStatus::failed;
        c.placementPass = pass;
        c.audioUsability = usability;
        EXPECT_EQ(c.failureBucket(), bucket) << (pass ? rawValue(*pass) : "(none)");
        c.syncStatus = SyncStatus::weak;
        EXPECT_EQ(c.failureBucket(), std::nullopt) << "only failed clips have one";
    }
}

TEST(TrackModels, ExplanationAppendsScoreNoteAndTimecodeWhereThePassAllows) {
    ClipItem c = clipAt("/a.wav", 3.0);
    EXPECT_EQ(c.placementExplanation(), "Shorter than 5 s — not compared, placed between neighbours");
    c.duration = 30;
    EXPECT_EQ(c.placementExplanation(), "No matching audio nearby — placed between neighbours");
    c.matchScore = 9.26f;
    c.placementPass = PlacementPass::reference;
    EXPECT_EQ(c.placementExplanation(), "Reference track — everything else is measured against it");
    c.placementPass = PlacementPass::stack;
    c.placementNote = "between A and B";
    c.tcDisagrees = true;
    EXPECT_EQ(c.placementExplanation(),
              "Stacked with takes sharing the same audio · score 9.3 · between A and B"
              " · timecode disagrees with the audio position");
    c.placementNote = "";
    c.placementPass = PlacementPass::chain;
    c.syncStatus = SyncStatus::weak;
    EXPECT_EQ(c.placementExplanation(),
              "Weak audio match — check by ear · score 9.3 · timecode disagrees with the audio position");
    c.syncStatus = SyncStatus::failed;
    c.matchScore.reset();
    c.tcDisagrees = false;
    EXPECT_EQ(c.placementExplanation(), "Audio match below the confidence floor");
    c.syncStatus = SyncStatus::pending;
    EXPECT_EQ(c.placementExplanation(), "Not placed yet");
    // Unusable audio wins over everything else the clip holds.
    c.audioUsability = AudioUsability::silent;
    c.matchScore = 12.0f;
    c.tcDisagrees = true;
    EXPECT_EQ(c.placementExplanation(), "Audio track is silent — placed by clock or between neighbours");
}

TEST(TrackModels, TimeRangeHintNeedsBothDatesOrAnOverrideRawCodesAndErrorTexts) {
    DayRegionProposal p;
    p.startDate = dateFromUnixSeconds(1'700'000'000);
    EXPECT_EQ(p.timeRangeHint(), "time unknown");
    p.endDate = dateFromUnixSeconds(1'700'000'000 + 3600);
    EXPECT_EQ(p.timeRangeHint(), formatClockTime(*p.startDate) + " – " + formatClockTime(*p.endDate));
    p.rangeOverride = "text-sync day 2";
    EXPECT_EQ(p.timeRangeHint(), "text-sync day 2");

    // Raw codes round-trip; unknown ones give nothing. Error descriptions quote the file name.
    EXPECT_EQ(rawValue(SyncStatus::weak), "weak");
    EXPECT_EQ(syncStatusFromRaw("failed"), SyncStatus::failed);
    EXPECT_EQ(syncStatusFromRaw("Failed"), std::nullopt);
    EXPECT_EQ(audioUsabilityFromRaw("undecodable"), AudioUsability::undecodable);
    EXPECT_EQ(sourceTypeFromRaw("video"), SourceType::video);
    EXPECT_EQ(syncModeFromRaw("stacks"), SyncMode::stacks);
    EXPECT_EQ(clockQualityFromRaw(3), ClockQuality::filename);
    EXPECT_EQ(clockQualityFromRaw(5), std::nullopt);
    EXPECT_LT(ClockQuality::asset, ClockQuality::filename);
    // Error descriptions quote the file name.
    EXPECT_EQ(TrelvaneError::noAudioTrack("a.mov").description(), "No audio track in \"a.mov\"");
    EXPECT_EQ(TrelvaneError::silentAudio("b.wav").description(),
              "Audio track in \"b.wav\" is silent (muted)");
    EXPECT_EQ(TrelvaneError::emptySamples("c.mp4").description(), "No audio in \"c.mp4\"");
    EXPECT_EQ(TrelvaneError::readerStartFailed("x").description(), "Reader failed: x");
    EXPECT_EQ(TrelvaneError::notEnoughTracks().description(), "Need at least 2 tracks");
}

// A drift is corrected only where it reaches a quarter of a frame over the whole clip.
TEST(TrackModels, DriftIsCorrectedFromAQuarterFrameOverTheClip) {
    // drift ppm, clip seconds, frame seconds, corrected
    const std::tuple<std::optional<double>, double, double, bool> cases[] = {
        {std::nullopt, 3600, 0.04, false}, {125.0, 3600, 0.04, true},    {-125.0, 3600, 0.04, true},
        {5.0, 600, 0.04, false},           {5.0, 3600, 0.04, true},      {20.0, 499, 0.04, false},
        {20.0, 501, 0.04, true},           {20.0, 501, 1 / 24.0, false}, {125.0, 3600, 0.0, false}};
    for (const auto& [ppm, seconds, frame, corrected] : cases) {
        ClipItem c = clipAt("/a.wav", seconds);
        c.driftPPM = ppm;
        SCOPED_TRACE(std::to_string(ppm.value_or(0)) + " ppm over " + std::to_string(seconds) + " s");
        const auto speed = c.driftSpeed(frame);
        EXPECT_EQ(speed.has_value(), corrected);
        if (!speed) {
            EXPECT_EQ(c.timelineDuration(frame), seconds);
            continue;
        }
        EXPECT_DOUBLE_EQ(*speed, 1 / (1 + *ppm * 1e-6));
        // A slow clock's file holds more of the performance: it lies longer on the timeline.
        EXPECT_NEAR(c.timelineDuration(frame) - seconds, seconds * *ppm * 1e-6, 1e-9);
    }
}
