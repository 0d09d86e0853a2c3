// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/Settings.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/UserDirs.hpp"
#include "TrelvaneEngine/support/Uuid.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace trelvane {

namespace {

// A settings file is a few hundred bytes; anything near these limits is not one of ours, and
// refusing it early keeps a hostile file from costing memory or stack.
constexpr std::size_t kMaxFileBytes = 16 * 1024 * 1024;
constexpr std::size_t kMaxDepth = 64;

bool defaultBool(std::string_view key) {
    return key == Settings::kAutoCloseGapsKey || key == Settings::kDiagUploadKey;
}

std::string defaultString(std::string_view key) {
    if (key == Settings::kSyncModeKey) return std::string(Settings::kSyncModeTracks);
    return {};
}

// Parser messages may quote the offending bytes, which need not be UTF-8; the log stays UTF-8.
std::string asciiOnly(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) >= 0x80) c = '?';
    return text;
}

// The whole file, or nothing with errno's reason. An absent file is reported as ENOENT.
std::optional<std::string> readFile(const std::filesystem::path& path, int& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return std::nullopt;
    }
    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = errno;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
        if (text.size() > kMaxFileBytes) {
            error = EFBIG;
            ::close(fd);
            return std::nullopt;
        }
    }
    ::close(fd);
    return text;
}

} // namespace

Settings::Settings(std::filesystem::path file, Writes writes)
    : path_(std::move(file)), writes_(writes), document_(nlohmann::json::object()) {
    std::lock_guard lock(mutex_);
    loadLocked();
}

std::filesystem::path Settings::defaultPath() {
    return UserDirs::configDir() / "settings.json";
}

void Settings::reload() {
    std::lock_guard lock(mutex_);
    loadLocked();
}

void Settings::loadLocked() {
    document_ = nlohmann::json::object();
    int error = 0;
    const auto text = readFile(path_, error);
    if (!text) {
        if (error != ENOENT)
            EngineLog::logf("[Settings] could not read %s: %s — using defaults", path_.string(),
                            std::strerror(error));
        return;
    }
    try {
        const nlohmann::json::parser_callback_t limitDepth = [](int depth, nlohmann::json::parse_event_t,
                                                                nlohmann::json&) {
            if (static_cast<std::size_t>(depth) > kMaxDepth)
                throw std::length_error("nesting deeper than " + std::to_string(kMaxDepth) + " levels");
            return true;
        };
        auto parsed = nlohmann::json::parse(*text, limitDepth);
        if (!parsed.is_object()) throw std::invalid_argument("not a JSON object");
        document_ = std::move(parsed);
    } catch (const std::exception& e) {
        document_ = nlohmann::json::object();
        EngineLog::logf("[Settings] could not read %s: %s — using defaults", path_.string(),
                        asciiOnly(e.what()));
    }
}

void Settings::saveLocked() {
    if (writes_ == Writes::inMemoryOnly) return;
    std::string bytes;
    try {
        // Replacement characters rather than an exception for text that isn't UTF-8.
        bytes = document_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    } catch (const std::exception& e) {
        EngineLog::logf("[Settings] could not write %s: %s", path_.string(), asciiOnly(e.what()));
        return;
    }
    if (const auto failure = Files::writeAtomically(path_, bytes))
        EngineLog::logf("[Settings] could not write %s: %s", path_.string(), *failure);
}

bool Settings::boolValue(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto it = document_.find(key);
    if (it == document_.end() || !it->is_boolean()) return defaultBool(key);
    return it->get<bool>();
}

std::string Settings::stringValue(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto it = document_.find(key);
    if (it == document_.end() || !it->is_string()) return defaultString(key);
    auto value = it->get<std::string>();
    if (key == kSyncModeKey && value != kSyncModeTracks && value != kSyncModeStacks)
        return defaultString(key);
    return value;
}

std::optional<std::string> Settings::optionalString(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto it = document_.find(key);
    if (it == document_.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<double> Settings::optionalNumber(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto it = document_.find(key);
    if (it == document_.end() || !it->is_number()) return std::nullopt;
    return it->get<double>();
}

std::int64_t Settings::cacheCeilingBytes() const {
    // A petabyte is beyond any disk the cache will meet, and keeps the product within 64 bits.
    constexpr double kMostGB = 1024.0 * 1024.0;
    const auto usable = [&](std::optional<double> gb) -> std::optional<std::int64_t> {
        if (!gb || !std::isfinite(*gb) || *gb < 0 || *gb > kMostGB) return std::nullopt;
        return static_cast<std::int64_t>(*gb * 1073741824.0);
    };
    if (const char* text = std::getenv("TRELVANE_CACHE_MAX_GB"); text && *text) {
        char* end = nullptr;
        const double gb = std::strtod(text, &end);
        if (end && *end == '\0')
            if (const auto bytes = usable(gb)) return *bytes;
    }
    return usable(optionalNumber(kCacheMaxGBKey)).value_or(EnvelopeCache::kCeilingBytes);
}

void Settings::setBool(std::string_view key, bool value) {
    std::lock_guard lock(mutex_);
    document_[std::string(key)] = value;
    saveLocked();
}

void Settings::setString(std::string_view key, std::string value) {
    std::lock_guard lock(mutex_);
    document_[std::string(key)] = std::move(value);
    saveLocked();
}

void Settings::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    const auto it = document_.find(key);
    if (it == document_.end()) return;
    document_.erase(it);
    saveLocked();
}

} // namespace trelvane
