// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

using namespace trelvane;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using trelvane::test::LogCapture;
using trelvane::test::quoted;
using trelvane::test::TempDir;

namespace {

ClipItem clip(const std::string& path, double duration = 10.0) {
    ClipItem c;
    c.url = Url::fromPath(path);
    c.duration = duration;
    return c;
}

ClipItem datedClip(const std::string& path, double unixSeconds, ClockQuality quality,
                   double duration = 10.0) {
    ClipItem c = clip(path, duration);
    c.recordingDate = dateFromUnixSeconds(unixSeconds);
    c.clockQuality = quality;
    return c;
}

TrackSource track(const std::string& name, std::vector<ClipItem> clips, SourceType type = SourceType::audio) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = "/shoot";
    t.clips = std::move(clips);
    return t;
}

// `count` takes "<folder>/T001<suffix>.WAV"... of 10 s each; the first `count` stems.
std::vector<ClipItem> channelFiles(const std::string& folder, const std::string& suffix, int count,
                                   int firstTake = 1) {
    std::vector<ClipItem> out;
    for (int i = firstTake; i < firstTake + count; ++i)
        out.push_back(clip(fmt::format("{}/T{:03}{}.WAV", folder, i, suffix), 10.0 + i * 0.5));
    return out;
}

std::vector<std::string> channelLines(const LogCapture& log) {
    std::vector<std::string> out;
    for (const auto& line : log.lines())
        if (line.find("' is a channel of '") != std::string::npos) out.push_back(line);
    return out;
}

int clipsWithLeader(const TrackSource& t) {
    return static_cast<int>(std::count_if(t.clips.begin(), t.clips.end(),
                                          [](const ClipItem& c) { return c.siblingLeaderID.has_value(); }));
}

} // namespace

TEST(ChannelStem, TheLastUnderscoreAndWhatFollowsGo) {
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/T012_1.WAV")), "T012");
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/ZOOM0004_Tr1.WAV")), "ZOOM0004");
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/Scene 4_take_LR.wav")), "Scene 4_take");
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/interview.wav")), "interview") << "no underscore";
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/_1.wav")), "_1")
        << "the match may not start the name";
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/take_.wav")), "take_")
        << "nothing after the underscore";
    EXPECT_EQ(IngestEngine::channelStem(Url::fromPath("/r/a__b.wav")), "a_");
}

TEST(SiblingChannels, ChannelFilesInTwoFoldersFollowOneLeader) {
    for (const auto& [first, second] : {std::pair{"_1", "_2"}, std::pair{"_Tr1", "_Tr2"}}) {
        LogCapture log;
        const TrackSource b = track("Rec B", channelFiles("/shoot/B", second, 5));
        const TrackSource a = track("Rec A", channelFiles("/shoot/A", first, 5));
        const auto out = IngestEngine::detectSiblingChannels({b, a});

        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(out[1].siblingOf, std::nullopt) << "Rec A leads: equal counts, first by name";
        EXPECT_EQ(out[0].siblingOf, a.id);
        for (std::size_t k = 0; k < 5; ++k) {
            EXPECT_EQ(out[0].clips[k].siblingLeaderID, a.clips[k].id) << first << " " << k;
            EXPECT_EQ(out[1].clips[k].siblingLeaderID, std::nullopt);
        }
        EXPECT_THAT(channelLines(log),
                    ElementsAre("[Ingest] 'Rec B' is a channel of 'Rec A': 5/5 clips share stem, "
                                "length and clock \u2014 will follow it instead of matching"));
    }
}

TEST(SiblingChannels, TheTrackWithMostClipsLeadsAndNamesBreakTies) {
    {
        LogCapture log;
        const TrackSource few = track("Ch 1", channelFiles("/shoot/1", "_1", 9));
        const TrackSource many = track("Ch 2", channelFiles("/shoot/2", "_2", 10));
        const auto out = IngestEngine::detectSiblingChannels({few, many});
        EXPECT_EQ(out[0].siblingOf, many.id);
        EXPECT_EQ(out[1].siblingOf, std::nullopt);
        EXPECT_EQ(clipsWithLeader(out[0]), 9);
        EXPECT_THAT(channelLines(log),
                    ElementsAre("[Ingest] 'Ch 1' is a channel of 'Ch 2': 9/9 clips share stem, "
                                "length and clock \u2014 will follow it instead of matching"));
    }
    {
        const TrackSource ten = track("Mic 10", channelFiles("/shoot/10", "_10", 3));
        const TrackSource two = track("Mic 2", channelFiles("/shoot/2", "_2", 3));
        const auto out = IngestEngine::detectSiblingChannels({ten, two});
        EXPECT_EQ(out[0].siblingOf, two.id) << "Mic 2 comes before Mic 10 in file-browser order";
        EXPECT_EQ(out[1].siblingOf, std::nullopt);
    }
}

