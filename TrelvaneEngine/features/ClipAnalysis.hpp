// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The analysis of one clip, the stage between metadata and placement: its sound decoded once and
// turned into what the timeline draws (the waveform), what close-gaps and stacks compare (the
// magnitude envelope) and what the sync matches (the band feature), or why it can't be.

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/support/Progress.hpp"

#include <functional>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <variant>
#include <vector>

namespace trelvane {

struct ExtractPayload {
    // The length the decoder found, which replaces the container's: a payload from the cache
    // carries the length its decode found, so a clip is laid out alike whether it was decoded in
    // this run or an earlier one. Absent leaves the length the metadata gave.
    std::optional<double> duration;
    // Served from the cache without touching the media.
    bool fromCache = false;
    // The file breaks off before its promised end; the payload is what decoded.
    bool cutShort = false;
    std::vector<float> preview;
    std::vector<float> envelope;
    SpectralBands::Feature bands;
};

struct NoUsableAudio {
    AudioUsability usability = AudioUsability::none;
    std::string reason;
    std::optional<std::string> formatExt;
};

// The file could not be read as media at all: the clip is left out of the matching.
struct ExtractFailed {
    std::string reason; // in the user's words: "an empty file", "Permission denied"…
};

using ExtractOutcome = std::variant<ExtractPayload, NoUsableAudio, ExtractFailed>;

// The envelope's decimation factor: 160 samples at 16 kHz, so 100 values a second.
inline constexpr int kEnvelopeFactor = 160;

namespace ClipAnalysis {

// Extensions (lower case) of formats that need their maker's tools: a file of one that can't be
// decoded has `undecodable` audio and names its format, rather than failing as a bad file.
using KnownFormat = std::function<bool(const std::string& ext)>;

// From the feature cache when both parts are there (the media file is not read), else decoded;
// what was computed is stored back in the cache. `factor` is the envelope's decimation,
// `onProgress` hears fractions 0…1 of which decoding is the first 80 %, and `stop` ends a decode
// where it stands: a stopped analysis gives nothing. Decoder errors become an outcome, never an
// exception.
std::optional<ExtractOutcome> analyse(const Url& url, int factor, double expectedSeconds,
                                      const ProgressFn& onProgress, std::stop_token stop,
                                      const KnownFormat& knownFormat);

// The peak bars drawn in the timeline from 16 kHz samples: one bar a second, 10 to 1000 bars,
// each the square root of its block's RMS over the largest RMS (the root lifts quiet passages
// into view).
std::vector<float> waveform(std::span<const float> samples, double duration);

} // namespace ClipAnalysis
} // namespace trelvane
