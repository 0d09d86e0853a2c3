// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/R3DHeader.hpp"
#include "TestSupport.hpp"
#include "engine/media/R3DTestFiles.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <limits>
#include <random>
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

std::vector<std::uint8_t> prefix(std::vector<std::uint8_t> bytes, std::size_t count) {
    bytes.resize(std::min(bytes.size(), count));
    return bytes;
}

// Just enough records to count as a header, with a recording rate so that the result is not
// dropped; tests add the records they are about behind it.
// Its eight records of eight bytes each fill offsets 64 to 128.
R3DHeaderBuilder minimalHeader() {
    return R3DHeaderBuilder().float32(r3dtag::kRecordFrameRate, 25).filler(7);
}
static_assert(R3DHeaderBuilder::kRecordsOffset == 64);

std::vector<std::uint8_t> textBytes(std::string_view s) {
    return {s.begin(), s.end()};
}

} // namespace

TEST(R3DHeader, ReadsEveryFieldOfATypicalHeader) {
    TempDir tmp;
    const auto path =
        typicalR3DHeader("A001_C001_0101AB.WAV", "A001_C001_0101AB_001.R3D").write(tmp / "a.R3D");
    const auto meta = R3DHeader::read(Url::fromPath(path));
    ASSERT_TRUE(meta);
    ASSERT_TRUE(meta->recordFrameRate);
    EXPECT_EQ(*meta->recordFrameRate, static_cast<double>(23.976f));
    ASSERT_TRUE(meta->timeBase);
    EXPECT_NEAR(*meta->timeBase, 23.976, 0.0005);
    EXPECT_EQ(*meta->timeBase, 24000.0 / 1001.0);
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
    // Eight records of eight bytes from offset 64 end exactly at 128.
    const auto bytes = minimalHeader().minimumSize(129).bytes();
    ASSERT_EQ(bytes.size(), 129u);
    EXPECT_TRUE(parse(bytes));
    EXPECT_FALSE(parse(prefix(bytes, 128)));
    EXPECT_FALSE(parse({}));
    EXPECT_FALSE(parse(prefix(bytes, 8)));

    EXPECT_FALSE(parse(minimalHeader().magic("RED1").bytes()));
    EXPECT_FALSE(parse(minimalHeader().magic("red2").bytes()));
    auto shifted = minimalHeader().bytes();
    shifted.insert(shifted.begin(), 0);
    EXPECT_FALSE(parse(shifted)) << "the magic counts only at offset 4";
}

TEST(R3DHeader, TimeBaseNeedsAKnownDenominatorAndAPlausibleRate) {
    auto timeBase = [](std::uint32_t numerator, std::uint16_t denominator) {
        const auto meta = parse(minimalHeader().timeBase(numerator, denominator).bytes());
        EXPECT_TRUE(meta) << numerator << "/" << denominator;
        return meta ? meta->timeBase : std::nullopt;
    };
    EXPECT_NEAR(timeBase(24000, 1001).value_or(0), 23.976, 0.0005);
    EXPECT_EQ(timeBase(25000, 1000), 25.0);
    EXPECT_EQ(timeBase(1001, 1000), 1.001);
    EXPECT_EQ(timeBase(499999, 1000), 499.999);
    EXPECT_FALSE(timeBase(24000, 1002));
    EXPECT_FALSE(timeBase(24, 1));
    EXPECT_FALSE(timeBase(1000, 1000)) << "1.0 itself is not above 1.0";
    EXPECT_FALSE(timeBase(500000, 1000)) << "500.0 itself is not below 500.0";
    EXPECT_FALSE(timeBase(0, 1000));

    const auto noBlock = parse(minimalHeader().withoutRdi().bytes());
    ASSERT_TRUE(noBlock);
    EXPECT_FALSE(noBlock->timeBase);
    EXPECT_FALSE(noBlock->width);
    EXPECT_FALSE(noBlock->height);

    // An "rdi" block that ends with the bytes holds a size but no rate.
    auto cut = minimalHeader().withoutRdi().minimumSize(300).bytes();
    std::copy_n("rdi", 3, cut.begin() + 280);
    const auto width = R3DHeaderBuilder::be32(1920), height = R3DHeaderBuilder::be32(1080);
    std::copy(width.begin(), width.end(), cut.begin() + 288);
    std::copy(height.begin(), height.end(), cut.begin() + 292);
    const auto cutMeta = parse(cut);
    ASSERT_TRUE(cutMeta);
    EXPECT_FALSE(cutMeta->timeBase);
    EXPECT_EQ(cutMeta->width, 1920);
    EXPECT_EQ(cutMeta->height, 1080);

    // An "rdi" beyond the first 512 bytes is chance, not the block.
    auto late = minimalHeader().withoutRdi().minimumSize(700).bytes();
    const auto block = R3DHeaderBuilder().bytes();
    std::copy_n(block.begin() + R3DHeaderBuilder::kRdiOffset, 24, late.begin() + 600);
    const auto lateMeta = parse(late);
    ASSERT_TRUE(lateMeta);
    EXPECT_FALSE(lateMeta->timeBase);
    EXPECT_FALSE(lateMeta->width);
}

