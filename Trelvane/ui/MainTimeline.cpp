// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/MainTimeline.hpp"

#include "Trelvane/ui/Labels.hpp"
#include "Trelvane/ui/TimelineView.hpp"

#include <QApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QSplitter>
#include <QStyle>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWheelEvent>

namespace trelvane {

namespace G = TimelineGeometry;

namespace {

// The divider between sidebar and timeline: while it is dragged the timeline keeps its scale.
class DividerHandle : public QSplitterHandle {
  public:
    DividerHandle(Qt::Orientation orientation, QSplitter* parent, std::function<void(bool)> dragging)
        : QSplitterHandle(orientation, parent), dragging_(std::move(dragging)) {}

  protected:
    void mousePressEvent(QMouseEvent* event) override {
        dragging_(true);
        QSplitterHandle::mousePressEvent(event);
    }
    void mouseReleaseEvent(QMouseEvent* event) override {
        QSplitterHandle::mouseReleaseEvent(event);
        dragging_(false);
    }

  private:
    std::function<void(bool)> dragging_;
};

class Divider : public QSplitter {
  public:
    Divider(std::function<void(bool)> dragging, QWidget* parent)
        : QSplitter(Qt::Horizontal, parent), dragging_(std::move(dragging)) {}

  protected:
    QSplitterHandle* createHandle() override { return new DividerHandle(orientation(), this, dragging_); }

  private:
    std::function<void(bool)> dragging_;
};

QIcon muteIcon(bool muted) {
    if (muted)
        return QIcon::fromTheme("audio-volume-muted",
                                qApp->style()->standardIcon(QStyle::SP_MediaVolumeMuted));
    return QIcon::fromTheme("audio-volume-high", qApp->style()->standardIcon(QStyle::SP_MediaVolume));
}

} // namespace

// ---- sidebar rows -------------------------------------------------------------------------------

SidebarRow::SidebarRow(std::function<void()> onSelect, std::function<void()> onToggleMute, QWidget* parent)
    : QFrame(parent), onSelect_(std::move(onSelect)), name_(new QLabel(this)), subtitle_(new QLabel(this)),
      mute_(new QToolButton(this)) {
    setFixedHeight(static_cast<int>(G::kRowPitch));
    setObjectName("SidebarRow");
    setStyleSheet("#SidebarRow { border-bottom: 1px solid #2e3036; }");
    Labels::makeBold(name_);
    subtitle_->setStyleSheet("color: #8d929b;");
    name_->setTextInteractionFlags(Qt::NoTextInteraction);
    mute_->setAutoRaise(true);
    mute_->setToolTip("Mute");
    connect(mute_, &QToolButton::clicked, this, std::move(onToggleMute));

    auto* text = new QVBoxLayout;
    text->setSpacing(2);
    text->addStretch();
    text->addWidget(name_);
    text->addWidget(subtitle_);
    text->addStretch();
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 0, 8, 1);
    layout->addLayout(text, 1);
    layout->addWidget(mute_);
}

void SidebarRow::display(const TrackSource& track) {
    name_->setText(QString::fromStdString(track.name));
    subtitle_->setText(QString::fromStdString(track.subtitle()));
    mute_->setIcon(muteIcon(track.isMuted));
    mute_->setChecked(track.isMuted);
}

void SidebarRow::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && onSelect_) onSelect_();
    QFrame::mousePressEvent(event);
}

// ---- the bridge ---------------------------------------------------------------------------------

MainTimeline::MainTimeline(std::shared_ptr<SyncViewModel> vm, std::shared_ptr<TimelineViewState> view,
                           QWidget* parent)
    : QWidget(parent), vm_(std::move(vm)), view_(std::move(view)) {
    splitter_ = new Divider(
        [this](bool dragging) { dragging ? view_->beginSidebarDrag() : view_->endSidebarDrag(); }, this);
    splitter_->setChildrenCollapsible(false);
    splitter_->setHandleWidth(3);

    auto* side = new QWidget;
    auto* sideLayout = new QVBoxLayout(side);
    sideLayout->setContentsMargins(0, 0, 0, 0);
    sideLayout->setSpacing(0);
    auto* header = new QWidget;
    header->setFixedHeight(static_cast<int>(G::kRulerHeight));
    header->setObjectName("SidebarHeader");
    header->setStyleSheet("#SidebarHeader { background: #26282d; }");
    sideLayout->addWidget(header);
    sidebar_ = new QScrollArea;
    sidebar_->setFrameShape(QFrame::NoFrame);
    sidebar_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    sidebar_->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    sidebar_->setWidgetResizable(true);
    auto* rowsHost = new QWidget;
    rowsLayout_ = new QVBoxLayout(rowsHost);
    rowsLayout_->setContentsMargins(0, 0, 0, 0);
    rowsLayout_->setSpacing(0);
    rowsLayout_->addStretch();
    sidebar_->setWidget(rowsHost);
    sidebar_->viewport()->installEventFilter(this);
    sideLayout->addWidget(sidebar_);
    side->setMinimumWidth(160);

    timeline_ =
        new TimelineView({.onSeek =
                              [this](double t) {
                                  view_->setScrubbing(true);
                                  view_->setPlayheadTime(t);
                              },
                          .onScrubEnd =
                              [this](double t) {
                                  view_->setPlayheadTime(t);
                                  view_->setScrubbing(false);
                              },
                          .onSelect = [this](const Uuid& id, double) { vm_->toggleClipSelection(id); },
                          .onClearSelection = [this] { vm_->clearSelection(); }});
    timeline_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    timeline_->viewport()->installEventFilter(this);
    // The rows of both sides stand at the same height.
    connect(timeline_->verticalScrollBar(), &QScrollBar::valueChanged, sidebar_->verticalScrollBar(),
            &QScrollBar::setValue);

    splitter_->addWidget(side);
    splitter_->addWidget(timeline_);
    splitter_->setStretchFactor(1, 1);
    splitter_->setSizes({static_cast<int>(view_->zoom().sidebarWidth), 800});
    connect(splitter_, &QSplitter::splitterMoved, this,
            [this](int pos, int) { view_->setSidebarWidth(pos); });

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(splitter_);

    vmObservation_ = vm_->observe([this](Published what) {
        if (what == Published::sources) markDirty(sourcesDirty);
        if (what == Published::selectedClipIDs) markDirty(selectionDirty);
    });
    viewObservation_ = view_->observe([this](TimelineViewState::Change what) {
        using C = TimelineViewState::Change;
        if (what == C::displayedOffsets || what == C::zoom) markDirty(offsetsDirty);
        if (what == C::playheadTime) markDirty(playheadDirty);
        if (what == C::debugSyncEnabled) {
            everRefreshed_ = false; // every label changes
            markDirty(sourcesDirty);
        }
    });
    markDirty(sourcesDirty);
}