TEST(SiblingChannels, NineInTenClipsOfTheLargerTrackMustHaveATwin) {
    // Ten against ten with eight twins: nine are needed.
    {
        std::vector<ClipItem> partly = channelFiles("/shoot/B", "_2", 8);
        partly.push_back(clip("/shoot/B/X001_2.WAV"));
        partly.push_back(clip("/shoot/B/X002_2.WAV"));
        const auto out = IngestEngine::detectSiblingChannels(
            {track("A", channelFiles("/shoot/A", "_1", 10)), track("B", std::move(partly))});
        EXPECT_EQ(out[0].siblingOf, std::nullopt);
        EXPECT_EQ(out[1].siblingOf, std::nullopt);
        EXPECT_EQ(clipsWithLeader(out[1]), 0);
    }
    // With nine twins they are channels; the tenth clip is synchronised by itself.
    {
        LogCapture log;
        std::vector<ClipItem> partly = channelFiles("/shoot/B", "_2", 9);
        partly.push_back(clip("/shoot/B/X001_2.WAV"));
        const TrackSource a = track("A", channelFiles("/shoot/A", "_1", 10));
        const auto out = IngestEngine::detectSiblingChannels({a, track("B", std::move(partly))});
        EXPECT_EQ(out[1].siblingOf, a.id);
        EXPECT_EQ(clipsWithLeader(out[1]), 9);
        EXPECT_EQ(out[1].clips[9].siblingLeaderID, std::nullopt);
        EXPECT_THAT(channelLines(log),
                    ElementsAre("[Ingest] 'B' is a channel of 'A': 9/10 clips share stem, "
                                "length and clock \u2014 will follow it instead of matching"));
    }
    // Five against ten: nine needed, five can't reach it, whichever track comes first.
    {
        const auto out = IngestEngine::detectSiblingChannels(
            {track("A", channelFiles("/shoot/A", "_1", 10)), track("B", channelFiles("/shoot/B", "_2", 5))});
        EXPECT_EQ(out[1].siblingOf, std::nullopt);
        const auto reversed = IngestEngine::detectSiblingChannels(
            {track("B", channelFiles("/shoot/B", "_2", 5)), track("A", channelFiles("/shoot/A", "_1", 10))});
        EXPECT_EQ(reversed[0].siblingOf, std::nullopt);
        EXPECT_EQ(reversed[1].siblingOf, std::nullopt);
    }
    // One clip each: one twin is enough.
    {
        const TrackSource a = track("A", {clip("/shoot/A/Take_L.wav")});
        const auto out = IngestEngine::detectSiblingChannels({a, track("B", {clip("/shoot/B/Take_R.wav")})});
        EXPECT_EQ(out[1].siblingOf, a.id);
    }
}

