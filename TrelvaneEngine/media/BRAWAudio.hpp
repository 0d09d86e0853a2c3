// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The sound of Blackmagic RAW (.braw) clips, read through Blackmagic's own SDK. The SDK is not
// part of this build and may not be installed: it is looked for at run time and loaded with
// dlopen, and without it `isAvailable()` is false and `availabilityNote()` tells the user what
// to install.
//
// Where the library is looked for, first hit wins:
//   1. $TRELVANE_BRAW_SDK: the path of libBlackmagicRawAPI.so, or of the folder holding it;
//   2. "libBlackmagicRawAPI.so" through the loader's own search (LD_LIBRARY_PATH, ld.so.cache);
//   3. the folders the SDK, Blackmagic RAW Player, Blackmagic RAW Speed Test and DaVinci Resolve
//      install it to (see libraryCandidates()).
// A library that loads but lacks CreateBlackmagicRawFactoryInstance doesn't count. Once found,
// the library stays loaded for the life of the process (the SDK starts threads of its own and
// must never be unloaded); until it is found, every call looks again, so that an SDK installed
// while the application runs is picked up.
//
// Every function may be called from any thread, any number at once; each read opens its own
// codec and clip.

#include "TrelvaneEngine/support/Progress.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace trelvane::BRAWAudio {

// What the SDK gives of one clip: `frameCount` frames of `channelCount` channels at
// `sampleRate` Hz, as interleaved floats in [-1, 1] (frame after frame, channels in order).
struct Audio {
    std::uint64_t frameCount = 0;
    std::uint32_t channelCount = 0;
    double sampleRate = 0;
    std::vector<float> interleaved;
};

// Either the audio, or the reason why not (a text for the user).
struct ReadResult {
    std::optional<Audio> audio;
    std::string error;
};

// Whether the SDK can be loaded now.
bool isAvailable();

// What the user needs to install to read .braw clips.
std::string availabilityNote();

// The whole audio of the clip at `path`. No result (with a reason) when the SDK is missing, the
// clip can't be opened, its audio can't be read, or it would be longer than the longest
// analysis stream (AudioExtractor::kLongestExtraction seconds). A clip without audio comes back
// as an `Audio` with no frames or channels. `progress` (optional) is told the fraction read, on
// the reading thread.
ReadResult readAudio(const std::string& path, const ProgressFn& progress = {});

// The places looked at after $TRELVANE_BRAW_SDK, in order.
std::vector<std::string> libraryCandidates();

// Little-endian signed PCM to floats in [-1, 1): `bytesPerSample` is the container (2, 3 or 4
// bytes), `bitDepth` the significant bits; 24 bits in 4-byte containers are taken as
// right-aligned. Appends to `out`; false, with nothing appended, for a size that is not a whole
// number of samples or an unknown container.
bool appendPCM(std::span<const std::byte> bytes, int bytesPerSample, int bitDepth, std::vector<float>& out);

} // namespace trelvane::BRAWAudio
