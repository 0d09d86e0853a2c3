// SPDX-License-Identifier: GPL-3.0-or-later
// Hostile, truncated and random bytes are left to fuzz/R3DHeaderFuzz.cpp; these tests pin the rules.
#include "TrelvaneEngine/media/R3DHeader.hpp"
#include "TestSupport.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <unistd.h>

using namespace trelvane;
using trelvane::test::R3DHeaderBuilder;
using trelvane::test::TempDir;
using trelvane::test::typicalR3DHeader;
namespace r3dtag = trelvane::test::r3dtag;
namespace r3dtype = trelvane::test::r3dtype;

namespace {

std::optional<R3DHeader::Metadata> parse(const std::vector<std::uint8_t>& bytes) {
    return R3DHeader::parse(bytes);
}

// Just enough records to count as a header (eight of eight bytes, filling offsets 64 to 128), with a
// recording rate so that the result is not dropped; tests add the records they are about behind it.
R3DHeaderBuilder minimalHeader() {
    return R3DHeaderBuilder().float32(r3dtag::kRecordFrameRate, 25).filler(7);
}
static_assert(R3DHeaderBuilder::kRecordsOffset == 64);

std::optional<std::string> model(const std::vector<std::uint8_t>& payload) {
    return parse(minimalHeader().record(r3dtype::kText, r3dtag::kModel, payload).bytes()).value().model;
}

} // namespace

TEST(R3DHeader, ReadsEveryFieldOfATypicalHeader) {
    TempDir tmp;
    const auto path =
        typicalR3DHeader("A001_C001_0101AB.WAV", "A001_C001_0101AB_001.R3D").write(tmp / "a.R3D");
    const auto meta = R3DHeader::read(Url::fromPath(path));
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->recordFrameRate, static_cast<double>(23.976f));
    EXPECT_EQ(meta->timeBase, 24000.0 / 1001.0);
    EXPECT_EQ(meta->width, 4096);
    EXPECT_EQ(meta->height, 2160);
    EXPECT_EQ(meta->sidecarWAV, "A001_C001_0101AB.WAV");
    EXPECT_EQ(meta->edgeTimecode, "01:00:00:00");
    EXPECT_EQ(meta->todTimecode, "14:03:27:12");
    EXPECT_EQ(meta->model, "RED TEST BODY");
    EXPECT_EQ(meta->sensor, "TEST 6K S35");
    EXPECT_EQ(meta->bodySerial, "T0001");
    EXPECT_EQ(meta->mediaSerial, "M0042");
    EXPECT_EQ(meta->reel, "A001_0101AB");
    EXPECT_EQ(meta->clipNumber, "001");
    EXPECT_EQ(meta->firmware, "1.2.3");
    EXPECT_EQ(meta->audioSampleRate, 48000);
    EXPECT_EQ(meta->ownFilename, "A001_C001_0101AB_001.R3D");
    EXPECT_EQ(meta, parse(typicalR3DHeader().bytes()));
}

TEST(R3DHeader, RejectsShortFilesAndOtherMagic) {
    // The eight records end exactly at 128: a header needs at least one byte more.
    const auto bytes = minimalHeader().minimumSize(129).bytes();
    EXPECT_TRUE(parse(bytes));
    EXPECT_FALSE(parse(std::vector(bytes.begin(), bytes.end() - 1)));
    EXPECT_FALSE(parse(minimalHeader().magic("RED1").bytes()));
    auto shifted = minimalHeader().bytes();
    shifted.insert(shifted.begin(), 0);
    EXPECT_FALSE(parse(shifted)) << "the magic counts only at offset 4";
}

