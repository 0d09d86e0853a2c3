// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What is costly to recompute for a file seen before, kept on disk: the waveform preview, the RMS
// envelope and the band feature. Re-adding a clip then skips decoding. A namespace of static
// operations without state; every failure in it only means a miss (load gives nothing, save gives
// false), so callers never handle an error. Callable from any thread: writes go to a temporary file
// in the cache folder that is then renamed over the entry, so two writers of one key (who write the
// same content) and a crash mid-write never leave a half entry that reads as valid.
//
// Entries live in one folder, named by the source file's key: "<key>" holds preview, envelope and
// the decoded length, "<key>.bands" the band feature. What is measured between two files (the fine
// alignment of a pair) is a short record of numbers, "<key>.fine", keyed by a text its caller
// makes of both files' key texts and of what it asked. All numbers are little-endian, without
// padding:
//
//   preview, envelope and length       band feature
//   u32 version (5)                    u32 version (7)
//   u32 k, then k bytes: key text      u32 k, then k bytes: key text
//   f64 decoded length in seconds      u32 band count b
//   u32 n, then n f32 (preview)        u32 frames f, then b * f f32, band after band
//   u32 m, then m f32 (envelope)       u32 CRC-32 of every byte before it
//   u32 CRC-32 of every byte before it
//
//   record of numbers
//   u32 version (1)
//   u32 k, then k bytes: key text
//   u32 n, then n f64
//   u32 CRC-32 of every byte before it
//
// A file is read only when it is exactly as long as its counts say, so a truncated, padded or
// hostile file is a miss; no count is trusted before it has been checked against the bytes there.
// The key text (the path, size and time the key is made of) is stored whole, so an entry that
// reached the wrong name (another file's entry copied or swapped, a key collision) is a miss, and
// the checksum makes a flipped bit a miss. Every value is finite: NaN or infinity reads as a miss
// and is never written. An entry read back is therefore exactly what a decode of the same file
// would give again, down to the bit.

#include "TrelvaneEngine/model/BandFeature.hpp"
#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/Url.hpp"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane::EnvelopeCache {

// Raising a version turns the old entries into misses; they age out through `prune`.
inline constexpr std::uint32_t kPairVersion = 5;
inline constexpr std::uint32_t kBandsVersion = 7;
inline constexpr std::uint32_t kNumbersVersion = 1;

// `prune` removes entries older than this, whatever the total size...
inline constexpr std::int64_t kMaxAgeSeconds = 604'800; // 7 days
// ...then the oldest ones while the total is above this (the total may equal it), unless the user
// set another ceiling.
inline constexpr std::int64_t kCeilingBytes = std::int64_t{1} << 31;

// No entry larger than this is written or read (about 90 hours of band feature), so that a stray
// huge file in the folder costs nothing.
inline constexpr std::int64_t kMaxEntryBytes = std::int64_t{1} << 29;

struct Pair {
    std::vector<float> preview;
    std::vector<float> envelope;
    // The length the decoder found, in seconds: a run served from the cache lays the clip out with
    // the same length as the run that decoded it.
    double duration = 0;

    bool operator==(const Pair&) const = default;
};

struct PruneResult {
    int removed = 0;
    std::int64_t bytesFreed = 0;
};

// The user's cache folder for Trelvane ($XDG_CACHE_HOME/Trelvane or ~/.cache/Trelvane). It is made,
// with its parents, by the first save. Every operation below takes the folder as a last argument,
// which defaults to this one.
std::filesystem::path cacheDir();

// The text a source file's key is made of: "<path>|<size in bytes>|<modification time in whole
// seconds since 1970, truncated toward zero>". Only the file's status is read (following links, so
// an entry follows the file a link points at). Nothing when the file can't be stat'ed, is not a
// regular file or can't be read by this process: such a file is never cached.
std::optional<std::string> keyText(const Url& url);

// The key of a source file: djb2 (64-bit, wrapping) over the UTF-8 bytes of its key text, printed
// as 16 lower-case hex digits. A file moved, rewritten or touched to another second gets a new key;
// a touch within the same second does not.
std::optional<std::string> cacheKey(const Url& url);

