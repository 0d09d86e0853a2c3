// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane sync` as a user runs it: a camera and a recorder that heard the same sound, lined up,
// reported and written for the editors; its refusals and its stops.
#include "MediaSupport.hpp"
#include "e2e/CliRunner.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

using ::testing::HasSubstr;
using ::testing::Not;
namespace trelvane::test {
namespace {

// Ctrl-C ends the scan, the analysis and the synchronisation alike: one message on a line of its
// own, status 130, nothing written. A batch scheduler's SIGTERM does the same with 143.
TEST(SyncCommand, CtrlCInEveryPhaseEndsTheSameWay) {
    TempDir shoot;
    for (const char* rec : {"RecA/A001.wav", "RecB/B001.wav"}) {
        std::filesystem::create_directories((shoot / rec).parent_path());
        ffmpeg("-f lavfi -i anoisesrc=d=900:r=8000:seed=7 -ac 1 " + quoted((shoot / rec).string()));
    }
    const struct {
        const char* command;
        const char* when; // the log line after which Ctrl-C is pressed
        int signal = SIGINT;
        int status = 130;
    } cases[] = {
        {"scan --analyze", "[Drop] "},     {"sync", "[Drop] "},
        {"sync", "[Ingest] track 'RecB'"}, {"sync", "[SyncEngine] "},
        {"sync", "[Drop] ", SIGTERM, 143},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.command) + " at " + c.when + " by signal " + std::to_string(c.signal));
        TempDir home; // an empty cache: the analysis runs each time
        bool sent = false;
        const auto report = home / "r.json";
        const auto r = runCliWatching(
            home,
            std::string("-v ") + c.command + " " + quoted(shoot.path().string()) +
                (std::string(c.command) == "sync" ? " --report " + quoted(report.string()) : ""),
            [&](const std::string& out, pid_t pid) {
                if (!sent && out.find(c.when) != std::string::npos) {
                    sent = true;
                    ::kill(pid, c.signal);
                }
            });
        ASSERT_TRUE(sent) << r.out;
        EXPECT_EQ(r.status, c.status) << r.out;
        const std::string message = "trelvane: cancelled — nothing written\n";
        const auto told = r.out.find(message);
        ASSERT_NE(told, std::string::npos) << r.out;
        EXPECT_TRUE(told == 0 || r.out[told - 1] == '\n') << "not on a line of its own:\n" << r.out;
        EXPECT_EQ(r.out.find(message, told + 1), std::string::npos) << "told more than once:\n" << r.out;
        EXPECT_FALSE(std::filesystem::exists(report));
    }
}

// A recorder's 60 s of pink noise, and a camera file (in the home folder) that heard 5–55 s of it.
void makeNoiseShoot(const TempDir& home) {
    const auto rec = home.dir("shoot/recB");
    ffmpeg("-f lavfi -i anoisesrc=d=60:c=pink:r=48000:seed=5 -c:a pcm_s16le " +
           quoted((rec / "ZOOM0001.WAV").string()));
    ffmpeg("-ss 5 -t 50 -i " + quoted((rec / "ZOOM0001.WAV").string()) +
           " -f lavfi -i testsrc=size=160x120:rate=25 -t 50 -c:v mpeg4 -c:a aac -movflags +faststart " +
           quoted((home / "whole.mp4").string()));
}

