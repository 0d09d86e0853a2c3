// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/Url.hpp"

#include <cstring>
#include <system_error>

namespace trelvane {

namespace {

bool kept(unsigned char byte, UrlChars keep) {
    if (byte <= 0x20 || byte >= 0x7F || byte == '%') return false;
    const bool alnum =
        (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
    switch (keep) {
    case UrlChars::unreserved:
        return alnum || std::strchr("-._~", byte) != nullptr;
    case UrlChars::path:
        return alnum || std::strchr("-._~!$&'()*+,/:;=@", byte) != nullptr;
    case UrlChars::printable:
        return true;
    }
    return false;
}

} // namespace

std::string percentEncoded(std::string_view bytes, UrlChars keep) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() + 16);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (kept(byte, keep)) {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0F];
        }
    }
    return out;
}

Url Url::fromPath(const std::filesystem::path& path) {
    std::filesystem::path p = path;
    if (p.empty()) return Url();
    if (p.is_relative()) {
        std::error_code ec;
        auto cwd = std::filesystem::current_path(ec);
        if (!ec) p = cwd / p;
    }
    std::string s = p.lexically_normal().string();
    while (s.size() > 1 && s.back() == '/')
        s.pop_back();
    return Url(std::move(s));
}

std::string Url::lastPathComponent() const {
    if (path_ == "/") return "/";
    const auto slash = path_.rfind('/');
    return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

std::string Url::pathExtension() const {
    const std::string name = lastPathComponent();
    const auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return "";
    return name.substr(dot + 1);
}

std::string Url::baseName() const {
    const std::string name = lastPathComponent();
    const std::string ext = pathExtension();
    return ext.empty() ? name : name.substr(0, name.size() - ext.size() - 1);
}

Url Url::deletingLastPathComponent() const {
    if (path_.empty() || path_ == "/") return *this;
    const auto slash = path_.rfind('/');
    if (slash == std::string::npos) return Url();
    if (slash == 0) return Url("/");
    return Url(path_.substr(0, slash));
}

Url Url::deletingPathExtension() const {
    const std::string ext = pathExtension();
    if (ext.empty()) return *this;
    return Url(path_.substr(0, path_.size() - ext.size() - 1));
}

Url Url::appending(const std::string& component) const {
    if (path_ == "/") return Url("/" + component);
    return Url(path_ + "/" + component);
}

} // namespace trelvane
