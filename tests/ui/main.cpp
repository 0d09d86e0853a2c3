// SPDX-License-Identifier: GPL-3.0-or-later
// The window's tests draw offscreen: no display and no sound device are needed.
#include "Trelvane/ui/Theme.hpp"

#include <QApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    trelvane::applyTheme(app); // as the application looks, for the screenshots
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
