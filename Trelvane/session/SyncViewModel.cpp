// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/SyncViewModel.hpp"

#include "Trelvane/export/ExportFlow.hpp"
#include "Trelvane/session/AppLog.hpp"
#include "Trelvane/session/Notifier.hpp"
#include "Trelvane/session/TrackEditing.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Text.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"

#include <algorithm>
#include <fmt/printf.h>

namespace trelvane {

namespace {

std::string plural(int n, const char* word) {
    return fmt::format("{} {}{}", n, word, n == 1 ? "" : "s");
}

} // namespace

std::string_view rawName(AppState::Kind kind) {
    switch (kind) {
    case AppState::Kind::idle:
        return "idle";
    case AppState::Kind::extracting:
        return "extracting";
    case AppState::Kind::ready:
        return "ready";
    case AppState::Kind::syncing:
        return "syncing";
    case AppState::Kind::synced:
        return "synced";
    case AppState::Kind::error:
        return "error";
    }
    return {};
}

std::shared_ptr<SyncViewModel> SyncViewModel::create(MainQueue& queue, Settings& settings,
                                                     SessionStages stages) {
    return std::shared_ptr<SyncViewModel>(new SyncViewModel(queue, settings, std::move(stages)));
}

SyncViewModel::SyncViewModel(MainQueue& queue, Settings& settings, SessionStages stages)
    : queue_(queue), settings_(settings), stages_(std::move(stages)) {}

SyncViewModel::~SyncViewModel() {
    if (syncTask_) syncTask_->request_stop();
    if (ingestStop_) ingestStop_->request_stop();
}

// ---- small setters ----------------------------------------------------------------------------

void SyncViewModel::setSources(Sources sources) {
    sources_ = std::move(sources);
    notify(Published::sources);
}

void SyncViewModel::setState(AppState state) {
    if (state_ == state) return;
    state_ = std::move(state);
    notify(Published::state);
}

void SyncViewModel::setErrorMessage(std::optional<std::string> message) {
    errorMessage_ = std::move(message);
    notify(Published::errorMessage);
}

void SyncViewModel::refreshCounters() {
    int synced = 0, weak = 0, failed = 0;
    for (const auto& t : sources_)
        for (const auto& c : t.clips) {
            if (c.syncStatus == SyncStatus::synced) ++synced;
            if (c.syncStatus == SyncStatus::weak) ++weak;
            if (c.syncStatus == SyncStatus::failed && c.audioUsability == AudioUsability::ok) ++failed;
        }
    outcome_.syncedCount = synced;
    outcome_.weakCount = weak;
    outcome_.failedCount = failed;
    notify(Published::counters);
}

void SyncViewModel::resetOutcome() {
    TrackEditing::resetStatuses(sources_);
    notify(Published::sources);
    outcome_ = {};
    notify(Published::counters);
    notify(Published::failureSummary);
    notify(Published::syncWasStopped);
    setState(AppState::idle());
}

bool SyncViewModel::isStackMode() const {
    return settings_.stringValue(Settings::kSyncModeKey) == Settings::kSyncModeStacks;
}

void SyncViewModel::postSelf(std::function<void(SyncViewModel&)> fn) {
    std::weak_ptr<SyncViewModel> weak = weak_from_this();
    queue_.post([weak, fn = std::move(fn)] {
        if (auto self = weak.lock()) fn(*self);
    });
}

SyncViewModel::Poster SyncViewModel::posterFor(std::function<bool(const SyncViewModel&)> stillCurrent) {
    return [&queue = queue_, weak = weak_from_this(),
            stillCurrent = std::move(stillCurrent)](std::function<void(SyncViewModel&)> fn) {
        queue.post([weak, stillCurrent, fn = std::move(fn)] {
            auto self = weak.lock();
            if (self && stillCurrent(*self)) fn(*self);
        });
    };
}

SyncViewModel::Poster SyncViewModel::chainPoster(std::uint64_t generation) {
    return posterFor([generation](const SyncViewModel& vm) { return vm.chainGeneration_ == generation; });
}

// ---- derived reads ----------------------------------------------------------------------------

bool SyncViewModel::allExtracted() const {
    if (sources_.empty()) return false;
    for (const auto& t : sources_)
        for (const auto& c : t.clips)
            if (!c.cachedEnvelope && c.audioUsability == AudioUsability::ok) return false;
    return true;
}

double SyncViewModel::totalDuration() const {
    double end = 0;
    for (const auto& t : sources_)
        for (const auto& c : t.clips)
            end = std::max(end, c.startOffset + c.duration);
    return end;
}

int SyncViewModel::totalClipCount() const {
    int n = 0;
    for (const auto& t : sources_)
        n += static_cast<int>(t.clips.size());
    return n;
}

std::vector<float> SyncViewModel::detectedFrameRates() const {
    std::vector<float> out;
    for (const auto& t : sources_)
        for (const auto& c : t.clips) {
            if (!c.frameRate) continue;
            const float rate = standardFrameRate(*c.frameRate);
            if (std::find(out.begin(), out.end(), rate) == out.end()) out.push_back(rate);
        }
    std::sort(out.begin(), out.end());
    return out;
}

std::optional<std::string> SyncViewModel::summarizeFailures(const Sources& sources) {
    std::vector<std::string> parts;
    std::vector<std::pair<std::string, int>> buckets; // in order of first appearance
    int total = 0;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            if (auto bucket = c.failureBucket()) {
                ++total;
                auto it = std::find_if(buckets.begin(), buckets.end(),
                                       [&](const auto& b) { return b.first == *bucket; });
                if (it == buckets.end())
                    buckets.emplace_back(*bucket, 1);
                else
                    ++it->second;
            }
    if (total > 0) {
        std::stable_sort(buckets.begin(), buckets.end(),
                         [](const auto& a, const auto& b) { return a.second > b.second; });
        std::string part = fmt::format("{} failed: ", total);
        for (std::size_t i = 0; i < buckets.size(); ++i)
            part += (i ? " · " : "") + fmt::format("{} {}", buckets[i].second, buckets[i].first);
        parts.push_back(std::move(part));
    }
    for (const auto& t : sources) {
        if (t.clips.size() < 50 || t.lockedGrouping) continue;
        const auto synced = std::count_if(t.clips.begin(), t.clips.end(), [](const ClipItem& c) {
            return c.syncStatus == SyncStatus::synced;
        });
        if (static_cast<double>(synced) < 0.4 * static_cast<double>(t.clips.size()))
            parts.push_back("'" + t.name +
                            "' looks like several devices in one folder — select clips and press N");
    }
    if (parts.empty()) return std::nullopt;
    return joined(parts, "  ·  ");
}

// ---- adding media -------------------------------------------------------------------------------

void SyncViewModel::browseFiles() {
    pendingFileChoice_ = FileChoiceRequest{"Select files or folders", true, true, true};
    notify(Published::pendingFileChoice);
}

void SyncViewModel::chooseFiles(const std::optional<std::vector<Url>>& urls) {
    pendingFileChoice_.reset();
    notify(Published::pendingFileChoice);
    if (urls && !urls->empty()) ingestURLs(*urls);
}

void SyncViewModel::ingestURLs(const std::vector<Url>& urls) {
    // New media always joins the track layout, never a stack result.
    if (outcome_.sourcesBeforeStacks) {
        sources_ = std::move(*outcome_.sourcesBeforeStacks);
        outcome_.sourcesBeforeStacks.reset();
    }
    setSources(ingestEngine_.ingest(urls, std::move(sources_)));
    if (state_.is(AppState::Kind::synced) || state_.is(AppState::Kind::error)) resetOutcome();
    // A run under way will install its result over an outcome the new media makes void: the reset
    // waits for it.
    if (syncTask_) addedDuringRun_ = true;
    ++pendingAdds_;
    if (!chainRunning_) startNextAdd();
}

void SyncViewModel::startNextAdd() {
    if (pendingAdds_ == 0) {
        chainRunning_ = false;
        notify(Published::ingestActive);
        return;
    }
    --pendingAdds_;
    const bool wasRunning = chainRunning_;
    chainRunning_ = true;
    if (!wasRunning) notify(Published::ingestActive);
    const auto generation = chainGeneration_;
    loadMetadataThenExtract(generation, [this, generation] {
        if (generation == chainGeneration_) startNextAdd();
    });
}

void SyncViewModel::loadMetadataThenExtract(std::uint64_t generation, Step done) {
    if (generation != chainGeneration_) return;
    if (holdWhileRunning([this, generation, done] { loadMetadataThenExtract(generation, done); })) return;
    addClips_ = TrackEditing::allClips(sources_);
    if (!stages_.loadMetadata) {
        afterMetadata(generation, std::move(done));
        return;
    }
    ingestStop_ = tasks_.spawn([post = chainPoster(generation), loader = stages_.loadMetadata,
                                copy = sources_, generation, done](std::stop_token stop) mutable {
        Sources result = loader(
            std::move(copy),
            [&post](const Sources& updated) {
                post([updated](SyncViewModel& vm) { vm.adoptMetadata(updated); });
            },
            stop);
        if (stop.stop_requested()) return;
        post([result = std::move(result), generation, done](SyncViewModel& vm) mutable {
            vm.adoptMetadata(result);
            vm.afterMetadata(generation, done);
        });
    });
}

void SyncViewModel::adoptMetadata(const Sources& read) {
    // The read worked on a copy: what was dropped, deleted or moved since stands.
    if (TrackEditing::adoptMetadata(sources_, read)) notify(Published::sources);
}

bool SyncViewModel::holdWhileRunning(Step step) {
    if (!syncTask_) return false;
    heldStep_ = std::move(step);
    return true;
}

void SyncViewModel::releaseChain() {
    const bool added = std::exchange(addedDuringRun_, false);
    if (!heldStep_) return;
    Step step = std::move(*heldStep_);
    heldStep_.reset();
    postSelf([step = std::move(step), added](SyncViewModel& vm) {
        // Media dropped during the run joins the session now, as a drop made after it would.
        if (added && (vm.state_.is(AppState::Kind::synced) || vm.state_.is(AppState::Kind::error))) {
            if (vm.outcome_.sourcesBeforeStacks) {
                Sources before = std::move(*vm.outcome_.sourcesBeforeStacks);
                vm.outcome_.sourcesBeforeStacks.reset();
                vm.setSources(std::move(before));
            }
            vm.resetOutcome();
        }
        step();
    });
}

void SyncViewModel::afterMetadata(std::uint64_t generation, Step done) {
    // Each result is installed before the next stage reads it.
    if (stages_.splitSourcesByDevice) setSources(stages_.splitSourcesByDevice(sources_));
    if (stages_.detectSiblingChannels) setSources(stages_.detectSiblingChannels(sources_));

    auto dayRegions = [this, generation, done] {
        if (generation != chainGeneration_) return;
        auto finish = [this, generation, done] { finishAdd(generation, done); };
        if (!stages_.detectDayRegions) {
            finish();
            return;
        }
        auto proposals = stages_.detectDayRegions(sources_);
        const auto fromTextSync =
            std::count_if(proposals.begin(), proposals.end(), [](const DayRegionProposal& p) {
                return p.rangeOverride && p.rangeOverride->find("text-sync") != std::string::npos;
            });
        if (fromTextSync > 0)
            EngineLog::logf("[Ingest] day-regions from text-sync (%d region(s))",
                            static_cast<int>(proposals.size()));
        if (proposals.empty() || !stages_.applyDayRegions) {
            finish();
            return;
        }
        promptDayRegions(proposals, [this, proposals, finish](std::set<Uuid> accepted) {
            setSources(stages_.applyDayRegions(sources_, proposals, accepted));
            finish();
        });
    };

    if (!stages_.detectCameraGroups) {
        dayRegions();
        return;
    }
    auto proposals = stages_.detectCameraGroups(sources_);
    if (proposals.empty() || !stages_.applyCameraGroups) {
        dayRegions();
        return;
    }
    promptCameraGroups(proposals, [this, proposals, dayRegions](std::set<Uuid> accepted) {
        setSources(stages_.applyCameraGroups(sources_, proposals, accepted));
        dayRegions();
    });
}

void SyncViewModel::finishAdd(std::uint64_t generation, Step done) {
    if (generation != chainGeneration_) return;
    // Neither the sort nor the analysis's states may come over a running sync.
    if (holdWhileRunning([this, generation, done] { finishAdd(generation, done); })) return;
    setSources(IngestEngine::sortSources(std::move(sources_)));
    for (const auto& t : sources_) {
        const std::string folder =
            t.clips.empty() ? std::string() : t.clips.front().url.deletingLastPathComponent().path();
        EngineLog::logf("[Ingest] track '%s' (%s, locked=%s) %d clips, from '%s'", t.name, rawValue(t.type),
                        t.lockedGrouping ? "true" : "false", static_cast<int>(t.clips.size()), folder);
    }
    setState(AppState::idle());
    extractWaveforms(generation, done);
}

void SyncViewModel::promptCameraGroups(std::vector<CameraGroupProposal> proposals, Continuation next) {
    cameraGroupContinuation_ = std::move(next);
    pendingCameraGroups_ = std::move(proposals);
    notify(Published::pendingCameraGroups);
}

void SyncViewModel::promptDayRegions(std::vector<DayRegionProposal> proposals, Continuation next) {
    dayRegionContinuation_ = std::move(next);
    pendingDayRegions_ = std::move(proposals);
    notify(Published::pendingDayRegions);
}

void SyncViewModel::confirmCameraGroups(const std::set<Uuid>& accepted) {
    pendingCameraGroups_.reset();
    notify(Published::pendingCameraGroups);
    if (!cameraGroupContinuation_) return;
    // Resumed once, from the queue: a dialog may answer from inside an observer call.
    auto next = std::move(*cameraGroupContinuation_);
    cameraGroupContinuation_.reset();
    const auto generation = chainGeneration_;
    postSelf([next = std::move(next), accepted, generation](SyncViewModel& vm) {
        if (vm.chainGeneration_ == generation) next(accepted);
    });
}

void SyncViewModel::confirmDayRegions(const std::set<Uuid>& accepted) {
    pendingDayRegions_.reset();
    notify(Published::pendingDayRegions);
    if (!dayRegionContinuation_) return;
    auto next = std::move(*dayRegionContinuation_);
    dayRegionContinuation_.reset();
    const auto generation = chainGeneration_;
    postSelf([next = std::move(next), accepted, generation](SyncViewModel& vm) {
        if (vm.chainGeneration_ == generation) next(accepted);
    });
}

// ---- extraction -----------------------------------------------------------------------------------

void SyncViewModel::extractWaveforms(std::uint64_t generation, Step done) {
    std::vector<ExtractJob> jobs;
    for (const auto& t : sources_)
        for (const auto& c : t.clips)
            if (!c.cachedEnvelope && c.audioUsability == AudioUsability::ok && addClips_.contains(c.id))
                jobs.push_back({c.id, c.url, c.url.baseName(), c.duration});
    if (jobs.empty()) {
        setState(AppState::ready());
        done();
        return;
    }
    if (!stages_.extractClip) {
        EngineLog::logf("[Extract] no audio analysis in this run — %d clip(s) not analysed",
                        static_cast<int>(jobs.size()));
        done();
        return;
    }

    // A clip whose duration is still unknown weighs half a second.
    auto weight = [](const ExtractJob& j) { return std::max(j.duration, 0.5); };
    double totalWork = 0;
    for (const auto& j : jobs)
        totalWork += weight(j);
    totalWork = std::max(totalWork, 1.0);

    extractSubProgress_.clear();
    extractDoneWork_ = 0;
    tell({FlowEvent::Kind::extractionStarted});
    setState(AppState::extracting(0, jobs.front().name));

    // The window bounds the memory of decoded audio: 2 to 4 clips at a time, or as few as the user
    // asked for.
    const auto requested = WorkerWindow::requestedWorkers();
    const int window = requested ? std::min(*requested, 4) : std::clamp(WorkerWindow::processorCount(), 2, 4);
    const Poster post = chainPoster(generation);
    ingestStop_ = tasks_.spawn([jobs, window, totalWork, weight, post, extract = stages_.extractClip,
                                prune = stages_.pruneCache, ceiling = settings_.cacheCeilingBytes(),
                                done](std::stop_token stop) {
        WorkerWindow::run<std::optional<ExtractOutcome>>(
            window, jobs.size(),
            [&](std::size_t i) {
                const ExtractJob& job = jobs[i];
                auto onSub = [&post, job, weight, totalWork](const Progress& p) {
                    post([job, fraction = p.fraction, weight, totalWork](SyncViewModel& vm) {
                        vm.extractSubProgress_[job.id] = fraction * weight(job);
                        vm.reportExtractProgress(totalWork, job.name);
                    });
                };
                return extract(job.url, kEnvelopeFactor, job.duration, onSub, stop);
            },
            [&](std::size_t i, std::optional<ExtractOutcome> analysed) {
                if (!analysed) return; // stopped: the clip stays as it was
                const ExtractJob job = jobs[i];
                post([job, outcome = std::move(*analysed), weight, totalWork](SyncViewModel& vm) {
                    vm.extractSubProgress_.erase(job.id);
                    vm.extractDoneWork_ += weight(job);
                    vm.reportExtractProgress(totalWork, job.name);
                    if (const auto* payload = std::get_if<ExtractPayload>(&outcome)) {
                        vm.updateClip(job.url, payload->duration, *payload);
                        if (payload->fromCache) vm.clipsFromCache_.insert(job.id);
                    } else if (const auto* none = std::get_if<NoUsableAudio>(&outcome)) {
                        vm.markNoUsableAudio(job.url, none->usability, none->formatExt);
                        EngineLog::logf("[Extract] '%s': %s — will place by clock/interpolation", job.name,
                                        none->reason.empty() ? std::string("no usable audio") : none->reason);
                    } else if (const auto* failed = std::get_if<ExtractFailed>(&outcome)) {
                        // A file that can't be read ends its job like any other: marked, so the
                        // analysis counts as finished without it.
                        vm.markUnreadable(job.url, failed->reason);
                        EngineLog::logf("[Extract] '%s' can't be read: %s — left out of the matching",
                                        job.url.lastPathComponent(), failed->reason);
                    }
                    vm.tell({.kind = FlowEvent::Kind::clipReady, .clipID = job.id});
                });
            },
            stop);
        // After the analysis, so that what it just read and wrote is the newest of the cache and
        // is the last to go.
        if (prune) prune(ceiling);
        if (stop.stop_requested()) return;
        post([done](SyncViewModel& vm) {
            vm.setState(AppState::ready());
            vm.tell({FlowEvent::Kind::extractionFinished});
            Notifier::stageDone("Media analyzed",
                                fmt::format("{} clips ready — press Synchronize.", vm.totalClipCount()));
            vm.formatAdvisories_ = FormatAdvisory::fromCounts(vm.formatAdvisoryCounts_);
            vm.notify(Published::formatAdvisories);
            vm.formatAdvisoryCounts_.clear();
            vm.maybeSuggestStackMode();
            done();
        });
    });
}

void SyncViewModel::reportExtractProgress(double totalWork, const std::string& current) {
    if (!state_.is(AppState::Kind::extracting)) return;
    double sub = 0;
    for (const auto& [id, v] : extractSubProgress_)
        sub += v;
    setState(AppState::extracting((sub + extractDoneWork_) / totalWork, current));
}

void SyncViewModel::updateClip(const Url& url, std::optional<double> duration,
                               const ExtractPayload& payload) {
    for (std::size_t si = 0; si < sources_.size(); ++si)
        for (auto& c : sources_[si].clips)
            if (c.url == url) {
                if (duration) c.duration = *duration;
                c.waveformPreview = payload.preview;
                c.cachedEnvelope = payload.envelope;
                c.bandFeature = payload.bands;
                c.audioCutShort = payload.cutShort;
                // A corrected duration moves the clips after it.
                TrackEditing::recomputeOffsets(sources_, si);
                notify(Published::sources);
                return;
            }
}

void SyncViewModel::markNoUsableAudio(const Url& url, AudioUsability usability,
                                      const std::optional<std::string>& formatExt) {
    for (auto& t : sources_)
        for (auto& c : t.clips)
            if (c.url == url) {
                c.audioUsability = usability;
                if (formatExt) ++formatAdvisoryCounts_[*formatExt];
                notify(Published::sources);
                return;
            }
}

void SyncViewModel::markUnreadable(const Url& url, const std::string& reason) {
    for (auto& t : sources_)
        for (auto& c : t.clips)
            if (c.url == url) {
                c.audioUsability = AudioUsability::undecodable;
                c.audioProblem = reason;
                notify(Published::sources);
                return;
            }
}

void SyncViewModel::maybeSuggestStackMode() {
    if (didOfferStackMode_ || isStackMode()) return;
    didOfferStackMode_ = true;
    if (!stages_.stackAdvice) return;
    std::weak_ptr<SyncViewModel> weak = weak_from_this();
    tasks_.spawn(
        [weak, &queue = queue_, advice = stages_.stackAdvice, copy = sources_](std::stop_token stop) {
            auto result = advice(copy, 12);
            if (!result || stop.stop_requested()) return;
            queue.post([weak, result = *result] {
                if (auto self = weak.lock()) self->presentStackModeSuggestion(result);
            });
        });
}

void SyncViewModel::presentStackModeSuggestion(const StackBuilder::Advice& advice) {
    StackModeOffer offer;
    offer.title = "These look like repeated takes";
    offer.text = fmt::format(
        "“{}” and “{}” came from the same camera yet share {} seconds of the same audio — {} of the {} pairs "
        "sampled do. That usually means several takes were recorded over the same playback.\n\nStack mode "
        "groups "
        "those takes and aligns them one above the other. Track mode — the usual choice for a shoot — treats "
        "each "
        "device as its own track and syncs the tracks to each other.\n\nIf this is an ordinary multi-camera "
        "shoot, "
        "keep Track mode. You can change it at any time from the Mode menu.",
        advice.example.first, advice.example.second, static_cast<long long>(advice.overlapSeconds),
        advice.matches, advice.probed);
    offer.keepButton = "Keep Track Mode";
    offer.useButton = "Use Stack Mode";
    offer.advice = advice;
    pendingStackModeOffer_ = std::move(offer);
    notify(Published::pendingStackModeOffer);
}

void SyncViewModel::answerStackModeOffer(bool useStackMode) {
    if (!pendingStackModeOffer_) return;
    pendingStackModeOffer_.reset();
    notify(Published::pendingStackModeOffer);
    if (!useStackMode) return;
    settings_.setString(Settings::kSyncModeKey, std::string(Settings::kSyncModeStacks));
    syncModeChanged();
}

// ---- sync -------------------------------------------------------------------------------------------

void SyncViewModel::synchronize() {
    if (isStackMode()) {
        synchronizeStacks();
        return;
    }
    restoreSourcesAfterStacks();
    synchronizeTracks();
}

void SyncViewModel::startSyncTask(std::function<void(std::stop_token, const Poster&)> work) {
    const auto run = ++syncRun_;
    // A late callback of a stopped or superseded run changes nothing.
    Poster post = posterFor([run](const SyncViewModel& vm) { return vm.syncTask_ && vm.syncRun_ == run; });
    syncTask_ = tasks_.spawn(
        [work = std::move(work), post = std::move(post)](std::stop_token stop) { work(stop, post); });
}

void SyncViewModel::beginSyncRun(bool stacks) {
    trackAtRunStart_ = TrackEditing::trackOfClips(sources_);
    outcome_.offsetsBeforeCloseGaps.reset();
    outcome_.syncWasStopped = false;
    notify(Published::syncWasStopped);
    setState(AppState::syncing());
    setSyncProgress(0);
    setErrorMessage(std::nullopt);
    tell({.kind = FlowEvent::Kind::syncStarted, .stacks = stacks});
}

void SyncViewModel::setSyncProgress(double progress) {
    syncProgress_ = progress;
    notify(Published::syncProgress);
}

void SyncViewModel::installSyncOutcome(Sources result) {
    syncTask_.reset();
    // The run worked on a copy; the edits and drops made meanwhile are kept.
    setSources(TrackEditing::mergeRunResult(std::move(result), sources_, trackAtRunStart_));
    refreshCounters();
    outcome_.failureSummary = summarizeFailures(sources_);
    notify(Published::failureSummary);
    setSyncProgress(1);
    setState(AppState::synced());
}

void SyncViewModel::synchronizeTracks() {
    if (!allExtracted() || sources_.size() < 2) {
        setErrorMessage("Need at least 2 extracted tracks");
        setState(AppState::error());
        return;
    }
    if (syncTask_) return;
    if (!stages_.synchronise) {
        EngineLog::log("[SyncEngine] synchronisation is not available in this build");
        setErrorMessage("Synchronization is not available in this build");
        setState(AppState::error());
        return;
    }
    beginSyncRun(false);
    TrackEditing::resetStatuses(sources_);
    notify(Published::sources);

    startSyncTask(
        [sync = stages_.synchronise, copy = sources_](std::stop_token stop, const Poster& post) mutable {
            Sources result = sync(
                std::move(copy),
                [&post](const Progress& p) {
                    post([fraction = p.fraction](SyncViewModel& vm) { vm.setSyncProgress(fraction); });
                },
                [&post](const Uuid& id, double offset, SyncStatus status) {
                    post([id, offset, status](SyncViewModel& vm) { vm.markClipFound(id, offset, status); });
                },
                stop);
            if (stop.stop_requested()) return;
            post([result = std::move(result)](SyncViewModel& vm) mutable {
                vm.finishTrackSync(std::move(result));
            });
        });
}

void SyncViewModel::markClipFound(const Uuid& id, double offset, SyncStatus status) {
    tell({.kind = FlowEvent::Kind::clipPlaced, .clipID = id, .offset = offset});
    for (auto& t : sources_)
        for (auto& c : t.clips)
            if (c.id == id) {
                c.syncStatus = status;
                notify(Published::sources);
                refreshCounters();
                return;
            }
}

void SyncViewModel::finishTrackSync(Sources result) {
    installSyncOutcome(std::move(result));

    std::vector<std::string> parts{fmt::format("{} synced", outcome_.syncedCount)};
    if (outcome_.weakCount > 0) parts.push_back(fmt::format("{} weak", outcome_.weakCount));
    if (outcome_.failedCount > 0) parts.push_back(fmt::format("{} failed", outcome_.failedCount));
    std::string body;
    for (std::size_t i = 0; i < parts.size(); ++i)
        body += (i ? " · " : "") + parts[i];
    body += fmt::format(" of {} — ready to export.", totalClipCount());
    Notifier::stageDone("Synchronization finished", body);
    tell({.kind = FlowEvent::Kind::syncFinished, .stacks = false});
    if (settings_.boolValue(Settings::kAutoCloseGapsKey)) closeGaps(false);
    AppLog::upload("sync", settings_);
    releaseChain();
}

void SyncViewModel::synchronizeStacks() {
    if (!allExtracted() || totalClipCount() < 2) {
        setErrorMessage("Need at least 2 extracted clips");
        setState(AppState::error());
        return;
    }
    if (syncTask_) return;
    if (!stages_.buildStacks) {
        EngineLog::log("[Stacks] stack mode is not available in this build");
        setErrorMessage("Stack mode is not available in this build");
        setState(AppState::error());
        return;
    }
    beginSyncRun(true);
    TrackEditing::resetStatuses(sources_);
    notify(Published::sources);

    startSyncTask([build = stages_.buildStacks, copy = sources_](std::stop_token stop, const Poster& post) {
        StackBuilder::Result result = build(
            copy,
            [&post](const Progress& p) {
                post([fraction = p.fraction](SyncViewModel& vm) { vm.setSyncProgress(fraction); });
            },
            stop);
        if (stop.stop_requested()) return;
        post([result = std::move(result)](SyncViewModel& vm) mutable {
            vm.finishStackSync(std::move(result));
        });
    });
}

void SyncViewModel::finishStackSync(StackBuilder::Result result) {
    // A second stack run keeps the list saved by the first. The list as it stands now, not as the
    // run found it, so that leaving stack mode brings back media dropped during the run too.
    if (!outcome_.sourcesBeforeStacks) {
        Sources before = sources_;
        TrackEditing::resetStatuses(before);
        outcome_.sourcesBeforeStacks = std::move(before);
    }
    const int stackTracks = static_cast<int>(result.tracks.size());
    installSyncOutcome(std::move(result.tracks));
    result.tracks.clear();
    outcome_.lastStacks = std::move(result);

    const int unmatched = static_cast<int>(outcome_.lastStacks->unmatched.size());
    std::string body = plural(stackTracks, "track");
    if (unmatched > 0) body += fmt::format(" · {} unmatched", unmatched);
    body += " — ready to export.";
    Notifier::stageDone("Takes stacked", body);
    tell({.kind = FlowEvent::Kind::syncFinished, .stacks = true});
    AppLog::upload("sync", settings_);
    releaseChain();
}

void SyncViewModel::restoreSourcesAfterStacks() {
    if (!outcome_.sourcesBeforeStacks) return;
    Sources before = std::move(*outcome_.sourcesBeforeStacks);
    // The stack result and all that was said of it go.
    outcome_ = {};
    setSources(std::move(before));
    selectedClipIDs_.clear();
    notify(Published::selectedClipIDs);
    tell({FlowEvent::Kind::positionsDropped});
    notify(Published::failureSummary);
    notify(Published::counters);
    notify(Published::syncWasStopped);
    if (state_.is(AppState::Kind::synced)) setState(allExtracted() ? AppState::ready() : AppState::idle());
    EngineLog::logf("[Stacks] restored the original %d track(s) after leaving stack mode",
                    static_cast<int>(sources_.size()));
}

void SyncViewModel::syncModeChanged() {
    restoreSourcesAfterStacks();
    if (!state_.is(AppState::Kind::synced) && !state_.is(AppState::Kind::error)) return;
    resetOutcome();
    setState(!sources_.empty() && allExtracted() ? AppState::ready() : AppState::idle());
    tell({FlowEvent::Kind::positionsDropped});
}

void SyncViewModel::cancelSynchronization() {
    if (!state_.is(AppState::Kind::syncing)) return;
    if (syncTask_) syncTask_->request_stop();
    syncTask_.reset();
    tell({FlowEvent::Kind::syncStopped});
    TrackEditing::resetStatuses(sources_);
    notify(Published::sources);
    refreshCounters();
    setSyncProgress(0);
    outcome_.syncWasStopped = true;
    notify(Published::syncWasStopped);
    setState(AppState::ready());
    releaseChain();
}

void SyncViewModel::cleanProject() {
    // Stale steps of the chain see a new generation and stop; running workers finish unheard.
    ++chainGeneration_;
    if (ingestStop_) ingestStop_->request_stop();
    ingestStop_.reset();
    pendingAdds_ = 0;
    chainRunning_ = false;
    heldStep_.reset();
    addedDuringRun_ = false;
    cameraGroupContinuation_.reset();
    dayRegionContinuation_.reset();
    if (pendingCameraGroups_) {
        pendingCameraGroups_.reset();
        notify(Published::pendingCameraGroups);
    }
    if (pendingDayRegions_) {
        pendingDayRegions_.reset();
        notify(Published::pendingDayRegions);
    }
    notify(Published::ingestActive);
    if (syncTask_) syncTask_->request_stop();
    syncTask_.reset();
    setSources({});
    outcome_ = {};
    notify(Published::failureSummary);
    notify(Published::counters);
    notify(Published::syncWasStopped);
    selectedClipIDs_.clear();
    notify(Published::selectedClipIDs);
    extractSubProgress_.clear();
    extractDoneWork_ = 0;
    syncProgress_ = 0;
    notify(Published::syncProgress);
    setErrorMessage(std::nullopt);
    tell({FlowEvent::Kind::cleaned});
    setState(AppState::idle());
}

void SyncViewModel::dismissFormatAdvisories() {
    formatAdvisories_.clear();
    notify(Published::formatAdvisories);
}

// ---- export -------------------------------------------------------------------------------------

void SyncViewModel::exportXML() {
    ExportPrompt prompt;
    prompt.detectedFrameRates = detectedFrameRates();
    prompt.summary = makeExportSummary(sources_);
    prompt.defaults.target = ExportTarget::premiere;
    prompt.defaults.fps =
        preferredRate(defaultRateFamily(prompt.detectedFrameRates), prompt.detectedFrameRates);
    prompt.defaults.channels = ChannelLayout::perChannel;
    prompt.rootFolderName = rootFolderName(sources_);
    pendingExport_ = std::move(prompt);
    notify(Published::pendingExport);
}

void SyncViewModel::answerExport(const std::optional<ExportChoice>& choice) {
    if (choice) ++exportsRunning_;
    pendingExport_.reset();
    notify(Published::pendingExport);
    if (!choice) return;

    ExportRequest request;
    request.target = choice->options.target;
    request.fps = choice->options.fps;
    request.channels = choice->options.channels;
    request.output = choice->path;
    // The save panel has asked before replacing a file; a clip's media is refused all the same.
    request.force = true;
    // Not stopped by a clean: the file is the user's. Dropped unheard when the controller is gone.
    std::weak_ptr<SyncViewModel> weak = weak_from_this();
    tasks_.spawn([weak, &queue = queue_, request, copy = sources_](std::stop_token) {
        ExportNotice notice;
        // Nothing may leave the worker as an exception: every way out is a notice.
        try {
            const ExportResult result = runExport(copy, request, request.output->parent_path());
            notice = {false, result.noticeTitle, result.noticeBody};
        } catch (const std::exception& e) {
            notice = {true, "Export failed", e.what()};
        } catch (...) {
            notice = {true, "Export failed", "The document could not be written."};
        }
        queue.post([weak, notice = std::move(notice)] {
            auto self = weak.lock();
            if (!self) return;
            --self->exportsRunning_;
            if (notice.failed)
                EngineLog::logf("[Export] failed: %s", notice.body);
            else
                Notifier::stageDone(notice.title, notice.body);
            self->exportNotice_ = notice;
            self->notify(Published::exportNotice);
        });
    });
}

void SyncViewModel::dismissExportNotice() {
    exportNotice_.reset();
    notify(Published::exportNotice);
}

// ---- close gaps ---------------------------------------------------------------------------------

void SyncViewModel::closeGaps(bool announce) {
    if (!state_.is(AppState::Kind::synced)) return;
    const auto closed = GapCloser::closedOffsets(sources_);
    if (!closed) {
        EngineLog::log("[CloseGaps] nothing to close");
        return;
    }
    if (!outcome_.offsetsBeforeCloseGaps) {
        auto& before = outcome_.offsetsBeforeCloseGaps.emplace();
        for (const auto& t : sources_)
            for (const auto& c : t.clips)
                before[c.id] = c.startOffset;
    }
    setClipOffsets(closed->offsets, FlowEvent::Kind::gapsClosed);
    EngineLog::logf("[CloseGaps] removed %.1f min across %d gap(s)", closed->removed / 60.0, closed->gaps);
    if (announce)
        Notifier::stageDone("Gaps closed",
                            fmt::sprintf("%.1f min of empty timeline removed.", closed->removed / 60.0));
}

void SyncViewModel::restoreGaps() {
    if (!outcome_.offsetsBeforeCloseGaps) return;
    setClipOffsets(*outcome_.offsetsBeforeCloseGaps, FlowEvent::Kind::gapsRestored);
    outcome_.offsetsBeforeCloseGaps.reset();
    EngineLog::log("[CloseGaps] restored the synced timeline");
}

void SyncViewModel::setClipOffsets(const std::map<Uuid, double>& offsets, FlowEvent::Kind kind) {
    auto moved = TrackEditing::moveClips(sources_, offsets);
    notify(Published::sources);
    tell({.kind = kind, .moved = std::move(moved)});
}

// ---- editing ----------------------------------------------------------------------------------------

void SyncViewModel::toggleClipSelection(const Uuid& id) {
    if (!selectedClipIDs_.erase(id)) selectedClipIDs_.insert(id);
    notify(Published::selectedClipIDs);
}

void SyncViewModel::selectTrack(const Uuid& id) {
    selectedClipIDs_.merge(TrackEditing::clipsOfTrack(sources_, id));
    notify(Published::selectedClipIDs);
}

void SyncViewModel::selectAllClips() {
    selectedClipIDs_.merge(TrackEditing::allClips(sources_));
    notify(Published::selectedClipIDs);
}

void SyncViewModel::clearSelection() {
    selectedClipIDs_.clear();
    notify(Published::selectedClipIDs);
}

void SyncViewModel::toggleMute(const Uuid& id) {
    if (TrackEditing::toggleMute(sources_, id)) notify(Published::sources);
}

void SyncViewModel::moveSelectedToNewTrack() {
    if (selectedClipIDs_.empty()) return;
    const std::set<Uuid> selection = selectedClipIDs_;
    // The edit applies to the tracks, never to a stack result.
    if (outcome_.sourcesBeforeStacks) restoreSourcesAfterStacks();
    if (!TrackEditing::moveToNewTrack(sources_, selection)) {
        notify(Published::sources);
        return;
    }
    notify(Published::sources);
    selectedClipIDs_.clear();
    notify(Published::selectedClipIDs);
    // The layout changed: an old result no longer holds.
    if (state_.is(AppState::Kind::synced) || state_.is(AppState::Kind::error)) resetOutcome();
}

void SyncViewModel::deleteSelected() {
    if (selectedClipIDs_.empty()) return;
    // Leaving stack mode must not bring deleted clips back.
    if (outcome_.sourcesBeforeStacks)
        TrackEditing::deleteClips(*outcome_.sourcesBeforeStacks, selectedClipIDs_, false);
    TrackEditing::deleteClips(sources_, selectedClipIDs_, !state_.is(AppState::Kind::synced));
    notify(Published::sources);
    selectedClipIDs_.clear();
    notify(Published::selectedClipIDs);
    if (sources_.empty()) setState(AppState::idle());
    refreshCounters();
}

} // namespace trelvane
