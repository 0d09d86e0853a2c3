// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/model/PlacementPass.hpp"

namespace trelvane {

std::string_view rawValue(PlacementPass v) {
    using enum PlacementPass;
    switch (v) {
    case reference:
        return "ref";
    case linkedBackup:
        return "linked";
    case unlinkedBackup:
        return "unlinked";
    case chain:
        return "A1";
    case bracketFill:
        return "A3";
    case brollRescue:
        return "A3b-broll";
    case cameraCross:
        return "A3cam";
    case cameraCluster:
        return "A3cluster";
    case poolProbe:
        return "A4";
    case siblingCamera:
        return "sibling";
    case clock:
        return "clock";
    case interpolated:
        return "interp";
    case interpolatedNoAudio:
        return "interp-noaudio";
    case stack:
        return "stack";
    case stackAlone:
        return "stack-alone";
    case channelOfReference:
        return "sibling-ref";
    case channelOfLinkedBackup:
        return "sibling-linked";
    case channelOfUnlinkedBackup:
        return "sibling-unlinked";
    case channelOfChain:
        return "sibling-A1";
    case channelOfBracketFill:
        return "sibling-A3";
    case channelOfBrollRescue:
        return "sibling-A3b-broll";
    case channelOfCameraCross:
        return "sibling-A3cam";
    case channelOfCameraCluster:
        return "sibling-A3cluster";
    case channelOfPoolProbe:
        return "sibling-A4";
    case channelOfSiblingCamera:
        return "sibling-sibling";
    case channelOfClock:
        return "sibling-clock";
    case channelOfInterpolated:
        return "sibling-interp";
    case channelOfInterpolatedNoAudio:
        return "sibling-interp-noaudio";
    }
    return {};
}

PlacementPass channelOf(PlacementPass lead) {
    using enum PlacementPass;
    switch (lead) {
    case reference:
        return channelOfReference;
    case linkedBackup:
        return channelOfLinkedBackup;
    case unlinkedBackup:
        return channelOfUnlinkedBackup;
    case chain:
        return channelOfChain;
    case bracketFill:
        return channelOfBracketFill;
    case brollRescue:
        return channelOfBrollRescue;
    case cameraCross:
        return channelOfCameraCross;
    case cameraCluster:
        return channelOfCameraCluster;
    case poolProbe:
        return channelOfPoolProbe;
    case siblingCamera:
        return channelOfSiblingCamera;
    case clock:
        return channelOfClock;
    case interpolated:
        return channelOfInterpolated;
    case interpolatedNoAudio:
        return channelOfInterpolatedNoAudio;
    default:
        return lead;
    }
}

} // namespace trelvane
