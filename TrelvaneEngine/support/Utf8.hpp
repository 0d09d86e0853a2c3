// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// UTF-8 checks for text that comes from files and file names, which may hold any bytes.

#include <cstddef>
#include <string_view>

namespace trelvane::Utf8 {

// Length of the well-formed sequence at `i` (no overlong forms, surrogates or values above
// U+10FFFF), or 0 when the bytes there are not one.
inline std::size_t sequenceLength(std::string_view s, std::size_t i) {
    if (i >= s.size()) return 0;
    const auto c = static_cast<unsigned char>(s[i]);
    std::size_t length;
    unsigned char low = 0x80, high = 0xBF;
    if (c < 0x80) return 1;
    if (c >= 0xC2 && c <= 0xDF)
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
        return 0;
    if (s.size() - i < length) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        const auto b = static_cast<unsigned char>(s[i + k]);
        if (b < (k == 1 ? low : 0x80) || b > (k == 1 ? high : 0xBF)) return 0;
    }
    return length;
}

inline bool isValid(std::string_view s) {
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t length = sequenceLength(s, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

// U+FFFD, what stands in for a byte that is not part of a well-formed sequence.
inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

} // namespace trelvane::Utf8
