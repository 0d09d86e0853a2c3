// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

using namespace trelvane;
using trelvane::test::LogCapture;

namespace {

const std::string kSession = "/shoots/Shoot";
const Date kDay1 = dateFromUnixSeconds(1'700'000'000);

Date hours(double h) {
    return dateFromUnixSeconds(unixSeconds(kDay1) + h * 3600.0);
}

// A track whose clip i starts at `starts[i]` hours after the first morning (no date where absent),
// each `duration` seconds long, with the given clock quality.
TrackSource track(const std::string& name, SourceType type, const std::vector<std::optional<double>>& starts,
                  double duration, ClockQuality quality, const std::string& session = kSession) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = session;
    for (std::size_t i = 0; i < starts.size(); ++i) {
        char file[96];
        std::snprintf(file, sizeof file, "%s_%03zu.%s", name.c_str(), i + 1,
                      type == SourceType::video ? "MOV" : "WAV");
        ClipItem c;
        c.url = Url::fromPath(session + "/" + name + "/" + file);
        c.duration = duration;
        if (starts[i]) {
            c.recordingDate = hours(*starts[i]);
            c.clockQuality = quality;
        }
        t.clips.push_back(c);
    }
    return t;
}

TrackSource recorder(const std::string& name, const std::vector<std::optional<double>>& starts,
                     double duration, ClockQuality quality = ClockQuality::embedded,
                     const std::string& session = kSession) {
    return track(name, SourceType::audio, starts, duration, quality, session);
}

TrackSource camera(const std::string& name, const std::vector<std::optional<double>>& starts,
                   double duration = 300, ClockQuality quality = ClockQuality::filename,
                   const std::string& session = kSession) {
    return track(name, SourceType::video, starts, duration, quality, session);
}

std::vector<std::string> regionsOf(const TrackSource& t) {
    std::vector<std::string> out;
    for (const auto& c : t.clips)
        out.push_back(c.dayRegion.value_or("-"));
    return out;
}

std::set<Uuid> allOf(const std::vector<DayRegionProposal>& proposals) {
    std::set<Uuid> ids;
    for (const auto& p : proposals)
        ids.insert(p.id);
    return ids;
}

// Two recorders a day apart (the first with more audio) and a camera that shot on both days.
std::vector<TrackSource> twoDaysWithACamera() {
    return {camera("Cam", {0.2, 1.2, 23.2, 24.2}), recorder("RecA", {0.0, 1.0, 2.0}, 1800),
            recorder("RecB", {23.0, 24.0}, 1800)};
}

// Every test reads a cache folder and environment of its own, so that no text-sync file of the
// machine's user can speak for the clocks.
class DayRegions : public ::testing::Test {
  protected:
    test::TempDir cache;
    test::ScopedEnv xdg{"XDG_CACHE_HOME", cache.path().string()};
    test::ScopedEnv regionsFile{"TRELVANE_TEXTSYNC_REGIONS", std::nullopt};
};

} // namespace

