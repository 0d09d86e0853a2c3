// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/NaturalOrder.hpp"

#include <cstddef>

namespace trelvane {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

unsigned char fold(char c) {
    const auto u = static_cast<unsigned char>(c);
    return (u >= 'A' && u <= 'Z') ? static_cast<unsigned char>(u + 32) : u;
}

} // namespace

int localizedStandardCompare(std::string_view a, std::string_view b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t ie = i, je = j;
            while (ie < a.size() && isDigit(a[ie]))
                ++ie;
            while (je < b.size() && isDigit(b[je]))
                ++je;
            // Compare by value without converting: leading zeros off, then length, then digits.
            std::size_t ia = i, jb = j;
            while (ia + 1 < ie && a[ia] == '0')
                ++ia;
            while (jb + 1 < je && b[jb] == '0')
                ++jb;
            const std::size_t la = ie - ia, lb = je - jb;
            if (la != lb) return la < lb ? -1 : 1;
            for (std::size_t k = 0; k < la; ++k)
                if (a[ia + k] != b[jb + k]) return a[ia + k] < b[jb + k] ? -1 : 1;
            i = ie;
            j = je;
            continue;
        }
        const unsigned char ca = fold(a[i]), cb = fold(b[j]);
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    // Equivalent under the rules above: force an order so that only identical names are equal.
    const int plain = a.compare(b);
    return plain < 0 ? -1 : (plain > 0 ? 1 : 0);
}

} // namespace trelvane
