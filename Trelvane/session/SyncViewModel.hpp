// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The session controller: the one long-lived object that owns the session's tracks and drives every
// stage, from dropped paths to a synced timeline. A user interface only observes its published state
// and calls its operations; every user decision (the two grouping prompts, the stack-mode offer,
// the file choice, the export's options and file) is a pending value plus an operation that answers
// it, so a dialog, a command-line flag or a test can drive it alike. What only a drawing needs (zoom,
// playhead, the glide of the clips, the eased progress bar) is kept by `TimelineViewState`, which a window
// makes over the controller from its published state and its flow events; a command line goes without.
//
// Lifecycle: made with `create` on the main thread, then confined to it: every operation is called
// there, and every change of state happens there. Work runs on worker threads with copies of the
// session; their results come back through the main queue and are dropped when the controller is
// gone or the work was cancelled. The queue and the settings must outlive the controller.

#include "Trelvane/export/ExportOptions.hpp"
#include "Trelvane/session/FormatAdvisory.hpp"
#include "Trelvane/session/MainQueue.hpp"
#include "Trelvane/session/Observers.hpp"
#include "Trelvane/session/SessionStages.hpp"
#include "Trelvane/session/Settings.hpp"
#include "Trelvane/session/TaskRunner.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <filesystem>
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
    selectedClipIDs,
    syncWasStopped,
    pendingCameraGroups,
    pendingDayRegions,
    failureSummary,
    formatAdvisories,
    pendingStackModeOffer,
    pendingFileChoice,
    ingestActive,
    pendingExport,
    exportNotice,
};

// A step of a flow that a view showing the clips on their way needs but that leaves no trace in
// the published state: the tracks' own positions change only when a run ends, so where a running
// sync puts each clip, and when an analysis or a run opens and ends, are told as they happen.
struct FlowEvent {
    enum class Kind {
        extractionStarted,
        clipReady, // a clip's analysis ended, whatever its outcome
        extractionFinished,
        syncStarted,
        clipPlaced, // the running sync placed a clip
        syncFinished,
        syncStopped,
        positionsDropped, // the shown positions no longer hold: back from stacks, or a change of mode
        gapsClosed,
        gapsRestored,
        cleaned,
    };
    Kind kind;
    bool stacks = false;            // syncStarted, syncFinished: a stack run
    Uuid clipID{};                  // clipReady, clipPlaced
    double offset = 0;              // clipPlaced
    std::map<Uuid, double> moved{}; // gapsClosed, gapsRestored: the clips moved, by new start
};

// What the last sync or stack run left. A change of layout or a clean drops it as a whole.
struct RunOutcome {
    // Clips by outcome; `failedCount` counts only failed clips whose audio is usable.
    int syncedCount = 0, weakCount = 0, failedCount = 0;
    std::optional<std::string> failureSummary;
    bool syncWasStopped = false;
    // The synced positions, kept while gaps are closed.
    std::optional<std::map<Uuid, double>> offsetsBeforeCloseGaps;
    // The stacks of the last stack run (its tracks are the installed sources).
    std::optional<StackBuilder::Result> lastStacks;
    // The track list as it stood before the first stack result replaced it.
    std::optional<Sources> sourcesBeforeStacks;
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

// What the export dialog is opened with.
struct ExportPrompt {
    std::vector<float> detectedFrameRates; // the session's detected rates when the export was asked for
    ExportSummary summary;
    // What the dialog preselects: the first target, the rate of the family the detected rates
    // suggest, one track per channel.
    ExportOptions defaults;
    std::string rootFolderName; // what the default file name begins with
};

// The dialog's and the save panel's answer.
struct ExportChoice {
    ExportOptions options;
    std::filesystem::path path; // absolute, as the save panel gave it
};

// What the window tells after an export: the notice, or the refusal.
struct ExportNotice {
    bool failed = false;
    std::string title; // "Export finished", or "Export failed"
    std::string body;  // "<file name> saved.", or the sentence that says why not
};

class SyncViewModel : public std::enable_shared_from_this<SyncViewModel> {
  public:
    static std::shared_ptr<SyncViewModel> create(MainQueue& queue, Settings& settings, SessionStages stages);
    ~SyncViewModel();
    SyncViewModel(const SyncViewModel&) = delete;
    SyncViewModel& operator=(const SyncViewModel&) = delete;

