// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/MainWindow.hpp"

#include "Trelvane/session/AppLog.hpp"
#include "Trelvane/session/Notifier.hpp"
#include "Trelvane/ui/AudioPlayer.hpp"
#include "Trelvane/ui/BottomBar.hpp"
#include "Trelvane/ui/ConfirmationDialogs.hpp"
#include "Trelvane/ui/DropZone.hpp"
#include "Trelvane/ui/ExportDialog.hpp"
#include "Trelvane/ui/MainTimeline.hpp"
#include "Trelvane/ui/PluginsView.hpp"
#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneVersion.hpp"

#include <QAbstractItemView>
#include <QActionGroup>
#include <QApplication>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPainter>
#include <QPushButton>
#include <QStackedWidget>
#include <QStyle>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

// The icon is compiled into this library; a static library's resources are registered by hand.
static void registerResources() {
    Q_INIT_RESOURCE(trelvane);
}

namespace trelvane {

namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QIcon themed(const char* name, QStyle::StandardPixmap fallback) {
    return QIcon::fromTheme(name, qApp->style()->standardIcon(fallback));
}

// The system's chooser lets one pick files or folders, not both; this one takes whatever is
// selected, folders included, when the user confirms.
class MediaChooser : public QFileDialog {
  public:
    MediaChooser(QWidget* parent, const QString& title) : QFileDialog(parent, title) {
        setOption(QFileDialog::DontUseNativeDialog, true);
        setFileMode(QFileDialog::ExistingFiles);
        setAcceptMode(QFileDialog::AcceptOpen);
        setLabelText(QFileDialog::Accept, "Add");
        for (auto* view : findChildren<QAbstractItemView*>())
            view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    }
    const QStringList& chosen() const { return chosen_; }

    void accept() override {
        chosen_ = selectedFiles();
        if (chosen_.isEmpty()) return;
        QDialog::accept();
    }

  private:
    QStringList chosen_;
};

// The mode picker's list: each mode's title, and under it in a quieter line what it is for.
class ModeItemDelegate : public QStyledItemDelegate {
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override {
        QStyleOptionViewItem item = option;
        initStyleOption(&item, index);
        const QString line = index.data(Qt::ToolTipRole).toString();
        item.text.clear();
        item.widget->style()->drawControl(QStyle::CE_ItemViewItem, &item, painter, item.widget);
        const QRect area = option.rect.adjusted(10, 4, -10, -4);
        const bool selected = option.state & QStyle::State_Selected;
        painter->save();
        painter->setPen(option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
        painter->drawText(area, Qt::AlignLeft | Qt::AlignTop, index.data(Qt::DisplayRole).toString());
        QFont small = option.font;
        small.setPointSizeF(small.pointSizeF() * 0.9);
        painter->setFont(small);
        painter->setPen(
            option.palette.color(selected ? QPalette::HighlightedText : QPalette::PlaceholderText));
        painter->drawText(area, Qt::AlignLeft | Qt::AlignBottom, line);
        painter->restore();
    }
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        const QSize one = QStyledItemDelegate::sizeHint(option, index);
        const QFontMetrics metrics(option.font);
        const int width = std::max(metrics.horizontalAdvance(index.data(Qt::DisplayRole).toString()),
                                   metrics.horizontalAdvance(index.data(Qt::ToolTipRole).toString()));
        return {width + 24, 2 * one.height() + 8};
    }
};

std::vector<Url> urlsOf(const QStringList& paths) {
    std::vector<Url> urls;
    for (const QString& p : paths)
        if (!p.isEmpty()) urls.push_back(Url::fromPath(p.toStdString()));
    return urls;
}

struct ModeText {
    SyncMode mode;
    const char* title;
    const char* line;
};
constexpr ModeText kModes[] = {
    {SyncMode::tracks, "Tracks — one device per track", "Several devices recorded the same moment."},
    {SyncMode::stacks, "Stacks — takes over the same music",
     "One shoot, repeated takes over the same playback."},
};

} // namespace

const char* MainWindow::literal(Command command) {
    switch (command) {
    case Command::addMedia:
        return "tv.addMedia";
    case Command::synchronize:
        return "tv.synchronize";
    case Command::exportXML:
        return "tv.export";
    case Command::selectAll:
        return "tv.selectAll";
    case Command::cleanProject:
        return "tv.cleanProject";
    case Command::closeGaps:
        return "tv.closeGaps";
    case Command::showPlugins:
        return "tv.showPlugins";
    case Command::syncModeChanged:
        return "tv.syncModeChanged";
    }
    return "";
}

