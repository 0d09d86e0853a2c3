// SPDX-License-Identifier: GPL-3.0-or-later
// The window as an editor uses it, over the real engine: the demo shoot dropped on it, its proposals
// answered, synchronised, checked in the bottom bar, and exported to an FCPXML that validates.
// With TRELVANE_SCREENSHOTS_DIR set it also saves the window at its main moments as PNG files.
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/ui/BottomBar.hpp"
#include "Trelvane/ui/ConfirmationDialogs.hpp"
#include "Trelvane/ui/ExportDialog.hpp"
#include "Trelvane/ui/MainTimeline.hpp"
#include "Trelvane/ui/TimelineView.hpp"
#include "UiSupport.hpp"
#include "app/export/XmlCheck.hpp"

#include <QAbstractButton>
#include <QButtonGroup>
#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QPainter>
#include <QPushButton>
#include <QTest>
#include <QToolButton>
#include <gtest/gtest.h>
#include <regex>

using namespace trelvane;
using namespace trelvane::test;

namespace {

// Saves the window (with the sheet on show drawn over it) when screenshots were asked for.
void snapshot(MainWindow& window, const char* name) {
    const char* dir = std::getenv("TRELVANE_SCREENSHOTS_DIR");
    if (!dir || !*dir) return;
    QPixmap shot = window.grab();
    if (QDialog* sheet = window.currentSheet()) {
        QPainter painter(&shot);
        const QPixmap over = sheet->grab();
        painter.fillRect(shot.rect(), QColor(0, 0, 0, 90));
        painter.drawPixmap((shot.width() - over.width()) / 2, 80, over);
    }
    std::filesystem::create_directories(dir);
    EXPECT_TRUE(shot.save(QString::fromStdString((std::filesystem::path(dir) / name).string())));
}

} // namespace

TEST(AppEndToEnd, TheDemoShootIsDroppedSyncedAndExportedFromTheWindow) {
    const std::filesystem::path root = TRELVANE_SOURCE_DIR;
    ASSERT_EQ(
        std::system(("bash " + quoted((root / "scripts/make-demo.sh").string()) + " >/dev/null").c_str()), 0);
    const auto dtd = fcpxmlDtd();
    TRELVANE_REQUIRE_FCPXML_DTD(dtd)

    TempDir home;
    ScopedEnv cache("XDG_CACHE_HOME", (home / "cache").string());
    Settings settings(home / "settings.json");
    QtMainQueue queue;
    MainWindow window(queue, settings, productStages());
    window.resize(1360, 820);
    window.show();
    snapshot(window, "01-empty.png");

    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(QString::fromStdString((root / "demo/shoot").string()))});
    QDragEnterEvent enter(QPoint(600, 400), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&window, &enter);
    QDropEvent drop(QPointF(600, 400), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&window, &drop);
    ASSERT_TRUE(drop.isAccepted());

    // Every sheet is answered as an editor who agrees with the proposals would.
    SyncViewModel& vm = window.vm();
    std::vector<std::string> titles;
    for (;;) {
        ASSERT_TRUE(pumpUntil(
            [&] {
                return window.currentSheet() || (vm.state().is(AppState::Kind::ready) && !vm.isIngesting());
            },
            600));
        QDialog* sheet = window.currentSheet();
        if (!sheet) break;
        titles.push_back(sheet->windowTitle().toStdString());
        if (auto* proposals = dynamic_cast<ProposalSheet*>(sheet)) {
            if (titles.size() == 1) snapshot(window, "02-proposal.png");
            proposals->continueButton()->click();
        } else {
            sheet->reject();
        }
        pumpUntil([&] { return window.currentSheet() != sheet; });
    }
    ASSERT_FALSE(titles.empty());
    EXPECT_EQ(titles.front(), "One camera across folders?");

    QTest::mouseClick(window.syncButton(), Qt::LeftButton);
    ASSERT_TRUE(pumpUntil([&] { return vm.state().is(AppState::Kind::synced); }, 600));
    const std::string status = window.bottomBar()->statusLabel()->text().toStdString();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(status, m, std::regex("^(\\d+) synced"))) << status;
    EXPECT_EQ(std::stoi(m[1]), vm.syncedCount());
    EXPECT_GE(vm.syncedCount(), vm.totalClipCount() / 2) << status;

    // Let the glide land, then select a track's clips for the picture.
    pumpUntil([&] { return !window.viewState().liveAnimationRunning(); }, 10);
    window.timeline()->refreshNow();
    EXPECT_FALSE(window.timeline()->timelineView()->isAnimatingOffsets());
    if (std::getenv("TRELVANE_SCREENSHOTS_DIR")) {
        vm.selectTrack(vm.sources()[0].id);
        QApplication::processEvents();
        snapshot(window, "03-synced.png");
        vm.clearSelection();
    }

    QTest::mouseClick(window.exportButton(), Qt::LeftButton);
    ASSERT_TRUE(pumpUntil([&] { return dynamic_cast<ExportDialog*>(window.currentSheet()) != nullptr; }));
    auto* dialog = dynamic_cast<ExportDialog*>(window.currentSheet());
    EXPECT_EQ(dialog->windowTitle(), "Export timeline");
    dialog->targets()->button(1)->click(); // Final Cut Pro
    dialog->accept();
    ASSERT_TRUE(pumpUntil([&] { return dynamic_cast<QFileDialog*>(window.currentSheet()) != nullptr; }));
    auto* save = dynamic_cast<QFileDialog*>(window.currentSheet());
    EXPECT_EQ(save->windowTitle(), "Export FCPXML for Final Cut Pro");
    EXPECT_EQ(save->selectedFiles().value(0).section('/', -1), "shoot_tv_fcp.fcpxml");
    const auto out = home / "cut";
    save->selectFile(QString::fromStdString(out.string()));
    QMetaObject::invokeMethod(save, "accept"); // as the Save button does
    const auto written = home / "cut.fcpxml";
    // The notice of the sync may still be on show; the export's replaces it.
    EXPECT_TRUE(pumpUntil(
        [&] {
            return window.noticeLabel()->isVisible() &&
                   window.noticeLabel()->text() == "Export finished\ncut.fcpxml saved.";
        },
        60))
        << window.noticeLabel()->text().toStdString();
    EXPECT_TRUE(xmllintAccepts(written, dtd.string()));
}
