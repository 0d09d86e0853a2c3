// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The controller's record of one clip's analysis job; what the job gives back is the engine's
// `ExtractOutcome`.

#include "TrelvaneEngine/features/ClipAnalysis.hpp"

#include <string>

namespace trelvane {

struct ExtractJob {
    Uuid id;          // the clip
    Url url;          // its file
    std::string name; // file name without extension
    double duration = 0;
};

} // namespace trelvane
