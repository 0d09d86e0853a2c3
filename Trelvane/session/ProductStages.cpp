// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/SyncViewModel.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

namespace trelvane {

SessionStages productStages() {
    SessionStages stages;
    // Scanning and sorting are the controller's own ingest engine. Sync and stacks join here as
    // the engine gains them.
    stages.loadMetadata = [](Sources sources, SessionStages::ClipUpdated onClipUpdated, std::stop_token stop) {
        return IngestEngine::loadMetadata(std::move(sources), onClipUpdated, std::move(stop));
    };
    stages.splitSourcesByDevice = IngestEngine::splitSourcesByDevice;
    stages.detectSiblingChannels = IngestEngine::detectSiblingChannels;
    stages.detectCameraGroups = IngestEngine::detectCameraGroups;
    stages.applyCameraGroups = IngestEngine::applyCameraGroups;
    stages.detectDayRegions = IngestEngine::detectDayRegions;
    stages.applyDayRegions = IngestEngine::applyDayRegions;
    stages.extractClip = SyncViewModel::extractClip;
    return stages;
}

} // namespace trelvane
