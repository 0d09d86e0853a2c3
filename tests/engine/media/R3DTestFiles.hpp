// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Synthetic .r3d headers for tests: the leading bytes of a RED picture file, as R3DHeader reads
// them. All numbers big-endian: a 32-bit total size at 0, the magic "RED2" at 4, the "rdi" block
// at 16 (+8 width, +12 height, +18 16-bit denominator, +20 32-bit numerator), and the records
// from 64, then zeros up to at least 256 bytes.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace trelvane::test {

// The tags R3DHeader understands, and kUnused, read by nothing.
namespace r3dtag {
inline constexpr std::uint8_t kRecordFrameRate = 0x66, kSidecarWAV = 0xC4, kEdgeTimecode = 0xAD,
                              kTodTimecode = 0xAE, kModel = 0xA0, kSensor = 0xA1, kBodySerial = 0x32,
                              kMediaSerial = 0x06, kReelFirst = 0x19, kReelSecond = 0x1A, kClipNumber = 0x1B,
                              kFirmware = 0x25, kAudioSampleRate = 0xBF, kOwnFilename = 0x56, kUnused = 0x01;
} // namespace r3dtag

namespace r3dtype {
inline constexpr std::uint8_t kText = 0x10, kFloat = 0x20, kInt = 0x50, kIntAlt = 0x60;
} // namespace r3dtype

class R3DHeaderBuilder {
  public:
    static constexpr std::size_t kRdiOffset = 16, kRecordsOffset = 64;
    using Bytes = std::vector<std::uint8_t>;

    R3DHeaderBuilder& frameSize(std::uint32_t width, std::uint32_t height) {
        std::tie(width_, height_) = std::pair(width, height);
        return *this;
    }
    // The time base as the camera stores it: 24000 / 1001 is 23.976.
    R3DHeaderBuilder& timeBase(std::uint32_t numerator, std::uint16_t denominator) {
        std::tie(numerator_, denominator_) = std::pair(numerator, denominator);
        return *this;
    }
    R3DHeaderBuilder& record(std::uint8_t type, std::uint8_t tag, const Bytes& payload) {
        const std::size_t size = 4 + payload.size();
        raw({static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size), type, tag});
        return raw(payload);
    }
    // Zero-terminated and padded with zeros to a multiple of four, as cameras write text.
    R3DHeaderBuilder& text(std::uint8_t tag, std::string_view s, std::uint8_t type = r3dtype::kText) {
        Bytes payload(s.begin(), s.end());
        payload.resize((s.size() / 4 + 1) * 4, 0);
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
    R3DHeaderBuilder& raw(const Bytes& bytes) {
        records_.insert(records_.end(), bytes.begin(), bytes.end());
        return *this;
    }

    Bytes bytes() const {
        Bytes out(std::max<std::size_t>(256, kRecordsOffset + records_.size()), 0);
        put(out, 0, be32(static_cast<std::uint32_t>(out.size())));
        std::memcpy(out.data() + 4, "RED2", 4);
        std::memcpy(out.data() + kRdiOffset, "rdi", 3);
        put(out, kRdiOffset + 8, be32(width_));
        put(out, kRdiOffset + 12, be32(height_));
        put(out, kRdiOffset + 18,
            {static_cast<std::uint8_t>(denominator_ >> 8), static_cast<std::uint8_t>(denominator_)});
        put(out, kRdiOffset + 20, be32(numerator_));
        put(out, kRecordsOffset, records_);
        return out;
    }
    std::filesystem::path write(const std::filesystem::path& path) const {
        std::filesystem::create_directories(path.parent_path());
        const auto b = bytes();
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
        return path;
    }

    static Bytes be32(std::uint32_t v) {
        return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16),
                static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
    }

  private:
    static void put(Bytes& out, std::size_t at, const Bytes& b) {
        std::copy(b.begin(), b.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
    }

    std::uint32_t width_ = 4096, height_ = 2160, numerator_ = 24000;
    std::uint16_t denominator_ = 1001;
    Bytes records_;
};

// A header as a camera writes it: 23.976 fps recorded on a 24000/1001 time base, 4096 x 2160, a
// value in every field R3DHeader reads, the sidecar's name and the file's own (left out when empty).
inline R3DHeaderBuilder typicalR3DHeader(std::string_view sidecarWAV = "A001_C001_0101AB.WAV",
                                         std::string_view ownFilename = "A001_C001_0101AB_001.R3D") {
    using namespace r3dtag;
    R3DHeaderBuilder b;
    b.float32(kRecordFrameRate, 23.976f).text(kModel, "RED TEST BODY").text(kSensor, "TEST 6K S35");
    b.text(kEdgeTimecode, "01:00:00:00").text(kTodTimecode, "14:03:27:12").text(kBodySerial, "T0001");
    b.text(kMediaSerial, "M0042").text(kReelFirst, "A001").text(kReelSecond, "_0101AB");
    b.text(kClipNumber, "001").text(kFirmware, "1.2.3").int32(kAudioSampleRate, 48000);
    if (!sidecarWAV.empty()) b.text(kSidecarWAV, sidecarWAV);
    if (!ownFilename.empty()) b.text(kOwnFilename, ownFilename);
    return b;
}

} // namespace trelvane::test
