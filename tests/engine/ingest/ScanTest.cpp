// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

using namespace trelvane;
using trelvane::test::LogCapture;
using trelvane::test::TempDir;

namespace {

Url url(const std::filesystem::path& p) {
    return Url::fromPath(p);
}

std::vector<std::string> names(const std::vector<TrackSource>& tracks) {
    std::vector<std::string> out;
    for (const auto& t : tracks)
        out.push_back(t.name);
    return out;
}

std::vector<std::string> clipNames(const TrackSource& t) {
    std::vector<std::string> out;
    for (const auto& c : t.clips)
        out.push_back(c.url.lastPathComponent());
    return out;
}

} // namespace

TEST(Scan, LooseFoldersShareTheirCommonAncestorAndACompleteShootKeepsItsOwnSession) {
    TempDir tmp;
    tmp.file("day1/cam/C0001.MP4");
    tmp.file("day1/rec/R0001.WAV");
    tmp.file("other/extra/E0001.WAV");
    tmp.file("elsewhere/cam2/D0001.MOV");
    IngestEngine engine;
    auto tracks = engine.ingest({url(tmp / "day1")}, {});
    ASSERT_EQ(names(tracks), (std::vector<std::string>{"cam", "rec"}));
    EXPECT_EQ(tracks[0].type, SourceType::video);
    EXPECT_EQ(tracks[1].type, SourceType::audio);
    EXPECT_EQ(tracks[0].session, (tmp / "day1").string());
    EXPECT_TRUE(engine.completeShootSessions.contains((tmp / "day1").string()));

    tracks = engine.ingest({url(tmp / "other/extra")}, tracks);
    tracks = engine.ingest({url(tmp / "elsewhere/cam2")}, tracks);
    ASSERT_EQ(tracks.size(), 4u);
    EXPECT_EQ(tracks[1].session, (tmp / "day1").string());
    // The loose session follows the common ancestor of all loose material, old and new.
    EXPECT_EQ(tracks[2].session, tmp.path().string());
    EXPECT_EQ(tracks[3].session, tmp.path().string());
    EXPECT_EQ(engine.completeShootSessions.size(), 1u);
}

TEST(Scan, LeavesOfADropBecomeLockedTracksASingleFolderAnUnlockedOneAndProxiesNone) {
    TempDir tmp;
    tmp.file("card/A/a1.MOV");
    tmp.file("card/B/b1.MOV");
    tmp.file("solo/s1.MOV");
    tmp.dir("solo/empty-sub/deeper");
    IngestEngine engine;
    LogCapture log;
    const auto both = engine.ingest({url(tmp / "card")}, {});
    ASSERT_EQ(names(both), (std::vector<std::string>{"A", "B"}));
    EXPECT_TRUE(both[0].lockedGrouping && both[1].lockedGrouping);
    EXPECT_TRUE(log.contains("[Drop] '" + (tmp / "card").string() + "' isDir=true"));
    EXPECT_TRUE(log.contains("[Drop]   leaves: [\"A\", \"B\"]"));

    IngestEngine fresh;
    const auto one = fresh.ingest({url(tmp / "card/A")}, {});
    ASSERT_EQ(one.size(), 1u);
    EXPECT_FALSE(one[0].lockedGrouping);

    const auto solo = fresh.ingest({url(tmp / "solo")}, {});
    ASSERT_EQ(solo.size(), 1u);
    EXPECT_EQ(solo[0].name, "solo");
    EXPECT_FALSE(solo[0].lockedGrouping);

    // Proxy folders are skipped, but their media still count as content: a dropped proxy folder has
    // no leaves, so its media form one group, and a WAV in a skipped LRV folder makes a complete shoot.
    tmp.file("proxy/p1.MP4");
    tmp.file("shoot/cam/C1.MP4");
    tmp.file("shoot/cam/Proxy/C1_proxy.MP4");
    tmp.file("shoot/cam/LRV/x.WAV");
    const auto dropped = fresh.ingest({url(tmp / "proxy")}, {});
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_EQ(clipNames(dropped[0]), std::vector<std::string>{"p1.MP4"});
    EXPECT_FALSE(dropped[0].lockedGrouping);
    const auto shoot = fresh.ingest({url(tmp / "shoot")}, {});
    ASSERT_EQ(shoot.size(), 1u);
    EXPECT_EQ(clipNames(shoot[0]), std::vector<std::string>{"C1.MP4"});
    EXPECT_TRUE(fresh.completeShootSessions.contains((tmp / "shoot").string()));
}

