// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/REDCard.hpp"
#include "TestSupport.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <unistd.h>

using namespace trelvane;
using trelvane::test::TempDir;
using trelvane::test::typicalR3DHeader;

namespace {

Url url(const std::filesystem::path& p) {
    return Url::fromPath(p);
}

std::vector<std::string> roots(const std::vector<REDCard>& cards) {
    std::vector<std::string> out;
    for (const auto& c : cards)
        out.push_back(c.root.lastPathComponent());
    return out;
}

std::vector<std::string> takeNames(const REDCard& card) {
    std::vector<std::string> out;
    for (const auto& t : card.takes)
        out.push_back(t.folder.lastPathComponent());
    return out;
}

// A take folder with a readable header in its first chunk.
void makeTake(const TempDir& tmp, const std::string& folder) {
    const std::string name = Url::fromPath(folder).baseName();
    typicalR3DHeader(name + ".WAV", name + "_001.R3D").write(tmp / (folder + "/" + name + "_001.R3D"));
}

} // namespace

TEST(REDCard, CardListsItsTakesInNameOrderWithChunksWavAndHeader) {
    TempDir tmp;
    const std::string card = "A001_0101AB.RDM";
    // Take 1: three chunks and a sidecar; take 2: one chunk, no sound. Written out of order.
    const std::string take2 = card + "/A001_C002_0101CD.RDC/";
    typicalR3DHeader("", "A001_C002_0101CD_001.R3D").write(tmp / (take2 + "A001_C002_0101CD_001.R3D"));
    tmp.file(take2 + ".DS_Store", "finder");
    const std::string take1 = card + "/A001_C001_0101AB.RDC/";
    tmp.file(take1 + "A001_C001_0101AB_003.R3D", std::string(500, 'c'));
    tmp.file(take1 + "A001_C001_0101AB_002.R3D", std::string(1000, 'b'));
    const auto first =
        typicalR3DHeader("A001_C001_0101AB.WAV").write(tmp / (take1 + "A001_C001_0101AB_001.R3D"));
    tmp.file(take1 + "A001_C001_0101AB.WAV", "RIFF");
    tmp.file(take1 + "._A001_C001_0101AB_001.R3D", "resource fork");
    tmp.file(take1 + "A001_C001_0101AB.RTN", "other camera file");
    tmp.dir(take1 + "folder.R3D");

    const auto cards = REDCard::cards(url(tmp / card));
    ASSERT_EQ(cards.size(), 1u);
    EXPECT_EQ(cards[0].root, url(tmp / card));
    ASSERT_EQ(takeNames(cards[0]),
              (std::vector<std::string>{"A001_C001_0101AB.RDC", "A001_C002_0101CD.RDC"}));

    const auto& a = cards[0].takes[0];
    EXPECT_EQ(a.folder, url(tmp / take1));
    EXPECT_EQ(a.picture, url(first));
    EXPECT_EQ(a.wav, url(tmp / (take1 + "A001_C001_0101AB.WAV")));
    EXPECT_EQ(a.chunkCount, 3);
    EXPECT_EQ(a.byteCount, std::filesystem::file_size(first) + 1000 + 500);
    ASSERT_TRUE(a.header);
    EXPECT_EQ(a.header->sidecarWAV, "A001_C001_0101AB.WAV");
    EXPECT_EQ(a.header->model, "RED TEST BODY");
    EXPECT_FALSE(a.pictureFrames);

    const auto& b = cards[0].takes[1];
    EXPECT_EQ(b.picture.lastPathComponent(), "A001_C002_0101CD_001.R3D");
    EXPECT_FALSE(b.wav);
    EXPECT_EQ(b.chunkCount, 1);
    ASSERT_TRUE(b.header);
    EXPECT_FALSE(b.header->sidecarWAV);

    // Dropping the shoot folder above finds the same card.
    const auto fromAbove = REDCard::cards(url(tmp.path()));
    ASSERT_EQ(fromAbove.size(), 1u);
    EXPECT_EQ(fromAbove[0].root, cards[0].root);
    EXPECT_EQ(takeNames(fromAbove[0]), takeNames(cards[0]));
}

