// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/R3DHeader.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string_view>
#include <vector>

namespace trelvane::R3DHeader {

namespace {

using Bytes = std::span<const std::uint8_t>;

// A shorter file can't hold the fixed part of a header and a run of records.
constexpr std::size_t kMinHeaderBytes = 128;
constexpr std::size_t kMagicOffset = 4;
constexpr std::string_view kMagic = "RED2";

// The "rdi" block sits near the front; later matches would be chance bytes in record payloads.
constexpr std::size_t kRdiSearchLimit = 512;
constexpr std::size_t kRdiWidth = 8, kRdiHeight = 12, kRdiSizeEnd = 16;
constexpr std::size_t kRdiDenominator = 18, kRdiNumerator = 20, kRdiRateEnd = 24;
constexpr int kMinDimension = 128, kMaxDimension = 20000;

// Records start somewhere after the fixed part, at a place that differs between firmwares, so
// every start in this window is tried and the longest run of records wins.
constexpr std::size_t kFirstRecordStart = 64;
constexpr std::size_t kLastRecordStart = 512;
// A shorter best run is as likely to be chance bytes as records.
constexpr std::size_t kMinRecords = 8;

constexpr std::size_t kRecordHeaderBytes = 4;

constexpr std::uint8_t kTagRecordFrameRate = 0x66;
constexpr std::uint8_t kTagAudioSampleRate = 0xBF;
constexpr std::uint8_t kTagReelFirst = 0x19;
constexpr std::uint8_t kTagReelSecond = 0x1A;

struct TextField {
    std::uint8_t tag;
    std::optional<std::string> Metadata::*field;
};
constexpr TextField kTextFields[] = {
    {0xC4, &Metadata::sidecarWAV},  {0xAD, &Metadata::edgeTimecode}, {0xAE, &Metadata::todTimecode},
    {0xA0, &Metadata::model},       {0xA1, &Metadata::sensor},       {0x32, &Metadata::bodySerial},
    {0x06, &Metadata::mediaSerial}, {0x1B, &Metadata::clipNumber},   {0x25, &Metadata::firmware},
    {0x56, &Metadata::ownFilename},
};

std::optional<std::size_t> find(std::string_view ascii, Bytes bytes, std::size_t limit) {
    if (ascii.empty() || ascii.size() > bytes.size()) return std::nullopt;
    const std::size_t lastStart = std::min(limit, bytes.size() - ascii.size() + 1);
    for (std::size_t offset = 0; offset < lastStart; ++offset)
        if (std::equal(ascii.begin(), ascii.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                       [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; }))
            return offset;
    return std::nullopt;
}

std::optional<std::uint16_t> be16(Bytes bytes, std::size_t offset) {
    if (offset > bytes.size() || bytes.size() - offset < 2) return std::nullopt;
    return static_cast<std::uint16_t>((bytes[offset] << 8) | bytes[offset + 1]);
}

std::optional<std::uint32_t> be32(Bytes bytes, std::size_t offset) {
    if (offset > bytes.size() || bytes.size() - offset < 4) return std::nullopt;
    return (std::uint32_t{bytes[offset]} << 24) | (std::uint32_t{bytes[offset + 1]} << 16) |
           (std::uint32_t{bytes[offset + 2]} << 8) | std::uint32_t{bytes[offset + 3]};
}

std::optional<double> timeBase(Bytes bytes) {
    const auto rdi = find("rdi", bytes, kRdiSearchLimit);
    if (!rdi || bytes.size() - *rdi < kRdiRateEnd) return std::nullopt;
    const auto denominator = be16(bytes, *rdi + kRdiDenominator);
    const auto numerator = be32(bytes, *rdi + kRdiNumerator);
    if (!denominator || !numerator) return std::nullopt;
    // Only the two denominators of real rates: whole (24000/1000) and NTSC (24000/1001). Anything
    // else means the block is laid out differently and the numbers are not a rate.
    if (*denominator != 1000 && *denominator != 1001) return std::nullopt;
    const double rate = static_cast<double>(*numerator) / static_cast<double>(*denominator);
    if (!(rate > 1.0 && rate < 500.0)) return std::nullopt;
    return rate;
}

struct FrameSize {
    int width;
    int height;
};

std::optional<FrameSize> frameSize(Bytes bytes) {
    const auto rdi = find("rdi", bytes, kRdiSearchLimit);
    if (!rdi || bytes.size() - *rdi < kRdiSizeEnd) return std::nullopt;
    const auto width = be32(bytes, *rdi + kRdiWidth);
    const auto height = be32(bytes, *rdi + kRdiHeight);
    if (!width || !height) return std::nullopt;
    const auto plausible = [](std::uint32_t v) { return v >= kMinDimension && v <= kMaxDimension; };
    // One implausible side means the block was misread, so the other side is not trusted either.
    if (!plausible(*width) || !plausible(*height)) return std::nullopt;
    return FrameSize{static_cast<int>(*width), static_cast<int>(*height)};
}

std::vector<Record> walk(Bytes bytes, std::size_t from) {
    std::vector<Record> out;
    while (from <= bytes.size() && bytes.size() - from >= kRecordHeaderBytes) {
        const std::size_t size = *be16(bytes, from);
        if (size < kRecordHeaderBytes) break;
        if (size > bytes.size() - from) break;
        out.push_back(Record{bytes[from + 2], bytes[from + 3],
                             bytes.subspan(from + kRecordHeaderBytes, size - kRecordHeaderBytes)});
        from += size;
    }
    return out;
}

std::vector<Record> records(Bytes bytes) {
    if (bytes.size() <= kFirstRecordStart) return {};
    std::vector<Record> best;
    const std::size_t end = std::min(bytes.size(), kLastRecordStart);
    for (std::size_t start = kFirstRecordStart; start < end; ++start) {
        auto run = walk(bytes, start);
        // Strictly more: on a tie the earlier start stays.
        if (run.size() > best.size()) best = std::move(run);
    }
    if (best.size() < kMinRecords) return {};
    return best;
}

// Length of the UTF-8 sequence a lead byte opens, and the range its second byte must lie in
// (narrower than 0x80…0xBF where overlong forms, surrogates or values above U+10FFFF would start).
struct Lead {
    std::size_t length;
    std::uint8_t low;
    std::uint8_t high;
};
std::optional<Lead> utf8Lead(std::uint8_t c) {
    if (c >= 0xC2 && c <= 0xDF) return Lead{2, 0x80, 0xBF};
    if (c == 0xE0) return Lead{3, 0xA0, 0xBF};
    if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) return Lead{3, 0x80, 0xBF};
    if (c == 0xED) return Lead{3, 0x80, 0x9F};
    if (c == 0xF0) return Lead{4, 0x90, 0xBF};
    if (c >= 0xF1 && c <= 0xF3) return Lead{4, 0x80, 0xBF};
    if (c == 0xF4) return Lead{4, 0x80, 0x8F};
    return std::nullopt;
}

// Each maximal invalid part becomes one U+FFFD, the usual practice, so that one bad byte in a
// camera name costs one character and never the whole field.
std::string repairedUTF8(Bytes bytes) {
    static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        const std::uint8_t c = bytes[i];
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        const auto lead = utf8Lead(c);
        if (!lead) {
            out += kReplacement;
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        bool valid = true;
        for (std::size_t k = 1; k < lead->length; ++k, ++j) {
            const std::uint8_t low = k == 1 ? lead->low : 0x80;
            const std::uint8_t high = k == 1 ? lead->high : 0xBF;
            if (j >= bytes.size() || bytes[j] < low || bytes[j] > high) {
                valid = false;
                break;
            }
        }
        if (valid)
            for (std::size_t k = i; k < j; ++k)
                out.push_back(static_cast<char>(bytes[k]));
        else
            out += kReplacement;
        i = j;
    }
    return out;
}

std::optional<std::string> text(const Record& record) {
    if (record.type != kTextRecord) return std::nullopt;
    const auto zero = std::find(record.payload.begin(), record.payload.end(), std::uint8_t{0});
    const auto length = static_cast<std::size_t>(zero - record.payload.begin());
    if (length == 0) return std::nullopt;
    return repairedUTF8(record.payload.first(length));
}

std::optional<double> float32(const Record& record) {
    if (record.type != kFloatRecord) return std::nullopt;
    const auto bits = be32(record.payload, 0);
    if (!bits) return std::nullopt;
    const double value = std::bit_cast<float>(*bits);
    if (!std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<int> int32(const Record& record) {
    if (record.type != kIntRecord && record.type != kIntRecordAlt) return std::nullopt;
    const auto bits = be32(record.payload, 0);
    if (!bits) return std::nullopt;
    return static_cast<std::int32_t>(*bits);
}

// Closes the file whatever way parsing leaves.
struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

} // namespace

std::optional<Metadata> parse(std::span<const std::uint8_t> bytes) {
    bytes = bytes.first(std::min(bytes.size(), kMaxHeaderBytes));
    if (bytes.size() <= kMinHeaderBytes) return std::nullopt;
    if (!std::equal(kMagic.begin(), kMagic.end(), bytes.begin() + kMagicOffset,
                    [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; }))
        return std::nullopt;

    Metadata meta;
    meta.timeBase = timeBase(bytes);
    if (const auto size = frameSize(bytes)) {
        meta.width = size->width;
        meta.height = size->height;
    }

    std::optional<std::string> reelFirst, reelSecond;
    for (const Record& record : records(bytes)) {
        switch (record.tag) {
        case kTagRecordFrameRate:
            meta.recordFrameRate = float32(record);
            continue;
        case kTagAudioSampleRate:
            meta.audioSampleRate = int32(record);
            continue;
        case kTagReelFirst:
            reelFirst = text(record);
            continue;
        case kTagReelSecond:
            reelSecond = text(record);
            continue;
        default:
            break;
        }
        for (const auto& f : kTextFields)
            if (f.tag == record.tag) {
                meta.*f.field = text(record);
                break;
            }
    }
    // The reel name is written in two halves; one half alone would be a wrong name.
    if (reelFirst && reelSecond) meta.reel = *reelFirst + *reelSecond;

    // None of the three fields every camera writes: the records were not understood.
    if (!meta.recordFrameRate && !meta.sidecarWAV && !meta.model) return std::nullopt;
    return meta;
}

std::optional<Metadata> read(const Url& url) {
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(url.path().c_str(), "rb"));
    if (!file) return std::nullopt;
    std::vector<std::uint8_t> bytes(kMaxHeaderBytes);
    const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (std::ferror(file.get())) return std::nullopt;
    bytes.resize(count);
    return parse(bytes);
}

} // namespace trelvane::R3DHeader
