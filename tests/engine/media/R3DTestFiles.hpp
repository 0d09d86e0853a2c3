// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Synthetic .r3d headers for tests: the leading bytes of a RED picture file, as R3DHeader reads
// them. Layout of what the builder writes (all numbers big-endian):
//   0   32-bit total size
//   4   the magic, "RED2" unless changed
//   16  the "rdi" block, unless left out: +8 width, +12 height, +18 16-bit denominator,
//       +20 32-bit numerator (the time base is numerator / denominator)
//   64  the records, in the order they were added (the start can be moved), then zeros up to the
//       minimum size
//
//   auto bytes = R3DHeaderBuilder().float32(r3dtag::kRecordFrameRate, 25).text(r3dtag::kModel, "X")
//                    .filler(6).bytes();
//   typicalR3DHeader("A001_C001.WAV").write(dir / "A001_C001_001.R3D");

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane::test {

// The tags R3DHeader understands.
namespace r3dtag {
inline constexpr std::uint8_t kRecordFrameRate = 0x66;
inline constexpr std::uint8_t kSidecarWAV = 0xC4;
inline constexpr std::uint8_t kEdgeTimecode = 0xAD;
inline constexpr std::uint8_t kTodTimecode = 0xAE;
inline constexpr std::uint8_t kModel = 0xA0;
inline constexpr std::uint8_t kSensor = 0xA1;
inline constexpr std::uint8_t kBodySerial = 0x32;
inline constexpr std::uint8_t kMediaSerial = 0x06;
inline constexpr std::uint8_t kReelFirst = 0x19;
inline constexpr std::uint8_t kReelSecond = 0x1A;
inline constexpr std::uint8_t kClipNumber = 0x1B;
inline constexpr std::uint8_t kFirmware = 0x25;
inline constexpr std::uint8_t kAudioSampleRate = 0xBF;
inline constexpr std::uint8_t kOwnFilename = 0x56;
// Read by nothing: records that only make up the count a header needs.
inline constexpr std::uint8_t kUnused = 0x01;
} // namespace r3dtag

namespace r3dtype {
inline constexpr std::uint8_t kText = 0x10;
inline constexpr std::uint8_t kFloat = 0x20;
inline constexpr std::uint8_t kInt = 0x50;
inline constexpr std::uint8_t kIntAlt = 0x60;
} // namespace r3dtype

class R3DHeaderBuilder {
  public:
    static constexpr std::size_t kRdiOffset = 16;
    static constexpr std::size_t kRecordsOffset = 64;

    R3DHeaderBuilder& magic(std::string_view fourBytes) {
        magic_ = std::string(fourBytes).substr(0, 4);
        magic_.resize(4, '\0');
        return *this;
    }
    R3DHeaderBuilder& frameSize(std::uint32_t width, std::uint32_t height) {
        width_ = width;
        height_ = height;
        return *this;
    }
    // The time base as the camera stores it: 24000 / 1001 is 23.976.
    R3DHeaderBuilder& timeBase(std::uint32_t numerator, std::uint16_t denominator) {
        numerator_ = numerator;
        denominator_ = denominator;
        return *this;
    }
    R3DHeaderBuilder& withoutRdi() {
        rdi_ = false;
        return *this;
    }
    // Where the first record starts (64 unless moved; R3DHeader searches 64…511).
    R3DHeaderBuilder& recordsAt(std::size_t offset) {
        recordsOffset_ = offset;
        return *this;
    }
    // Zeros are added behind the records up to this size (256 unless changed).
    R3DHeaderBuilder& minimumSize(std::size_t size) {
        minimumSize_ = size;
        return *this;
    }

    // A record with its size field computed: 4 + payload bytes.
    R3DHeaderBuilder& record(std::uint8_t type, std::uint8_t tag, const std::vector<std::uint8_t>& payload) {
        const std::size_t size = 4 + payload.size();
        raw({static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size), type, tag});
        return raw(payload);
    }
    // Zero-terminated and padded with zeros to a multiple of four, as cameras write text.
    R3DHeaderBuilder& text(std::uint8_t tag, std::string_view s, std::uint8_t type = r3dtype::kText) {
        std::vector<std::uint8_t> payload(s.begin(), s.end());
        payload.push_back(0);
        while (payload.size() % 4 != 0)
            payload.push_back(0);
        return record(type, tag, payload);
    }
    R3DHeaderBuilder& float32(std::uint8_t tag, float value, std::uint8_t type = r3dtype::kFloat) {
        return record(type, tag, be32(std::bit_cast<std::uint32_t>(value)));
    }
    R3DHeaderBuilder& int32(std::uint8_t tag, std::uint32_t value, std::uint8_t type = r3dtype::kInt) {
        return record(type, tag, be32(value));
    }
    // Records of an unused tag, to reach the eight records a header needs to count.
    R3DHeaderBuilder& filler(int count) {
        for (int i = 0; i < count; ++i)
            int32(r3dtag::kUnused, static_cast<std::uint32_t>(i));
        return *this;
    }
    // Bytes added to the record area as they are: lying size fields, cut records.
    R3DHeaderBuilder& raw(const std::vector<std::uint8_t>& bytes) {
        records_.insert(records_.end(), bytes.begin(), bytes.end());
        return *this;
    }

    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out(std::max(minimumSize_, recordsOffset_ + records_.size()), 0);
        put32(out, 0, static_cast<std::uint32_t>(out.size()));
        std::memcpy(out.data() + 4, magic_.data(), 4);
        if (rdi_) {
            std::memcpy(out.data() + kRdiOffset, "rdi", 3);
            put32(out, kRdiOffset + 8, width_);
            put32(out, kRdiOffset + 12, height_);
            out[kRdiOffset + 18] = static_cast<std::uint8_t>(denominator_ >> 8);
            out[kRdiOffset + 19] = static_cast<std::uint8_t>(denominator_);
            put32(out, kRdiOffset + 20, numerator_);
        }
        std::copy(records_.begin(), records_.end(),
                  out.begin() + static_cast<std::ptrdiff_t>(recordsOffset_));
        return out;
    }
    std::string string() const {
        const auto b = bytes();
        return std::string(b.begin(), b.end());
    }
    // Writes the bytes, making the parent folders; returns the path.
    std::filesystem::path write(const std::filesystem::path& path) const {
        if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
        const auto b = bytes();
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
        return path;
    }

    static std::vector<std::uint8_t> be32(std::uint32_t v) {
        return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16),
                static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
    }

  private:
    static void put32(std::vector<std::uint8_t>& out, std::size_t at, std::uint32_t v) {
        const auto b = be32(v);
        std::copy(b.begin(), b.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
    }

    std::string magic_ = "RED2";
    bool rdi_ = true;
    std::uint32_t width_ = 4096, height_ = 2160;
    std::uint32_t numerator_ = 24000;
    std::uint16_t denominator_ = 1001;
    std::size_t recordsOffset_ = kRecordsOffset;
    std::size_t minimumSize_ = 256;
    std::vector<std::uint8_t> records_;
};

