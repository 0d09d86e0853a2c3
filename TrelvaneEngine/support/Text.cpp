// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/support/Text.hpp"

namespace trelvane {

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += separator;
        out += parts[i];
    }
    return out;
}

} // namespace trelvane
