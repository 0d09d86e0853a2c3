// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/AudioMetadata.hpp"
#include "MediaSupport.hpp"
#include "TrelvaneEngine/media/RiffReader.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace trelvane;
using namespace std::string_literals;
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
    const auto date =
        sys_days(year_month_day{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}});
    return Date(date + hours(h) + minutes(mi) + seconds(s) + milliseconds(ms));
}

// Runs the body in another time zone, so that local and UTC readings differ.
class ZoneOverride {
  public:
    explicit ZoneOverride(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ZoneOverride() {
        if (old_)
            ::setenv("TZ", old_->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }

  private:
    std::optional<std::string> old_;
};

const std::string kCameraXml =
    R"(<?xml version="1.0" encoding="UTF-8"?>)"
    "\n<NonRealTimeMeta xmlns=\"urn:schemas-professionalDisc:nonRealTimeMeta:ver.2.00\" "
    "lastUpdate=\"2024-03-15T14:30:12+09:00\">"
    "\n<LtcChangeTable tcFps=\"25\" halfStep=\"false\">"
    "\n<LtcChange frameCount=\"0\" value=\"12563401\" status=\"increment\"/>"
    "\n<LtcChange frameCount=\"249\" value=\"11063501\" status=\"end\"/>"
    "\n</LtcChangeTable>"
    "\n<Device manufacturer=\"Sony\" modelName=\"ILCE-7SM3\" serialNo=\"4294967295\"/>"
    "\n</NonRealTimeMeta>\n";

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
             std::uint64_t timeReference, const std::string& originator, const std::string& extra = "") {
    ffmpeg(sineInput(1.0) + " -c:a pcm_s16le -write_bext 1 -metadata originator=" + quoted(originator) +
           " -metadata origination_date=" + date + " -metadata origination_time=" + time +
           " -metadata time_reference=" + std::to_string(timeReference) + " " + extra + " " +
           quoted(path.string()));
}

std::string movie(const std::string& picture, const std::string& rest, const std::filesystem::path& out) {
    ffmpeg("-f lavfi -i testsrc=size=" + picture + ":duration=" + rest + " " + quoted(out.string()));
    return out.string();
}

// Media every group below reads, made once: encoding them is the slow part of these tests.
struct Media {
    TempDir tmp;
    std::filesystem::path stamped = tmp / "stamped.wav", blank = tmp / "blank.wav", plain = tmp / "plain.wav",
                          rf64 = tmp / "rf64.wav", cam = tmp / "cam.mp4", xml = tmp / "C0001.MP4",
                          mute = tmp / "mute.mov", multi = tmp / "multi.mov";
    Media() {
        // 172,800,000 samples at 48 kHz: one hour after midnight. The name is cleaned when read.
        bextWav(stamped, "2024-03-15", "14:30:12", 172800000, "  ZOOM\tF8 ");
        // A recorder with an unset clock leaves the fields empty.
        bextWav(blank, "''", "''", 0, "ZOOM F8");
        bextWav(rf64, "2024-03-15", "23:59:58", 0, "Sound Devices 888", "-rf64 always");
        ffmpeg(sineInput(1.0) + " " + quoted(plain.string()));
        movie("160x120:rate=25",
              "1 " + sineInput(1.0) +
                  " -c:v libx264 -preset ultrafast -c:a aac -shortest "
                  "-metadata creation_time=2024-03-15T14:30:12Z",
              cam);
        // Where the camera puts its XML: a top-level "meta" box (full box: version and flags first).
        std::filesystem::copy_file(cam, xml);
        std::ofstream(xml, std::ios::binary | std::ios::app) << box(
            "meta", std::string(4, '\0') + box("hdlr", std::string(24, '\0')) + box("xml ", kCameraXml));
        movie("160x120:rate=24", "2 -c:v libx264 -preset ultrafast", mute);
        movie("320x240:rate=30000/1001",
              "2 " + sineInput(2.0) + " -f lavfi -i " +
                  quoted("aevalsrc=sin(440*2*PI*t)|sin(330*2*PI*t):s=48000:d=2") +
                  " -map 0 -map 1 -map 2 -timecode 10:00:10\\;12 -c:v libx264 "
                  "-preset ultrafast -c:a pcm_s16le",
              multi);
    }
};

const Media& media() {
    static const Media m;
    return m;
}

void setWritten(const std::filesystem::path& p, Date when) {
    std::filesystem::last_write_time(
        p, std::chrono::file_clock::from_sys(
               std::chrono::time_point_cast<std::chrono::system_clock::duration>(when)));
}

// ---- hand-made RIFF bytes, for layouts no tool here writes ----

std::string le(std::uint64_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i)
        s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    return s;
}

