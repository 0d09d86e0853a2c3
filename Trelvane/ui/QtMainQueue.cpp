// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/QtMainQueue.hpp"

#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <memory>

namespace trelvane {

namespace {

int milliseconds(double seconds) {
    return static_cast<int>(std::lround(std::clamp(seconds, 0.0, 86400.0) * 1000.0));
}

} // namespace

QtMainQueue::QtMainQueue() {
    clock_.start();
}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::post(std::function<void()> fn) {
    QMetaObject::invokeMethod(
        &context_, [fn = std::move(fn)] { fn(); }, Qt::QueuedConnection);
}

void QtMainQueue::postAfter(double seconds, std::function<void()> fn) {
    const int ms = milliseconds(seconds);
    // A QTimer must be started on the thread it belongs to: a worker hands the start over.
    auto start = [this, ms, fn = std::move(fn)] { QTimer::singleShot(ms, Qt::PreciseTimer, &context_, fn); };
    if (QThread::currentThread() == context_.thread())
        start();
    else
        post(std::move(start));
}

Timer QtMainQueue::every(double seconds, std::function<void()> fn) {
    auto live = std::make_shared<bool>(true);
    auto* timer = new QTimer(&context_);
    timer->setTimerType(Qt::PreciseTimer);
    timer->setInterval(std::max(1, milliseconds(seconds)));
    // A reset handle is noticed at the next tick, which then stops and frees the timer.
    QObject::connect(timer, &QTimer::timeout, timer,
                     [timer, weak = std::weak_ptr<bool>(live), fn = std::move(fn)] {
                         auto alive = weak.lock();
                         if (alive && *alive) fn();
                         alive = weak.lock();
                         if (!alive || !*alive) {
                             timer->stop();
                             timer->deleteLater();
                         }
                     });
    timer->start();
    return Timer(live);
}

double QtMainQueue::now() const {
    return static_cast<double>(clock_.nsecsElapsed()) / 1e9;
}

} // namespace trelvane
