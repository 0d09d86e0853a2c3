// SPDX-License-Identifier: GPL-3.0-or-later
// Hostile, truncated and random bytes, and what every result promises (valid text, plausible
// sizes and rates, nothing read past 16 KiB), are left to fuzz/R3DHeaderFuzz.cpp; these tests pin
// the rules of a header that is well formed.
#include "TrelvaneEngine/media/R3DHeader.hpp"
#include "TestSupport.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gtest/gtest.h>

using namespace trelvane;
using trelvane::test::R3DHeaderBuilder;
using trelvane::test::TempDir;
using trelvane::test::typicalR3DHeader;
using namespace trelvane::test::r3dtag;
using namespace trelvane::test::r3dtype;

namespace {

std::optional<R3DHeader::Metadata> parse(const R3DHeaderBuilder& b) {
    return R3DHeader::parse(b.bytes());
}

// Just enough records to count as a header (eight of eight bytes, filling offsets 64 to 128), with a
// recording rate so that the result is not dropped; tests add the records they are about behind it.
R3DHeaderBuilder minimalHeader() {
    return R3DHeaderBuilder().float32(kRecordFrameRate, 25).filler(7);
}

} // namespace

TEST(R3DHeader, ReadsEveryFieldOfATypicalHeaderFromTheFileAsFromItsBytes) {
    TempDir tmp;
    const auto meta = R3DHeader::read(Url::fromPath(typicalR3DHeader().write(tmp / "a.R3D")));
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta, parse(typicalR3DHeader()));
    EXPECT_EQ(meta->recordFrameRate, static_cast<double>(23.976f));
    EXPECT_EQ(meta->timeBase, 24000.0 / 1001.0);
    EXPECT_EQ(meta->width, 4096);
    EXPECT_EQ(meta->height, 2160);
    EXPECT_EQ(meta->audioSampleRate, 48000);
    using M = R3DHeader::Metadata;
    const std::pair<std::optional<std::string> M::*, const char*> texts[] = {
        {&M::sidecarWAV, "A001_C001_0101AB.WAV"},
        {&M::edgeTimecode, "01:00:00:00"},
        {&M::todTimecode, "14:03:27:12"},
        {&M::model, "RED TEST BODY"},
        {&M::sensor, "TEST 6K S35"},
        {&M::bodySerial, "T0001"},
        {&M::mediaSerial, "M0042"},
        {&M::reel, "A001_0101AB"},
        {&M::clipNumber, "001"},
        {&M::firmware, "1.2.3"},
        {&M::ownFilename, "A001_C001_0101AB_001.R3D"}};
    for (const auto& [field, text] : texts)
        EXPECT_EQ((*meta).*field, text);
    for (const auto& unreadable :
         {Url::fromPath(tmp / "missing.R3D"), Url::fromPath(tmp.dir("folder.R3D")), Url()})
        EXPECT_FALSE(R3DHeader::read(unreadable)) << unreadable.path();
}

TEST(R3DHeader, NeedsMoreThan128BytesTheMagicAndARateSidecarOrModel) {
    // The eight records end exactly at 128: a header needs at least one byte more.
    auto bytes = minimalHeader().bytes();
    bytes.resize(129);
    EXPECT_TRUE(R3DHeader::parse(bytes));
    EXPECT_FALSE(R3DHeader::parse(std::vector(bytes.begin(), bytes.end() - 1)));
    bytes[7] = '1';
    EXPECT_FALSE(R3DHeader::parse(bytes)) << "RED1";

    const auto withoutKeys = R3DHeaderBuilder().filler(10).text(kSensor, "S35");
    EXPECT_FALSE(parse(withoutKeys));
    EXPECT_FALSE(parse(R3DHeaderBuilder(withoutKeys).text(kModel, ""))) << "an empty text is no model";
    EXPECT_EQ(parse(R3DHeaderBuilder(withoutKeys).text(kSidecarWAV, "A.WAV")).value().sensor, "S35");
    EXPECT_EQ(parse(R3DHeaderBuilder(withoutKeys).text(kModel, "BODY")).value().model, "BODY");
}

