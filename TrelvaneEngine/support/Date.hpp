// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace trelvane {

// A point in time with microsecond precision (recording clocks need milliseconds at least).
using Date = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

Date dateNow();
Date dateFromUnixSeconds(double seconds);
double unixSeconds(Date date);

// ISO 8601 in the system's time zone with milliseconds and offset: "2026-05-01T14:03:07.250+02:00".
std::string iso8601(Date date);
// ISO 8601 in UTC with milliseconds: "2026-05-01T12:03:07.250Z".
std::string iso8601UTC(Date date);
// The clock time as "h:mm a" in the POSIX English locale and the system's time zone: "2:03 PM".
std::string formatClockTime(Date date);

// The date the file system gives for a file's making. On Linux a file's birth time is the moment
// it was copied off the card, while copies that keep times (cp -p, rsync -t, card import tools)
// keep the modification time, which is then the closest thing to the recording clock. So the
// modification time stands in for the creation date. Nothing for a file that can't be read.
std::optional<Date> fileCreationDate(const std::filesystem::path& path);

} // namespace trelvane
