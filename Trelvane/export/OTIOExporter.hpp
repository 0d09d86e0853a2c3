// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// OpenTimelineIO (`.otio`, JSON): a Timeline.1 holding one Stack.1 of Track.1, each track a run of
// Clip.2 and Gap.1 items laid end to end. Times are RationalTime.1 in frames at the chosen rate,
// except on an audio track with a clip between frames or a drift-corrected clip: that track counts
// in samples at 48 kHz. A drift-corrected clip (`ClipItem::driftSpeed`) spans its stretched length
// and carries a LinearTimeWarp.1 whose `time_scalar` is the speed.
//
// OTIO tracks can't hold overlapping clips, so a clip that starts before the previous clip of its
// track ends goes on an overflow track of the same kind ("<name> 2", ...). A clip placed before
// the timeline's start loses the part before 0. Every clip's media is an ExternalReference.1 to
// its file (the picture file where it has one of its own). The sound of a video track's clips (the
// camera file's own, or a take's sidecar) goes on an audio track "<name> sound" at the same
// frames; a clip without an audio stream has none. `channels` only decides whether each clip's
// metadata asks for channels on separate tracks; OTIO has no channel routing of its own.
//
// Pure and stateless: safe from any thread; nothing fails or throws.

#include "Trelvane/export/ExportOptions.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace trelvane::OTIOExporter {

nlohmann::json document(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels);
// `document` as indented text.
std::string build(const std::vector<TrackSource>& sources, double fps, ChannelLayout channels);

} // namespace trelvane::OTIOExporter
