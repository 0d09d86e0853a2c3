// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The labels every sheet and window of the shell builds the same way.

#include <QString>

class QLabel;
class QWidget;

namespace trelvane::Labels {

// Wrapped plain text, never read as markup (file and track names may hold '<'), with an optional
// style sheet.
QLabel* text(const QString& text, QWidget* parent, const char* style = nullptr);
// A bold label `scale` times the usual size: a sheet's title, a card's name.
QLabel* heading(const QString& text, QWidget* parent, double scale = 1.0);
void makeBold(QWidget* widget, double scale = 1.0);

} // namespace trelvane::Labels
