// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane-app [PATH...]`: the desktop window. The paths it is given are added as a drop would add
// them, so a file manager can open a shoot's folder with it.
#include "Trelvane/session/AppLog.hpp"
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/Settings.hpp"
#include "Trelvane/ui/MainWindow.hpp"
#include "Trelvane/ui/PluginInstaller.hpp"
#include "Trelvane/ui/QtMainQueue.hpp"
#include "Trelvane/ui/Theme.hpp"
#include "TrelvaneVersion.hpp"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QMessageBox>
#include <QTimer>

#include <cstring>

namespace {

// --help and --version answer without a display, so they work over ssh and in scripts.
bool onlyAsksForInformation(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        for (const char* flag : {"-h", "--help", "--help-all", "-v", "--version"})
            if (std::strcmp(argv[i], flag) == 0) return true;
    return false;
}

void describe(QCommandLineParser& parser) {
    parser.setApplicationDescription("Lines up the clips of a multi-camera shoot by their sound.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("paths", "Folders or media files to add, as if dropped on the window.",
                                 "[PATH...]");
}

} // namespace

int main(int argc, char** argv) {
    if (onlyAsksForInformation(argc, argv)) {
        QCoreApplication info(argc, argv);
        QCoreApplication::setApplicationName("trelvane-app");
        QCoreApplication::setApplicationVersion(trelvane::kVersion);
        QCommandLineParser parser;
        describe(parser);
        parser.process(info); // prints and exits
        return 0;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName("Trelvane");
    QApplication::setApplicationVersion(trelvane::kVersion);
    QApplication::setDesktopFileName("trelvane");
    trelvane::applyTheme(app);

    QCommandLineParser parser;
    parser.setApplicationDescription("Lines up the clips of a multi-camera shoot by their sound.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("paths", "Folders or media files to add, as if dropped on the window.",
                                 "[PATH...]");
    parser.process(app);

    trelvane::AppLog::start(trelvane::AppLog::Mode::redirectStdio);
    trelvane::Settings settings(trelvane::Settings::defaultPath());
    trelvane::QtMainQueue queue;
    // The editor panels go where the settings say, without asking; all of it stays in the log.
    (void)trelvane::PluginInstaller::installAtStartUp(settings);
    trelvane::MainWindow window(queue, settings, trelvane::productStages());
    window.show();

    QStringList found, missing;
    for (const QString& path : parser.positionalArguments())
        (QFileInfo::exists(path) ? found : missing) << QFileInfo(path).absoluteFilePath();
    // Added once the window is up, so the tracks appear in it.
    QTimer::singleShot(0, &window, [&window, found, missing] {
        window.ingestPaths(found);
        if (!missing.isEmpty())
            QMessageBox::warning(&window, "Not found",
                                 "These paths don't exist and were not added:\n" + missing.join("\n"));
    });
    const int status = QApplication::exec();
    trelvane::AppLog::stop();
    return status;
}
