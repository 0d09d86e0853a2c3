// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/REDCard.hpp"
#include "TestSupport.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gtest/gtest.h>

#include <limits>

using namespace trelvane;
using trelvane::test::TempDir;
using trelvane::test::typicalR3DHeader;

namespace {

Url url(const std::filesystem::path& p) {
    return Url::fromPath(p);
}

// The last path component of each card's root, or with `takesOf`, of that card's take folders.
std::vector<std::string> names(const std::vector<REDCard>& cards, std::optional<std::size_t> takesOf = {}) {
    std::vector<std::string> out;
    if (!takesOf)
        for (const auto& c : cards)
            out.push_back(c.root.lastPathComponent());
    else
        for (const auto& t : cards.at(*takesOf).takes)
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
    // Take 1: three chunks (extensions in any case) and a sidecar among files of other kinds;
    // take 2: no "_001" chunk and no sound. Written out of order.
    const std::string take1 = card + "/A001_C001_0101AB.RDC/", take2 = card + "/A001_C002_0101CD.rdc/";
    tmp.file(take2 + "DATA.R3D", "x");
    tmp.file(take2 + "CLIP.r3D", "x");
    tmp.file(take1 + "A001_C001_0101AB_000.R3D", std::string(500, 'c'));
    tmp.file(take1 + "A001_C001_0101AB_002.R3D", std::string(1000, 'b'));
    const auto first = typicalR3DHeader().write(tmp / (take1 + "A001_C001_0101AB_001.r3d"));
    tmp.file(take1 + "A001_C001_0101AB.wav", "RIFF");
    tmp.file(take1 + "Z.WAV", "RIFF");
    tmp.file(take1 + "._A001_C001_0101AB_001.R3D", "resource fork");
    tmp.dir(take1 + "folder.R3D");

    const auto cards = REDCard::cards(url(tmp / card));
    ASSERT_EQ(cards.size(), 1u);
    ASSERT_EQ(names(cards, 0), (std::vector<std::string>{"A001_C001_0101AB.RDC", "A001_C002_0101CD.rdc"}));
    const auto& a = cards[0].takes[0];
    EXPECT_EQ(a.picture, url(first)) << "the _001 chunk, not the first by name";
    EXPECT_EQ(a.wav, url(tmp / (take1 + "A001_C001_0101AB.wav")));
    EXPECT_EQ(a.chunkCount, 3);
    EXPECT_EQ(a.byteCount, std::filesystem::file_size(first) + 1000 + 500);
    EXPECT_EQ(a.header, R3DHeader::read(url(first)));
    const auto& b = cards[0].takes[1];
    EXPECT_EQ(b.picture.lastPathComponent(), "CLIP.r3D") << "no _001 chunk: the first by name";
    EXPECT_FALSE(b.wav);
    EXPECT_EQ(b.chunkCount, 2);
    EXPECT_EQ(b.byteCount, 2u);
    EXPECT_FALSE(b.header) << "a picture without a header";
}

TEST(REDCard, FindsCardsAnywhereUnderADropParentFirstAndATakeFolderAlone) {
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

    const auto cards = REDCard::cards(url(tmp / "shoot"));
    EXPECT_EQ(names(cards),
              (std::vector<std::string>{"shoot", "A001_0101AB.RDM", "extras", "B001_0101AB.RDM"}));
    EXPECT_EQ(names(cards, 1), (std::vector<std::string>{"A001_C001_0101AB.RDC", "A001_C002_0101AB.RDC"}));
    EXPECT_TRUE(REDCard::cards(url(tmp / "shoot/day3")).empty());

    // A take folder dropped alone is a card of its own.
    const auto alone = REDCard::cards(url(tmp / "shoot/Z001.RDC"));
    EXPECT_EQ(names(alone), std::vector<std::string>{"Z001.RDC"});
    EXPECT_EQ(names(alone, 0), std::vector<std::string>{"Z001.RDC"});
}

TEST(REDCard, LinksInsideTheTreeAreNotFollowedAndOnlyFoldersNamedRdcAreTakes) {
    TempDir tmp;
    makeTake(tmp, "shoot/A001.RDM/A001_C001.RDC");
    makeTake(tmp, "elsewhere/B001.RDM/B001_C001.RDC");
    std::filesystem::create_directory_symlink("..", tmp / "shoot/A001.RDM/up");
    std::filesystem::create_directory_symlink(tmp / "elsewhere/B001.RDM", tmp / "shoot/linked.RDM");
    std::filesystem::create_directory_symlink(tmp / "elsewhere/B001.RDM/B001_C001.RDC",
                                              tmp / "shoot/A001.RDM/B001_C001.RDC");
    const auto cards = REDCard::cards(url(tmp / "shoot"));
    EXPECT_EQ(names(cards), std::vector<std::string>{"A001.RDM"});
    EXPECT_EQ(names(cards, 0), std::vector<std::string>{"A001_C001.RDC"});
    // The dropped item itself may be a link.
    EXPECT_EQ(names(REDCard::cards(url(tmp / "shoot/linked.RDM"))), std::vector<std::string>{"linked.RDM"});

    const auto loose = typicalR3DHeader().write(tmp / "loose/A_001.R3D");
    for (const auto& p : {tmp.file("notes.RDC", "not a folder"), tmp / "missing.RDC", tmp.dir("RDC"), loose,
                          loose.parent_path()}) {
        EXPECT_FALSE(REDCard::isTakeFolder(url(p))) << p;
        EXPECT_TRUE(REDCard::cards(url(p)).empty()) << p;
    }
    EXPECT_TRUE(REDCard::cards(Url()).empty());
    EXPECT_TRUE(REDCard::isTakeFolder(url(tmp.dir("a.rDc"))));
}

TEST(REDCard, TimecodeLabelsBecomeSecondsOnTheLabelClock) {
    const std::tuple<const char*, double, double> cases[] = {
        {"14:03:27:12", 23.976, 14 * 3600 + 3 * 60 + 27 + 0.5}, // frames count at 24
        {"01;02;03;15", 29.97, 3723.5},                         // drop-frame labels are not corrected
        {"00:00:10.05", 25, 10.2},
        {"1:2:3:4", 25, 3723.16},
        {"00:00:05:00", 0.4, 5.0}, // at least one frame per second
        {"00:00:01:00", std::numeric_limits<double>::max(), 1.0}};
    for (const auto& [label, fps, seconds] : cases)
        EXPECT_DOUBLE_EQ(REDCard::timecodeSeconds(label, fps).value_or(-1), seconds)
            << label << " at " << fps;
    const std::pair<const char*, double> bad[] = {
        {"00:00:00:24", 23.976}, {"00:60:00:00", 25},        {"00:00:60:00", 25}, {"00:00:01:01", 0.4},
        {"00:00:00:00", 0},      {"00:00:00", 25},           {"aa:00:00:00", 25}, {"00:00:00:+1", 25},
        {" 00:00:00:00", 25},    {"0000000000:00:00:00", 25}};
    for (const auto& [label, fps] : bad)
        EXPECT_FALSE(REDCard::timecodeSeconds(label, fps)) << label << " at " << fps;
}