TEST_F(DayRegions, SessionsWhoseClocksDontShowSeparateDaysStayWhole) {
    struct Case {
        const char* what;
        std::vector<TrackSource> tracks;
        std::string line; // the log line that says why, if any
    };
    const std::vector<Case> cases{
        {"one recorder", {camera("Cam", {0.2, 30.0}), recorder("Rec", {0.0, 30.0, 60.0}, 1800)}, ""},
        // RecA ends at 2:30, RecB starts at 5:00: closer than the three-hour margin.
        {"recorders within three hours",
         {camera("Cam", {0.2, 5.2}), recorder("RecA", {0.0, 1.0, 2.0}, 1800),
          recorder("RecB", {5.0, 6.0}, 1800)},
         ""},
        {"untrusted recorder clocks",
         {camera("Cam", {0.2, 23.2}), recorder("RecA", {0.0, 1.0}, 1800, ClockQuality::filesystem),
          recorder("RecB", {23.0, 24.0}, 1800, ClockQuality::asset)},
         "[Ingest] day-region: device clocks for 'Shoot' don't cohere within one day — treating as a single "
         "day (audio-content sync)"},
        // All of the camera goes to day 0, so day 1 is audio alone: the clocks disagree.
        {"a camera dated on the first day only",
         {camera("Cam", {0.2, 1.2, 1.5}), recorder("RecA", {0.0, 1.0, 2.0}, 1800),
          recorder("RecB", {23.0, 24.0}, 1800)},
         "[Ingest] day-region: audio-only vs video clock split for 'Shoot' — treating as one day (likely "
         "wrong wall clock)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        EXPECT_TRUE(IngestEngine::detectDayRegions(c.tracks).empty());
        if (c.line.empty())
            EXPECT_EQ(log.countStartingWith("[Ingest] day-region"), 0);
        else
            EXPECT_TRUE(log.contains(c.line));
    }
    // Without any camera in the session the recorders' days stand.
    EXPECT_EQ(IngestEngine::detectDayRegions(
                  {recorder("RecA", {0.0, 1.0, 2.0}, 1800), recorder("RecB", {23.0, 24.0}, 1800)})
                  .size(),
              2u);
}

TEST_F(DayRegions, TwoRecordersOnTwoDaysSendEachCameraClipToItsDay) {
    LogCapture log;
    auto tracks = twoDaysWithACamera();
    // Another session with the same days is split on its own and proposes nothing here.
    tracks.push_back(camera("Other", {0.2, 23.2}, 300, ClockQuality::filename, "/shoots/Other"));
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    const auto& d0 = proposals[0];
    EXPECT_EQ(d0.regionKey, "day-0");
    EXPECT_EQ(d0.label, "Region 1");
    EXPECT_EQ(d0.session, kSession);
    EXPECT_EQ(d0.trackIDs, (std::vector<Uuid>{tracks[0].id, tracks[1].id}));
    EXPECT_EQ(d0.trackNames, (std::vector<std::string>{"Cam (2 of 4)", "RecA"}));
    EXPECT_EQ(d0.clipIDs,
              (std::vector<Uuid>{tracks[0].clips[0].id, tracks[0].clips[1].id, tracks[1].clips[0].id,
                                 tracks[1].clips[1].id, tracks[1].clips[2].id}));
    EXPECT_EQ(d0.clipCount, 5);
    EXPECT_EQ(d0.startDate, hours(0));
    EXPECT_EQ(d0.endDate, hours(2.5));
    EXPECT_EQ(d0.clockQuality, ClockQuality::embedded);
    EXPECT_FALSE(d0.rangeOverride);
    EXPECT_EQ(proposals[1].regionKey, "day-1");
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"Cam (2 of 4)", "RecB"}));
    EXPECT_EQ(proposals[1].startDate, hours(23));
    EXPECT_TRUE(log.contains("[Ingest] day-region camera 'Cam' → day-0:2, day-1:2"));
    EXPECT_TRUE(log.contains("[Ingest] day-region propose 'day-0': Cam (2 of 4), RecA (5 clips, " +
                             formatClockTime(hours(0)) + " – " + formatClockTime(hours(2.5)) +
                             ", q=embedded)"));
}

TEST_F(DayRegions, TheDayWithMostAudioComesFirstAndEarlierDaysLast) {
    LogCapture log;
    // The second day has more audio, so it is region 0; the first day lies before it.
    const std::vector<TrackSource> tracks{camera("Cam", {std::nullopt, std::nullopt, std::nullopt}),
                                          recorder("RecA", {0.0}, 600),
                                          recorder("RecB", {22.0, 23.0, 24.0}, 1800)};
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(proposals[0].trackNames, (std::vector<std::string>{"Cam (1 of 3)", "RecB"}));
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"Cam (2 of 3)", "RecA"}));
    // The last region lies behind the first: undated footage after the first clip goes to it.
    EXPECT_TRUE(log.contains("[Ingest] day-region camera 'Cam' → day-0:1, day-1:2"));
}

TEST_F(DayRegions, ARecorderWithItsClockInTheWrongYearIsLeftOutAndTheOthersDecide) {
    LogCapture log;
    auto tracks = twoDaysWithACamera();
    tracks.push_back(recorder("RecC", {-2.0 * 365 * 24, -2.0 * 365 * 24 + 1}, 1800));
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    EXPECT_TRUE(
        log.contains("[Ingest] day-region: 1 audio device(s) have outlier clocks (>1 day from the group) — "
                     "not trusting them to split days"));
    ASSERT_EQ(proposals.size(), 2u);
    // The recorder with the wrong clock stays with the main day, and its year doesn't widen its span.
    EXPECT_EQ(proposals[0].trackNames, (std::vector<std::string>{"Cam (2 of 4)", "RecA", "RecC"}));
    EXPECT_EQ(proposals[0].clipCount, 7);
    EXPECT_EQ(proposals[0].startDate, hours(0));
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"Cam (2 of 4)", "RecB"}));
}

