// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/OutputFile.hpp"

#include "TrelvaneEngine/support/Files.hpp"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/printf.h>
#include <iostream>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace trelvane::OutputFile {

namespace fs = std::filesystem;

namespace {

// How long a FIFO is given to find a reader.
constexpr auto kReaderWait = std::chrono::seconds(5);

[[noreturn]] void fail(const std::string& message) {
    throw OutputError(message);
}

[[noreturn]] void failWrite(const fs::path& path, int error) {
    fail(fmt::sprintf("Cannot write \"%s\": %s", path.string(), std::strerror(error)));
}

[[noreturn]] void failExists(const fs::path& path) {
    fail(fmt::sprintf("\"%s\" already exists; export with --force to replace it", path.string()));
}

[[noreturn]] void failMedia(const fs::path& path) {
    fail(fmt::sprintf("\"%s\" is a media file of this session; choose another name", path.string()));
}

// The descriptor that a name of an open descriptor stands for.
std::optional<int> descriptorOf(const fs::path& path) {
    const std::string& text = path.native();
    if (text == "-" || text == "/dev/stdout") return STDOUT_FILENO;
    if (text == "/dev/stderr") return STDERR_FILENO;
    for (const std::string_view prefix : {"/dev/fd/", "/proc/self/fd/"}) {
        if (!text.starts_with(prefix) || text.size() == prefix.size()) continue;
        const char* first = text.data() + prefix.size();
        const char* last = text.data() + text.size();
        int fd = -1;
        const auto [end, ec] = std::from_chars(first, last, fd);
        if (ec == std::errc() && end == last) return fd;
    }
    return std::nullopt;
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The path with links and "." / ".." resolved as far as it exists, for comparing two names of one file.
fs::path resolved(const fs::path& path) {
    std::error_code ec;
    auto r = fs::weakly_canonical(path, ec);
    return ec ? fs::absolute(path, ec).lexically_normal() : r;
}

// By name, through links, or as one file under two names (a hard link, or a descriptor opened on it).
bool isSessionMedia(const std::vector<TrackSource>& sources, const fs::path& name, const struct stat* file) {
    const fs::path target = name.empty() ? fs::path() : resolved(name);
    const auto same = [&](const Url& url) {
        if (url.isEmpty()) return false;
        if (!target.empty() && resolved(url.fsPath()) == target) return true;
        struct stat media {};
        return file && ::stat(url.fsPath().c_str(), &media) == 0 && sameFile(media, *file);
    };
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            if (same(clip.url) || (clip.pictureURL && same(*clip.pictureURL))) return true;
    return false;
}

// Character devices that take bytes without harm: /dev/null, /dev/full and terminals (Linux's
// numbers: the serial and virtual consoles, /dev/tty and the pseudo-terminals).
bool isWritableDevice(dev_t device) {
    const auto high = major(device);
    const auto low = minor(device);
    if (high == 1) return low == 3 || low == 7;
    return high == 4 || high == 5 || (high >= 136 && high <= 143);
}

enum class Way { descriptor, inPlace, replace };

struct Plan {
    Way way = Way::replace;
    // What is opened or replaced: links followed for a file that is replaced.
    fs::path file;
    int fd = -1;
    struct stat st {};
};

Plan plan(const fs::path& path, bool force, const std::vector<TrackSource>& sources) {
    Plan p;
    p.file = path;
    if (const auto fd = descriptorOf(path)) {
        p.way = Way::descriptor;
        p.fd = *fd;
        if (::fstat(p.fd, &p.st) != 0) failWrite(path, errno);
        if (isSessionMedia(sources, {}, &p.st)) failMedia(path);
        return p;
    }
    struct stat entry {};
    if (::lstat(path.c_str(), &entry) != 0) {
        if (errno != ENOENT) failWrite(path, errno);
        const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
        struct stat st {};
        if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            fail(fmt::sprintf("The folder \"%s\" does not exist", folder.string()));
        if (isSessionMedia(sources, path, nullptr)) failMedia(path);
        return p;
    }
    p.st = entry;
    if (S_ISLNK(entry.st_mode)) {
        if (::stat(path.c_str(), &p.st) != 0) {
            if (errno == ENOENT) fail(fmt::sprintf("\"%s\" is a link that leads nowhere", path.string()));
            failWrite(path, errno);
        }
        if (S_ISREG(p.st.st_mode)) {
            std::error_code ec;
            p.file = fs::canonical(path, ec);
            if (ec) failWrite(path, ec.value());
        }
    }
    if (isSessionMedia(sources, path, &p.st)) failMedia(path);
    if (S_ISDIR(p.st.st_mode)) fail(fmt::sprintf("\"%s\" is a folder", path.string()));
    if (S_ISREG(p.st.st_mode)) {
        if (!force) failExists(path);
        return p;
    }
    if (S_ISFIFO(p.st.st_mode) || (S_ISCHR(p.st.st_mode) && isWritableDevice(p.st.st_rdev))) {
        p.way = Way::inPlace;
        return p;
    }
    fail(fmt::sprintf("\"%s\" is not a file Trelvane writes to", path.string()));
}

void writeThroughDescriptor(const Plan& p, const fs::path& path, const std::string& bytes) {
    if (p.fd == STDOUT_FILENO) {
        // What the program printed before goes out first.
        std::cout.flush();
        std::fflush(stdout);
    }
    if (!Files::writeAll(p.fd, bytes.data(), bytes.size())) failWrite(path, errno);
}

void writeInPlace(const Plan& p, const fs::path& path, const std::string& bytes) {
    // Never created, never truncated; without a reader a FIFO's open fails instead of blocking.
    int fd = -1;
    const auto until = std::chrono::steady_clock::now() + kReaderWait;
    while ((fd = ::open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) < 0) {
        if (errno == EINTR) continue;
        if (errno != ENXIO || !S_ISFIFO(p.st.st_mode)) failWrite(path, errno);
        if (std::chrono::steady_clock::now() >= until)
            fail(fmt::sprintf("Cannot write \"%s\": nothing reads from it", path.string()));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    struct stat opened {};
    // What was opened must be what was checked: a regular file swapped in meanwhile would be
    // written over from its start.
    if (::fstat(fd, &opened) != 0 || !sameFile(opened, p.st)) {
        ::close(fd);
        fail(fmt::sprintf("Cannot write \"%s\": it changed while being written", path.string()));
    }
    if (const int flags = ::fcntl(fd, F_GETFL); flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    if (!Files::writeAll(fd, bytes.data(), bytes.size())) {
        const int error = errno;
        ::close(fd);
        failWrite(path, error);
    }
    if (::close(fd) != 0) failWrite(path, errno);
}

// A temporary file in the target's folder (a rename is only atomic within one file system), flushed,
// then moved onto the target. Without `replace` the move is a hard link, which fails rather than
// replace a file that appeared meanwhile.
void writeAtomically(const fs::path& file, const fs::path& shown, const std::string& bytes, bool replace) {
    const Files::Temporary written = Files::writeTemporaryBeside(file, bytes);
    if (written.error != 0) failWrite(shown, written.error);
    const fs::path& temp = written.path;
    if (!replace) {
        if (::link(temp.c_str(), file.c_str()) == 0) {
            ::unlink(temp.c_str());
        } else if (errno == EEXIST) {
            ::unlink(temp.c_str());
            failExists(shown);
        } else {
            // File systems without hard links: the existence check before writing has to do.
            struct stat st {};
            if (::lstat(file.c_str(), &st) == 0) {
                ::unlink(temp.c_str());
                failExists(shown);
            }
            replace = true;
        }
    }
    if (replace && ::rename(temp.c_str(), file.c_str()) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        failWrite(shown, error);
    }
    Files::syncFolderOf(file);
}

} // namespace

void check(const fs::path& path, bool force, const std::vector<TrackSource>& sources) {
    (void)plan(path, force, sources);
}

void write(const fs::path& path, const std::string& bytes, bool force,
           const std::vector<TrackSource>& sources) {
    const Plan p = plan(path, force, sources);
    switch (p.way) {
    case Way::descriptor:
        writeThroughDescriptor(p, path, bytes);
        return;
    case Way::inPlace:
        writeInPlace(p, path, bytes);
        return;
    case Way::replace:
        writeAtomically(p.file, path, bytes, force);
        return;
    }
}

bool isStandardOutput(const fs::path& path) {
    return descriptorOf(path) == STDOUT_FILENO;
}

bool isStream(const fs::path& path) {
    if (descriptorOf(path)) return true;
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode);
}

} // namespace trelvane::OutputFile
