// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to RiffReader::parse. Beyond memory errors (ASan) and undefined behaviour
// (UBSan), it checks what the header promises of every result, and aborts where a promise fails.
#include "TrelvaneEngine/media/RiffReader.hpp"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace {

using trelvane::RiffReader::Wave;

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

// Text that validText made: valid UTF-8, no control characters, no blank at either end or twice
// in a row, at most three bytes (U+FFFD) for every byte it came from.
void checkText(const std::string& text, std::size_t sourceBytes) {
    require(isValidUTF8(text));
    require(text.size() <= 3 * sourceBytes);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        require(c >= 0x20 && c != 0x7F);
        if (c == ' ') require(i > 0 && i + 1 < text.size() && text[i + 1] != ' ');
    }
    require(trelvane::RiffReader::validText(text) == text);
}

void check(const Wave& w, std::size_t size) {
    if (w.dataBytes) require(*w.dataBytes <= size);
    if (w.bext) {
        checkText(w.bext->description, 256);
        checkText(w.bext->originator, 32);
        checkText(w.bext->originatorReference, 32);
        checkText(w.bext->originationDate, 10);
        checkText(w.bext->originationTime, 8);
    }
    if (w.ixml) checkText(*w.ixml, std::min(size, trelvane::RiffReader::kMaxIxmlBytes));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    const auto wave = trelvane::RiffReader::parse(bytes);
    if (wave) {
        check(*wave, size);
        // A file that is no WAVE file gives nothing; one that is gives a result whatever follows.
        require(size >= 12);
    }
    require(trelvane::RiffReader::parse(bytes) == wave);

    const std::string_view text(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 1024));
    checkText(trelvane::RiffReader::validText(text), text.size());
    return 0;
}
