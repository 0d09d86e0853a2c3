// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The strip under the timeline: the status line (with a warning sign where one is due, and the whole
// text as its tool tip) and the progress bar, drawn at the eased `barFill`.

#include "Trelvane/session/SyncViewModel.hpp"
#include "Trelvane/session/TimelineViewState.hpp"

#include <QWidget>

#include <memory>

class QLabel;

namespace trelvane {

class BottomBar : public QWidget {
  public:
    BottomBar(std::shared_ptr<SyncViewModel> vm, std::shared_ptr<TimelineViewState> view,
              QWidget* parent = nullptr);
    QLabel* statusLabel() const { return text_; }
    QLabel* warningIcon() const { return icon_; }
    double drawnFill() const { return fill_; }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    void refresh();

    const std::shared_ptr<SyncViewModel> vm_;
    const std::shared_ptr<TimelineViewState> view_;
    std::shared_ptr<void> vmObservation_, viewObservation_;
    QLabel* icon_;
    QLabel* text_;
    double fill_ = 0;
};

} // namespace trelvane
