// SPDX-License-Identifier: GPL-3.0-or-later
// The main window over stage doubles: what the bottom bar says and in which order, the controls
// that lock while a sync runs, the sheets that must always answer the ingest chain, and the keys.
#include "Trelvane/ui/BottomBar.hpp"
#include "Trelvane/ui/ConfirmationDialogs.hpp"
#include "Trelvane/ui/DropZone.hpp"
#include "Trelvane/ui/ExportDialog.hpp"
#include "Trelvane/ui/MainTimeline.hpp"
#include "Trelvane/ui/TimelineView.hpp"
#include "UiSupport.hpp"

#include <QAbstractButton>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMimeData>
#include <QTest>
#include <QToolButton>
#include <gtest/gtest.h>

using namespace trelvane;
using namespace trelvane::test;

namespace {

std::string status(const WindowFixture& f) {
    return f.window->bottomBar()->statusLabel()->text().toStdString();
}

bool isReady(const WindowFixture& f) {
    return f.window->vm().state().is(AppState::Kind::ready) && !f.window->vm().isIngesting();
}

} // namespace

TEST(MainWindow, TheStatusLineFollowsItsOrderOfPrecedence) {
    WindowFixture f;
    SyncViewModel& vm = f.window->vm();
    EXPECT_EQ(status(f), "No media loaded");
    EXPECT_TRUE(f.window->dropZone()->isVisible());
    f.window->ingestPaths(f.twoFolders(2));
    EXPECT_FALSE(f.window->dropZone()->isVisible()) << "the tracks show at once";
    ASSERT_TRUE(pumpUntil([&] { return isReady(f); }));
    EXPECT_EQ(status(f), "Ready — press Synchronize");
    EXPECT_FALSE(f.window->exportButton()->isEnabled());

    f.fakes.gateShut = true;
    QTest::mouseClick(f.window->syncButton(), Qt::LeftButton);
    ASSERT_TRUE(vm.state().is(AppState::Kind::syncing));
    EXPECT_TRUE(pumpUntil([&] { return status(f) == "Synchronizing…  0%"; }));
    EXPECT_EQ(f.window->bottomBar()->statusLabel()->styleSheet().toStdString(), "color: #5fe08a;");
    EXPECT_FALSE(f.window->modePicker()->isEnabled()) << "the mode can't change under a running sync";
    EXPECT_EQ(f.window->syncButton()->text(), "Stop");
    // A selection outranks every state.
    vm.toggleClipSelection(vm.sources()[0].clips[0].id);
    EXPECT_EQ(status(f), "1 selected  ·  N → new track  ·  ⌫ delete");
    vm.clearSelection();
    QTest::mouseClick(f.window->syncButton(), Qt::LeftButton); // now the stop button
    EXPECT_EQ(status(f), "Synchronization stopped");
    EXPECT_TRUE(f.window->modePicker()->isEnabled());

    f.fakes.gateShut = false;
    QTest::mouseClick(f.window->syncButton(), Qt::LeftButton);
    ASSERT_TRUE(pumpUntil([&] { return vm.state().is(AppState::Kind::synced); }));
    EXPECT_EQ(status(f), "4 synced");
    EXPECT_FALSE(f.window->bottomBar()->warningIcon()->isVisibleTo(f.window->bottomBar()));
    EXPECT_TRUE(f.window->exportButton()->isEnabled());

    // A refusal is told with the warning sign.
    vm.deleteSelected();
    vm.selectTrack(vm.sources()[1].id);
    vm.deleteSelected();
    vm.synchronize();
    EXPECT_EQ(status(f), "Need at least 2 extracted tracks");
    EXPECT_TRUE(f.window->bottomBar()->warningIcon()->isVisibleTo(f.window->bottomBar()));
}

TEST(MainWindow, ASheetClosedByEscapeStillAnswersTheChain) {
    WindowFixture f;
    CameraGroupProposal proposal;
    proposal.trackNames = {"CamA", "Zoom"};
    proposal.clipCount = 4;
    proposal.filenamePrefix = "take";
    proposal.sequenceHint = "1–2 → 1–2";
    f.fakes.cameraProposals = {proposal};
    f.window->ingestPaths(f.twoFolders(2));
    ASSERT_TRUE(pumpUntil([&] { return f.window->currentSheet() != nullptr; }));
    auto* sheet = dynamic_cast<CameraGroupConfirmationView*>(f.window->currentSheet());
    ASSERT_NE(sheet, nullptr);
    EXPECT_EQ(sheet->windowTitle(), "One camera across folders?");
    ASSERT_EQ(sheet->checks().size(), 1u);
    EXPECT_EQ(sheet->checks()[0]->text(), "CamA  →  Zoom");
    EXPECT_TRUE(sheet->checks()[0]->isChecked()) << "check marks start on";
    EXPECT_TRUE(f.window->vm().isIngesting());

    QTest::keyClick(sheet, Qt::Key_Escape);
    EXPECT_TRUE(pumpUntil([&] { return isReady(f); })) << "the chain went on";
    EXPECT_FALSE(f.window->vm().pendingCameraGroups());
    EXPECT_EQ(f.window->currentSheet(), nullptr);
}