MainWindow::MainWindow(MainQueue& queue, Settings& settings, SessionStages stages, QWidget* parent)
    : QMainWindow(parent), settings_(settings),
      vm_(SyncViewModel::create(queue, settings, std::move(stages))),
      view_(TimelineViewState::create(queue, vm_)) {
    registerResources();
    setWindowTitle("Trelvane");
    setWindowIcon(QIcon(":/trelvane.svg"));
    resize(1280, 800);
    setAcceptDrops(true);

    dropZone_ = new DropZone;
    timeline_ = new MainTimeline(vm_, view_);
    // The window takes every drop; the timeline's own drag handling would swallow it.
    timeline_->setAcceptDrops(false);
    for (auto* child : timeline_->findChildren<QWidget*>())
        child->setAcceptDrops(false);
    stack_ = new QStackedWidget;
    stack_->addWidget(dropZone_);
    stack_->addWidget(timeline_);
    bottomBar_ = new BottomBar(vm_, view_);

    auto* central = new QWidget;
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(stack_, 1);
    layout->addWidget(bottomBar_);
    setCentralWidget(central);

    notice_ = new QLabel(central);
    notice_->setStyleSheet("background: rgba(30, 32, 36, 235); color: #f2f3f5; border: 1px solid #3a3d44;"
                           "border-radius: 8px; padding: 10px 14px;");
    notice_->setTextFormat(Qt::PlainText);
    notice_->hide();

    buildActionCluster();
    buildMenus();

    player_ = std::make_unique<AudioPlayer>(queue);
    // The playhead follows the sound, unless the user holds it.
    playerObservation_ = player_->observe([this](AudioPlayer::Change what) {
        if (what == AudioPlayer::Change::currentTime && player_->isPlaying() && !view_->isScrubbing())
            view_->setPlayheadTime(player_->currentTime());
    });
    // A scrub while playing plays on from where it was let go.
    viewObservation_ = view_->observe([this](TimelineViewState::Change what) {
        if (what == TimelineViewState::Change::isScrubbing && !view_->isScrubbing() && player_->isPlaying())
            player_->seek(vm_->sources(), view_->playheadTime());
    });
    observation_ = vm_->observe([this](Published what) { refresh(what); });
    qApp->installEventFilter(this);
    // Notices may come from any thread; they are shown from the GUI thread.
    Notifier::setPresenter(
        [guard = QPointer<MainWindow>(this)](const std::string& title, const std::string& body) {
            QMetaObject::invokeMethod(
                qApp,
                [guard, title = QString::fromStdString(title), body = QString::fromStdString(body)] {
                    if (guard) guard->showNotice(title, body);
                },
                Qt::QueuedConnection);
        });
    refreshControls();
}

MainWindow::~MainWindow() {
    player_->stop();
    Notifier::setPresenter({});
    qApp->removeEventFilter(this);
}

void MainWindow::ingestPaths(const QStringList& paths) {
    const auto urls = urlsOf(paths);
    if (!urls.empty()) vm_->ingestURLs(urls);
}

// ---- the action cluster and the menus ------------------------------------------------------------

