// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace trelvane::Files {

struct Entry {
    std::filesystem::path path;
    std::string name;
    // The entry itself, links not followed: a link to a folder is not a folder here, so that a
    // walk over a dropped tree can never loop through a link.
    bool isDirectory = false;
};

// The entries of one folder without hidden ones (names starting with "."), ordered by name bytes
// so that every run sees the same order. Nothing for a folder that can't be listed.
std::optional<std::vector<Entry>> listDirectory(const std::filesystem::path& folder);

struct Kind {
    bool exists = false;
    bool isDirectory = false;
};
// Existence and directory flag, following links (a dropped link to a folder is that folder).
Kind kindOf(const std::filesystem::path& path);

// Whether the name is hidden from listings.
inline bool isHidden(const std::string& name) {
    return !name.empty() && name.front() == '.';
}

// Writes every byte to `fd`, going on after interrupted calls. False on the first error (errno
// tells which).
bool writeAll(int fd, const void* data, std::size_t size);

// A new hidden file beside `path` (".name.tmp-<random>", opened without following links) holding
// `bytes`, flushed to disk; `error` is 0, or the errno of the failure, which leaves no file behind.
struct Temporary {
    std::filesystem::path path;
    int error = 0;
};
Temporary writeTemporaryBeside(const std::filesystem::path& path, const std::string& bytes);

// Flushes the folder holding `path`, so that a rename into it survives a power cut.
void syncFolderOf(const std::filesystem::path& path);

// Writes `bytes` to `path` so that a reader sees the old file or the new one, never half of one:
// a temporary file in the same folder (a rename is only atomic within one file system), fsync,
// rename over, then fsync of the folder so the rename itself survives a power cut. Creates the
// folder. Returns the reason on failure, leaving no temporary file behind.
std::optional<std::string> writeAtomically(const std::filesystem::path& path, const std::string& bytes);

// Lower-cased ASCII copy; other bytes (UTF-8 sequences included) stay as they are.
std::string lowercased(std::string s);

} // namespace trelvane::Files