TEST_F(DayRegions, CameraClipsWithoutATrustedDateArePlacedByLength) {
    // Day 0 holds 1000 s of audio: four clips of 300 s pass 1050 s (1.05 times that) only with the
    // fourth, so the fifth is the first to move to the last region. File dates seconds apart for
    // clips of five minutes are those of a copy made on the second day: they don't place the clips.
    const std::optional<double> undated;
    const std::vector<std::pair<TrackSource, std::string>> cases{
        {camera("Cam", {undated, undated, undated, undated, undated}), "day-0:4, day-1:1"},
        {camera("Cam", {23.0, 23.001, 23.002}, 300, ClockQuality::filesystem), "day-0:3"},
    };
    for (const auto& [cam, placed] : cases) {
        SCOPED_TRACE(placed);
        LogCapture log;
        IngestEngine::detectDayRegions({cam, recorder("RecA", {0.0}, 1000), recorder("RecB", {23.0}, 500)});
        EXPECT_TRUE(log.contains("[Ingest] day-region camera 'Cam' → " + placed));
    }
}

TEST_F(DayRegions, TheCardsOfOneCameraGroupTakeOneDayEach) {
    LogCapture log;
    auto cardA = camera("CardA", {std::nullopt, std::nullopt});
    auto cardB = camera("CardB", {std::nullopt});
    auto cardC = camera("CardC", {std::nullopt});
    cardA.cameraGroup = cardB.cameraGroup = cardC.cameraGroup = "cam-0";
    const std::vector<TrackSource> tracks{cardB, cardC, cardA, recorder("RecA", {0.0, 1.0, 2.0}, 1800),
                                          recorder("RecB", {23.0, 24.0}, 1800)};
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    EXPECT_TRUE(log.contains("[Ingest] day-region video 'CardA' → day-0 (group order 1/3)"));
    EXPECT_TRUE(log.contains("[Ingest] day-region video 'CardB' → day-1 (group order 2/3)"));
    // A third card has no third day: it is placed like any camera without a clock.
    EXPECT_EQ(log.countStartingWith("[Ingest] day-region video 'CardC'"), 0);
    EXPECT_TRUE(log.contains("[Ingest] day-region camera 'CardC' → day-0:1"));
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(proposals[0].trackNames, (std::vector<std::string>{"CardC", "CardA", "RecA"}));
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"CardB", "RecB"}));
}

TEST_F(DayRegions, ApplyingWritesTheKeysOfAcceptedRegionsOnly) {
    LogCapture log;
    const auto tracks = twoDaysWithACamera();
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);

    const auto out = IngestEngine::applyDayRegions(tracks, proposals, allOf(proposals));
    EXPECT_EQ(regionsOf(out[0]), (std::vector<std::string>{"day-0", "day-0", "day-1", "day-1"}));
    EXPECT_EQ(regionsOf(out[1]), (std::vector<std::string>{"day-0", "day-0", "day-0"}));
    EXPECT_EQ(regionsOf(out[2]), (std::vector<std::string>{"day-1", "day-1"}));
    // Half and half: the track takes the earlier region; its clips keep their own keys.
    EXPECT_EQ(out[0].dayRegion, "day-0");
    EXPECT_EQ(out[1].dayRegion, "day-0");
    EXPECT_EQ(out[2].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region 'day-0': Cam (2 of 4), RecA (" +
                             proposals[0].timeRangeHint() + ")"));
    EXPECT_TRUE(log.contains("[Ingest] day-region 'day-1': Cam (2 of 4), RecB (" +
                             proposals[1].timeRangeHint() + ")"));

    const auto twice = IngestEngine::applyDayRegions(out, proposals, allOf(proposals));
    for (std::size_t i = 0; i < out.size(); ++i)
        EXPECT_EQ(regionsOf(twice[i]), regionsOf(out[i])) << "applying again changes nothing";

    // Nothing accepted: no keys, and those of an earlier run are cleared.
    const auto cleared = IngestEngine::applyDayRegions(out, proposals, {});
    for (const auto& t : cleared) {
        EXPECT_FALSE(t.dayRegion) << t.name;
        for (const auto& c : t.clips)
            EXPECT_FALSE(c.dayRegion) << t.name;
    }
}