TEST(REDCard, PictureIsTheFirstChunkAndExtensionsMatchInAnyCase) {
    TempDir tmp;
    tmp.file("card/T1.RDC/T1_000.R3D", "stray");
    typicalR3DHeader().write(tmp / "card/T1.RDC/T1_001.r3d");
    tmp.file("card/T1.RDC/T1_002.R3D", "chunk");
    tmp.file("card/T1.RDC/b.wav", "RIFF");
    tmp.file("card/T1.RDC/c.WAV", "RIFF");
    tmp.file("card/T2.rdc/DATA.R3D", "x");
    tmp.file("card/T2.rdc/CLIP.r3D", "x");

    const auto cards = REDCard::cards(url(tmp / "card"));
    ASSERT_EQ(cards.size(), 1u);
    ASSERT_EQ(cards[0].takes.size(), 2u);
    const auto& t1 = cards[0].takes[0];
    EXPECT_EQ(t1.picture.lastPathComponent(), "T1_001.r3d");
    EXPECT_EQ(t1.chunkCount, 3);
    EXPECT_EQ(t1.wav.value().lastPathComponent(), "b.wav");
    EXPECT_TRUE(t1.header);
    const auto& t2 = cards[0].takes[1];
    EXPECT_EQ(t2.folder.lastPathComponent(), "T2.rdc");
    EXPECT_EQ(t2.picture.lastPathComponent(), "CLIP.r3D") << "no _001 chunk: the first by name";
    EXPECT_EQ(t2.chunkCount, 2);
    EXPECT_EQ(t2.byteCount, 2u);
}

TEST(REDCard, LooseTakeFolderIsACardOfItsOwn) {
    TempDir tmp;
    makeTake(tmp, "drop/A002_C007_0102EF.RDC");
    const Url take = url(tmp / "drop/A002_C007_0102EF.RDC");
    EXPECT_TRUE(REDCard::isTakeFolder(take));

    const auto cards = REDCard::cards(take);
    ASSERT_EQ(cards.size(), 1u);
    EXPECT_EQ(cards[0].root, take);
    ASSERT_EQ(cards[0].takes.size(), 1u);
    EXPECT_EQ(cards[0].takes[0].folder, take);
    EXPECT_TRUE(cards[0].takes[0].wav == std::nullopt);
    EXPECT_EQ(cards[0].takes[0].header.value().sidecarWAV, "A002_C007_0102EF.WAV");

    // Its parent holds a take, so it is a card too, whatever its name.
    EXPECT_EQ(roots(REDCard::cards(url(tmp / "drop"))), std::vector<std::string>{"drop"});
}

