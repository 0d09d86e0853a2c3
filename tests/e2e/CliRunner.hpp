// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Runs the `trelvane` command as a user would, as a real process.

#include "TestSupport.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/wait.h>

namespace trelvane::test {

struct CliRun {
    int status = -1;
    std::string out;
};

// The environment every run gets: the user's folders redirected into `home`, the time zone UTC so
// that printed dates are known.
inline std::string cliEnvironment(const TempDir& home) {
    return "TZ=UTC XDG_DATA_HOME=" + quoted((home / "data").string()) +
           " XDG_CONFIG_HOME=" + quoted((home / "config").string()) +
           " XDG_CACHE_HOME=" + quoted((home / "cache").string());
}

// Runs a shell command line and collects its standard output.
inline CliRun runShell(const std::string& cmd) {
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

// Runs the CLI; stderr is folded into `out` when asked.
inline CliRun runCli(const TempDir& home, const std::string& args, bool withStderr = false) {
    return runShell(cliEnvironment(home) + " " + quoted(TRELVANE_CLI_PATH) + " " + args +
                    (withStderr ? " 2>&1" : " 2>/dev/null"));
}

// Runs the CLI with stdout and stderr on one pipe and calls `onOutput` with everything read so far,
// and the CLI's pid, after each line, until the CLI ends.
inline CliRun runCliWatching(const TempDir& home, const std::string& args,
                             const std::function<void(const std::string&, pid_t)>& onOutput) {
    CliRun r;
    // The shell tells its pid, then becomes the CLI: the pid is the CLI's.
    FILE* pipe = ::popen(
        ("echo $$; exec env " + cliEnvironment(home) + " " + quoted(TRELVANE_CLI_PATH) + " " + args + " 2>&1")
            .c_str(),
        "r");
    if (!pipe) return r;
    char line[4096];
    const pid_t pid = std::fgets(line, sizeof line, pipe) ? std::atoi(line) : -1;
    while (std::fgets(line, sizeof line, pipe)) {
        r.out += line;
        onOutput(r.out, pid);
    }
    const int raw = ::pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

} // namespace trelvane::test
