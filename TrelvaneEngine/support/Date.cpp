// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/Date.hpp"

#include <cmath>
#include <ctime>
#include <fmt/format.h>
#include <sys/stat.h>

namespace trelvane {

namespace {

struct Split {
    std::time_t seconds;
    int millis;
};

Split split(Date date) {
    const auto us = date.time_since_epoch().count();
    auto secs = us / 1'000'000;
    auto rem = us % 1'000'000;
    if (rem < 0) {
        rem += 1'000'000;
        secs -= 1;
    }
    return {static_cast<std::time_t>(secs), static_cast<int>(rem / 1000)};
}

} // namespace

Date dateNow() {
    return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

Date dateFromUnixSeconds(double seconds) {
    return Date(std::chrono::microseconds(static_cast<long long>(std::llround(seconds * 1e6))));
}

double unixSeconds(Date date) {
    return static_cast<double>(date.time_since_epoch().count()) / 1e6;
}

std::string iso8601(Date date) {
    const Split s = split(date);
    std::tm tm{};
    localtime_r(&s.seconds, &tm);
    const long off = tm.tm_gmtoff;
    const long offAbs = off < 0 ? -off : off;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}:{:02}", tm.tm_year + 1900,
                       tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, s.millis,
                       off < 0 ? '-' : '+', offAbs / 3600, (offAbs % 3600) / 60);
}

std::string iso8601UTC(Date date) {
    const Split s = split(date);
    std::tm tm{};
    gmtime_r(&s.seconds, &tm);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", tm.tm_year + 1900, tm.tm_mon + 1,
                       tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, s.millis);
}

std::string formatClockTime(Date date) {
    const Split s = split(date);
    std::tm tm{};
    localtime_r(&s.seconds, &tm);
    int hour = tm.tm_hour % 12;
    if (hour == 0) hour = 12;
    return fmt::format("{}:{:02} {}", hour, tm.tm_min, tm.tm_hour < 12 ? "AM" : "PM");
}

std::optional<Date> fileCreationDate(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    const long long us = static_cast<long long>(st.st_mtim.tv_sec) * 1'000'000 + st.st_mtim.tv_nsec / 1000;
    return Date(std::chrono::microseconds(us));
}

} // namespace trelvane