TEST(R3DHeader, TimeBaseNeedsAKnownDenominatorAndARateStrictlyBetweenOneAnd500) {
    const struct {
        std::uint32_t numerator;
        std::uint16_t denominator;
        std::optional<double> timeBase;
    } cases[] = {{24000, 1001, 24000.0 / 1001.0},
                 {25000, 1000, 25.0},
                 {1001, 1000, 1.001},
                 {499999, 1000, 499.999},
                 {24000, 1002, {}},
                 {24, 1, {}},
                 {1000, 1000, {}},
                 {500000, 1000, {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.numerator) + "/" + std::to_string(c.denominator));
        const auto meta = parse(minimalHeader().timeBase(c.numerator, c.denominator).bytes());
        ASSERT_TRUE(meta);
        EXPECT_EQ(meta->timeBase, c.timeBase);
    }

    const auto noBlock = parse(minimalHeader().withoutRdi().bytes());
    ASSERT_TRUE(noBlock);
    EXPECT_FALSE(noBlock->timeBase || noBlock->width || noBlock->height);

    // A block moved behind the records: cut by the end of the bytes, it holds a size but no rate;
    // beyond the first 512 bytes it is chance, not the block.
    const auto block = R3DHeaderBuilder().frameSize(1920, 1080).bytes();
    for (const auto& [at, length, sized] : {std::tuple<std::size_t, std::size_t, bool>(280, 20, true),
                                            std::tuple<std::size_t, std::size_t, bool>(600, 24, false)}) {
        SCOPED_TRACE(at);
        auto bytes = minimalHeader().withoutRdi().minimumSize(at + length).bytes();
        std::copy_n(block.begin() + R3DHeaderBuilder::kRdiOffset, length, bytes.begin() + at);
        const auto meta = parse(bytes);
        ASSERT_TRUE(meta);
        EXPECT_FALSE(meta->timeBase);
        EXPECT_EQ(meta->width, sized ? std::optional(1920) : std::nullopt);
        EXPECT_EQ(meta->height, sized ? std::optional(1080) : std::nullopt);
    }
}

