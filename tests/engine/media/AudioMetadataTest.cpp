// SPDX-License-Identifier: GPL-3.0-or-later
// The readers of media facts and clocks. Hostile WAVE bytes are left to fuzz/RiffFuzz.cpp.
#include "TrelvaneEngine/media/AudioMetadata.hpp"
#include "MediaSupport.hpp"
#include "TrelvaneEngine/media/RiffReader.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace trelvane;
using trelvane::test::ffmpeg;
using trelvane::test::localDate;
using trelvane::test::quoted;
using trelvane::test::sineInput;
using trelvane::test::TempDir;
namespace AM = trelvane::AudioMetadata;

namespace {

Url url(const std::filesystem::path& p) {
    return Url::fromPath(p);
}

Date utc(int y, int mo, int d, int h, int mi, int s, int ms = 0) {
    using namespace std::chrono;
    return Date(
        sys_days(year_month_day{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}}) +
        hours(h) + minutes(mi) + seconds(s) + milliseconds(ms));
}

const std::string kCameraXml =
    "<?xml version=\"1.0\"?><NonRealTimeMeta lastUpdate=\"2024-03-15T14:30:12+09:00\"><LtcChangeTable "
    "tcFps=\"25\">"
    "<LtcChange frameCount=\"0\" value=\"12563401\"/></LtcChangeTable><Device manufacturer=\"Sony\" "
    "modelName=\"ILCE-7SM3\"/></NonRealTimeMeta>";

// An ISO media box: 32-bit size, type, contents.
std::string box(const std::string& type, const std::string& payload) {
    const auto size = static_cast<std::uint32_t>(8 + payload.size());
    std::string b;
    for (int i = 3; i >= 0; --i)
        b.push_back(static_cast<char>((size >> (8 * i)) & 0xFF));
    return b + type + payload;
}

// A WAV made by ffmpeg with a bext chunk. ffmpeg also stamps its own name into LIST/INFO.
void bextWav(const std::filesystem::path& path, const std::string& date, const std::string& time,
             std::uint64_t timeReference, const std::string& originator) {
    ffmpeg(sineInput(1.0) + " -c:a pcm_s16le -write_bext 1 -metadata originator=" + quoted(originator) +
           " -metadata origination_date=" + date + " -metadata origination_time=" + time +
           " -metadata time_reference=" + std::to_string(timeReference) + " " + quoted(path.string()));
}

std::string movie(const std::string& picture, const std::string& rest, const std::filesystem::path& out) {
    ffmpeg("-f lavfi -i testsrc=size=" + picture + ":duration=" + rest + " " + quoted(out.string()));
    return out.string();
}

// Media every group below reads, made once: encoding them is the slow part of these tests.
struct Media {
    TempDir tmp;
    std::filesystem::path stamped = tmp / "stamped.wav", plain = tmp / "plain.wav", cam = tmp / "cam.mp4",
                          xml = tmp / "C0001.MP4", mute = tmp / "mute.mov", multi = tmp / "multi.mov";
    Media() {
        // 172,800,000 samples at 48 kHz: one hour after midnight. The name is cleaned when read.
        bextWav(stamped, "2024-03-15", "14:30:12", 172800000, "  ZOOM\tF8 ");
        ffmpeg(sineInput(1.0) + " " + quoted(plain.string()));
        movie("160x120:rate=25",
              "1 " + sineInput(1.0) +
                  " -c:v libx264 -preset ultrafast -c:a aac -shortest -metadata "
                  "creation_time=2024-03-15T14:30:12Z",
              cam);
        // Where the camera puts its XML: a top-level "meta" box (full box: version and flags first).
        std::filesystem::copy_file(cam, xml);
        std::ofstream(xml, std::ios::binary | std::ios::app) << box(
            "meta", std::string(4, '\0') + box("hdlr", std::string(24, '\0')) + box("xml ", kCameraXml));
        movie("160x120:rate=24", "2 -c:v libx264 -preset ultrafast", mute);
        movie(
            "320x240:rate=30000/1001",
            "2 " + sineInput(2.0) + " -f lavfi -i " +
                quoted("aevalsrc=sin(440*2*PI*t)|sin(330*2*PI*t):s=48000:d=2") +
                " -map 0 -map 1 -map 2 -timecode 10:00:10\\;12 -c:v libx264 -preset ultrafast -c:a pcm_s16le",
            multi);
    }
};

const Media& media() {
    static const Media m;
    return m;
}

// ---- hand-made RIFF bytes, for layouts no tool here writes ----

