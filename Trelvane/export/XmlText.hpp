// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Text helpers the document writers share: escaping for element text and attribute values, and
// file URLs.

#include "TrelvaneEngine/support/Url.hpp"

#include <string>
#include <string_view>

namespace trelvane::XmlText {

// "&" -> "&amp;", "<" -> "&lt;", ">" -> "&gt;", '"' -> "&quot;", in that order. File names may hold
// any bytes, but an XML document may not: bytes that are not well-formed UTF-8 and control
// characters become U+FFFD, so that the document always parses.
std::string escape(std::string_view text);

// "file://" + the absolute path percent-encoded with the URL path characters:
// "file:///Volumes/A%20B/clip.mov".
std::string fileURLString(const Url& url);

} // namespace trelvane::XmlText