std::string chunk(const std::string& id, const std::string& payload,
                  std::optional<std::uint32_t> sizeField = {}) {
    std::string c = id + le(sizeField.value_or(static_cast<std::uint32_t>(payload.size())), 4) + payload;
    if (payload.size() % 2 == 1) c.push_back('\0');
    return c;
}

std::string fmtPayload(int channels, std::uint32_t rate = 48000, int bits = 16) {
    const int block = channels * bits / 8;
    return le(1, 2) + le(static_cast<std::uint64_t>(channels), 2) + le(rate, 4) +
           le(rate * static_cast<std::uint32_t>(block), 4) + le(static_cast<std::uint64_t>(block), 2) +
           le(static_cast<std::uint64_t>(bits), 2);
}

std::string bextPayload(const std::string& originator, const std::string& date, const std::string& time,
                        std::uint64_t timeReference) {
    std::string b(602, '\0');
    const auto put = [&b](std::size_t at, const std::string& s) { b.replace(at, s.size(), s); };
    put(256, originator);
    put(320, date);
    put(330, time);
    put(338, le(timeReference, 8));
    return b;
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
    const auto bin = copy(m.stamped, "ZOOM0001.bin");
    const auto plain = copy(m.plain, "take.wav");
    setWritten(bin, written);
    setWritten(plain, written);
    const struct {
        std::filesystem::path file;
        ClockQuality quality;
        std::optional<Date> date;
    } cases[] = {
        {copy(m.stamped, "ZOOM0001.WAV"), ClockQuality::embedded, stamp},
        {copy(m.stamped, "take.WAVE"), ClockQuality::embedded, stamp},
        // The same stamp in a file whose extension isn't a WAV's is not looked for.
        {bin, ClockQuality::filesystem, written},
        {copy(m.stamped, "CLIP_20200101_000000.wav"), ClockQuality::embedded, stamp},
        {copy(m.blank, "CLIP_20200101_000001.wav"), ClockQuality::filename, localDate(2020, 1, 1, 0, 0, 1)},
        {copy(m.plain, "CLIP_20240315_143012.wav"), ClockQuality::filename, stamp},
        {plain, ClockQuality::filesystem, written},
        {m.rf64, ClockQuality::embedded, localDate(2024, 3, 15, 23, 59, 58)},
        {m.cam, ClockQuality::asset, utc(2024, 3, 15, 14, 30, 12)},
        // The camera's XML beats the container's date.
        {m.xml, ClockQuality::embedded, utc(2024, 3, 15, 5, 30, 12)},
        {tmp / "CLIP_gone.wav", ClockQuality::none, std::nullopt},
        // The name alone still dates a vanished file: it needs nothing from the disk.
        {tmp / "CLIP_20240315_143012.WAV", ClockQuality::filename, stamp},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file.filename().string());
        EXPECT_EQ(AM::readRecordingClock(url(c.file)), (AM::RecordingClock{c.date, c.quality}));
    }
    EXPECT_EQ(AM::readBWFOriginationDate(url(m.stamped)), stamp);
    EXPECT_FALSE(AM::readBWFOriginationDate(url(m.plain)));
    // A WAV's "creation_time" is a time of day without a date: no asset date.
    EXPECT_FALSE(AM::readAssetCreationDate(url(m.stamped)));
}

