// SPDX-License-Identifier: GPL-3.0-or-later
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace trelvane;
using trelvane::test::LogCapture;

namespace {

const std::string kSession = "/shoots/Shoot";
const Date kDay1 = dateFromUnixSeconds(1'700'000'000);

Date hours(double h) {
    return dateFromUnixSeconds(unixSeconds(kDay1) + h * 3600.0);
}

TrackSource track(const std::string& name, SourceType type, const std::vector<std::optional<double>>& starts,
                  double duration, ClockQuality quality, const std::string& session) {
    std::vector<ClipItem> clips;
    for (std::size_t i = 0; i < starts.size(); ++i) {
        clips.push_back(test::clip(fmt::format("{}/{}/{}_{:03}.{}", session, name, name, i + 1,
                                               type == SourceType::video ? "MOV" : "WAV"),
                                   duration));
        if (starts[i])
            clips.back() = test::dated(clips.back(), unixSeconds(kDay1) + *starts[i] * 3600.0, quality);
    }
    return test::track(name, std::move(clips), type, session);
}

// A shoot, one track after each ';': its name, "v" for a camera (300 s clips, file-name clock)
// else a recorder (embedded clock), "@<seconds>" a clip length, "fs"/"asset" a file or asset date,
// "g<key>" a camera group, "~" a channel of the track before; then each clip's start in hours
// after the first morning, "-" for a clip without date.
std::vector<TrackSource> shoot(const std::string& text, const std::string& session = kSession) {
    std::vector<TrackSource> out;
    std::istringstream tracks(text);
    for (std::string line; std::getline(tracks, line, ';');) {
        std::istringstream words(line);
        std::string name, w, group;
        words >> name;
        bool video = false, channel = false;
        double length = 300;
        std::optional<ClockQuality> quality;
        std::vector<std::optional<double>> starts;
        while (words >> w) {
            if (w == "v")
                video = true;
            else if (w == "~")
                channel = true;
            else if (w == "fs" || w == "asset")
                quality = w == "fs" ? ClockQuality::filesystem : ClockQuality::asset;
            else if (w[0] == '@')
                length = std::stod(w.substr(1));
            else if (w[0] == 'g')
                group = w.substr(1);
            else
                starts.push_back(w == "-" ? std::nullopt : std::optional(std::stod(w)));
        }
        out.push_back(track(name, video ? SourceType::video : SourceType::audio, starts, length,
                            quality.value_or(video ? ClockQuality::filename : ClockQuality::embedded),
                            session));
        if (!group.empty()) out.back().cameraGroup = group;
        if (channel) out.back().siblingOf = out[out.size() - 2].id;
    }
    return out;
}

// The track names of each proposal, proposals apart by " | ".
std::string namesOf(const std::vector<DayRegionProposal>& proposals) {
    std::string out;
    for (const auto& p : proposals)
        out += (out.empty() ? "" : " | ") + fmt::format("{}", fmt::join(p.trackNames, ", "));
    return out;
}

std::vector<std::string> regionsOf(const TrackSource& t) {
    std::vector<std::string> out;
    for (const auto& c : t.clips)
        out.push_back(c.dayRegion.value_or("-"));
    return out;
}

// The region key each clip was proposed into, by clip id; "-" for a clip of no proposal.
std::string proposedRegion(const std::vector<DayRegionProposal>& proposals, const ClipItem& clip) {
    for (const auto& p : proposals)
        if (std::find(p.clipIDs.begin(), p.clipIDs.end(), clip.id) != p.clipIDs.end()) return p.regionKey;
    return "-";
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

// Two recorders a day apart (the first with more audio) and a camera that shot on both days; the
// regions proposed, the keys applied, and the tracks no accepted region covers.
TEST_F(DayRegions, TwoRecordersOnTwoDaysSendEachCameraClipToItsDayAndAppliedRegionsKeyEveryTrack) {
    LogCapture log;
    auto tracks = shoot("Cam v 0.2 1.2 23.2 24.2; RecA @1800 0 1 2; RecB @1800 23 24");
    // Another session with the same days is split on its own and proposes nothing here.
    auto withOther = tracks;
    withOther.push_back(shoot("Other v 0.2 23.2", "/shoots/Other")[0]);
    const auto proposals = IngestEngine::detectDayRegions(withOther);
    ASSERT_EQ(proposals.size(), 2u);
    const auto& d0 = proposals[0];
    EXPECT_EQ(d0.label, "Region 1");
    EXPECT_EQ(d0.trackIDs, (std::vector<Uuid>{tracks[0].id, tracks[1].id}));
    EXPECT_EQ(d0.clipCount, 5);
    EXPECT_EQ(d0.endDate, hours(2.5));
    EXPECT_EQ(namesOf(proposals), "Cam (2 of 4), RecA | Cam (2 of 4), RecB");
    EXPECT_EQ(proposals[1].startDate, hours(23));
    EXPECT_TRUE(log.contains("[Ingest] day-region camera 'Cam' → day-0:2, day-1:2"));
    EXPECT_TRUE(log.contains("[Ingest] day-region propose 'day-0': Cam (2 of 4), RecA (5 clips, " +
                             formatClockTime(hours(0)) + " – " + formatClockTime(hours(2.5)) +
                             ", q=embedded)"));

    const std::set<Uuid> both{proposals[0].id, proposals[1].id};
    const auto out = IngestEngine::applyDayRegions(tracks, proposals, both);
    EXPECT_EQ(regionsOf(out[0]), (std::vector<std::string>{"day-0", "day-0", "day-1", "day-1"}));
    EXPECT_EQ(regionsOf(out[2]), (std::vector<std::string>{"day-1", "day-1"}));
    // Half and half: the track takes the earlier region; its clips keep their own keys.
    EXPECT_EQ(out[0].dayRegion, "day-0");
    EXPECT_EQ(out[2].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region 'day-1': Cam (2 of 4), RecB (" +
                             proposals[1].timeRangeHint() + ")"));
    const auto twice = IngestEngine::applyDayRegions(out, proposals, both);
    for (std::size_t i = 0; i < out.size(); ++i)
        EXPECT_EQ(regionsOf(twice[i]), regionsOf(out[i])) << "applying again changes nothing";
    // Nothing accepted: no keys, and those of an earlier run are cleared.
    for (const auto& t : IngestEngine::applyDayRegions(out, proposals, {})) {
        EXPECT_FALSE(t.dayRegion) << t.name;
        EXPECT_EQ(regionsOf(t), std::vector<std::string>(t.clips.size(), "-")) << t.name;
    }

    // Added after detection: a recorder of the second day, a camera without clock, a recorder whose
    // clock is a year off, a recorder with only a file date of the second day, and a track of
    // another session. Orphans get a track key; their clips follow it.
    for (const auto& t : shoot("Late @600 23.5; NoClock v -; WrongYear @600 -8760; FileDate @600 fs 23.5"))
        tracks.push_back(t);
    tracks.push_back(shoot("Elsewhere @600 23.5", "/shoots/Other")[0]);
    const auto orphans = IngestEngine::applyDayRegions(tracks, proposals, both);
    std::vector<std::string> keys;
    for (std::size_t i = 3; i < orphans.size(); ++i)
        keys.push_back(orphans[i].dayRegion.value_or("-") + regionsOf(orphans[i])[0]);
    EXPECT_EQ(keys, (std::vector<std::string>{"day-1-", "day-0-", "day-0-", "day-0-", "--"}));
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'Late' → day-1 (clock fits " +
                             proposals[1].timeRangeHint() + ")"));
    EXPECT_TRUE(
        log.contains("[Ingest] day-region orphan 'NoClock' → day-0 (no trusted clock fits — first region)"));
    EXPECT_EQ(log.countStartingWith("[Ingest] day-region orphan "), 4);

    // With one accepted region there is nothing to choose between: orphans are left alone.
    LogCapture single;
    const auto one = IngestEngine::applyDayRegions(tracks, proposals, {proposals[1].id});
    EXPECT_EQ(one[2].dayRegion, "day-1");
    EXPECT_FALSE(one[1].dayRegion);
    EXPECT_FALSE(one[3].dayRegion);
    EXPECT_EQ(single.countStartingWith("[Ingest] day-region orphan "), 0);
}

TEST_F(DayRegions, ProposalsFollowTheClocksTheyCanTrust) {
    const std::string outliers = "[Ingest] day-region: 1 audio device(s) have outlier clocks (>1 day from "
                                 "the group) — not trusting them to split days";
    const struct {
        const char* what;
        std::string shoot, names; // the track names of each proposal
        std::string line;         // a line the log must hold; empty: no "day-region:" line at all
    } cases[] = {
        {"one recorder", "Cam v 0.2 30; Rec @1800 0 30 60", "", ""},
        // RecA ends at 2:30, RecB starts at 5:00: closer than the three-hour margin.
        {"recorders within three hours", "Cam v 0.2 5.2; RecA @1800 0 1 2; RecB @1800 5 6", "", ""},
        {"untrusted recorder clocks", "Cam v 0.2 23.2; RecA @1800 fs 0 1; RecB @1800 asset 23 24", "",
         "[Ingest] day-region: device clocks for 'Shoot' don't cohere within one day — treating as a single "
         "day (audio-content sync)"},
        // All of the camera goes to day 0, so day 1 is audio alone: the clocks disagree.
        {"a camera dated on the first day only", "Cam v 0.2 1.2 1.5; RecA @1800 0 1 2; RecB @1800 23 24", "",
         "[Ingest] day-region: audio-only vs video clock split for 'Shoot' — treating as one day (likely "
         "wrong wall clock)"},
        {"no camera: the recorders' days stand", "RecA @1800 0 1 2; RecB @1800 23 24", "RecA | RecB", ""},
        // The second day has more audio, so it is region 0; undated footage after the first clip
        // goes to the last region, which lies behind it.
        {"the day with most audio first", "Cam v - - -; RecA @600 0; RecB @1800 22 23 24",
         "Cam (1 of 3), RecB | Cam (2 of 3), RecA", "[Ingest] day-region camera 'Cam' → day-0:1, day-1:2"},
        // Left out of the decision, it stays with the main day, its year not widening the span.
        {"a recorder in the wrong year",
         "Cam v 0.2 1.2 23.2 24.2; RecA @1800 0 1 2; RecB @1800 23 24; RecC @1800 -17520 -17519",
         "Cam (2 of 4), RecA, RecC | Cam (2 of 4), RecB", outliers},
        // Day 0 holds 1000 s of audio: four clips of 300 s pass 1050 s (1.05 times that) only with
        // the fourth, so the fifth is the first to move to the last region.
        {"undated camera clips by length", "Cam v - - - - -; RecA @1000 0; RecB @500 23",
         "Cam (4 of 5), RecA | Cam (1 of 5), RecB", "[Ingest] day-region camera 'Cam' → day-0:4, day-1:1"},
        // File dates seconds apart for clips of five minutes are those of a copy: they place nothing,
        // and with the whole camera on the first day the clocks disagree.
        {"copied file dates", "Cam v fs 23 23.001 23.002; RecA @1000 0; RecB @500 23", "",
         "[Ingest] day-region camera 'Cam' → day-0:3"},
        // A third card has no third day: it is placed like any camera without a clock.
        {"the cards of one group take one day each",
         "CardB v gcam-0 -; CardC v gcam-0 -; CardA v gcam-0 - -; RecA @1800 0 1 2; RecB @1800 23 24",
         "CardC, CardA, RecA | CardB, RecB", "[Ingest] day-region video 'CardB' → day-1 (group order 2/3)"},
        // One camera over four cards, file dates only; the last clips of the second and fourth cards
        // were rewritten together later (their dates overlap) and go with the clips before them.
        {"dated cards follow their dates",
         "Card1 v fs gcam-1 0.1 0.2; Card2 v fs gcam-1 0.3 5000 5000.001; Card3 v fs gcam-1 29.6 29.7; "
         "Card4 v fs gcam-1 29.8 5000 5000.001; RecA @1800 0 29.5; RecB @1800 0.05 29.55",
         "Card1, Card2, RecA (1 of 2), RecB (1 of 2) | Card3, Card4, RecA (1 of 2), RecB (1 of 2)", ""},
        // The undated clip lies between clips of the first day in file order: it is the first day's.
        {"a recorder that worked on two days",
         "Cam v fs 0.1 0.4 29.6 29.8; RecA @600 0 0.3 - 29.5 29.7; RecB @600 0.05 0.35",
         "Cam (2 of 4), RecA (3 of 5), RecB | Cam (2 of 4), RecA (2 of 5)", ""},
        // Nothing else recorded a month later, and the recorders disagree by more than a week.
        {"one clock a month away", "RecA @1800 0 1; RecB @1800 720", "",
         "[Ingest] day-region: 2 audio device(s) have outlier clocks (>1 day from the group) — not trusting "
         "them to split days"},
        // A recorder whose clock fell back to a wrong year part-way (its two channel files are one
        // device): the days a week apart that several clocks agree on stand.
        {"a wrong year part-way",
         "Cam v fs 0.1 168.7; L @600 0 0.5 -175200 168; R @600 ~ 0 0.5 -175200 168; B @600 0.2 168.2",
         "Cam (1 of 2), L (3 of 4), R (3 of 4), B (1 of 2) | Cam (1 of 2), L (1 of 4), R (1 of 4), B (1 of "
         "2)",
         outliers},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(namesOf(IngestEngine::detectDayRegions(shoot(c.shoot))), c.names) << c.what;
        EXPECT_TRUE(c.line.empty() ? log.countStartingWith("[Ingest] day-region: ") == 0
                                   : log.contains(c.line))
            << c.what;
    }
}

TEST_F(DayRegions, EveryDayOfAShootIsItsOwnRegionHoweverFarApart) {
    // Day starts in hours. Every recorder and camera worked on every day, each in one track that
    // spans the whole shoot, as when the days' cards are copied into the same folders. The camera
    // has only file dates, an hour off (a wrong time zone).
    const std::vector<std::vector<double>> shoots{{0, 5},       {0, 29.5},  {0, 7 * 24},
                                                  {0, 30 * 24}, {0, 5, 34}, {0, 7 * 24, 14 * 24}};
    for (const auto& days : shoots) {
        SCOPED_TRACE(::testing::PrintToString(days));
        std::string cam = "Cam v fs", recA = "; RecA @600", recB = "; RecB @600", want, got;
        for (const double day : days) {
            for (const double h : {1.05, 1.15, 1.25})
                cam += fmt::format(" {}", day + h);
            for (const double h : {0.0, 0.2})
                recA += fmt::format(" {}", day + h), recB += fmt::format(" {}", day + h + 0.01);
        }
        for (const std::size_t perDay : {3, 2, 2})
            for (std::size_t d = 0; d < days.size(); ++d)
                want += std::string(perDay, 'a' + static_cast<char>(d));
        LogCapture log;
        const auto tracks = shoot(cam + recA + recB);
        const auto proposals = IngestEngine::detectDayRegions(tracks);
        for (const auto& t : tracks)
            for (const auto& c : t.clips)
                got += static_cast<char>('a' + (proposedRegion(proposals, c).back() - '0'));
        EXPECT_EQ(got, want) << "each clip's day, a for the first";
        EXPECT_EQ(log.countStartingWith("[Ingest] day-region: "), 0);
    }
}
