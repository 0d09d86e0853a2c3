// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/PluginInstaller.hpp"

#include "Trelvane/session/Settings.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneVersion.hpp"

#include <cstdlib>
#include <exception>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace trelvane {

namespace fs = std::filesystem;

namespace {

// What differs between the two panels: names, folders and every text they are told by.
struct PanelSpec {
    const char* id;
    const char* resourceFolder;
    const char* logName;
    const char* unavailableText;
    const char* notFoundTitle;
    const char* notFoundText;
    const char* doneText;
    const char* failedTitle;
};

const PanelSpec& spec(PluginInstaller::Panel panel) {
    static const PanelSpec davinci{
        "com.trelvane.davinci",
        "DaVinciPlugin",
        "DaVinci",
        "This build doesn't include the DaVinci plugin.",
        "DaVinci Resolve not found",
        "Install DaVinci Resolve Studio first, then run this again.",
        "Restart DaVinci Resolve, then open Workspace → Workflow Integrations → Trelvane.",
        "Install DaVinci Resolve plugin failed",
    };
    static const PanelSpec premiere{
        "com.trelvane.premiere",
        "PremierePlugin",
        "Premiere",
        "This build doesn't include the Premiere plugin.",
        "Premiere Pro not found",
        "Install Premiere Pro first, then run this again.",
        "Restart Premiere Pro fully, then open Window → Extensions → Trelvane.",
        "Install Premiere Pro plugin failed",
    };
    return panel == PluginInstaller::Panel::davinci ? davinci : premiere;
}

// One install at a time in the process: the start-up worker and the window would otherwise race
// on the same staging folder.
std::mutex& installMutex() {
    static std::mutex mutex;
    return mutex;
}

std::optional<std::string> readText(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return text.str();
}

// The part of the first match of `pattern` between `prefixLength` bytes and `suffixLength` bytes.
std::optional<std::string> firstMatch(const fs::path& file, const std::regex& pattern,
                                      std::size_t prefixLength, std::size_t suffixLength) {
    const auto text = readText(file);
    if (!text) return std::nullopt;
    std::smatch match;
    if (!std::regex_search(*text, match, pattern)) return std::nullopt;
    const std::string whole = match.str(0);
    return whole.substr(prefixLength, whole.size() - prefixLength - suffixLength);
}

bool isFolder(const fs::path& path) {
    std::error_code ec;
    return !path.empty() && fs::is_directory(path, ec);
}

std::string versionText(const std::optional<std::string>& version) {
    return version.value_or("(no version)");
}

// The error's reason and the path it concerns, without the library's "filesystem error:" prefix.
std::string describe(const fs::filesystem_error& e) {
    std::string text = e.code().message();
    if (!e.path1().empty()) text += ": " + e.path1().string();
    return text;
}

// Copies the tree below `from` into the new folder `to` entry by entry, links kept as links. Any
// entry that can't be copied (unreadable, or neither file, folder nor link) stops the copy.
void copyTree(const fs::path& from, const fs::path& to) {
    fs::create_directory(to);
    for (auto it = fs::recursive_directory_iterator(from); it != fs::recursive_directory_iterator(); ++it) {
        // Lexically: a link in the bundle must be copied as itself, not resolved.
        const fs::path target = to / it->path().lexically_relative(from);
        const auto kind = it->symlink_status().type();
        if (kind == fs::file_type::symlink)
            fs::copy_symlink(it->path(), target);
        else if (kind == fs::file_type::directory)
            fs::create_directory(target);
        else if (kind == fs::file_type::regular)
            fs::copy_file(it->path(), target);
        else
            throw std::runtime_error("can't copy " + it->path().string() + ": not a file, folder or link");
    }
}

void makeExecutable(const fs::path& panel) {
    for (auto it = fs::recursive_directory_iterator(panel); it != fs::recursive_directory_iterator(); ++it)
        if (it->path().filename() == "TrelvaneEngineCLI" &&
            it->symlink_status().type() == fs::file_type::regular)
            fs::permissions(it->path(),
                            fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec,
                            fs::perm_options::add);
}

} // namespace

PluginInstaller::PluginInstaller(Locations locations, std::string appBuild)
    : locations_(std::move(locations)),
      appBuild_(appBuild.empty() ? std::string(kVersion) : std::move(appBuild)) {}

