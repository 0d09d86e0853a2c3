// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to RiffReader::parse. Beyond memory errors (ASan) and undefined behaviour
// (UBSan), it checks what the header promises of every result, and aborts where a promise fails.
#include "TrelvaneEngine/media/RiffReader.hpp"

#include "TrelvaneEngine/support/Utf8.hpp"
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

bool isValidUTF8(const std::string& s) {
    return trelvane::Utf8::isValid(s);
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