std::string le(std::uint64_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i)
        s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    return s;
}

std::string chunk(const std::string& id, const std::string& payload, std::optional<std::uint32_t> size = {}) {
    return id + le(size.value_or(static_cast<std::uint32_t>(payload.size())), 4) + payload +
           (payload.size() % 2 ? std::string(1, '\0') : "");
}

std::string fmtChunk(int channels) {
    return chunk("fmt ", le(1, 2) + le(static_cast<std::uint64_t>(channels), 2) + le(48000, 4) +
                             le(48000u * 2u * static_cast<std::uint32_t>(channels), 4) +
                             le(2 * static_cast<std::uint64_t>(channels), 2) + le(16, 2));
}

std::string riff(const std::string& chunks, const std::string& magic = "RIFF") {
    return magic + le(4 + chunks.size(), 4) + "WAVE" + chunks;
}

std::vector<std::uint8_t> bytesOf(const std::string& s) {
    return {s.begin(), s.end()};
}

} // namespace

// ---- recording clock ---------------------------------------------------------------------------

TEST(RecordingClock, EachSourceOfTheDateIsTakenInItsOrder) {
    const auto& m = media();
    TempDir tmp;
    const auto copy = [&](const std::filesystem::path& from, const std::string& name) {
        std::filesystem::copy_file(from, tmp / name);
        return tmp / name;
    };
    const Date written = utc(2023, 7, 1, 9, 0, 0);
    const auto stamp = localDate(2024, 3, 15, 14, 30, 12);
    const auto bin = copy(m.stamped, "ZOOM0001.bin"), plain = copy(m.plain, "take.wav");
    for (const auto& p : {bin, plain})
        std::filesystem::last_write_time(p, std::chrono::file_clock::from_sys(written));
    const std::tuple<std::filesystem::path, ClockQuality, std::optional<Date>> cases[] = {
        {copy(m.stamped, "take.WAVE"), ClockQuality::embedded, stamp},
        // The same stamp in a file whose extension isn't a WAV's is not looked for, and the WAV's
        // "creation_time", a time of day without a date, is no asset date.
        {bin, ClockQuality::filesystem, written},
        {copy(m.stamped, "CLIP_20200101_000000.wav"), ClockQuality::embedded, stamp},
        {copy(m.plain, "CLIP_20240315_143012.wav"), ClockQuality::filename, stamp},
        {plain, ClockQuality::filesystem, written},
        {m.cam, ClockQuality::asset, utc(2024, 3, 15, 14, 30, 12)},
        // The camera's XML beats the container's date.
        {m.xml, ClockQuality::embedded, utc(2024, 3, 15, 5, 30, 12)},
        {tmp / "CLIP_gone.wav", ClockQuality::none, std::nullopt},
        // The name alone still dates a vanished file: it needs nothing from the disk.
        {tmp / "CLIP_20240315_143012.WAV", ClockQuality::filename, stamp},
    };
    for (const auto& [file, quality, date] : cases)
        EXPECT_EQ(AM::readRecordingClock(url(file)), (AM::RecordingClock{date, quality})) << file.filename();
}

TEST(RecordingClock, RecorderClocksAreReadAsTheMachinesLocalTime) {
    {
        // UTC+3 (POSIX zone strings count west of Greenwich as positive).
        const trelvane::test::ScopedEnv zone("TZ", "TRV-3");
        ::tzset();
        EXPECT_EQ(AM::readBWFOriginationDate(url(media().stamped)), utc(2024, 3, 15, 11, 30, 12));
        EXPECT_EQ(AM::dateFromFilename("CLIP_20240315_143012.wav"), utc(2024, 3, 15, 11, 30, 12));
        EXPECT_EQ(AM::parseISO8601Date("2024-03-15T14:30:12"), utc(2024, 3, 15, 11, 30, 12));
    }
    ::tzset();
}

TEST(DateParsing, BroadcastWavFieldsTakeAnySeparatorAndRefuseNonsense) {
    // The date and time fields, parted by "|".
    const auto parse = [](std::string_view s) {
        const auto bar = s.find('|');
        return AM::parseBWFDate(s.substr(0, bar), s.substr(bar + 1));
    };
    for (const char* good : {"2024:03:15|14-30-12", "2024_03_15|14.30.12", "2024 03 15|14 30 12"})
        EXPECT_EQ(parse(good), localDate(2024, 3, 15, 14, 30, 12)) << good;
    for (const char* bad :
         {"|", "2024-03-15|", "2023-02-29|00:00:00", "2024-13-01|00:00:00", "2024-03-32|00:00:00",
          "2024-03-15|24:00:00", "2024-03-15|12:00:60", "2024-03-1x|14:30:12", "0000-00-00|00:00:00"})
        EXPECT_FALSE(parse(bad)) << bad;
}

