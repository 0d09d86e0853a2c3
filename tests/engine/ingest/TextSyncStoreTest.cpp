// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/ingest/TextSyncStore.hpp"
#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using namespace trelvane;
using trelvane::test::LogCapture;
using trelvane::test::ScopedEnv;
using trelvane::test::TempDir;

namespace {

const std::string kSession = "/shoots/Day One";

TrackSource track(const std::string& name, SourceType type, int clips,
                  const std::string& session = kSession) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = session;
    for (int i = 0; i < clips; ++i) {
        ClipItem c;
        c.url = Url::fromPath(session + "/" + name + "/" + name + "_" + std::to_string(i + 1) +
                              (type == SourceType::video ? ".MOV" : ".WAV"));
        c.duration = 600;
        t.clips.push_back(c);
    }
    return t;
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
};

} // namespace

TEST_F(TextSync, TheEnvironmentVariableNamesAFileUnlessItIsEmpty) {
    EXPECT_FALSE(TextSyncStore::envRegionsURL());
    {
        ScopedEnv empty(TextSyncStore::kRegionsEnvVariable, "");
        EXPECT_FALSE(TextSyncStore::envRegionsURL());
    }
    ScopedEnv set(TextSyncStore::kRegionsEnvVariable, "/data/regions.json");
    ASSERT_TRUE(TextSyncStore::envRegionsURL());
    EXPECT_EQ(TextSyncStore::envRegionsURL()->path(), "/data/regions.json");
}

TEST_F(TextSync, SessionsAreSanitizedIntoFolderNames) {
    EXPECT_EQ(TextSyncStore::sanitizeSession("  /Volumes/My Shoot/Day 1\n"), "_Volumes_My_Shoot_Day_1");
    EXPECT_EQ(TextSyncStore::sanitizeSession("a.b-c_d"), "a_b-c_d");
    EXPECT_EQ(TextSyncStore::sanitizeSession("\t\n "), "");
    // Letters and digits of any script stay; any other scalar is one "_", a stray byte too.
    EXPECT_EQ(TextSyncStore::sanitizeSession("/Drehtag Zürich"), "_Drehtag_Zürich");
    EXPECT_EQ(TextSyncStore::sanitizeSession("撮影 2"), "撮影_2");
    EXPECT_EQ(TextSyncStore::sanitizeSession("a🎬b"), "a_b");
    EXPECT_EQ(TextSyncStore::sanitizeSession("a\xff"
                                             "b"),
              "a_b");
    // Inner white space is replaced, not trimmed; a no-break space at the ends is trimmed.
    EXPECT_EQ(TextSyncStore::sanitizeSession("\xC2\xA0"
                                             "a b"
                                             "\xC2\xA0"),
              "a_b");
}

TEST_F(TextSync, AWellFormedFileDecodesEveryField) {
    const auto file = TextSyncStore::decodeRegionsFile(R"({
      "min_support": 3, "ngram": null, "extra": {"ignored": [1, 2]},
      "regions": [{"region_key": "day-0", "label": "Day 1", "track_names": ["A", "B"],
                   "support_edges": [{"a": "A", "b": "B", "support": 7, "approx_offset_sec": 12,
                                      "time_range_a": [1.5, 2.5], "time_range_b": null}]},
                  {"region_key": "day-1", "label": "Day 2", "track_names": []}],
      "pairs": [{"a": "A", "b": "B", "match_count": 9, "best": {"approx_offset_sec": 12.25, "support": 7}},
                {"a": "A", "b": "C"}]
    })");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->minSupport, 3);
    EXPECT_FALSE(file->ngram);
    ASSERT_EQ(file->regions.size(), 2u);
    const auto& r = file->regions[0];
    EXPECT_EQ(r.regionKey, "day-0");
    EXPECT_EQ(r.label, "Day 1");
    EXPECT_EQ(r.trackNames, (std::vector<std::string>{"A", "B"}));
    ASSERT_TRUE(r.supportEdges);
    ASSERT_EQ(r.supportEdges->size(), 1u);
    EXPECT_EQ((*r.supportEdges)[0].support, 7);
    EXPECT_DOUBLE_EQ((*r.supportEdges)[0].approxOffsetSec, 12.0);
    EXPECT_EQ((*r.supportEdges)[0].timeRangeA, (std::vector<double>{1.5, 2.5}));
    EXPECT_FALSE((*r.supportEdges)[0].timeRangeB);
    EXPECT_FALSE(file->regions[1].supportEdges);
    ASSERT_TRUE(file->pairs);
    ASSERT_EQ(file->pairs->size(), 2u);
    EXPECT_EQ((*file->pairs)[0].matchCount, 9);
    ASSERT_TRUE((*file->pairs)[0].best);
    EXPECT_DOUBLE_EQ((*file->pairs)[0].best->approxOffsetSec, 12.25);
    EXPECT_EQ((*file->pairs)[0].best->support, 7);
    EXPECT_FALSE((*file->pairs)[1].best);
}

