// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string_view>

namespace trelvane {

// File-name order as a desktop file browser shows it: runs of digits compare by numeric value
// ("A_2" before "A_10"), letter case does not decide ("clip" and "CLIP" tie on that). Names that
// are equivalent under those rules but not byte-identical still get a fixed order (by their
// bytes), so only identical names compare equal. Returns <0, 0 or >0.
int localizedStandardCompare(std::string_view a, std::string_view b);

inline bool localizedStandardLess(std::string_view a, std::string_view b) {
    return localizedStandardCompare(a, b) < 0;
}

} // namespace trelvane
