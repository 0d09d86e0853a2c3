// SPDX-License-Identifier: GPL-3.0-or-later
#include "engine/ingest/TrackBuilders.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gtest/gtest.h>

using namespace trelvane;
using trelvane::test::fileNames;
using trelvane::test::names;
using trelvane::test::TempDir;
using Names = std::vector<std::string>;

namespace {

Url url(const std::filesystem::path& p) {
    return Url::fromPath(p);
}

} // namespace

TEST(Scan, LooseFoldersShareTheirCommonAncestorAndACompleteShootKeepsItsOwnSession) {
    TempDir tmp;
    for (const char* f :
         {"day1/cam/C0001.MP4", "day1/rec/R0001.WAV", "other/extra/E0001.WAV", "elsewhere/cam2/D0001.MOV"})
        tmp.file(f);
    IngestEngine engine;
    auto tracks = engine.ingest({url(tmp / "day1")}, {});
    ASSERT_EQ(names(tracks), (Names{"cam", "rec"}));
    EXPECT_EQ(tracks[1].type, SourceType::audio);
    EXPECT_TRUE(tracks[0].lockedGrouping && tracks[1].lockedGrouping) << "the leaves of a drop are locked";
    EXPECT_TRUE(engine.completeShootSessions.contains((tmp / "day1").string()));

    tracks = engine.ingest({url(tmp / "other/extra")}, tracks);
    tracks = engine.ingest({url(tmp / "elsewhere/cam2")}, tracks);
    ASSERT_EQ(tracks.size(), 4u);
    EXPECT_EQ(tracks[1].session, (tmp / "day1").string());
    // The loose session follows the common ancestor of all loose material, old and new.
    EXPECT_EQ(tracks[2].session + tracks[3].session, tmp.path().string() + tmp.path().string());
    EXPECT_FALSE(tracks[3].lockedGrouping) << "a single folder is not";
    EXPECT_EQ(engine.completeShootSessions.size(), 1u);
    // A track made again of the files of a track that is still there gets an identifier of its own,
    // the same every time (the files give the rest theirs, as every run's identical report shows).
    const auto again = IngestEngine::newTrackId("folder", tracks[0].clips, tracks);
    for (const auto& t : tracks)
        EXPECT_NE(t.id, again);
    EXPECT_EQ(IngestEngine::newTrackId("folder", tracks[0].clips, tracks), again);
}

TEST(Scan, WhatADropBecomes) {
    TempDir tmp;
    for (const char* f : {"solo/s1.MOV", "proxy/p1.MP4", "shoot/cam/C1.MP4", "shoot/cam/Proxy/C1_proxy.MP4",
                          "shoot/cam/LRV/x.WAV", "odd/it's \"quoted\" & more.WAV", "odd/.hidden.WAV",
                          "odd/notes.txt", "loop/cam/C1.MP4", "dup/clip2.WAV"})
        tmp.file(f);
    tmp.dir("solo/empty-sub/deeper");
    // A link back to the top: the walk must not follow it.
    std::filesystem::create_directory_symlink(tmp / "loop", tmp / "loop/cam/back");
    const auto dupFile = tmp.file("dup/clip1.WAV");
    IngestEngine engine;
    const struct {
        std::vector<Url> drop;
        Names tracks, firstClips;
    } cases[] = {
        {{url(tmp / "solo")}, {"solo"}, {"s1.MOV"}},
        // Proxy folders are skipped, but their media still count as content: a dropped proxy folder
        // has no leaves, so its media form one group.
        {{url(tmp / "proxy")}, {"proxy"}, {"p1.MP4"}},
        {{url(tmp / "shoot")}, {"cam"}, {"C1.MP4"}},
        {{url(tmp / "loop")}, {"cam"}, {"C1.MP4"}},
        // Hidden files and other extensions are left out.
        {{url(tmp / "odd")}, {"odd"}, {"it's \"quoted\" & more.WAV"}},
        // A missing file with a media extension is still taken as a clip.
        {{url(tmp / "nothing-here"), url(tmp / "gone.WAV")}, {"gone"}, {"gone.WAV"}},
        // The duplicate check knows only the tracks from before the drop.
        {{url(dupFile), url(tmp / "dup")}, {"clip1", "dup"}, {"clip1.WAV"}},
    };
    for (const auto& c : cases) {
        const auto tracks = engine.ingest(c.drop, {});
        ASSERT_EQ(names(tracks), c.tracks) << c.drop[0].path();
        EXPECT_EQ(fileNames(tracks[0]), c.firstClips) << c.drop[0].path();
    }
    // A WAV in a skipped LRV folder makes a complete shoot.
    EXPECT_TRUE(engine.completeShootSessions.contains((tmp / "shoot").string()));
    const auto dup = engine.ingest({url(tmp / "dup")}, {});
    EXPECT_EQ(dup[0].clips.size(), 2u);
    EXPECT_EQ(engine.ingest({url(dupFile)}, dup).size(), 1u) << "a file already present makes no new track";
}

