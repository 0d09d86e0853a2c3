// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Formats whose audio this build can't decode, told to the user after analysis so they know why
// those clips were placed by clock or between neighbours, and where to get help.

#include "TrelvaneEngine/support/Uuid.hpp"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace trelvane {

struct FormatAdvisory {
    Uuid id = Uuid::random();
    std::string ext; // lower case
    int clipCount = 0;
    std::string displayName;
    std::string note;
    std::optional<std::string> url;

    struct Entry {
        std::string displayName;
        std::string note;
        std::string url;
    };
    // The known formats, keyed by lower-case extension.
    static const std::map<std::string, Entry>& catalog();
    // One advisory per counted extension the catalogue knows, most clips first (stable for ties).
    static std::vector<FormatAdvisory> fromCounts(const std::map<std::string, int>& counts);
};

} // namespace trelvane
