// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to R3DHeader::parse. Beyond memory errors (ASan) and undefined behaviour
// (UBSan), it checks what the header promises of every result, and aborts where a promise fails.
#include "TrelvaneEngine/media/R3DHeader.hpp"

#include "TrelvaneEngine/support/Utf8.hpp"
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>

#include <string>

namespace {

using trelvane::R3DHeader::Metadata;

void require(bool promise) {
    if (!promise) std::abort();
}

bool isValidUTF8(const std::string& s) {
    return trelvane::Utf8::isValid(s);
}

void checkText(const std::optional<std::string>& text) {
    if (!text) return;
    require(!text->empty());
    require(text->find('\0') == std::string::npos);
    require(isValidUTF8(*text));
}

void check(const Metadata& m) {
    require(m.recordFrameRate || m.sidecarWAV || m.model);
    if (m.recordFrameRate) require(std::isfinite(*m.recordFrameRate));
    if (m.timeBase) require(*m.timeBase > 1.0 && *m.timeBase < 500.0);
    require(m.width.has_value() == m.height.has_value());
    if (m.width) require(*m.width >= 128 && *m.width <= 20000 && *m.height >= 128 && *m.height <= 20000);
    for (const auto* text :
         {&m.sidecarWAV, &m.edgeTimecode, &m.todTimecode, &m.model, &m.sensor, &m.bodySerial, &m.mediaSerial,
          &m.reel, &m.clipNumber, &m.firmware, &m.ownFilename})
        checkText(*text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    const auto meta = trelvane::R3DHeader::parse(bytes);
    if (meta) check(*meta);
    // Only the leading bytes count: the result must not depend on anything behind them.
    if (size > trelvane::R3DHeader::kMaxHeaderBytes)
        require(trelvane::R3DHeader::parse(bytes.first(trelvane::R3DHeader::kMaxHeaderBytes)) == meta);
    return 0;
}
