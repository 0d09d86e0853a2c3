// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane probe` as a user runs it: real process, real media, exit statuses.
#include "MediaSupport.hpp"
#include "e2e/CliRunner.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using ::testing::HasSubstr;
using namespace trelvane::test;

namespace {

// A recorder take with a stamp at 14:30:12 and timecode 01:00:00 (48 kHz).
std::filesystem::path recorderTake(const TempDir& home) {
    const auto p = home.dir("shoot") / "ZOOM0001.WAV";
    ffmpeg("-f lavfi -i sine=sample_rate=48000:duration=1 -ac 2 -c:a pcm_s16le -write_bext 1 "
           "-metadata originator=" +
           quoted("ZOOM F8") +
           " -metadata origination_date=2024-03-15 -metadata origination_time=14:30:12"
           " -metadata time_reference=172800000 " +
           quoted(p.string()));
    return p;
}

std::filesystem::path cameraClip(const TempDir& home) {
    const auto p = home.dir("shoot") / "C0001.MP4";
    ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25:duration=1 -f lavfi -i sine=duration=1 "
           "-timecode 00:00:10:05 -c:v libx264 -preset ultrafast -c:a aac -shortest " +
           quoted(p.string()));
    return p;
}

} // namespace

// What the readers find is tested with them; here, how `probe` prints it and fails: every file it
// can read is printed, each one it can't is named with the reason and makes the run fail.
TEST(Probe, PrintsWhatTheReadersFindAndNamesTheFilesThatAreNoMedia) {
    TempDir home;
    const auto wav = recorderTake(home);
    const auto mp4 = cameraClip(home);
    const struct {
        std::string path;
        const char* reason;
    } bad[] = {
        {home.file("shoot/notes.wav", "not audio").string(), "not a media file Trelvane can read"},
        {home.file("shoot/empty.wav", "").string(), "an empty file"},
        {(home / "no such take.wav").string(), "no such file"},
        {(home / "shoot").string(), "a folder, not a file"},
    };
    std::string files = quoted(wav.string()) + " " + quoted(mp4.string());
    for (const auto& b : bad)
        files += " " + quoted(b.path);
    const auto r = runCli(home, "probe " + files, true);
    EXPECT_EQ(r.status, 1) << r.out;
    for (const auto& b : bad)
        EXPECT_THAT(r.out, HasSubstr(std::string("trelvane: ") + b.reason + ": " + b.path + "\n"));
    const auto mp4At = r.out.find(mp4.string() + "\n");
    ASSERT_NE(mp4At, std::string::npos) << r.out;
    for (const char* line :
         {"device           ZOOM F8", "clock            2024-03-15T14:30:12.000+00:00 (embedded)",
          "channel indices  all", "frame rate       -", "timecode         01:00:00.000 (3600.000 s, bext)"})
        EXPECT_LT(r.out.find(line), mp4At) << line << "\n" << r.out;
    for (const char* line : {"frame rate       25 fps", "picture size     320x240",
                             "timecode         00:00:10.200 (10.200 s, movie)"})
        EXPECT_NE(r.out.find(line, mp4At), std::string::npos) << line << "\n" << r.out;

    const auto doc = nlohmann::json::parse(runCli(home, "probe --json " + files).out);
    ASSERT_EQ(doc.size(), 2u);
    EXPECT_EQ(doc[0]["path"], wav.string());
    EXPECT_FALSE(doc[0].contains("pathBytes")) << "only a name that is not UTF-8 has its bytes beside it";
    EXPECT_EQ(doc[0]["recordingDate"], "2024-03-15T14:30:12.000+00:00");
    EXPECT_EQ(doc[0]["audioChannelIndices"], nlohmann::json::array());
    for (const char* absent : {"frameRate", "pixelWidth", "pixelHeight"})
        EXPECT_TRUE(doc[0][absent].is_null()) << absent;
    EXPECT_EQ(doc[1]["pixelWidth"], 320);
    EXPECT_EQ(doc[1]["timecodeSource"], "movie");
    EXPECT_EQ(runCli(home, "probe").status, 2) << "probe needs a file";
}
