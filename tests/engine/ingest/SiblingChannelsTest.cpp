// SPDX-License-Identifier: GPL-3.0-or-later
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

#include <cmath>

using namespace trelvane;
using trelvane::test::clip;
using trelvane::test::dated;
using trelvane::test::LogCapture;
using trelvane::test::track;

namespace {

// `count` takes "<folder>/T001<suffix>.WAV"..., each half a second longer than the one before.
std::vector<ClipItem> channelFiles(const std::string& folder, const std::string& suffix, int count) {
    std::vector<ClipItem> out;
    for (int i = 1; i <= count; ++i)
        out.push_back(clip(fmt::format("{}/T{:03}{}.WAV", folder, i, suffix), 10.0 + i * 0.5));
    return out;
}

int clipsWithLeader(const TrackSource& t) {
    return static_cast<int>(std::count_if(t.clips.begin(), t.clips.end(),
                                          [](const ClipItem& c) { return c.siblingLeaderID.has_value(); }));
}

std::optional<Uuid> leaderOf(std::vector<TrackSource> tracks, std::size_t follower) {
    return IngestEngine::detectSiblingChannels(std::move(tracks))[follower].siblingOf;
}

const std::string kChannel = "' is a channel of '";

} // namespace

TEST(ChannelStem, TheLastUnderscoreAndWhatFollowsGo) {
    for (const auto& [file, stem] : {std::pair{"T012_1.WAV", "T012"},
                                     {"ZOOM0004_Tr1.WAV", "ZOOM0004"},
                                     {"Scene 4_take_LR.wav", "Scene 4_take"},
                                     {"interview.wav", "interview"},
                                     {"_1.wav", "_1"},
                                     {"take_.wav", "take_"},
                                     {"a__b.wav", "a_"}})
        EXPECT_EQ(IngestEngine::channelStem(Url::fromPath(std::string("/r/") + file)), stem) << file;
}

// The demo shoot's two-channel recorder is followed end to end; here, who leads.
TEST(SiblingChannels, TheLargestTrackLeadsThenTheFirstByName) {
    LogCapture log;
    const TrackSource b = track("Rec B", channelFiles("/shoot/B", "_2", 5));
    const TrackSource a = track("Rec A", channelFiles("/shoot/A", "_1", 5));
    const auto out = IngestEngine::detectSiblingChannels({b, a});
    EXPECT_EQ(out[1].siblingOf, std::nullopt) << "Rec A leads: equal counts, first by name";
    EXPECT_EQ(out[0].siblingOf, a.id);
    EXPECT_EQ(out[0].clips[4].siblingLeaderID, a.clips[4].id);
    const TrackSource many = track("Ch 2", channelFiles("/shoot/2", "_2", 10)),
                      two = track("Mic 2", channelFiles("/shoot/2", "_2", 3));
    EXPECT_EQ(leaderOf({track("Ch 1", channelFiles("/shoot/1", "_1", 9)), many}, 0), many.id);
    EXPECT_EQ(leaderOf({track("Mic 10", channelFiles("/shoot/10", "_10", 3)), two}, 0), two.id)
        << "Mic 2 comes before Mic 10 in file-browser order";
}

TEST(SiblingChannels, NineInTenClipsOfTheLargerTrackMustHaveATwin) {
    const auto withStrangers = [](int twins, int strangers) {
        std::vector<ClipItem> clips = channelFiles("/shoot/B", "_2", twins);
        for (int i = 1; i <= strangers; ++i)
            clips.push_back(clip(fmt::format("/shoot/B/X{:03}_2.WAV", i)));
        return track("B", std::move(clips));
    };
    const TrackSource a = track("A", channelFiles("/shoot/A", "_1", 10));
    const struct {
        const char* what;
        std::vector<TrackSource> tracks;
        int follower, leader, twins; // leader -1: no channel
    } cases[] = {
        {"eight of ten", {a, withStrangers(8, 2)}, 1, -1, 0},
        {"nine of ten", {a, withStrangers(9, 1)}, 1, 0, 9},
        {"five of ten", {a, withStrangers(5, 0)}, 1, -1, 0},
        {"five of ten, the other way round", {withStrangers(5, 0), a}, 0, -1, 0},
        {"one of one", {track("A", {clip("/s/A/T_L.wav")}), track("B", {clip("/s/B/T_R.wav")})}, 1, 0, 1},
    };
    for (const auto& c : cases) {
        const auto out = IngestEngine::detectSiblingChannels(c.tracks);
        const auto leader = c.leader < 0 ? std::nullopt : std::optional<Uuid>(c.tracks[c.leader].id);
        EXPECT_EQ(out[c.follower].siblingOf, leader) << c.what;
        EXPECT_EQ(clipsWithLeader(out[c.follower]), c.twins) << c.what;
    }
}

