// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/ingest/TextSyncStore.hpp"
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

#include <fstream>

using namespace trelvane;
using trelvane::test::LogCapture;
using trelvane::test::ScopedEnv;
using trelvane::test::TempDir;
using Offsets = std::map<std::string, double>;

namespace {

const std::string kSession = "/shoots/Day One";

TrackSource track(const std::string& name, SourceType type, int clips,
                  const std::string& session = kSession) {
    std::vector<ClipItem> out;
    for (int i = 1; i <= clips; ++i)
        out.push_back(test::clip(
            fmt::format("{0}/{1}/{1}_{2}.{3}", session, name, i, type == SourceType::video ? "MOV" : "WAV"),
            600));
    return test::track(name, std::move(out), type, session);
}

const char* kTwoRegions = R"({
  "min_support": 3,
  "ngram": 4,
  "regions": [
    {"region_key": "day-0", "label": "Friday", "track_names": ["cama", "Zoom", "Ghost"],
     "support_edges": [{"a": "CamA", "b": "Zoom", "support": 7, "approx_offset_sec": 12.5},
                       {"a": "CamA", "b": "Ghost", "support": 9, "approx_offset_sec": 1.0}]},
    {"region_key": "day-1", "label": "Saturday", "track_names": ["CamB", "Tascam"],
     "support_edges": [{"a": "Tascam", "b": "CamB", "support": 2, "approx_offset_sec": -4.0},
                       {"a": "CamB", "b": "Zoom", "support": 5, "approx_offset_sec": -30.25}]}
  ]
})";

// The camera "CamC" is named by no region.
std::vector<TrackSource> shoot() {
    return {track("CamA", SourceType::video, 2), track("CamB", SourceType::video, 1),
            track("CamC", SourceType::video, 1), track("Zoom", SourceType::audio, 1),
            track("Tascam", SourceType::audio, 2)};
}

// Every test reads a cache folder and environment of its own.
class TextSync : public ::testing::Test {
  protected:
    TempDir tmp;
    ScopedEnv xdg{"XDG_CACHE_HOME", (tmp / "cache").string()};
    ScopedEnv env{TextSyncStore::kRegionsEnvVariable, std::nullopt};

    std::filesystem::path cacheFile(const std::string& folder) const {
        return tmp / "cache" / "Trelvane" / "textsync" / folder / "regions.json";
    }
    std::filesystem::path write(const std::filesystem::path& p, const std::string& bytes) const {
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << bytes;
        return p;
    }
    std::filesystem::path writeRegions(const std::string& bytes) const {
        return write(cacheFile("Day One"), bytes);
    }
};

} // namespace

TEST_F(TextSync, CandidatesAreTriedInOrderAndABrokenOneGivesWayToTheNext) {
    // Letters and digits of any script stay in a session's folder name; any other scalar is one "_",
    // a stray byte too. White space at the ends, a no-break space included, is trimmed.
    EXPECT_EQ(TextSyncStore::sanitizeSession("  /Drehtag Zürich/撮影 2\n"), "_Drehtag_Zürich_撮影_2");
    EXPECT_EQ(TextSyncStore::sanitizeSession("\xC2\xA0\x61🎬b\xff\x62\xC2\xA0"), "a_b_b");
    LogCapture log;
    EXPECT_FALSE(TextSyncStore::loadRegionsFile(kSession));
    EXPECT_TRUE(log.lines().empty()) << "nothing anywhere: nothing, and nothing said";

    // The folder of the last path component is the last resort.
    const auto leaf = writeRegions(kTwoRegions);
    EXPECT_EQ(TextSyncStore::loadRegionsFile(kSession).value().url.path(), leaf.string());
    EXPECT_TRUE(log.contains("[TextSync] loaded 2 region(s) from " + leaf.string()));

    // The sanitised session's folder comes before it.
    const auto sanitized = write(cacheFile("_shoots_Day_One"),
                                 R"({"regions": [{"region_key": "d", "label": "D", "track_names": []}]})");
    EXPECT_EQ(TextSyncStore::loadRegionsFile(kSession).value().url.path(), sanitized.string());

    // The environment's file comes first, unless empty; broken (or larger than any regions file,
    // refused unread), it is logged and the next one is used.
    ScopedEnv empty(TextSyncStore::kRegionsEnvVariable, "");
    EXPECT_FALSE(TextSyncStore::envRegionsURL());
    const auto huge = write(tmp / "huge.json", std::string(TextSyncStore::kMaxFileBytes + 1, ' '));
    ScopedEnv named(TextSyncStore::kRegionsEnvVariable, huge.string());
    EXPECT_EQ(TextSyncStore::loadRegionsFile(kSession).value().url.path(), sanitized.string());
    const auto broken = write(tmp / "env.json", "{");
    ScopedEnv named2(TextSyncStore::kRegionsEnvVariable, broken.string());
    LogCapture second;
    EXPECT_EQ(TextSyncStore::loadRegionsFile(kSession).value().url.path(), sanitized.string());
    EXPECT_EQ(second.lines(),
              (std::vector<std::string>{"[TextSync] failed to decode " + broken.string(),
                                        "[TextSync] loaded 1 region(s) from " + sanitized.string()}));
}

