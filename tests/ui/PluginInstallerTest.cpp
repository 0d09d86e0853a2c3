// SPDX-License-Identifier: GPL-3.0-or-later
// The panel installer against temporary folders: first install, already current, replacement
// through the staging folder, a file in the way, a signed panel kept, a failed copy that leaves
// the working panel whole, the alerts, the version readers and the start-up call.
#include "Trelvane/ui/PluginInstaller.hpp"
#include "TestSupport.hpp"
#include "Trelvane/session/Settings.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

using namespace trelvane;
using namespace trelvane::test;
namespace fs = std::filesystem;
using Panel = PluginInstaller::Panel;

namespace {

const char* logName(Panel p) {
    return p == Panel::davinci ? "DaVinci" : "Premiere";
}

// A resources folder and the two editors' roots in one temporary folder.
struct Shelf {
    TempDir dir;
    LogCapture log;
    PluginInstaller::Locations where;

    Shelf() {
        where.resources = dir / "resources";
        where.resolveRoot = dir.dir("Resolve");
        where.premiereExtensionsRoot = dir.dir("CEP/extensions");
    }
    PluginInstaller installer(const std::string& build = "0.1.0") const {
        return PluginInstaller(where, build);
    }

    // A bundled panel of `version` (replacing any), with an engine binary that isn't executable yet.
    fs::path bundle(Panel p, const std::string& version) const {
        const fs::path folder = installer().bundledPath(p);
        fs::remove_all(folder);
        const std::string rel = fs::relative(folder, dir.path()).string();
        if (p == Panel::davinci)
            dir.file(rel + "/manifest.xml", "<Manifest><Version>" + version + "</Version></Manifest>");
        else
            dir.file(rel + "/CSXS/manifest.xml",
                     "<ExtensionManifest ExtensionBundleVersion=\"" + version + "\">");
        dir.file(rel + "/bin/TrelvaneEngineCLI", "#!/bin/sh\n");
        return folder;
    }
    void installSilently(Panel p, const std::string& build = "0.1.0") const {
        p == Panel::davinci ? installer(build).installIfNeeded() : installer(build).installCEPIfNeeded();
    }
    PluginInstaller::Alert installFromMenu(Panel p) const {
        return p == Panel::davinci ? installer().installFromMenu() : installer().installPremiereFromMenu();
    }
    fs::path installed(Panel p) const { return installer().installedPath(p); }
    bool staging(Panel p) const { return fs::exists(installed(p).string() + ".staging"); }
};

} // namespace

TEST(PluginInstaller, InstallsOnceThenKeepsACurrentPanelUntilTheBuildChanges) {
    for (Panel p : {Panel::davinci, Panel::premiere}) {
        SCOPED_TRACE(logName(p));
        Shelf s;
        s.bundle(p, "1.0.0");
        s.installSilently(p);
        EXPECT_TRUE(
            s.log.contains(std::string("[PluginInstaller] installed ") + logName(p) + " plugin 1.0.0"));
        const fs::path panel = s.installed(p);
        EXPECT_EQ(slurp(panel / PluginInstaller::kStampName), "0.1.0");
        EXPECT_NE(fs::status(panel / "bin/TrelvaneEngineCLI").permissions() & fs::perms::owner_exec,
                  fs::perms::none);
        EXPECT_FALSE(s.staging(p));
        EXPECT_EQ(s.log.countStartingWith("[PluginInstaller] PlayerDebugMode"), p == Panel::premiere ? 1 : 0)
            << "only the unsigned CEP panel needs the debug mode";
        EXPECT_EQ(s.installer().state(p).version, "1.0.0");

        s.dir.file(fs::relative(panel, s.dir.path()) / "user-note.txt");
        s.installSilently(p);
        EXPECT_TRUE(s.log.contains(std::string("[PluginInstaller] ") + logName(p) +
                                   " plugin 1.0.0 already current (bundled 1.0.0, app build 0.1.0"));
        EXPECT_TRUE(fs::exists(panel / "user-note.txt")) << "a current panel is not copied again";

        s.installSilently(p, "0.2.0");
        EXPECT_FALSE(fs::exists(panel / "user-note.txt")) << "another build's stamp means a fresh copy";
        EXPECT_EQ(slurp(panel / PluginInstaller::kStampName), "0.2.0");
    }
}

