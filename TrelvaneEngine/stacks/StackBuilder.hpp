// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Stack mode: repeated takes over one playback are grouped by shared audio and laid one above the
// other. These are the records the session controller exchanges with the stack builder.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace trelvane::StackBuilder {

struct Stack {
    // Each member's offset inside the stack in seconds; the earliest member stands at 0.
    std::map<Uuid, double> positions;
    // The greatest position + duration of the members.
    double length = 0;
    // The earliest recording date among the members.
    std::optional<Date> recordedAt;
};

struct Result {
    std::vector<TrackSource> tracks;
    std::vector<Stack> stacks;
    // File names, without extension, of the clips that share audio with no other.
    std::vector<std::string> unmatched;
    int comparisons = 0;
    int matches = 0;
};

// Whether the material looks like repeated takes: clips of one device that share audio.
struct Advice {
    int matches = 0;
    int probed = 0;
    std::pair<std::string, std::string> example;
    double overlapSeconds = 0;
};

} // namespace trelvane::StackBuilder
