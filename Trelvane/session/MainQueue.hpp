// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The session controller lives on one "main" thread. Everything that writes the session or its
// published state runs there; workers reach it only by posting closures into this queue.
//
// Lifecycle: the queue outlives the controller and every worker that may post into it. `post` and
// `postAfter` are safe from any thread; `every` and the run operations belong to the main thread.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace trelvane {

// A repeating timer's handle: the timer stops when the handle is reset or destroyed.
class Timer {
  public:
    Timer() = default;
    explicit Timer(std::shared_ptr<bool> live) : live_(std::move(live)) {}
    Timer(Timer&&) noexcept = default;
    Timer& operator=(Timer&& other) noexcept {
        reset();
        live_ = std::move(other.live_);
        return *this;
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { reset(); }

    void reset() {
        if (live_) *live_ = false;
        live_.reset();
    }
    bool isActive() const { return live_ && *live_; }

  private:
    // Read and written on the main thread only.
    std::shared_ptr<bool> live_;
};

class MainQueue {
  public:
    virtual ~MainQueue() = default;
    virtual void post(std::function<void()> fn) = 0;
    virtual void postAfter(double seconds, std::function<void()> fn) = 0;
    // Calls fn every `seconds` until the returned handle is reset or destroyed.
    virtual Timer every(double seconds, std::function<void()> fn) = 0;
    // Seconds on the queue's own monotonic clock.
    virtual double now() const = 0;
};

// A run loop on the calling thread, shared by the command-line tool (real time) and the tests
// (virtual time, moved only by `advance`). Workers post under the mutex and wake the loop.
class RunLoopMainQueue : public MainQueue {
  public:
    void post(std::function<void()> fn) override;
    void postAfter(double seconds, std::function<void()> fn) override;
    Timer every(double seconds, std::function<void()> fn) override;
    double now() const override;

    // Runs everything that is due now, including what that work posts, and returns how many
    // closures ran.
    int runPending();
    // Pumps until `done` holds, waiting for workers' posts and for timers to fall due. With a
    // time-out (real seconds) it gives up and returns false.
    bool runUntil(const std::function<bool()>& done, double timeoutSeconds = -1);

  protected:
    explicit RunLoopMainQueue(bool virtualClock);
    // Virtual clock only: moves time forward, running each delayed call and timer tick at its
    // moment, in order.
    void advanceVirtual(double seconds);

  private:
    void schedule(double at, std::function<void()> fn);
    bool popDue(std::function<void()>& out);
    double clockNow() const;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    // Guarded by mutex_.
    std::deque<std::function<void()>> ready_;
    std::multimap<std::pair<double, std::uint64_t>, std::function<void()>> delayed_;
    std::uint64_t sequence_ = 0;
    double virtualNow_ = 0;
    const bool virtualClock_;
    const double realOrigin_;
};

// The command-line tool's queue: real time.
class HeadlessMainQueue final : public RunLoopMainQueue {
  public:
    HeadlessMainQueue() : RunLoopMainQueue(false) {}
};

// The tests' queue: nothing happens until the test pumps it, and time moves only by `advance`,
// so timers, eases and delayed calls are deterministic.
class ManualMainQueue final : public RunLoopMainQueue {
  public:
    ManualMainQueue() : RunLoopMainQueue(true) {}
    void advance(double seconds) { advanceVirtual(seconds); }
};

} // namespace trelvane
