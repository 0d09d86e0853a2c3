// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

namespace trelvane::Fingerprint {

// A landmark of an audio fingerprint. The clip model keeps a field of them for compatibility of
// the record's shape; nothing in the system produces or reads landmarks.
struct Landmark {
    std::uint32_t hash = 0;
    int t = 0; // frame index

    bool operator==(const Landmark&) const = default;
};

} // namespace trelvane::Fingerprint
