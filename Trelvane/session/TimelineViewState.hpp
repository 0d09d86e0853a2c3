// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What a window shows of the session beyond its tracks: the zoom and the sidebar, the playhead,
// the glide of the clips while a sync places them, the eased progress bar and the reveal of clips
// as their analysis ends. Only a window makes one, over the session controller: it follows the
// controller's flow events and keeps the two animation clocks on the main queue, so a headless
// run never ticks them. All values are points on screen or seconds of timeline.
//
// Lifecycle: made with `create` on the main thread after the controller, then confined to it;
// the queue outlives it. Its clocks and delayed steps hold it weakly.

#include "Trelvane/session/MainQueue.hpp"
#include "Trelvane/session/Observers.hpp"
#include "Trelvane/session/SyncViewModel.hpp"

#include <map>
#include <memory>
#include <optional>

namespace trelvane {

// The zoom model: how many points one second of the timeline takes.
struct TimelineZoom {
    static constexpr double zoomStep = 1.6;
    double zoomMultiplier = 1.0;
    double availableWidth = 800;
    double sidebarWidth = 280;
    // Held while the divider between sidebar and timeline is dragged, so that the scale does not
    // jump.
    std::optional<double> frozenPxPerSec;

    // At multiplier 1 the whole timeline fits the available width; with nothing to fit, 2 points a
    // second.
    double pxPerSec(double totalDuration) const;
    void zoomIn();  // × zoomStep, at most 64
    void zoomOut(); // ÷ zoomStep, at least 1
    void zoomReset();
};

class TimelineViewState : public std::enable_shared_from_this<TimelineViewState> {
  public:
    enum class Change {
        displayedOffsets,
        barFill,
        clipFXActive,
        debugSyncEnabled,
        zoom,
        playheadTime,
        isScrubbing
    };

    static std::shared_ptr<TimelineViewState> create(MainQueue& queue, std::shared_ptr<SyncViewModel> vm);
    TimelineViewState(const TimelineViewState&) = delete;
    TimelineViewState& operator=(const TimelineViewState&) = delete;

    // The observer is called on the main thread after each change, until the handle is destroyed.
    [[nodiscard]] std::shared_ptr<void> observe(Observers<Change>::Observer observer) {
        return observers_.add(std::move(observer));
    }

    // Where each clip is drawn during and after a glide; a clip with no entry stands at its
    // `startOffset`. Emptied only by a stop, a return to the tracks or a clean.
    const std::map<Uuid, double>& displayedOffsets() const { return displayedOffsets_; }
    // Where the glide is heading.
    const std::map<Uuid, double>& animToOffsets() const { return animToOffsets_; }
    double barFill() const { return barFill_; } // 0 to 1
    // Whether the two clocks run: the glide of the clips (30 Hz) and the ease of the bar (60 Hz).
    bool liveAnimationRunning() const { return animTimer_.isActive(); }
    bool barEaseRunning() const { return barTimer_.isActive(); }
    // Clips are being revealed as their analysis ends: when it started and when each clip was
    // ready, on the queue's clock.
    bool clipFXActive() const { return clipFXActive_; }
    double extractionStartedAt() const { return extractionStartedAt_; }
    const std::map<Uuid, double>& clipReadyAt() const { return clipReadyAt_; }
    bool debugSyncEnabled() const { return debugSyncEnabled_; }
    const TimelineZoom& zoom() const { return zoom_; }
    double pxPerSec() const { return zoom_.pxPerSec(vm_->totalDuration()); }
    double playheadTime() const { return playheadTime_; }
    bool isScrubbing() const { return isScrubbing_; }
    // Where playback starts: the earliest selected clip, else the playhead.
    double playbackTime() const;

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

    // ---- the steps of the animations, without clocks ------------------------------------------
    // The opening of a track sync: the track with the largest sum of clip durations (among the
    // audio tracks when there are any; the earlier on a tie) stands end to end from 0, and every
    // other track spreads its clips evenly over that widest sum.
    static std::map<Uuid, double> openingLayout(const Sources& sources);
    // One tick of the glide: each clip 18 % closer to its target, and on it once within 0.25 s.
    static std::map<Uuid, double> glideStep(const std::map<Uuid, double>& displayed,
                                            const std::map<Uuid, double>& targets);
    // One tick of the bar: 15 % of the way towards its target (1 once the work is done); level
    // with the target it creeps towards 0.12 above it, never past 0.97, so it never looks stuck.
    static double barFillStep(double barFill, const AppState& state, double syncProgress);

  private:
    TimelineViewState(MainQueue& queue, std::shared_ptr<SyncViewModel> vm);
    void notify(Change what) { observers_.notify(what); }
    void follow(const FlowEvent& event);
    void setDisplayedOffsets(std::map<Uuid, double> offsets);
    void setBarFill(double fill);
    void setClipFXActive(bool active);
    void postSelfAfter(double seconds, std::function<void(TimelineViewState&)> fn);
    void beginLiveAnimation();
    void stopLiveAnimationSoon();
    void startBarEase();
    void stopBarEaseSoon(double delay);

    MainQueue& queue_;
    const std::shared_ptr<SyncViewModel> vm_;
    Observers<Change> observers_;
    std::shared_ptr<void> following_;

    // ---- main thread ----
    std::map<Uuid, double> displayedOffsets_, animToOffsets_;
    Timer animTimer_, barTimer_;
    double barFill_ = 0;
    bool clipFXActive_ = false;
    double extractionStartedAt_ = 0;
    std::map<Uuid, double> clipReadyAt_;
    bool debugSyncEnabled_ = false;
    TimelineZoom zoom_;
    double playheadTime_ = 0;
    bool isScrubbing_ = false;
};

} // namespace trelvane