TEST(R3DHeader, FrameSizeOutsideItsBoundsDropsBothSidesButNotTheRate) {
    const struct {
        std::uint32_t width, height;
        bool kept;
    } cases[] = {{128, 20000, true}, {20001, 2160, false}, {4096, 127, false}, {0xFFFFFFFF, 1080, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        const auto meta = parse(minimalHeader().frameSize(c.width, c.height).bytes());
        ASSERT_TRUE(meta);
        EXPECT_EQ(meta->width, c.kept ? std::optional(static_cast<int>(c.width)) : std::nullopt);
        EXPECT_EQ(meta->height, c.kept ? std::optional(static_cast<int>(c.height)) : std::nullopt);
        EXPECT_TRUE(meta->timeBase);
    }
}

TEST(R3DHeader, RecordsWithoutRateSidecarOrModelGiveNothing) {
    const auto withoutKeys =
        R3DHeaderBuilder().filler(10).text(r3dtag::kSensor, "S35").int32(r3dtag::kAudioSampleRate, 48000);
    EXPECT_FALSE(parse(withoutKeys.bytes()));
    EXPECT_FALSE(parse(R3DHeaderBuilder(withoutKeys).text(r3dtag::kModel, "").bytes()))
        << "an empty text is no model";

    const auto sidecarOnly = parse(R3DHeaderBuilder(withoutKeys).text(r3dtag::kSidecarWAV, "A.WAV").bytes());
    ASSERT_TRUE(sidecarOnly);
    EXPECT_EQ(sidecarOnly->sidecarWAV, "A.WAV");
    EXPECT_EQ(sidecarOnly->sensor, "S35");
    EXPECT_EQ(parse(R3DHeaderBuilder(withoutKeys).text(r3dtag::kModel, "BODY").bytes()).value().model,
              "BODY");
}

TEST(R3DHeader, WrongRecordTypeClearsItsFieldAndTheLastOfATagWins) {
    const auto wrongType = parse(minimalHeader()
                                     .text(r3dtag::kModel, "BODY")
                                     .int32(r3dtag::kModel, 7)
                                     .text(r3dtag::kSensor, "S35", r3dtype::kFloat)
                                     .float32(r3dtag::kRecordFrameRate, 50, r3dtype::kInt)
                                     .text(r3dtag::kSidecarWAV, "A.WAV")
                                     .float32(r3dtag::kAudioSampleRate, 48000)
                                     .bytes());
    ASSERT_TRUE(wrongType);
    EXPECT_FALSE(wrongType->model);
    EXPECT_FALSE(wrongType->sensor);
    EXPECT_FALSE(wrongType->recordFrameRate) << "the earlier good rate is cleared too";
    EXPECT_FALSE(wrongType->audioSampleRate);

    const auto twice = parse(minimalHeader()
                                 .text(r3dtag::kModel, "FIRST")
                                 .text(r3dtag::kModel, "SECOND")
                                 .text(r3dtag::kSensor, "S35")
                                 .text(r3dtag::kSensor, "")
                                 .float32(r3dtag::kRecordFrameRate, 59.94f)
                                 .int32(r3dtag::kAudioSampleRate, 48000)
                                 .int32(r3dtag::kAudioSampleRate, 96000, r3dtype::kIntAlt)
                                 .bytes());
    ASSERT_TRUE(twice);
    EXPECT_EQ(twice->model, "SECOND");
    EXPECT_FALSE(twice->sensor) << "an empty text at the end clears the field";
    EXPECT_EQ(twice->recordFrameRate, static_cast<double>(59.94f));
    EXPECT_EQ(twice->audioSampleRate, 96000);

    // A payload too short for its type is no value.
    const auto shortPayloads =
        parse(minimalHeader()
                  .text(r3dtag::kModel, "BODY")
                  .int32(r3dtag::kAudioSampleRate, 48000)
                  .record(r3dtype::kInt, r3dtag::kAudioSampleRate, {0xBB, 0x80})
                  .record(r3dtype::kFloat, r3dtag::kRecordFrameRate, {0x41, 0xC8, 0x00})
                  .bytes());
    ASSERT_TRUE(shortPayloads);
    EXPECT_FALSE(shortPayloads->audioSampleRate || shortPayloads->recordFrameRate);
}

TEST(R3DHeader, ReelJoinsBothHalvesInTagOrderOnlyWhenBothAreThere) {
    const std::pair<R3DHeaderBuilder, std::optional<std::string>> cases[] = {
        {minimalHeader().text(r3dtag::kReelFirst, "A001").text(r3dtag::kReelSecond, "_0101AB"),
         "A001_0101AB"},
        {minimalHeader().text(r3dtag::kReelSecond, "_0101AB").text(r3dtag::kReelFirst, "A001"),
         "A001_0101AB"},
        {minimalHeader().text(r3dtag::kReelFirst, "A001"), std::nullopt},
        {minimalHeader().text(r3dtag::kReelFirst, "A001").text(r3dtag::kReelSecond, ""), std::nullopt},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(parse(cases[i].first.bytes()).value().reel, cases[i].second);
    }
}

TEST(R3DHeader, TextEndsAtItsFirstZeroAndInvalidUTF8IsRepaired) {
    const std::string fffd = "\xEF\xBF\xBD";
    const auto bytes = [](std::string_view s) { return std::vector<std::uint8_t>(s.begin(), s.end()); };
    const std::pair<std::vector<std::uint8_t>, std::optional<std::string>> cases[] = {
        {{'A', 'B', 0, 'C', 'D'}, "AB"},
        {bytes("NO ZERO"), "NO ZERO"},
        {{0, 'A', 'B'}, std::nullopt},
        {bytes("caf\xC3\xA9 \xF0\x9F\x8E\xA5"), "caf\xC3\xA9 \xF0\x9F\x8E\xA5"},
        {{'A', 0xFF, 'B'}, "A" + fffd + "B"},
        {{'A', 0xE2, 0x82, 0, 0xAC}, "A" + fffd}, // a sequence cut by the zero
        {bytes("\xC0\xAF"), fffd + fffd},         // an overlong form
    };
    for (const auto& [payload, expected] : cases) {
        SCOPED_TRACE(std::string(payload.begin(), payload.end()));
        EXPECT_EQ(model(payload), expected);
    }
}

TEST(R3DHeader, RecordsNeedEightInARowAndTheLongestRunWins) {
    EXPECT_FALSE(parse(R3DHeaderBuilder().text(r3dtag::kModel, "BODY").filler(6).bytes()));
    EXPECT_EQ(parse(R3DHeaderBuilder().text(r3dtag::kModel, "BODY").filler(7).bytes()).value().model, "BODY");
    EXPECT_TRUE(parse(R3DHeaderBuilder().recordsAt(301).text(r3dtag::kModel, "BODY").filler(7).bytes()))
        << "records may start anywhere from 64 on";
    EXPECT_FALSE(parse(
        R3DHeaderBuilder().recordsAt(512).minimumSize(1024).text(r3dtag::kModel, "BODY").filler(7).bytes()))
        << "but not from 512 on";

    // Two runs parted by a zero size: the longer one is read, the earlier one on a tie.
    for (const auto& [first, second, expected] :
         {std::tuple(8, 9, "LATE"), std::tuple(9, 8, "EARLY"), std::tuple(8, 8, "EARLY")}) {
        R3DHeaderBuilder b;
        b.text(r3dtag::kModel, "EARLY").filler(first).raw({0, 0, 0, 0});
        b.text(r3dtag::kModel, "LATE").filler(second);
        EXPECT_EQ(parse(b.bytes()).value().model, expected) << first << " then " << second;
    }

    // A record claiming more bytes than there are, or fewer than four, ends the walk before it.
    for (const auto& [high, low] : {std::pair<std::uint8_t, std::uint8_t>(0xFF, 0xFF), {0x00, 0x03}}) {
        const auto meta = parse(minimalHeader()
                                    .raw({high, low, r3dtype::kText, r3dtag::kModel})
                                    .text(r3dtag::kSensor, "S35")
                                    .bytes());
        ASSERT_TRUE(meta) << int(low);
        EXPECT_FALSE(meta->model || meta->sensor) << int(low);
        EXPECT_EQ(meta->recordFrameRate, 25.0);
    }
    // A record of four bytes has an empty payload and is a record all the same.
    const auto empty = parse(R3DHeaderBuilder()
                                 .text(r3dtag::kModel, "BODY")
                                 .record(r3dtype::kText, r3dtag::kSensor, {})
                                 .filler(6)
                                 .bytes());
    ASSERT_TRUE(empty);
    EXPECT_FALSE(empty->sensor);
}

TEST(R3DHeader, ReadsOnlyTheFirstSixteenKiB) {
    // A model record that ends at 16 KiB exactly is whole; one that ends a byte later is cut off,
    // in a file as in memory.
    TempDir tmp;
    for (const std::size_t end : {R3DHeader::kMaxHeaderBytes, R3DHeader::kMaxHeaderBytes + 1}) {
        SCOPED_TRACE(end);
        std::vector<std::uint8_t> payload(end - (64 + 8 * 8) - 4, 'M');
        payload.back() = 0;
        const auto header =
            minimalHeader().record(r3dtype::kText, r3dtag::kModel, payload).minimumSize(end + 4096);
        const bool whole = end == R3DHeader::kMaxHeaderBytes;
        EXPECT_EQ(parse(header.bytes()).value().model.has_value(), whole);
        EXPECT_EQ(R3DHeader::read(Url::fromPath(header.write(tmp / "chunk.R3D"))).value().model.has_value(),
                  whole);
    }
}

TEST(R3DHeader, UnreadablePathsGiveNothing) {
    TempDir tmp;
    for (const auto& url : {Url::fromPath(tmp / "missing.R3D"), Url::fromPath(tmp.dir("folder.R3D")), Url()})
        EXPECT_FALSE(R3DHeader::read(url)) << url.path();
    // Permissions don't bind the superuser.
    if (::geteuid() != 0) {
        const auto locked = typicalR3DHeader().write(tmp / "locked.R3D");
        std::filesystem::permissions(locked, std::filesystem::perms::none);
        EXPECT_FALSE(R3DHeader::read(Url::fromPath(locked)));
    }
}
