// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The chunk walk of a WAVE file: "RIFF"/"WAVE" and its 64-bit forms "RF64" and "BW64"/"WAVE",
// whose chunk sizes of 0xFFFFFFFF stand in the "ds64" chunk. It reads what the recorders write
// about a take: the "fmt " chunk, the Broadcast WAV "bext" chunk (originator, origination date and
// time, time reference) and the iXML chunk. Nothing is thrown: a file that is not a WAVE file, or
// that can't be read, gives nothing.
//
// Bounded whatever the file says: only chunk headers and the few chunks named here are read, each
// capped (kMaxBextBytes, kMaxIxmlBytes), the walk ends at the real end of the file or after
// kMaxChunks chunks, and no allocation is sized by a number read from the file without a cap.

#include "TrelvaneEngine/support/Url.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane {

// A regular file open for positioned reads, closed when destroyed. It is opened without blocking
// and refused unless it is a regular file, so that a pipe or device named like a media file can't
// stall a reader. Shared by the readers of this folder that look at raw bytes.
class ReadOnlyFile {
  public:
    // Nothing for a missing path, a folder, a pipe, a device or a file that can't be opened.
    static std::optional<ReadOnlyFile> open(const Url& url);
    ReadOnlyFile(ReadOnlyFile&& other) noexcept;
    ReadOnlyFile& operator=(ReadOnlyFile&&) = delete;
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ~ReadOnlyFile();

    // The size when opened.
    std::uint64_t size() const { return size_; }
    // Copies what is there from `offset` on; fewer bytes than asked at the end or on a failed read.
    std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> out) const;
    // Up to `maxBytes` from `offset`; the buffer is never larger than what the file holds there.
    std::vector<std::uint8_t> read(std::uint64_t offset, std::size_t maxBytes) const;

  private:
    ReadOnlyFile(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
    int fd_ = -1;
    std::uint64_t size_ = 0;
};

} // namespace trelvane

namespace trelvane::RiffReader {

// A "bext" chunk shorter than this lacks OriginationDate (offset 320, 10 bytes) and
// OriginationTime (offset 330, 8 bytes) and is ignored altogether.
inline constexpr std::size_t kMinBextBytes = 338;
// TimeReference, the 64-bit little-endian sample count since midnight, ends here.
inline constexpr std::size_t kBextTimeReferenceEnd = 346;
// Of a "bext" chunk only the fixed part up to the UMID is read; coding history is never needed.
inline constexpr std::size_t kMaxBextBytes = 602;
// An iXML document longer than this is cut; a recorder's own is a few KiB.
inline constexpr std::size_t kMaxIxmlBytes = 1 << 20;
// A walk gives up after this many chunks: real files hold a dozen.
inline constexpr std::size_t kMaxChunks = 4096;

struct Format {
    std::uint16_t formatTag = 0; // 1 PCM, 3 float, 0xFFFE extensible, …
    std::uint16_t channels = 0;
    std::uint32_t sampleRate = 0; // Hz
    std::uint16_t blockAlign = 0;
    std::uint16_t bitsPerSample = 0;

    bool operator==(const Format&) const = default;
};

// The fixed fields of "bext" as text: cut at the first NUL, passed through validText.
struct Bext {
    std::string description;         // offset 0, 256 bytes
    std::string originator;          // offset 256, 32 bytes
    std::string originatorReference; // offset 288, 32 bytes
    std::string originationDate;     // offset 320, 10 bytes, "yyyy-mm-dd" by the standard
    std::string originationTime;     // offset 330, 8 bytes, "hh:mm:ss" by the standard
    // Offset 338: samples since midnight; absent when the chunk ends before offset 346.
    std::optional<std::uint64_t> timeReference;

    bool operator==(const Bext&) const = default;
};

struct Wave {
    bool is64 = false;                      // "RF64" or "BW64"
    std::optional<Format> format;           // the first "fmt " chunk of at least 16 bytes
    std::optional<Bext> bext;               // the first "bext" chunk of at least kMinBextBytes
    std::optional<std::string> ixml;        // the first "iXML" chunk, at most kMaxIxmlBytes, validText
    std::optional<std::uint64_t> dataBytes; // size of "data", cut to what the file really holds

    bool operator==(const Wave&) const = default;
};

// Walks the file. Nothing for a path that is not a regular file (folders, pipes and devices are
// never opened for reading), that can't be read, or whose first 12 bytes are not a WAVE header.
std::optional<Wave> read(const Url& url);

// The same walk over bytes in memory: parse(whole file) equals read(file). Never reads outside
// `bytes`, whatever the size fields say.
std::optional<Wave> parse(std::span<const std::uint8_t> bytes);

// Text from a file made fit to show and compare: invalid UTF-8 becomes U+FFFD, control characters
// become blanks, runs of blanks become one, and blanks at both ends go.
std::string validText(std::string_view raw);

} // namespace trelvane::RiffReader