MainTimeline::~MainTimeline() = default;

void MainTimeline::markDirty(unsigned what) {
    dirty_ |= what;
    if (refreshQueued_) return;
    refreshQueued_ = true;
    QTimer::singleShot(0, this, [this] { refresh(); });
}

void MainTimeline::refreshNow() {
    refresh();
}

void MainTimeline::refresh() {
    refreshQueued_ = false;
    const unsigned dirty = std::exchange(dirty_, 0u);
    timeline_->setDocument({&vm_->sources(), &view_->displayedOffsets(), &vm_->selectedClipIDs(),
                            view_->pxPerSec(), vm_->totalDuration(), view_->playheadTime(),
                            view_->debugSyncEnabled()});
    bool rebuilt = false;
    if (dirty & sourcesDirty) {
        const auto signature = sourcesSignature();
        if (signature != lastSignature_ || !everRefreshed_) {
            lastSignature_ = signature;
            everRefreshed_ = true;
            timeline_->rebuildAll();
            rebuildSidebar();
            rebuilt = true;
        }
    }
    if (!rebuilt) {
        // Lengths and offsets move clips without changing the set.
        if (dirty & (sourcesDirty | offsetsDirty)) timeline_->repositionClips();
        if (dirty & selectionDirty) timeline_->restyleSelection();
        if (dirty & playheadDirty) timeline_->updatePlayhead();
    }
}

std::uint64_t MainTimeline::sourcesSignature() const {
    G::Signature signature;
    for (const auto& track : vm_->sources()) {
        signature.add(track.id).addText(track.name).add(track.isMuted).add(track.clips.size());
        for (const auto& clip : track.clips)
            signature.add(clip.id)
                .addText(clip.url.path())
                .add(clip.syncStatus)
                .add(clip.audioUsability)
                .add(clip.waveformPreview.size())
                .add(clip.startTimecode.has_value());
    }
    return signature.value;
}

void MainTimeline::rebuildSidebar() {
    const auto& sources = vm_->sources();
    while (rows_.size() > sources.size()) {
        delete rows_.back();
        rows_.pop_back();
    }
    while (rows_.size() < sources.size()) {
        const std::size_t index = rows_.size();
        auto trackID = [this, index] {
            return index < vm_->sources().size() ? vm_->sources()[index].id : Uuid{};
        };
        auto* row = new SidebarRow([this, trackID] { vm_->selectTrack(trackID()); },
                                   [this, trackID] { vm_->toggleMute(trackID()); });
        rowsLayout_->insertWidget(static_cast<int>(index), row);
        rows_.push_back(row);
    }
    for (std::size_t i = 0; i < sources.size(); ++i)
        rows_[i]->display(sources[i]);
    // Room under the last row for the timeline's horizontal scroll bar, so both sides scroll as far.
    const int bar =
        timeline_->horizontalScrollBar()->isVisible() ? timeline_->horizontalScrollBar()->height() : 0;
    sidebar_->widget()->setMinimumHeight(static_cast<int>(G::kRowPitch * static_cast<double>(rows_.size())) +
                                         bar);
}

bool MainTimeline::eventFilter(QObject* watched, QEvent* event) {
    if (watched == timeline_->viewport() && event->type() == QEvent::Resize) {
        view_->setAvailableWidth(std::max(1.0, timeline_->viewport()->width() - G::kTrailingRoom));
    } else if (watched == sidebar_->viewport() && event->type() == QEvent::Wheel) {
        // A wheel over the sidebar scrolls the rows of both sides.
        QApplication::sendEvent(timeline_->viewport(), event);
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

} // namespace trelvane
