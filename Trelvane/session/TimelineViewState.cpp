// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/TimelineViewState.hpp"

#include <algorithm>
#include <cmath>

namespace trelvane {

double TimelineZoom::pxPerSec(double totalDuration) const {
    if (frozenPxPerSec) return *frozenPxPerSec;
    if (!(totalDuration > 0) || !(availableWidth > 0)) return 2.0;
    return std::max(0.01, availableWidth / totalDuration * zoomMultiplier);
}

void TimelineZoom::zoomIn() {
    zoomMultiplier = std::min(64.0, zoomMultiplier * zoomStep);
}

void TimelineZoom::zoomOut() {
    zoomMultiplier = std::max(1.0, zoomMultiplier / zoomStep);
}

void TimelineZoom::zoomReset() {
    zoomMultiplier = 1;
    frozenPxPerSec.reset();
}

std::shared_ptr<TimelineViewState> TimelineViewState::create(MainQueue& queue,
                                                             std::shared_ptr<SyncViewModel> vm) {
    std::shared_ptr<TimelineViewState> view(new TimelineViewState(queue, std::move(vm)));
    // The handle is the view's own, so the controller stops telling it once the view is gone.
    view->following_ = view->vm_->observeFlow([raw = view.get()](const FlowEvent& e) { raw->follow(e); });
    return view;
}

TimelineViewState::TimelineViewState(MainQueue& queue, std::shared_ptr<SyncViewModel> vm)
    : queue_(queue), vm_(std::move(vm)) {}

double TimelineViewState::playbackTime() const {
    std::optional<double> earliest;
    for (const auto& t : vm_->sources())
        for (const auto& c : t.clips)
            if (vm_->selectedClipIDs().contains(c.id) && (!earliest || c.startOffset < *earliest))
                earliest = c.startOffset;
    return earliest.value_or(playheadTime_);
}

// ---- following the controller ---------------------------------------------------------------------

void TimelineViewState::follow(const FlowEvent& event) {
    using Kind = FlowEvent::Kind;
    switch (event.kind) {
    case Kind::extractionStarted:
        startBarEase();
        extractionStartedAt_ = queue_.now();
        clipReadyAt_.clear();
        setClipFXActive(true);
        break;
    case Kind::clipReady:
        clipReadyAt_[event.clipID] = queue_.now();
        break;
    case Kind::extractionFinished:
        stopBarEaseSoon(0.6);
        postSelfAfter(0.8, [](TimelineViewState& v) { v.setClipFXActive(false); });
        break;
    case Kind::syncStarted:
        startBarEase();
        if (event.stacks) break;
        animToOffsets_ = openingLayout(vm_->sources());
        setDisplayedOffsets(animToOffsets_);
        beginLiveAnimation();
        break;
    case Kind::clipPlaced:
        animToOffsets_[event.clipID] = event.offset;
        break;
    case Kind::syncFinished: {
        // The glide heads for the result; the playhead goes to the earliest placed clip.
        if (event.stacks) animToOffsets_.clear();
        std::optional<double> earliest;
        for (const auto& t : vm_->sources())
            for (const auto& c : t.clips) {
                const bool placed = c.syncStatus == SyncStatus::synced || c.syncStatus == SyncStatus::weak;
                if ((event.stacks || placed) && (!earliest || c.startOffset < *earliest))
                    earliest = c.startOffset;
                animToOffsets_[c.id] = c.startOffset;
            }
        if (event.stacks) {
            // A stack result is shown at once, without a glide.
            setDisplayedOffsets(animToOffsets_);
            setPlayheadTime(earliest.value_or(0));
        } else {
            if (earliest) setPlayheadTime(*earliest);
            postSelfAfter(1.6, [](TimelineViewState& v) { v.stopLiveAnimationSoon(); });
        }
        stopBarEaseSoon(0.6);
        break;
    }
    case Kind::syncStopped:
        animTimer_.reset();
        barTimer_.reset();
        animToOffsets_.clear();
        setDisplayedOffsets({});
        setBarFill(0);
        break;
    case Kind::positionsDropped:
        animToOffsets_.clear();
        setDisplayedOffsets({});
        break;
    case Kind::gapsClosed:
    case Kind::gapsRestored:
        for (const auto& [id, offset] : event.moved)
            animToOffsets_[id] = offset;
        setDisplayedOffsets(animToOffsets_);
        if (event.kind == Kind::gapsClosed) setPlayheadTime(0);
        break;
    case Kind::cleaned:
        animTimer_.reset();
        barTimer_.reset();
        animToOffsets_.clear();
        clipReadyAt_.clear();
        setDisplayedOffsets({});
        setPlayheadTime(0);
        setBarFill(0);
        setClipFXActive(false);
        zoom_.zoomReset();
        notify(Change::zoom);
        break;
    }
}

void TimelineViewState::setDisplayedOffsets(std::map<Uuid, double> offsets) {
    displayedOffsets_ = std::move(offsets);
    notify(Change::displayedOffsets);
}

void TimelineViewState::setBarFill(double fill) {
    barFill_ = fill;
    notify(Change::barFill);
}

void TimelineViewState::setClipFXActive(bool active) {
    clipFXActive_ = active;
    notify(Change::clipFXActive);
}

void TimelineViewState::postSelfAfter(double seconds, std::function<void(TimelineViewState&)> fn) {
    std::weak_ptr<TimelineViewState> weak = weak_from_this();
    queue_.postAfter(seconds, [weak, fn = std::move(fn)] {
        if (auto self = weak.lock()) fn(*self);
    });
}

// ---- the two clocks -------------------------------------------------------------------------------

std::map<Uuid, double> TimelineViewState::openingLayout(const Sources& sources) {
    std::optional<std::size_t> chosen;
    double chosenSum = -1, widest = 0;
    const bool anyAudio = std::any_of(sources.begin(), sources.end(),
                                      [](const TrackSource& t) { return t.type == SourceType::audio; });
    for (std::size_t i = 0; i < sources.size(); ++i) {
        double sum = 0;
        for (const auto& c : sources[i].clips)
            sum += c.duration;
        widest = std::max(widest, sum);
        if ((!anyAudio || sources[i].type == SourceType::audio) && sum > chosenSum) {
            chosen = i;
            chosenSum = sum;
        }
    }
    std::map<Uuid, double> out;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const auto& clips = sources[i].clips;
        double t = 0;
        for (std::size_t k = 0; k < clips.size(); ++k) {
            double at;
            if (chosen && i == *chosen) {
                at = t;
                t += clips[k].duration;
            } else {
                at = widest * static_cast<double>(k) / static_cast<double>(clips.size());
            }
            out[clips[k].id] = at;
        }
    }
    return out;
}

