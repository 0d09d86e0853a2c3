// SPDX-License-Identifier: GPL-3.0-or-later
// scripts/setup.sh against a stand-in apt-get: another install holding the package manager's
// locks is waited for, any other failure is not.
#include "TestSupport.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <vector>

namespace trelvane::test {
namespace {

void tool(const TempDir& dir, const std::string& name, const std::string& body) {
    const auto path = dir.file("bin/" + name, "#!/bin/sh\n" + body + "\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

std::vector<std::string> linesOf(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

TEST(SetupScript, WaitsForThePackageManagersLockInsteadOfFailing) {
    const struct {
        const char* what;
        const char* updateError; // what the first `apt-get update` says before failing
        int status;
        std::size_t calls;
    } cases[] = {
        {"the package lists are locked",
         "E: Could not get lock /var/lib/apt/lists/lock. It is held by process 9", 0, 3},
        {"the network is down", "E: Failed to fetch http://deb.debian.org/debian/dists/bookworm/InRelease", 1,
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const auto calls = dir / "calls";
        const auto failed = dir / "failed-once";
        tool(dir, "id", "echo 0");         // root: no sudo
        tool(dir, "dpkg-query", "exit 1"); // nothing installed yet
        tool(dir, "sleep", "exit 0");
        tool(dir, "apt-get",
             "echo \"$*\" >> " + quoted(calls.string()) + "\ncase \"$*\" in *update*) [ -e " +
                 quoted(failed.string()) + " ] || { touch " + quoted(failed.string()) + "; echo " +
                 quoted(c.updateError) + " >&2; exit 100; } ;; esac\nexit 0");
        const std::string cmd = "PATH=" + quoted((dir / "bin").string()) + ":$PATH bash " +
                                quoted(std::string(TRELVANE_SOURCE_DIR) + "/scripts/setup.sh") +
                                " >/dev/null 2>&1";
        const int raw = std::system(cmd.c_str());
        EXPECT_EQ(WIFEXITED(raw) && WEXITSTATUS(raw) == 0 ? 0 : 1, c.status);
        const auto lines = linesOf(calls);
        ASSERT_EQ(lines.size(), c.calls);
        for (const auto& line : lines)
            EXPECT_NE(line.find("-o DPkg::Lock::Timeout=600"), std::string::npos) << line;
        EXPECT_EQ(lines.back().find("install -y") != std::string::npos, c.status == 0) << lines.back();
    }
}

} // namespace trelvane::test