TEST_F(TextSync, HostileFilesAreOneLoggedFailureEach) {
    const std::string region = R"({"region_key": "day-0", "label": "x", "track_names": ["A"]})";
    auto withEdge = [&](const std::string& edge) {
        return R"({"regions": [{"region_key": "k", "label": "x", "track_names": [], "support_edges": [)" +
               edge + "]}]}";
    };
    const std::vector<std::pair<std::string, std::string>> cases{
        {"not JSON", "regions: day-0"},
        {"empty", ""},
        {"truncated", std::string(kTwoRegions).substr(0, 120)},
        {"top level is an array", "[" + region + "]"},
        {"regions is a string", R"({"regions": "day-0"})"},
        {"regions missing", R"({"pairs": []})"},
        {"region key is a number", R"({"regions": [{"region_key": 1, "label": "x", "track_names": []}]})"},
        {"label missing", R"({"regions": [{"region_key": "k", "track_names": []}]})"},
        {"track name is a number", R"({"regions": [{"region_key": "k", "label": "x", "track_names": [3]}]})"},
        {"support is a string", withEdge(R"({"a": "A", "b": "B", "support": "7", "approx_offset_sec": 1})")},
        {"support is fractional",
         withEdge(R"({"a": "A", "b": "B", "support": 2.5, "approx_offset_sec": 1})")},
        {"support overflows int",
         withEdge(R"({"a": "A", "b": "B", "support": 5000000000, "approx_offset_sec": 1})")},
        {"support overflows 64 bits",
         withEdge(R"({"a": "A", "b": "B", "support": 18446744073709551616, "approx_offset_sec": 1})")},
        {"offset is 1e400", withEdge(R"({"a": "A", "b": "B", "support": 7, "approx_offset_sec": 1e400})")},
        {"offset missing", withEdge(R"({"a": "A", "b": "B", "support": 7})")},
        {"time range is a string",
         withEdge(R"({"a": "A", "b": "B", "support": 7, "approx_offset_sec": 1, "time_range_a": "0-5"})")},
        {"min_support is a string", R"({"min_support": "3", "regions": []})"},
        {"best without support",
         R"({"regions": [], "pairs": [{"a": "A", "b": "B", "best": {"approx_offset_sec": 1}}]})"},
        {"10,000-deep nesting", std::string(10000, '[') + std::string(10000, ']')},
        {"10,000-deep nesting under a key",
         R"({"regions": [], "x": )" + std::string(10000, '[') + std::string(10000, ']') + "}"},
        {"invalid UTF-8",
         "{\"regions\": [{\"region_key\": \"k\", \"label\": \"\xff\xfe\", \"track_names\": []}]}"},
        {"overlong UTF-8",
         "{\"regions\": [{\"region_key\": \"\xc0\xaf\", \"label\": \"x\", \"track_names\": []}]}"},
        {"NUL byte", std::string("{\"regions\": []\0}", 16)},
    };
    for (const auto& [what, bytes] : cases) {
        SCOPED_TRACE(what);
        EXPECT_FALSE(TextSyncStore::decodeRegionsFile(bytes));
        const auto p = write(tmp / "hostile.json", bytes);
        ScopedEnv named(TextSyncStore::kRegionsEnvVariable, p.string());
        LogCapture log;
        EXPECT_FALSE(TextSyncStore::loadRegionsFile(kSession));
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"[TextSync] failed to decode " + p.string()}));
    }
}

TEST_F(TextSync, AFileLargerThanAnyRegionsFileIsRefusedUnread) {
    std::string big = R"({"regions": [], "padding": ")";
    big += std::string(TextSyncStore::kMaxFileBytes, 'x');
    big += "\"}";
    const auto p = write(tmp / "big.json", big);
    ScopedEnv named(TextSyncStore::kRegionsEnvVariable, p.string());
    LogCapture log;
    EXPECT_FALSE(TextSyncStore::loadRegionsFile(kSession));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"[TextSync] failed to decode " + p.string()}));
}

