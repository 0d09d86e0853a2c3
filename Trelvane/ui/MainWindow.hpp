// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The one main window, a thin observer of the session controller: the action cluster and the mode
// picker on top, the sidebar and timeline (or the drop zone while the session is empty), the bottom
// bar, the menus and the keys. Every control calls one controller operation; the sheets that the
// controller asks for (file choice, grouping proposals, format advisory, stack-mode offer, export)
// are shown one at a time, in that order, and each answers the controller however it is closed.
// The whole window takes dropped files and folders at any time.
//
// Lifecycle: GUI thread only. It makes the controller, the view state and the audio player and
// keeps them for its life; the queue and the settings outlive it. It installs the notice presenter and the
// key monitor while it exists.

#include "Trelvane/session/SyncViewModel.hpp"
#include "Trelvane/session/TimelineViewState.hpp"

#include <QIcon>
#include <QMainWindow>
#include <QPointer>

#include <functional>
#include <map>
#include <memory>

class QAction;
class QActionGroup;
class QComboBox;
class QLabel;
class QStackedWidget;
class QToolButton;

namespace trelvane {

class AudioPlayer;
class BottomBar;
class DropZone;
class MainTimeline;
class PluginsView;

class MainWindow : public QMainWindow {
  public:
    // What the menus post and the window carries out.
    enum class Command {
        addMedia,
        synchronize,
        exportXML,
        selectAll,
        cleanProject,
        closeGaps,
        showPlugins,
        syncModeChanged
    };
    // "tv.addMedia", "tv.synchronize", …
    static const char* literal(Command command);

    MainWindow(MainQueue& queue, Settings& settings, SessionStages stages, QWidget* parent = nullptr);
    ~MainWindow() override;

    // As a drop of these paths would.
    void ingestPaths(const QStringList& paths);
    void perform(Command command);

    SyncViewModel& vm() const { return *vm_; }
    TimelineViewState& viewState() const { return *view_; }
    AudioPlayer& player() const { return *player_; }
    MainTimeline* timeline() const { return timeline_; }
    BottomBar* bottomBar() const { return bottomBar_; }
    DropZone* dropZone() const { return dropZone_; }
    QComboBox* modePicker() const { return modePicker_; }
    QToolButton* syncButton() const { return syncButton_; }
    QToolButton* exportButton() const { return exportButton_; }
    // The menu entry with this text, or none.
    QAction* menuAction(const QString& text) const;
    // The sheet on show, if any.
    QDialog* currentSheet() const { return sheet_; }
    // The last notice shown in the window, and whether it is still on show.
    QLabel* noticeLabel() const { return notice_; }

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

  private:
    void buildActionCluster();
    void buildMenus();
    void refresh(Published what);
    void refreshControls();
    void setSyncMode(SyncMode mode);
    void presentNextSheet();
    void showSheet(QDialog* sheet);
    void presentStackModeOffer();
    void presentFileChooser();
    void presentExport();
    void presentExportNotice();
    // A question whose yes changes something: Cancel is the default and Escape's answer.
    void confirm(const QString& title, const QString& text, const QString& action,
                 std::function<void()> onConfirm);
    void confirmCleanProject();
    void confirmClearCache();
    void checkForUpdates();
    void showNotice(const QString& title, const QString& body);
    bool handleKey(QKeyEvent* event);

    Settings& settings_;
    std::shared_ptr<SyncViewModel> vm_;
    std::shared_ptr<TimelineViewState> view_;
    std::unique_ptr<AudioPlayer> player_;
    std::shared_ptr<void> observation_, viewObservation_, playerObservation_;

    QStackedWidget* stack_;
    DropZone* dropZone_;
    MainTimeline* timeline_;
    BottomBar* bottomBar_;
    QComboBox* modePicker_ = nullptr;
    QToolButton* syncButton_ = nullptr;
    QToolButton* exportButton_ = nullptr;
    std::map<SyncMode, QAction*> modeActions_;
    QAction* autoCloseGaps_ = nullptr;
    QAction* diagnostics_ = nullptr;
    QAction* closeGaps_ = nullptr;
    QAction* exportAction_ = nullptr;
    QIcon syncIcon_, stopIcon_;
    QLabel* notice_;
    QPointer<QDialog> sheet_;
    PluginsView* plugins_ = nullptr;
    bool sheetQueued_ = false;
};

} // namespace trelvane
