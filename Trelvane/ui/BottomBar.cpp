// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/BottomBar.hpp"

#include "Trelvane/ui/StatusLine.hpp"

#include <QApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QStyle>

namespace trelvane {

namespace {

constexpr int kBarHeight = 3;

} // namespace

BottomBar::BottomBar(std::shared_ptr<SyncViewModel> vm, std::shared_ptr<TimelineViewState> view,
                     QWidget* parent)
    : QWidget(parent), vm_(std::move(vm)), view_(std::move(view)), icon_(new QLabel(this)),
      text_(new QLabel(this)) {
    setFixedHeight(30);
    icon_->setPixmap(
        QIcon::fromTheme("dialog-warning", qApp->style()->standardIcon(QStyle::SP_MessageBoxWarning))
            .pixmap(14, 14));
    icon_->setVisible(false);
    text_->setTextFormat(Qt::PlainText);
    text_->setMinimumWidth(1);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, kBarHeight, 12, 0);
    layout->setSpacing(6);
    layout->addWidget(icon_);
    layout->addWidget(text_, 1);
    vmObservation_ = vm_->observe([this](Published) { refresh(); });
    viewObservation_ = view_->observe([this](TimelineViewState::Change what) {
        if (what == TimelineViewState::Change::barFill && view_->barFill() != fill_) {
            fill_ = view_->barFill();
            update();
        }
    });
    refresh();
}

void BottomBar::refresh() {
    const StatusLine line = statusLine(*vm_);
    const QString text = QString::fromStdString(line.text);
    if (text_->text() != text) {
        text_->setText(text);
        text_->setToolTip(text);
    }
    icon_->setVisible(line.warning);
    const char* colour = line.tone == StatusLine::Tone::accent    ? kAccentColour
                         : line.tone == StatusLine::Tone::syncing ? kSyncingColour
                                                                  : nullptr;
    const QString style = colour ? QString("color: %1;").arg(colour) : QString();
    if (text_->styleSheet() != style) text_->setStyleSheet(style);
}

void BottomBar::paintEvent(QPaintEvent* event) {
    QWidget::paintEvent(event);
    if (fill_ <= 0) return;
    QPainter painter(this);
    painter.fillRect(QRectF(0, 0, width() * std::clamp(fill_, 0.0, 1.0), kBarHeight), QColor(kAccentColour));
}

} // namespace trelvane
