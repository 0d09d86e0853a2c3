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
    std::filesystem::path writeRegions(const std::string& bytes) const {
        return write(cacheFile("Day One"), bytes);
    }
};

} // namespace

TEST_F(TextSync, TheEnvironmentNamesAFileUnlessEmptyAndSessionsAreSanitizedIntoFolderNames) {
    EXPECT_FALSE(TextSyncStore::envRegionsURL());
    {
        ScopedEnv empty(TextSyncStore::kRegionsEnvVariable, "");
        EXPECT_FALSE(TextSyncStore::envRegionsURL());
    }
    {
        ScopedEnv set(TextSyncStore::kRegionsEnvVariable, "/data/regions.json");
        EXPECT_EQ(TextSyncStore::envRegionsURL().value().path(), "/data/regions.json");
    }
    // Letters and digits of any script stay; any other scalar is one "_", a stray byte too. White
    // space at the ends, a no-break space included, is trimmed; inner white space is replaced.
    const std::pair<std::string, std::string> cases[] = {
        {"  /Volumes/My Shoot/Day 1\n", "_Volumes_My_Shoot_Day_1"},
        {"a.b-c_d", "a_b-c_d"},
        {"\t\n ", ""},
        {"/Drehtag Zürich", "_Drehtag_Zürich"},
        {"撮影 2", "撮影_2"},
        {"a🎬b", "a_b"},
        {"a\xff\x62", "a_b"},
        {"\xC2\xA0\x61 b\xC2\xA0", "a_b"},
    };
    for (const auto& [session, folder] : cases)
        EXPECT_EQ(TextSyncStore::sanitizeSession(session), folder) << session;
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
    EXPECT_EQ(r.label, "Day 1");
    EXPECT_EQ(r.trackNames, (std::vector<std::string>{"A", "B"}));
    ASSERT_EQ(r.supportEdges.value().size(), 1u);
    const auto& edge = (*r.supportEdges)[0];
    EXPECT_EQ(edge.support, 7);
    EXPECT_DOUBLE_EQ(edge.approxOffsetSec, 12.0);
    EXPECT_EQ(edge.timeRangeA, (std::vector<double>{1.5, 2.5}));
    EXPECT_FALSE(edge.timeRangeB);
    EXPECT_FALSE(file->regions[1].supportEdges);
    ASSERT_EQ(file->pairs.value().size(), 2u);
    const auto& pair = (*file->pairs)[0];
    EXPECT_EQ(pair.matchCount, 9);
    ASSERT_TRUE(pair.best);
    EXPECT_DOUBLE_EQ(pair.best->approxOffsetSec, 12.25);
    EXPECT_EQ(pair.best->support, 7);
    EXPECT_FALSE((*file->pairs)[1].best);
}

TEST_F(TextSync, CandidatesAreTriedInOrderAndABrokenOneGivesWayToTheNext) {
    LogCapture log;
    // Nothing anywhere: nothing, and nothing said.
    EXPECT_FALSE(TextSyncStore::loadRegionsFile(kSession));
    EXPECT_TRUE(log.lines().empty());

    // The folder of the last path component is the last resort.
    const auto leaf = writeRegions(kTwoRegions);
    auto loaded = TextSyncStore::loadRegionsFile(kSession);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->url.path(), leaf.string());
    EXPECT_EQ(loaded->file.regions.size(), 2u);
    EXPECT_TRUE(log.contains("[TextSync] loaded 2 region(s) from " + leaf.string()));

    // The sanitised session's folder comes before it; a directory where the file should be is no file.
    std::filesystem::create_directories(cacheFile("_shoots_Day_One"));
    EXPECT_EQ(TextSyncStore::loadRegionsFile(kSession).value().url.path(), leaf.string());
    std::filesystem::remove(cacheFile("_shoots_Day_One"));
    const auto sanitized = write(cacheFile("_shoots_Day_One"),
                                 R"({"regions": [{"region_key": "d", "label": "D", "track_names": []}]})");
    EXPECT_EQ(TextSyncStore::loadRegionsFile(kSession).value().url.path(), sanitized.string());

    // The environment's file comes first; broken (or larger than any regions file, refused unread),
    // it is logged and the next one is used.
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
        for (auto& c : t.clips) {
            const bool secondDay = t.name == "Tascam" || t.name == "CamB";
            c.recordingDate = dateFromUnixSeconds(1'700'000'000.0 + (secondDay ? 86000.0 : 0.0));
            c.clockQuality = ClockQuality::embedded;
        }
    // One region decides nothing: the clocks do.
    writeRegions(R"({"regions": [{"region_key": "day-0", "label": "All", "track_names": ["CamA"]}]})");
    EXPECT_FALSE(IngestEngine::detectDayRegionsFromTextSync(tracks, kSession, {0, 1, 2, 3, 4}));

    // Regions that name only recorders: one piece, whatever the clocks say.
    writeRegions(R"({"regions": [{"region_key": "day-0", "label": "A", "track_names": ["zoom"]},
                                 {"region_key": "day-1", "label": "B", "track_names": ["Tascam"]}]})");
    LogCapture log;
    const auto whole = IngestEngine::detectDayRegionsFromTextSync(tracks, kSession, {0, 1, 2, 3, 4});
    ASSERT_TRUE(whole);
    EXPECT_TRUE(whole->empty());
    EXPECT_TRUE(
        log.contains("[TextSync] audio-only regions for '/shoots/Day One' — skip day-region split (keep one "
                     "camera chain + unlinked banquet audio)"));
    EXPECT_TRUE(IngestEngine::detectDayRegions(tracks).empty());
}

