// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/RiffReader.hpp"
#include "TrelvaneEngine/support/Utf8.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace trelvane {

std::optional<ReadOnlyFile> ReadOnlyFile::open(const Url& url) {
    const int fd = ::open(url.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0) {
        ::close(fd);
        return std::nullopt;
    }
    return ReadOnlyFile(fd, static_cast<std::uint64_t>(st.st_size));
}

ReadOnlyFile::ReadOnlyFile(ReadOnlyFile&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), size_(other.size_) {}

ReadOnlyFile::~ReadOnlyFile() {
    if (fd_ >= 0) ::close(fd_);
}

std::size_t ReadOnlyFile::readAt(std::uint64_t offset, std::span<std::uint8_t> out) const {
    std::size_t done = 0;
    while (done < out.size()) {
        const auto pos = offset + done;
        if (pos < offset || pos > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) break;
        const auto n = ::pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(pos));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

std::vector<std::uint8_t> ReadOnlyFile::read(std::uint64_t offset, std::size_t maxBytes) const {
    if (offset >= size_) return {};
    std::vector<std::uint8_t> buf(
        static_cast<std::size_t>(std::min<std::uint64_t>(maxBytes, size_ - offset)));
    buf.resize(readAt(offset, buf));
    return buf;
}

} // namespace trelvane

namespace trelvane::RiffReader {

namespace {

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kChunkHeaderBytes = 8;
constexpr std::size_t kFmtBytes = 16;
// ds64: RIFF size, data size and sample count (8 bytes each), table length (4), then entries of a
// chunk id (4) and its size (8). Real files carry no more than a few entries.
constexpr std::size_t kDs64FixedBytes = 28;
constexpr std::size_t kDs64EntryBytes = 12;
constexpr std::size_t kMaxDs64Entries = 64;

// Where bytes come from: a file or a buffer. `readAt` copies what is there from `offset` on and
// says how much; less than asked means the end of the source, or a read that failed.
class Source {
  public:
    virtual ~Source() = default;
    virtual std::uint64_t size() const = 0;
    virtual std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> out) const = 0;
};

class BytesSource final : public Source {
  public:
    explicit BytesSource(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
    std::uint64_t size() const override { return bytes_.size(); }
    std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> out) const override {
        if (offset >= bytes_.size()) return 0;
        const auto n = std::min<std::uint64_t>(out.size(), bytes_.size() - offset);
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), n, out.begin());
        return static_cast<std::size_t>(n);
    }

  private:
    std::span<const std::uint8_t> bytes_;
};

class FileSource final : public Source {
  public:
    explicit FileSource(const ReadOnlyFile& file) : file_(file) {}
    std::uint64_t size() const override { return file_.size(); }
    std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> out) const override {
        return file_.readAt(offset, out);
    }

  private:
    const ReadOnlyFile& file_;
};

std::uint16_t le16(std::span<const std::uint8_t> b, std::size_t at) {
    return static_cast<std::uint16_t>(b[at] | (b[at + 1] << 8));
}
std::uint32_t le32(std::span<const std::uint8_t> b, std::size_t at) {
    return std::uint32_t{b[at]} | (std::uint32_t{b[at + 1]} << 8) | (std::uint32_t{b[at + 2]} << 16) |
           (std::uint32_t{b[at + 3]} << 24);
}
std::uint64_t le64(std::span<const std::uint8_t> b, std::size_t at) {
    return std::uint64_t{le32(b, at)} | (std::uint64_t{le32(b, at + 4)} << 32);
}

bool isId(std::span<const std::uint8_t> b, std::size_t at, std::string_view id) {
    return b.size() >= at + 4 &&
           std::equal(id.begin(), id.end(), b.begin() + static_cast<std::ptrdiff_t>(at),
                      [](char c, std::uint8_t x) { return static_cast<std::uint8_t>(c) == x; });
}

// A chunk id is four printable ASCII characters.
bool looksLikeId(const Source& src, std::uint64_t at) {
    std::array<std::uint8_t, 4> id{};
    if (src.readAt(at, id) != id.size()) return false;
    return std::all_of(id.begin(), id.end(), [](std::uint8_t c) { return c >= 0x20 && c < 0x7F; });
}

// A fixed-width text field: up to the first NUL, made fit to show.
std::string field(std::span<const std::uint8_t> b, std::size_t at, std::size_t width) {
    const auto first = b.begin() + static_cast<std::ptrdiff_t>(at);
    const auto last = std::find(first, first + static_cast<std::ptrdiff_t>(width), std::uint8_t{0});
    return validText(
        std::string_view(reinterpret_cast<const char*>(&*first), static_cast<std::size_t>(last - first)));
}

std::vector<std::uint8_t> readPart(const Source& src, std::uint64_t offset, std::size_t count) {
    std::vector<std::uint8_t> buf(count);
    buf.resize(src.readAt(offset, buf));
    return buf;
}

Bext parseBext(std::span<const std::uint8_t> b) {
    Bext bext;
    bext.description = field(b, 0, 256);
    bext.originator = field(b, 256, 32);
    bext.originatorReference = field(b, 288, 32);
    bext.originationDate = field(b, 320, 10);
    bext.originationTime = field(b, 330, 8);
    if (b.size() >= kBextTimeReferenceEnd) bext.timeReference = le64(b, 338);
    return bext;
}

