// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The application's look: a dark palette on the Fusion style, the same on every desktop, so the
// sidebar, the sheets and the timeline read as one surface and footage-coloured clips stand out.

class QApplication;

namespace trelvane {

void applyTheme(QApplication& app);

} // namespace trelvane