TEST(MainWindow, KeysZoomSelectAndEditTheTimeline) {
    WindowFixture f;
    SyncViewModel& vm = f.window->vm();
    TimelineViewState& view = f.window->viewState();
    // A drop: the whole window takes it.
    QMimeData mime;
    QList<QUrl> urls;
    for (const QString& folder : f.twoFolders(3))
        urls << QUrl::fromLocalFile(folder);
    mime.setUrls(urls);
    QDragEnterEvent enter(QPoint(400, 300), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(f.window.get(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(400, 300), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(f.window.get(), &drop);
    EXPECT_TRUE(drop.isAccepted());
    ASSERT_TRUE(pumpUntil([&] { return isReady(f); }));
    ASSERT_EQ(vm.sources().size(), 2u);

    QWidget* timeline = f.window->timeline()->timelineView()->viewport();
    QTest::keyClick(timeline, Qt::Key_Plus);
    EXPECT_DOUBLE_EQ(view.zoom().zoomMultiplier, 1.6);
    QTest::keyClick(timeline, Qt::Key_Equal);
    QTest::keyClick(timeline, Qt::Key_Minus);
    EXPECT_DOUBLE_EQ(view.zoom().zoomMultiplier, 1.6);
    QTest::keyClick(timeline, Qt::Key_0);
    EXPECT_DOUBLE_EQ(view.zoom().zoomMultiplier, 1);

    QTest::keyClick(timeline, Qt::Key_N);
    EXPECT_EQ(vm.sources().size(), 2u) << "without a selection N passes on";
    f.window->timeline()->refreshNow();
    // Select the second clip of the first track by clicking it, then move it to a track of its own.
    const auto* frames = &f.window->timeline()->timelineView()->clipFrames();
    ASSERT_GE(frames->size(), 2u);
    const auto frame = (*frames)[1].frame;
    QTest::mouseClick(timeline, Qt::LeftButton, {},
                      f.window->timeline()->timelineView()->mapFromScene(
                          QPointF(frame.x + frame.width / 2, frame.y + frame.height / 2)));
    ASSERT_EQ(vm.selectedClipIDs().size(), 1u);
    QTest::keyClick(timeline, Qt::Key_N);
    EXPECT_EQ(vm.sources().size(), 3u);
    vm.selectTrack(vm.sources()[0].id);
    const int before = vm.totalClipCount();
    const auto selected = static_cast<int>(vm.selectedClipIDs().size());
    QTest::keyClick(timeline, Qt::Key_Backspace);
    EXPECT_EQ(vm.totalClipCount(), before - selected);

    LogCapture log;
    QTest::keyClick(timeline, Qt::Key_D, Qt::AltModifier);
    EXPECT_TRUE(view.debugSyncEnabled());
    QTest::keyClick(timeline, Qt::Key_D, Qt::AltModifier);
    EXPECT_FALSE(view.debugSyncEnabled());
    EXPECT_TRUE(log.contains("[Diag] Debug sync ON ✓"));
    EXPECT_TRUE(log.contains("[Diag] Debug sync OFF"));
}

// The summary says how far frames move the sound only while an FCP7 target is picked, at the rate picked.
TEST(ExportDialog, TheSummaryFollowsTheTargetAndRate) {
    ExportSummary summary;
    summary.trackCount = 2;
    summary.clipCount = 3;
    summary.soundOffsets = {0.0193, 1.007, 2.0};
    ExportOptions defaults;
    defaults.fps = 25;
    ExportDialog dialog({25.0f}, summary, defaults, nullptr);
    const auto text = [&] { return dialog.summaryLabel()->text().toStdString(); };
    EXPECT_EQ(text(),
              "2 tracks  ·  3 clips  ·  00:00:00\naudio snapped to frames: up to 19.3 ms (mean 8.8 ms)");
    dialog.targets()->button(1)->click(); // Final Cut Pro
    EXPECT_EQ(text(), "2 tracks  ·  3 clips  ·  00:00:00");
    dialog.targets()->button(2)->click();    // Resolve
    dialog.ratePicker()->setCurrentIndex(1); // 50: 19.3 ms -> 0.7 ms, 1.007 s -> 7 ms
    EXPECT_EQ(text(),
              "2 tracks  ·  3 clips  ·  00:00:00\naudio snapped to frames: up to 7.0 ms (mean 2.6 ms)");
}