TEST(REDCard, FindsCardsAnywhereUnderAShootParentFirst) {
    TempDir tmp;
    makeTake(tmp, "shoot/Z001.RDC");
    makeTake(tmp, "shoot/day1/B001_0101AB.RDM/B001_C001_0101AB.RDC");
    makeTake(tmp, "shoot/day1/A001_0101AB.RDM/A001_C002_0101AB.RDC");
    makeTake(tmp, "shoot/day1/A001_0101AB.RDM/A001_C001_0101AB.RDC");
    makeTake(tmp, "shoot/day1/A001_0101AB.RDM/extras/X001.RDC");
    // Take folders are not searched further; hidden folders are not searched at all.
    makeTake(tmp, "shoot/day1/A001_0101AB.RDM/A001_C001_0101AB.RDC/inner/I001.RDC");
    makeTake(tmp, "shoot/.Trashes/T001.RDC");
    makeTake(tmp, "shoot/day2/.hidden.RDC");
    // A take folder without a picture file is no take.
    tmp.file("shoot/day3/C001_0103.RDM/C001_C001.RDC/C001_C001.WAV", "RIFF");
    tmp.dir("shoot/day3/C001_0103.RDM/C001_C002.RDC");

    const auto cards = REDCard::cards(url(tmp / "shoot"));
    EXPECT_EQ(roots(cards),
              (std::vector<std::string>{"shoot", "A001_0101AB.RDM", "extras", "B001_0101AB.RDM"}));
    ASSERT_EQ(cards.size(), 4u);
    EXPECT_EQ(takeNames(cards[1]),
              (std::vector<std::string>{"A001_C001_0101AB.RDC", "A001_C002_0101AB.RDC"}));
    EXPECT_EQ(takeNames(cards[2]), std::vector<std::string>{"X001.RDC"});

    EXPECT_TRUE(REDCard::cards(url(tmp / "shoot/day3")).empty());
    EXPECT_TRUE(REDCard::cards(url(tmp / "shoot/day3/C001_0103.RDM/C001_C002.RDC")).empty());

    // Deeper than real layouts go, the walk gives up.
    std::string deep = "deep";
    for (int i = 0; i < 40; ++i)
        deep += "/d";
    makeTake(tmp, deep + "/T.RDC");
    makeTake(tmp, "deep/d/d/T.RDC");
    const auto deepCards = REDCard::cards(url(tmp / "deep"));
    ASSERT_EQ(deepCards.size(), 1u);
    EXPECT_EQ(deepCards[0].root, url(tmp / "deep/d/d"));
}

TEST(REDCard, LinksInsideTheTreeAreNotFollowed) {
    TempDir tmp;
    makeTake(tmp, "shoot/A001.RDM/A001_C001.RDC");
    makeTake(tmp, "elsewhere/B001.RDM/B001_C001.RDC");
    std::filesystem::create_directory_symlink("..", tmp / "shoot/A001.RDM/up");
    std::filesystem::create_directory_symlink(tmp / "shoot", tmp / "shoot/A001.RDM/loop");
    std::filesystem::create_directory_symlink(tmp / "elsewhere/B001.RDM", tmp / "shoot/linked.RDM");
    std::filesystem::create_directory_symlink(tmp / "elsewhere/B001.RDM/B001_C001.RDC",
                                              tmp / "shoot/A001.RDM/B001_C001.RDC");

    const auto cards = REDCard::cards(url(tmp / "shoot"));
    ASSERT_EQ(roots(cards), std::vector<std::string>{"A001.RDM"});
    EXPECT_EQ(takeNames(cards[0]), std::vector<std::string>{"A001_C001.RDC"});

    // The dropped item itself may be a link.
    const auto viaLink = REDCard::cards(url(tmp / "shoot/linked.RDM"));
    ASSERT_EQ(viaLink.size(), 1u);
    EXPECT_EQ(viaLink[0].root, url(tmp / "shoot/linked.RDM"));
    EXPECT_EQ(REDCard::cards(url(tmp / "shoot/A001.RDM/B001_C001.RDC")).size(), 1u);
}

TEST(REDCard, UnreadableOrGarbagePictureLeavesTheHeaderAbsent) {
    TempDir tmp;
    tmp.file("card/G001.RDC/G001_001.R3D", std::string(4096, '\x5A'));
    const auto locked = typicalR3DHeader().write(tmp / "card/L001.RDC/L001_001.R3D");
    std::filesystem::permissions(locked, std::filesystem::perms::none);
    tmp.file("card/E001.RDC/E001_001.R3D", "");

    const auto cards = REDCard::cards(url(tmp / "card"));
    ASSERT_EQ(cards.size(), 1u);
    ASSERT_EQ(takeNames(cards[0]), (std::vector<std::string>{"E001.RDC", "G001.RDC", "L001.RDC"}));
    EXPECT_FALSE(cards[0].takes[0].header);
    EXPECT_EQ(cards[0].takes[0].byteCount, 0u);
    EXPECT_FALSE(cards[0].takes[1].header);
    EXPECT_EQ(cards[0].takes[1].byteCount, 4096u);
    // Permissions don't bind the superuser.
    if (::geteuid() != 0) {
        EXPECT_FALSE(cards[0].takes[2].header);
    }
    EXPECT_EQ(cards[0].takes[2].chunkCount, 1);
}