TEST_F(TextSync, CandidatesAreTriedInOrderAndABrokenOneGivesWayToTheNext) {
    LogCapture log;
    // Nothing anywhere: nothing, and nothing said.
    EXPECT_FALSE(TextSyncStore::loadRegionsFile(kSession));
    EXPECT_TRUE(log.lines().empty());

    // The folder of the last path component is the last resort.
    const auto leaf = write(cacheFile("Day One"), kTwoRegions);
    auto loaded = TextSyncStore::loadRegionsFile(kSession);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->url.path(), leaf.string());
    EXPECT_EQ(loaded->file.regions.size(), 2u);
    EXPECT_TRUE(log.contains("[TextSync] loaded 2 region(s) from " + leaf.string()));

    // The sanitised session's folder comes before it; a directory where the file should be is no file.
    std::filesystem::create_directories(cacheFile("_shoots_Day_One"));
    loaded = TextSyncStore::loadRegionsFile(kSession);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->url.path(), leaf.string());
    std::filesystem::remove(cacheFile("_shoots_Day_One"));
    const auto sanitized =
        write(cacheFile("_shoots_Day_One"), R"({"regions": [{"region_key": "d", "label": "D",
                                                                  "track_names": []}]})");
    loaded = TextSyncStore::loadRegionsFile(kSession);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->url.path(), sanitized.string());

    // The environment's file comes first; broken, it is logged and the next one is used.
    const auto broken = write(tmp / "env.json", "{");
    ScopedEnv named(TextSyncStore::kRegionsEnvVariable, broken.string());
    LogCapture second;
    loaded = TextSyncStore::loadRegionsFile(kSession);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->url.path(), sanitized.string());
    EXPECT_EQ(second.lines(),
              (std::vector<std::string>{"[TextSync] failed to decode " + broken.string(),
                                        "[TextSync] loaded 1 region(s) from " + sanitized.string()}));
}

TEST_F(TextSync, AFileWithOneRegionLeavesTheDecisionToTheClocks) {
    write(cacheFile("Day One"),
          R"({"regions": [{"region_key": "day-0", "label": "All", "track_names": ["CamA"]}]})");
    const auto tracks = shoot();
    EXPECT_FALSE(IngestEngine::detectDayRegionsFromTextSync(tracks, kSession, {0, 1, 2, 3, 4}));
}

TEST_F(TextSync, RegionsThatNameOnlyRecordersKeepTheSessionInOnePiece) {
    write(cacheFile("Day One"), R"({"regions": [
        {"region_key": "day-0", "label": "A", "track_names": ["zoom"]},
        {"region_key": "day-1", "label": "B", "track_names": ["Tascam"]}]})");
    // The recorders' clocks alone would split the session in two days.
    auto tracks = shoot();
    for (auto& t : tracks)
        for (auto& c : t.clips) {
            const bool secondDay = t.name == "Tascam" || t.name == "CamB";
            c.recordingDate = dateFromUnixSeconds(1'700'000'000.0 + (secondDay ? 86000.0 : 0.0));
            c.clockQuality = ClockQuality::embedded;
        }
    LogCapture log;
    const auto fromTextSync = IngestEngine::detectDayRegionsFromTextSync(tracks, kSession, {0, 1, 2, 3, 4});
    ASSERT_TRUE(fromTextSync);
    EXPECT_TRUE(fromTextSync->empty());
    EXPECT_TRUE(
        log.contains("[TextSync] audio-only regions for '/shoots/Day One' — skip day-region split (keep one "
                     "camera chain + unlinked banquet audio)"));
    EXPECT_TRUE(IngestEngine::detectDayRegions(tracks).empty());
}

TEST_F(TextSync, RegionsThatNameCamerasBecomeProposals) {
    write(cacheFile("Day One"), kTwoRegions);
    auto tracks = shoot();
    tracks.push_back(track("CamA", SourceType::video, 1, "/shoots/Elsewhere"));
    LogCapture log;
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    const auto& p = proposals[0];
    EXPECT_EQ(p.regionKey, "day-0");
    EXPECT_EQ(p.label, "Friday");
    EXPECT_EQ(p.session, kSession);
    // Names compare without case; tracks of other sessions are never found.
    EXPECT_EQ(p.trackIDs, (std::vector<Uuid>{tracks[0].id, tracks[3].id}));
    EXPECT_EQ(p.trackNames, (std::vector<std::string>{"CamA", "Zoom"}));
    EXPECT_EQ(p.clipIDs,
              (std::vector<Uuid>{tracks[0].clips[0].id, tracks[0].clips[1].id, tracks[3].clips[0].id}));
    EXPECT_EQ(p.clipCount, 3);
    EXPECT_EQ(p.timeRangeHint(), "speech overlap (text-sync)");
    EXPECT_EQ(proposals[1].label, "Saturday");
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"CamB", "Tascam"}));
    EXPECT_TRUE(log.contains("[TextSync] region 'day-0': no track named 'Ghost'"));
    EXPECT_TRUE(log.contains("[Ingest] day-region propose 'day-0' [text-sync]: 2 track(s), 3 clip(s)"));
    EXPECT_TRUE(log.contains("[Ingest] day-region propose 'day-1' [text-sync]: 2 track(s), 3 clip(s)"));
}