// What typicalR3DHeader writes, for comparisons.
namespace typicalR3D {
inline constexpr float kRecordFrameRate = 23.976f;
inline constexpr int kWidth = 4096, kHeight = 2160;
inline constexpr const char* kModel = "RED TEST BODY";
inline constexpr const char* kSensor = "TEST 6K S35";
inline constexpr const char* kEdgeTimecode = "01:00:00:00";
inline constexpr const char* kTodTimecode = "14:03:27:12";
inline constexpr const char* kBodySerial = "T0001";
inline constexpr const char* kMediaSerial = "M0042";
inline constexpr const char* kReelFirst = "A001";
inline constexpr const char* kReelSecond = "_0101AB";
inline constexpr const char* kClipNumber = "001";
inline constexpr const char* kFirmware = "1.2.3";
inline constexpr std::uint32_t kAudioSampleRate = 48000;
} // namespace typicalR3D

// A header as a camera writes it: 23.976 fps recorded on a 24000/1001 time base, 4096 x 2160,
// the typicalR3D values, the sidecar's name and the file's own name (both left out when empty).
inline R3DHeaderBuilder typicalR3DHeader(std::string_view sidecarWAV = "A001_C001_0101AB.WAV",
                                         std::string_view ownFilename = "A001_C001_0101AB_001.R3D") {
    using namespace typicalR3D;
    R3DHeaderBuilder b;
    b.frameSize(kWidth, kHeight).timeBase(24000, 1001);
    b.float32(r3dtag::kRecordFrameRate, kRecordFrameRate)
        .text(r3dtag::kModel, kModel)
        .text(r3dtag::kSensor, kSensor)
        .text(r3dtag::kEdgeTimecode, kEdgeTimecode)
        .text(r3dtag::kTodTimecode, kTodTimecode)
        .text(r3dtag::kBodySerial, kBodySerial)
        .text(r3dtag::kMediaSerial, kMediaSerial)
        .text(r3dtag::kReelFirst, kReelFirst)
        .text(r3dtag::kReelSecond, kReelSecond)
        .text(r3dtag::kClipNumber, kClipNumber)
        .text(r3dtag::kFirmware, kFirmware)
        .int32(r3dtag::kAudioSampleRate, kAudioSampleRate);
    if (!sidecarWAV.empty()) b.text(r3dtag::kSidecarWAV, sidecarWAV);
    if (!ownFilename.empty()) b.text(r3dtag::kOwnFilename, ownFilename);
    return b;
}

} // namespace trelvane::test
