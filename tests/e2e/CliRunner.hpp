// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Runs the `trelvane` command as a user would, as a real process.

#include "TestSupport.hpp"

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace trelvane::test {

struct CliRun {
    int status = -1;
    std::string out;
};

// Runs the CLI with the user's folders redirected into `home` and the time zone fixed to UTC, so
// that printed dates are known; stderr is folded into `out` when asked.
inline CliRun runCli(const TempDir& home, const std::string& args, bool withStderr = false) {
    const std::string cmd = "TZ=UTC XDG_DATA_HOME=" + quoted((home / "data").string()) +
                            " XDG_CONFIG_HOME=" + quoted((home / "config").string()) +
                            " XDG_CACHE_HOME=" + quoted((home / "cache").string()) + " " +
                            quoted(TRELVANE_CLI_PATH) + " " + args + (withStderr ? " 2>&1" : " 2>/dev/null");
    CliRun r;
    FILE* pipe = ::popen(cmd.c_str(), "r");
    if (!pipe) return r;
    std::array<char, 4096> buf{};
    std::size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0)
        r.out.append(buf.data(), n);
    const int raw = ::pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

} // namespace trelvane::test
