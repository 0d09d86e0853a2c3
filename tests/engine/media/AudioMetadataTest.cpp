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

// Two different tones in one stereo input.
std::string stereo(double seconds) {
    return "-f lavfi -i " +
           quoted("aevalsrc=sin(440*2*PI*t)|sin(330*2*PI*t):s=48000:d=" + std::to_string(seconds));
}

// A WAV made by ffmpeg with a bext chunk. ffmpeg also stamps its own name into LIST/INFO.
std::filesystem::path bextWav(const TempDir& tmp, const std::string& name, const std::string& date,
                              const std::string& time, std::uint64_t timeReference = 0,
                              const std::string& originator = "ZOOM F8", const std::string& extra = "") {
    const auto path = tmp / name;
    ffmpeg(sineInput(1.0) + " -c:a pcm_s16le -write_bext 1 -metadata originator=" + quoted(originator) +
           " -metadata origination_date=" + date + " -metadata origination_time=" + time +
           " -metadata time_reference=" + std::to_string(timeReference) + " " + extra + " " +
           quoted(path.string()));
    return path;
}

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

// ---- hand-made RIFF bytes ----

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
                        std::uint64_t timeReference, std::size_t size = 602) {
    std::string b(size, '\0');
    const auto put = [&b](std::size_t at, const std::string& s) {
        for (std::size_t i = 0; i < s.size() && at + i < b.size(); ++i)
            b[at + i] = s[i];
    };
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

TEST(RecordingClock, BroadcastWavStampIsTheEmbeddedClock) {
    TempDir tmp;
    const auto wav = bextWav(tmp, "ZOOM0001.WAV", "2024-03-15", "14:30:12");
    EXPECT_EQ(AM::readBWFOriginationDate(url(wav)), localDate(2024, 3, 15, 14, 30, 12));
    const auto clock = AM::readRecordingClock(url(wav));
    EXPECT_EQ(clock.quality, ClockQuality::embedded);
    EXPECT_EQ(clock.date, localDate(2024, 3, 15, 14, 30, 12));

    // The same stamp in a file whose extension isn't a WAV's is not looked for.
    std::filesystem::copy_file(wav, tmp / "ZOOM0001.bin");
    EXPECT_NE(AM::readRecordingClock(url(tmp / "ZOOM0001.bin")).quality, ClockQuality::embedded);

    // "wave" counts as well, in any case.
    std::filesystem::copy_file(wav, tmp / "take.WAVE");
    EXPECT_EQ(AM::readRecordingClock(url(tmp / "take.WAVE")).quality, ClockQuality::embedded);
}

TEST(RecordingClock, RecorderClocksAreReadAsTheMachinesLocalTime) {
    TempDir tmp;
    const auto wav = bextWav(tmp, "a.wav", "2024-03-15", "14:30:12");
    const auto named = tmp / "CLIP_20240315_143012.wav";
    ffmpeg(sineInput(0.5) + " " + quoted(named.string()));
    // UTC+3 (POSIX zone strings count west of Greenwich as positive).
    ZoneOverride zone("TRV-3");
    EXPECT_EQ(AM::readBWFOriginationDate(url(wav)), utc(2024, 3, 15, 11, 30, 12));
    EXPECT_EQ(AM::readRecordingClock(url(named)).date, utc(2024, 3, 15, 11, 30, 12));
    // Dates that carry their own zone keep it.
    EXPECT_EQ(AM::parseISO8601Date("2024-03-15T14:30:12+09:00"), utc(2024, 3, 15, 5, 30, 12));
    EXPECT_EQ(AM::parseISO8601Date("2024-03-15T14:30:12.250Z"), utc(2024, 3, 15, 14, 30, 12, 250));
    EXPECT_EQ(AM::parseISO8601Date("2024-03-15T14:30:12"), utc(2024, 3, 15, 11, 30, 12));
}

TEST(RecordingClock, WavWithoutBextGoesOnToTheFileName) {
    TempDir tmp;
    const auto named = tmp / "CLIP_20240315_143012.wav";
    ffmpeg(sineInput(0.5) + " " + quoted(named.string()));
    EXPECT_FALSE(AM::readBWFOriginationDate(url(named)));
    const auto clock = AM::readRecordingClock(url(named));
    EXPECT_EQ(clock.quality, ClockQuality::filename);
    EXPECT_EQ(clock.date, localDate(2024, 3, 15, 14, 30, 12));

    // Without a date in the name the file's own date stands: its modification time.
    const auto plain = tmp / "take.wav";
    ffmpeg(sineInput(0.5) + " " + quoted(plain.string()));
    const auto mtime =
        std::chrono::file_clock::from_sys(std::chrono::time_point_cast<std::chrono::system_clock::duration>(
            std::chrono::sys_days(std::chrono::year{2023} / 7 / 1) + std::chrono::hours(9)));
    std::filesystem::last_write_time(plain, mtime);
    const auto fromFile = AM::readRecordingClock(url(plain));
    EXPECT_EQ(fromFile.quality, ClockQuality::filesystem);
    EXPECT_EQ(fromFile.date, utc(2023, 7, 1, 9, 0, 0));
}

TEST(RecordingClock, AFileDateIsTheEndOfTheTakeAndTheStampsAreItsStart) {
    const Date written = utc(2023, 7, 1, 9, 0, 0);
    const auto start = AM::startOfRecording({written, ClockQuality::filesystem}, 90.5);
    EXPECT_EQ(start.quality, ClockQuality::filesystem);
    EXPECT_EQ(start.date, utc(2023, 7, 1, 8, 58, 29) + std::chrono::milliseconds(500));
    // Stamps the device wrote, or read from the name or the container, are already the start.
    for (const auto q : {ClockQuality::asset, ClockQuality::filename, ClockQuality::embedded})
        EXPECT_EQ(AM::startOfRecording({written, q}, 90.5).date, written);
    // Without a length to go back by, the file date is the best there is.
    for (const auto length : {std::optional<double>{}, std::optional<double>{0.0},
                              std::optional<double>{-3.0}, std::optional<double>{std::nan("")}})
        EXPECT_EQ(AM::startOfRecording({written, ClockQuality::filesystem}, length).date, written);
    EXPECT_FALSE(AM::startOfRecording({std::nullopt, ClockQuality::none}, 10.0).date);
}

TEST(RecordingClock, BextStampWinsOverTheFileNameAndAnEmptyStampDoesNot) {
    TempDir tmp;
    const auto wav = bextWav(tmp, "CLIP_20200101_000000.wav", "2024-03-15", "14:30:12");
    EXPECT_EQ(AM::readRecordingClock(url(wav)).date, localDate(2024, 3, 15, 14, 30, 12));
    // A recorder with an unset clock leaves the fields empty.
    const auto blank = bextWav(tmp, "CLIP_20200101_000001.wav", "''", "''");
    const auto clock = AM::readRecordingClock(url(blank));
    EXPECT_EQ(clock.quality, ClockQuality::filename);
    EXPECT_EQ(clock.date, localDate(2020, 1, 1, 0, 0, 1));
}

TEST(RecordingClock, Rf64FileCarriesItsBextToo) {
    TempDir tmp;
    const auto wav =
        bextWav(tmp, "long.wav", "2024-03-15", "23:59:58", 0, "Sound Devices 888", "-rf64 always");
    const auto wave = RiffReader::read(url(wav));
    ASSERT_TRUE(wave);
    EXPECT_TRUE(wave->is64);
    ASSERT_TRUE(wave->format);
    EXPECT_EQ(wave->format->sampleRate, 48000u);
    EXPECT_EQ(wave->dataBytes, 96000u);
    EXPECT_EQ(AM::readRecordingClock(url(wav)),
              (AM::RecordingClock{localDate(2024, 3, 15, 23, 59, 58), ClockQuality::embedded}));
    EXPECT_EQ(AM::readDeviceInfo(url(wav)), "Sound Devices 888");
    EXPECT_NEAR(*AM::readDuration(url(wav)), 1.0, 1e-6);
}

TEST(RecordingClock, BextShorterThanItsDateFieldsIsIgnored) {
    TempDir tmp;
    const std::string data = chunk("data", std::string(9600, '\0'));
    // 337 bytes: the time field lacks its last byte.
    const auto shortBext =
        tmp.file("short.wav", riff(chunk("fmt ", fmtPayload(1)) +
                                   chunk("bext", bextPayload("X", "2024-03-15", "14:30:12", 0, 337)) + data));
    EXPECT_FALSE(RiffReader::read(url(shortBext))->bext);
    EXPECT_FALSE(AM::readBWFOriginationDate(url(shortBext)));
    EXPECT_EQ(AM::readRecordingClock(url(shortBext)).quality, ClockQuality::filesystem);
    // Exactly 338 bytes hold both fields but no time reference.
    const auto exact = tmp.file(
        "exact.wav", riff(chunk("fmt ", fmtPayload(1)) +
                          chunk("bext", bextPayload("X", "2024-03-15", "14:30:12", 48000, 338)) + data));
    EXPECT_EQ(AM::readBWFOriginationDate(url(exact)), localDate(2024, 3, 15, 14, 30, 12));
    EXPECT_FALSE(AM::readBWFTimecode(url(exact)));
}

TEST(RecordingClock, MovieCreationDateIsTheAssetClock) {
    TempDir tmp;
    const auto mov = tmp / "A001.mov";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 -c:v libx264 -preset ultrafast "
           "-metadata creation_time=2024-03-15T14:30:12Z " +
           quoted(mov.string()));
    EXPECT_EQ(AM::readAssetCreationDate(url(mov)), utc(2024, 3, 15, 14, 30, 12));
    EXPECT_EQ(AM::readRecordingClock(url(mov)),
              (AM::RecordingClock{utc(2024, 3, 15, 14, 30, 12), ClockQuality::asset}));

    // A phone's own creation date, with its zone, comes first.
    const auto phone = tmp / "IMG_0001.mov";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 -c:v libx264 -preset ultrafast "
           "-movflags use_metadata_tags -metadata com.apple.quicktime.creationdate=2024-03-15T14:30:12+0100 "
           "-metadata creation_time=2024-03-15T20:00:00Z " +
           quoted(phone.string()));
    EXPECT_EQ(AM::readAssetCreationDate(url(phone)), utc(2024, 3, 15, 13, 30, 12));

    // A WAV's "creation_time" is a time of day without a date: no asset date.
    const auto wav = bextWav(tmp, "x.wav", "----------", "14:30:12");
    EXPECT_FALSE(AM::readAssetCreationDate(url(wav)));
    EXPECT_EQ(AM::readRecordingClock(url(wav)).quality, ClockQuality::filesystem);
}