TEST(REDCard, FilesMissingPathsAndTakeFolderLookalikesGiveNoCards) {
    TempDir tmp;
    const auto file = tmp.file("notes.RDC", "not a folder");
    EXPECT_FALSE(REDCard::isTakeFolder(url(file)));
    EXPECT_TRUE(REDCard::cards(url(file)).empty());
    EXPECT_FALSE(REDCard::isTakeFolder(url(tmp / "missing.RDC")));
    EXPECT_TRUE(REDCard::cards(url(tmp / "missing.RDC")).empty());
    EXPECT_TRUE(REDCard::cards(url(tmp / "missing")).empty());
    EXPECT_TRUE(REDCard::cards(Url()).empty());
    EXPECT_TRUE(REDCard::cards(url(tmp.dir("empty"))).empty());
    EXPECT_FALSE(REDCard::isTakeFolder(url(tmp.dir("A001.RDM"))));
    EXPECT_FALSE(REDCard::isTakeFolder(url(tmp.dir("RDC"))));
    EXPECT_TRUE(REDCard::isTakeFolder(url(tmp.dir("a.rDc"))));
    const auto r3dFile = typicalR3DHeader().write(tmp / "loose/A_001.R3D");
    EXPECT_TRUE(REDCard::cards(url(r3dFile)).empty());
    EXPECT_TRUE(REDCard::cards(url(tmp / "loose")).empty()) << "chunks outside a take folder make no card";
}

TEST(REDCard, TimecodeLabelsBecomeSecondsOnTheLabelClock) {
    auto seconds = [](std::string_view tc, double fps) { return REDCard::timecodeSeconds(tc, fps); };
    EXPECT_EQ(seconds("01:00:00:00", 24), 3600.0);
    EXPECT_EQ(seconds("00:00:01:12", 24), 1.5);
    EXPECT_EQ(seconds("14:03:27:12", 23.976), 14 * 3600 + 3 * 60 + 27 + 0.5) << "frames count at 24";
    EXPECT_EQ(seconds("01:02:03;15", 29.97), 3723.5) << "drop-frame labels are not corrected";
    EXPECT_EQ(seconds("01;02;03;15", 29.97), 3723.5);
    EXPECT_DOUBLE_EQ(seconds("00:00:10.05", 25).value_or(-1), 10.2);
    EXPECT_EQ(seconds("25:00:00:00", 25), 90000.0);
    EXPECT_DOUBLE_EQ(seconds("1:2:3:4", 25).value_or(-1), 3723.16);
    EXPECT_DOUBLE_EQ(seconds("00:00:00:59", 59.94).value_or(-1), 59.0 / 60.0);
    EXPECT_EQ(seconds("00:00:05:00", 0.4), 5.0) << "at least one frame per second";

    EXPECT_FALSE(seconds("00:00:00:24", 23.976));
    EXPECT_FALSE(seconds("00:00:00:25", 25));
    EXPECT_FALSE(seconds("00:60:00:00", 25));
    EXPECT_FALSE(seconds("00:00:60:00", 25));
    EXPECT_FALSE(seconds("00:00:01:01", 0.4));
    for (const auto bad :
         {"", "00:00:00", "00:00:00:00:00", "aa:00:00:00", "00:00:00:+1", "00:00:00:", ":00:00:00",
          "00.00:00:00", "00:00.00:00", "00:00:00/00", " 00:00:00:00", "00:00:00:00 ", "0000000000:00:00:00"})
        EXPECT_FALSE(seconds(bad, 25)) << bad;
    for (const double fps :
         {0.0, -25.0, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()})
        EXPECT_FALSE(seconds("00:00:00:00", fps)) << fps;
    EXPECT_EQ(seconds("00:00:01:00", std::numeric_limits<double>::max()), 1.0);
}