TEST(Scan, FilesAlreadyInTheSessionAreNotAddedAgainExceptWithinOneDrop) {
    TempDir tmp;
    const auto file = tmp.file("f/clip1.WAV");
    tmp.file("f/clip2.WAV");
    IngestEngine engine;
    auto tracks = engine.ingest({url(file), url(tmp / "f")}, {});
    ASSERT_EQ(tracks.size(), 2u) << "the duplicate check knows only the tracks from before the drop";
    EXPECT_EQ(tracks[0].name, "clip1");
    EXPECT_EQ(tracks[1].name, "f");
    EXPECT_EQ(tracks[1].clips.size(), 2u);

    tracks = engine.ingest({url(file)}, tracks);
    EXPECT_EQ(tracks.size(), 2u) << "a file already present makes no new track";
}

// Two runs over the same media must describe it alike, so identifiers come from the files.
TEST(Scan, IdentifiersAreTheSameEveryRunDistinctAndNeverTaken) {
    TempDir tmp;
    tmp.file("shoot/camA/C0001.MP4");
    tmp.file("shoot/camA/C0002.MP4");
    tmp.file("shoot/zoom/ZOOM0001.WAV");
    const auto first = IngestEngine().ingest({url(tmp / "shoot")}, {});
    const auto second = IngestEngine().ingest({url(tmp / "shoot")}, {});
    ASSERT_EQ(first.size(), 2u);
    ASSERT_EQ(second.size(), 2u);
    std::set<Uuid> ids;
    for (std::size_t t = 0; t < first.size(); ++t) {
        EXPECT_EQ(first[t].id, second[t].id) << first[t].name;
        ids.insert(first[t].id);
        for (std::size_t c = 0; c < first[t].clips.size(); ++c) {
            EXPECT_EQ(first[t].clips[c].id, second[t].clips[c].id) << first[t].clips[c].url.path();
            ids.insert(first[t].clips[c].id);
        }
    }
    EXPECT_EQ(ids.size(), 5u);

    // A track made again of the files of a track that is still there gets an identifier of its own,
    // the same every time.
    const auto again = IngestEngine::newTrackId("folder", first[0].clips, first);
    EXPECT_FALSE(ids.contains(again));
    EXPECT_EQ(IngestEngine::newTrackId("folder", first[0].clips, first), again);
}

TEST(Scan, TrackNamesClimbOverGenericFoldersAndStayUnique) {
    TempDir tmp;
    for (const auto& [folder, name] : {std::pair{"A001/CLIPS", "CLIPS"},
                                       {"Card 2/CLIPS", "Card 2"},
                                       {"Shoot/DCIM/100MEDIA", "Shoot"},
                                       {"RedRoll.RDM", "RedRoll"}}) {
        tmp.file(std::string(folder) + "/c.MOV");
        EXPECT_EQ(IngestEngine::trackName(url(tmp / folder)), name) << folder;
    }
    EXPECT_EQ(IngestEngine::trackName(url("/DCIM")), "DCIM") << "never climbs to the root";
    for (const auto& [folder, generic] : {std::pair{"Clips 2", true},
                                          {"101CANON", true},
                                          {"PRIVATE", true},
                                          {"Interview", false},
                                          {"A001", false}})
        EXPECT_EQ(IngestEngine::isGenericFolder(folder), generic) << folder;

    std::vector<std::string> existing;
    for (int i = 0; i < 3; ++i)
        existing.push_back(IngestEngine::uniqueName("Interview", SourceType::audio, existing));
    EXPECT_EQ(existing, (std::vector<std::string>{"Interview", "Interview 2", "Interview 3"}));
    EXPECT_EQ(IngestEngine::uniqueName("Media", SourceType::video, {"CLIP"}), "CLIP 2");
    EXPECT_EQ(IngestEngine::uniqueName("music", SourceType::audio, {}), "Mic");
    EXPECT_EQ(IngestEngine::uniqueName(std::string(50, 'x'), SourceType::audio, {std::string(40, 'x')}),
              std::string(40, 'x') + " 2");
    // Cut by characters, never inside one.
    std::string accented;
    for (int i = 0; i < 45; ++i)
        accented += "é";
    EXPECT_EQ(IngestEngine::uniqueName(accented, SourceType::audio, {}).size(), 80u);
}

