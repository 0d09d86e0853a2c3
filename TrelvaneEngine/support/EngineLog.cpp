// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/EngineLog.hpp"

#include <cstdio>
#include <mutex>

namespace trelvane::EngineLog {

namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

// Process-wide: the engine log is one stream per process (stdout, or the application's log file),
// written from every stage and worker; no run or session owns it.
Sink& currentSink() {
    static Sink sink;
    return sink;
}

} // namespace

void setSink(Sink sink) {
    std::lock_guard lock(sinkMutex());
    currentSink() = std::move(sink);
}

void resetSink() {
    setSink(nullptr);
}

void log(const std::string& line) {
    std::lock_guard lock(sinkMutex());
    if (currentSink()) {
        currentSink()(line);
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace trelvane::EngineLog