TEST(SiblingChannels, LengthAndTrustedClocksRefuseTwinsButUntrustedClocksNever) {
    const double t0 = 1'700'000'000.0;
    const ClipItem a = clip("/s/A/T1_1.wav"), b = clip("/s/B/T1_2.wav");
    const ClipItem embedded = dated(a, t0, ClockQuality::embedded);
    const struct {
        ClipItem mine, theirs;
        bool twins;
    } cases[] = {
        // Lengths within a tenth of a second are one take; 0.25 s apart, or not a number, are not.
        {a, clip("/s/B/T1_2.wav", 10.05), true},
        {a, clip("/s/B/T1_2.wav", 10.25), false},
        {clip("/s/A/T1_1.wav", std::nan("")), clip("/s/B/T1_2.wav", std::nan("")), false},
        // Embedded clocks two seconds apart refuse; within a second, or a file date, or none, do not.
        {embedded, dated(b, t0 + 2.0, ClockQuality::embedded), false},
        {embedded, dated(b, t0 + 0.9, ClockQuality::filename), true},
        {embedded, dated(b, t0 + 2.0, ClockQuality::filesystem), true},
        {embedded, b, true},
        // A copy of the same name is no twin, unless the other file's stem reduces to this name.
        {clip("/s/A/interview.wav"), clip("/s/B/interview.wav"), false},
        {clip("/s/A/interview.wav"), clip("/s/B/interview_2.wav"), true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(leaderOf({track("A", {c.mine}), track("B", {c.theirs})}, 1).has_value(), c.twins)
            << c.mine.url.path() << " " << c.theirs.url.path() << " " << c.theirs.duration;
    }
    // Where several clips would do, the twin is the first in track order, not the closest; of two
    // clips, one twin is enough.
    const TrackSource lead = track("A", {clip("/s/A/T1_3.wav", 10.08), a});
    const auto out =
        IngestEngine::detectSiblingChannels({lead, track("B", {b, clip("/s/B/T2_2.wav", 20.25)})});
    EXPECT_EQ(out[1].siblingOf, lead.id);
    EXPECT_EQ(out[1].clips[0].siblingLeaderID, lead.clips[0].id);
    EXPECT_EQ(out[1].clips[1].siblingLeaderID, std::nullopt);
}

TEST(SiblingChannels, OnlyUnmarkedAudioTracksOfOneSessionAreConsidered) {
    LogCapture log;
    const TrackSource a = track("A", channelFiles("/shoot/A", "_1", 3));
    const auto other = track("B", channelFiles("/elsewhere/B", "_2", 3), SourceType::audio, "/elsewhere");
    EXPECT_EQ(leaderOf({a, other}, 1), std::nullopt);
    const auto video = track("V", channelFiles("/shoot/V", "_1", 3), SourceType::video);
    EXPECT_EQ(leaderOf({video, track("B", channelFiles("/s/B", "_2", 3))}, 1), std::nullopt);
    EXPECT_EQ(leaderOf({track("B", channelFiles("/s/B", "_2", 3)), video}, 1), std::nullopt);
    EXPECT_TRUE(test::linesWith(log, kChannel).empty());

    // A second run after a further drop leaves the marks alone and says nothing of them again.
    auto again = IngestEngine::detectSiblingChannels({a, track("B", channelFiles("/shoot/B", "_2", 3))});
    ASSERT_EQ(again[1].siblingOf, a.id);
    again.push_back(track("C", channelFiles("/shoot/C", "_3", 3)));
    const auto second = IngestEngine::detectSiblingChannels(again);
    EXPECT_EQ(second[1].siblingOf, a.id);
    EXPECT_EQ(second[2].siblingOf, a.id) << "the new channel joins the leader that is still unmarked";
    EXPECT_EQ(log.countStartingWith("[Ingest] 'B' is a channel"), 1);
}