TEST(R3DHeader, FrameSizeOutsideItsBoundsDropsBothSides) {
    auto size = [](std::uint32_t width, std::uint32_t height) {
        const auto meta = parse(minimalHeader().frameSize(width, height).bytes());
        EXPECT_TRUE(meta);
        return meta ? std::pair(meta->width, meta->height)
                    : std::pair<std::optional<int>, std::optional<int>>();
    };
    EXPECT_EQ(size(128, 20000), std::pair(std::optional(128), std::optional(20000)));
    EXPECT_EQ(size(20001, 2160), std::pair(std::optional<int>(), std::optional<int>()));
    EXPECT_EQ(size(4096, 127), std::pair(std::optional<int>(), std::optional<int>()));
    EXPECT_EQ(size(0xFFFFFFFF, 1080), std::pair(std::optional<int>(), std::optional<int>()));
    // The rate does not depend on the size.
    EXPECT_TRUE(parse(minimalHeader().frameSize(20001, 2160).bytes())->timeBase);
}

TEST(R3DHeader, RecordsWithoutRateSidecarOrModelGiveNothing) {
    const auto withoutKeys = R3DHeaderBuilder()
                                 .filler(10)
                                 .text(r3dtag::kSensor, "S35")
                                 .text(r3dtag::kEdgeTimecode, "01:00:00:00")
                                 .int32(r3dtag::kAudioSampleRate, 48000);
    EXPECT_FALSE(parse(withoutKeys.bytes()));
    EXPECT_FALSE(parse(R3DHeaderBuilder(withoutKeys).text(r3dtag::kModel, "").bytes()))
        << "an empty text is no model";

    const auto sidecarOnly = parse(R3DHeaderBuilder(withoutKeys).text(r3dtag::kSidecarWAV, "A.WAV").bytes());
    ASSERT_TRUE(sidecarOnly);
    EXPECT_EQ(sidecarOnly->sidecarWAV, "A.WAV");
    EXPECT_EQ(sidecarOnly->sensor, "S35");
    EXPECT_FALSE(sidecarOnly->model);
    EXPECT_FALSE(sidecarOnly->recordFrameRate);

    const auto modelOnly = parse(R3DHeaderBuilder(withoutKeys).text(r3dtag::kModel, "BODY").bytes());
    ASSERT_TRUE(modelOnly);
    EXPECT_EQ(modelOnly->model, "BODY");
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

    // A rate that is not a finite number is no rate; a short integer is no integer.
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity()}) {
        const auto meta = parse(
            minimalHeader().text(r3dtag::kModel, "BODY").float32(r3dtag::kRecordFrameRate, bad).bytes());
        ASSERT_TRUE(meta);
        EXPECT_FALSE(meta->recordFrameRate);
    }
    const auto shortPayloads =
        parse(minimalHeader()
                  .text(r3dtag::kModel, "BODY")
                  .int32(r3dtag::kAudioSampleRate, 48000)
                  .record(r3dtype::kInt, r3dtag::kAudioSampleRate, {0xBB, 0x80})
                  .record(r3dtype::kFloat, r3dtag::kRecordFrameRate, {0x41, 0xC8, 0x00})
                  .bytes());
    ASSERT_TRUE(shortPayloads);
    EXPECT_FALSE(shortPayloads->audioSampleRate);
    EXPECT_FALSE(shortPayloads->recordFrameRate);
}

TEST(R3DHeader, ReelJoinsBothHalvesOnlyWhenBothAreThere) {
    auto reel = [](R3DHeaderBuilder b) { return parse(b.bytes()).value().reel; };
    EXPECT_EQ(reel(minimalHeader().text(r3dtag::kReelFirst, "A001").text(r3dtag::kReelSecond, "_0101AB")),
              "A001_0101AB");
    EXPECT_EQ(reel(minimalHeader().text(r3dtag::kReelSecond, "_0101AB").text(r3dtag::kReelFirst, "A001")),
              "A001_0101AB")
        << "the halves join in tag order, not record order";
    EXPECT_FALSE(reel(minimalHeader().text(r3dtag::kReelFirst, "A001")));
    EXPECT_FALSE(reel(minimalHeader().text(r3dtag::kReelSecond, "_0101AB")));
    EXPECT_FALSE(reel(minimalHeader().text(r3dtag::kReelFirst, "A001").text(r3dtag::kReelSecond, "")));
    EXPECT_FALSE(reel(minimalHeader()
                          .text(r3dtag::kReelFirst, "A001")
                          .text(r3dtag::kReelSecond, "_0101AB")
                          .int32(r3dtag::kReelFirst, 1)));
}

