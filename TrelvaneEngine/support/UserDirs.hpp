// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <filesystem>

namespace trelvane::UserDirs {

// The one place that decides where the user's files live, following the XDG base directories:
// $XDG_DATA_HOME or ~/.local/share, $XDG_CONFIG_HOME or ~/.config, $XDG_CACHE_HOME or ~/.cache.
// A variable that is set but not absolute is ignored, as the XDG rules ask. Without a home
// directory, the system's temporary directory stands in. Each result ends in "Trelvane".
std::filesystem::path dataDir();
std::filesystem::path configDir();
std::filesystem::path cacheDir();
// The user's home directory, or empty when the environment does not tell it.
std::filesystem::path homeDir();

} // namespace trelvane::UserDirs