TEST(RecordingClock, FileThatIsGoneHasNoClock) {
    TempDir tmp;
    const auto gone = tmp / "CLIP_gone.wav";
    EXPECT_EQ(AM::readRecordingClock(url(gone)), AM::RecordingClock{});
    // The name alone still dates a vanished file: it needs nothing from the disk.
    EXPECT_EQ(AM::readRecordingClock(url(tmp / "CLIP_20240315_143012.wav")).quality, ClockQuality::filename);
}

TEST(DateParsing, BroadcastWavFieldsTakeAnySeparatorAndRefuseNonsense) {
    const auto expected = localDate(2024, 3, 15, 14, 30, 12);
    EXPECT_EQ(AM::parseBWFDate("2024-03-15", "14:30:12"), expected);
    EXPECT_EQ(AM::parseBWFDate("2024:03:15", "14-30-12"), expected);
    EXPECT_EQ(AM::parseBWFDate("2024_03_15", "14.30.12"), expected);
    EXPECT_EQ(AM::parseBWFDate("2024 03 15", "14 30 12"), expected);
    EXPECT_EQ(AM::parseBWFDate("2024-02-29", "00:00:00"), localDate(2024, 2, 29, 0, 0, 0));
    for (const auto& [date, time] :
         std::vector<std::pair<std::string, std::string>>{{"", ""},
                                                          {"2024-03-15", ""},
                                                          {"2023-02-29", "00:00:00"},
                                                          {"2024-13-01", "00:00:00"},
                                                          {"2024-00-10", "00:00:00"},
                                                          {"2024-03-32", "00:00:00"},
                                                          {"2024-03-15", "24:00:00"},
                                                          {"2024-03-15", "12:60:00"},
                                                          {"2024-03-15", "12:00:60"},
                                                          {"20240315  ", "14:30:12"},
                                                          {"2024-03-1x", "14:30:12"},
                                                          {"2024-03-15", "143012  "},
                                                          {"0000-00-00", "00:00:00"}})
        EXPECT_FALSE(AM::parseBWFDate(date, time)) << date << " " << time;
}