// One shoot meets every way a file can fail to give its sound, and a camera file cut off after its
// index: the failures are named with their reasons and left out, what decodes of the cut file is
// kept and matched, and the report and the document are written where asked and nowhere else.
TEST(SyncCommand, RefusesBadOutputsEarlySyncsWhatCanBeReadAndWritesOnlyWhatItIsAsked) {
    TempDir home;
    makeNoiseShoot(home);
    // The index is at the front: ffmpeg still decodes the first 45 s of the 50.
    const std::string whole = slurp(home / "whole.mp4");
    home.file("shoot/camA/C0001.MP4", whole.substr(0, whole.size() * 9 / 10));
    std::string random(200'000, '\0');
    for (std::size_t i = 0; i < random.size(); ++i)
        random[i] = static_cast<char>((i * 2654435761u) >> 13);
    const auto bad = [&](const char* name) { return home / "shoot/recB" / name; };
    home.file("shoot/recB/ZOOM0002.WAV", "");
    home.file("shoot/recB/ZOOM0003.WAV", random);
    ASSERT_EQ(::mkfifo(bad("ZOOM0004.WAV").c_str(), 0644), 0);
    std::filesystem::create_symlink("nowhere", bad("ZOOM0005.WAV"));
    std::vector<std::pair<std::string, std::string>> reasons{
        {"ZOOM0002.WAV", "an empty file"},
        {"ZOOM0003.WAV", "not readable as media"},
        {"ZOOM0004.WAV", "not a regular file"},
        {"ZOOM0005.WAV", "a link to a file that does not exist"}};
    if (::geteuid() != 0) { // root reads any file
        home.file("shoot/recB/ZOOM0006.WAV", whole);
        std::filesystem::permissions(bad("ZOOM0006.WAV"), std::filesystem::perms::none);
        reasons.emplace_back("ZOOM0006.WAV", "Permission denied");
    }
    home.dir("out");
    const std::string shoot = quoted((home / "shoot").string()), out = (home / "out").string();

    // Every output is checked before minutes of analysis: the paths the user named before anything
    // is read, the rest (the session's media, the default names) once the clips are known. A media
    // file of the shoot is never written, under any of its names.
    const std::string original = slurp(bad("ZOOM0001.WAV"));
    std::filesystem::create_symlink(bad("ZOOM0001.WAV"), home / "cut.xml");
    const auto at = [&](const char* rel) { return quoted((home / rel).string()); };
    // The writer's own refusals are tested with it; here, that each output reaches it in time.
    const struct {
        std::string args;
        int status;
        std::string says;
    } cases[] = {
        {"sync " + shoot + " --report " + quoted(bad("ZOOM0001.WAV").string()), 1,
         "already exists; export with --force"},
        {"sync --force --export premiere " + shoot + " -o " + at("cut.xml"), 1, "is a media file"},
        {"sync " + shoot + " --export otio --export fcpxml -o " + at("out/x"), 2,
         "--output needs exactly one --export"},
        {"sync " + shoot + " --export otio --report - -o -", 2, "can't both go to standard output"},
        {"sync " + shoot + " --export otio --report " + at("r.json") + " -o " + at("r.json"), 2,
         "name the same file"},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(home / "data/Trelvane/Trelvane.log");
        const auto r = runCli(home, c.args, true);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out;
        EXPECT_THAT(r.out, HasSubstr(c.says)) << c.args;
        EXPECT_EQ(slurp(home / "data/Trelvane/Trelvane.log").find("Media analyzed"), std::string::npos)
            << c.args << ": refused after the analysis";
    }
    EXPECT_EQ(slurp(bad("ZOOM0001.WAV")), original);

    const auto r = runCli(home,
                          "sync " + shoot + " --table --report " + quoted(out + "/r.json") +
                              " --export fcpxml -o " + quoted(out + "/cut.fcpxml"),
                          true);
    ASSERT_EQ(r.status, 0) << r.out;
    for (const auto& [name, reason] : reasons)
        EXPECT_THAT(r.out, HasSubstr("trelvane: can't read " + bad(name.c_str()).string() + ": " + reason));
    EXPECT_THAT(
        r.out, HasSubstr("left out: " + std::to_string(reasons.size()) + " files whose sound can't be read"));
    EXPECT_THAT(r.out, HasSubstr("cut short: C0001.MP4 — the file breaks off; its sound ends after 4"));
    EXPECT_THAT(r.out, HasSubstr("Synchronization finished: 2 synced of 2 — ready to export."));
    EXPECT_THAT(r.out, HasSubstr("fcpxml: " + out + "/cut.fcpxml"));
    // Off a terminal no progress is drawn.
    EXPECT_THAT(r.out, Not(HasSubstr("analysing")));

    const auto report = nlohmann::json::parse(std::ifstream(out + "/r.json"));
    for (const auto& track : report["tracks"])
        for (const auto& clip : track["clips"]) {
            EXPECT_EQ(clip["syncStatus"], "synced") << clip.dump();
            if (track["name"] != "camA") continue;
            EXPECT_TRUE(clip["audioCutShort"].get<bool>());
            EXPECT_NEAR(clip["startOffset"].get<double>(), 5.0, 0.05);
            EXPECT_NE(clip["placementExplanation"].get<std::string>().find("file cut short"),
                      std::string::npos);
        }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path())) {
        const auto rel = entry.path().lexically_relative(home.path()).string();
        EXPECT_TRUE(entry.is_directory() || rel.starts_with("shoot/") || rel.starts_with("cache/") ||
                    rel == "whole.mp4" || rel == "cut.xml" || rel == "out/r.json" ||
                    rel == "out/cut.fcpxml" || rel == "data/Trelvane/Trelvane.log")
            << "written outside the given paths: " << rel;
    }
    // The report can go to standard output, which then holds it alone.
    const auto toStdout = runCli(home, "sync " + shoot + " --report -");
    EXPECT_EQ(toStdout.status, 0);
    EXPECT_EQ(nlohmann::json::parse(toStdout.out)["tracks"].size(), 2u) << toStdout.out;

    // In stack mode the camera's take and the recorder's that heard it make one stack.
    const auto stacked = runCli(home, "sync --mode stacks " + shoot, true);
    EXPECT_EQ(stacked.status, 0) << stacked.out;
    EXPECT_THAT(stacked.out, HasSubstr("stack 1: 2 take(s)"));
    // One folder alone is one device, and one device can't be synced: a status of its own, in words.
    const auto alone = runCli(home, "sync " + quoted((home / "shoot/recB").string()), true);
    EXPECT_EQ(alone.status, 3) << alone.out;
    EXPECT_THAT(alone.out, HasSubstr("Syncing by sound needs at least two devices."));
}

} // namespace
} // namespace trelvane::test
