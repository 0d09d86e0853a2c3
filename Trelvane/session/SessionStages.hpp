// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The stages the session controller drives, behind plain function slots so that the product wires
// the real engine and tests wire doubles. A slot left empty is a stage this build does not have:
// the controller skips it, says so in the log, and never behaves as if it had run.
//
// Threads: the slots marked "worker" are called on a worker thread with a copy of the session and
// must not throw; their callbacks may be called from any thread. The others run on the main thread.
// Progress and stops follow the one rule of every stage (TrelvaneEngine/support/Progress.hpp).

#include "Trelvane/session/Extraction.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/stacks/StackBuilder.hpp"
#include "TrelvaneEngine/support/Progress.hpp"
#include "TrelvaneEngine/sync/GapCloser.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

namespace trelvane {

using Sources = std::vector<TrackSource>;

struct SessionStages {
    // Worker. Durations, clocks, rates and channels; `onClipUpdated` receives the whole list each
    // time a clip's metadata is in.
    using ClipUpdated = std::function<void(const Sources&)>;
    std::function<Sources(Sources, ClipUpdated, std::stop_token)> loadMetadata;

    std::function<Sources(Sources)> splitSourcesByDevice;
    std::function<Sources(Sources)> detectSiblingChannels;
    std::function<std::vector<CameraGroupProposal>(const Sources&)> detectCameraGroups;
    std::function<Sources(Sources, const std::vector<CameraGroupProposal>&, const std::set<Uuid>&)>
        applyCameraGroups;
    std::function<std::vector<DayRegionProposal>(const Sources&)> detectDayRegions;
    std::function<Sources(Sources, const std::vector<DayRegionProposal>&, const std::set<Uuid>&)>
        applyDayRegions;

    // Worker. One clip's analysis: `factor` is the envelope's decimation. A stop ends a decode
    // under way and gives nothing.
    std::function<std::optional<ExtractOutcome>(const Url& url, int factor, double expectedSeconds,
                                                const ProgressFn& onProgress, std::stop_token stop)>
        extractClip;

    // Worker. Holds the feature cache to its rules (age, and at most `ceilingBytes` in all), once
    // an analysis has read and written it.
    std::function<void(std::int64_t ceilingBytes)> pruneCache;

    // Worker. The track-mode sync: its progress and each placement as it happens.
    using SyncPlace = std::function<void(const Uuid&, double, SyncStatus)>;
    std::function<Sources(Sources, ProgressFn, SyncPlace, std::stop_token)> synchronise;

    // Worker. Stack mode.
    std::function<StackBuilder::Result(Sources, ProgressFn, std::stop_token)> buildStacks;
    // Worker, low priority: whether the material looks like repeated takes.
    std::function<std::optional<StackBuilder::Advice>(Sources, int maxProbes)> stackAdvice;
};

} // namespace trelvane
