// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Reading exported documents back with a real XML parser (xmllint), and the FCPXML DTD to check
// them against.

#include "TestSupport.hpp"

#include <cstdlib>
#include <filesystem>
#include <string>

namespace trelvane::test {

// Whether xmllint finds the file well formed (and, given a DTD, valid against it).
inline bool xmllintAccepts(const std::filesystem::path& file, const std::string& dtd = {}) {
    const std::string cmd = "xmllint --noout " + (dtd.empty() ? "" : "--dtdvalid " + quoted(dtd) + " ") +
                            quoted(file.string()) + " 2>&1";
    return std::system(cmd.c_str()) == 0;
}

// The DTD is not ours to ship, so it lives beside the checkout: TRELVANE_FCPXML_DTD names it, or
// it is looked for as shared/interchange/ in the folders above the sources.
inline std::filesystem::path fcpxmlDtd() {
    if (const char* named = std::getenv("TRELVANE_FCPXML_DTD"); named != nullptr && *named != '\0')
        return named;
    const std::filesystem::path relative = "shared/interchange/FCPXMLv1_10.dtd";
    std::error_code ec;
    for (auto dir = std::filesystem::weakly_canonical(TRELVANE_SOURCE_DIR, ec).parent_path(); !dir.empty();
         dir = dir.parent_path()) {
        if (std::filesystem::exists(dir / relative, ec)) return dir / relative;
        if (dir == dir.parent_path()) break;
    }
    return std::filesystem::path(TRELVANE_SOURCE_DIR) / ".." / relative;
}

// Continuous integration must check against the DTD: there a missing one fails, never skips.
#define TRELVANE_REQUIRE_FCPXML_DTD(dtd)                                                                     \
    if (!std::filesystem::exists(dtd)) {                                                                     \
        if (const char* ci = std::getenv("CI"); ci != nullptr && std::string(ci) == "true")                  \
            FAIL() << "FCPXML DTD not found at " << (dtd) << " (set TRELVANE_FCPXML_DTD)";                   \
        GTEST_SKIP() << "FCPXML DTD not found at " << (dtd);                                                 \
    }

} // namespace trelvane::test