TEST(DateParsing, IsoDatesKeepTheirZoneAndRefuseNonsense) {
    EXPECT_EQ(AM::parseISO8601Date("2014-08-21T10:57:01+09:00"), utc(2014, 8, 21, 1, 57, 1));
    EXPECT_EQ(AM::parseISO8601Date("2014-08-21T10:57:01-0230"), utc(2014, 8, 21, 13, 27, 1));
    EXPECT_EQ(AM::parseISO8601Date("2014-08-21T10:57:01+02"), utc(2014, 8, 21, 8, 57, 1));
    EXPECT_EQ(AM::parseISO8601Date("2014-08-21 10:57:01.5Z"), utc(2014, 8, 21, 10, 57, 1, 500));
    EXPECT_EQ(AM::parseISO8601Date("2025-06-14T19:30:07.200000Z"), utc(2025, 6, 14, 19, 30, 7, 200));
    EXPECT_EQ(AM::parseISO8601Date("2014-08-21T10:57:01"), localDate(2014, 8, 21, 10, 57, 1));
    for (const char* bad : {"", "19:30:01", "2014-08-21", "2014-08-21T10:57", "2014-08-21T10:57:01+9",
                            "2014-08-21T10:57:01Zjunk", "2014-08-21T10:57:01.", "2014-02-30T10:57:01Z",
                            "2014/08/21T10:57:01Z", "2014-08-21T10:57:01+24:00"})
        EXPECT_FALSE(AM::parseISO8601Date(bad)) << bad;
}

