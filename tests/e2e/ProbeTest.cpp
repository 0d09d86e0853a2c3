// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane probe` as a user runs it: real process, real media, exit statuses.
#include "MediaSupport.hpp"
#include "e2e/CliRunner.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

using trelvane::test::ffmpeg;
using trelvane::test::quoted;
using trelvane::test::runCli;
using trelvane::test::sineInput;
using trelvane::test::TempDir;

namespace {

// A recorder take with a stamp at 14:30:12 and timecode 01:00:00 (48 kHz).
std::filesystem::path recorderTake(const TempDir& home) {
    const auto p = home / "shoot/ZOOM0001.WAV";
    std::filesystem::create_directories(p.parent_path());
    ffmpeg("-f lavfi -i sine=sample_rate=48000:duration=1 -ac 2 -c:a pcm_s16le -write_bext 1 "
           "-metadata originator=" +
           quoted("ZOOM F8") +
           " -metadata origination_date=2024-03-15 -metadata origination_time=14:30:12"
           " -metadata time_reference=172800000 " +
           quoted(p.string()));
    return p;
}

std::filesystem::path cameraClip(const TempDir& home) {
    const auto p = home / "shoot/C0001.MP4";
    std::filesystem::create_directories(p.parent_path());
    ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25:duration=1 -f lavfi -i sine=duration=1 "
           "-timecode 00:00:10:05 -c:v libx264 -preset ultrafast -c:a aac -shortest " +
           quoted(p.string()));
    return p;
}

} // namespace

TEST(Probe, PrintsWhatTheReadersFindInEachFile) {
    TempDir home;
    const auto wav = recorderTake(home);
    const auto mp4 = cameraClip(home);
    const auto r = runCli(home, "probe " + quoted(wav.string()) + " " + quoted(mp4.string()));
    ASSERT_EQ(r.status, 0) << r.out;
    const auto wavAt = r.out.find(wav.string() + "\n");
    const auto mp4At = r.out.find(mp4.string() + "\n");
    ASSERT_NE(wavAt, std::string::npos) << r.out;
    ASSERT_NE(mp4At, std::string::npos) << r.out;
    ASSERT_LT(wavAt, mp4At);
    const std::string first = r.out.substr(wavAt, mp4At - wavAt);
    const std::string second = r.out.substr(mp4At);
    for (const char* line : {"duration         1.000 s", "device           ZOOM F8",
                             "clock            2024-03-15T14:30:12.000+00:00 (embedded)",
                             "channels         2", "channel indices  all", "frame rate       -",
                             "picture size     -", "timecode         01:00:00.000 (3600.000 s, bext)"})
        EXPECT_NE(first.find(line), std::string::npos) << line << "\n" << first;
    for (const char* line :
         {"frame rate       25 fps", "picture size     320x240", "(filesystem)",
          "timecode         00:00:10.200 (10.200 s, movie)", "device           cam_h264_320x240_25"})
        EXPECT_NE(second.find(line), std::string::npos) << line << "\n" << second;
}

TEST(Probe, JsonHasOneObjectPerFileWithNullsForWhatIsAbsent) {
    TempDir home;
    const auto wav = recorderTake(home);
    const auto mp4 = cameraClip(home);
    const auto r = runCli(home, "probe --json " + quoted(wav.string()) + " " + quoted(mp4.string()));
    ASSERT_EQ(r.status, 0) << r.out;
    const auto doc = nlohmann::json::parse(r.out);
    ASSERT_TRUE(doc.is_array());
    ASSERT_EQ(doc.size(), 2u);

    const auto& w = doc[0];
    EXPECT_EQ(w["path"], wav.string());
    EXPECT_FALSE(w.contains("pathBytes")) << "only a name that is not UTF-8 has its bytes beside it";
    EXPECT_EQ(w["duration"], 1.0);
    EXPECT_TRUE(w["frameRate"].is_null());
    EXPECT_EQ(w["deviceName"], "ZOOM F8");
    EXPECT_EQ(w["recordingDate"], "2024-03-15T14:30:12.000+00:00");
    EXPECT_EQ(w["clockQuality"], "embedded");
    EXPECT_EQ(w["channelCount"], 2);
    EXPECT_EQ(w["audioChannelIndices"], nlohmann::json::array());
    EXPECT_TRUE(w["pixelWidth"].is_null());
    EXPECT_TRUE(w["pixelHeight"].is_null());
    EXPECT_EQ(w["startTimecode"], 3600.0);
    EXPECT_EQ(w["timecodeSource"], "bext");

    const auto& m = doc[1];
    EXPECT_EQ(m["frameRate"], 25.0);
    EXPECT_EQ(m["pixelWidth"], 320);
    EXPECT_EQ(m["pixelHeight"], 240);
    EXPECT_DOUBLE_EQ(m["startTimecode"].get<double>(), 10.2);
    EXPECT_EQ(m["timecodeSource"], "movie");
    EXPECT_EQ(m["clockQuality"], "filesystem");
}

// Each file that can't be probed is named with its reason and makes the run fail; the files
// given with it are still printed, in text and in JSON alike.
TEST(Probe, FilesThatAreNoMediaAreNamedWithTheReasonAndTheOthersStillPrinted) {
    TempDir home;
    const auto wav = recorderTake(home);
    const struct {
        std::string path;
        const char* reason;
    } bad[] = {
        {home.file("shoot/notes.wav", "not audio").string(), "not a media file Trelvane can read"},
        {home.file("shoot/empty.wav", "").string(), "an empty file"},
        {(home / "no such take.wav").string(), "no such file"},
        {(home / "shoot").string(), "a folder, not a file"},
    };
    for (const bool json : {false, true}) {
        std::string args = json ? "probe --json " : "probe ";
        for (const auto& b : bad)
            args += quoted(b.path) + " ";
        const auto r = runCli(home, args + quoted(wav.string()), true);
        EXPECT_EQ(r.status, 1) << r.out;
        for (const auto& b : bad)
            EXPECT_NE(r.out.find(std::string("trelvane: ") + b.reason + ": " + b.path + "\n"),
                      std::string::npos)
                << b.reason << "\n"
                << r.out;
        EXPECT_NE(r.out.find("ZOOM F8"), std::string::npos) << r.out;
        if (json) {
            const auto doc = nlohmann::json::parse(runCli(home, args + quoted(wav.string())).out);
            ASSERT_EQ(doc.size(), 1u);
            EXPECT_EQ(doc[0]["path"], wav.string());
        }
    }
    EXPECT_EQ(runCli(home, "probe").status, 2) << "probe needs a file";
    EXPECT_EQ(runCli(home, "probe --no-such-flag " + quoted(wav.string())).status, 2);
}