std::optional<Wave> walk(const Source& src) {
    std::array<std::uint8_t, kHeaderBytes> head{};
    if (src.readAt(0, head) != head.size()) return std::nullopt;
    const bool riff = isId(head, 0, "RIFF");
    const bool is64 = isId(head, 0, "RF64") || isId(head, 0, "BW64");
    if ((!riff && !is64) || !isId(head, 8, "WAVE")) return std::nullopt;

    Wave wave;
    wave.is64 = is64;
    // The sizes that the ds64 chunk gives for chunks whose own size field reads 0xFFFFFFFF.
    std::optional<std::uint64_t> ds64Data;
    std::vector<std::pair<std::array<std::uint8_t, 4>, std::uint64_t>> ds64Table;

    const std::uint64_t end = src.size();
    std::uint64_t pos = kHeaderBytes;
    for (std::size_t n = 0; n < kMaxChunks && pos <= end && end - pos >= kChunkHeaderBytes; ++n) {
        std::array<std::uint8_t, kChunkHeaderBytes> header{};
        if (src.readAt(pos, header) != header.size()) break;
        const std::uint32_t size32 = le32(header, 4);
        std::uint64_t size = size32;
        if (is64 && size32 == 0xFFFFFFFFu) {
            std::optional<std::uint64_t> known;
            if (isId(header, 0, "data")) known = ds64Data;
            for (const auto& [id, entrySize] : ds64Table)
                if (!known && std::equal(id.begin(), id.end(), header.begin())) known = entrySize;
            // Without its size nothing behind this chunk can be found.
            if (!known) break;
            size = *known;
        }
        const std::uint64_t payload = pos + kChunkHeaderBytes;
        const std::uint64_t available = end - payload;
        const std::uint64_t have = std::min(size, available);

        if (isId(header, 0, "ds64") && is64 && n == 0) {
            const auto cap = kDs64FixedBytes + kDs64EntryBytes * kMaxDs64Entries;
            const auto b =
                readPart(src, payload, static_cast<std::size_t>(std::min<std::uint64_t>(have, cap)));
            if (b.size() >= kDs64FixedBytes) {
                ds64Data = le64(b, 8);
                const std::uint32_t entries = le32(b, 24);
                for (std::size_t i = 0;
                     i < entries && kDs64FixedBytes + (i + 1) * kDs64EntryBytes <= b.size(); ++i) {
                    const std::size_t at = kDs64FixedBytes + i * kDs64EntryBytes;
                    std::array<std::uint8_t, 4> id{b[at], b[at + 1], b[at + 2], b[at + 3]};
                    ds64Table.emplace_back(id, le64(b, at + 4));
                }
            }
        } else if (isId(header, 0, "fmt ") && !wave.format && have >= kFmtBytes) {
            const auto b = readPart(src, payload, kFmtBytes);
            if (b.size() == kFmtBytes)
                wave.format = Format{le16(b, 0), le16(b, 2), le32(b, 4), le16(b, 12), le16(b, 14)};
        } else if (isId(header, 0, "bext") && !wave.bext && have >= kMinBextBytes) {
            const auto b = readPart(src, payload,
                                    static_cast<std::size_t>(std::min<std::uint64_t>(have, kMaxBextBytes)));
            if (b.size() >= kMinBextBytes) wave.bext = parseBext(b);
        } else if (isId(header, 0, "iXML") && !wave.ixml) {
            const auto b = readPart(src, payload,
                                    static_cast<std::size_t>(std::min<std::uint64_t>(have, kMaxIxmlBytes)));
            wave.ixml = validText(std::string_view(reinterpret_cast<const char*>(b.data()), b.size()));
        } else if (isId(header, 0, "data") && !wave.dataBytes) {
            wave.dataBytes = have;
        }

        // A chunk that runs past the end of the file is the last one.
        if (size > available) break;
        std::uint64_t next = payload + size;
        // Chunks of odd size are followed by a pad byte, which some writers forget: trust the
        // pad unless only the unpadded place holds something that looks like a chunk.
        if ((size & 1) != 0 && next < end && (looksLikeId(src, next + 1) || !looksLikeId(src, next))) ++next;
        pos = next;
    }
    return wave;
}

} // namespace

std::optional<Wave> read(const Url& url) {
    const auto file = ReadOnlyFile::open(url);
    if (!file) return std::nullopt;
    return walk(FileSource(*file));
}

std::optional<Wave> parse(std::span<const std::uint8_t> bytes) {
    return walk(BytesSource(bytes));
}

std::string validText(std::string_view raw) {
    std::string out;
    out.reserve(raw.size());
    bool blank = true; // no blank at the start
    for (std::size_t i = 0; i < raw.size();) {
        const auto c = static_cast<unsigned char>(raw[i]);
        if (c <= 0x20 || c == 0x7F) {
            if (!blank) out.push_back(' ');
            blank = true;
            ++i;
            continue;
        }
        const std::size_t length = Utf8::sequenceLength(raw, i);
        if (length == 0) {
            out += Utf8::kReplacement;
            ++i;
        } else {
            out.append(raw, i, length);
            i += length;
        }
        blank = false;
    }
    if (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

} // namespace trelvane::RiffReader
