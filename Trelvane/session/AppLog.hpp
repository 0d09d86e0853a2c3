// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The application's log file and the diagnostics report built from it.
//
// Lifecycle: `start` is called once, early in main, before worker threads exist (the desktop app
// with Mode::redirectStdio, the command-line tool with Mode::fileOnly). `write`, `logPath` and
// `upload` are safe from any thread afterwards. `upload` is called with reason "sync" after each
// finished synchronisation and "manual" from the menu; it never blocks and never throws.

#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace trelvane {

class Settings;

namespace AppLog {

enum class Mode {
    // The desktop app: stdout (unbuffered) and stderr both go to the file, so every print lands there.
    redirectStdio,
    // The command-line tool keeps its terminal: an EngineLog sink appends each line to the file.
    fileOnly,
};

// Opens `Trelvane.log` in UserDirs::dataDir() (made with parents), truncated, never through a
// link; the user's own folder "trelvane-<uid>" (mode 0700) in the system's temporary folder
// serves when that folder can't be made or the file can't be opened there. If neither works
// logPath() stays empty and the log stays on stdout (Mode::redirectStdio) or is dropped
// (Mode::fileOnly, whose stdout carries the command's results). Then writes
// "[Trelvane] log start <ISO 8601 date> — v<version> — <OS version>".
void start(Mode mode);
// Closes the file and, in Mode::fileOnly, removes the sink; stdout stays where it was sent. For
// tests and orderly shutdown.
void stop();
// The file in use since `start`; empty before.
std::filesystem::path logPath();
// Appends one whole line (a newline is added) to the file; stdout before `start`. Thread-safe.
void write(const std::string& line);

// uname's system name and release: "Linux 6.1.0-18-amd64".
std::string osVersionString();

// The "tv_diag_upload" setting, true when absent.
bool diagnosticsEnabled(const Settings& settings);

// Replaces the home folder by "~" (unless it is empty or "/"), then every "/Users/<name>" and
// "/home/<name>" (the name: bytes other than '/', '"' and ASCII white space) by "~", so that no
// user name leaves the machine.
std::string redactPaths(std::string text, const std::string& home);

// application/x-www-form-urlencoded: keys and values percent-encoded byte by byte (upper-case hex),
// only ASCII letters, digits and "-._~" left as they are; joined with "=" and "&".
std::string formEncode(const std::vector<std::pair<std::string, std::string>>& fields);

// $TRELVANE_DIAG_URL when set and non-empty, else the "tv_diag_endpoint" setting when non-empty.
std::optional<std::string> diagnosticsEndpoint(const Settings& settings);

// A blocking HTTPS POST with a form body: certificates verified (against `caFile` as well when
// given), redirects followed to HTTPS only, 60 s time-out. True when a 2xx answer came back.
bool postForm(const std::string& url, const std::string& body, const std::string& caFile = {});

// Sends the redacted log with version, OS and reason to the diagnostics endpoint on a detached
// thread, fire and forget. Nothing is sent when diagnostics are off, no endpoint is configured
// (one log line) or the endpoint is not HTTPS (one log line); the future is then ready with false.
// $TRELVANE_DIAG_CA names an extra CA file for private endpoints. The settings are read before
// returning, so they need not outlive the call. The future tells whether a 2xx answer came back;
// callers may drop it.
std::future<bool> upload(const std::string& reason, const Settings& settings);

} // namespace AppLog
} // namespace trelvane