TEST(Scan, ClipsAreOrderedByNumberedNamesThenByDate) {
    TempDir tmp;
    tmp.file("cam/A_10.MP4");
    tmp.file("cam/A_2.MP4");
    tmp.file("cam/a_3.MP4");
    IngestEngine engine;
    const auto tracks = engine.ingest({url(tmp / "cam")}, {});
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(clipNames(tracks[0]), (std::vector<std::string>{"A_2.MP4", "a_3.MP4", "A_10.MP4"}));
    // Same name in two folders: the earlier file date goes first.
    const auto older = tmp.file("x/same.WAV"), newer = tmp.file("y/same.WAV");
    std::filesystem::last_write_time(older,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(5));
    EXPECT_TRUE(IngestEngine::chronologicalOrder(url(older), url(newer)));
    EXPECT_FALSE(IngestEngine::chronologicalOrder(url(newer), url(older)));
}

TEST(Scan, CommonAncestorPathAndSortOrder) {
    const std::pair<std::vector<std::string>, std::string> ancestors[] = {
        {{}, ""}, {{"/a/b/c.wav"}, "/a/b"}, {{"/a/b/c", "/a/b/d", "/a/bx"}, "/a"}, {{"/a/x", "/b/y"}, "/"}};
    for (const auto& [paths, ancestor] : ancestors)
        EXPECT_EQ(IngestEngine::commonAncestorPath(paths), ancestor) << ancestor;

    std::vector<TrackSource> tracks(4);
    tracks[0].name = "Zoom";
    tracks[0].type = SourceType::audio;
    tracks[1].name = "cam 10";
    tracks[2].name = "Cam 9";
    tracks[3].name = "Alpha";
    tracks[3].type = SourceType::audio;
    EXPECT_EQ(names(IngestEngine::sortSources(tracks)),
              (std::vector<std::string>{"Cam 9", "cam 10", "Alpha", "Zoom"}));

    std::vector<ClipItem> clips(1);
    clips[0].url = Url::fromPath("/x/a.wav");
    EXPECT_EQ(IngestEngine::inferredType(clips), SourceType::audio);
    clips[0].pictureURL = Url::fromPath("/x/a.r3d");
    EXPECT_EQ(IngestEngine::inferredType(clips), SourceType::video);
    EXPECT_EQ(IngestEngine::inferredType({}), SourceType::audio);
}

TEST(Scan, LinksBackUpAreNotFollowedAndOnlyVisibleMediaCount) {
    TempDir tmp;
    // A link back to the top: the walk must not follow it.
    tmp.file("loop/cam/C1.MP4");
    std::filesystem::create_directory_symlink(tmp / "loop", tmp / "loop/cam/back");
    tmp.file("odd/it's \"quoted\" & more.WAV");
    tmp.file("odd/.hidden.WAV");
    tmp.file("odd/notes.txt");

    IngestEngine engine;
    const auto loop = engine.ingest({url(tmp / "loop")}, {});
    ASSERT_EQ(loop.size(), 1u);
    EXPECT_EQ(loop[0].clips.size(), 1u);

    const auto odd = engine.ingest({url(tmp / "odd")}, {});
    ASSERT_EQ(odd.size(), 1u);
    EXPECT_EQ(odd[0].clips.size(), 1u) << "hidden files and other extensions are left out";

    const auto missing = engine.ingest({url(tmp / "nothing-here"), url(tmp / "gone.WAV")}, {});
    ASSERT_EQ(missing.size(), 1u) << "a missing file with a media extension is still taken as a clip";
    EXPECT_EQ(missing[0].name, "gone");
}

