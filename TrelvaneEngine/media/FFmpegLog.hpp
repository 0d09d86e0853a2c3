// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace trelvane::FFmpegLog {

// Sends FFmpeg's own messages to the engine log instead of standard error, so that a damaged
// file's complaints land in the log file beside our lines and never cut through a progress bar or
// a JSON document. Errors only: warnings about ordinary oddities of camera files are noise. Call it
// once at start-up; it is safe to call again.
void routeToEngineLog();

} // namespace trelvane::FFmpegLog
