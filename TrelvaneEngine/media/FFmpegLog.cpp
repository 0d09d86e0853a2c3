// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/FFmpegLog.hpp"

#include "TrelvaneEngine/support/EngineLog.hpp"

#include <cstdarg>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

namespace trelvane::FFmpegLog {

namespace {

void callback(void* avcl, int level, const char* fmt, va_list args) {
    if (level > AV_LOG_ERROR) return;
    // FFmpeg may hand a line over in pieces; each thread gathers its own until the newline. The
    // callback is process-wide and gets no pointer of ours, so the pieces can only be kept here.
    thread_local std::string pending;
    thread_local int printPrefix = 1;
    char buffer[1024];
    va_list copy;
    va_copy(copy, args);
    av_log_format_line2(avcl, level, fmt, copy, buffer, sizeof buffer, &printPrefix);
    va_end(copy);
    pending += buffer;
    if (pending.empty() || pending.back() != '\n') return;
    pending.pop_back();
    EngineLog::log("[FFmpeg] " + pending);
    pending.clear();
}

} // namespace

void routeToEngineLog() {
    av_log_set_callback(callback);
}

} // namespace trelvane::FFmpegLog
