// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/UserDirs.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/printf.h>
#include <limits>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace trelvane::EnvelopeCache {

namespace {

namespace fs = std::filesystem;

const char* const kBandsSuffix = ".bands";
const char* const kNumbersSuffix = ".fine";

// ---- little-endian bytes ----------------------------------------------------------------------

void putU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

void putFloats(std::vector<std::uint8_t>& out, std::span<const float> values) {
    if constexpr (std::endian::native == std::endian::little) {
        const std::size_t at = out.size();
        out.resize(at + values.size_bytes());
        if (!values.empty()) std::memcpy(out.data() + at, values.data(), values.size_bytes());
    } else {
        for (const float v : values)
            putU32(out, std::bit_cast<std::uint32_t>(v));
    }
}

void putU64(std::vector<std::uint8_t>& out, std::uint64_t v) {
    for (int i = 0; i < 8; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

void putText(std::vector<std::uint8_t>& out, std::string_view text) {
    putU32(out, static_cast<std::uint32_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

// The checksum closes every entry: it covers every byte before it.
void sealEntry(std::vector<std::uint8_t>& out) {
    putU32(out, crc32(out));
}

bool fitsU32(std::size_t n) {
    return n <= std::numeric_limits<std::uint32_t>::max();
}

bool allFinite(std::span<const float> values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

// Reads forward through a byte array; every read checks what is left first.
class Reader {
  public:
    explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    std::size_t remaining() const { return bytes_.size() - pos_; }
    std::size_t position() const { return pos_; }

    std::optional<std::uint32_t> u32() {
        if (remaining() < 4) return std::nullopt;
        std::uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= std::uint32_t{bytes_[pos_ + i]} << (8 * i);
        pos_ += 4;
        return v;
    }

    std::optional<std::uint64_t> u64() {
        const auto low = u32();
        const auto high = low ? u32() : std::nullopt;
        if (!high) return std::nullopt;
        return std::uint64_t{*low} | (std::uint64_t{*high} << 32);
    }

    // Whether the next bytes are a counted text equal to `text`.
    bool text(std::string_view expected) {
        const auto size = u32();
        if (!size || *size != expected.size() || remaining() < expected.size()) return false;
        const bool same =
            expected.empty() || std::memcmp(bytes_.data() + pos_, expected.data(), expected.size()) == 0;
        pos_ += expected.size();
        return same;
    }

    // `count` comes from the bytes themselves, so it is held against what is there before anything
    // is allocated: the allocation is never larger than the input.
    bool floats(std::uint64_t count, std::vector<float>& out) {
        if (count > remaining() / 4) return false;
        out.resize(static_cast<std::size_t>(count));
        const auto* src = bytes_.data() + pos_;
        if constexpr (std::endian::native == std::endian::little) {
            if (count > 0) std::memcpy(out.data(), src, out.size() * 4);
        } else {
            for (std::size_t i = 0; i < out.size(); ++i) {
                std::uint32_t v = 0;
                for (int k = 0; k < 4; ++k)
                    v |= std::uint32_t{src[4 * i + k]} << (8 * k);
                out[i] = std::bit_cast<float>(v);
            }
        }
        pos_ += out.size() * 4;
        return true;
    }

  private:
    std::span<const std::uint8_t> bytes_;
    std::size_t pos_ = 0;
};

// ---- files ------------------------------------------------------------------------------------

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now, so that a failing close (a full disk on some file systems) can be seen.
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

  private:
    int fd_;
};

// The whole of a regular file no larger than kMaxEntryBytes. O_NONBLOCK keeps a FIFO planted in
// the folder from blocking the open; it is then refused as not regular. O_NOFOLLOW: an entry is a
// file the cache wrote, never a link to something else.
std::optional<std::vector<std::uint8_t>> readEntry(const fs::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
    if (!fd.valid()) return std::nullopt;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    if (st.st_size < 0 || st.st_size > kMaxEntryBytes) return std::nullopt;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    // A file cut short while being read keeps only what was there, which then fails its counts.
    bytes.resize(got);
    return bytes;
}

// Writes a temporary file next to the entry and renames it over the entry: a reader sees the old
// entry or the new one, never a mix, and a crash leaves at most a stray temporary (which `prune`
// ages out). No fsync: after a power cut the entry may be empty or zeroed, and either fails its
// version or its length, so it is a miss, which is all a cache needs.
bool writeEntry(const fs::path& folder, const std::string& name, std::span<const std::uint8_t> bytes) {
    if (static_cast<std::uint64_t>(bytes.size()) > static_cast<std::uint64_t>(kMaxEntryBytes)) return false;
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) return false;
    std::string temporary = (folder / ("." + name + ".XXXXXX")).string();
    FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd.valid()) return false;
    const bool written = Files::writeAll(fd.get(), bytes.data(), bytes.size());
    const bool closed = fd.close();
    if (!written || !closed || ::rename(temporary.c_str(), (folder / name).c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

// ---- entries for prune ------------------------------------------------------------------------

struct Entry {
    fs::path url;
    std::int64_t size = 0;
    Date touched;
};

// The regular files directly in the folder (hidden ones too: those are stray temporaries), in name
// order so that every run treats ties alike. Links are not followed: a link is not an entry.
std::vector<Entry> listEntries(const fs::path& folder) {
    std::vector<Entry> out;
    std::error_code ec;
    fs::directory_iterator it(folder, fs::directory_options::none, ec);
    if (ec) return out;
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) break;
        struct stat st {};
        if (::lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        const auto micros =
            std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::duration_cast<std::chrono::microseconds>(
                                                          std::chrono::nanoseconds(st.st_mtim.tv_nsec));
        out.push_back(Entry{it->path(), static_cast<std::int64_t>(st.st_size), Date(micros)});
    }
    std::sort(out.begin(), out.end(), [](const Entry& a, const Entry& b) { return a.url < b.url; });
    return out;
}

enum class Removal { removed, gone, failed };

Removal removeEntry(const Entry& e) {
    if (::unlink(e.url.c_str()) == 0) return Removal::removed;
    // Someone else (another prune, a clearAll) took it first: its bytes are gone all the same.
    return errno == ENOENT ? Removal::gone : Removal::failed;
}

// Marks an entry that was just read whole as used now. A failure only leaves it older than it is.
void markUsed(const fs::path& path) {
    ::utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
}

std::string keyOf(std::string_view text) {
    std::uint64_t h = 5381;
    for (const char c : text)
        h = h * 33 + static_cast<unsigned char>(c);
    return fmt::sprintf("%016llx", static_cast<unsigned long long>(h));
}

// The checksum at the end holds for every byte before it. The reader stands just before it.
bool sealHolds(std::span<const std::uint8_t> bytes, Reader& in) {
    const std::size_t body = in.position();
    const auto stored = in.u32();
    return stored && in.remaining() == 0 && *stored == crc32(bytes.first(body));
}

} // namespace

fs::path cacheDir() {
    return UserDirs::cacheDir();
}

std::optional<std::string> keyText(const Url& url) {
    const std::string& path = url.path();
    if (path.empty() || path.find('\0') != std::string::npos) return std::nullopt;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) return std::nullopt;
    // Whole seconds, truncated toward zero as a conversion of the fractional time would: the key
    // ignores a touch within the same second, and a time before 1970 rounds up, not down.
    long long seconds = st.st_mtim.tv_sec;
    if (seconds < 0 && st.st_mtim.tv_nsec > 0) ++seconds;
    return fmt::format("{}|{}|{}", path, static_cast<long long>(st.st_size), seconds);
}

std::optional<std::string> cacheKey(const Url& url) {
    const auto text = keyText(url);
    if (!text) return std::nullopt;
    return keyOf(*text);
}

std::uint32_t crc32(std::span<const std::uint8_t> bytes) {
    static const auto table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t c = i;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    std::uint32_t c = 0xffffffffu;
    for (const std::uint8_t b : bytes)
        c = table[(c ^ b) & 0xffu] ^ (c >> 8);
    return c ^ 0xffffffffu;
}

std::optional<std::vector<std::uint8_t>> serialize(std::string_view keyText, const Pair& pair) {
    if (!fitsU32(keyText.size()) || !fitsU32(pair.preview.size()) || !fitsU32(pair.envelope.size()))
        return std::nullopt;
    if (!std::isfinite(pair.duration) || pair.duration < 0 || !allFinite(pair.preview) ||
        !allFinite(pair.envelope))
        return std::nullopt;
    std::vector<std::uint8_t> out;
    out.reserve(28 + keyText.size() + 4 * (pair.preview.size() + pair.envelope.size()));
    putU32(out, kPairVersion);
    putText(out, keyText);
    putU64(out, std::bit_cast<std::uint64_t>(pair.duration));
    putU32(out, static_cast<std::uint32_t>(pair.preview.size()));
    putFloats(out, pair.preview);
    putU32(out, static_cast<std::uint32_t>(pair.envelope.size()));
    putFloats(out, pair.envelope);
    sealEntry(out);
    return out;
}

std::optional<Pair> deserialize(std::span<const std::uint8_t> bytes, std::string_view keyText) {
    Reader in(bytes);
    if (in.u32() != kPairVersion || !in.text(keyText)) return std::nullopt;
    Pair pair;
    const auto duration = in.u64();
    if (!duration) return std::nullopt;
    pair.duration = std::bit_cast<double>(*duration);
    if (!std::isfinite(pair.duration) || pair.duration < 0) return std::nullopt;
    const auto n = in.u32();
    if (!n || !in.floats(*n, pair.preview)) return std::nullopt;
    const auto m = in.u32();
    if (!m || !in.floats(*m, pair.envelope)) return std::nullopt;
    if (!sealHolds(bytes, in)) return std::nullopt;
    if (!allFinite(pair.preview) || !allFinite(pair.envelope)) return std::nullopt;
    return pair;
}

std::optional<std::vector<std::uint8_t>> serializeBands(std::string_view keyText,
                                                        const BandFeature& feature) {
    const auto frames = feature.frames;
    const auto count = feature.bands.size();
    if (frames < 0 || (frames == 0) != (count == 0) || !fitsU32(count) || !fitsU32(keyText.size()))
        return std::nullopt;
    for (const auto& band : feature.bands)
        if (band.size() != static_cast<std::size_t>(frames) || !allFinite(band)) return std::nullopt;
    std::vector<std::uint8_t> out;
    out.reserve(20 + keyText.size() + count * static_cast<std::size_t>(frames) * 4);
    putU32(out, kBandsVersion);
    putText(out, keyText);
    putU32(out, static_cast<std::uint32_t>(count));
    putU32(out, static_cast<std::uint32_t>(frames));
    for (const auto& band : feature.bands)
        putFloats(out, band);
    sealEntry(out);
    return out;
}

std::optional<BandFeature> deserializeBands(std::span<const std::uint8_t> bytes, std::string_view keyText) {
    Reader in(bytes);
    if (in.u32() != kBandsVersion || !in.text(keyText)) return std::nullopt;
    const auto count = in.u32();
    const auto frames = in.u32();
    if (!count || !frames) return std::nullopt;
    if ((*count == 0) != (*frames == 0) || *frames > static_cast<std::uint32_t>(INT_MAX)) return std::nullopt;
    // Both factors are below 2^32, so the product can't wrap in 64 bits. The checksum's four bytes
    // follow the values.
    const std::uint64_t values = std::uint64_t{*count} * *frames;
    if (in.remaining() % 4 != 0 || in.remaining() < 4 || values != in.remaining() / 4 - 1)
        return std::nullopt;
    BandFeature feature;
    feature.frames = static_cast<int>(*frames);
    feature.bands.resize(*count);
    for (auto& band : feature.bands)
        if (!in.floats(*frames, band)) return std::nullopt;
    if (!sealHolds(bytes, in)) return std::nullopt;
    for (const auto& band : feature.bands)
        if (!allFinite(band)) return std::nullopt;
    return feature;
}

std::optional<Pair> loadPair(const Url& url, const fs::path& folder) {
    const auto text = keyText(url);
    if (!text) return std::nullopt;
    const auto path = folder / keyOf(*text);
    const auto bytes = readEntry(path);
    auto pair = bytes ? deserialize(*bytes, *text) : std::nullopt;
    if (pair) markUsed(path);
    return pair;
}

bool savePair(const Url& url, const Pair& pair, const fs::path& folder) {
    const auto text = keyText(url);
    if (!text) return false;
    const auto bytes = serialize(*text, pair);
    return bytes && writeEntry(folder, keyOf(*text), *bytes);
}

std::optional<BandFeature> loadBands(const Url& url, const fs::path& folder) {
    const auto text = keyText(url);
    if (!text) return std::nullopt;
    const auto path = folder / (keyOf(*text) + kBandsSuffix);
    const auto bytes = readEntry(path);
    auto feature = bytes ? deserializeBands(*bytes, *text) : std::nullopt;
    if (feature) markUsed(path);
    return feature;
}

bool saveBands(const Url& url, const BandFeature& feature, const fs::path& folder) {
    const auto text = keyText(url);
    if (!text) return false;
    const auto bytes = serializeBands(*text, feature);
    return bytes && writeEntry(folder, keyOf(*text) + kBandsSuffix, *bytes);
}

std::optional<std::vector<std::uint8_t>> serializeNumbers(std::string_view keyText,
                                                          std::span<const double> values) {
    if (!fitsU32(keyText.size()) || !fitsU32(values.size()) ||
        !std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); }))
        return std::nullopt;
    std::vector<std::uint8_t> out;
    out.reserve(16 + keyText.size() + 8 * values.size());
    putU32(out, kNumbersVersion);
    putText(out, keyText);
    putU32(out, static_cast<std::uint32_t>(values.size()));
    for (const double v : values)
        putU64(out, std::bit_cast<std::uint64_t>(v));
    sealEntry(out);
    return out;
}