TEST(SiblingChannels, LengthAndTrustedClocksRefuseTwinsButUntrustedClocksNever) {
    const double t0 = 1'700'000'000.0;
    // Lengths within a tenth of a second are one take; 0.25 s apart are not.
    {
        const TrackSource a = track("A", {clip("/s/A/T1_1.wav", 10.0), clip("/s/A/T2_1.wav", 20.0)});
        const auto out = IngestEngine::detectSiblingChannels(
            {a, track("B", {clip("/s/B/T1_2.wav", 10.05), clip("/s/B/T2_2.wav", 20.25)})});
        EXPECT_EQ(out[1].siblingOf, a.id) << "of two clips, one twin is enough";
        EXPECT_EQ(out[1].clips[0].siblingLeaderID, a.clips[0].id);
        EXPECT_EQ(out[1].clips[1].siblingLeaderID, std::nullopt);
        const auto apart = IngestEngine::detectSiblingChannels(
            {track("A", {clip("/s/A/T1_1.wav", 10.0)}), track("B", {clip("/s/B/T1_2.wav", 10.25)})});
        EXPECT_EQ(apart[1].siblingOf, std::nullopt);
        const auto unknown =
            IngestEngine::detectSiblingChannels({track("A", {clip("/s/A/T1_1.wav", std::nan(""))}),
                                                 track("B", {clip("/s/B/T1_2.wav", std::nan(""))})});
        EXPECT_EQ(unknown[1].siblingOf, std::nullopt) << "a length that isn't a number matches nothing";
    }
    // Where several clips would do, the twin is the first in track order, not the closest.
    {
        const TrackSource lead = track("A", {clip("/s/A/T1_3.wav", 10.08), clip("/s/A/T1_1.wav", 10.0)});
        const auto out =
            IngestEngine::detectSiblingChannels({lead, track("B", {clip("/s/B/T1_2.wav", 10.0)})});
        EXPECT_EQ(out[1].siblingOf, lead.id);
        EXPECT_EQ(out[1].clips[0].siblingLeaderID, lead.clips[0].id);
    }
    // Two embedded clocks two seconds apart refuse the twin.
    {
        const TrackSource a = track("A", {datedClip("/s/A/T1_1.wav", t0, ClockQuality::embedded)});
        const auto out = IngestEngine::detectSiblingChannels(
            {a, track("B", {datedClip("/s/B/T1_2.wav", t0 + 2.0, ClockQuality::embedded)})});
        EXPECT_EQ(out[1].siblingOf, std::nullopt);
        const auto close = IngestEngine::detectSiblingChannels(
            {a, track("B", {datedClip("/s/B/T1_2.wav", t0 + 0.9, ClockQuality::filename)})});
        EXPECT_EQ(close[1].siblingOf, a.id) << "within a second, and filename clocks are believed";
        const auto untrusted = IngestEngine::detectSiblingChannels(
            {a, track("B", {datedClip("/s/B/T1_2.wav", t0 + 2.0, ClockQuality::filesystem)})});
        EXPECT_EQ(untrusted[1].siblingOf, a.id) << "a file date doesn't count against a twin";
        const auto undated = IngestEngine::detectSiblingChannels({a, track("B", {clip("/s/B/T1_2.wav")})});
        EXPECT_EQ(undated[1].siblingOf, a.id);
    }
}

TEST(SiblingChannels, AFileIsNotAChannelOfItselfOrOfItsCopy) {
    // No underscore: the name is its own stem, and a copy of the same name is no twin.
    const TrackSource a = track("A", {clip("/s/A/interview.wav")});
    const auto copies = IngestEngine::detectSiblingChannels({a, track("B", {clip("/s/B/interview.wav")})});
    EXPECT_EQ(copies[1].siblingOf, std::nullopt);
    // Unless the other file's stem reduces to this name.
    const auto suffixed =
        IngestEngine::detectSiblingChannels({a, track("B", {clip("/s/B/interview_2.wav")})});
    EXPECT_EQ(suffixed[1].siblingOf, a.id);
    EXPECT_EQ(suffixed[1].clips[0].siblingLeaderID, a.clips[0].id);
}

TEST(SiblingChannels, ThreeChannelsFormOneGroupThroughACommonPartner) {
    // Zed has no clock; Bravo's and Charlie's embedded clocks are five seconds apart, so Bravo and
    // Charlie never pass together, yet both pass with Zed and land in one set.
    LogCapture log;
    const double t0 = 1'700'000'000.0;
    const TrackSource zed = track("Zed", {clip("/s/Z/T1_3.wav"), clip("/s/Z/T2_3.wav")});
    const TrackSource bravo = track("Bravo", {datedClip("/s/B/T1_1.wav", t0, ClockQuality::embedded),
                                              datedClip("/s/B/T2_1.wav", t0 + 100, ClockQuality::embedded)});
    const TrackSource charlie =
        track("Charlie", {datedClip("/s/C/T1_2.wav", t0 + 5, ClockQuality::embedded),
                          datedClip("/s/C/T2_2.wav", t0 + 105, ClockQuality::embedded)});
    const auto out = IngestEngine::detectSiblingChannels({zed, bravo, charlie});

    EXPECT_EQ(out[0].siblingOf, bravo.id);
    EXPECT_EQ(out[1].siblingOf, std::nullopt) << "Bravo leads: equal counts, first by name";
    EXPECT_EQ(out[2].siblingOf, bravo.id);
    EXPECT_EQ(clipsWithLeader(out[0]), 2);
    EXPECT_EQ(clipsWithLeader(out[2]), 0)
        << "its clocks disagree with the leader's, so its clips match alone";
    EXPECT_THAT(
        channelLines(log),
        ElementsAre("[Ingest] 'Zed' is a channel of 'Bravo': 2/2 clips share stem, length and clock \u2014 "
                    "will follow it instead of matching",
                    "[Ingest] 'Charlie' is a channel of 'Bravo': 0/2 clips share stem, length and clock "
                    "\u2014 will follow it instead of matching"));
}

