// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The regions file of text sync: a JSON document written by a separate transcription tool that
// says which tracks of a shoot said the same words (one region per day) and how far apart they
// lie. This store only finds and reads it; IngestEngine turns it into day regions and offset
// priors. Nothing here writes the file, and where none exists everything here does nothing.
//
// The file is untrusted input: every way it can be wrong (not JSON, not UTF-8, wrong types,
// missing keys, numbers out of range, nesting too deep, too large) is one logged decode failure,
// and the next candidate is tried. Nothing here throws.

#include "TrelvaneEngine/support/Url.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane::TextSyncStore {

// The environment variable that can name a regions file; it is tried before the cache folders.
inline constexpr const char* kRegionsEnvVariable = "TRELVANE_TEXTSYNC_REGIONS";
// What a text-sync day-region proposal shows in place of a time range.
inline constexpr const char* kRangeOverride = "speech overlap (text-sync)";
// A regions file names a few dozen tracks; anything near these limits is not one.
inline constexpr std::size_t kMaxFileBytes = 16u << 20;
inline constexpr int kMaxNestingDepth = 64;

struct TextSyncEdge {
    std::string a; // track names
    std::string b;
    int support = 0;
    double approxOffsetSec = 0; // seconds, as the tool measured it from a to b
    std::optional<std::vector<double>> timeRangeA;
    std::optional<std::vector<double>> timeRangeB;
};

struct TextSyncRegion {
    std::string regionKey;
    std::string label;
    std::vector<std::string> trackNames;
    std::optional<std::vector<TextSyncEdge>> supportEdges;
};

struct TextSyncEdgeBest {
    double approxOffsetSec = 0;
    int support = 0;
};

struct TextSyncPair {
    std::string a;
    std::string b;
    std::optional<int> matchCount;
    std::optional<TextSyncEdgeBest> best;
};

// The top level of the document; JSON keys are the snake_case forms of the field names
// (`min_support`, `ngram`, `regions`, `pairs`, `region_key`, `track_names`, `support_edges`,
// `approx_offset_sec`, `time_range_a`, `time_range_b`, `match_count`, `best`). Optional keys may
// be absent or null; other keys are ignored.
struct TextSyncRegionsFile {
    std::optional<int> minSupport;
    std::optional<int> ngram;
    std::vector<TextSyncRegion> regions;
    std::optional<std::vector<TextSyncPair>> pairs;
};

struct LoadedRegions {
    Url url;
    TextSyncRegionsFile file;
};

// The file named by TRELVANE_TEXTSYNC_REGIONS; nothing when the variable is unset or empty.
std::optional<Url> envRegionsURL();

// A folder-safe form of a session path: white space trimmed from both ends, then every Unicode
// scalar that is not a letter or digit, "-" or "_" replaced by "_" (a byte that is not UTF-8
// counts as one such scalar).
std::string sanitizeSession(const std::string& session);

// Decodes a document; nothing when it is not a well-formed regions file within the limits above.
std::optional<TextSyncRegionsFile> decodeRegionsFile(std::string_view bytes);

// The first candidate that exists and decodes: the environment's file, then
// <cache>/textsync/<sanitizeSession(session)>/regions.json, then
// <cache>/textsync/<last component of the session>/regions.json. Logs each load and each failure.
std::optional<LoadedRegions> loadRegionsFile(const std::string& session);

} // namespace trelvane::TextSyncStore