TEST(PluginInstaller, ANewerBundleReplacesTheOldPanelThroughTheStagingFolder) {
    for (Panel p : {Panel::davinci, Panel::premiere}) {
        SCOPED_TRACE(logName(p));
        Shelf s;
        const fs::path bundled = s.bundle(p, "1.0.0");
        std::ofstream(bundled / "only-in-1.0.js") << "x";
        s.installSilently(p);
        ASSERT_TRUE(fs::exists(s.installed(p) / "only-in-1.0.js"));
        // A copy interrupted earlier left its staging folder behind.
        s.dir.file(fs::relative(s.installed(p), s.dir.path()).string() + ".staging/leftover");

        s.bundle(p, "1.1.0");
        s.installSilently(p);
        EXPECT_TRUE(
            s.log.contains(std::string("[PluginInstaller] installed ") + logName(p) + " plugin 1.1.0"));
        EXPECT_EQ(s.installer().state(p).version, "1.1.0");
        EXPECT_FALSE(fs::exists(s.installed(p) / "only-in-1.0.js"))
            << "the old panel is replaced, not merged";
        EXPECT_FALSE(fs::exists(s.installed(p) / "leftover"));
        EXPECT_FALSE(s.staging(p));
    }
}

TEST(PluginInstaller, AFileWhereThePluginsFolderShouldBeIsMovedAside) {
    Shelf s;
    s.bundle(Panel::davinci, "1.0.0");
    const fs::path folder = s.installed(Panel::davinci).parent_path();
    s.dir.file("Resolve/Workflow Integration Plugins", "a file");
    s.dir.file("Resolve/Workflow Integration Plugins.trelvane-backup", "an earlier backup");
    s.installSilently(Panel::davinci);
    EXPECT_TRUE(s.log.contains("[PluginInstaller] '" + folder.string() + "' was a file — moved aside to " +
                               folder.string() + ".trelvane-backup"));
    EXPECT_EQ(slurp(folder.string() + ".trelvane-backup"), "a file");
    EXPECT_EQ(s.installer().state(Panel::davinci).version, "1.0.0");
}

TEST(PluginInstaller, ASignedPremierePanelIsLeftAloneAtStartUp) {
    Shelf s;
    s.bundle(Panel::premiere, "1.0.0");
    s.installSilently(Panel::premiere);
    s.dir.file(fs::relative(s.installed(Panel::premiere), s.dir.path()) / "META-INF/signatures.xml",
               "<sig/>");
    s.bundle(Panel::premiere, "2.0.0");
    s.installSilently(Panel::premiere);
    EXPECT_TRUE(s.log.contains("[PluginInstaller] Premiere plugin install skipped: keeping signed install"));
    EXPECT_EQ(s.installer().state(Panel::premiere).version, "1.0.0");
}

TEST(PluginInstaller, ACopyThatFailsHalfWayLeavesTheWorkingPanelWhole) {
    struct Row {
        const char* name;
        const char* entry;
        std::function<void(const fs::path&)> spoil;
    };
    const Row rows[] = {
        {"unreadable file", "secret.bin",
         [](const fs::path& f) {
             std::ofstream(f) << "x";
             fs::permissions(f, fs::perms::none);
         }},
        {"named pipe", "pipe", [](const fs::path& f) { ASSERT_EQ(::mkfifo(f.c_str(), 0600), 0); }},
    };
    for (const Row& row : rows) {
        // Root reads every file, so only the pipe fails the copy there.
        if (::geteuid() == 0 && std::string(row.entry) == "secret.bin") continue;
        for (Panel p : {Panel::davinci, Panel::premiere}) {
            SCOPED_TRACE(std::string(row.name) + ", " + logName(p));
            Shelf s;
            s.bundle(p, "1.0.0");
            s.installSilently(p);
            row.spoil(s.bundle(p, "2.0.0") / row.entry);

            const PluginInstaller::Alert alert = s.installFromMenu(p);
            EXPECT_EQ(alert.title, p == Panel::davinci ? "Install DaVinci Resolve plugin failed"
                                                       : "Install Premiere Pro plugin failed");
            EXPECT_NE(alert.text.find(row.entry), std::string::npos) << alert.text;
            EXPECT_EQ(
                s.log.countStartingWith(std::string("[PluginInstaller] ") + logName(p) + " install failed: "),
                1);
            EXPECT_EQ(s.installer().state(p).version, "1.0.0");
            EXPECT_TRUE(s.installer().installedStampMatches(s.installed(p)));
            EXPECT_FALSE(s.staging(p));
        }
    }
}

