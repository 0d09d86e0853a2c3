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

Temporary writeTemporaryBeside(const std::filesystem::path& path, const std::string& bytes) {
    Temporary temp{path};
    // Built by appending: GCC 12 at -O3 misreads `"." + std::string&&` as an overlapping copy.
    std::string name = ".";
    name += path.filename().string();
    name += ".tmp-";
    name += Uuid::random().string();
    temp.path.replace_filename(name);
    const int fd = ::open(temp.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        temp.error = errno;
        return temp;
    }
    const bool written = writeAll(fd, bytes.data(), bytes.size()) && ::fsync(fd) == 0;
    if (!written) temp.error = errno;
    if (::close(fd) != 0 && written) temp.error = errno;
    if (temp.error != 0) ::unlink(temp.path.c_str());
    return temp;
}

void syncFolderOf(const std::filesystem::path& path) {
    const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    if (const int dfd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
}

std::optional<std::string> writeAtomically(const std::filesystem::path& path, const std::string& bytes) {
    std::error_code ec;
    if (path.has_parent_path()) {
        std::filesystem::create_directories(path.parent_path(), ec);
        if (ec) return ec.message();
    }
    const Temporary temp = writeTemporaryBeside(path, bytes);
    if (temp.error != 0) return std::string(std::strerror(temp.error));
    if (::rename(temp.path.c_str(), path.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        ::unlink(temp.path.c_str());
        return reason;
    }
    syncFolderOf(path);
    return std::nullopt;
}

} // namespace trelvane::Files
