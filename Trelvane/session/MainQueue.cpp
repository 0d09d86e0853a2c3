// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/MainQueue.hpp"

#include <chrono>

namespace trelvane {

namespace {

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

RunLoopMainQueue::RunLoopMainQueue(bool virtualClock)
    : virtualClock_(virtualClock), realOrigin_(steadySeconds()) {}

double RunLoopMainQueue::clockNow() const {
    return virtualClock_ ? virtualNow_ : steadySeconds() - realOrigin_;
}

double RunLoopMainQueue::now() const {
    std::lock_guard lock(mutex_);
    return clockNow();
}

void RunLoopMainQueue::post(std::function<void()> fn) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(fn));
    }
    wake_.notify_all();
}

void RunLoopMainQueue::schedule(double at, std::function<void()> fn) {
    {
        std::lock_guard lock(mutex_);
        delayed_.emplace(std::make_pair(at, sequence_++), std::move(fn));
    }
    wake_.notify_all();
}

void RunLoopMainQueue::postAfter(double seconds, std::function<void()> fn) {
    schedule(now() + std::max(0.0, seconds), std::move(fn));
}

Timer RunLoopMainQueue::every(double seconds, std::function<void()> fn) {
    auto live = std::make_shared<bool>(true);
    // Each tick re-arms the next one while the handle is alive; a reset handle lets the chain die.
    struct Ticker {
        RunLoopMainQueue* queue;
        double interval;
        std::weak_ptr<bool> live;
        std::shared_ptr<std::function<void()>> body;
        void operator()() const {
            auto alive = live.lock();
            if (!alive || !*alive) return;
            (*body)();
            if (*alive) queue->postAfter(interval, *this);
        }
    };
    postAfter(seconds, Ticker{this, seconds, live, std::make_shared<std::function<void()>>(std::move(fn))});
    return Timer(live);
}

bool RunLoopMainQueue::popDue(std::function<void()>& out) {
    std::lock_guard lock(mutex_);
    if (!ready_.empty()) {
        out = std::move(ready_.front());
        ready_.pop_front();
        return true;
    }
    if (!delayed_.empty() && delayed_.begin()->first.first <= clockNow()) {
        out = std::move(delayed_.begin()->second);
        delayed_.erase(delayed_.begin());
        return true;
    }
    return false;
}

int RunLoopMainQueue::runPending() {
    int count = 0;
    std::function<void()> fn;
    while (popDue(fn)) {
        fn();
        fn = nullptr;
        ++count;
    }
    return count;
}

bool RunLoopMainQueue::runUntil(const std::function<bool()>& done, double timeoutSeconds) {
    const double deadline = timeoutSeconds < 0 ? -1 : steadySeconds() + timeoutSeconds;
    for (;;) {
        runPending();
        if (done()) return true;
        std::unique_lock lock(mutex_);
        if (!ready_.empty()) continue;
        double waitFor = 0.05;
        if (!virtualClock_ && !delayed_.empty())
            waitFor = std::min(waitFor, std::max(0.0, delayed_.begin()->first.first - clockNow()));
        if (deadline >= 0) {
            const double left = deadline - steadySeconds();
            if (left <= 0) return false;
            waitFor = std::min(waitFor, left);
        }
        wake_.wait_for(lock, std::chrono::duration<double>(waitFor));
    }
}

void RunLoopMainQueue::advanceVirtual(double seconds) {
    double target;
    {
        std::lock_guard lock(mutex_);
        target = virtualNow_ + std::max(0.0, seconds);
    }
    for (;;) {
        runPending();
        std::lock_guard lock(mutex_);
        if (delayed_.empty() || delayed_.begin()->first.first > target) {
            virtualNow_ = target;
            break;
        }
        virtualNow_ = std::max(virtualNow_, delayed_.begin()->first.first);
    }
    runPending();
}

} // namespace trelvane
