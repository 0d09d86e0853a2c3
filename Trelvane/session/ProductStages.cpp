// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/ProductStages.hpp"

namespace trelvane {

SessionStages productStages() {
    SessionStages stages;
    // Scanning and sorting are the controller's own ingest engine. Metadata, grouping, analysis,
    // sync and stacks join here as the engine gains them.
    return stages;
}

} // namespace trelvane
