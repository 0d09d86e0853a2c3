// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/Uuid.hpp"

#include <cstring>
#include <mutex>
#include <random>

namespace trelvane {

Uuid Uuid::random() {
    // One generator per thread, seeded from the OS: identifiers are made on workers too. Nothing
    // depends on its state but the randomness of the identifiers, so nothing needs to own it.
    thread_local std::mt19937_64 engine = [] {
        std::random_device rd;
        std::seed_seq seq{rd(), rd(), rd(), rd(), rd(), rd(), rd(), rd()};
        return std::mt19937_64(seq);
    }();
    Uuid u;
    const std::uint64_t a = engine();
    const std::uint64_t b = engine();
    std::memcpy(u.bytes.data(), &a, 8);
    std::memcpy(u.bytes.data() + 8, &b, 8);
    u.bytes[6] = static_cast<std::uint8_t>((u.bytes[6] & 0x0F) | 0x40); // version 4
    u.bytes[8] = static_cast<std::uint8_t>((u.bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return u;
}

Uuid Uuid::named(std::string_view text) {
    // Two FNV-1a passes from different bases, each finished by the SplitMix64 mixer so that a
    // change of one byte spreads over every bit. Not cryptographic: the texts are the session's own.
    const auto hash = [text](std::uint64_t h) {
        for (const char c : text) {
            h ^= static_cast<unsigned char>(c);
            h *= 0x100000001b3ULL;
        }
        h ^= h >> 30;
        h *= 0xbf58476d1ce4e5b9ULL;
        h ^= h >> 27;
        h *= 0x94d049bb133111ebULL;
        return h ^ (h >> 31);
    };
    const std::uint64_t a = hash(0xcbf29ce484222325ULL);
    const std::uint64_t b = hash(0x84222325cbf29ce4ULL ^ text.size());
    Uuid u;
    for (int i = 0; i < 8; ++i) {
        u.bytes[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(a >> (56 - 8 * i));
        u.bytes[static_cast<std::size_t>(8 + i)] = static_cast<std::uint8_t>(b >> (56 - 8 * i));
    }
    u.bytes[6] = static_cast<std::uint8_t>((u.bytes[6] & 0x0F) | 0x80); // version 8
    u.bytes[8] = static_cast<std::uint8_t>((u.bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return u;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Uuid u;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        auto nibble = [](char c) -> int {
            if (c >= '0' && c <= '9') return c - '0';
            if (c >= 'a' && c <= 'f') return c - 'a' + 10;
            if (c >= 'A' && c <= 'F') return c - 'A' + 10;
            return -1;
        };
        const int hi = nibble(text[i]);
        const int lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        u.bytes[byte++] = static_cast<std::uint8_t>(hi * 16 + lo);
        i += 2;
    }
    return u;
}

std::string Uuid::string() const {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(kHex[bytes[i] >> 4]);
        out.push_back(kHex[bytes[i] & 0x0F]);
    }
    return out;
}

bool Uuid::isNil() const {
    for (auto b : bytes)
        if (b != 0) return false;
    return true;
}

} // namespace trelvane

std::size_t std::hash<trelvane::Uuid>::operator()(const trelvane::Uuid& u) const noexcept {
    std::uint64_t a = 0, b = 0;
    std::memcpy(&a, u.bytes.data(), 8);
    std::memcpy(&b, u.bytes.data() + 8, 8);
    return static_cast<std::size_t>(a ^ (b * 0x9E3779B97F4A7C15ULL));
}