TEST(DateParsing, IsoDatesKeepTheirZoneAndRefuseNonsense) {
    const std::pair<const char*, Date> cases[] = {
        {"2014-08-21T10:57:01+09:00", utc(2014, 8, 21, 1, 57, 1)},
        {"2014-08-21T10:57:01-0230", utc(2014, 8, 21, 13, 27, 1)},
        {"2014-08-21T10:57:01+02", utc(2014, 8, 21, 8, 57, 1)},
        {"2025-06-14T19:30:07.200000Z", utc(2025, 6, 14, 19, 30, 7, 200)},
        {"2014-08-21T10:57:01", localDate(2014, 8, 21, 10, 57, 1)}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(AM::parseISO8601Date(text), expected) << text;
    for (const char* bad : {"", "19:30:01", "2014-08-21", "2014-08-21T10:57", "2014-08-21T10:57:01+9",
                            "2014-08-21T10:57:01Zjunk", "2014-08-21T10:57:01.", "2014-02-30T10:57:01Z",
                            "2014/08/21T10:57:01Z", "2014-08-21T10:57:01+24:00"})
        EXPECT_FALSE(AM::parseISO8601Date(bad)) << bad;
}

TEST(DateParsing, FileNameDateMustEndTheName) {
    for (const char* name : {"CLIP_20240315_143012", "20240315_143012", "x920240315_143012.MP4"})
        EXPECT_EQ(AM::dateFromFilename(name), localDate(2024, 3, 15, 14, 30, 12)) << name;
    for (const char* name :
         {"CLIP_20240315_143012_2.wav", "CLIP_20240315-143012.wav", "CLIP_2024031_143012.wav",
          "CLIP_20241315_143012.wav", "CLIP_20240315_246012.wav", ""})
        EXPECT_FALSE(AM::dateFromFilename(name)) << name;
}

// ---- camera XML ----------------------------------------------------------------------------------

TEST(CameraXml, EmbeddedXmlGivesClockTimecodeAndDeviceWhereverTheBoxWalkFindsIt) {
    const auto mp4 = url(media().xml);
    // 01:34:56:12 at 25 fps, first in the timecode chain for a movie without a timecode track.
    EXPECT_EQ(AM::readTimecode(mp4), 3600 + 34 * 60 + 56 + 12.0 / 25);
    EXPECT_EQ(AM::readDeviceInfo(mp4), "Sony ILCE-7SM3");
    EXPECT_EQ(AM::readVideoSize(mp4), (AM::VideoSize{160, 120})) << "the container still reads as before";

    TempDir tmp;
    const std::string head = box("ftyp", "isom");
    const std::pair<std::string, std::optional<Date>> cases[] = {
        {head + box("meta", kCameraXml), utc(2024, 3, 15, 5, 30, 12)},
        // Inside "moov"'s "udta" it is found as well.
        {head + box("mdat", std::string(64, '\0')) +
             box("moov", box("mvhd", std::string(100, '\0')) + box("udta", box("xml ", kCameraXml))),
         utc(2024, 3, 15, 5, 30, 12)},
        // A box far larger than any XML is not read; a file that is no ISO media file is not walked.
        {head + box("meta", kCameraXml + std::string(5 << 20, ' ')), std::nullopt},
        {kCameraXml, std::nullopt}};
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(AM::readSonyXMLDate(url(tmp.file("C" + std::to_string(i) + ".MP4", cases[i].first))),
                  cases[i].second)
            << i;
}

TEST(CameraXml, TimecodeValuesAreCheckedDigitByDigit) {
    const auto withValue = [](const std::string& value, const std::string& table = "tcFps=\"30\"") {
        return "<NonRealTimeMeta><LtcChangeTable " + table + "><LtcChange frameCount=\"0\" value=\"" + value +
               "\"/></LtcChangeTable></NonRealTimeMeta>";
    };
    const std::pair<std::string, std::optional<double>> cases[] = {
        {withValue("00000001"), 3600.0},
        // Drop-frame flag kept, counted on the label clock at 30.
        {withValue("42000001"), 3600.0 + 2.0 / 30},
        // The rate may come from the picture format instead.
        {withValue("24000000", "") + "<VideoFrame formatFps=\"25p\"/>", 24.0 / 25},
        {withValue("0000000A"), {}}, // not BCD
        {"<NonRealTimeMeta/>", {}}};
    for (const auto& [xml, expected] : cases)
        EXPECT_EQ(AM::nrtmTimecodeSeconds(xml), expected) << xml;
}

TEST(CameraXml, SidecarsAndXmlNameTheDevice) {
    TempDir tmp;
    const auto mp4 = tmp / "C0004.MP4";
    std::filesystem::copy_file(media().mute, mp4);
    tmp.file("C0004M01.XML",
             "<NonRealTimeMeta><Device manufacturer=\"Sony\" modelName=\"FX3\"/></NonRealTimeMeta>");
    EXPECT_EQ(AM::readDeviceInfo(url(mp4)), "Sony FX3");
}

// ---- what the file holds ----------------------------------------------------------------------------

// Rate, size, length and timecode of plain files are pinned where `probe` prints them and the
// metadata loading merges them; here, channels of all streams together, a rate of 30000/1001, and
// timecode on the label clock (10:00:10;12 counts 30 labels a second).
TEST(MediaFacts, ContainersTellChannelsOfAllStreamsRateAndTimecode) {
    const auto multi = url(media().multi);
    EXPECT_EQ(AM::readChannelCount(multi), 3);
    EXPECT_EQ(AM::readChannelCount(url(media().mute)), 0);
    EXPECT_NEAR(AM::readFrameRate(multi).value_or(0.0f), 29.97f, 0.001f);
    EXPECT_EQ(AM::readTimecode(multi), 36010.0 + 12.0 / 30);
}

TEST(MediaFacts, BadFilesGiveNothingAndNeverBlock) {
    TempDir tmp;
    std::vector<std::filesystem::path> bad{tmp.dir("folder.wav"), tmp / "missing.mov"};
    // A pipe named like a recording: opening it for reading would wait for a writer forever.
    ASSERT_EQ(::mkfifo((tmp / "pipe.wav").c_str(), 0600), 0);
    bad.push_back(tmp / "pipe.wav");
    // A playlist dressed as a movie must not make the reader open what it lists.
    bad.push_back(tmp.file("list.mp4",
                           "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n" + media().plain.string() + "\n"));
    for (const auto& p : bad) {
        SCOPED_TRACE(p.filename().string());
        const Url u = url(p);
        EXPECT_FALSE(AM::readDuration(u) || AM::readFrameRate(u) || AM::readVideoSize(u) ||
                     AM::readChannelCount(u) || AM::readDeviceInfo(u) || AM::readTimecode(u) ||
                     AM::readBWFOriginationDate(u) || AM::readSonyXMLDate(u) || AM::readAssetCreationDate(u));
        EXPECT_TRUE(AM::readAudioChannelIndices(u, 2).empty());
        // Only the file system's own date is left, where there is a file at all.
        const auto clock = AM::readRecordingClock(u);
        EXPECT_LE(clock.quality, ClockQuality::filesystem);
        EXPECT_EQ(clock.date.has_value(), std::filesystem::exists(p));
    }
}

// ---- the RIFF walk ------------------------------------------------------------------------------------

// Text fields are cleaned when read: control characters and runs of spaces go, bytes that are no
// UTF-8 become the replacement character.
TEST(RiffWalk, TextIsCleaned) {
    EXPECT_EQ(RiffReader::read(url(media().stamped))->bext->originator, "ZOOM F8");
    EXPECT_EQ(RiffReader::validText("a\x01\x02 b\n\n c "), "a b c");
    EXPECT_EQ(RiffReader::validText("caf\xE9"), "caf\xEF\xBF\xBD");
}

TEST(RiffWalk, Rf64SizesComeFromDs64AndTheFileIsReadByItsHeadersAlone) {
    // ds64: RIFF size, data size, sample count, and a table sizing chunks marked 0xFFFFFFFF.
    const std::uint64_t dataSize = 5'000'000'000ull;
    std::string bext(602, '\0');
    bext.replace(256, 17, "Sound Devices 833");
    bext.replace(320, 18, "2024-03-1509:00:00");
    bext.replace(338, 8, le(48000ull * 2 * 3600, 8));
    const auto layout = [&](const std::string& magic, bool tabled) {
        const std::string table = tabled ? le(1, 4) + "bext" + le(bext.size(), 8) : le(0, 4);
        return riff(chunk("ds64", le(0, 8) + le(dataSize, 8) + le(dataSize / 4, 8) + table) + fmtChunk(2) +
                        chunk("odd ", "abc") +
                        chunk("bext", bext, tabled ? 0xFFFFFFFFu : std::optional<std::uint32_t>{}) + "data" +
                        le(0xFFFFFFFFu, 4),
                    magic);
    };
    TempDir tmp;
    const std::string head = layout("RF64", false);
    const auto path = tmp.file("long.wav", head);
    // Sparse: the file system holds no 5 GB for it.
    std::filesystem::resize_file(path, head.size() + dataSize);
    const auto wave = RiffReader::read(url(path));
    ASSERT_TRUE(wave && wave->bext);
    EXPECT_TRUE(wave->is64);
    EXPECT_EQ(wave->dataBytes, dataSize);
    EXPECT_EQ(wave->bext->originator, "Sound Devices 833");
    EXPECT_EQ(wave->bext->timeReference, 48000ull * 2 * 3600);
    // A movie walk over it finds no box and reads nothing more.
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(path)));
    // A bext sized by the table, under the BW64 magic.
    EXPECT_EQ(RiffReader::parse(bytesOf(layout("BW64", true))).value().bext, wave->bext);

    // A writer that forgot the pad byte after an odd chunk is followed all the same.
    EXPECT_TRUE(
        RiffReader::parse(bytesOf(riff(std::string("odd ") + le(3, 4) + "abc" + fmtChunk(1))))->format);
}