TEST(R3DHeader, TimeBaseNeedsAKnownDenominatorAndARateStrictlyBetweenOneAnd500) {
    const std::tuple<std::uint32_t, std::uint16_t, std::optional<double>> cases[] = {
        {25000, 1000, 25.0}, {1001, 1000, 1.001}, {24000, 1002, {}}, {1000, 1000, {}}, {500000, 1000, {}}};
    for (const auto& [numerator, denominator, timeBase] : cases)
        EXPECT_EQ(parse(minimalHeader().timeBase(numerator, denominator)).value().timeBase, timeBase)
            << numerator << "/" << denominator;
    // Without the block there is neither rate nor size.
    auto bytes = minimalHeader().bytes();
    bytes[R3DHeaderBuilder::kRdiOffset] = 'x';
    const auto noBlock = R3DHeader::parse(bytes).value();
    EXPECT_FALSE(noBlock.timeBase || noBlock.width || noBlock.height);
}

// A record of the wrong type clears its field (and an earlier good value); the last of a tag wins,
// an empty text at the end clearing the field.
TEST(R3DHeader, AWrongRecordTypeClearsItsFieldAndTheLastOfATagWins) {
    const auto meta = parse(minimalHeader()
                                .text(kModel, "BODY")
                                .int32(kModel, 7)
                                .text(kSensor, "S35", kFloat)
                                .float32(kRecordFrameRate, 50, kInt)
                                .text(kSidecarWAV, "FIRST.WAV")
                                .text(kSidecarWAV, "A.WAV")
                                .text(kReelFirst, "A001")
                                .text(kReelFirst, "")
                                .int32(kAudioSampleRate, 48000)
                                .int32(kAudioSampleRate, 96000, kIntAlt));
    EXPECT_EQ(meta.value().sidecarWAV, "A.WAV");
    EXPECT_FALSE(meta->model || meta->sensor || meta->recordFrameRate || meta->reel);
    EXPECT_EQ(meta->audioSampleRate, 96000);
}

TEST(R3DHeader, ReelJoinsBothHalvesInTagOrderAndTextEndsAtItsFirstZero) {
    const auto reel = [](R3DHeaderBuilder b) { return parse(b).value().reel; };
    EXPECT_EQ(reel(minimalHeader().text(kReelSecond, "_01").text(kReelFirst, "A001")), "A001_01");
    EXPECT_FALSE(reel(minimalHeader().text(kReelFirst, "A001")));
    EXPECT_FALSE(reel(minimalHeader().text(kReelFirst, "A001").text(kReelSecond, "")));
    // Valid text, whatever the bytes, is the fuzzer's to check.
    EXPECT_EQ(parse(minimalHeader().record(kText, kModel, {'A', 'B', 0, 'C', 'D'})).value().model, "AB");
}

TEST(R3DHeader, RecordsNeedEightInARowFromAStartBefore512AndTheLongestRunWins) {
    // Zero bytes before the records: a zero size ends a walk, and the next start is tried.
    const auto after = [](std::size_t zeros, int fillers) {
        return parse(
            R3DHeaderBuilder().raw(std::vector<std::uint8_t>(zeros, 0)).text(kModel, "BODY").filler(fillers));
    };
    EXPECT_EQ(after(0, 7).value().model, "BODY");
    EXPECT_FALSE(after(0, 6)) << "seven records";
    EXPECT_TRUE(after(237, 7)) << "records may start anywhere from 64 on";
    EXPECT_FALSE(after(448, 7)) << "but not from 512 on";

    // Two runs parted by a zero size: the longer one is read, the earlier one on a tie.
    for (const auto& [first, second, expected] :
         {std::tuple(8, 9, "LATE"), std::tuple(9, 8, "EARLY"), std::tuple(8, 8, "EARLY")}) {
        R3DHeaderBuilder b;
        b.text(kModel, "EARLY").filler(first).raw({0, 0, 0, 0}).text(kModel, "LATE").filler(second);
        EXPECT_EQ(parse(b).value().model, expected) << first << " then " << second;
    }
}