void MainWindow::buildActionCluster() {
    auto* bar = addToolBar("Actions");
    bar->setMovable(false);
    bar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);

    auto* add = new QToolButton;
    add->setText("Add media");
    add->setIcon(themed("list-add", QStyle::SP_FileDialogNewFolder));
    add->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    connect(add, &QToolButton::clicked, this, [this] { perform(Command::addMedia); });
    bar->addWidget(add);

    syncIcon_ = themed("view-refresh", QStyle::SP_BrowserReload);
    stopIcon_ = themed("media-playback-stop", QStyle::SP_MediaStop);
    syncButton_ = new QToolButton;
    syncButton_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    connect(syncButton_, &QToolButton::clicked, this, [this] {
        if (vm_->state().is(AppState::Kind::syncing))
            vm_->cancelSynchronization();
        else
            perform(Command::synchronize);
    });
    bar->addWidget(syncButton_);

    exportButton_ = new QToolButton;
    exportButton_->setText("Export");
    exportButton_->setIcon(themed("document-send", QStyle::SP_DialogSaveButton));
    exportButton_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    connect(exportButton_, &QToolButton::clicked, this, [this] { perform(Command::exportXML); });
    bar->addWidget(exportButton_);

    auto* spacer = new QWidget;
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    bar->addWidget(spacer);

    modePicker_ = new QComboBox;
    for (const auto& m : kModes) {
        modePicker_->addItem(m.title, static_cast<int>(m.mode));
        modePicker_->setItemData(modePicker_->count() - 1, m.line, Qt::ToolTipRole);
    }
    modePicker_->setItemDelegate(new ModeItemDelegate(modePicker_));
    // The list is as wide as its longest line, wider than the picker itself.
    int widest = 0;
    for (const auto& m : kModes)
        widest = std::max({widest, modePicker_->fontMetrics().horizontalAdvance(m.title),
                           modePicker_->fontMetrics().horizontalAdvance(m.line)});
    modePicker_->view()->setMinimumWidth(widest + 40);
    connect(modePicker_, &QComboBox::activated, this,
            [this](int index) { setSyncMode(static_cast<SyncMode>(modePicker_->itemData(index).toInt())); });
    bar->addWidget(modePicker_);
}

QAction* MainWindow::menuAction(const QString& text) const {
    for (auto* action : menuBar()->findChildren<QAction*>())
        if (action->text() == text) return action;
    return nullptr;
}

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu("File");
    QAction* add = file->addAction("Add Media or Folder…", this, [this] { perform(Command::addMedia); });
    add->setShortcut(QKeySequence::Open);
    file->addAction("Synchronize", this, [this] { perform(Command::synchronize); });
    exportAction_ = file->addAction("Export XML…", this, [this] { perform(Command::exportXML); });
    exportAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
    file->addSeparator();
    QAction* quit = file->addAction("Quit", this, &QWidget::close);
    quit->setShortcut(QKeySequence::Quit);

    QMenu* edit = menuBar()->addMenu("Edit");
    QAction* selectAll = edit->addAction("Select All", this, [this] { perform(Command::selectAll); });
    selectAll->setShortcut(QKeySequence::SelectAll);

    QMenu* timeline = menuBar()->addMenu("Timeline");
    closeGaps_ = timeline->addAction("Close Gaps / Restore", this, [this] { perform(Command::closeGaps); });
    autoCloseGaps_ = timeline->addAction("Close Gaps After Sync");
    autoCloseGaps_->setCheckable(true);
    connect(autoCloseGaps_, &QAction::toggled, this,
            [this](bool on) { settings_.setBool(Settings::kAutoCloseGapsKey, on); });
    timeline->addSeparator();
    timeline->addAction("Clean Project…", this, [this] { perform(Command::cleanProject); });
    timeline->addAction("Clear Envelope Cache…", this, [this] { confirmClearCache(); });

    QMenu* diagnostics = menuBar()->addMenu("Diagnostics");
    diagnostics_ = diagnostics->addAction("Send Anonymous Diagnostics");
    diagnostics_->setCheckable(true);
    connect(diagnostics_, &QAction::toggled, this,
            [this](bool on) { settings_.setBool(Settings::kDiagUploadKey, on); });
    diagnostics->addAction("Send Log to Developer", this, [this] { AppLog::upload("manual", settings_); });

    QMenu* mode = menuBar()->addMenu("Mode");
    QMenu* syncMode = mode->addMenu("Sync Mode");
    auto* group = new QActionGroup(this);
    for (const auto& m : kModes) {
        QAction* action = syncMode->addAction(m.title, this, [this, which = m.mode] { setSyncMode(which); });
        action->setCheckable(true);
        action->setToolTip(m.line);
        group->addAction(action);
        modeActions_[m.mode] = action;
    }
    mode->addAction("Plugins", this, [this] { perform(Command::showPlugins); });

    QMenu* help = menuBar()->addMenu("Help");
    help->addAction("Check for Updates…", this, [this] { checkForUpdates(); });
}

