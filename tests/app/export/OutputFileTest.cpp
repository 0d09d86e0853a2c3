// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/OutputFile.hpp"
#include "TestSupport.hpp"
#include "app/export/ExportFixtures.hpp"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace trelvane;
namespace fs = std::filesystem;

namespace {

using trelvane::test::slurp;

bool isCharDevice(const fs::path& p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISCHR(st.st_mode);
}

struct Case {
    const char* what;
    // Prepares the folder and returns the path to write.
    std::function<fs::path(const test::TempDir&)> target;
    bool force;
    // A piece of the refusal, or empty when the bytes must arrive.
    std::string refusal;
    // Where the bytes must be found, when written, and what else must hold.
    std::function<void(const test::TempDir&, const fs::path&)> after;
};

} // namespace

TEST(OutputFile, WritesWhatItMayAndRefusesTheRestLeavingMediaAndOldFilesAlone) {
    const std::string bytes = "{\"tracks\": []}\n";
    const auto media = [](const test::TempDir& d) { return d / "shoot/A001.WAV"; };
    const auto wroteAt = [&](const char* rel) {
        return [&bytes, rel](const test::TempDir& d, const fs::path&) { EXPECT_EQ(slurp(d / rel), bytes); };
    };
    const auto keeps = [](const char* rel, const char* old) {
        return [rel, old](const test::TempDir& d, const fs::path&) { EXPECT_EQ(slurp(d / rel), old); };
    };
    const std::vector<Case> cases{
        {"a new file", [](auto& d) { return d / "r.json"; }, false, "", wroteAt("r.json")},
        {"a new file in a folder that does not exist", [](auto& d) { return d / "none/r.json"; }, true,
         "does not exist", [](auto& d, auto&) { EXPECT_FALSE(fs::exists(d / "none")); }},
        {"an existing file without force", [](auto& d) { return d.file("r.json", "old"); }, false,
         "already exists; export with --force", keeps("r.json", "old")},
        {"an existing file with force", [](auto& d) { return d.file("r.json", "old"); }, true, "",
         wroteAt("r.json")},
        {"a media file of the session", media, true, "is a media file of this session", {}},
        {"a link to a media file",
         [&](auto& d) {
             fs::create_symlink(media(d), d / "r.json");
             return d / "r.json";
         },
         true,
         "is a media file of this session",
         {}},
        {"a hard link to a media file",
         [&](auto& d) {
             fs::create_hard_link(media(d), d / "r.json");
             return d / "r.json";
         },
         true,
         "is a media file of this session",
         {}},
        {"a link to another file, with force",
         [](auto& d) {
             fs::create_symlink(d.file("other.json", "old"), d / "r.json");
             return d / "r.json";
         },
         true, "",
         [&](auto& d, auto&) {
             EXPECT_EQ(slurp(d / "other.json"), bytes);
             EXPECT_TRUE(fs::is_symlink(d / "r.json")) << "the link stays a link";
         }},
        {"a link that leads nowhere",
         [](auto& d) {
             fs::create_symlink(d / "elsewhere.json", d / "r.json");
             return d / "r.json";
         },
         true, "leads nowhere", [](auto& d, auto&) { EXPECT_FALSE(fs::exists(d / "elsewhere.json")); }},
        {"a folder", [](auto& d) { return d.dir("out"); }, true, "is a folder", {}},
        {"/dev/null", [](auto&) { return fs::path("/dev/null"); }, false, "",
         [](auto&, auto&) { EXPECT_TRUE(isCharDevice("/dev/null")); }},
        {"/dev/full", [](auto&) { return fs::path("/dev/full"); }, true, "No space left on device",
         [](auto&, auto&) { EXPECT_TRUE(isCharDevice("/dev/full")) << "the device node was replaced"; }},
        {"another device", [](auto&) { return fs::path("/dev/zero"); }, true, "not a file Trelvane writes to",
         [](auto&, auto&) { EXPECT_TRUE(isCharDevice("/dev/zero")); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::TempDir dir;
        TrackSource track;
        track.clips = {test::exportClip(dir.file("shoot/A001.WAV", "media").string(), 0, 10)};
        const std::vector<TrackSource> sources{track};
        const fs::path path = c.target(dir);
        try {
            OutputFile::write(path, bytes, c.force, sources);
            EXPECT_TRUE(c.refusal.empty()) << "written, but should have been refused";
        } catch (const OutputError& e) {
            if (c.refusal.empty())
                ADD_FAILURE() << "refused: " << e.what();
            else
                EXPECT_NE(std::string(e.what()).find(c.refusal), std::string::npos) << e.what();
        }
        EXPECT_EQ(slurp(media(dir)), "media");
        if (c.after) c.after(dir, path);
        for (const auto& e : fs::recursive_directory_iterator(dir.path()))
            EXPECT_FALSE(e.path().filename().string().starts_with(".")) << "left behind: " << e.path();
    }
}

TEST(OutputFile, PipesAndDescriptorsAreWrittenInPlace) {
    const std::string bytes(100'000, 'x'); // more than a pipe holds at once
    test::TempDir dir;

    // A FIFO with a reader, as `mkfifo p; jq . < p &` gives.
    const auto fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string read;
    std::thread reader([&] { read = slurp(fifo); });
    OutputFile::write(fifo, bytes, false, {});
    reader.join();
    EXPECT_EQ(read, bytes);
    EXPECT_TRUE(fs::is_fifo(fifo)) << "the FIFO was replaced";

    // A descriptor the program holds, as `--report >(jq .)` passes /dev/fd/63.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::thread drain([&] {
        std::string got;
        char buf[4096];
        for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;)
            got.append(buf, static_cast<std::size_t>(n));
        read = got;
    });
    EXPECT_TRUE(OutputFile::isStream("/dev/fd/" + std::to_string(fds[1])));
    OutputFile::write("/dev/fd/" + std::to_string(fds[1]), bytes, false, {});
    ::close(fds[1]);
    drain.join();
    ::close(fds[0]);
    EXPECT_EQ(read, bytes);

    for (const char* out : {"-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"})
        EXPECT_TRUE(OutputFile::isStandardOutput(out)) << out;
    for (const char* other : {"/dev/stderr", "/dev/fd/12", "stdout", "/dev/fd/1x"})
        EXPECT_FALSE(OutputFile::isStandardOutput(other)) << other;
    EXPECT_FALSE(OutputFile::isStream(dir.file("plain.json")));
    EXPECT_FALSE(OutputFile::isStream(dir / "not yet.json"));
}
