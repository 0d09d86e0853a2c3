// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/Files.hpp"
#include "TrelvaneEngine/support/Uuid.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

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

bool writeAll(int fd, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, bytes + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false; // a write that moves nothing would loop for ever
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<std::string> writeAtomically(const std::filesystem::path& path, const std::string& bytes) {
    std::error_code ec;
    const auto folder = path.parent_path();
    if (!folder.empty()) {
        std::filesystem::create_directories(folder, ec);
        if (ec) return ec.message();
    }
    auto temp = path;
    // Built by appending: GCC 12 at -O3 misreads `"." + std::string&&` as an overlapping copy.
    std::string tempName = ".";
    tempName += path.filename().string();
    tempName += ".tmp-";
    tempName += Uuid::random().string();
    temp.replace_filename(tempName);
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return std::string(std::strerror(errno));
    if (!writeAll(fd, bytes.data(), bytes.size()) || ::fsync(fd) != 0) {
        const std::string reason = std::strerror(errno);
        ::close(fd);
        ::unlink(temp.c_str());
        return reason;
    }
    if (::close(fd) != 0 || ::rename(temp.c_str(), path.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        ::unlink(temp.c_str());
        return reason;
    }
    const auto folderToSync = folder.empty() ? std::filesystem::path(".") : folder;
    if (const int dfd = ::open(folderToSync.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return std::nullopt;
}

} // namespace trelvane::Files