TEST_F(TextSync, RegionsThatNameCamerasBecomeProposalsAndPlaceTheUnnamedCameras) {
    writeRegions(kTwoRegions);
    auto tracks = shoot();
    tracks.push_back(track("CamD", SourceType::video, 1));
    tracks.push_back(track("CamA", SourceType::video, 1, "/shoots/Elsewhere"));
    LogCapture log;
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    const auto& p = proposals[0];
    EXPECT_EQ(p.regionKey, "day-0");
    EXPECT_EQ(p.label, "Friday");
    // Names compare without case; tracks of other sessions are never found.
    EXPECT_EQ(p.trackIDs, (std::vector<Uuid>{tracks[0].id, tracks[3].id}));
    EXPECT_EQ(p.trackNames, (std::vector<std::string>{"CamA", "Zoom"}));
    EXPECT_EQ(p.clipIDs,
              (std::vector<Uuid>{tracks[0].clips[0].id, tracks[0].clips[1].id, tracks[3].clips[0].id}));
    EXPECT_EQ(p.clipCount, 3);
    EXPECT_EQ(p.timeRangeHint(), "speech overlap (text-sync)");
    EXPECT_EQ(proposals[1].trackNames, (std::vector<std::string>{"CamB", "Tascam"}));
    EXPECT_TRUE(log.contains("[TextSync] region 'day-0': no track named 'Ghost'"));
    EXPECT_TRUE(log.contains("[Ingest] day-region propose 'day-1' [text-sync]: 2 track(s), 3 clip(s)"));

    // Both regions have a camera: the unnamed cameras take them in file order, the surplus the last.
    const auto out = IngestEngine::applyDayRegions(tracks, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_EQ(out[0].dayRegion, "day-0");
    EXPECT_EQ(out[1].dayRegion, "day-1");
    EXPECT_EQ(out[2].dayRegion, "day-0");
    EXPECT_EQ(out[5].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamC' → day-0 (text-sync camera order 1/2)"));
    EXPECT_EQ(out[0].textSyncOffsetByPeer.at("Zoom"), 12.5);
}

TEST_F(TextSync, AnUnnamedCameraGoesToTheRegionWithoutACamera) {
    writeRegions(R"({"regions": [{"region_key": "day-0", "label": "A", "track_names": ["CamA", "Zoom"]},
                                 {"region_key": "day-1", "label": "B", "track_names": ["Tascam"]}]})");
    const auto tracks = shoot();
    const auto proposals = IngestEngine::detectDayRegions(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    LogCapture log;
    const auto out = IngestEngine::applyDayRegions(tracks, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_EQ(out[1].dayRegion, "day-1");
    EXPECT_EQ(out[2].dayRegion, "day-1");
    EXPECT_TRUE(log.contains("[Ingest] day-region orphan 'CamC' → day-1 (text-sync camera order 2/2)"));
}

TEST_F(TextSync, SupportEdgesBecomeOffsetsBetweenPeers) {
    writeRegions(kTwoRegions);
    auto tracks = shoot();
    tracks.push_back(track("Zoom", SourceType::audio, 1, "/shoots/Elsewhere"));
    LogCapture log;
    const auto out = IngestEngine::attachTextSyncPriors(tracks, kSession);
    EXPECT_EQ(out[0].textSyncOffsetByPeer, (std::map<std::string, double>{{"Zoom", 12.5}}));
    EXPECT_EQ(out[3].textSyncOffsetByPeer, (std::map<std::string, double>{{"CamA", -12.5}, {"CamB", 30.25}}));
    EXPECT_EQ(out[1].textSyncOffsetByPeer, (std::map<std::string, double>{{"Zoom", -30.25}}));
    // The Tascam edge has less support than the file's own minimum; the other session is not this one.
    EXPECT_TRUE(out[4].textSyncOffsetByPeer.empty());
    EXPECT_TRUE(out[5].textSyncOffsetByPeer.empty());
    EXPECT_TRUE(log.contains("[TextSync] offset 'CamB'↔'Zoom' = -30.25s (support=5)"));
    EXPECT_EQ(log.countStartingWith("[TextSync] offset "), 2);

    // Without a file the tracks come back as they were.
    std::filesystem::remove(cacheFile("Day One"));
    for (const auto& t : IngestEngine::attachTextSyncPriors(tracks, kSession))
        EXPECT_TRUE(t.textSyncOffsetByPeer.empty());
}

TEST_F(TextSync, APairGivenTwiceKeepsItsBestSupportedOffset) {
    // Ties keep the first; an edge from a track to itself is no offset.
    writeRegions(R"({"regions": [
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