std::optional<std::vector<double>> deserializeNumbers(std::span<const std::uint8_t> bytes,
                                                      std::string_view keyText) {
    Reader in(bytes);
    if (in.u32() != kNumbersVersion || !in.text(keyText)) return std::nullopt;
    const auto count = in.u32();
    // The checksum's four bytes follow the values.
    if (!count || in.remaining() < 4 || (in.remaining() - 4) / 8 != *count || (in.remaining() - 4) % 8 != 0)
        return std::nullopt;
    std::vector<double> values(*count);
    for (double& v : values) {
        v = std::bit_cast<double>(*in.u64());
        if (!std::isfinite(v)) return std::nullopt;
    }
    if (!sealHolds(bytes, in)) return std::nullopt;
    return values;
}

std::optional<std::vector<double>> loadNumbers(std::string_view keyText, const fs::path& folder) {
    const auto path = folder / (keyOf(keyText) + kNumbersSuffix);
    const auto bytes = readEntry(path);
    auto values = bytes ? deserializeNumbers(*bytes, keyText) : std::nullopt;
    if (values) markUsed(path);
    return values;
}

bool saveNumbers(std::string_view keyText, std::span<const double> values, const fs::path& folder) {
    const auto bytes = serializeNumbers(keyText, values);
    return bytes && writeEntry(folder, keyOf(keyText) + kNumbersSuffix, *bytes);
}

