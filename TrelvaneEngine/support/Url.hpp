// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <compare>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace trelvane {

// The bytes a percent-encoding leaves as they are; the sets grow from one to the next.
enum class UrlChars {
    unreserved, // letters, digits and "-._~": a form field's key or value
    path,       // those and "!$&'()*+,/:;=@": the path of a file URL
    printable,  // every printable ASCII character but "%": exact bytes told beside a repaired text
};

// Every byte outside `keep` as "%XX" in upper-case hex, non-ASCII bytes one by one; "%" itself is
// always encoded, so the result decodes back to `bytes` exactly.
std::string percentEncoded(std::string_view bytes, UrlChars keep);

// A file URL: a value over an absolute, lexically normalised path. Two URLs are equal exactly when
// their paths are; nothing touches the file system. Paths are kept as the bytes the OS gave, so a
// name that is not valid UTF-8 survives untouched.
class Url {
  public:
    Url() = default;
    // A relative path is made absolute against the current directory; "." and ".." are folded.
    static Url fromPath(const std::filesystem::path& path);
    static Url fromPath(const std::string& path) { return fromPath(std::filesystem::path(path)); }
    static Url fromPath(const char* path) { return fromPath(std::filesystem::path(path)); }

    const std::string& path() const { return path_; }
    std::filesystem::path fsPath() const { return std::filesystem::path(path_); }
    bool isEmpty() const { return path_.empty(); }

    // "/a/b/clip.MOV" -> "clip.MOV"; "/" -> "/".
    std::string lastPathComponent() const;
    // "clip.MOV" -> "MOV"; no dot, or a name that only starts with a dot -> "".
    std::string pathExtension() const;
    Url deletingLastPathComponent() const;
    Url deletingPathExtension() const;
    Url appending(const std::string& component) const;
    // The last path component without its extension.
    std::string baseName() const;

    auto operator<=>(const Url&) const = default;
    bool operator==(const Url&) const = default;

  private:
    explicit Url(std::string p) : path_(std::move(p)) {}
    std::string path_;
};

} // namespace trelvane

template <> struct std::hash<trelvane::Url> {
    std::size_t operator()(const trelvane::Url& u) const noexcept {
        return std::hash<std::string>{}(u.path());
    }
};
