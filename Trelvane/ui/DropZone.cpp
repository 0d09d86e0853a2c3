// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/DropZone.hpp"

#include <QApplication>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QStyle>
#include <QVBoxLayout>

namespace trelvane {

DropZone::DropZone(QWidget* parent)
    : QWidget(parent), title_(new QLabel("Drop folders or files here", this)),
      detail_(new QLabel("Each folder → One track · MOV MP4 WAV MP3 AIFF", this)) {
    auto* icon = new QLabel(this);
    icon->setPixmap(
        QIcon::fromTheme("folder-open", qApp->style()->standardIcon(QStyle::SP_DirOpenIcon)).pixmap(48, 48));
    icon->setAlignment(Qt::AlignCenter);
    QFont big = title_->font();
    big.setPointSizeF(big.pointSizeF() * 1.4);
    big.setBold(true);
    title_->setFont(big);
    title_->setAlignment(Qt::AlignCenter);
    detail_->setAlignment(Qt::AlignCenter);
    detail_->setStyleSheet("color: #8d929b;");
    auto* layout = new QVBoxLayout(this);
    layout->addStretch();
    layout->addWidget(icon);
    layout->addSpacing(8);
    layout->addWidget(title_);
    layout->addWidget(detail_);
    layout->addStretch();
}

void DropZone::setDragTarget(bool hovering) {
    if (hovering_ == hovering) return;
    hovering_ = hovering;
    update();
}

void DropZone::paintEvent(QPaintEvent* event) {
    QWidget::paintEvent(event);
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPen pen(hovering_ ? QColor("#4a9eff") : QColor("#5a5f69"), 2, Qt::DashLine);
    painter.setPen(pen);
    painter.setBrush(hovering_ ? QColor(74, 158, 255, 28) : Qt::NoBrush);
    painter.drawRoundedRect(QRectF(rect()).adjusted(24, 24, -24, -24), 14, 14);
}

} // namespace trelvane
