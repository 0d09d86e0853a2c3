// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Trelvane/session/SessionStages.hpp"

namespace trelvane {

// The engine's stages as the shipped program runs them. A stage this build does not have stays
// empty, and the controller says so rather than behaving as if it had run.
SessionStages productStages();

} // namespace trelvane