TEST(DateParsing, FileNameDateMustEndTheName) {
    const auto expected = localDate(2024, 3, 15, 14, 30, 12);
    EXPECT_EQ(AM::dateFromFilename("CLIP_20240315_143012"), expected);
    EXPECT_EQ(AM::dateFromFilename("CLIP_20240315_143012.wav"), expected);
    EXPECT_EQ(AM::dateFromFilename("20240315_143012"), expected);
    EXPECT_EQ(AM::dateFromFilename("x920240315_143012.MP4"), expected);
    EXPECT_FALSE(AM::dateFromFilename("CLIP_20240315_143012_2.wav"));
    EXPECT_FALSE(AM::dateFromFilename("CLIP_20240315-143012.wav"));
    EXPECT_FALSE(AM::dateFromFilename("CLIP_2024031_143012.wav"));
    EXPECT_FALSE(AM::dateFromFilename("CLIP_20241315_143012.wav"));
    EXPECT_FALSE(AM::dateFromFilename("CLIP_20240315_246012.wav"));
    EXPECT_FALSE(AM::dateFromFilename(""));
}

// ---- camera XML ----------------------------------------------------------------------------------

namespace {

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

void append(const std::filesystem::path& p, const std::string& bytes) {
    std::ofstream(p, std::ios::binary | std::ios::app) << bytes;
}

} // namespace

TEST(CameraXml, EmbeddedXmlGivesClockTimecodeAndDevice) {
    TempDir tmp;
    const auto mp4 = tmp / "C0001.MP4";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 " + sineInput(1.0) +
           " -c:v libx264 -preset ultrafast -c:a aac -shortest " + quoted(mp4.string()));
    // Where the camera puts it: a top-level "meta" box (full box: version and flags first).
    append(mp4,
           box("meta", std::string(4, '\0') + box("hdlr", std::string(24, '\0')) + box("xml ", kCameraXml)));

    ASSERT_TRUE(AM::sonyNonRealTimeMetaXML(url(mp4)));
    EXPECT_EQ(AM::readSonyXMLDate(url(mp4)), utc(2024, 3, 15, 5, 30, 12));
    EXPECT_EQ(AM::readRecordingClock(url(mp4)),
              (AM::RecordingClock{utc(2024, 3, 15, 5, 30, 12), ClockQuality::embedded}));
    // 01:34:56:12 at 25 fps.
    ASSERT_TRUE(AM::readSonyNRTMTimecode(url(mp4)));
    EXPECT_DOUBLE_EQ(*AM::readSonyNRTMTimecode(url(mp4)), 3600 + 34 * 60 + 56 + 12.0 / 25);
    EXPECT_EQ(AM::readTimecode(url(mp4)), AM::readSonyNRTMTimecode(url(mp4)));
    EXPECT_EQ(AM::readDeviceInfo(url(mp4)), "Sony ILCE-7SM3");
    // The container still reads as before.
    EXPECT_EQ(AM::readVideoSize(url(mp4)), (AM::VideoSize{160, 120}));

    EXPECT_EQ(AM::nrtmTimecodeSeconds(kCameraXml), AM::readSonyNRTMTimecode(url(mp4)));

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
}

TEST(CameraXml, TimecodeValuesAreCheckedDigitByDigit) {
    const auto withValue = [](const std::string& value, const std::string& table = "tcFps=\"30\"") {
        return "<NonRealTimeMeta><LtcChangeTable " + table + "><LtcChange frameCount=\"0\" value=\"" + value +
               "\"/></LtcChangeTable></NonRealTimeMeta>";
    };
    EXPECT_EQ(AM::nrtmTimecodeSeconds(withValue("00000001")), 3600.0);
    // Drop-frame flag kept, counted on the label clock at 30.
    EXPECT_DOUBLE_EQ(*AM::nrtmTimecodeSeconds(withValue("42000001")), 3600.0 + 2.0 / 30);
    // The rate may come from the picture format instead.
    EXPECT_DOUBLE_EQ(*AM::nrtmTimecodeSeconds(withValue("24000000", "") + "<VideoFrame formatFps=\"25p\"/>"),
                     24.0 / 25);
    EXPECT_FALSE(AM::nrtmTimecodeSeconds(withValue("24000000", "")));
    EXPECT_FALSE(AM::nrtmTimecodeSeconds(withValue("0000000A"))); // not BCD
    EXPECT_FALSE(AM::nrtmTimecodeSeconds(withValue("30000000"))); // 30 frames at 30 fps
    EXPECT_FALSE(AM::nrtmTimecodeSeconds(withValue("0000001")));  // seven digits
    EXPECT_FALSE(AM::nrtmTimecodeSeconds("<NonRealTimeMeta/>"));
}

