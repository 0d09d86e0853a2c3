// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The session controller: the one long-lived object that owns the session's tracks and drives every
// stage, from dropped paths to a synced timeline. A user interface only observes its published state
// and calls its operations; every user decision (the two grouping prompts, the stack-mode offer,
// the file choice) is a pending value plus an operation that answers it, so a dialog, a command-line
// flag or a test can drive it alike.
//
// Lifecycle: made with `create` on the main thread, then confined to it: every operation is called
// there, and every change of state happens there. Work runs on worker threads with copies of the
// session; their results come back through the main queue and are dropped when the controller is
// gone or the work was cancelled. The queue and the settings must outlive the controller.

#include "Trelvane/session/FormatAdvisory.hpp"
#include "Trelvane/session/MainQueue.hpp"
#include "Trelvane/session/SessionStages.hpp"
#include "Trelvane/session/Settings.hpp"
#include "Trelvane/session/TaskRunner.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

namespace trelvane {

struct AppState {
    enum class Kind { idle, extracting, ready, syncing, synced, error };
    Kind kind = Kind::idle;
    double progress = 0; // extracting only
    std::string current; // extracting only: the clip last touched, without extension

    static AppState idle() { return {Kind::idle, 0, {}}; }
    static AppState extracting(double progress, std::string current) {
        return {Kind::extracting, progress, std::move(current)};
    }
    static AppState ready() { return {Kind::ready, 0, {}}; }
    static AppState syncing() { return {Kind::syncing, 0, {}}; }
    static AppState synced() { return {Kind::synced, 0, {}}; }
    static AppState error() { return {Kind::error, 0, {}}; }
    bool is(Kind k) const { return kind == k; }
    bool operator==(const AppState&) const = default;
};
std::string_view rawName(AppState::Kind kind);

// What changed, as told to observers.
enum class Published {
    sources,
    state,
    errorMessage,
    syncProgress,
    counters,
    playheadTime,
    isScrubbing,
    selectedClipIDs,
    syncWasStopped,
    pendingCameraGroups,
    pendingDayRegions,
    failureSummary,
    formatAdvisories,
    displayedOffsets,
    barFill,
    clipFXActive,
    debugSyncEnabled,
    zoom,
    pendingStackModeOffer,
    pendingFileChoice,
    ingestActive,
};

// The alert that offers stack mode, ready to show.
struct StackModeOffer {
    std::string title;
    std::string text;
    std::string keepButton;
    std::string useButton;
    StackBuilder::Advice advice;
};

// The system's file chooser, as a request a driver answers with `chooseFiles`.
struct FileChoiceRequest {
    std::string title;
    bool multipleSelection = true;
    bool canChooseFiles = true;
    bool canChooseDirectories = true;
};

class SyncViewModel : public std::enable_shared_from_this<SyncViewModel> {
  public:
    static std::shared_ptr<SyncViewModel> create(MainQueue& queue, Settings& settings, SessionStages stages);
    ~SyncViewModel();
    SyncViewModel(const SyncViewModel&) = delete;
    SyncViewModel& operator=(const SyncViewModel&) = delete;

    // ---- observing --------------------------------------------------------------------------
    using Observer = std::function<void(Published)>;
    // The observer is called on the main thread after each change; it stays until the returned
    // handle is destroyed.
    [[nodiscard]] std::shared_ptr<void> observe(Observer observer);

    // ---- published state --------------------------------------------------------------------
    const Sources& sources() const { return sources_; }
    const AppState& state() const { return state_; }
    const std::optional<std::string>& errorMessage() const { return errorMessage_; }
    double syncProgress() const { return syncProgress_; }
    int syncedCount() const { return syncedCount_; }
    int weakCount() const { return weakCount_; }
    int failedCount() const { return failedCount_; }
    double playheadTime() const { return playheadTime_; }
    bool isScrubbing() const { return isScrubbing_; }
    const std::set<Uuid>& selectedClipIDs() const { return selectedClipIDs_; }
    bool syncWasStopped() const { return syncWasStopped_; }
    const std::optional<std::vector<CameraGroupProposal>>& pendingCameraGroups() const {
        return pendingCameraGroups_;
    }
    const std::optional<std::vector<DayRegionProposal>>& pendingDayRegions() const {
        return pendingDayRegions_;
    }
    const std::optional<std::string>& failureSummary() const { return failureSummary_; }
    const std::vector<FormatAdvisory>& formatAdvisories() const { return formatAdvisories_; }
    const std::map<Uuid, double>& displayedOffsets() const { return displayedOffsets_; }
    double barFill() const { return barFill_; }
    bool clipFXActive() const { return clipFXActive_; }
    bool debugSyncEnabled() const { return debugSyncEnabled_; }
    double zoomMultiplier() const { return zoomMultiplier_; }
    double availableWidth() const { return availableWidth_; }
    double sidebarWidth() const { return sidebarWidth_; }
    const std::optional<StackModeOffer>& pendingStackModeOffer() const { return pendingStackModeOffer_; }
    const std::optional<FileChoiceRequest>& pendingFileChoice() const { return pendingFileChoice_; }

