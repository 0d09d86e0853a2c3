// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/UserDirs.hpp"

#include <cstdlib>
#include <pwd.h>
#include <system_error>
#include <unistd.h>

namespace trelvane::UserDirs {

namespace {

std::filesystem::path base(const char* variable, const char* homeRelative) {
    if (const char* v = std::getenv(variable); v && v[0] == '/') return std::filesystem::path(v);
    const auto home = homeDir();
    if (!home.empty()) return home / homeRelative;
    std::error_code ec;
    auto tmp = std::filesystem::temp_directory_path(ec);
    return ec ? std::filesystem::path("/tmp") : tmp;
}

} // namespace

std::filesystem::path homeDir() {
    if (const char* h = std::getenv("HOME"); h && h[0] == '/') return std::filesystem::path(h);
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir && pw->pw_dir[0] == '/')
        return std::filesystem::path(pw->pw_dir);
    return {};
}

std::filesystem::path dataDir() {
    return base("XDG_DATA_HOME", ".local/share") / "Trelvane";
}
std::filesystem::path configDir() {
    return base("XDG_CONFIG_HOME", ".config") / "Trelvane";
}
std::filesystem::path cacheDir() {
    return base("XDG_CACHE_HOME", ".cache") / "Trelvane";
}

} // namespace trelvane::UserDirs
