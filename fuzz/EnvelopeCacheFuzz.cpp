// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to both cache-entry readers. Beyond memory errors (ASan) and undefined
// behaviour (UBSan), it checks what the header promises: an entry that reads is a well-formed value
// that writes back to exactly the same bytes, so no input is read in two ways.
#include "TrelvaneEngine/media/EnvelopeCache.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace {

namespace EC = trelvane::EnvelopeCache;

void require(bool promise) {
    if (!promise) std::abort();
}

bool same(const std::vector<std::uint8_t>& written, std::span<const std::uint8_t> read) {
    return written.size() == read.size() && std::equal(written.begin(), written.end(), read.begin());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);

    if (const auto pair = EC::deserialize(bytes)) {
        require(12 + 4 * (pair->preview.size() + pair->envelope.size()) == size);
        const auto again = EC::serialize(pair->preview, pair->envelope);
        require(again && same(*again, bytes));
    }

    if (const auto feature = EC::deserializeBands(bytes)) {
        require(feature->frames >= 0);
        require((feature->frames == 0) == feature->bands.empty());
        for (const auto& band : feature->bands)
            require(band.size() == static_cast<std::size_t>(feature->frames));
        require(12 + 4 * feature->bands.size() * static_cast<std::size_t>(feature->frames) == size);
        const auto again = EC::serializeBands(*feature);
        require(again && same(*again, bytes));
    }
    return 0;
}