void MainWindow::perform(Command command) {
    switch (command) {
    case Command::addMedia:
        vm_->browseFiles();
        break;
    case Command::synchronize:
        vm_->synchronize();
        break;
    case Command::exportXML:
        vm_->exportXML();
        break;
    case Command::selectAll:
        vm_->selectAllClips();
        break;
    case Command::cleanProject:
        confirmCleanProject();
        break;
    case Command::closeGaps:
        if (vm_->offsetsBeforeCloseGaps())
            vm_->restoreGaps();
        else
            vm_->closeGaps(true);
        break;
    case Command::showPlugins:
        // One window, read again each time it appears.
        if (!plugins_) plugins_ = new PluginsView(settings_, this);
        plugins_->show();
        plugins_->raise();
        break;
    case Command::syncModeChanged:
        vm_->syncModeChanged();
        break;
    }
}

void MainWindow::setSyncMode(SyncMode mode) {
    const auto raw = mode == SyncMode::stacks ? Settings::kSyncModeStacks : Settings::kSyncModeTracks;
    if (settings_.stringValue(Settings::kSyncModeKey) == raw) return;
    settings_.setString(Settings::kSyncModeKey, std::string(raw));
    perform(Command::syncModeChanged);
    refreshControls();
}

// ---- following the controller ---------------------------------------------------------------------

void MainWindow::refresh(Published what) {
    switch (what) {
    case Published::sources:
        // However a track was muted, the sound follows on its next buffer.
        if (player_->isPlaying())
            for (const auto& track : vm_->sources())
                player_->setMuted(track.id, track.isMuted);
        break;
    case Published::pendingCameraGroups:
    case Published::pendingDayRegions:
    case Published::formatAdvisories:
    case Published::pendingStackModeOffer:
    case Published::pendingFileChoice:
    case Published::pendingExport:
    case Published::exportNotice:
        presentNextSheet();
        break;
    default:
        break;
    }
    refreshControls();
}

void MainWindow::refreshControls() {
    const bool syncing = vm_->state().is(AppState::Kind::syncing);
    stack_->setCurrentWidget(vm_->sources().empty() ? static_cast<QWidget*>(dropZone_) : timeline_);
    syncButton_->setText(syncing ? "Stop" : "Synchronize");
    syncButton_->setIcon(syncing ? stopIcon_ : syncIcon_);
    // Export is offered once there is a timeline to export.
    const bool synced = vm_->state().is(AppState::Kind::synced);
    exportButton_->setEnabled(synced);
    exportAction_->setEnabled(synced);
    modePicker_->setEnabled(!syncing);
    const SyncMode mode = settings_.stringValue(Settings::kSyncModeKey) == Settings::kSyncModeStacks
                              ? SyncMode::stacks
                              : SyncMode::tracks;
    modePicker_->setCurrentIndex(modePicker_->findData(static_cast<int>(mode)));
    for (auto& [m, action] : modeActions_) {
        action->setChecked(m == mode);
        action->setEnabled(!syncing);
    }
    const QSignalBlocker blockGaps(autoCloseGaps_), blockDiag(diagnostics_);
    autoCloseGaps_->setChecked(settings_.boolValue(Settings::kAutoCloseGapsKey));
    diagnostics_->setChecked(AppLog::diagnosticsEnabled(settings_));
    closeGaps_->setEnabled(synced);
}

// ---- sheets ---------------------------------------------------------------------------------------

void MainWindow::presentNextSheet() {
    if (sheet_ || sheetQueued_) return;
    if (vm_->pendingCameraGroups()) {
        showSheet(new CameraGroupConfirmationView(vm_, *vm_->pendingCameraGroups(), this));
    } else if (vm_->pendingDayRegions()) {
        showSheet(new DayRegionConfirmationView(vm_, *vm_->pendingDayRegions(), this));
    } else if (!vm_->formatAdvisories().empty()) {
        showSheet(new FormatAdvisoryView(vm_, vm_->formatAdvisories(), this));
    } else if (vm_->pendingStackModeOffer()) {
        presentStackModeOffer();
    } else if (vm_->pendingFileChoice()) {
        presentFileChooser();
    } else if (vm_->pendingExport()) {
        presentExport();
    } else if (vm_->exportNotice()) {
        presentExportNotice();
    }
}

void MainWindow::showSheet(QDialog* sheet) {
    sheet_ = sheet;
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    // The next sheet comes once this one has fully closed, from the event loop: its answer may
    // have published the next question already.
    connect(sheet, &QDialog::finished, this, [this, sheet] {
        // A sheet may open its successor from its own answer; that one stays current.
        if (sheet_ == sheet) sheet_ = nullptr;
        sheetQueued_ = true;
        QTimer::singleShot(0, this, [this] {
            sheetQueued_ = false;
            presentNextSheet();
        });
    });
    sheet->open();
}