TEST(CameraXml, OnlyAnIsoMediaFileIsSearchedAndSidecarsNameTheDevice) {
    TempDir tmp;
    // The XML in a file that is no ISO media file is not looked for.
    const auto text = tmp.file("C0002.MP4", kCameraXml);
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(text)));
    EXPECT_FALSE(AM::readSonyXMLDate(url(text)));
    // A box that claims more than the file holds ends the walk without a read.
    const auto lying =
        tmp.file("C0003.MP4", box("ftyp", "isom") + std::string("\x7f\xff\xff\xff", 4) + "meta" + kCameraXml);
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(lying)));

    // A sidecar beside the clip, as cameras write them, names the device.
    const auto mp4 = tmp / "C0004.MP4";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 -c:v libx264 -preset ultrafast " +
           quoted(mp4.string()));
    EXPECT_TRUE(AM::readDeviceInfo(url(mp4))->starts_with("cam_"));
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
    for (const int channels : {1, 2, 6}) {
        const auto wav = tmp / ("take" + std::to_string(channels) + ".wav");
        ffmpeg(sineInput(2.0) + " -ac " + std::to_string(channels) + " -c:a pcm_s24le " +
               quoted(wav.string()));
        EXPECT_EQ(AM::readChannelCount(url(wav)), channels);
        ASSERT_TRUE(AM::readDuration(url(wav)));
        EXPECT_NEAR(*AM::readDuration(url(wav)), 2.0, 1e-6);
        EXPECT_FALSE(AM::readFrameRate(url(wav)));
        EXPECT_FALSE(AM::readVideoSize(url(wav)));
        EXPECT_FALSE(AM::readMovieTimecode(url(wav)));
        EXPECT_TRUE(AM::readAudioChannelIndices(url(wav), channels).empty());
        // ffmpeg signs its WAVs in LIST/INFO: software, not a device.
        EXPECT_FALSE(AM::readDeviceInfo(url(wav)));
    }
}

TEST(MediaFacts, SilentFileIsReadLikeAnyOther) {
    TempDir tmp;
    const auto wav = tmp / "silence.wav";
    ffmpeg("-f lavfi -i anullsrc=r=48000:cl=stereo -t 3 " + quoted(wav.string()));
    EXPECT_NEAR(*AM::readDuration(url(wav)), 3.0, 1e-6);
    EXPECT_EQ(AM::readChannelCount(url(wav)), 2);
}

TEST(MediaFacts, MultiStreamMovieSumsItsSoundAndReadsDropFrameTimecode) {
    TempDir tmp;
    const auto mov = tmp / "multi.mov";
    ffmpeg("-f lavfi -i testsrc=size=320x240:rate=30000/1001:duration=2 " + sineInput(2.0) + " " +
           stereo(2.0) +
           " -map 0 -map 1 -map 2 -timecode 01:00:00\\;00 -c:v libx264 -preset ultrafast -c:a pcm_s16le " +
           quoted(mov.string()));
    EXPECT_EQ(AM::readChannelCount(url(mov)), 3);
    ASSERT_TRUE(AM::readFrameRate(url(mov)));
    EXPECT_NEAR(*AM::readFrameRate(url(mov)), 29.97f, 0.001f);
    EXPECT_EQ(AM::readVideoSize(url(mov)), (AM::VideoSize{320, 240}));
    EXPECT_NEAR(*AM::readDuration(url(mov)), 2.0, 0.01);
    // Read on the label clock: 01:00:00;00 is 3600 s.
    EXPECT_EQ(AM::readMovieTimecode(url(mov)), 3600.0);
    EXPECT_EQ(AM::readTimecode(url(mov)), 3600.0);
}