TEST_F(TextSync, RegionsWithoutTwoCamerasLeaveTheDecisionOrKeepTheSessionWhole) {
    // The recorders' clocks alone would split the session in two days.
    auto tracks = shoot();
    for (auto& t : tracks)
        for (auto& c : t.clips)
            c = test::dated(c, 1'700'000'000.0 + (t.name == "Tascam" || t.name == "CamB" ? 86000.0 : 0.0),
                            ClockQuality::embedded);
    // One region decides nothing: the clocks do.
    writeRegions(R"({"regions": [{"region_key": "day-0", "label": "All", "track_names": ["CamA"]}]})");
    EXPECT_FALSE(IngestEngine::detectDayRegionsFromTextSync(tracks, kSession, {0, 1, 2, 3, 4}));

    // Regions that name only recorders: one piece, whatever the clocks say.
    writeRegions(R"({"regions": [{"region_key": "day-0", "label": "A", "track_names": ["zoom"]},
                                 {"region_key": "day-1", "label": "B", "track_names": ["Tascam"]}]})");
    LogCapture log;
    EXPECT_TRUE(
        IngestEngine::detectDayRegionsFromTextSync(tracks, kSession, {0, 1, 2, 3, 4}).value().empty());
    EXPECT_TRUE(
        log.contains("[TextSync] audio-only regions for '/shoots/Day One' — skip day-region split (keep one "
                     "camera chain + unlinked banquet audio)"));
    EXPECT_TRUE(IngestEngine::detectDayRegions(tracks).empty());
}

TEST_F(TextSync, RegionsThatNameCamerasBecomeProposalsPlaceTheUnnamedCamerasAndGiveOffsets) {
    writeRegions(kTwoRegions);
    auto tracks = shoot();
    tracks.push_back(track("CamD", SourceType::video, 1));
    tracks.push_back(track("CamA", SourceType::video, 1, "/shoots/Elsewhere"));
    LogCapture log;
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(proposals[0].label, "Friday");
    // Names compare without case; tracks of other sessions are never found.
    EXPECT_EQ(proposals[0].clipIDs,
              (std::vector<Uuid>{tracks[0].clips[0].id, tracks[0].clips[1].id, tracks[3].clips[0].id}));
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"CamB", "Tascam"}));
    EXPECT_TRUE(log.contains("[TextSync] region 'day-0': no track named 'Ghost'"));
    EXPECT_TRUE(log.contains("[Ingest] day-region propose 'day-1' [text-sync]: 2 track(s), 3 clip(s)"));

    // Both regions have a camera: the unnamed cameras take them in file order, the surplus the last.
    const auto out = IngestEngine::applyDayRegions(tracks, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_EQ(out[2].dayRegion, "day-0");
    EXPECT_EQ(out[5].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamC' → day-0 (text-sync camera order 1/2)"));

    // A region without a camera takes the first unnamed one.
    writeRegions(R"({"regions": [{"region_key": "day-0", "label": "A", "track_names": ["CamA", "Zoom"]},
                                 {"region_key": "day-1", "label": "B", "track_names": ["Tascam"]}]})");
    const auto plain = shoot();
    const auto two = IngestEngine::detectDayRegions(plain);
    ASSERT_EQ(two.size(), 2u);
    const auto placed = IngestEngine::applyDayRegions(plain, two, {two[0].id, two[1].id});
    EXPECT_EQ(placed[1].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamC' → day-1 (text-sync camera order 2/2)"));

    // Support edges become offsets between peers, the best supported of a pair winning.
    writeRegions(kTwoRegions);
    tracks = shoot();
    tracks.push_back(track("Zoom", SourceType::audio, 1, "/shoots/Elsewhere"));
    LogCapture offsets;
    const auto priors = IngestEngine::attachTextSyncPriors(tracks, kSession);
    EXPECT_EQ(priors[0].textSyncOffsetByPeer, (Offsets{{"Zoom", 12.5}}));
    EXPECT_EQ(priors[3].textSyncOffsetByPeer, (Offsets{{"CamA", -12.5}, {"CamB", 30.25}}));
    EXPECT_EQ(priors[1].textSyncOffsetByPeer, (Offsets{{"Zoom", -30.25}}));
    // The Tascam edge has less support than the file's own minimum; the other session is not this one.
    EXPECT_TRUE(priors[4].textSyncOffsetByPeer.empty());
    EXPECT_TRUE(priors[5].textSyncOffsetByPeer.empty());
    EXPECT_TRUE(offsets.contains("[TextSync] offset 'CamB'↔'Zoom' = -30.25s (support=5)"));
    EXPECT_EQ(offsets.countStartingWith("[TextSync] offset "), 2);

    // Ties keep the first; an edge from a track to itself is no offset.
    writeRegions(R"({"regions": [
        {"region_key": "a", "label": "A", "track_names": [],
         "support_edges": [{"a": "CamA", "b": "Zoom", "support": 4, "approx_offset_sec": 1.0}]},
        {"region_key": "b", "label": "B", "track_names": [],
         "support_edges": [{"a": "Zoom", "b": "CamA", "support": 9, "approx_offset_sec": 2.0},
                           {"a": "CamA", "b": "Zoom", "support": 9, "approx_offset_sec": 3.0},
                           {"a": "CamA", "b": "CamA", "support": 20, "approx_offset_sec": 5.0}]}]})");
    const auto best = IngestEngine::attachTextSyncPriors(shoot(), kSession);
    EXPECT_EQ(best[3].textSyncOffsetByPeer, (Offsets{{"CamA", 2.0}}));
    EXPECT_EQ(best[0].textSyncOffsetByPeer, (Offsets{{"Zoom", -2.0}}));

    // Without a file the tracks come back as they were.
    std::filesystem::remove(cacheFile("Day One"));
    for (const auto& t : IngestEngine::attachTextSyncPriors(tracks, kSession))
        EXPECT_TRUE(t.textSyncOffsetByPeer.empty());
}