std::map<Uuid, double> TimelineViewState::glideStep(const std::map<Uuid, double>& displayed,
                                                    const std::map<Uuid, double>& targets) {
    std::map<Uuid, double> next = displayed;
    for (const auto& [id, target] : targets) {
        const auto it = displayed.find(id);
        const double current = it != displayed.end() ? it->second : target;
        double value = current + (target - current) * 0.18;
        if (std::fabs(target - value) < 0.25) value = target;
        next[id] = value;
    }
    return next;
}

double TimelineViewState::barFillStep(double barFill, const AppState& state, double syncProgress) {
    double target = 0;
    switch (state.kind) {
    case AppState::Kind::extracting:
        target = state.progress;
        break;
    case AppState::Kind::syncing:
        target = syncProgress;
        break;
    case AppState::Kind::ready:
    case AppState::Kind::synced:
        target = 1;
        break;
    case AppState::Kind::idle:
    case AppState::Kind::error:
        target = 0;
        break;
    }
    if (target >= 1 || state.is(AppState::Kind::ready) || state.is(AppState::Kind::synced)) {
        barFill += (1 - barFill) * 0.15;
        if (barFill > 0.999) barFill = 1;
    } else if (target - barFill > 0.004) {
        barFill += (target - barFill) * 0.15;
    } else {
        const double ceiling = std::min(target + 0.12, 0.97);
        if (ceiling > barFill) barFill += (ceiling - barFill) * 0.018 + 0.0004;
    }
    return barFill;
}

void TimelineViewState::beginLiveAnimation() {
    std::weak_ptr<TimelineViewState> weak = weak_from_this();
    animTimer_ = queue_.every(1.0 / 30.0, [weak] {
        auto self = weak.lock();
        if (!self || self->animToOffsets_.empty()) return;
        self->setDisplayedOffsets(glideStep(self->displayedOffsets_, self->animToOffsets_));
    });
}

void TimelineViewState::stopLiveAnimationSoon() {
    // In one step, so that the last fraction of the glide cannot stay behind.
    animTimer_.reset();
    setDisplayedOffsets(animToOffsets_);
}

void TimelineViewState::startBarEase() {
    setBarFill(0);
    std::weak_ptr<TimelineViewState> weak = weak_from_this();
    barTimer_ = queue_.every(1.0 / 60.0, [weak] {
        auto self = weak.lock();
        if (!self) return;
        const double next = barFillStep(self->barFill_, self->vm_->state(), self->vm_->syncProgress());
        if (next != self->barFill_) self->setBarFill(next);
    });
}

void TimelineViewState::stopBarEaseSoon(double delay) {
    postSelfAfter(delay, [](TimelineViewState& v) { v.barTimer_.reset(); });
}

// ---- the window's operations -----------------------------------------------------------------------

void TimelineViewState::setPlayheadTime(double seconds) {
    playheadTime_ = seconds;
    notify(Change::playheadTime);
}

void TimelineViewState::setScrubbing(bool scrubbing) {
    isScrubbing_ = scrubbing;
    notify(Change::isScrubbing);
}

void TimelineViewState::setDebugSyncEnabled(bool enabled) {
    debugSyncEnabled_ = enabled;
    notify(Change::debugSyncEnabled);
}

void TimelineViewState::zoomIn() {
    zoom_.zoomIn();
    notify(Change::zoom);
}

void TimelineViewState::zoomOut() {
    zoom_.zoomOut();
    notify(Change::zoom);
}

void TimelineViewState::zoomReset() {
    zoom_.zoomReset();
    notify(Change::zoom);
}

void TimelineViewState::setAvailableWidth(double width) {
    zoom_.availableWidth = width;
    notify(Change::zoom);
}

void TimelineViewState::beginSidebarDrag() {
    zoom_.frozenPxPerSec = pxPerSec();
    notify(Change::zoom);
}

void TimelineViewState::endSidebarDrag() {
    zoom_.frozenPxPerSec.reset();
    notify(Change::zoom);
}

void TimelineViewState::setSidebarWidth(double width) {
    zoom_.sidebarWidth = width;
    notify(Change::zoom);
}

} // namespace trelvane