void MainWindow::presentStackModeOffer() {
    const StackModeOffer& offer = *vm_->pendingStackModeOffer();
    auto* box = new QMessageBox(QMessageBox::Question, QString::fromStdString(offer.title),
                                QString::fromStdString(offer.text), QMessageBox::NoButton, this);
    QPushButton* keep = box->addButton(QString::fromStdString(offer.keepButton), QMessageBox::RejectRole);
    box->addButton(QString::fromStdString(offer.useButton), QMessageBox::AcceptRole);
    box->setDefaultButton(keep);
    box->setEscapeButton(keep);
    connect(box, &QMessageBox::finished, this, [this, box, keep] {
        const bool useStacks = box->clickedButton() && box->clickedButton() != keep;
        vm_->answerStackModeOffer(useStacks);
        refreshControls();
    });
    showSheet(box);
}

void MainWindow::presentFileChooser() {
    auto* chooser = new MediaChooser(this, QString::fromStdString(vm_->pendingFileChoice()->title));
    connect(chooser, &QDialog::finished, this, [this, chooser](int result) {
        if (result == QDialog::Accepted)
            vm_->chooseFiles(urlsOf(chooser->chosen()));
        else
            vm_->chooseFiles(std::nullopt);
    });
    showSheet(chooser);
}

void MainWindow::presentExport() {
    const ExportPrompt& prompt = *vm_->pendingExport();
    auto* dialog = new ExportDialog(prompt.detectedFrameRates, prompt.summary, prompt.defaults, this);
    connect(dialog, &QDialog::finished, this, [this, dialog](int result) {
        if (result != QDialog::Accepted) {
            vm_->answerExport(std::nullopt);
            return;
        }
        const ExportOptions options = dialog->options();
        // The save panel is the second half of the same question.
        auto* save = new QFileDialog(this, qs(savePanelTitle(options.target)));
        save->setAcceptMode(QFileDialog::AcceptSave);
        save->setFileMode(QFileDialog::AnyFile);
        const QString extension = qs(fileExtension(options.target));
        save->setDefaultSuffix(extension);
        save->setNameFilter(QString("%1 (*.%2)").arg(extension.toUpper(), extension));
        save->selectFile(QString::fromStdString(defaultFileName(vm_->sources(), options.target)));
        connect(save, &QDialog::finished, this, [this, save, options](int answer) {
            const QStringList files = save->selectedFiles();
            if (answer != QDialog::Accepted || files.isEmpty()) {
                vm_->answerExport(std::nullopt);
                return;
            }
            vm_->answerExport(ExportChoice{options, std::filesystem::path(files.front().toStdString())});
        });
        showSheet(save);
    });
    showSheet(dialog);
}

void MainWindow::presentExportNotice() {
    const ExportNotice notice = *vm_->exportNotice();
    vm_->dismissExportNotice();
    if (!notice.failed) return; // a success is told by the notice presenter
    auto* box = new QMessageBox(QMessageBox::Warning, QString::fromStdString(notice.title),
                                QString::fromStdString(notice.body), QMessageBox::Ok, this);
    showSheet(box);
}

void MainWindow::confirm(const QString& title, const QString& text, const QString& action,
                         std::function<void()> onConfirm) {
    auto* box = new QMessageBox(QMessageBox::Warning, title, text, QMessageBox::NoButton, this);
    QPushButton* go = box->addButton(action, QMessageBox::DestructiveRole);
    QPushButton* cancel = box->addButton("Cancel", QMessageBox::RejectRole);
    // Nothing is lost by a stray Return or Escape.
    box->setDefaultButton(cancel);
    box->setEscapeButton(cancel);
    connect(box, &QMessageBox::finished, this, [box, go, onConfirm = std::move(onConfirm)] {
        if (box->clickedButton() == go) onConfirm();
    });
    showSheet(box);
}

void MainWindow::confirmCleanProject() {
    confirm("Clean project?", "Remove all tracks and clips from this session. Files on disk are not changed.",
            "Clean", [this] {
                player_->stop();
                vm_->cleanProject();
            });
}

