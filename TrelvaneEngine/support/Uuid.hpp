// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace trelvane {

// A random (version 4) UUID. Values are made by `Uuid::random()`; the default value is the nil UUID.
struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    static Uuid random();
    // The same UUID for the same text, every run (version 8, from a 128-bit hash of the bytes): for
    // what is identified by something stable, such as a clip by its file, so that two runs over
    // the same media describe it with the same identifiers.
    static Uuid named(std::string_view text);
    // Parses the canonical 8-4-4-4-12 hexadecimal form, either case. Anything else gives nothing.
    static std::optional<Uuid> parse(std::string_view text);

    // Canonical upper-case text, as the platform the session model was first written on prints it.
    std::string string() const;
    bool isNil() const;

    auto operator<=>(const Uuid&) const = default;
    bool operator==(const Uuid&) const = default;
};

} // namespace trelvane

template <> struct std::hash<trelvane::Uuid> {
    std::size_t operator()(const trelvane::Uuid& u) const noexcept;
};