TEST(RecordingClock, RecorderClocksAreReadAsTheMachinesLocalTime) {
    TempDir tmp;
    const auto named = tmp / "CLIP_20240315_143012.wav";
    std::filesystem::copy_file(media().plain, named);
    // UTC+3 (POSIX zone strings count west of Greenwich as positive).
    ZoneOverride zone("TRV-3");
    EXPECT_EQ(AM::readBWFOriginationDate(url(media().stamped)), utc(2024, 3, 15, 11, 30, 12));
    EXPECT_EQ(AM::readRecordingClock(url(named)).date, utc(2024, 3, 15, 11, 30, 12));
    EXPECT_EQ(AM::parseISO8601Date("2024-03-15T14:30:12"), utc(2024, 3, 15, 11, 30, 12));
}

TEST(RecordingClock, AFileDateIsTheEndOfTheTakeAndTheStampsAreItsStart) {
    const Date written = utc(2023, 7, 1, 9, 0, 0);
    const auto start = AM::startOfRecording({written, ClockQuality::filesystem}, 90.5);
    EXPECT_EQ(start.quality, ClockQuality::filesystem);
    EXPECT_EQ(start.date, utc(2023, 7, 1, 8, 58, 29, 500));
    // Stamps the device wrote, or read from the name or the container, are already the start.
    for (const auto q : {ClockQuality::asset, ClockQuality::filename, ClockQuality::embedded})
        EXPECT_EQ(AM::startOfRecording({written, q}, 90.5).date, written);
    // Without a length to go back by, the file date is the best there is.
    for (const auto length : {std::optional<double>{}, std::optional<double>{0.0},
                              std::optional<double>{-3.0}, std::optional<double>{std::nan("")}})
        EXPECT_EQ(AM::startOfRecording({written, ClockQuality::filesystem}, length).date, written);
    EXPECT_FALSE(AM::startOfRecording({std::nullopt, ClockQuality::none}, 10.0).date);
}

TEST(DateParsing, BroadcastWavFieldsTakeAnySeparatorAndRefuseNonsense) {
    const auto stamp = localDate(2024, 3, 15, 14, 30, 12);
    const struct {
        const char* date;
        const char* time;
        std::optional<Date> expected;
    } cases[] = {
        {"2024-03-15", "14:30:12", stamp},
        {"2024:03:15", "14-30-12", stamp},
        {"2024_03_15", "14.30.12", stamp},
        {"2024 03 15", "14 30 12", stamp},
        {"2024-02-29", "00:00:00", localDate(2024, 2, 29, 0, 0, 0)},
        {"", "", {}},
        {"2024-03-15", "", {}},
        {"2023-02-29", "00:00:00", {}},
        {"2024-13-01", "00:00:00", {}},
        {"2024-00-10", "00:00:00", {}},
        {"2024-03-32", "00:00:00", {}},
        {"2024-03-15", "24:00:00", {}},
        {"2024-03-15", "12:60:00", {}},
        {"2024-03-15", "12:00:60", {}},
        {"20240315  ", "14:30:12", {}},
        {"2024-03-1x", "14:30:12", {}},
        {"2024-03-15", "143012  ", {}},
        {"0000-00-00", "00:00:00", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.date) + " " + c.time);
        EXPECT_EQ(AM::parseBWFDate(c.date, c.time), c.expected);
    }
}

