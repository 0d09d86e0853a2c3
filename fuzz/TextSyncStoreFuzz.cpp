// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to the regions-file reader (TextSyncStore::decodeRegionsFile) and to the
// session sanitiser. Beyond memory errors (ASan) and undefined behaviour (UBSan), it checks what the
// header promises: a document that reads holds finite numbers only and reads the same twice, and a
// sanitised session is a safe folder name (letters, digits, "-" and "_" only, valid UTF-8) that
// sanitises to itself.
#include "TrelvaneEngine/ingest/TextSyncStore.hpp"

#include "TrelvaneEngine/support/Utf8.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace TS = trelvane::TextSyncStore;

void require(bool promise) {
    if (!promise) std::abort();
}

void checkRange(const std::optional<std::vector<double>>& range) {
    if (range)
        for (double v : *range)
            require(std::isfinite(v));
}

// The numbers of a document, in reading order: two reads of one input must give the same list.
std::vector<double> numbersOf(const TS::TextSyncRegionsFile& file) {
    std::vector<double> out{static_cast<double>(file.regions.size())};
    for (const auto& r : file.regions) {
        out.push_back(static_cast<double>(r.trackNames.size()));
        if (!r.supportEdges) continue;
        for (const auto& e : *r.supportEdges) {
            require(std::isfinite(e.approxOffsetSec));
            checkRange(e.timeRangeA);
            checkRange(e.timeRangeB);
            out.push_back(e.approxOffsetSec);
            out.push_back(e.support);
        }
    }
    if (file.pairs)
        for (const auto& p : *file.pairs)
            if (p.best) {
                require(std::isfinite(p.best->approxOffsetSec));
                out.push_back(p.best->approxOffsetSec);
            }
    return out;
}

void checkFolderName(const std::string& session) {
    const std::string folder = TS::sanitizeSession(session);
    require(trelvane::Utf8::isValid(folder));
    for (const char c : folder)
        require(c != '/' && c != '.' && c != '\0' && static_cast<unsigned char>(c) > 0x20);
    require(TS::sanitizeSession(folder) == folder);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto file = TS::decodeRegionsFile(bytes);
    const auto again = TS::decodeRegionsFile(bytes);
    require(file.has_value() == again.has_value());
    if (file) require(numbersOf(*file) == numbersOf(*again));

    checkFolderName(std::string(bytes.substr(0, 512)));
    return 0;
}
