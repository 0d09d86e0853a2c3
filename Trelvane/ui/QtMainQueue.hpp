// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The main queue of the desktop application: closures run on the GUI thread's event loop, delayed
// calls and timers are QTimers there, and the clock is the queue's own monotonic one.
//
// Lifecycle: made on the GUI thread before the controller and destroyed after it. `post` and
// `postAfter` are safe from any thread; `every` belongs to the GUI thread. Closures still queued
// when the queue goes are dropped, never run.

#include "Trelvane/session/MainQueue.hpp"

#include <QElapsedTimer>
#include <QObject>

namespace trelvane {

class QtMainQueue final : public MainQueue {
  public:
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void post(std::function<void()> fn) override;
    void postAfter(double seconds, std::function<void()> fn) override;
    Timer every(double seconds, std::function<void()> fn) override;
    double now() const override;

  private:
    // Lives on the GUI thread; queued calls and timers are bound to it, so they die with it.
    QObject context_;
    QElapsedTimer clock_;
};

} // namespace trelvane