TEST(Scan, ARedCardBecomesOneLockedTrackWithPictureFieldsFromItsHeader) {
    TempDir tmp;
    const auto card = tmp / "shoot/A001_0614AB.RDM";
    test::R3DHeaderBuilder()
        .float32(test::r3dtag::kRecordFrameRate, 25.0f)
        .text(test::r3dtag::kModel, "RED V-RAPTOR")
        .text(test::r3dtag::kTodTimecode, "10:00:01:12")
        .filler(6)
        .timeBase(25000, 1000)
        .frameSize(8192, 4320)
        .write(card / "A001_C001_0614XY.RDC/A001_C001_0614XY_001.R3D");
    tmp.file("shoot/A001_0614AB.RDM/A001_C001_0614XY.RDC/A001_C001_0614XY_002.R3D");
    tmp.file("shoot/A001_0614AB.RDM/A001_C001_0614XY.RDC/A001_C001_0614XY.wav");
    test::R3DHeaderBuilder()
        .float32(test::r3dtag::kRecordFrameRate, 25.0f)
        .text(test::r3dtag::kModel, "RED V-RAPTOR")
        .filler(7)
        .write(card / "A001_C002_0614XY.RDC/A001_C002_0614XY_001.R3D");
    tmp.file("shoot/rec/R0001.WAV");

    IngestEngine engine;
    LogCapture log;
    const auto tracks = engine.ingest({Url::fromPath(tmp / "shoot")}, {});
    ASSERT_EQ(tracks.size(), 2u);
    const TrackSource& red = tracks[0];
    EXPECT_EQ(red.name, "A001_0614AB") << "a card's track comes first, named without .RDM";
    EXPECT_TRUE(red.lockedGrouping);
    EXPECT_EQ(red.deviceName, "RED V-RAPTOR");
    ASSERT_EQ(red.clips.size(), 2u);

    const ClipItem& withWav = red.clips[0];
    EXPECT_EQ(withWav.url.lastPathComponent(), "A001_C001_0614XY.wav");
    ASSERT_TRUE(withWav.pictureURL.has_value());
    EXPECT_EQ(withWav.pictureURL->lastPathComponent(), "A001_C001_0614XY_001.R3D");
    EXPECT_EQ(withWav.conformFrameRate, 25.0f);
    EXPECT_EQ(withWav.pixelWidth, 8192);
    ASSERT_TRUE(withWav.pictureTimecode.has_value());
    EXPECT_NEAR(*withWav.pictureTimecode, 36001.0 + 12.0 / 25.0, 1e-9);

    // Without a sidecar WAV the picture file is the clip, and nothing of the picture is set.
    const ClipItem& pictureOnly = red.clips[1];
    EXPECT_EQ(pictureOnly.url.lastPathComponent(), "A001_C002_0614XY_001.R3D");
    EXPECT_FALSE(pictureOnly.pictureURL.has_value());
    EXPECT_FALSE(pictureOnly.pixelWidth.has_value());

    // The card makes the drop a complete shoot even though its picture isn't a plain video file.
    EXPECT_TRUE(engine.completeShootSessions.contains((tmp / "shoot").string()));
    EXPECT_TRUE(
        log.contains("[Ingest] RED card 'A001_0614AB': 2 take(s), 3 chunk(s), RED V-RAPTOR, record 25.000 / "
                     "base 25.000, 1 take(s) with no sidecar WAV"));
    // The take folders' files never leak into a track of loose files.
    EXPECT_EQ(tracks[1].name, "rec");
}