TEST(Scan, NamesClimbOverGenericFoldersAndStayUniqueAndTracksAndClipsSortAsABrowserWould) {
    TempDir tmp;
    for (const auto& [folder, name] : {std::pair{"A001/CLIPS", "CLIPS"},
                                       {"Card 2/CLIPS", "Card 2"},
                                       {"Shoot/DCIM/100MEDIA", "Shoot"},
                                       {"RedRoll.RDM", "RedRoll"},
                                       {"Take/PRIVATE/101CANON", "Take"}}) {
        tmp.file(std::string(folder) + "/c.MOV");
        EXPECT_EQ(IngestEngine::trackName(url(tmp / folder)), name) << folder;
    }
    EXPECT_EQ(IngestEngine::trackName(url("/DCIM")), "DCIM") << "never climbs to the root";
    EXPECT_EQ(IngestEngine::uniqueName("Interview", SourceType::audio, {"Interview", "Interview 2"}),
              "Interview 3");
    EXPECT_EQ(IngestEngine::uniqueName("music", SourceType::audio, {}), "Mic");
    EXPECT_EQ(IngestEngine::uniqueName(std::string(50, 'x'), SourceType::audio, {std::string(40, 'x')}),
              std::string(40, 'x') + " 2");
    std::string accented;
    for (int i = 0; i < 45; ++i)
        accented += "é";
    EXPECT_EQ(IngestEngine::uniqueName(accented, SourceType::audio, {}).size(), 80u) << "cut by characters";

    const std::pair<std::vector<std::string>, std::string> ancestors[] = {
        {{}, ""}, {{"/a/b/c.wav"}, "/a/b"}, {{"/a/b/c", "/a/b/d", "/a/bx"}, "/a"}, {{"/a/x", "/b/y"}, "/"}};
    for (const auto& [paths, ancestor] : ancestors)
        EXPECT_EQ(IngestEngine::commonAncestorPath(paths), ancestor) << ancestor;
    const std::vector<TrackSource> tracks{
        test::track("Zoom", {}), test::track("cam 10", {}, SourceType::video),
        test::track("Cam 9", {}, SourceType::video), test::track("Alpha", {})};
    EXPECT_EQ(names(IngestEngine::sortSources(tracks)), (Names{"Cam 9", "cam 10", "Alpha", "Zoom"}));

    for (const char* f : {"cam/A_10.MP4", "cam/A_2.MP4", "cam/a_3.MP4"})
        tmp.file(f);
    EXPECT_EQ(fileNames(IngestEngine().ingest({url(tmp / "cam")}, {}).at(0)),
              (Names{"A_2.MP4", "a_3.MP4", "A_10.MP4"}));
    // Same name in two folders: the earlier file date goes first.
    const auto older = tmp.file("x/same.WAV"), newer = tmp.file("y/same.WAV");
    std::filesystem::last_write_time(older,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(5));
    EXPECT_TRUE(IngestEngine::chronologicalOrder(url(older), url(newer)));
    EXPECT_FALSE(IngestEngine::chronologicalOrder(url(newer), url(older)));
}

TEST(Scan, ARedCardBecomesOneLockedTrackWithPictureFieldsFromItsHeader) {
    TempDir tmp;
    const auto take = tmp / "shoot/A001_0614AB.RDM/A001_C001_0614XY.RDC/A001_C001_0614XY";
    test::R3DHeaderBuilder()
        .float32(test::r3dtag::kRecordFrameRate, 25.0f)
        .text(test::r3dtag::kModel, "RED V-RAPTOR")
        .text(test::r3dtag::kTodTimecode, "10:00:01:12")
        .filler(6)
        .timeBase(25000, 1000)
        .frameSize(8192, 4320)
        .write(take.string() + "_001.R3D");
    tmp.file("shoot/A001_0614AB.RDM/A001_C001_0614XY.RDC/A001_C001_0614XY_002.R3D");
    tmp.file("shoot/A001_0614AB.RDM/A001_C001_0614XY.RDC/A001_C001_0614XY.wav");
    test::R3DHeaderBuilder()
        .float32(test::r3dtag::kRecordFrameRate, 25.0f)
        .text(test::r3dtag::kModel, "RED V-RAPTOR")
        .filler(7)
        .write(tmp / "shoot/A001_0614AB.RDM/A001_C002_0614XY.RDC/A001_C002_0614XY_001.R3D");
    tmp.file("shoot/rec/R0001.WAV");

    IngestEngine engine;
    test::LogCapture log;
    const auto tracks = engine.ingest({url(tmp / "shoot")}, {});
    ASSERT_EQ(names(tracks), (Names{"A001_0614AB", "rec"}))
        << "a card's track comes first, named without .RDM";
    const TrackSource& red = tracks[0];
    EXPECT_TRUE(red.lockedGrouping);
    // Without a sidecar WAV the picture file is the clip, and nothing of the picture is set.
    ASSERT_EQ(fileNames(red), (Names{"A001_C001_0614XY.wav", "A001_C002_0614XY_001.R3D"}));
    const ClipItem& withWav = red.clips[0];
    EXPECT_EQ(withWav.pictureURL.value().lastPathComponent(), "A001_C001_0614XY_001.R3D");
    EXPECT_EQ(withWav.conformFrameRate, 25.0f);
    EXPECT_EQ(withWav.pixelWidth, 8192);
    EXPECT_NEAR(withWav.pictureTimecode.value(), 36001.0 + 12.0 / 25.0, 1e-9);
    EXPECT_FALSE(red.clips[1].pictureURL.has_value());
    EXPECT_FALSE(red.clips[1].pixelWidth.has_value());
    // The card makes the drop a complete shoot even though its picture isn't a plain video file.
    EXPECT_TRUE(engine.completeShootSessions.contains((tmp / "shoot").string()));
    EXPECT_TRUE(
        log.contains("[Ingest] RED card 'A001_0614AB': 2 take(s), 3 chunk(s), RED V-RAPTOR, record 25.000 / "
                     "base 25.000, 1 take(s) with no sidecar WAV"));
}
