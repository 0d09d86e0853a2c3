// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The one JSON shape of a session, used by every command that prints one:
// {"tracks": [{track fields..., "clips": [{clip fields..., "placementExplanation", "failureBucket"}]}]}
// Absent optionals are null; enumerations are their raw names; dates ISO 8601 with milliseconds
// and offset; URLs absolute paths. The heavy arrays (preview, envelope, fingerprint, onsets, bands)
// are left out.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace trelvane::SessionJson {

nlohmann::json encode(const std::vector<TrackSource>& sources);
// Pretty-printed; names that are not valid UTF-8 are repaired rather than refused.
std::string dump(const std::vector<TrackSource>& sources);

} // namespace trelvane::SessionJson