PruneResult prune(Date now, const fs::path& folder, std::int64_t ceiling) {
    ceiling = std::max<std::int64_t>(ceiling, 0);
    PruneResult result;
    const auto take = [&](const Entry& e) {
        const auto outcome = removeEntry(e);
        if (outcome == Removal::removed) {
            ++result.removed;
            result.bytesFreed += e.size;
        }
        return outcome;
    };

    const Date cutoff = now - std::chrono::seconds(kMaxAgeSeconds);
    std::vector<Entry> kept;
    std::int64_t total = 0;
    for (const auto& e : listEntries(folder)) {
        if (e.touched < cutoff && take(e) != Removal::failed) continue;
        kept.push_back(e);
        total += e.size;
    }

    if (total > ceiling) {
        std::stable_sort(kept.begin(), kept.end(),
                         [](const Entry& a, const Entry& b) { return a.touched < b.touched; });
        for (const auto& e : kept) {
            if (total <= ceiling) break;
            if (take(e) != Removal::failed) total -= e.size;
        }
    }

    if (result.removed > 0)
        EngineLog::logf(
            "[Cache] pruned %d entr%s (%.0f MB) — older than %.0f days or over the %.0f GB ceiling",
            result.removed, result.removed == 1 ? "y" : "ies",
            static_cast<double>(result.bytesFreed) / 1048576.0, static_cast<double>(kMaxAgeSeconds) / 86400.0,
            static_cast<double>(ceiling) / 1073741824.0);
    return result;
}

std::int64_t cacheSize(const fs::path& folder) {
    std::int64_t total = 0;
    for (const auto& e : listEntries(folder))
        total += e.size;
    return total;
}

int clearAll(const fs::path& folder) {
    int removed = 0;
    for (const auto& e : listEntries(folder))
        removed += removeEntry(e) == Removal::removed;
    return removed;
}

} // namespace trelvane::EnvelopeCache
