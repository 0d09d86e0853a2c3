// SPDX-License-Identifier: GPL-3.0-or-later
// The `trelvane` command as a user runs it: real process, real files, exit statuses.
#include "e2e/CliRunner.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

using trelvane::test::quoted;
using trelvane::test::runCli;
using trelvane::test::TempDir;

TEST(Cli, VersionHelpAndUsageErrorsHaveTheirExitStatuses) {
    TempDir home;
    const auto version = runCli(home, "--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "trelvane 0.1.0\n");
    const auto help = runCli(home, "--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("scan"), std::string::npos);
    EXPECT_EQ(runCli(home, "").status, 2);
    EXPECT_EQ(runCli(home, "scan").status, 2) << "scan needs a path";
    EXPECT_EQ(runCli(home, "scan --no-such-flag " + quoted(home.path().string())).status, 2);
    EXPECT_EQ(runCli(home, "frobnicate").status, 2);
}

TEST(Cli, AMissingPathIsNamedAndFails) {
    TempDir home;
    const std::string missing = (home / "no such folder").string();
    const auto r = runCli(home, "scan " + quoted(missing), true);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("no such file or folder: " + missing), std::string::npos) << r.out;
}

TEST(Cli, ScanPrintsTheTracksAndWritesTheLog) {
    TempDir home;
    home.file("shoot/CamA/C0001.MP4");
    home.file("shoot/CamA/C0002.MP4");
    home.file("shoot/Zoom/ZOOM0001.WAV");
    const auto r = runCli(home, "scan " + quoted((home / "shoot").string()));
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("CamA"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("2 clips  ·  MP4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("2 tracks, 3 clips"), std::string::npos) << r.out;
    std::ifstream logFile(home / "data/Trelvane/Trelvane.log");
    const std::string logText((std::istreambuf_iterator<char>(logFile)), {});
    EXPECT_TRUE(logText.starts_with("[Trelvane] log start ")) << logText;
    EXPECT_NE(logText.find("[Drop] '" + (home / "shoot").string() + "' isDir=true"), std::string::npos);
}

TEST(Cli, ScanJsonHasTheSessionShape) {
    TempDir home;
    home.file("shoot/CamA/C0001.MP4");
    home.file(std::string("shoot/Zoom/odd \"name\" & \xff.WAV"));
    const auto r = runCli(home, "scan --json " + quoted((home / "shoot").string()));
    ASSERT_EQ(r.status, 0) << r.out;
    const auto doc = nlohmann::json::parse(r.out);
    ASSERT_EQ(doc["tracks"].size(), 2u);
    const auto& track = doc["tracks"][0];
    EXPECT_EQ(track["name"], "CamA");
    EXPECT_EQ(track["type"], "video");
    EXPECT_EQ(track["lockedGrouping"], true);
    EXPECT_TRUE(track["deviceName"].is_null());
    EXPECT_TRUE(track["siblingOf"].is_null());
    EXPECT_EQ(track["subtitle"], "1 clip  ·  MP4");
    EXPECT_EQ(track["session"], (home / "shoot").string());
    const auto& clip = track["clips"][0];
    EXPECT_EQ(clip["url"], (home / "shoot/CamA/C0001.MP4").string());
    EXPECT_EQ(clip["syncStatus"], "pending");
    // Not a real movie: the metadata load finds no clock in it but the file's own date.
    EXPECT_EQ(clip["clockQuality"], "filesystem");
    EXPECT_EQ(clip["audioUsability"], "ok");
    EXPECT_TRUE(clip["matchScore"].is_null());
    EXPECT_TRUE(clip["failureBucket"].is_null());
    EXPECT_EQ(clip["placementExplanation"], "Shorter than 5 s — not compared, placed between neighbours");
    for (const char* heavy :
         {"waveformPreview", "cachedEnvelope", "fingerprint", "bassOnsets", "bandFeature"})
        EXPECT_FALSE(clip.contains(heavy)) << heavy;
    // A name that is not valid UTF-8 still gives a valid document, and its exact bytes beside it.
    const auto& odd = doc["tracks"][1]["clips"][0];
    EXPECT_NE(odd["url"].get<std::string>().find("odd \"name\" & "), std::string::npos);
    const std::string bytes = odd["urlBytes"];
    std::string decoded;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != '%') {
            decoded += bytes[i];
            continue;
        }
        decoded += static_cast<char>(std::stoi(bytes.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    EXPECT_EQ(decoded, (home / "shoot/Zoom/odd \"name\" & \xff.WAV").string()) << bytes;
    EXPECT_FALSE(clip.contains("urlBytes"));
    EXPECT_FALSE(track.contains("sessionBytes"));
}

TEST(Cli, AnalyzeDecodesOnceThenServesTheCache) {
    TempDir home;
    const auto rec = home.dir("shoot/rec");
    const std::string make = "ffmpeg -v error -f lavfi -i 'sine=frequency=440:duration=6' -ar 48000 -y " +
                             quoted((rec / "R0001.WAV").string()) + " && ffmpeg -v error -f lavfi -i " +
                             "'anullsrc=r=48000:cl=mono' -t 6 -y " + quoted((rec / "R0002.WAV").string());
    ASSERT_EQ(std::system(make.c_str()), 0);
    const std::string args = "scan --analyze " + quoted((home / "shoot").string());
    const auto first = runCli(home, args);
    ASSERT_EQ(first.status, 0) << first.out;
    // 96,000 samples give (96000 - 1024) / 640 + 1 band frames and 600 envelope values.
    EXPECT_NE(first.out.find("R0001.WAV  6.00     149          600       ok      decoded"), std::string::npos)
        << first.out;
    EXPECT_NE(first.out.find("R0002.WAV  6.00     -            -         silent  -"), std::string::npos)
        << first.out;
    const auto second = runCli(home, args);
    ASSERT_EQ(second.status, 0) << second.out;
    EXPECT_NE(second.out.find("ok      cache"), std::string::npos) << second.out;
    EXPECT_EQ(second.out.find("decoded"), std::string::npos) << second.out;

    EXPECT_EQ(runCli(home, "scan --camera-groups maybe " + quoted((home / "shoot").string())).status, 2);
    EXPECT_EQ(
        runCli(home, "scan --day-regions reject --camera-groups REJECT " + quoted((home / "shoot").string()))
            .status,
        0);
}