// CRC-32 (the polynomial of zlib and PNG) of the bytes.
std::uint32_t crc32(std::span<const std::uint8_t> bytes);

// The bytes of an entry for the file whose key text is `keyText`, or nothing when a count does not
// fit in 32 bits or a value (the duration included) is not finite, or the duration is negative.
std::optional<std::vector<std::uint8_t>> serialize(std::string_view keyText, const Pair& pair);
// Nothing unless the version is 5, the bytes are exactly what the counts promise, the stored key
// text is `keyText`, the checksum holds and every value is finite (the duration not negative).
std::optional<Pair> deserialize(std::span<const std::uint8_t> bytes, std::string_view keyText);

// The bytes of a band entry, or nothing for a feature that is not one: a band whose length is not
// `frames`, a negative `frames`, frames without bands or bands without frames, a value that is not
// finite.
std::optional<std::vector<std::uint8_t>> serializeBands(std::string_view keyText, const BandFeature& feature);
// Nothing unless the version is 7, the bytes are exactly what the counts promise, the counts
// describe a feature (both zero, the empty feature, or both positive with `frames` within an int),
// the key text and checksum hold and every value is finite.
std::optional<BandFeature> deserializeBands(std::span<const std::uint8_t> bytes, std::string_view keyText);

// Preview, envelope and length of the file, if cached under its current key. A hit marks the entry
// as used now, so that `prune` takes the entries that went unused longest.
std::optional<Pair> loadPair(const Url& url, const std::filesystem::path& folder = cacheDir());
// Stores them under the file's current key. False when the file has no key, a value can't be
// stored or the entry could not be written (the folder is made with its parents first); nothing
// half-written is left behind.
bool savePair(const Url& url, const Pair& pair, const std::filesystem::path& folder = cacheDir());

// The band feature of the file, if cached under its current key; a hit marks the entry as used.
std::optional<BandFeature> loadBands(const Url& url, const std::filesystem::path& folder = cacheDir());
// As `savePair`, for the band feature.
bool saveBands(const Url& url, const BandFeature& feature, const std::filesystem::path& folder = cacheDir());

// The bytes of a record of numbers, or nothing when a value is not finite or a count does not fit.
std::optional<std::vector<std::uint8_t>> serializeNumbers(std::string_view keyText,
                                                          std::span<const double> values);
// Nothing unless the version is 1, the bytes are exactly what the count promises, the key text and
// checksum hold and every value is finite. An empty record is a record: a refusal remembered.
std::optional<std::vector<double>> deserializeNumbers(std::span<const std::uint8_t> bytes,
                                                      std::string_view keyText);
// The record stored under `keyText` (any text; the caller makes it of whatever its numbers depend
// on, file key texts included); a hit marks it as used.
std::optional<std::vector<double>> loadNumbers(std::string_view keyText,
                                               const std::filesystem::path& folder = cacheDir());
// As `savePair`, for a record of numbers.
bool saveNumbers(std::string_view keyText, std::span<const double> values,
                 const std::filesystem::path& folder = cacheDir());

// Removes the entries whose modification time is earlier than `now` minus 7 days, then, while the
// remaining files add up to more than `ceiling` bytes (2^31 unless the user chose otherwise), the
// oldest of them (by modification time, then name). A file that can't be removed is skipped. Logs
// "[Cache] pruned <n> entr(y|ies) (<MB> MB) — older than 7 days or over the <GB> GB ceiling" when
// anything went, with MB and GB in units of 2^20 and 2^30 bytes. Only the regular files directly in
// the folder count as entries; anything else there is left alone. A negative ceiling counts as 0.
PruneResult prune(Date now, const std::filesystem::path& folder = cacheDir(),
                  std::int64_t ceiling = kCeilingBytes);

// The sizes of the entries added up; 0 for a folder that is missing or can't be listed.
std::int64_t cacheSize(const std::filesystem::path& folder = cacheDir());

// Removes every entry; the folder itself stays. Returns how many entries this call removed (one
// that another process took first, or that could not be removed, is not counted).
int clearAll(const std::filesystem::path& folder = cacheDir());

} // namespace trelvane::EnvelopeCache