fs::path PluginInstaller::defaultResourcesDir() {
    if (const char* dir = std::getenv("TRELVANE_RESOURCES_DIR"); dir != nullptr && *dir != '\0') return dir;
    std::error_code ec;
    const fs::path executable = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    return (executable.parent_path().parent_path() / "share" / "trelvane").lexically_normal();
}

PluginInstaller::Locations PluginInstaller::locationsFrom(const Settings& settings, fs::path resources) {
    Locations locations;
    locations.resources = std::move(resources);
    locations.resolveRoot = settings.stringValue(Settings::kResolvePluginsRootKey);
    locations.premiereExtensionsRoot = settings.stringValue(Settings::kPremiereExtensionsRootKey);
    return locations;
}

std::future<void> PluginInstaller::installAtStartUp(const Settings& settings) {
    PluginInstaller installer(locationsFrom(settings));
    std::promise<void> done;
    std::future<void> future = done.get_future();
    std::thread([installer = std::move(installer), done = std::move(done)]() mutable {
        // Each install already keeps its failures in the log; this only keeps anything unforeseen
        // (a failed allocation) from ending the application.
        try {
            installer.installIfNeeded();
            installer.installCEPIfNeeded();
        } catch (const std::exception& e) {
            EngineLog::logf("[PluginInstaller] start-up install stopped: %s", e.what());
        } catch (...) {
            EngineLog::log("[PluginInstaller] start-up install stopped");
        }
        done.set_value();
    }).detach();
    return future;
}

bool PluginInstaller::isResolveInstalled() const {
    return isFolder(locations_.resolveRoot);
}

bool PluginInstaller::isPremiereInstalled() const {
    return isFolder(locations_.premiereExtensionsRoot);
}

bool PluginInstaller::editorFound(Panel panel) const {
    return panel == Panel::davinci ? isResolveInstalled() : isPremiereInstalled();
}

fs::path PluginInstaller::installedPath(Panel panel) const {
    const fs::path& root =
        panel == Panel::davinci ? locations_.resolveRoot : locations_.premiereExtensionsRoot;
    if (root.empty()) return {};
    const fs::path into = panel == Panel::davinci ? root / "Workflow Integration Plugins" : root;
    return into / spec(panel).id;
}

fs::path PluginInstaller::bundledPath(Panel panel) const {
    return locations_.resources / spec(panel).resourceFolder / spec(panel).id;
}

std::optional<std::string> PluginInstaller::davinciVersion(const fs::path& panel) {
    static const std::regex pattern("<Version>[^<]+</Version>");
    return firstMatch(panel / "manifest.xml", pattern, 9, 10);
}

std::optional<std::string> PluginInstaller::premiereVersion(const fs::path& panel) {
    static const std::regex pattern("ExtensionBundleVersion=\"[^\"]+\"");
    return firstMatch(panel / "CSXS" / "manifest.xml", pattern, 24, 1);
}

bool PluginInstaller::installedStampMatches(const fs::path& panel) const {
    auto stamp = readText(panel / kStampName);
    if (!stamp) return false;
    // Tolerate a stamp written by hand with a trailing newline.
    while (!stamp->empty() && (stamp->back() == '\n' || stamp->back() == '\r'))
        stamp->pop_back();
    return *stamp == appBuild_;
}

PluginInstaller::PanelState PluginInstaller::state(Panel panel) const {
    PanelState state;
    state.editorFound = editorFound(panel);
    const fs::path installed = installedPath(panel);
    state.installed = isFolder(installed);
    if (state.installed)
        state.version = panel == Panel::davinci ? davinciVersion(installed) : premiereVersion(installed);
    return state;
}

