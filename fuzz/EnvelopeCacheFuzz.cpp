// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to the three cache-entry readers. Beyond memory errors (ASan) and undefined
// behaviour (UBSan), it checks what the header promises: an entry that reads is a well-formed value
// of finite numbers that writes back to exactly the same bytes, so no input is read in two ways.
// Entries are read as the file whose key text is kKeyText; the seed corpus holds entries of it.
#include "TrelvaneEngine/media/EnvelopeCache.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

namespace {

namespace EC = trelvane::EnvelopeCache;

constexpr std::string_view kKeyText = "/shoot/A001.WAV|4096|1700000000";

void require(bool promise) {
    if (!promise) std::abort();
}

bool same(const std::vector<std::uint8_t>& written, std::span<const std::uint8_t> read) {
    return written.size() == read.size() && std::equal(written.begin(), written.end(), read.begin());
}

bool finite(const std::vector<float>& values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);

    if (const auto pair = EC::deserialize(bytes, kKeyText)) {
        require(28 + kKeyText.size() + 4 * (pair->preview.size() + pair->envelope.size()) == size);
        require(std::isfinite(pair->duration) && pair->duration >= 0);
        require(finite(pair->preview) && finite(pair->envelope));
        const auto again = EC::serialize(kKeyText, *pair);
        require(again && same(*again, bytes));
        // Read as another file's, the same bytes are a miss.
        require(!EC::deserialize(bytes, "/shoot/A002.WAV|4096|1700000000"));
    }

    if (const auto feature = EC::deserializeBands(bytes, kKeyText)) {
        require(feature->frames >= 0);
        require((feature->frames == 0) == feature->bands.empty());
        for (const auto& band : feature->bands)
            require(band.size() == static_cast<std::size_t>(feature->frames) && finite(band));
        require(20 + kKeyText.size() +
                    4 * feature->bands.size() * static_cast<std::size_t>(feature->frames) ==
                size);
        const auto again = EC::serializeBands(kKeyText, *feature);
        require(again && same(*again, bytes));
        require(!EC::deserializeBands(bytes, "/shoot/A002.WAV|4096|1700000000"));
    }

    if (const auto numbers = EC::deserializeNumbers(bytes, kKeyText)) {
        require(16 + kKeyText.size() + 8 * numbers->size() == size);
        require(std::all_of(numbers->begin(), numbers->end(), [](double v) { return std::isfinite(v); }));
        const auto again = EC::serializeNumbers(kKeyText, *numbers);
        require(again && same(*again, bytes));
        require(!EC::deserializeNumbers(bytes, "/shoot/A002.WAV|4096|1700000000"));
    }
    return 0;
}
