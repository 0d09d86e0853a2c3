// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to R3DHeader::parse. Beyond memory errors (ASan) and undefined behaviour
// (UBSan), it checks what the header promises of every result, and aborts where a promise fails.
#include "TrelvaneEngine/media/R3DHeader.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>

namespace {

using trelvane::R3DHeader::Metadata;

void require(bool promise) {
    if (!promise) std::abort();
}

// Well-formed UTF-8 without overlong forms, surrogates or values above U+10FFFF.
bool isValidUTF8(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF;
        if (c < 0x80)
            length = 1;
        else if (c >= 0xC2 && c <= 0xDF)
            length = 2;
        else if (c == 0xE0)
            length = 3, low = 0xA0;
        else if (c == 0xED)
            length = 3, high = 0x9F;
        else if (c >= 0xE1 && c <= 0xEF)
            length = 3;
        else if (c == 0xF0)
            length = 4, low = 0x90;
        else if (c == 0xF4)
            length = 4, high = 0x8F;
        else if (c >= 0xF1 && c <= 0xF3)
            length = 4;
        else
            return false;
        if (s.size() - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto b = static_cast<unsigned char>(s[i + k]);
            if (b < (k == 1 ? low : 0x80) || b > (k == 1 ? high : 0xBF)) return false;
        }
        i += length;
    }
    return true;
}

void checkText(const std::optional<std::string>& text) {
    if (!text) return;
    require(!text->empty());
    require(text->find('\0') == std::string::npos);
    require(isValidUTF8(*text));
}

void check(const Metadata& m) {
    require(m.recordFrameRate || m.sidecarWAV || m.model);
    if (m.recordFrameRate) require(std::isfinite(*m.recordFrameRate));
    if (m.timeBase) require(*m.timeBase > 1.0 && *m.timeBase < 500.0);
    require(m.width.has_value() == m.height.has_value());
    if (m.width) require(*m.width >= 128 && *m.width <= 20000 && *m.height >= 128 && *m.height <= 20000);
    for (const auto* text :
         {&m.sidecarWAV, &m.edgeTimecode, &m.todTimecode, &m.model, &m.sensor, &m.bodySerial, &m.mediaSerial,
          &m.reel, &m.clipNumber, &m.firmware, &m.ownFilename})
        checkText(*text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    const auto meta = trelvane::R3DHeader::parse(bytes);
    if (meta) check(*meta);
    // Only the leading bytes count: the result must not depend on anything behind them.
    if (size > trelvane::R3DHeader::kMaxHeaderBytes)
        require(trelvane::R3DHeader::parse(bytes.first(trelvane::R3DHeader::kMaxHeaderBytes)) == meta);
    return 0;
}
