// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// RED cameras write `.r3d` picture files that the decoder can't open; their sound lies in a sidecar
// WAV. R3DHeader reads what the system needs from the first bytes of such a file: frame rates,
// frame size, sidecar name, timecodes and the identity of camera and media. A namespace of static
// operations over a byte array: no state, nothing thrown, and a header that is not understood
// gives nothing (the caller treats the clip as one without metadata).

#include "TrelvaneEngine/support/Url.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace trelvane::R3DHeader {

// Only this many leading bytes of a file are ever read: a card holds many large files.
inline constexpr std::size_t kMaxHeaderBytes = 16384;

// One header record, big-endian on disk:
//   offset 0, 16 bits: record size, these four bytes included (below 4 ends a walk)
//   offset 2,  8 bits: type (kTextRecord, kFloatRecord, kIntRecord / kIntRecordAlt)
//   offset 3,  8 bits: tag
//   offset 4:          payload, size - 4 bytes
// `payload` views the byte array the record was found in and lives no longer than it.
struct Record {
    std::uint8_t type = 0;
    std::uint8_t tag = 0;
    std::span<const std::uint8_t> payload;
};

inline constexpr std::uint8_t kTextRecord = 0x10;
inline constexpr std::uint8_t kFloatRecord = 0x20;
inline constexpr std::uint8_t kIntRecord = 0x50;
inline constexpr std::uint8_t kIntRecordAlt = 0x60;

// What the header tells. Every field is optional; a text field is never empty and always valid
// UTF-8 (bad sequences are replaced by U+FFFD).
struct Metadata {
    std::optional<double> recordFrameRate; // tag 0x66, float: the rate the sensor ran at (finite)
    std::optional<double> timeBase;        // "rdi" block: playback rate, 1.0 < rate < 500.0
    std::optional<int> width;              // "rdi" block: pixels, 128…20,000, both or neither
    std::optional<int> height;
    std::optional<std::string> sidecarWAV;   // tag 0xC4
    std::optional<std::string> edgeTimecode; // tag 0xAD
    std::optional<std::string> todTimecode;  // tag 0xAE, time of day
    std::optional<std::string> model;        // tag 0xA0, camera body
    std::optional<std::string> sensor;       // tag 0xA1
    std::optional<std::string> bodySerial;   // tag 0x32
    std::optional<std::string> mediaSerial;  // tag 0x06
    std::optional<std::string> reel;         // tags 0x19 then 0x1A, joined; only when both are there
    std::optional<std::string> clipNumber;   // tag 0x1B
    std::optional<std::string> firmware;     // tag 0x25
    std::optional<int> audioSampleRate;      // tag 0xBF, integer record, Hz
    std::optional<std::string> ownFilename;  // tag 0x56

    bool operator==(const Metadata&) const = default;
};

// Reads at most kMaxHeaderBytes of the file and parses them. A file that can't be opened or read
// (missing, a folder, no permission) gives nothing; the file is closed again in every case.
std::optional<Metadata> read(const Url& url);

// The same over bytes already in memory; only the first kMaxHeaderBytes are looked at, so that
// parse(whole file) equals read(file). Nothing when the bytes are 128 or fewer, lack "RED2" at
// offset 4, or hold none of recordFrameRate, sidecarWAV and model. Never reads outside `bytes`,
// whatever the size fields say.
std::optional<Metadata> parse(std::span<const std::uint8_t> bytes);

} // namespace trelvane::R3DHeader