TEST(MediaFacts, Mp4TimecodeTrackGivesTheStartTimecode) {
    TempDir tmp;
    const auto mp4 = tmp / "tc.mp4";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 " + sineInput(1.0) +
           " -timecode 10:00:10:12 -c:v libx264 -preset ultrafast -c:a aac -shortest " +
           quoted(mp4.string()));
    EXPECT_DOUBLE_EQ(*AM::readMovieTimecode(url(mp4)), 36010.0 + 12.0 / 25);
    EXPECT_EQ(AM::readTimecode(url(mp4)), AM::readMovieTimecode(url(mp4)));
    EXPECT_EQ(AM::readFrameRate(url(mp4)), 25.0f);
    // The camera setting, not a device name, from ffmpeg-made video.
    const auto label = AM::readDeviceInfo(url(mp4));
    ASSERT_TRUE(label);
    EXPECT_EQ(*label, "cam_h264_160x120_25_aac_48000_1");
}

TEST(MediaFacts, FileWithoutSoundHasNoChannelsButALength) {
    TempDir tmp;
    const auto mov = tmp / "mute.mov";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=24:duration=2 -c:v libx264 -preset ultrafast " +
           quoted(mov.string()));
    EXPECT_EQ(AM::readChannelCount(url(mov)), 0);
    EXPECT_NEAR(*AM::readDuration(url(mov)), 2.0, 0.05);
    EXPECT_EQ(AM::readFrameRate(url(mov)), 24.0f);
    EXPECT_FALSE(AM::readTimecode(url(mov)));
}

