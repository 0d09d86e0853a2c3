// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/XmlText.hpp"

#include "TrelvaneEngine/support/Utf8.hpp"

namespace trelvane::XmlText {

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 16);
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = Utf8::sequenceLength(text, i);
        if (length == 0) {
            out += Utf8::kReplacement;
            ++i;
            continue;
        }
        if (length > 1) {
            out.append(text.substr(i, length));
            i += length;
            continue;
        }
        const char c = text[i++];
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            // XML 1.0 has no way to carry C0 controls, not even as references.
            if (static_cast<unsigned char>(c) < 0x20)
                out += Utf8::kReplacement;
            else
                out += c;
        }
    }
    return out;
}

std::string fileURLString(const Url& url) {
    return "file://" + percentEncoded(url.path(), UrlChars::path);
}

} // namespace trelvane::XmlText