TEST(SiblingChannels, OnlyUnmarkedAudioTracksOfOneSessionAreConsidered) {
    LogCapture log;
    {
        TrackSource other = track("B", channelFiles("/elsewhere/B", "_2", 3));
        other.session = "/elsewhere";
        const auto out =
            IngestEngine::detectSiblingChannels({track("A", channelFiles("/shoot/A", "_1", 3)), other});
        EXPECT_EQ(out[1].siblingOf, std::nullopt) << "different sessions are never channels";
    }
    {
        const auto out = IngestEngine::detectSiblingChannels(
            {track("A", channelFiles("/shoot/A", "_1", 3), SourceType::video),
             track("B", channelFiles("/s/B", "_2", 3))});
        EXPECT_EQ(out[0].siblingOf, std::nullopt);
        EXPECT_EQ(out[1].siblingOf, std::nullopt) << "video tracks are never considered";
    }
    EXPECT_THAT(channelLines(log), IsEmpty());

    // A second run after a further drop leaves the marks alone and says nothing of them again.
    const TrackSource a = track("A", channelFiles("/shoot/A", "_1", 3));
    const auto first =
        IngestEngine::detectSiblingChannels({a, track("B", channelFiles("/shoot/B", "_2", 3))});
    ASSERT_EQ(first[1].siblingOf, a.id);
    auto again = first;
    again.push_back(track("C", channelFiles("/shoot/C", "_3", 3)));
    const auto second = IngestEngine::detectSiblingChannels(again);
    EXPECT_EQ(second[1].siblingOf, a.id);
    EXPECT_EQ(second[2].siblingOf, a.id) << "the new channel joins the leader that is still unmarked";
    EXPECT_EQ(log.countStartingWith("[Ingest] 'B' is a channel"), 1);

    const auto empty = IngestEngine::detectSiblingChannels({track("A", {}), track("B", {})});
    EXPECT_EQ(empty[0].siblingOf, std::nullopt);
    EXPECT_EQ(empty[1].siblingOf, std::nullopt);
}

TEST(SiblingChannels, RecorderChannelsReadFromDiskAreFoundAfterTheDeviceSplit) {
    // A dropped folder with one sub-folder per recorder input, as a multi-track recorder writes
    // them: two locked tracks whose files differ only by their channel suffix.
    TempDir tmp;
    for (const auto& [folder, suffix] : {std::pair{"Tr1", "_Tr1"}, std::pair{"Tr2", "_Tr2"}})
        for (const auto& [take, seconds] : {std::pair{"ZOOM0001", "1.0"}, std::pair{"ZOOM0002", "1.5"}}) {
            const auto p = tmp / fmt::format("shoot/{}/{}{}.WAV", folder, take, suffix);
            std::filesystem::create_directories(p.parent_path());
            const std::string cmd =
                "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i " +
                quoted(fmt::format("sine=frequency=440:sample_rate=48000:duration={}", seconds)) +
                " -c:a pcm_s16le -write_bext 1 -metadata originator=" + quoted("ZOOM F6") + " " +
                quoted(p.string());
            ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
        }
    LogCapture log;
    IngestEngine engine;
    auto tracks = engine.ingest({Url::fromPath(tmp / "shoot")}, {});
    tracks = IngestEngine::loadMetadata(std::move(tracks), nullptr);
    tracks = IngestEngine::splitSourcesByDevice(std::move(tracks));
    tracks = IngestEngine::detectSiblingChannels(std::move(tracks));

    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[0].name, "Tr1");
    EXPECT_EQ(tracks[0].deviceName, "ZOOM F6");
    EXPECT_EQ(tracks[0].siblingOf, std::nullopt);
    EXPECT_EQ(tracks[1].siblingOf, tracks[0].id);
    ASSERT_EQ(tracks[1].clips.size(), 2u);
    EXPECT_EQ(tracks[1].clips[0].siblingLeaderID, tracks[0].clips[0].id);
    EXPECT_EQ(tracks[1].clips[1].siblingLeaderID, tracks[0].clips[1].id);
    EXPECT_TRUE(
        log.contains("[Ingest] 'Tr2' is a channel of 'Tr1': 2/2 clips share stem, length and clock \u2014 "
                     "will follow it instead of matching"));
}
