// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The session's main area: the sidebar of tracks beside the timeline, with a divider between them
// that the user can drag. It is the bridge between the controller and the drawing: on each change
// of the published state it points the timeline at the tracks, the glide's offsets, the selection
// and the scale, and asks for the step that change needs; several changes within one turn of the
// event loop make one refresh. The sidebar and the timeline scroll together.
//
// Lifecycle: GUI thread only; the controller and the view state outlive it.

#include "Trelvane/session/SyncViewModel.hpp"
#include "Trelvane/session/TimelineViewState.hpp"

#include <QFrame>
#include <QWidget>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class QLabel;
class QScrollArea;
class QSplitter;
class QToolButton;
class QVBoxLayout;

namespace trelvane {

class TimelineView;

// One track in the sidebar: its name, its subtitle and a mute button; a click selects its clips.
class SidebarRow : public QFrame {
  public:
    SidebarRow(std::function<void()> onSelect, std::function<void()> onToggleMute, QWidget* parent = nullptr);
    void display(const TrackSource& track);
    QLabel* nameLabel() const { return name_; }
    QLabel* subtitleLabel() const { return subtitle_; }
    QToolButton* muteButton() const { return mute_; }

  protected:
    void mousePressEvent(QMouseEvent* event) override;

  private:
    std::function<void()> onSelect_;
    QLabel* name_;
    QLabel* subtitle_;
    QToolButton* mute_;
};

class MainTimeline : public QWidget {
  public:
    MainTimeline(std::shared_ptr<SyncViewModel> vm, std::shared_ptr<TimelineViewState> view,
                 QWidget* parent = nullptr);
    ~MainTimeline() override;

    TimelineView* timelineView() const { return timeline_; }
    QSplitter* splitter() const { return splitter_; }
    const std::vector<SidebarRow*>& sidebarRows() const { return rows_; }
    // The refresh that the event loop would make, now.
    void refreshNow();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    enum Dirty : unsigned { sourcesDirty = 1, offsetsDirty = 2, selectionDirty = 4, playheadDirty = 8 };
    void markDirty(unsigned what);
    void refresh();
    void rebuildSidebar();
    std::uint64_t sourcesSignature() const;

    const std::shared_ptr<SyncViewModel> vm_;
    const std::shared_ptr<TimelineViewState> view_;
    std::shared_ptr<void> vmObservation_, viewObservation_;

    QSplitter* splitter_;
    QScrollArea* sidebar_;
    QVBoxLayout* rowsLayout_;
    std::vector<SidebarRow*> rows_;
    TimelineView* timeline_;

    unsigned dirty_ = 0;
    bool refreshQueued_ = false;
    std::uint64_t lastSignature_ = 0;
    bool everRefreshed_ = false;
};

} // namespace trelvane