TEST_F(TextSync, SupportEdgesBecomeOffsetsBetweenPeers) {
    write(cacheFile("Day One"), kTwoRegions);
    auto tracks = shoot();
    tracks.push_back(track("Zoom", SourceType::audio, 1, "/shoots/Elsewhere"));
    LogCapture log;
    const auto out = IngestEngine::attachTextSyncPriors(tracks, kSession);
    EXPECT_EQ(out[0].textSyncOffsetByPeer, (std::map<std::string, double>{{"Zoom", 12.5}}));
    EXPECT_EQ(out[3].textSyncOffsetByPeer, (std::map<std::string, double>{{"CamA", -12.5}, {"CamB", 30.25}}));
    EXPECT_EQ(out[1].textSyncOffsetByPeer, (std::map<std::string, double>{{"Zoom", -30.25}}));
    // The Tascam edge has less support than the file's own minimum.
    EXPECT_TRUE(out[4].textSyncOffsetByPeer.empty());
    EXPECT_TRUE(out[5].textSyncOffsetByPeer.empty());
    EXPECT_TRUE(log.contains("[TextSync] offset 'CamA'↔'Zoom' = 12.50s (support=7)"));
    EXPECT_TRUE(log.contains("[TextSync] offset 'CamB'↔'Zoom' = -30.25s (support=5)"));
    EXPECT_TRUE(log.contains("[TextSync] region 'day-0': no track named 'Ghost'"));
    EXPECT_EQ(log.countStartingWith("[TextSync] offset "), 2);

    // Without a file the tracks come back as they were.
    std::filesystem::remove(cacheFile("Day One"));
    const auto same = IngestEngine::attachTextSyncPriors(tracks, kSession);
    for (const auto& t : same)
        EXPECT_TRUE(t.textSyncOffsetByPeer.empty());
}

TEST_F(TextSync, APairGivenTwiceKeepsItsBestSupportedOffset) {
    write(cacheFile("Day One"), R"({"regions": [
        {"region_key": "a", "label": "A", "track_names": [],
         "support_edges": [{"a": "CamA", "b": "Zoom", "support": 4, "approx_offset_sec": 1.0}]},
        {"region_key": "b", "label": "B", "track_names": [],
         "support_edges": [{"a": "Zoom", "b": "CamA", "support": 9, "approx_offset_sec": 2.0},
                           {"a": "CamA", "b": "Zoom", "support": 9, "approx_offset_sec": 3.0},
                           {"a": "CamA", "b": "CamA", "support": 20, "approx_offset_sec": 5.0}]}]})");
    const auto out = IngestEngine::attachTextSyncPriors(shoot(), kSession);
    EXPECT_EQ(out[3].textSyncOffsetByPeer, (std::map<std::string, double>{{"CamA", 2.0}}));
    EXPECT_EQ(out[0].textSyncOffsetByPeer, (std::map<std::string, double>{{"Zoom", -2.0}}));
}

TEST_F(TextSync, AcceptedTextSyncRegionsPlaceUnnamedCamerasAndAttachOffsets) {
    write(cacheFile("Day One"), kTwoRegions);
    auto tracks = shoot();
    tracks.push_back(track("CamD", SourceType::video, 1));
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    LogCapture log;
    const auto out = IngestEngine::applyDayRegions(tracks, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_EQ(out[0].dayRegion, "day-0");
    EXPECT_EQ(out[1].dayRegion, "day-1");
    EXPECT_EQ(out[3].dayRegion, "day-0");
    EXPECT_EQ(out[4].dayRegion, "day-1");
    // Both regions have a camera: the unnamed cameras take them in file order, the surplus the last.
    EXPECT_EQ(out[2].dayRegion, "day-0");
    EXPECT_EQ(out[5].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamC' → day-0 (text-sync camera order 1/2)"));
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamD' → day-1 (text-sync camera order 2/2)"));
    EXPECT_TRUE(log.contains("[Ingest] day-region 'day-0': CamA, Zoom (speech overlap (text-sync))"));
    EXPECT_EQ(out[0].textSyncOffsetByPeer.at("Zoom"), 12.5);
}

TEST_F(TextSync, AnUnnamedCameraGoesToTheRegionWithoutACamera) {
    write(cacheFile("Day One"), R"({"regions": [
        {"region_key": "day-0", "label": "A", "track_names": ["CamA", "Zoom"]},
        {"region_key": "day-1", "label": "B", "track_names": ["Tascam"]}]})");
    const auto tracks = shoot();
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    LogCapture log;
    const auto out = IngestEngine::applyDayRegions(tracks, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_EQ(out[1].dayRegion, "day-1");
    EXPECT_EQ(out[2].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamB' → day-1 (text-sync camera order 1/2)"));
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamC' → day-1 (text-sync camera order 2/2)"));
}