void PluginInstaller::copyPlugin(const fs::path& from, const fs::path& into, const std::string& id) const {
    try {
        // A file (or a dangling link) where the folder should be would make every install fail.
        std::error_code ec;
        if (fs::exists(fs::symlink_status(into)) && !fs::is_directory(into, ec)) {
            fs::path backup = into;
            backup += kBackupSuffix;
            fs::remove_all(backup);
            fs::rename(into, backup);
            EngineLog::logf("[PluginInstaller] '%s' was a file — moved aside to %s", into.string(),
                            backup.string());
        }
        fs::create_directories(into);

        const fs::path staging = into / (id + ".staging");
        fs::remove_all(staging);
        try {
            copyTree(from, staging);
            makeExecutable(staging);
            std::ofstream stamp(staging / kStampName, std::ios::binary | std::ios::trunc);
            stamp << appBuild_;
            stamp.close();
            if (!stamp) throw std::runtime_error("can't write " + (staging / kStampName).string());
        } catch (...) {
            fs::remove_all(staging, ec);
            throw;
        }
        // Only now is the old panel given up, for one that is known to be whole.
        const fs::path panel = into / id;
        fs::remove_all(panel);
        fs::rename(staging, panel);
    } catch (const fs::filesystem_error& e) {
        throw std::runtime_error(describe(e));
    }
}

void PluginInstaller::enableCEPPlayerDebugMode() const {
    EngineLog::log(
        "[PluginInstaller] PlayerDebugMode not set: this system keeps no CEP preferences (Premiere "
        "Pro doesn't run here) — set it where Premiere runs to load the unsigned panel");
}

void PluginInstaller::installSilently(Panel panel) const {
    const PanelSpec& s = spec(panel);
    std::lock_guard lock(installMutex());
    const fs::path from = bundledPath(panel);
    if (!isFolder(from)) {
        EngineLog::logf("[PluginInstaller] no bundled %s plugin in Resources — skipping", s.logName);
        return;
    }
    if (!editorFound(panel)) return;
    const fs::path installed = installedPath(panel);
    const auto versionOf = [panel](const fs::path& folder) {
        return panel == Panel::davinci ? davinciVersion(folder) : premiereVersion(folder);
    };
    const auto bundled = versionOf(from);
    if (isFolder(installed)) {
        std::error_code ec;
        if (panel == Panel::premiere && fs::exists(installed / "META-INF" / "signatures.xml", ec)) {
            EngineLog::log("[PluginInstaller] Premiere plugin install skipped: keeping signed install");
            return;
        }
        const auto current = versionOf(installed);
        if (current && current == bundled && installedStampMatches(installed)) {
            EngineLog::logf("[PluginInstaller] %s plugin %s already current (bundled %s, app build %s",
                            s.logName, *current, *bundled, appBuild_);
            return;
        }
    }
    try {
        copyPlugin(from, installed.parent_path(), s.id);
        EngineLog::logf("[PluginInstaller] installed %s plugin %s", s.logName, versionText(bundled));
    } catch (const std::exception& e) {
        EngineLog::logf("[PluginInstaller] %s install failed: %s", s.logName, e.what());
        return;
    }
    // The panel carried is unsigned.
    if (panel == Panel::premiere) enableCEPPlayerDebugMode();
}

PluginInstaller::Alert PluginInstaller::installOnDemand(Panel panel) const {
    const PanelSpec& s = spec(panel);
    std::lock_guard lock(installMutex());
    const fs::path from = bundledPath(panel);
    if (!isFolder(from)) return {"Plugin unavailable", s.unavailableText};
    if (!editorFound(panel)) return {s.notFoundTitle, s.notFoundText};
    const auto bundled = panel == Panel::davinci ? davinciVersion(from) : premiereVersion(from);
    try {
        copyPlugin(from, installedPath(panel).parent_path(), s.id);
    } catch (const std::exception& e) {
        EngineLog::logf("[PluginInstaller] %s install failed: %s", s.logName, e.what());
        return {s.failedTitle, e.what()};
    }
    EngineLog::logf("[PluginInstaller] installed %s plugin %s", s.logName, versionText(bundled));
    if (panel == Panel::premiere) enableCEPPlayerDebugMode();
    return {"Plugin installed", s.doneText};
}

void PluginInstaller::installIfNeeded() const {
    installSilently(Panel::davinci);
}

void PluginInstaller::installCEPIfNeeded() const {
    installSilently(Panel::premiere);
}

PluginInstaller::Alert PluginInstaller::installFromMenu() const {
    return installOnDemand(Panel::davinci);
}

PluginInstaller::Alert PluginInstaller::installPremiereFromMenu() const {
    return installOnDemand(Panel::premiere);
}

} // namespace trelvane
