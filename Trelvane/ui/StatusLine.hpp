// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the bottom bar says: the first that applies of a selection, then the session's state. Kept
// apart from the widget so the order of precedence can be read and tested on its own.

#include "Trelvane/session/SyncViewModel.hpp"

#include <string>

namespace trelvane {

struct StatusLine {
    enum class Tone { plain, accent, syncing };
    std::string text;
    Tone tone = Tone::plain;
    // The warning sign before the text: a refusal, or clips that failed.
    bool warning = false;
};

StatusLine statusLine(const SyncViewModel& vm);

// The colours of the tones, as "#rrggbb"; plain text takes the palette's.
inline constexpr const char* kAccentColour = "#4a9eff";
inline constexpr const char* kSyncingColour = "#5fe08a";

} // namespace trelvane