void MainWindow::confirmClearCache() {
    confirm("Clear Envelope Cache?",
            "The analysis of every file seen before is removed from this computer. The next sync reads those "
            "files again. Your media are not changed.",
            "Clear", [this] {
                const int removed = EnvelopeCache::clearAll();
                showSheet(new QMessageBox(
                    QMessageBox::Information, "Cache Cleared",
                    QString("%1 %2 removed").arg(removed).arg(removed == 1 ? "file" : "files"),
                    QMessageBox::Ok, this));
            });
}

void MainWindow::checkForUpdates() {
    showSheet(
        new QMessageBox(QMessageBox::Information, "Check for Updates",
                        QString("This is Trelvane %1. On this system Trelvane is updated with the package "
                                "or the build it was installed from.")
                            .arg(kVersion),
                        QMessageBox::Ok, this));
}

void MainWindow::showNotice(const QString& title, const QString& body) {
    notice_->setText(title + "\n" + body);
    notice_->adjustSize();
    notice_->move(centralWidget()->width() - notice_->width() - 16,
                  centralWidget()->height() - bottomBar_->height() - notice_->height() - 16);
    notice_->raise();
    notice_->show();
    QTimer::singleShot(4000, notice_, [label = notice_, text = notice_->text()] {
        if (label->text() == text) label->hide();
    });
}

void MainWindow::resizeEvent(QResizeEvent* event) {
    QMainWindow::resizeEvent(event);
    if (notice_->isVisible())
        notice_->move(centralWidget()->width() - notice_->width() - 16,
                      centralWidget()->height() - bottomBar_->height() - notice_->height() - 16);
}

// ---- keys -----------------------------------------------------------------------------------------

bool MainWindow::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress) return QMainWindow::eventFilter(watched, event);
    auto* widget = qobject_cast<QWidget*>(watched);
    // Only keys meant for this window, and never those typed into a field or a sheet.
    if (!widget || widget->window() != this || sheet_ || qobject_cast<QLineEdit*>(widget) ||
        qobject_cast<QComboBox*>(widget))
        return QMainWindow::eventFilter(watched, event);
    return handleKey(static_cast<QKeyEvent*>(event)) || QMainWindow::eventFilter(watched, event);
}

bool MainWindow::handleKey(QKeyEvent* event) {
    const auto modifiers = event->modifiers() & ~(Qt::KeypadModifier | Qt::ShiftModifier);
    if (modifiers == Qt::AltModifier && event->key() == Qt::Key_D) {
        const bool on = !view_->debugSyncEnabled();
        view_->setDebugSyncEnabled(on);
        EngineLog::log(on ? "[Diag] Debug sync ON ✓" : "[Diag] Debug sync OFF");
        return true;
    }
    if (modifiers != Qt::NoModifier) return false;
    switch (event->key()) {
    case Qt::Key_Plus:
    case Qt::Key_Equal:
        view_->zoomIn();
        return true;
    case Qt::Key_Minus:
        view_->zoomOut();
        return true;
    case Qt::Key_0:
        view_->zoomReset();
        return true;
    case Qt::Key_Space:
        player_->togglePlayback(vm_->sources(), view_->playbackTime());
        return true;
    case Qt::Key_N:
        if (vm_->selectedClipIDs().empty()) return false;
        vm_->moveSelectedToNewTrack();
        return true;
    case Qt::Key_Delete:
    case Qt::Key_Backspace:
        vm_->deleteSelected();
        return true;
    default:
        return false;
    }
}

// ---- drops ----------------------------------------------------------------------------------------

namespace {

QStringList localPaths(const QMimeData* mime) {
    QStringList paths;
    if (!mime || !mime->hasUrls()) return paths;
    for (const QUrl& url : mime->urls())
        if (url.isLocalFile()) paths << url.toLocalFile();
    return paths;
}

} // namespace

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (localPaths(event->mimeData()).isEmpty()) return;
    dropZone_->setDragTarget(true);
    event->acceptProposedAction();
}

void MainWindow::dragMoveEvent(QDragMoveEvent* event) {
    if (!localPaths(event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void MainWindow::dragLeaveEvent(QDragLeaveEvent* event) {
    dropZone_->setDragTarget(false);
    QMainWindow::dragLeaveEvent(event);
}

void MainWindow::dropEvent(QDropEvent* event) {
    dropZone_->setDragTarget(false);
    const QStringList paths = localPaths(event->mimeData());
    if (paths.isEmpty()) return;
    event->acceptProposedAction();
    ingestPaths(paths);
}

} // namespace trelvane
