// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// How a clip came to stand where it stands: the pass of the track-mode sync or of the stack build
// that placed it. Readers decide by the value; its text is what the session report, the sync log
// and the command line's table show. No file holds a pass to be read back.

#include <string_view>

namespace trelvane {

enum class PlacementPass {
    reference,           // "ref": a clip of the reference track, laid by its own clock
    linkedBackup,        // "linked": a long recorder tied to the reference by its audio
    unlinkedBackup,      // "unlinked": a long recorder sharing no audio, laid after everything
    chain,               // "A1": a member of the longest chain of agreeing audio hits
    bracketFill,         // "A3": found inside a bracket the chain leaves, or a long rescue
    brollRescue,         // "A3b-broll": a long take found near the B-roll shot during it
    cameraCross,         // "A3cam": found against another camera of its group
    cameraCluster,       // "A3cluster": placed with its cluster, without outside audio
    poolProbe,           // "A4": found by a search of the whole pool
    siblingCamera,       // "sibling": set beside a long clip of a sibling camera
    clock,               // "clock": placed by the device clock
    interpolated,        // "interp": placed between neighbours, no audio found
    interpolatedNoAudio, // "interp-noaudio": placed between neighbours, nothing to search with
    stack,               // "stack": stacked with takes sharing its audio
    stackAlone,          // "stack-alone": no take shares its audio

    // A clip of a channel track stands where its lead's clip stands, placed by the lead's pass:
    // "sibling-" followed by that pass's text.
    channelOfReference,
    channelOfLinkedBackup,
    channelOfUnlinkedBackup,
    channelOfChain,
    channelOfBracketFill,
    channelOfBrollRescue,
    channelOfCameraCross,
    channelOfCameraCluster,
    channelOfPoolProbe,
    channelOfSiblingCamera,
    channelOfClock,
    channelOfInterpolated,
    channelOfInterpolatedNoAudio,
};

// The pass's text: "ref", "A3b-broll", "sibling-A1"…
std::string_view rawValue(PlacementPass v);

// The pass of a channel clip that follows a lead clip placed by `lead`. A lead is placed by the
// track-mode sync; a pass without a channel form (a stack's, a channel's own) is given back as it
// is.
PlacementPass channelOf(PlacementPass lead);

} // namespace trelvane
