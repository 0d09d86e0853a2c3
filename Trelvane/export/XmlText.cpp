// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/XmlText.hpp"

#include "TrelvaneEngine/support/Utf8.hpp"

#include <cstring>

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

std::string percentEncodePath(std::string_view path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    static constexpr const char* kAllowed = "!$&'()*+,-./:;=@_~";
    std::string out;
    out.reserve(path.size() + 16);
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        const bool alnum =
            (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
        if (alnum || (byte != 0 && byte < 0x80 && std::strchr(kAllowed, c) != nullptr)) {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0F];
        }
    }
    return out;
}

std::string fileURLString(const Url& url) {
    return "file://" + percentEncodePath(url.path());
}

} // namespace trelvane::XmlText
