// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What an empty session shows in place of the timeline: an invitation to drop a shoot. The drop
// itself is taken by the whole window, at any time; this only lights up while files hover.

#include <QWidget>

class QLabel;

namespace trelvane {

class DropZone : public QWidget {
  public:
    explicit DropZone(QWidget* parent = nullptr);
    void setDragTarget(bool hovering);
    QLabel* titleLabel() const { return title_; }
    QLabel* detailLabel() const { return detail_; }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    QLabel* title_;
    QLabel* detail_;
    bool hovering_ = false;
};

} // namespace trelvane
