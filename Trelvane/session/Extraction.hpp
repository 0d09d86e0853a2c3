// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The records of the extraction pipeline: what a clip's analysis job gives back to the controller.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace trelvane {

struct ExtractJob {
    Uuid id;          // the clip
    Url url;          // its file
    std::string name; // file name without extension
    double duration = 0;
};

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

} // namespace trelvane
