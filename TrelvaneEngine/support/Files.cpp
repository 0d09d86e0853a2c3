// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <system_error>

namespace trelvane::Files {

std::optional<std::vector<Entry>> listDirectory(const std::filesystem::path& folder) {
    std::error_code ec;
    std::filesystem::directory_iterator it(folder, std::filesystem::directory_options::none, ec);
    if (ec) return std::nullopt;
    std::vector<Entry> out;
    for (const std::filesystem::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) return std::nullopt;
        std::string name = it->path().filename().string();
        if (isHidden(name)) continue;
        std::error_code sec;
        const bool dir = it->is_directory(sec) && !it->is_symlink(sec);
        out.push_back(Entry{it->path(), std::move(name), dir});
    }
    if (ec) return std::nullopt;
    std::sort(out.begin(), out.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return out;
}

Kind kindOf(const std::filesystem::path& path) {
    std::error_code ec;
    const auto st = std::filesystem::status(path, ec);
    if (ec || !std::filesystem::exists(st)) return {};
    return {true, std::filesystem::is_directory(st)};
}

std::string lowercased(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return s;
}

} // namespace trelvane::Files