TEST(DateParsing, IsoDatesKeepTheirZoneAndRefuseNonsense) {
    const struct {
        const char* text;
        std::optional<Date> expected;
    } cases[] = {
        {"2014-08-21T10:57:01+09:00", utc(2014, 8, 21, 1, 57, 1)},
        {"2014-08-21T10:57:01-0230", utc(2014, 8, 21, 13, 27, 1)},
        {"2014-08-21T10:57:01+02", utc(2014, 8, 21, 8, 57, 1)},
        {"2014-08-21 10:57:01.5Z", utc(2014, 8, 21, 10, 57, 1, 500)},
        {"2025-06-14T19:30:07.200000Z", utc(2025, 6, 14, 19, 30, 7, 200)},
        {"2014-08-21T10:57:01", localDate(2014, 8, 21, 10, 57, 1)},
        {"", {}},
        {"19:30:01", {}},
        {"2014-08-21", {}},
        {"2014-08-21T10:57", {}},
        {"2014-08-21T10:57:01+9", {}},
        {"2014-08-21T10:57:01Zjunk", {}},
        {"2014-08-21T10:57:01.", {}},
        {"2014-02-30T10:57:01Z", {}},
        {"2014/08/21T10:57:01Z", {}},
        {"2014-08-21T10:57:01+24:00", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(AM::parseISO8601Date(c.text), c.expected);
    }
}

TEST(DateParsing, FileNameDateMustEndTheName) {
    const auto stamp = localDate(2024, 3, 15, 14, 30, 12);
    const struct {
        const char* name;
        std::optional<Date> expected;
    } cases[] = {
        {"CLIP_20240315_143012", stamp},    {"CLIP_20240315_143012.wav", stamp},
        {"20240315_143012", stamp},         {"x920240315_143012.MP4", stamp},
        {"CLIP_20240315_143012_2.wav", {}}, {"CLIP_20240315-143012.wav", {}},
        {"CLIP_2024031_143012.wav", {}},    {"CLIP_20241315_143012.wav", {}},
        {"CLIP_20240315_246012.wav", {}},   {"", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(AM::dateFromFilename(c.name), c.expected);
    }
}

// ---- camera XML ----------------------------------------------------------------------------------

TEST(CameraXml, EmbeddedXmlGivesClockTimecodeAndDevice) {
    const auto mp4 = url(media().xml);
    EXPECT_EQ(AM::readSonyXMLDate(mp4), utc(2024, 3, 15, 5, 30, 12));
    // 01:34:56:12 at 25 fps.
    ASSERT_TRUE(AM::readSonyNRTMTimecode(mp4));
    EXPECT_DOUBLE_EQ(*AM::readSonyNRTMTimecode(mp4), 3600 + 34 * 60 + 56 + 12.0 / 25);
    EXPECT_EQ(AM::readTimecode(mp4), AM::readSonyNRTMTimecode(mp4));
    EXPECT_EQ(AM::readDeviceInfo(mp4), "Sony ILCE-7SM3");
    // The container still reads as before.
    EXPECT_EQ(AM::readVideoSize(mp4), (AM::VideoSize{160, 120}));

    TempDir tmp;
    // Inside "moov"'s "udta" it is found as well.
    const auto nested = tmp.file("C0002.MP4", box("ftyp", "isom") + box("mdat", std::string(64, '\0')) +
                                                  box("moov", box("mvhd", std::string(100, '\0')) +
                                                                  box("udta", box("xml ", kCameraXml))));
    EXPECT_EQ(AM::readSonyXMLDate(url(nested)), utc(2024, 3, 15, 5, 30, 12));
    // A box far larger than any XML is not read.
    const auto huge =
        tmp.file("C0003.MP4", box("ftyp", "isom") + box("meta", kCameraXml + std::string(5 << 20, ' ')));
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(huge)));
    // An empty lastUpdate is passed over for the next one.
    const auto second =
        tmp.file("C0004.MP4",
                 box("ftyp", "isom") +
                     box("uuid", "<NonRealTimeMeta lastUpdate=\"\"><x lastUpdate=\"2024-01-02T03:04:05Z\"/>"
                                 "</NonRealTimeMeta>"));
    EXPECT_EQ(AM::readSonyXMLDate(url(second)), utc(2024, 1, 2, 3, 4, 5));
    // The XML in a file that is no ISO media file is not looked for.
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(tmp.file("C0005.MP4", kCameraXml))));
}