TEST(PluginInstaller, MenuInstallsEndInTheAlertOfTheirCase) {
    struct Row {
        Panel panel;
        PluginInstaller::Alert unavailable, notFound, done;
    };
    const Row rows[] = {
        {Panel::davinci,
         {"Plugin unavailable", "This build doesn't include the DaVinci plugin."},
         {"DaVinci Resolve not found", "Install DaVinci Resolve Studio first, then run this again."},
         {"Plugin installed",
          "Restart DaVinci Resolve, then open Workspace → Workflow Integrations → Trelvane."}},
        {Panel::premiere,
         {"Plugin unavailable", "This build doesn't include the Premiere plugin."},
         {"Premiere Pro not found", "Install Premiere Pro first, then run this again."},
         {"Plugin installed", "Restart Premiere Pro fully, then open Window → Extensions → Trelvane."}},
    };
    for (const Row& row : rows) {
        const Panel p = row.panel;
        SCOPED_TRACE(logName(p));
        Shelf s;
        EXPECT_EQ(s.installFromMenu(p), row.unavailable);
        s.installSilently(p);
        EXPECT_TRUE(s.log.contains(std::string("[PluginInstaller] no bundled ") + logName(p) +
                                   " plugin in Resources — skipping"));

        s.bundle(p, "1.0.0");
        const PluginInstaller::Locations set = s.where;
        for (const fs::path& missingRoot : {fs::path(), s.dir / "nowhere"}) {
            (p == Panel::davinci ? s.where.resolveRoot : s.where.premiereExtensionsRoot) = missingRoot;
            EXPECT_EQ(s.installFromMenu(p), row.notFound);
            const auto before = s.log.lines().size();
            s.installSilently(p);
            EXPECT_EQ(s.log.lines().size(), before) << "a missing editor is not worth a line";
            EXPECT_FALSE(fs::exists(s.dir / "nowhere"));
            EXPECT_FALSE(s.installer().state(p).editorFound);
        }
        s.where = set;
        EXPECT_TRUE(s.installer().state(p).editorFound);
        EXPECT_EQ(s.installFromMenu(p), row.done);
        EXPECT_EQ(s.installFromMenu(p), row.done) << "the menu reinstalls a current panel";
        EXPECT_TRUE(s.installer().state(p).installed);
    }
}

TEST(PluginInstaller, VersionReadersTakeTheFirstWellFormedValue) {
    struct Row {
        Panel panel;
        const char* manifest;
        std::optional<std::string> version;
    };
    const Row rows[] = {
        {Panel::davinci, "<Plugin>\n  <Version>2.3.1</Version>\n</Plugin>", "2.3.1"},
        {Panel::davinci, "<Version>1.0 beta</Version><Version>9</Version>", "1.0 beta"},
        {Panel::davinci, "<Version></Version>", std::nullopt},
        {Panel::davinci, "<version>1.0</version>", std::nullopt},
        {Panel::premiere, "<ExtensionManifest Version=\"7.0\" ExtensionBundleVersion=\"1.4.2\">", "1.4.2"},
        {Panel::premiere, "ExtensionBundleVersion=\"\"", std::nullopt},
        {Panel::premiere, "ExtensionBundleVersion='1.0'", std::nullopt},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.manifest);
        TempDir dir;
        if (row.panel == Panel::davinci) {
            dir.file("manifest.xml", row.manifest);
            EXPECT_EQ(PluginInstaller::davinciVersion(dir.path()), row.version);
        } else {
            dir.file("CSXS/manifest.xml", row.manifest);
            EXPECT_EQ(PluginInstaller::premiereVersion(dir.path()), row.version);
        }
    }
    TempDir empty;
    EXPECT_EQ(PluginInstaller::davinciVersion(empty.path()), std::nullopt);
    EXPECT_EQ(PluginInstaller::premiereVersion(empty.path()), std::nullopt);
}

TEST(PluginInstaller, TheStartUpCallInstallsBothPanelsFromTheSettings) {
    Shelf s;
    s.bundle(Panel::davinci, "1.0.0");
    s.bundle(Panel::premiere, "2.0.0");
    Settings settings(s.dir / "settings.json");
    EXPECT_TRUE(settings.stringValue(Settings::kResolvePluginsRootKey).empty())
        << "nothing is installed unasked";
    settings.setString(Settings::kResolvePluginsRootKey, s.where.resolveRoot.string());
    settings.setString(Settings::kPremiereExtensionsRootKey, s.where.premiereExtensionsRoot.string());
    ScopedEnv resources("TRELVANE_RESOURCES_DIR", s.where.resources.string());
    ASSERT_EQ(PluginInstaller::installAtStartUp(settings).wait_for(std::chrono::seconds(20)),
              std::future_status::ready);
    EXPECT_EQ(s.installer().state(Panel::davinci).version, "1.0.0");
    EXPECT_EQ(s.installer().state(Panel::premiere).version, "2.0.0");
}