    // ---- observing --------------------------------------------------------------------------
    using Observer = Observers<Published>::Observer;
    // The observer is called on the main thread after each change; it stays until the returned
    // handle is destroyed.
    [[nodiscard]] std::shared_ptr<void> observe(Observer observer) {
        return observers_.add(std::move(observer));
    }
    // The steps of the flows, for a view that shows the clips on their way; same rules.
    [[nodiscard]] std::shared_ptr<void> observeFlow(Observers<const FlowEvent&>::Observer observer) {
        return flowObservers_.add(std::move(observer));
    }

    // ---- published state --------------------------------------------------------------------
    const Sources& sources() const { return sources_; }
    const AppState& state() const { return state_; }
    const std::optional<std::string>& errorMessage() const { return errorMessage_; }
    double syncProgress() const { return syncProgress_; }
    int syncedCount() const { return outcome_.syncedCount; }
    int weakCount() const { return outcome_.weakCount; }
    int failedCount() const { return outcome_.failedCount; }
    const std::set<Uuid>& selectedClipIDs() const { return selectedClipIDs_; }
    bool syncWasStopped() const { return outcome_.syncWasStopped; }
    const std::optional<std::vector<CameraGroupProposal>>& pendingCameraGroups() const {
        return pendingCameraGroups_;
    }
    const std::optional<std::vector<DayRegionProposal>>& pendingDayRegions() const {
        return pendingDayRegions_;
    }
    const std::optional<std::string>& failureSummary() const { return outcome_.failureSummary; }
    const std::vector<FormatAdvisory>& formatAdvisories() const { return formatAdvisories_; }
    const std::optional<StackModeOffer>& pendingStackModeOffer() const { return pendingStackModeOffer_; }
    const std::optional<FileChoiceRequest>& pendingFileChoice() const { return pendingFileChoice_; }
    const std::optional<ExportPrompt>& pendingExport() const { return pendingExport_; }
    const std::optional<ExportNotice>& exportNotice() const { return exportNotice_; }

    // Unpublished state a driver or a test may read.
    const RunOutcome& outcome() const { return outcome_; }
    const std::optional<Sources>& sourcesBeforeStacks() const { return outcome_.sourcesBeforeStacks; }
    // Nothing before a stack run.
    const std::optional<StackBuilder::Result>& lastStacks() const { return outcome_.lastStacks; }
    const std::optional<std::map<Uuid, double>>& offsetsBeforeCloseGaps() const {
        return outcome_.offsetsBeforeCloseGaps;
    }
    bool didOfferStackMode() const { return didOfferStackMode_; }
    bool isSyncRunning() const { return syncTask_.has_value(); }
    // An export answered by the user is being written; it starts as `pendingExport` is cleared and
    // ends as `exportNotice` is set.
    bool isExporting() const { return exportsRunning_ > 0; }
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

    // ---- export ---------------------------------------------------------------------------------
    // Opens the export dialog over the session as it stands (an empty one gives an empty document).
    void exportXML();
    // The answer of the dialog and the save panel; nothing when either was cancelled. The document
    // is built and written on a worker with a copy of the tracks, by the same flow as the command
    // line's, replacing an existing file (the save panel has asked) but never a clip's media; the
    // outcome comes back as `exportNotice`.
    void answerExport(const std::optional<ExportChoice>& choice);
    void dismissExportNotice();

    // ---- editing (the work is done by TrackEditing) --------------------------------------------
    void toggleClipSelection(const Uuid& id);
    void selectTrack(const Uuid& id);
    void selectAllClips();
    void clearSelection();
    void toggleMute(const Uuid& id);
    void moveSelectedToNewTrack();
    void deleteSelected();

    // The one-line summary of what failed, or nothing.
    static std::optional<std::string> summarizeFailures(const Sources& sources);

  private:
    SyncViewModel(MainQueue& queue, Settings& settings, SessionStages stages);