TEST(R3DHeader, TextEndsAtItsFirstZeroAndInvalidUTF8IsRepaired) {
    auto model = [](std::vector<std::uint8_t> payload) {
        return parse(minimalHeader().record(r3dtype::kText, r3dtag::kModel, payload).bytes()).value().model;
    };
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(model({'A', 'B', 0, 'C', 'D'}), "AB");
    EXPECT_EQ(model(textBytes("NO ZERO")), "NO ZERO");
    EXPECT_FALSE(model({0, 'A', 'B'}));
    EXPECT_FALSE(model({}));
    EXPECT_EQ(model(textBytes("caf\xC3\xA9 \xF0\x9F\x8E\xA5")), "caf\xC3\xA9 \xF0\x9F\x8E\xA5");
    EXPECT_EQ(model(textBytes("A\xFF"
                              "B")),
              "A" + fffd + "B");
    EXPECT_EQ(model(textBytes("A\xE2\x82")), "A" + fffd) << "a sequence cut by the end";
    EXPECT_EQ(model(textBytes("\xE2\x82"
                              "A")),
              fffd + "A")
        << "a sequence cut by a plain character";
    EXPECT_EQ(model({'A', 0xE2, 0x82, 0, 0xAC}), "A" + fffd) << "a sequence cut by the zero";
    EXPECT_EQ(model(textBytes("\xC0\xAF")), fffd + fffd) << "an overlong form";
    EXPECT_EQ(model(textBytes("\xED\xA0\x80")), fffd + fffd + fffd) << "a surrogate";
    EXPECT_EQ(model(textBytes("\xF4\x90\x80\x80")), fffd + fffd + fffd + fffd) << "above U+10FFFF";
    EXPECT_EQ(model(textBytes("\x80")), fffd);
}

TEST(R3DHeader, RecordsNeedEightInARowAndTheLongestRunWins) {
    EXPECT_FALSE(parse(R3DHeaderBuilder().text(r3dtag::kModel, "BODY").filler(6).bytes()));
    EXPECT_EQ(parse(R3DHeaderBuilder().text(r3dtag::kModel, "BODY").filler(7).bytes()).value().model, "BODY");
    EXPECT_EQ(
        parse(R3DHeaderBuilder().recordsAt(301).text(r3dtag::kModel, "BODY").filler(7).bytes()).value().model,
        "BODY")
        << "records may start anywhere from 64 on";
    EXPECT_FALSE(parse(
        R3DHeaderBuilder().recordsAt(512).minimumSize(1024).text(r3dtag::kModel, "BODY").filler(7).bytes()))
        << "but not from 512 on";

    // Two runs parted by a zero size: the longer one is read, the earlier one on a tie.
    auto twoRuns = [](int firstFillers, int secondFillers) {
        R3DHeaderBuilder b;
        b.text(r3dtag::kModel, "EARLY").filler(firstFillers).raw({0, 0, 0, 0});
        b.text(r3dtag::kModel, "LATE").filler(secondFillers);
        return parse(b.bytes()).value().model;
    };
    EXPECT_EQ(twoRuns(8, 9), "LATE");
    EXPECT_EQ(twoRuns(9, 8), "EARLY");
    EXPECT_EQ(twoRuns(8, 8), "EARLY");

    // A record that claims more bytes than there are ends the walk before it.
    const auto lying = parse(minimalHeader()
                                 .raw({0xFF, 0xFF, r3dtype::kText, r3dtag::kModel})
                                 .text(r3dtag::kSensor, "S35")
                                 .bytes());
    ASSERT_TRUE(lying);
    EXPECT_FALSE(lying->model);
    EXPECT_FALSE(lying->sensor);
    EXPECT_EQ(lying->recordFrameRate, 25.0);
    // A size below four ends it as well.
    const auto tiny = parse(minimalHeader()
                                .raw({0x00, 0x03, r3dtype::kText, r3dtag::kModel})
                                .text(r3dtag::kSensor, "S35")
                                .bytes());
    ASSERT_TRUE(tiny);
    EXPECT_FALSE(tiny->sensor);
    // A record of four bytes has an empty payload and is a record all the same.
    const auto empty = parse(R3DHeaderBuilder()
                                 .text(r3dtag::kModel, "BODY")
                                 .record(r3dtype::kText, r3dtag::kSensor, {})
                                 .filler(6)
                                 .bytes());
    ASSERT_TRUE(empty);
    EXPECT_FALSE(empty->sensor);
}