    // Unpublished state a driver or a test may read.
    const std::optional<Sources>& sourcesBeforeStacks() const { return sourcesBeforeStacks_; }
    // The stacks of the last stack run (its tracks are the installed sources); nothing before one.
    const std::optional<StackBuilder::Result>& lastStacks() const { return lastStacks_; }
    const std::optional<std::map<Uuid, double>>& offsetsBeforeCloseGaps() const {
        return offsetsBeforeCloseGaps_;
    }
    const std::map<Uuid, double>& animToOffsets() const { return animToOffsets_; }
    bool didOfferStackMode() const { return didOfferStackMode_; }
    bool isSyncRunning() const { return syncTask_.has_value(); }
    // An add is running or waiting to run (metadata, grouping, prompts or extraction).
    bool isIngesting() const { return chainRunning_; }
    const IngestEngine& ingestEngine() const { return ingestEngine_; }
    // Whether the clip's last analysis came from the feature cache without reading the media.
    bool wasServedFromCache(const Uuid& clipID) const { return clipsFromCache_.contains(clipID); }

    // ---- derived reads ----------------------------------------------------------------------
    bool allExtracted() const;
    double totalDuration() const;
    int totalClipCount() const;
    std::vector<float> detectedFrameRates() const;
    double pxPerSec() const;
    double playbackTime() const;

    // ---- session operations -----------------------------------------------------------------
    void browseFiles();
    // The answer to the file chooser: the chosen paths, or nothing when it was cancelled.
    void chooseFiles(const std::optional<std::vector<Url>>& urls);
    void ingestURLs(const std::vector<Url>& urls);
    void synchronize();
    void cancelSynchronization();
    void cleanProject();
    void syncModeChanged();
    void confirmCameraGroups(const std::set<Uuid>& accepted);
    void confirmDayRegions(const std::set<Uuid>& accepted);
    // The answer to the stack-mode offer: true for "Use Stack Mode".
    void answerStackModeOffer(bool useStackMode);
    void closeGaps(bool announce);
    void restoreGaps();
    // The advisory sheet was closed.
    void dismissFormatAdvisories();

    // ---- editing ----------------------------------------------------------------------------
    void toggleClipSelection(const Uuid& id);
    void selectTrack(const Uuid& id);
    void selectAllClips();
    void clearSelection();
    void toggleMute(const Uuid& id);
    void moveSelectedToNewTrack();
    void deleteSelected();
    void setPlayheadTime(double seconds);
    void setScrubbing(bool scrubbing);
    void setDebugSyncEnabled(bool enabled);
    void zoomIn();
    void zoomOut();
    void zoomReset();
    void setAvailableWidth(double width);
    void beginSidebarDrag();
    void endSidebarDrag();
    void setSidebarWidth(double width);

    // ---- the analysis of one clip, on a worker ---------------------------------------------------
    // ---- helpers shared with the stages' drivers ---------------------------------------------
    // The one-line summary of what failed, or nothing.
    static std::optional<std::string> summarizeFailures(const Sources& sources);
    // Lays the clips of one track end to end from 0.
    void recomputeOffsets(std::size_t sourceIndex);

  private:
    SyncViewModel(MainQueue& queue, Settings& settings, SessionStages stages);

    using Continuation = std::function<void(std::set<Uuid>)>;
    using Step = std::function<void()>;
    // Hands a closure from a worker to the main queue; it runs only while the controller lives and
    // the work it came from is still current.
    using Poster = std::function<void(std::function<void(SyncViewModel&)>)>;
    Poster posterFor(std::function<bool(const SyncViewModel&)> stillCurrent);
    Poster chainPoster(std::uint64_t generation);

    void notify(Published what);
    void setSources(Sources sources);
    void setState(AppState state);
    void setErrorMessage(std::optional<std::string> message);
    void refreshCounters();
    void resetOutcome();
    bool isStackMode() const;
    // Runs `fn` on the main queue later, only while this controller is alive.
    void postSelf(std::function<void(SyncViewModel&)> fn);
    void postSelfAfter(double seconds, std::function<void(SyncViewModel&)> fn);

