// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The one way work runs on worker threads: a sliding window of at most `window` jobs in flight,
// started in submission order, results handed back on the calling thread in completion order.
// `run` returns when every started job has ended. Once `stop` is requested no new job starts;
// running jobs finish and their results are still handed back. A job must not throw: it turns its
// own failures into its result.

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <utility>
#include <vector>

namespace trelvane::WorkerWindow {

// The processors the platform reports, at least 1.
inline int processorCount() {
    return std::max(1u, std::thread::hardware_concurrency());
}

inline constexpr int kMostWorkers = 256;

// The worker count the user asked for with the environment variable TRELVANE_WORKERS (a whole
// number from 1 to 256), or nothing when it is unset or holds anything else. Results never depend
// on it; only the time and memory of a run do.
inline std::optional<int> requestedWorkers() {
    const char* text = std::getenv("TRELVANE_WORKERS");
    if (!text || !*text) return std::nullopt;
    int value = 0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), value);
    if (error != std::errc() || *end != '\0' || value < 1 || value > kMostWorkers) return std::nullopt;
    return value;
}

template <typename Result>
void run(int window, std::size_t count, const std::function<Result(std::size_t)>& job,
         const std::function<void(std::size_t, Result)>& onResult, std::stop_token stop = {}) {
    if (count == 0) return;
    window = std::max(1, window);
    std::mutex mutex;
    std::condition_variable done;
    std::deque<std::pair<std::size_t, std::optional<Result>>> finished;
    std::size_t next = 0, inFlight = 0;
    std::map<std::size_t, std::jthread> threads;

    auto start = [&](std::size_t index) {
        ++inFlight;
        threads.emplace(index, std::jthread([&, index] {
                            std::optional<Result> r;
                            r.emplace(job(index));
                            std::lock_guard lock(mutex);
                            finished.emplace_back(index, std::move(r));
                            done.notify_one();
                        }));
    };

    while (next < count && static_cast<int>(inFlight) < window && !stop.stop_requested())
        start(next++);
    while (inFlight > 0) {
        std::pair<std::size_t, std::optional<Result>> item;
        {
            std::unique_lock lock(mutex);
            done.wait(lock, [&] { return !finished.empty(); });
            item = std::move(finished.front());
            finished.pop_front();
        }
        --inFlight;
        threads.erase(item.first); // joins a thread that has already handed its result over
        onResult(item.first, std::move(*item.second));
        if (next < count && !stop.stop_requested()) start(next++);
    }
}

} // namespace trelvane::WorkerWindow