TEST(R3DHeader, TruncatedFilesAndRandomBytesGiveNothingWithoutCrashing) {
    // The model is the ninth record: cut inside it, only the rate stays; cut before the eighth
    // record ends, too few records are left to count.
    const auto bytes = minimalHeader().recordsAt(100).text(r3dtag::kModel, "BODY").minimumSize(0).bytes();
    const std::size_t modelStart = 100 + 8 * 8;
    ASSERT_EQ(bytes.size(), modelStart + 12);
    EXPECT_EQ(parse(bytes).value().model, "BODY");
    for (std::size_t n = modelStart; n < bytes.size(); ++n) {
        const auto meta = parse(prefix(bytes, n));
        ASSERT_TRUE(meta) << n;
        EXPECT_FALSE(meta->model) << n;
    }
    for (std::size_t n = 0; n < modelStart; ++n)
        EXPECT_FALSE(parse(prefix(bytes, n))) << n;

    TempDir tmp;
    const auto typical = typicalR3DHeader().bytes();
    for (std::size_t n = 0; n <= typical.size(); ++n) {
        const auto meta = parse(prefix(typical, n));
        if (n <= 128) {
            EXPECT_FALSE(meta) << n;
        }
        std::ofstream(tmp / "cut.R3D", std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(typical.data()), static_cast<std::streamsize>(n));
        EXPECT_EQ(R3DHeader::read(Url::fromPath(tmp / "cut.R3D")), meta) << n;
    }

    std::mt19937 random(20240501);
    for (int i = 0; i < 300; ++i) {
        std::vector<std::uint8_t> noise(random() % 20000);
        for (auto& b : noise)
            b = static_cast<std::uint8_t>(random());
        // Half of them with the magic, so that the record walk runs over the noise.
        if (i % 2 == 0 && noise.size() >= 8) std::copy_n("RED2", 4, noise.begin() + 4);
        const auto meta = parse(noise);
        if (!meta) continue;
        EXPECT_TRUE(meta->recordFrameRate || meta->sidecarWAV || meta->model);
        if (meta->recordFrameRate) {
            EXPECT_TRUE(std::isfinite(*meta->recordFrameRate));
        }
        if (meta->model) {
            EXPECT_FALSE(meta->model->empty());
        }
    }
}

TEST(R3DHeader, ReadsOnlyTheFirstSixteenKiB) {
    // A model record that ends one byte past 16 KiB is cut off by the read; one that ends at
    // 16 KiB exactly is whole.
    auto withModelEndingAt = [](std::size_t end) {
        const std::size_t start = 64 + 8 * 8;
        std::vector<std::uint8_t> payload(end - start - 4, 'M');
        payload.back() = 0;
        return minimalHeader()
            .record(r3dtype::kText, r3dtag::kModel, payload)
            .minimumSize(end + 4096)
            .bytes();
    };
    TempDir tmp;
    const auto fits = withModelEndingAt(R3DHeader::kMaxHeaderBytes);
    const auto spills = withModelEndingAt(R3DHeader::kMaxHeaderBytes + 1);
    EXPECT_TRUE(parse(fits).value().model);
    EXPECT_FALSE(parse(spills).value().model);

    auto writeTo = [&](const std::string& name, const std::vector<std::uint8_t>& b) {
        const auto p = tmp / name;
        std::ofstream(p, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
        return Url::fromPath(p);
    };
    EXPECT_TRUE(R3DHeader::read(writeTo("fits.R3D", fits)).value().model);
    EXPECT_FALSE(R3DHeader::read(writeTo("spills.R3D", spills)).value().model);

    // A 1 GiB chunk (sparse where the file system allows) is read as quickly as its header.
    const auto huge = typicalR3DHeader().write(tmp / "huge.R3D");
    std::error_code ec;
    std::filesystem::resize_file(huge, std::uintmax_t{1} << 30, ec);
    if (ec) GTEST_SKIP() << "can't make a large file here: " << ec.message();
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(R3DHeader::read(Url::fromPath(huge)), parse(typicalR3DHeader().bytes()));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
}

TEST(R3DHeader, UnreadablePathsGiveNothing) {
    TempDir tmp;
    EXPECT_FALSE(R3DHeader::read(Url::fromPath(tmp / "missing.R3D")));
    EXPECT_FALSE(R3DHeader::read(Url::fromPath(tmp.dir("folder.R3D"))));
    EXPECT_FALSE(R3DHeader::read(Url()));
    const auto locked = typicalR3DHeader().write(tmp / "locked.R3D");
    std::filesystem::permissions(locked, std::filesystem::perms::none);
    // Permissions don't bind the superuser.
    if (::geteuid() != 0) {
        EXPECT_FALSE(R3DHeader::read(Url::fromPath(locked)));
    }
}