TEST(RiffWalk, IxmlTrackListNamesTheRecorderChannels) {
    TempDir tmp;
    // name, channels in the file, the list's (recorder channel, place in the file), expected
    const std::tuple<const char*, int, std::vector<std::pair<int, int>>, std::vector<int>> cases[] = {
        // The second input of a recorder that writes one file per input.
        {"TAKE_Tr2.wav", 1, {{2, 1}}, {1}},
        // Channels 3 and 1 of the recorder, interleaved in that order.
        {"pair.wav", 2, {{1, 2}, {3, 1}}, {2, 0}},
        // A list that maps the file's channels onto themselves says nothing beyond "all of them".
        {"all.wav", 2, {{1, 1}, {2, 2}}, {}},
        // Lists that don't fit the file are not believed.
        {"few.wav", 2, {{4, 1}}, {}},
    };
    for (const auto& [name, channels, tracks, expected] : cases) {
        SCOPED_TRACE(name);
        std::string xml = "<?xml version=\"1.0\"?><BWFXML><TRACK_LIST><TRACK_COUNT>" +
                          std::to_string(tracks.size()) + "</TRACK_COUNT>";
        for (const auto& [channel, place] : tracks)
            xml += "<TRACK><CHANNEL_INDEX>" + std::to_string(channel) + "</CHANNEL_INDEX><INTERLEAVE_INDEX>" +
                   std::to_string(place) + "</INTERLEAVE_INDEX><NAME>Mic</NAME></TRACK>";
        const auto wav = url(
            tmp.file(name, riff(fmtChunk(channels) +
                                chunk("data", std::string(static_cast<std::size_t>(channels) * 9600, '\0')) +
                                chunk("iXML", xml + "</TRACK_LIST></BWFXML>"))));
        EXPECT_EQ(AM::readAudioChannelIndices(wav, channels), expected);
        EXPECT_TRUE(AM::readAudioChannelIndices(wav, 0).empty());
    }
}

// ---- device labels ------------------------------------------------------------------------------

TEST(DeviceLabel, ContainerTagsNameTheDeviceAndAPhonesOwnDateComesFirst) {
    TempDir tmp;
    const auto phone = url(movie("160x120:rate=25",
                                 "1 -c:v libx264 -preset ultrafast -movflags use_metadata_tags -metadata "
                                 "com.apple.quicktime.make=Apple -metadata com.apple.quicktime.model=" +
                                     quoted("iPhone 15 Pro") +
                                     " -metadata com.apple.quicktime.creationdate=2024-03-15T14:30:12+0100 "
                                     "-metadata creation_time=2024-03-15T20:00:00Z",
                                 tmp / "IMG_0001.mov"));
    EXPECT_EQ(AM::readDeviceInfo(phone), "Apple iPhone 15 Pro");
    EXPECT_EQ(AM::readAssetCreationDate(phone), utc(2024, 3, 15, 13, 30, 12));
    // Without any label, the camera setting stands in.
    EXPECT_EQ(AM::readDeviceInfo(url(media().cam)), "cam_h264_160x120_25_aac_48000_1");
}
