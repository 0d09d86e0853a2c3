// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/Labels.hpp"

#include <QLabel>

namespace trelvane::Labels {

QLabel* text(const QString& text, QWidget* parent, const char* style) {
    auto* label = new QLabel(text, parent);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    if (style) label->setStyleSheet(style);
    return label;
}

QLabel* heading(const QString& title, QWidget* parent, double scale) {
    QLabel* label = text(title, parent);
    makeBold(label, scale);
    return label;
}

void makeBold(QWidget* widget, double scale) {
    QFont font = widget->font();
    font.setBold(true);
    if (scale != 1.0) font.setPointSizeF(font.pointSizeF() * scale);
    widget->setFont(font);
}

} // namespace trelvane::Labels
