// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the window's tests share: pumping the event loop until something holds, a window over stage
// doubles with its own settings, and a small session made by hand.

#include "TestSupport.hpp"
#include "Trelvane/session/Settings.hpp"
#include "Trelvane/ui/MainWindow.hpp"
#include "Trelvane/ui/QtMainQueue.hpp"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>

namespace trelvane::test {

// Runs the event loop until `done` holds or `seconds` pass; whether it held.
inline bool pumpUntil(const std::function<bool()>& done, double seconds = 20) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (static_cast<double>(clock.elapsed()) > seconds * 1000) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(1);
    }
    return true;
}

// Stages that stand in for the engine: metadata gives every clip 10 s, extraction a flat
// envelope and a preview, one camera-group proposal comes once, and the sync places clip k of
// track i at 100 i + 12 k, waiting while the gate is shut.
struct FakeStages {
    std::atomic<bool> gateShut{false};
    std::vector<CameraGroupProposal> cameraProposals;

    SessionStages stages() {
        SessionStages s;
        s.loadMetadata = [](Sources src, SessionStages::ClipUpdated, std::stop_token) {
            for (auto& t : src)
                for (auto& c : t.clips)
                    if (c.duration == 0) c.duration = 10;
            return src;
        };
        s.detectCameraGroups = [this](const Sources&) { return std::exchange(cameraProposals, {}); };
        s.applyCameraGroups = [](Sources src, const auto&, const std::set<Uuid>&) { return src; };
        s.extractClip = [](const Url&, int, double expected, const ProgressFn&, std::stop_token) {
            ExtractPayload p;
            p.duration = expected > 0 ? expected : 10;
            p.envelope = std::vector<float>(10, 0.1f);
            p.preview = std::vector<float>(10, 0.5f);
            return ExtractOutcome(p);
        };
        s.synchronise = [this](Sources src, ProgressFn progress, SessionStages::SyncPlace,
                               std::stop_token stop) {
            while (gateShut && !stop.stop_requested())
                QThread::msleep(2);
            progress({0.5, {}});
            for (std::size_t i = 0; i < src.size(); ++i)
                for (std::size_t k = 0; k < src[i].clips.size(); ++k) {
                    src[i].clips[k].startOffset =
                        100.0 * static_cast<double>(i) + 12.0 * static_cast<double>(k);
                    src[i].clips[k].syncStatus = SyncStatus::synced;
                }
            return src;
        };
        return s;
    }
};

// A window over the doubles, with settings of its own in a temporary folder.
struct WindowFixture {
    TempDir home;
    Settings settings{home / "settings.json"};
    QtMainQueue queue;
    FakeStages fakes;
    std::unique_ptr<MainWindow> window;

    WindowFixture() {
        settings.setBool(Settings::kAutoCloseGapsKey, false);
        window = std::make_unique<MainWindow>(queue, settings, fakes.stages());
        window->resize(1200, 700);
        window->show();
    }
    ~WindowFixture() { window.reset(); }

    // Two folders of `clips` empty WAV files each, as a drop.
    QStringList twoFolders(int clips) const {
        QStringList folders;
        for (const char* name : {"CamA", "Zoom"}) {
            for (int k = 0; k < clips; ++k)
                home.file(std::string(name) + "/take" + std::to_string(k + 1) + ".wav", "");
            folders << QString::fromStdString((home / name).string());
        }
        return folders;
    }
};

} // namespace trelvane::test
