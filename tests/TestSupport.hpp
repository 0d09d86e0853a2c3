// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Small helpers shared by the tests: a temporary folder that cleans up after itself, file makers,
// and a capture of the engine log.

#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace trelvane::test {

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "trelvane-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        // Folders made unreadable by a test must be opened again to be removed.
        for (auto it = std::filesystem::recursive_directory_iterator(
                 path_, std::filesystem::directory_options::skip_permission_denied, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& rel) const { return path_ / rel; }

    // Makes the file (and its folders) with the given bytes.
    std::filesystem::path file(const std::string& rel, const std::string& bytes = "x") const {
        const auto p = path_ / rel;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << bytes;
        return p;
    }
    std::filesystem::path dir(const std::string& rel) const {
        const auto p = path_ / rel;
        std::filesystem::create_directories(p);
        return p;
    }

  private:
    std::filesystem::path path_;
};

// Collects the engine's log lines while alive.
class LogCapture {
  public:
    LogCapture() {
        EngineLog::setSink([this](const std::string& line) {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
        });
    }
    ~LogCapture() { EngineLog::resetSink(); }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    bool contains(const std::string& line) const {
        const auto l = lines();
        return std::find(l.begin(), l.end(), line) != l.end();
    }
    int countStartingWith(const std::string& prefix) const {
        const auto l = lines();
        return static_cast<int>(
            std::count_if(l.begin(), l.end(), [&](const std::string& s) { return s.starts_with(prefix); }));
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// The moment as the machine's local clock reads it.
inline Date localDate(int y, int mo, int d, int h, int mi, int s) {
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    tm.tm_isdst = -1;
    return Date(std::chrono::seconds(std::mktime(&tm)));
}

// The whole content of a file, as bytes; empty when it can't be read.
inline std::string slurp(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Quoted for the shell.
inline std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Sets (or with nothing, unsets) an environment variable for the life of the object.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            ::setenv(name_.c_str(), old_->c_str(), 1);
        else
            ::unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string name_;
    std::optional<std::string> old_;
};

} // namespace trelvane::test
