// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/TaskRunner.hpp"

#include <atomic>

namespace trelvane {

TaskRunner::~TaskRunner() {
    for (auto& t : tasks_)
        t.thread.request_stop();
    tasks_.clear(); // joins
}

void TaskRunner::reap() {
    tasks_.remove_if([](const Task& t) { return t.finished->load(); });
}

std::stop_source TaskRunner::spawn(std::function<void(std::stop_token)> work) {
    reap();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::jthread thread([work = std::move(work), finished](std::stop_token stop) {
        work(stop);
        finished->store(true);
    });
    std::stop_source source = thread.get_stop_source();
    tasks_.push_back(Task{std::move(thread), std::move(finished)});
    return source;
}

} // namespace trelvane
