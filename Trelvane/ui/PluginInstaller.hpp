// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Copies the editor panels the application carries (a DaVinci Resolve Workflow Integration plugin
// and a Premiere Pro CEP extension) to where the editors look: silently at start-up, and on demand
// from the Plugins window, which shows the alert the menu installs return. No Qt here, so that the
// whole logic runs against temporary folders.
//
// Where things are on Linux:
//   - the bundled panels: the resources folder, $TRELVANE_RESOURCES_DIR when set and not empty,
//     else "../share/trelvane" beside the executable's folder (what `cmake --install` lays out);
//     inside it "DaVinciPlugin/com.trelvane.davinci" and "PremierePlugin/com.trelvane.premiere".
//     A build carries no panels unless someone puts them there; the installs then log that they
//     skip.
//   - the editors' folders: the settings "tvResolvePluginsRoot" (the DaVinci Resolve base folder;
//     panels go under its "Workflow Integration Plugins") and "tvPremiereExtensionsRoot" (the CEP
//     extensions folder itself). Unset by default; a root that is unset or isn't an existing folder
//     means the editor is missing.
//
// Lifecycle: an installer is a small value over the locations, made where it is needed (the
// Plugins window makes one each time it reads the settings). Installs in one process run one at a
// time, so the start-up install on its worker and a click in the window never share a staging
// folder. Nothing here throws but `copyPlugin`.

#include <filesystem>
#include <future>
#include <optional>
#include <string>

namespace trelvane {

class Settings;

class PluginInstaller {
  public:
    enum class Panel { davinci, premiere };

    struct Locations {
        // Holds "DaVinciPlugin/<id>" and "PremierePlugin/<id>".
        std::filesystem::path resources;
        // Empty when unset.
        std::filesystem::path resolveRoot;
        std::filesystem::path premiereExtensionsRoot;
    };

    // What a menu install ends with, for the window to show.
    struct Alert {
        std::string title;
        std::string text;
        bool operator==(const Alert&) const = default;
    };

    // What a card shows.
    struct PanelState {
        bool editorFound = false;
        bool installed = false;
        // The installed panel's version, when its manifest gives one.
        std::optional<std::string> version;
    };

    static constexpr const char* kStampName = "trelvane-app-build.txt";
    static constexpr const char* kBackupSuffix = ".trelvane-backup";

    // `appBuild` is what the stamp holds; the application's version by default.
    explicit PluginInstaller(Locations locations, std::string appBuild = {});

    // The resources folder as described above.
    static std::filesystem::path defaultResourcesDir();
    // The two roots from the settings, the panels from `resources`.
    static Locations locationsFrom(const Settings& settings,
                                   std::filesystem::path resources = defaultResourcesDir());
    // Both silent installs on a worker thread, the settings read before returning. Nothing escapes
    // the thread; the future (which callers may drop) is ready once both are done.
    static std::future<void> installAtStartUp(const Settings& settings);

    // Silent: every outcome is one log line, or none when the editor is missing.
    void installIfNeeded() const;
    void installCEPIfNeeded() const;
    // Always copy (a reinstall when one is there) and say how it went.
    Alert installFromMenu() const;
    Alert installPremiereFromMenu() const;

    // The Premiere extensions root is set and is a folder.
    bool isPremiereInstalled() const;
    // The DaVinci Resolve base folder is set and is a folder.
    bool isResolveInstalled() const;
    const std::string& appBuild() const { return appBuild_; }
    // Unsigned CEP panels load only with the CEP player's debug mode on, a setting kept in a
    // preference store that exists where Premiere runs. There is none on Linux: one log line.
    void enableCEPPlayerDebugMode() const;

    PanelState state(Panel panel) const;
    // Where the panel is installed: "<root>/Workflow Integration Plugins/com.trelvane.davinci" or
    // "<root>/com.trelvane.premiere" (empty when the root is unset).
    std::filesystem::path installedPath(Panel panel) const;
    std::filesystem::path bundledPath(Panel panel) const;

    // The text of the first <Version>…</Version> of "manifest.xml" in the panel folder.
    static std::optional<std::string> davinciVersion(const std::filesystem::path& panel);
    // The value of the first ExtensionBundleVersion="…" of "CSXS/manifest.xml" in the panel folder.
    static std::optional<std::string> premiereVersion(const std::filesystem::path& panel);
    // The panel's stamp holds this application's build.
    bool installedStampMatches(const std::filesystem::path& panel) const;

    // Copies the panel folder `from` to `into`/`id` so that a working panel is replaced only by a
    // complete one: a file where `into` should be is moved aside (to `into` + ".trelvane-backup"),
    // the copy goes to "<id>.staging" first and takes the old panel's place only when whole; then
    // "TrelvaneEngineCLI" is made executable and the stamp written. Throws std::runtime_error with
    // the reason; a failed copy leaves the old panel as it was and no staging folder behind.
    void copyPlugin(const std::filesystem::path& from, const std::filesystem::path& into,
                    const std::string& id) const;

  private:
    void installSilently(Panel panel) const;
    Alert installOnDemand(Panel panel) const;
    bool editorFound(Panel panel) const;

    Locations locations_;
    std::string appBuild_;
};

} // namespace trelvane
