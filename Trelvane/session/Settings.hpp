// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The user's preferences: one JSON object in `settings.json` under the config folder.
//
// Lifecycle: made once by the application (or by a test, pointed at a temporary folder), it loads
// the file in its constructor and answers every read from memory. Any thread may read or write;
// the controller reads on the main thread while a diagnostics upload reads on a worker.
//
// Failure modes: an absent file gives the defaults, silently. A file that can't be read or isn't a
// JSON object gives the defaults and one log line, and stays on disk untouched until a setting is
// changed; the change then replaces it with a valid document. A failed write is one log line and
// keeps the new value in memory. Nothing here throws.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace trelvane {

class Settings {
  public:
    // "tracks" (sync placement) or "stacks"; any other text reads as "tracks".
    static constexpr std::string_view kSyncModeKey = "tvSyncMode";
    // Whether gaps between synced clips are closed after placement; true by default.
    static constexpr std::string_view kAutoCloseGapsKey = "tvAutoCloseGaps";
    // Whether diagnostics reports may leave the machine; true by default.
    static constexpr std::string_view kDiagUploadKey = "tv_diag_upload";
    // HTTPS address of the diagnostics service; empty (none) by default.
    static constexpr std::string_view kDiagEndpointKey = "tv_diag_endpoint";
    // The most the feature cache may hold, in GB (2^30 bytes; fractions allowed); 2 by default.
    static constexpr std::string_view kCacheMaxGBKey = "tvCacheMaxGB";
    // Where the editor panels go; unset by default, so that nothing is installed anywhere unasked.
    // The DaVinci Resolve base folder (its panels go under "Workflow Integration Plugins" in it).
    static constexpr std::string_view kResolvePluginsRootKey = "tvResolvePluginsRoot";
    // The folder where Premiere Pro looks for CEP extensions.
    static constexpr std::string_view kPremiereExtensionsRootKey = "tvPremiereExtensionsRoot";

    static constexpr std::string_view kSyncModeTracks = "tracks";
    static constexpr std::string_view kSyncModeStacks = "stacks";

    // `Writes::inMemoryOnly`: the file is read but never written; changes last as long as the
    // object. The command-line tool uses it so that its flags never rewrite the user's settings.
    enum class Writes { toFile, inMemoryOnly };
    explicit Settings(std::filesystem::path file, Writes writes = Writes::toFile);
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    // `settings.json` in UserDirs::configDir().
    static std::filesystem::path defaultPath();

    // The stored value when it has the right type, else the key's default (false / "" for a key
    // without one).
    bool boolValue(std::string_view key) const;
    std::string stringValue(std::string_view key) const;
    // The stored string, or nothing when the key is absent or holds another type. Defaults don't
    // apply here, so that callers can tell "never set" from "set".
    std::optional<std::string> optionalString(std::string_view key) const;
    // The stored number, or nothing when the key is absent or holds another type.
    std::optional<double> optionalNumber(std::string_view key) const;

    // The feature cache's ceiling in bytes: the environment variable TRELVANE_CACHE_MAX_GB when it
    // holds a number of GB, else `kCacheMaxGBKey`, else 2 GB. Negative or unreadable values are
    // ignored; 0 keeps no entry past the run that wrote it.
    std::int64_t cacheCeilingBytes() const;

    // Each change is written to disk at once, atomically (temporary file, fsync, rename).
    void setBool(std::string_view key, bool value);
    void setString(std::string_view key, std::string value);
    void remove(std::string_view key);

    // Re-reads the file, with the same rules as the constructor.
    void reload();

    const std::filesystem::path& path() const { return path_; }

  private:
    void loadLocked();
    void saveLocked();

    const std::filesystem::path path_;
    const Writes writes_;
    mutable std::mutex mutex_;
    // Guarded by mutex_: always a JSON object, holding unknown keys too so that writes keep them.
    nlohmann::json document_;
};

} // namespace trelvane
