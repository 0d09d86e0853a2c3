// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Background tasks of the controller: each runs on its own thread with a stop token. Destroying
// the runner asks every task to stop and waits for it, so no task outlives its owner.

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <stop_token>
#include <thread>

namespace trelvane {

class TaskRunner {
  public:
    TaskRunner() = default;
    TaskRunner(const TaskRunner&) = delete;
    TaskRunner& operator=(const TaskRunner&) = delete;
    ~TaskRunner();

    // Starts `work` on a new thread and returns its stop source, so the caller can cancel it.
    std::stop_source spawn(std::function<void(std::stop_token)> work);

  private:
    struct Task {
        std::jthread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };
    void reap();
    // Main thread only.
    std::list<Task> tasks_;
};

} // namespace trelvane
