// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/OutputFile.hpp"
#include "TestSupport.hpp"
#include "app/export/ExportFixtures.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace trelvane;
namespace fs = std::filesystem;
using namespace trelvane::test;

namespace {

// Makes `d/r.json` a link of some kind to `to` and returns it.
fs::path linkTo(const TempDir& d, const fs::path& to, bool hard = false) {
    hard ? fs::create_hard_link(to, d / "r.json") : fs::create_symlink(to, d / "r.json");
    return d / "r.json";
}

fs::path readOnly(const fs::path& folder) {
    fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
    return folder;
}

} // namespace

TEST(OutputFile, WritesWhatItMayAndRefusesTheRestLeavingMediaAndOldFilesAlone) {
    const std::string bytes = "{\"tracks\": []}\n";
    using Check = std::function<void(const TempDir&)>;
    const auto holds = [](const char* rel, std::string text) -> Check {
        return [rel, text](const TempDir& d) { EXPECT_EQ(slurp(d / rel), text); };
    };
    const auto stillDevice = [](const char* dev) -> Check {
        return [dev](const TempDir&) {
            struct stat st {};
            EXPECT_TRUE(::stat(dev, &st) == 0 && S_ISCHR(st.st_mode)) << "the device node was replaced";
        };
    };
    struct Case {
        const char* what;
        std::function<fs::path(const TempDir&)> target; // prepares the folder, returns the path to write
        bool force;
        std::string refusal; // a piece of the refusal; empty when the bytes must arrive
        Check after;
    };
    const auto media = [](const TempDir& d) { return d / "shoot/A001.WAV"; };
    const std::vector<Case> cases{
        {"a new file", [](auto& d) { return d / "r.json"; }, false, "", holds("r.json", bytes)},
        {"a folder that does not exist", [](auto& d) { return d / "none/r.json"; }, true, "does not exist",
         [](auto& d) { EXPECT_FALSE(fs::exists(d / "none")); }},
        {"an existing file without force", [](auto& d) { return d.file("r.json", "old"); }, false,
         "already exists; export with --force", holds("r.json", "old")},
        {"an existing file with force", [](auto& d) { return d.file("r.json", "old"); }, true, "",
         holds("r.json", bytes)},
        {"a media file of the session", media, true, "is a media file of this session", nullptr},
        {"a link to a media file", [&](auto& d) { return linkTo(d, media(d)); }, true, "is a media file",
         nullptr},
        {"a hard link to a media file", [&](auto& d) { return linkTo(d, media(d), true); }, true,
         "is a media", nullptr},
        {"a link to another file, with force", [](auto& d) { return linkTo(d, d.file("other.json", "old")); },
         true, "",
         [&](auto& d) {
             EXPECT_EQ(slurp(d / "other.json"), bytes);
             EXPECT_TRUE(fs::is_symlink(d / "r.json")) << "the link stays a link";
         }},
        {"a link that leads nowhere", [](auto& d) { return linkTo(d, d / "elsewhere.json"); }, true,
         "leads nowhere", [](auto& d) { EXPECT_FALSE(fs::exists(d / "elsewhere.json")); }},
        {"a folder", [](auto& d) { return d.dir("out"); }, true, "is a folder", nullptr},
        {"a file in place of the folder", [](auto& d) { return d.file("plain") / "r.json"; }, true,
         "Not a dir", nullptr},
        // Root writes anywhere.
        {"a read-only folder", [](auto& d) { return readOnly(d.dir("locked")) / "r.json"; }, true,
         ::geteuid() == 0 ? "" : "Cannot write", nullptr},
        {"/dev/null", [](auto&) { return fs::path("/dev/null"); }, false, "", stillDevice("/dev/null")},
        {"/dev/full", [](auto&) { return fs::path("/dev/full"); }, true, "No space left on device",
         stillDevice("/dev/full")},
        {"another device", [](auto&) { return fs::path("/dev/zero"); }, true, "not a file Trelvane writes to",
         stillDevice("/dev/zero")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        TrackSource track;
        track.clips = {test::exportClip(dir.file("shoot/A001.WAV", "media").string(), 0, 10)};
        try {
            OutputFile::write(c.target(dir), bytes, c.force, {track});
            EXPECT_TRUE(c.refusal.empty()) << "written, but should have been refused";
        } catch (const OutputError& e) {
            EXPECT_FALSE(c.refusal.empty()) << "refused: " << e.what();
            EXPECT_NE(std::string(e.what()).find(c.refusal), std::string::npos) << e.what();
        }
        EXPECT_EQ(slurp(media(dir)), "media");
        if (c.after) c.after(dir);
        for (const auto& e : fs::recursive_directory_iterator(dir.path()))
            EXPECT_FALSE(e.path().filename().string().starts_with(".")) << "left behind: " << e.path();
    }
}

TEST(OutputFile, PipesAndDescriptorsAreWrittenInPlace) {
    const std::string bytes(100'000, 'x'); // more than a pipe holds at once
    TempDir dir;
    // A FIFO with a reader, as `mkfifo p; jq . < p &` gives; `--report >(jq .)` passes a pipe too.
    const auto fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_TRUE(OutputFile::isStream(fifo));
    std::string got;
    std::thread reader([&] { got = slurp(fifo); });
    OutputFile::write(fifo, bytes, false, {});
    reader.join();
    EXPECT_EQ(got, bytes);
    EXPECT_TRUE(fs::is_fifo(fifo)) << "the FIFO was replaced";

    for (const char* out : {"-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"})
        EXPECT_TRUE(OutputFile::isStandardOutput(out)) << out;
    for (const char* other : {"/dev/stderr", "/dev/fd/12", "stdout", "/dev/fd/1x"})
        EXPECT_FALSE(OutputFile::isStandardOutput(other)) << other;
    EXPECT_FALSE(OutputFile::isStream(dir.file("plain.json")));
    EXPECT_FALSE(OutputFile::isStream(dir / "not yet.json"));
}