TEST(CameraXml, TimecodeValuesAreCheckedDigitByDigit) {
    const auto withValue = [](const std::string& value, const std::string& table = "tcFps=\"30\"") {
        return "<NonRealTimeMeta><LtcChangeTable " + table + "><LtcChange frameCount=\"0\" value=\"" + value +
               "\"/></LtcChangeTable></NonRealTimeMeta>";
    };
    const struct {
        std::string xml;
        std::optional<double> expected;
    } cases[] = {
        {kCameraXml, 3600 + 34 * 60 + 56 + 12.0 / 25},
        {withValue("00000001"), 3600.0},
        // Drop-frame flag kept, counted on the label clock at 30.
        {withValue("42000001"), 3600.0 + 2.0 / 30},
        // The rate may come from the picture format instead.
        {withValue("24000000", "") + "<VideoFrame formatFps=\"25p\"/>", 24.0 / 25},
        {withValue("24000000", ""), {}},
        {withValue("0000000A"), {}}, // not BCD
        {withValue("30000000"), {}}, // 30 frames at 30 fps
        {withValue("0000001"), {}},  // seven digits
        {"<NonRealTimeMeta/>", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        const auto seconds = AM::nrtmTimecodeSeconds(c.xml);
        ASSERT_EQ(seconds.has_value(), c.expected.has_value());
        if (seconds) {
            EXPECT_DOUBLE_EQ(*seconds, *c.expected);
        }
    }
}

TEST(CameraXml, SidecarsAndXmlNameTheDevice) {
    TempDir tmp;
    // A sidecar beside the clip, as cameras write them, names the device.
    const auto mp4 = tmp / "C0004.MP4";
    std::filesystem::copy_file(media().mute, mp4);
    tmp.file("C0004M01.XML",
             "<NonRealTimeMeta><Device manufacturer=\"Sony\" modelName=\"FX3\"/></NonRealTimeMeta>");
    EXPECT_EQ(AM::readDeviceInfo(url(mp4)), "Sony FX3");
    EXPECT_EQ(AM::xmlDeviceLabel(
                  "<Clip><Device><Manufacturer>Canon</Manufacturer><ModelName>Canon EOS C70</ModelName>"
                  "</Device></Clip>"),
              "Canon EOS C70");
    EXPECT_EQ(AM::xmlDeviceLabel("<Device manufacturer='A &amp; B' modelName=\"Z\"/>"), "A & B Z");
    EXPECT_FALSE(AM::xmlDeviceLabel("<DeviceList/><Devices manufacturer=\"x\"/>"));
}

// ---- what the file holds ----------------------------------------------------------------------------

TEST(MediaFacts, WavFilesTellLengthAndChannelsAndNoPicture) {
    TempDir tmp;
    const auto six = tmp / "six.wav";
    ffmpeg(sineInput(1.0) + " -ac 6 -c:a pcm_s24le " + quoted(six.string()));
    for (const auto& [wav, channels] : {std::pair{media().plain, 1}, std::pair{six, 6}}) {
        SCOPED_TRACE(channels);
        EXPECT_EQ(AM::readChannelCount(url(wav)), channels);
        ASSERT_TRUE(AM::readDuration(url(wav)));
        EXPECT_NEAR(*AM::readDuration(url(wav)), 1.0, 1e-6);
        EXPECT_FALSE(AM::readFrameRate(url(wav)));
        EXPECT_FALSE(AM::readVideoSize(url(wav)));
        EXPECT_FALSE(AM::readMovieTimecode(url(wav)));
        EXPECT_TRUE(AM::readAudioChannelIndices(url(wav), channels).empty());
        // ffmpeg signs its WAVs in LIST/INFO: software, not a device.
        EXPECT_FALSE(AM::readDeviceInfo(url(wav)));
    }
}

TEST(MediaFacts, MultiStreamMovieSumsItsSoundAndReadsDropFrameTimecode) {
    const auto mov = url(media().multi);
    EXPECT_EQ(AM::readChannelCount(mov), 3);
    ASSERT_TRUE(AM::readFrameRate(mov));
    EXPECT_NEAR(*AM::readFrameRate(mov), 29.97f, 0.001f);
    EXPECT_EQ(AM::readVideoSize(mov), (AM::VideoSize{320, 240}));
    EXPECT_NEAR(*AM::readDuration(mov), 2.0, 0.01);
    // Read on the label clock: 10:00:10;12 counts 30 labels a second.
    ASSERT_TRUE(AM::readMovieTimecode(mov));
    EXPECT_DOUBLE_EQ(*AM::readMovieTimecode(mov), 36010.0 + 12.0 / 30);
    EXPECT_EQ(AM::readTimecode(mov), AM::readMovieTimecode(mov));
}

TEST(MediaFacts, FileWithoutSoundHasNoChannelsButALength) {
    const auto mov = url(media().mute);
    EXPECT_EQ(AM::readChannelCount(mov), 0);
    EXPECT_NEAR(*AM::readDuration(mov), 2.0, 0.05);
    EXPECT_EQ(AM::readFrameRate(mov), 24.0f);
    EXPECT_FALSE(AM::readTimecode(mov));
}

TEST(MediaFacts, BadFilesGiveNothingAndNeverBlock) {
    TempDir tmp;
    std::vector<std::filesystem::path> bad{tmp.dir("folder.wav"), tmp / "missing.mov"};
    // A pipe named like a recording: opening it for reading would wait for a writer forever.
    const auto fifo = tmp / "pipe.wav";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    bad.push_back(fifo);
    // A playlist dressed as a movie must not make the reader open what it lists.
    bad.push_back(tmp.file("list.mp4",
                           "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n" + media().plain.string() + "\n"));
    for (const auto& p : bad) {
        SCOPED_TRACE(p.filename().string());
        const Url u = url(p);
        EXPECT_FALSE(AM::readDuration(u));
        EXPECT_FALSE(AM::readFrameRate(u));
        EXPECT_FALSE(AM::readVideoSize(u));
        EXPECT_FALSE(AM::readChannelCount(u));
        EXPECT_FALSE(AM::readDeviceInfo(u));
        EXPECT_FALSE(AM::readTimecode(u));
        EXPECT_FALSE(AM::readBWFOriginationDate(u));
        EXPECT_FALSE(AM::readSonyXMLDate(u));
        EXPECT_FALSE(AM::readAssetCreationDate(u));
        EXPECT_TRUE(AM::readAudioChannelIndices(u, 2).empty());
        const auto clock = AM::readRecordingClock(u);
        // Only the file system's own date is left, where there is a file at all.
        EXPECT_LE(clock.quality, ClockQuality::filesystem);
        EXPECT_EQ(clock.date.has_value(), std::filesystem::exists(p));
    }
}

// ---- the RIFF walk ------------------------------------------------------------------------------------

TEST(RiffWalk, ParsingBytesEqualsReadingTheFileAndTextIsCleaned) {
    const auto& wav = media().stamped;
    std::ifstream in(wav, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    const auto parsed = RiffReader::parse(bytesOf(bytes));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed, RiffReader::read(url(wav)));
    EXPECT_EQ(parsed->bext->originator, "ZOOM F8");
    EXPECT_EQ(parsed->bext->originationDate, "2024-03-15");
    EXPECT_EQ(parsed->bext->originationTime, "14:30:12");
    EXPECT_EQ(AM::readBWFTimecode(url(wav)), 3600.0);
    EXPECT_EQ(AM::readTimecode(url(wav)), 3600.0);
    EXPECT_EQ(AM::readDeviceInfo(url(wav)), "ZOOM F8");

    EXPECT_EQ(RiffReader::validText("a\x01\x02 b\n\n c "), "a b c");
    EXPECT_EQ(RiffReader::validText("caf\xE9"), "caf\xEF\xBF\xBD");
    EXPECT_EQ(RiffReader::validText("\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(RiffReader::validText("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"); // a surrogate
}

TEST(RiffWalk, Rf64SizesComeFromDs64AndTheFileIsReadByItsHeadersAlone) {
    const auto wav = url(media().rf64);
    const auto written = RiffReader::read(wav);
    ASSERT_TRUE(written);
    EXPECT_TRUE(written->is64);
    EXPECT_EQ(written->dataBytes, 96000u);
    EXPECT_EQ(AM::readDeviceInfo(wav), "Sound Devices 888");
    EXPECT_NEAR(*AM::readDuration(wav), 1.0, 1e-6);

    // ds64: RIFF size, data size, sample count, and a table sizing chunks marked 0xFFFFFFFF.
    TempDir tmp;
    const std::uint64_t dataSize = 5'000'000'000ull;
    const std::string bextBody =
        bextPayload("Sound Devices 833", "2024-03-15", "09:00:00", 48000ull * 2 * 3600);
    const auto layout = [&](const std::string& magic, bool tabled) {
        const std::string table = tabled ? le(1, 4) + "bext" + le(bextBody.size(), 8) : le(0, 4);
        return riff(chunk("ds64", le(0, 8) + le(dataSize, 8) + le(dataSize / 4, 8) + table) +
                        chunk("fmt ", fmtPayload(2)) + chunk("odd ", "abc") +
                        chunk("bext", bextBody, tabled ? 0xFFFFFFFFu : std::optional<std::uint32_t>{}) +
                        "data" + le(0xFFFFFFFFu, 4),
                    magic);
    };
    const std::string head = layout("RF64", false);
    const auto path = tmp.file("long.wav", head);
    // Sparse: the file system holds no 5 GB for it.
    std::filesystem::resize_file(path, head.size() + dataSize);
    const auto wave = RiffReader::read(url(path));
    ASSERT_TRUE(wave);
    EXPECT_EQ(wave->dataBytes, dataSize);
    EXPECT_EQ(AM::readBWFOriginationDate(url(path)), localDate(2024, 3, 15, 9, 0, 0));
    EXPECT_EQ(AM::readBWFTimecode(url(path)), 7200.0);
    EXPECT_EQ(AM::readDeviceInfo(url(path)), "Sound Devices 833");
    EXPECT_EQ(AM::readChannelCount(url(path)), 2);
    ASSERT_TRUE(AM::readDuration(url(path)));
    EXPECT_NEAR(*AM::readDuration(url(path)), dataSize / 4.0 / 48000.0, 0.01);
    // A movie walk over it finds no box and reads nothing more.
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(path)));

    // A bext sized by the table, under the BW64 magic.
    const auto parsed = RiffReader::parse(bytesOf(layout("BW64", true)));
    ASSERT_TRUE(parsed);
    EXPECT_TRUE(parsed->is64);
    EXPECT_EQ(parsed->bext, wave->bext);

    // A writer that forgot the pad byte after an odd chunk is followed all the same.
    const std::string unpadded = riff(std::string("odd ") + le(3, 4) + "abc" + chunk("fmt ", fmtPayload(1)));
    EXPECT_TRUE(RiffReader::parse(bytesOf(unpadded))->format);
}

// ---- channels --------------------------------------------------------------------------------------

TEST(ChannelIndices, IxmlTrackListNamesTheRecorderChannels) {
    TempDir tmp;
    const struct {
        const char* name;
        int channels;
        std::vector<std::pair<int, int>> tracks; // recorder channel, place in the file
        std::vector<int> expected;
    } cases[] = {
        // The second input of a recorder that writes one file per input.
        {"TAKE_Tr2.wav", 1, {{2, 1}}, {1}},
        // Channels 3 and 1 of the recorder, interleaved in that order.
        {"pair.wav", 2, {{1, 2}, {3, 1}}, {2, 0}},
        // A list that maps the file's channels onto themselves says nothing beyond "all of them".
        {"all.wav", 2, {{1, 1}, {2, 2}}, {}},
        // Lists that don't fit the file are not believed.
        {"few.wav", 2, {{4, 1}}, {}},
        {"twice.wav", 2, {{4, 1}, {5, 1}}, {}},
        {"zero.wav", 1, {{0, 1}}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string xml = "<?xml version=\"1.0\"?><BWFXML><TRACK_LIST><TRACK_COUNT>" +
                          std::to_string(c.tracks.size()) + "</TRACK_COUNT>";
        for (const auto& [channel, interleave] : c.tracks)
            xml += "<TRACK><CHANNEL_INDEX>" + std::to_string(channel) + "</CHANNEL_INDEX><INTERLEAVE_INDEX>" +
                   std::to_string(interleave) + "</INTERLEAVE_INDEX><NAME>Mic</NAME></TRACK>";
        const auto wav = url(tmp.file(
            c.name, riff(chunk("fmt ", fmtPayload(c.channels)) +
                         chunk("data", std::string(static_cast<std::size_t>(c.channels) * 9600, '\0')) +
                         chunk("iXML", xml + "</TRACK_LIST></BWFXML>"))));
        EXPECT_EQ(AM::readChannelCount(wav), c.channels);
        EXPECT_EQ(AM::readAudioChannelIndices(wav, c.channels), c.expected);
        EXPECT_TRUE(AM::readAudioChannelIndices(wav, 0).empty());
    }
}

// ---- device labels ------------------------------------------------------------------------------

TEST(DeviceLabel, ContainerTagsNameTheDeviceAndAPhonesOwnDateComesFirst) {
    TempDir tmp;
    const auto make = [&](const std::string& name, const std::string& tags) {
        return url(movie("160x120:rate=25", "1 -c:v libx264 -preset ultrafast " + tags, tmp / name));
    };
    EXPECT_EQ(
        AM::readDeviceInfo(make("A.mov", "-metadata make=Canon -metadata model=" + quoted("Canon EOS R5"))),
        "Canon EOS R5");
    const auto phone =
        make("IMG_0001.mov", "-movflags use_metadata_tags -metadata com.apple.quicktime.make=Apple "
                             "-metadata com.apple.quicktime.model=" +
                                 quoted("iPhone 15 Pro") +
                                 " -metadata com.apple.quicktime.creationdate=2024-03-15T14:30:12+0100 "
                                 "-metadata creation_time=2024-03-15T20:00:00Z");
    EXPECT_EQ(AM::readDeviceInfo(phone), "Apple iPhone 15 Pro");
    EXPECT_EQ(AM::readAssetCreationDate(phone), utc(2024, 3, 15, 13, 30, 12));
    // A device's encoder tag counts; an editor's (ffmpeg's own, on every file here) doesn't.
    EXPECT_EQ(AM::readDeviceInfo(make("D.mov", "-metadata:s:v:0 encoder=" + quoted("GoPro AVC encoder"))),
              "GoPro AVC encoder");

    // Without any label, the camera setting stands in: clips of one setting share it, others differ.
    EXPECT_EQ(AM::readDeviceInfo(url(media().cam)), "cam_h264_160x120_25_aac_48000_1");
    const auto other = AM::readDeviceInfo(url(media().multi));
    ASSERT_TRUE(other);
    EXPECT_TRUE(other->starts_with("cam_"));
    EXPECT_NE(other, AM::readDeviceInfo(url(media().cam)));
}