TEST_F(DayRegions, TracksNoAcceptedRegionCoversFollowTheirClockOrTheFirstRegion) {
    LogCapture log;
    auto tracks = twoDaysWithACamera();
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    // Added after detection: a recorder of the second day, a camera without clock, a recorder whose
    // clock is a year off, a recorder with only a file date of the second day, and a track of
    // another session.
    tracks.push_back(recorder("Late", {23.5}, 600));
    tracks.push_back(camera("NoClock", {std::nullopt}));
    tracks.push_back(recorder("WrongYear", {-365.0 * 24}, 600));
    tracks.push_back(recorder("FileDate", {23.5}, 600, ClockQuality::filesystem));
    tracks.push_back(recorder("Elsewhere", {23.5}, 600, ClockQuality::embedded, "/shoots/Other"));

    const auto out = IngestEngine::applyDayRegions(tracks, proposals, allOf(proposals));
    EXPECT_EQ(out[3].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'Late' → day-1 (clock fits " +
                             proposals[1].timeRangeHint() + ")"));
    EXPECT_EQ(out[4].dayRegion, "day-0");
    EXPECT_TRUE(
        log.contains("[Ingest] day-region orphan 'NoClock' → day-0 (no trusted clock fits — first region)"));
    EXPECT_EQ(out[5].dayRegion, "day-0");
    EXPECT_EQ(out[6].dayRegion, "day-0");
    EXPECT_FALSE(out[7].dayRegion);
    // Orphans get a track key; their clips follow it.
    EXPECT_FALSE(out[3].clips[0].dayRegion);
    EXPECT_EQ(log.countStartingWith("[Ingest] day-region orphan "), 4);

    // With one accepted region there is nothing to choose between: orphans are left alone.
    LogCapture single;
    const auto one = IngestEngine::applyDayRegions(tracks, proposals, {proposals[1].id});
    EXPECT_EQ(one[2].dayRegion, "day-1");
    EXPECT_FALSE(one[1].dayRegion);
    EXPECT_FALSE(one[3].dayRegion);
    EXPECT_EQ(single.countStartingWith("[Ingest] day-region orphan "), 0);
}

namespace {

// The region key each clip was proposed into, by clip id; "-" for a clip of no proposal.
std::string proposedRegion(const std::vector<DayRegionProposal>& proposals, const ClipItem& clip) {
    for (const auto& p : proposals)
        if (std::find(p.clipIDs.begin(), p.clipIDs.end(), clip.id) != p.clipIDs.end()) return p.regionKey;
    return "-";
}

} // namespace

TEST_F(DayRegions, EveryDayOfAShootIsItsOwnRegionHoweverFarApart) {
    // Day starts in hours. Every recorder and camera worked on every day, each in one track that
    // spans the whole shoot, as when the days' cards are copied into the same folders. The camera
    // has only file dates, an hour off (a wrong time zone).
    const std::vector<std::vector<double>> shoots{{0, 5},       {0, 29.5},  {0, 7 * 24},
                                                  {0, 30 * 24}, {0, 5, 34}, {0, 7 * 24, 14 * 24}};
    for (const auto& days : shoots) {
        SCOPED_TRACE(::testing::PrintToString(days));
        std::vector<std::optional<double>> recA, recB, cam;
        std::vector<std::string> dayOfRec, dayOfCam;
        for (std::size_t d = 0; d < days.size(); ++d) {
            for (const double h : {0.0, 0.2})
                recA.push_back(days[d] + h), recB.push_back(days[d] + h + 0.01),
                    dayOfRec.push_back("day-" + std::to_string(d));
            for (const double h : {0.05, 0.15, 0.25})
                cam.push_back(days[d] + h + 1.0), dayOfCam.push_back("day-" + std::to_string(d));
        }
        const std::vector<TrackSource> tracks{camera("Cam", cam, 300, ClockQuality::filesystem),
                                              recorder("RecA", recA, 600), recorder("RecB", recB, 600)};
        LogCapture log;
        const auto proposals = IngestEngine::detectDayRegions(tracks);
        ASSERT_EQ(proposals.size(), days.size());
        EXPECT_EQ(log.countStartingWith("[Ingest] day-region: "), 0);
        const std::vector<std::vector<std::string>*> expected{&dayOfCam, &dayOfRec, &dayOfRec};
        for (std::size_t t = 0; t < tracks.size(); ++t)
            for (std::size_t ci = 0; ci < tracks[t].clips.size(); ++ci)
                EXPECT_EQ(proposedRegion(proposals, tracks[t].clips[ci]), (*expected[t])[ci])
                    << tracks[t].name << " clip " << ci;
    }
}

