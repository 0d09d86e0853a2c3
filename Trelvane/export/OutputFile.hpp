// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The one way the program writes a file of its own: the session report, the documents for the
// editors, anything later. Media are only ever read, so a file of the session is never written,
// whatever it is called; an existing file is replaced only when the user said so; no folder is
// made. What the path names decides how it is written:
//
// - Nothing yet, or a regular file: a temporary file in the same folder, flushed to disk, then
//   moved onto the path, so that a reader sees the old file or the whole new one. An existing file
//   only with `force`; without it the move fails rather than replace a file that appeared
//   meanwhile. On any failure nothing is left behind and an existing file is untouched.
// - A link: judged by what it leads to. A file behind a link is replaced where it lies, so the
//   link stays a link. A link that leads nowhere is refused.
// - A descriptor the program already holds: "-" and /dev/stdout (standard output), /dev/stderr,
//   /dev/fd/N and /proc/self/fd/N (what a shell passes for `>(jq .)`): written through it.
// - A pipe or FIFO, a terminal, /dev/null or /dev/full: opened without creating or truncating and
//   written in place; nothing is replaced, so `force` is not needed. A FIFO nobody reads from is
//   waited for a few seconds, then refused.
// - A folder, a block device, any other device or a socket: refused.
//
// Failures throw OutputError, whose message is the sentence to show the user.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace trelvane {

class OutputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

namespace OutputFile {

// Everything that can be told before the bytes exist: the folder, the kind of file, a media file
// of `sources` under any of its names (a link to it, a hard link, the path itself), an existing
// file without `force`. Throws OutputError; writes nothing.
void check(const std::filesystem::path& path, bool force, const std::vector<TrackSource>& sources);

// `check`, then every byte as described above. Throws OutputError.
void write(const std::filesystem::path& path, const std::string& bytes, bool force,
           const std::vector<TrackSource>& sources);

// Whether the path names the program's standard output: "-", /dev/stdout, /dev/fd/1 or
// /proc/self/fd/1. A command that writes there keeps its other output off standard output.
bool isStandardOutput(const std::filesystem::path& path);

// Whether the path is written in place rather than replaced: a descriptor name, or an existing
// pipe, terminal or device (what `check` refuses included). Such a path keeps its name as given.
bool isStream(const std::filesystem::path& path);

} // namespace OutputFile
} // namespace trelvane
