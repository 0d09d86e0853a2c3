// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/SyncViewModel.hpp"
#include "TrelvaneEngine/features/ClipAnalysis.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TrelvaneEngine/stacks/StackBuilder.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"
#include "TrelvaneEngine/sync/FineSync.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

namespace trelvane {

SessionStages productStages() {
    SessionStages stages;
    // Scanning and sorting are the controller's own ingest engine.
    stages.loadMetadata = [](Sources sources, SessionStages::ClipUpdated onClipUpdated,
                             std::stop_token stop) {
        return IngestEngine::loadMetadata(std::move(sources), onClipUpdated, std::move(stop));
    };
    stages.splitSourcesByDevice = IngestEngine::splitSourcesByDevice;
    stages.detectSiblingChannels = IngestEngine::detectSiblingChannels;
    stages.detectCameraGroups = IngestEngine::detectCameraGroups;
    stages.applyCameraGroups = IngestEngine::applyCameraGroups;
    stages.detectDayRegions = IngestEngine::detectDayRegions;
    stages.applyDayRegions = IngestEngine::applyDayRegions;
    stages.extractClip = [](const Url& url, int factor, double expectedSeconds, const ProgressFn& onProgress,
                            std::stop_token stop) {
        return ClipAnalysis::analyse(
            url, factor, expectedSeconds, onProgress, std::move(stop),
            [](const std::string& ext) { return FormatAdvisory::catalog().contains(ext); });
    };
    stages.pruneCache = [](std::int64_t ceilingBytes) {
        EnvelopeCache::prune(dateNow(), EnvelopeCache::cacheDir(), ceilingBytes);
    };
    stages.buildStacks = [](Sources sources, ProgressFn onProgress, std::stop_token stop) {
        return StackBuilder::build(sources, onProgress, std::move(stop));
    };
    stages.stackAdvice = [](Sources sources, int maxProbes) {
        return StackBuilder::advice(sources, maxProbes);
    };
    stages.synchronise = [](Sources sources, ProgressFn progress, SessionStages::SyncPlace place,
                            std::stop_token stop) {
        // 0 lets the engine use every processor.
        const int workers = WorkerWindow::requestedWorkers().value_or(0);
        // The band sync takes most of the stage's time; the fine alignment the rest.
        constexpr double kBandShare = 0.8;
        auto scaled = [&progress](double from, double share) -> ProgressFn {
            if (!progress) return {};
            return [&progress, from, share](const Progress& p) {
                progress({from + share * p.fraction, p.current});
            };
        };
        auto placed = SyncEngine::synchronise(sources, scaled(0, kBandShare), place, stop, workers);
        if (stop.stop_requested()) return sources;
        FineSync::Options options;
        options.align = FineSync::defaultAlignOptions();
        options.cacheFolder = EnvelopeCache::cacheDir();
        options.workers = workers;
        auto refined = FineSync::refine(std::move(placed), options, scaled(kBandShare, 1 - kBandShare), stop);
        if (stop.stop_requested()) return sources;
        for (const auto& track : refined)
            for (const auto& clip : track.clips)
                if (place) place(clip.id, clip.startOffset, clip.syncStatus);
        return refined;
    };
    return stages;
}

} // namespace trelvane