TEST_F(DayRegions, ARecorderThatWorkedOnTwoDaysSplitsBetweenThem) {
    LogCapture log;
    // RecA recorded both days, RecB only the first; the camera's file dates back the second day.
    const std::vector<TrackSource> tracks{
        camera("Cam", {0.1, 0.4, 29.6, 29.8}, 300, ClockQuality::filesystem),
        recorder("RecA", {0.0, 0.3, std::nullopt, 29.5, 29.7}, 600), recorder("RecB", {0.05, 0.35}, 600)};
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(proposals[0].trackNames, (std::vector<std::string>{"Cam (2 of 4)", "RecA (3 of 5)", "RecB"}));
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"Cam (2 of 4)", "RecA (2 of 5)"}));
    // The undated clip lies between clips of the first day in file order: it is the first day's.
    EXPECT_EQ(proposedRegion(proposals, tracks[1].clips[2]), "day-0");
    EXPECT_EQ(proposals[1].startDate, hours(29.5));
}

TEST_F(DayRegions, ADayThatOneClockAloneClaimsAWeekAwayIsAWrongClock) {
    LogCapture log;
    // Nothing else recorded a month later, and the recorders disagree by more than a week: no day
    // can be trusted.
    EXPECT_TRUE(IngestEngine::detectDayRegions(
                    {recorder("RecA", {0.0, 1.0}, 1800), recorder("RecB", {30 * 24.0}, 1800)})
                    .empty());
    EXPECT_TRUE(
        log.contains("[Ingest] day-region: 2 audio device(s) have outlier clocks (>1 day from the group) — "
                     "not trusting them to split days"));
    EXPECT_EQ(log.countStartingWith("[Ingest] day-region: device clocks for 'Shoot' don't cohere"), 1);

    // A recorder whose clock fell back to a wrong year part-way is wrong for those clips only; its
    // two channel files are one device. The days of a week apart that several clocks agree on stand.
    LogCapture reset;
    auto left = recorder("Mix L", {0.0, 0.5, -20.0 * 365 * 24, 7 * 24.0}, 600);
    auto right = recorder("Mix R", {0.0, 0.5, -20.0 * 365 * 24, 7 * 24.0}, 600);
    right.siblingOf = left.id;
    const std::vector<TrackSource> tracks{camera("Cam", {0.1, 7 * 24.1}, 300, ClockQuality::filesystem), left,
                                          right, recorder("RecB", {0.2, 7 * 24 + 0.2}, 600)};
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    EXPECT_TRUE(
        reset.contains("[Ingest] day-region: 1 audio device(s) have outlier clocks (>1 day from the group) — "
                       "not trusting them to split days"));
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(proposedRegion(proposals, tracks[1].clips[2]), "day-0");
    EXPECT_EQ(proposedRegion(proposals, tracks[1].clips[3]), "day-1");
    EXPECT_EQ(proposals[0].startDate, hours(0));
}

TEST_F(DayRegions, CardsWithDatesFollowThemAndUndatedClipsTheirNeighbours) {
    LogCapture log;
    // One camera over four cards, two cards a day, file dates only. The last clips of the second
    // and fourth cards were rewritten together later (their dates overlap): they go with the
    // clips before them.
    auto card1 = camera("Card1", {0.1, 0.2}, 300, ClockQuality::filesystem);
    auto card2 = camera("Card2", {0.3, 5000.0, 5000.001}, 300, ClockQuality::filesystem);
    auto card3 = camera("Card3", {29.6, 29.7}, 300, ClockQuality::filesystem);
    auto card4 = camera("Card4", {29.8, 5000.0, 5000.001}, 300, ClockQuality::filesystem);
    for (auto* card : {&card1, &card2, &card3, &card4})
        card->cameraGroup = "cam-0";
    const std::vector<TrackSource> tracks{card1,
                                          card2,
                                          card3,
                                          card4,
                                          recorder("RecA", {0.0, 29.5}, 1800),
                                          recorder("RecB", {0.05, 29.55}, 1800)};
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(log.countStartingWith("[Ingest] day-region video "), 0);
    EXPECT_EQ(proposals[0].trackNames,
              (std::vector<std::string>{"Card1", "Card2", "RecA (1 of 2)", "RecB (1 of 2)"}));
    EXPECT_EQ(proposals[1].trackNames,
              (std::vector<std::string>{"Card3", "Card4", "RecA (1 of 2)", "RecB (1 of 2)"}));
}
