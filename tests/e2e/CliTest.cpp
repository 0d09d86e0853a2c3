// SPDX-License-Identifier: GPL-3.0-or-later
// The `trelvane` command as a user runs it: real process, real files, exit statuses.
#include "e2e/CliRunner.hpp"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using ::testing::HasSubstr;
using ::testing::Not;
using namespace trelvane::test;

TEST(Cli, HelpVersionAndUsageErrorsAreInTheProgramsOwnWords) {
    TempDir home;
    const std::string p = quoted(home.dir("shoot").string());
    const std::string missing = (home / "no such folder").string();
    // What a user must never see: the parser's own types, ranges and conventions.
    const char* const parserWords[] = {"ENUM", "->",       "FLOAT",  "TEXT",
                                       "{",    "REQUIRED", "179769", "Run with --help"};
    const struct {
        std::string args;
        int status;
        std::string says;
    } cases[] = {
        {"--version", 0, "trelvane 0.1.0\n"},
        {"--help", 0, "Commands:\n  scan"},
        {"help", 0, "Usage: trelvane [OPTIONS] COMMAND"},
        {"help sync", 0, "Usage: trelvane sync [OPTIONS] PATH..."},
        {"sync --help", 0, "  --fps RATE "},
        {"scan --day-regions reject --camera-groups REJECT " + p, 0, "0 tracks, 0 clips"},
        {"scan " + quoted(missing), 1, "no such file or folder: " + missing},
        {"sync --fps abc " + p, 2, "trelvane: --fps: \"abc\" is not a number"},
        {"sync --fps 0 " + p, 2, "trelvane: --fps: 0 is out of range"},
        {"sync " + p + " --fps", 2, "trelvane: --fps needs a value"},
        {"scan --camera-groups maybe " + p, 2, "\"maybe\" is not one of accept, reject"},
        {"sync --export avid " + p, 2, "\"avid\" is not one of premiere, resolve, fcpxml, otio"},
        {"sync --mode chaos " + p, 2, "\"chaos\" is not one of tracks, stacks"},
        {"sync", 2,
         "trelvane: give at least one folder or media file of the shoot\nRun 'trelvane help sync'"},
        {"", 2, "trelvane: give a command: scan, sync, probe or help"},
        {"frobnicate", 2, "no command named \"frobnicate\""},
        {"scan --no-such-flag " + p, 2, "trelvane: unexpected --no-such-flag"},
        {"help nope", 2, "no command named \"nope\""},
    };
    for (const auto& c : cases) {
        const auto r = runCli(home, c.args, true);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out;
        EXPECT_THAT(r.out, HasSubstr(c.says)) << c.args;
        for (const char* word : parserWords)
            EXPECT_THAT(r.out, Not(HasSubstr(word))) << c.args << " shows " << word;
    }
    EXPECT_EQ(runCli(home, "help sync").out, runCli(home, "sync --help").out);
}

TEST(Cli, ScanPrintsTheTracksAndTheSessionAsJsonAndWritesTheLog) {
    TempDir home;
    home.file("shoot/CamA/C0001.MP4");
    home.file("shoot/CamA/C0002.MP4");
    home.file(std::string("shoot/Zoom/odd \"name\" & \xff.WAV"));
    const std::string shoot = quoted((home / "shoot").string());
    // A folder too deep to be searched is counted and said.
    ASSERT_EQ(std::system(("cd " + shoot + " && for i in $(seq 70); do mkdir d && cd d; done").c_str()), 0);
    const auto r = runCli(home, "scan " + shoot, true);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("trelvane: 1 folder not searched — can't be read, too deep"));
    EXPECT_THAT(r.out, HasSubstr("2 clips  ·  MP4"));
    EXPECT_THAT(r.out, HasSubstr("2 tracks, 3 clips"));
    const std::string log = slurp(home / "data/Trelvane/Trelvane.log");
    EXPECT_TRUE(log.starts_with("[Trelvane] log start ")) << log;
    EXPECT_THAT(log, HasSubstr("[Drop] '" + (home / "shoot").string() + "' isDir=true"));

    const auto doc = nlohmann::json::parse(runCli(home, "scan --json " + shoot).out);
    ASSERT_EQ(doc["tracks"].size(), 2u);
    const auto& track = doc["tracks"][0];
    EXPECT_EQ(track["session"], (home / "shoot").string());
    EXPECT_FALSE(track.contains("sessionBytes"));
    const auto& clip = track["clips"][0];
    EXPECT_EQ(clip["url"], (home / "shoot/CamA/C0001.MP4").string());
    EXPECT_EQ(clip["placementExplanation"], "Shorter than 5 s — not compared, placed between neighbours");
    for (const char* heavy : {"urlBytes", "waveformPreview", "cachedEnvelope", "fingerprint", "bandFeature"})
        EXPECT_FALSE(clip.contains(heavy)) << heavy;
    // A name that is not valid UTF-8 still gives a valid document, and its exact bytes beside it.
    EXPECT_EQ(doc["tracks"][1]["clips"][0]["urlBytes"],
              (home / "shoot/Zoom").string() + "/odd%20\"name\"%20&%20%FF.WAV");
}

// The analysis table, its progress bar, the cache on a second run, and a file whose sound can't
// be read, which fails the scan.
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
    EXPECT_THAT(first.out, HasSubstr("R0001.WAV  6.00     149          600       ok      decoded"));
    EXPECT_THAT(first.out, HasSubstr("R0002.WAV  6.00     -            -         silent  -"));
    // On a terminal a bar is drawn to the end, unless the run is asked to be quiet.
    if (std::system("command -v script >/dev/null 2>&1") == 0)
        for (const std::string flags : {"", "-q ", "--quiet ", "-v "}) {
            TempDir other; // a cache of its own
            const auto cmd = cliEnvironment(other) + " " + quoted(TRELVANE_CLI_PATH) + " " + flags + args;
            const auto shown = runShell("script -qec " + quoted(cmd) + " /dev/null").out;
            const std::string bar =
                flags.empty() ? "analysing [" + std::string(30, '#') + "] 100%" : "analysing";
            EXPECT_EQ(shown.find(bar) != std::string::npos, flags.empty()) << flags << "\n" << shown;
        }
    home.file("shoot/rec/R0003.WAV", "");
    const auto second = runCli(home, args, true);
    EXPECT_EQ(second.status, 1) << second.out;
    EXPECT_THAT(second.out, HasSubstr("ok           cache"));
    EXPECT_THAT(second.out, Not(HasSubstr("decoded")));
    EXPECT_THAT(second.out, HasSubstr("R0003.WAV  0.00     -            -         undecodable  failed"));
    EXPECT_THAT(second.out, HasSubstr("can't read " + (rec / "R0003.WAV").string() + ": an empty file"));
}

TEST(Cli, AFailedWriteToStandardOutputFailsTheRunWithAMessage) {
    TempDir home;
    home.file("shoot/CamA/C0001.MP4");
    const std::string shoot = quoted((home / "shoot").string());
    for (const std::string& args : {"scan " + shoot, "scan --json " + shoot, std::string("--version")}) {
        const auto r = runShell(cliEnvironment(home) + " " + quoted(TRELVANE_CLI_PATH) + " " + args +
                                " 2>&1 >/dev/full");
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_THAT(r.out, HasSubstr("trelvane: cannot write to standard output: No space left on device"))
            << args;
    }
}
