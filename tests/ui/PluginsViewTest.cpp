// SPDX-License-Identifier: GPL-3.0-or-later
// The Plugins window reads both panels' states each time it appears, and its button installs.
#include "Trelvane/ui/PluginsView.hpp"
#include "TestSupport.hpp"
#include "Trelvane/session/Settings.hpp"

#include <QCoreApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <gtest/gtest.h>

using namespace trelvane;
using namespace trelvane::test;
using Panel = PluginInstaller::Panel;

TEST(PluginsView, ReadsBothStatesEachTimeItAppears) {
    TempDir dir;
    dir.file("resources/DaVinciPlugin/com.trelvane.davinci/manifest.xml", "<Version>1.0.0</Version>");
    dir.file("resources/PremierePlugin/com.trelvane.premiere/CSXS/manifest.xml",
             "ExtensionBundleVersion=\"2.0.0\"");
    Settings settings(dir / "settings.json");
    settings.setString(Settings::kResolvePluginsRootKey, dir.dir("Resolve").string());
    LogCapture log;

    PluginsView view(settings, dir / "resources");
    view.show();
    EXPECT_EQ(view.windowTitle(), "Trelvane is in your editor too");
    EXPECT_EQ(view.stateLabel(Panel::davinci)->text(), "Not installed");
    EXPECT_EQ(view.installButton(Panel::davinci)->text(), "Install");
    EXPECT_TRUE(view.missingLabel(Panel::davinci)->isHidden());
    EXPECT_FALSE(view.missingLabel(Panel::premiere)->isHidden());
    EXPECT_EQ(view.missingLabel(Panel::premiere)->text(), "Premiere not found");

    QTest::mouseClick(view.installButton(Panel::davinci), Qt::LeftButton);
    auto* box = view.findChild<QMessageBox*>();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->windowTitle(), "Plugin installed");
    EXPECT_EQ(view.stateLabel(Panel::davinci)->text(), "Installed 1.0.0");
    EXPECT_EQ(view.installButton(Panel::davinci)->text(), "Reinstall");
    box->close();

    // Set while the window was away: read again when it comes back.
    view.hide();
    settings.setString(Settings::kPremiereExtensionsRootKey, dir.dir("CEP").string());
    dir.file("CEP/com.trelvane.premiere/CSXS/manifest.xml", "ExtensionBundleVersion=\"1.5.0\"");
    view.show();
    EXPECT_TRUE(view.missingLabel(Panel::premiere)->isHidden());
    EXPECT_EQ(view.stateLabel(Panel::premiere)->text(), "Installed 1.5.0");
    EXPECT_EQ(view.installButton(Panel::premiere)->text(), "Reinstall");
}
