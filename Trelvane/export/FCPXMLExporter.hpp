// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// FCPXML 1.10 for Final Cut Pro. Every clip hangs in a lane above one long gap in the spine, so
// that each keeps its timeline position without an edit. Video tracks take one lane each; an
// audio track takes one lane, or with `perChannel` one lane per channel, each lane with a role of
// its own ("dialogue.dialogue-1", "-2", ... counted over the audio lanes) and the channel chosen
// by an `audio-channel-source`.
//
// Pictures sit on whole frames, as the editor requires of video. A sound-only clip (a recorder's,
// or a take's sidecar sound) that lies between frames is placed on its sample at 48 kHz
// ("1021/1000s"); on a frame it is written as a frame. A clip whose clock drift is corrected
// (`ClipItem::driftSpeed`) gets a `timeMap` from its start to its end that plays its whole asset
// over its stretched length, without keeping the pitch (a clock's error changed it too).
//
// Pure and stateless: safe from any thread; nothing fails or throws.

#include "Trelvane/export/ExportOptions.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <optional>
#include <string>
#include <vector>

namespace trelvane::FCPXMLExporter {

// The preset name of a frame size at a rate ("FFVideoFormat1080p2997"), or nothing for a size the
// editor has no preset for.
std::optional<std::string> presetName(int width, int height, double fps);

// Record rate over conform rate of a separate picture; 0 when the picture plays at its own speed.
double speedRatio(const ClipItem& clip);

// The whole document.
std::string build(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels);

} // namespace trelvane::FCPXMLExporter