    // ingest chain
    void startNextAdd();
    void loadMetadataThenExtract(std::uint64_t generation, Step done);
    void afterMetadata(std::uint64_t generation, Step done);
    void promptCameraGroups(std::vector<CameraGroupProposal> proposals, Continuation next);
    void promptDayRegions(std::vector<DayRegionProposal> proposals, Continuation next);

    // extraction
    void extractWaveforms(std::uint64_t generation, Step done);
    void reportExtractProgress(double totalWork, const std::string& current);
    void updateClip(const Url& url, std::optional<double> duration, const ExtractPayload& payload);
    void markNoUsableAudio(const Url& url, AudioUsability usability,
                           const std::optional<std::string>& formatExt);
    void markUnreadable(const Url& url, const std::string& reason);
    void maybeSuggestStackMode();
    void presentStackModeSuggestion(const StackBuilder::Advice& advice);

    // sync
    void synchronizeTracks();
    void synchronizeStacks();
    void restoreSourcesAfterStacks();
    void markClipFound(const Uuid& id, SyncStatus status);
    void finishTrackSync(Sources result);
    void finishStackSync(StackBuilder::Result result, Sources before);
    void startSyncTask(std::function<void(std::stop_token, const Poster&)> work);
    void beginSyncRun();
    void setSyncProgress(double progress);
    void installSyncOutcome(Sources result);

    // animation
    void beginLiveAnimation();
    void tickLive();
    void stopLiveAnimationSoon();
    void startBarEase();
    void tickBar();
    void stopBarEaseSoon(double delay);

    MainQueue& queue_;
    Settings& settings_;
    const SessionStages stages_;
    TaskRunner tasks_;
    std::map<std::uint64_t, Observer> observers_;
    std::uint64_t nextObserverId_ = 0;

    // ---- published (main thread) ----
    Sources sources_;
    AppState state_;
    std::optional<std::string> errorMessage_;
    double syncProgress_ = 0;
    int syncedCount_ = 0, weakCount_ = 0, failedCount_ = 0;
    double playheadTime_ = 0;
    bool isScrubbing_ = false;
    std::set<Uuid> selectedClipIDs_;
    bool syncWasStopped_ = false;
    std::optional<std::vector<CameraGroupProposal>> pendingCameraGroups_;
    std::optional<std::vector<DayRegionProposal>> pendingDayRegions_;
    std::optional<std::string> failureSummary_;
    std::vector<FormatAdvisory> formatAdvisories_;
    std::map<Uuid, double> displayedOffsets_;
    double barFill_ = 0;
    bool clipFXActive_ = false;
    bool debugSyncEnabled_ = false;
    double zoomMultiplier_ = 1.0;
    double availableWidth_ = 800;
    double sidebarWidth_ = 280;
    std::optional<StackModeOffer> pendingStackModeOffer_;
    std::optional<FileChoiceRequest> pendingFileChoice_;

    // ---- unpublished (main thread) ----
    std::optional<Sources> sourcesBeforeStacks_;
    std::optional<StackBuilder::Result> lastStacks_;
    std::map<std::string, int> formatAdvisoryCounts_;
    std::optional<Continuation> cameraGroupContinuation_, dayRegionContinuation_;
    std::map<Uuid, double> animToOffsets_;
    Timer animTimer_, barTimer_;
    double extractionStartedAt_ = 0;
    std::map<Uuid, double> clipReadyAt_;
    std::set<Uuid> clipsFromCache_;
    double extractDoneWork_ = 0;
    std::map<Uuid, double> extractSubProgress_;
    std::optional<double> frozenPxPerSec_;
    static constexpr double kZoomStep = 1.6;
    std::map<std::string, int> trackCounter_;
    IngestEngine ingestEngine_;
    // The chain of adds: how many wait, whether one runs, and a generation that a clean bumps so
    // that steps of a cancelled chain find themselves stale and stop.
    int pendingAdds_ = 0;
    bool chainRunning_ = false;
    std::uint64_t chainGeneration_ = 0;
    std::optional<std::stop_source> ingestStop_;
    // The running sync or stack job, by run number; callbacks of other runs are dropped.
    std::optional<std::stop_source> syncTask_;
    std::uint64_t syncRun_ = 0;
    bool didOfferStackMode_ = false;
    std::optional<std::map<Uuid, double>> offsetsBeforeCloseGaps_;
};

} // namespace trelvane
