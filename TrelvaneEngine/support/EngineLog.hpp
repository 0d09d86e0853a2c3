// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <fmt/printf.h>
#include <functional>
#include <string>

namespace trelvane::EngineLog {

// Where the log lines of every stage go. The default prints each line to standard output;
// the application replaces it (log file, terminal) and tests replace it to read the lines.
// Safe to call from any thread; a line is delivered whole.
using Sink = std::function<void(const std::string& line)>;

void setSink(Sink sink);
// Restores the default sink (standard output).
void resetSink();
void log(const std::string& line);

// printf-style, so that the log lines read exactly as their format strings.
template <typename... Args> void logf(const char* format, const Args&... args) {
    log(fmt::sprintf(format, args...));
}

} // namespace trelvane::EngineLog
