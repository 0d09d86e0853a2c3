// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The one JSON shape of a session, used by every command that prints one:
// {"tracks": [{track fields..., "clips": [{clip fields..., "placementExplanation", "failureBucket"}]}]}
// Absent optionals are null; enumerations are their raw names; dates ISO 8601 with milliseconds
// and offset; URLs absolute paths. The heavy arrays (preview, envelope, fingerprint, onsets, bands)
// are left out.
//
// A path that is not valid UTF-8 can't be told in JSON as it is: its field holds it repaired (each
// bad byte a U+FFFD), and a second field, the name followed by "Bytes" ("urlBytes",
// "pictureURLBytes", "sessionBytes"), holds its exact bytes percent-encoded, so that a script can
// still find the file (Python: urllib.parse.unquote_to_bytes). The second field is there only for
// such paths.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane::SessionJson {

// Sets `key` to `path`, and `key` + "Bytes" to its bytes when it is not valid UTF-8: every byte
// outside printable ASCII, and "%" itself, as "%XX" (upper-case hex).
void setPath(nlohmann::json& object, const std::string& key, const std::string& path);

nlohmann::json encode(const std::vector<TrackSource>& sources);
// Pretty-printed; names that are not valid UTF-8 are repaired rather than refused.
std::string dump(const std::vector<TrackSource>& sources);

} // namespace trelvane::SessionJson
