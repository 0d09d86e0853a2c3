// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/Notifier.hpp"

#include "TrelvaneEngine/support/EngineLog.hpp"

#include <mutex>

namespace trelvane::Notifier {

namespace {

std::mutex& presenterMutex() {
    static std::mutex m;
    return m;
}

// Process-wide: a process has one desktop (or terminal) to tell, installed once by its shell; the
// controller and the command line call it, the engine and the exporters never do.
Presenter& currentPresenter() {
    static Presenter presenter;
    return presenter;
}

} // namespace

void setPresenter(Presenter presenter) {
    std::lock_guard lock(presenterMutex());
    currentPresenter() = std::move(presenter);
}

void stageDone(const std::string& title, const std::string& body) {
    Presenter presenter;
    {
        std::lock_guard lock(presenterMutex());
        presenter = currentPresenter();
    }
    // Called outside the lock, so that a presenter may itself replace the presenter.
    if (presenter) {
        presenter(title, body);
        return;
    }
    EngineLog::logf("[Notify] %s — %s", title, body);
}

} // namespace trelvane::Notifier