TEST(MediaFacts, BadFilesGiveNothingAndNeverBlock) {
    TempDir tmp;
    std::vector<std::filesystem::path> bad{
        tmp.file("empty.wav", ""),
        tmp.file("text.mp4", "this is not a movie\n"),
        tmp.file("header-only.wav", "RIFF\x04\0\0\0WAVE"s),
        tmp.dir("folder.wav"),
        tmp / "missing.mov",
    };
    // A pipe named like a recording: opening it for reading would wait for a writer forever.
    const auto fifo = tmp / "pipe.wav";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    bad.push_back(fifo);
    // A playlist dressed as a movie must not make the reader open what it lists.
    bad.push_back(tmp.file("list.mp4", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n" +
                                           (tmp / "empty.wav").string() + "\n"));

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

TEST(RiffWalk, LyingChunkSizesNeverReachPastTheFile) {
    TempDir tmp;
    const std::string fmt = chunk("fmt ", fmtPayload(2));
    const std::string bext = chunk("bext", bextPayload("Tascam DR-40X", "2024-03-15", "14:30:12", 96000));

    // A data chunk that claims 4 GiB in a file of a few hundred bytes, followed by nothing.
    const auto bigData =
        tmp.file("big-data.wav", riff(fmt + bext + chunk("data", std::string(400, '\x01'), 0xFFFFFFF0u)));
    const auto wave = RiffReader::read(url(bigData));
    ASSERT_TRUE(wave);
    EXPECT_EQ(wave->dataBytes, 400u);
    EXPECT_EQ(wave->bext->originator, "Tascam DR-40X");
    EXPECT_EQ(AM::readBWFOriginationDate(url(bigData)), localDate(2024, 3, 15, 14, 30, 12));
    EXPECT_EQ(AM::readBWFTimecode(url(bigData)), 2.0);
    EXPECT_EQ(AM::readDeviceInfo(url(bigData)), "Tascam DR-40X");
    if (const auto d = AM::readDuration(url(bigData))) {
        EXPECT_TRUE(std::isfinite(*d) && *d > 0);
    }

    // A chunk before bext that claims to run past the end hides everything behind it.
    const auto hiding =
        tmp.file("hiding.wav", riff(fmt + chunk("junk", std::string(16, '\0'), 0x7FFFFFFFu) + bext));
    EXPECT_FALSE(RiffReader::read(url(hiding))->bext);
    EXPECT_EQ(RiffReader::read(url(hiding))->format, (RiffReader::Format{1, 2, 48000, 4, 16}));

    // A fmt chunk too short to hold its fields gives no format, and so no timecode.
    const auto shortFmt = tmp.file("short-fmt.wav", riff(chunk("fmt ", "ab") + bext));
    EXPECT_FALSE(RiffReader::read(url(shortFmt))->format);
    EXPECT_TRUE(RiffReader::read(url(shortFmt))->bext);
    EXPECT_FALSE(AM::readBWFTimecode(url(shortFmt)));

    // A bext cut short by the end of the file still counts for what it holds.
    const std::string whole = riff(fmt + bext);
    const auto cut = tmp.file("cut.wav", whole.substr(0, whole.size() - 200));
    EXPECT_EQ(AM::readBWFOriginationDate(url(cut)), localDate(2024, 3, 15, 14, 30, 12));
    const auto cutEarly = tmp.file("cut-early.wav", whole.substr(0, 12 + fmt.size() + 8 + 330));
    EXPECT_FALSE(AM::readBWFOriginationDate(url(cutEarly)));

    // RF64 without its ds64 can't size a chunk marked 0xFFFFFFFF: the walk stops there.
    const auto noDs64 = tmp.file("no-ds64.wav", riff(fmt + chunk("data", "", 0xFFFFFFFFu) + bext, "RF64"));
    EXPECT_FALSE(RiffReader::read(url(noDs64))->bext);

    // Not a WAVE file at all.
    EXPECT_FALSE(RiffReader::parse(bytesOf("RIFF\x10\0\0\0AVI LIST"s)));
    EXPECT_FALSE(RiffReader::parse(bytesOf("RIFF")));
}

TEST(RiffWalk, Rf64SizesComeFromDs64AndOddChunksArePadded) {
    // ds64: RIFF size, data size, sample count, table of one entry for a 0xFFFFFFFF-sized "bext".
    const std::string bextBody = bextPayload("Recorder", "2024-03-15", "14:30:12", 48000 * 3600);
    const std::string ds64 =
        chunk("ds64", le(0, 8) + le(9600, 8) + le(4800, 8) + le(1, 4) + "bext" + le(bextBody.size(), 8));
    const std::string file =
        riff(ds64 + chunk("fmt ", fmtPayload(1)) + chunk("odd ", "abc") +
                 chunk("bext", bextBody, 0xFFFFFFFFu) + chunk("data", std::string(9600, '\0'), 0xFFFFFFFFu),
             "BW64");
    const auto wave = RiffReader::parse(bytesOf(file));
    ASSERT_TRUE(wave);
    EXPECT_TRUE(wave->is64);
    ASSERT_TRUE(wave->bext);
    EXPECT_EQ(wave->bext->originator, "Recorder");
    EXPECT_EQ(wave->bext->timeReference, 48000u * 3600);
    EXPECT_EQ(wave->dataBytes, 9600u);

    // A writer that forgot the pad byte after an odd chunk is followed all the same.
    const std::string unpadded = riff(std::string("odd ") + le(3, 4) + "abc" + chunk("fmt ", fmtPayload(1)));
    EXPECT_TRUE(RiffReader::parse(bytesOf(unpadded))->format);
}

TEST(RiffWalk, SeveralGigabyteFileIsReadByItsHeadersAlone) {
    TempDir tmp;
    const std::uint64_t dataSize = 5'000'000'000ull;
    const std::string bextBody =
        bextPayload("Sound Devices 833", "2024-03-15", "09:00:00", 48000ull * 2 * 3600);
    const std::string head = riff(chunk("ds64", le(0, 8) + le(dataSize, 8) + le(dataSize / 4, 8) + le(0, 4)) +
                                      chunk("fmt ", fmtPayload(2)) + chunk("bext", bextBody) +
                                      std::string("data") + le(0xFFFFFFFFu, 4),
                                  "RF64");
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

    // A plain RIFF of the same size: a movie walk over it finds no box and reads nothing more.
    EXPECT_FALSE(AM::sonyNonRealTimeMetaXML(url(path)));
}

TEST(RiffWalk, ParsingBytesEqualsReadingTheFileAndTextIsCleaned) {
    TempDir tmp;
    const auto wav = bextWav(tmp, "a.wav", "2024-03-15", "14:30:12", 172800000, "  ZOOM\tF8 ");
    std::ifstream in(wav, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    const auto parsed = RiffReader::parse(bytesOf(bytes));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed, RiffReader::read(url(wav)));
    EXPECT_EQ(parsed->bext->originator, "ZOOM F8");
    EXPECT_EQ(parsed->bext->originationDate, "2024-03-15");
    EXPECT_EQ(parsed->bext->originationTime, "14:30:12");
    EXPECT_EQ(AM::readBWFTimecode(url(wav)), 3600.0);

    EXPECT_EQ(RiffReader::validText("a\x01\x02 b\n\n c "), "a b c");
    EXPECT_EQ(RiffReader::validText("caf\xE9"), "caf\xEF\xBF\xBD");
    EXPECT_EQ(RiffReader::validText("\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(RiffReader::validText("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"); // a surrogate
}

// ---- channels --------------------------------------------------------------------------------------

namespace {

std::string ixml(const std::vector<std::pair<int, int>>& tracks) {
    std::string x = "<?xml version=\"1.0\"?><BWFXML><TRACK_LIST><TRACK_COUNT>" +
                    std::to_string(tracks.size()) + "</TRACK_COUNT>";
    for (const auto& [channel, interleave] : tracks)
        x += "<TRACK><CHANNEL_INDEX>" + std::to_string(channel) + "</CHANNEL_INDEX><INTERLEAVE_INDEX>" +
             std::to_string(interleave) + "</INTERLEAVE_INDEX><NAME>Mic</NAME></TRACK>";
    return x + "</TRACK_LIST></BWFXML>";
}

} // namespace

TEST(ChannelIndices, IxmlTrackListNamesTheRecorderChannels) {
    TempDir tmp;
    const auto wavWith = [&](const std::string& name, int channels, const std::string& xml) {
        return url(
            tmp.file(name, riff(chunk("fmt ", fmtPayload(channels)) +
                                chunk("data", std::string(static_cast<std::size_t>(channels) * 9600, '\0')) +
                                chunk("iXML", xml))));
    };
    // The second input of a recorder that writes one file per input.
    const auto tr2 = wavWith("TAKE_Tr2.wav", 1, ixml({{2, 1}}));
    EXPECT_EQ(AM::readChannelCount(tr2), 1);
    EXPECT_EQ(AM::readAudioChannelIndices(tr2, 1), std::vector<int>{1});
    // Channels 3 and 1 of the recorder, interleaved in that order.
    EXPECT_EQ(AM::readAudioChannelIndices(wavWith("pair.wav", 2, ixml({{1, 2}, {3, 1}})), 2),
              (std::vector<int>{2, 0}));
    // A list that maps the file's channels onto themselves says nothing beyond "all of them".
    EXPECT_TRUE(AM::readAudioChannelIndices(wavWith("all.wav", 2, ixml({{1, 1}, {2, 2}})), 2).empty());
    // Lists that don't fit the file are not believed.
    EXPECT_TRUE(AM::readAudioChannelIndices(wavWith("few.wav", 2, ixml({{4, 1}})), 2).empty());
    EXPECT_TRUE(AM::readAudioChannelIndices(wavWith("twice.wav", 2, ixml({{4, 1}, {5, 1}})), 2).empty());
    EXPECT_TRUE(AM::readAudioChannelIndices(wavWith("zero.wav", 1, ixml({{0, 1}})), 1).empty());
    EXPECT_TRUE(AM::readAudioChannelIndices(wavWith("broken.wav", 1, "<TRACK_LIST><TRACK>"), 1).empty());
    EXPECT_TRUE(AM::readAudioChannelIndices(tr2, 0).empty());
}

// ---- device labels ------------------------------------------------------------------------------

TEST(DeviceLabel, ContainerMakeAndModelComeFirstAndStayStable) {
    TempDir tmp;
    const auto make = [&](const std::string& name, const std::string& tags) {
        const auto p = tmp / name;
        ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 -c:v libx264 -preset ultrafast " + tags +
               " " + quoted(p.string()));
        return url(p);
    };
    const auto a = make("A.mov", "-metadata make=Canon -metadata model=" + quoted("Canon EOS R5"));
    const auto b = make("B.mov", "-metadata make=Canon -metadata model=" + quoted("Canon EOS R5"));
    EXPECT_EQ(AM::readDeviceInfo(a), "Canon EOS R5");
    EXPECT_EQ(AM::readDeviceInfo(a), AM::readDeviceInfo(b));
    EXPECT_EQ(AM::readDeviceInfo(
                  make("C.mov", "-movflags use_metadata_tags -metadata com.apple.quicktime.make=Apple "
                                "-metadata com.apple.quicktime.model=" +
                                    quoted("iPhone 15 Pro"))),
              "Apple iPhone 15 Pro");
    // A device's encoder tag counts; an editor's doesn't.
    EXPECT_EQ(AM::readDeviceInfo(make("D.mov", "-metadata:s:v:0 encoder=" + quoted("GoPro AVC encoder"))),
              "GoPro AVC encoder");

    // Without any label, clips of one setting share their fingerprint and others differ.
    const auto e = make("E.mov", "");
    const auto f = make("F.mov", "");
    const auto g = url(tmp / "G.mov");
    ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25:duration=1 -c:v libx264 -preset ultrafast " +
           quoted(g.path()));
    ASSERT_TRUE(AM::readDeviceInfo(e));
    EXPECT_TRUE(AM::readDeviceInfo(e)->starts_with("cam_"));
    EXPECT_EQ(AM::readDeviceInfo(e), AM::readDeviceInfo(f));
    EXPECT_NE(AM::readDeviceInfo(e), AM::readDeviceInfo(g));
}
