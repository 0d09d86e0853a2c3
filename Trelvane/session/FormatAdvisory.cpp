// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/FormatAdvisory.hpp"

#include <algorithm>

namespace trelvane {

const std::map<std::string, FormatAdvisory::Entry>& FormatAdvisory::catalog() {
    static const std::map<std::string, Entry> entries{
        {"mxf",
         {"MXF (Sony XAVC / X-OCN, Canon XF-AVC)",
          "macOS needs Apple's free \"Pro Video Formats\" add-on to read this container.",
          "https://support.apple.com/"}},
        {"braw",
         {"Blackmagic RAW (.braw)",
          "Trelvane reads BRAW audio through Blackmagic's own framework. Install the free Blackmagic RAW "
          "Player "
          "(or DaVinci Resolve) and re-add the clips.",
          "https://www.blackmagicdesign.com/products/blackmagicraw"}},
        {"r3d", {"REDCODE RAW (.r3d)", "Needs RED's REDCODE tools/SDK.", "https://www.red.com/"}},
        {"ari", {"ARRIRAW (.ari)", "Needs ARRI's camera software tools.", "https://www.arri.com/"}},
        {"arx", {"ARRIRAW (.arx)", "Needs ARRI's camera software tools.", "https://www.arri.com/"}},
        {"crm",
         {"Canon Cinema RAW Light (.crm)", "Needs Canon's Cinema RAW Development software.",
          "https://www.canon.com/"}},
    };
    return entries;
}

std::vector<FormatAdvisory> FormatAdvisory::fromCounts(const std::map<std::string, int>& counts) {
    std::vector<FormatAdvisory> out;
    for (const auto& [ext, count] : counts) {
        const auto it = catalog().find(ext);
        if (it == catalog().end()) continue;
        FormatAdvisory a;
        a.ext = ext;
        a.clipCount = count;
        a.displayName = it->second.displayName;
        a.note = it->second.note;
        a.url = it->second.url;
        out.push_back(std::move(a));
    }
    std::stable_sort(out.begin(), out.end(), [](const FormatAdvisory& a, const FormatAdvisory& b) {
        return a.clipCount > b.clipCount;
    });
    return out;
}

} // namespace trelvane
