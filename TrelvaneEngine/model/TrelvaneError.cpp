// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/model/TrelvaneError.hpp"

namespace trelvane {

namespace {

std::string describe(TrelvaneError::Kind kind, const std::string& s) {
    using K = TrelvaneError::Kind;
    switch (kind) {
    case K::noAudioTrack:
        return "No audio track in \"" + s + "\"";
    case K::readerStartFailed:
        return "Reader failed: " + s;
    case K::readFailed:
        return "Read failed: " + s;
    case K::emptySamples:
        return "No audio in \"" + s + "\"";
    case K::silentAudio:
        return "Audio track in \"" + s + "\" is silent (muted)";
    case K::correlationFailed:
        return "Correlation failed: " + s;
    case K::notEnoughTracks:
        return "Need at least 2 tracks";
    case K::stopped:
        return "Stopped reading \"" + s + "\"";
    }
    return {};
}

} // namespace

TrelvaneError::TrelvaneError(Kind kind, std::string detail)
    : kind_(kind), detail_(std::move(detail)), description_(describe(kind_, detail_)) {}

} // namespace trelvane