    using Continuation = std::function<void(std::set<Uuid>)>;
    using Step = std::function<void()>;
    // Hands a closure from a worker to the main queue; it runs only while the controller lives and
    // the work it came from is still current.
    using Poster = std::function<void(std::function<void(SyncViewModel&)>)>;
    Poster posterFor(std::function<bool(const SyncViewModel&)> stillCurrent);
    Poster chainPoster(std::uint64_t generation);

    void notify(Published what) { observers_.notify(what); }
    void tell(FlowEvent event) { flowObservers_.notify(event); }
    void setSources(Sources sources);
    void setState(AppState state);
    void setErrorMessage(std::optional<std::string> message);
    void refreshCounters();
    // Drops the outcome as a whole, every clip back to pending and the state to idle.
    void resetOutcome();
    bool isStackMode() const;
    // Runs `fn` on the main queue later, only while this controller is alive.
    void postSelf(std::function<void(SyncViewModel&)> fn);

    // ingest chain
    void startNextAdd();
    void loadMetadataThenExtract(std::uint64_t generation, Step done);
    void adoptMetadata(const Sources& read);
    void afterMetadata(std::uint64_t generation, Step done);
    void finishAdd(std::uint64_t generation, Step done);
    // While a sync or stack run has the tracks, the chain keeps its next step until the run ends:
    // true when `step` was kept.
    bool holdWhileRunning(Step step);
    // The run ended: the kept step goes on, after what an add made during the run asks for.
    void releaseChain();
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
    void markClipFound(const Uuid& id, double offset, SyncStatus status);
    void finishTrackSync(Sources result);
    void finishStackSync(StackBuilder::Result result);
    void startSyncTask(std::function<void(std::stop_token, const Poster&)> work);
    void beginSyncRun(bool stacks);
    void setSyncProgress(double progress);
    void installSyncOutcome(Sources result);
    void setClipOffsets(const std::map<Uuid, double>& offsets, FlowEvent::Kind kind);

    MainQueue& queue_;
    Settings& settings_;
    const SessionStages stages_;
    TaskRunner tasks_;
    Observers<Published> observers_;
    Observers<const FlowEvent&> flowObservers_;

    // ---- published (main thread) ----
    Sources sources_;
    AppState state_;
    std::optional<std::string> errorMessage_;
    double syncProgress_ = 0;
    std::set<Uuid> selectedClipIDs_;
    std::optional<std::vector<CameraGroupProposal>> pendingCameraGroups_;
    std::optional<std::vector<DayRegionProposal>> pendingDayRegions_;
    std::vector<FormatAdvisory> formatAdvisories_;
    std::optional<StackModeOffer> pendingStackModeOffer_;
    std::optional<FileChoiceRequest> pendingFileChoice_;
    std::optional<ExportPrompt> pendingExport_;
    std::optional<ExportNotice> exportNotice_;
    RunOutcome outcome_;

    // ---- unpublished (main thread) ----
    std::map<std::string, int> formatAdvisoryCounts_;
    std::optional<Continuation> cameraGroupContinuation_, dayRegionContinuation_;
    std::set<Uuid> clipsFromCache_;
    double extractDoneWork_ = 0;
    std::map<Uuid, double> extractSubProgress_;
    IngestEngine ingestEngine_;
    // The chain of adds: how many wait, whether one runs, and a generation that a clean bumps so
    // that steps of a cancelled chain find themselves stale and stop.
    int pendingAdds_ = 0;
    bool chainRunning_ = false;
    std::uint64_t chainGeneration_ = 0;
    std::optional<std::stop_source> ingestStop_;
    // The clips the running add reads and analyses: those there when it began. Later drops get
    // their own add.
    std::set<Uuid> addClips_;
    // The chain's step kept while a run goes on, and whether media was dropped during the run.
    std::optional<Step> heldStep_;
    bool addedDuringRun_ = false;
    // The running sync or stack job, by run number; callbacks of other runs are dropped.
    std::optional<std::stop_source> syncTask_;
    // Which track each clip was on when the running sync or stack run started, so that a clip the
    // user moves meanwhile goes where the user put it.
    std::map<Uuid, Uuid> trackAtRunStart_;
    std::uint64_t syncRun_ = 0;
    bool didOfferStackMode_ = false;
    int exportsRunning_ = 0;
};

} // namespace trelvane
