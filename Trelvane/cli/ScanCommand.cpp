// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane scan PATH...`: adds the paths to a session and prints its tracks.
#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/session/AppLog.hpp"
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/SessionJson.hpp"
#include "Trelvane/session/SyncViewModel.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>

namespace trelvane::cli {

void addScanCommand(CLI::App& app, ScanOptions& options) {
    auto* cmd = app.add_subcommand("scan", "Group the media under the paths into tracks and print them");
    cmd->add_option("paths", options.paths, "Folders or media files of the shoot")->required();
    cmd->add_flag("--json", options.json, "Print the session as JSON");
}

void startLogging(const CommonOptions& common) {
    AppLog::start(AppLog::Mode::fileOnly);
    if (!common.verbose) return;
    // Keep writing the file, and echo each line for the user at the terminal.
    EngineLog::setSink([](const std::string& line) {
        AppLog::write(line);
        std::fprintf(stderr, "%s\n", terminalSafe(line).c_str());
    });
}

std::string terminalSafe(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) {
            switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                out += fmt::format("\\x{:02X}", c);
            }
            ++i;
            continue;
        }
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        // A well-formed UTF-8 sequence passes; anything else becomes U+FFFD.
        std::size_t len = c >= 0xF0 && c < 0xF5 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
        bool ok = len > 0 && i + len <= text.size();
        for (std::size_t k = 1; ok && k < len; ++k)
            ok = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
        if (ok) {
            out.append(text, i, len);
            i += len;
        } else {
            out += "\xEF\xBF\xBD";
            ++i;
        }
    }
    return out;
}

namespace {

// Columns in display width: every UTF-8 lead byte or ASCII byte counts one.
std::size_t displayWidth(const std::string& s) {
    return static_cast<std::size_t>(std::count_if(
        s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

void printTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (widths.size() <= i) widths.push_back(0);
            widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - displayWidth(row[i]) + 2, ' ');
        }
        std::cout << line << '\n';
    }
}

} // namespace

int runScan(const ScanOptions& options, const CommonOptions& common) {
    std::vector<Url> urls;
    for (const auto& p : options.paths) {
        const Url url = Url::fromPath(p);
        if (!Files::kindOf(url.fsPath()).exists) {
            std::cerr << "trelvane: no such file or folder: " << terminalSafe(p) << '\n';
            return kExitFailure;
        }
        urls.push_back(url);
    }
    startLogging(common);

    HeadlessMainQueue queue;
    Settings settings(Settings::defaultPath());
    auto vm = SyncViewModel::create(queue, settings, productStages());
    // Headless, the prompts are answered at once: every proposal accepted, track mode kept.
    auto answers = vm->observe([&vm](Published what) {
        if (what == Published::pendingCameraGroups && vm->pendingCameraGroups()) {
            std::set<Uuid> all;
            for (const auto& p : *vm->pendingCameraGroups())
                all.insert(p.id);
            vm->confirmCameraGroups(all);
        } else if (what == Published::pendingDayRegions && vm->pendingDayRegions()) {
            std::set<Uuid> all;
            for (const auto& p : *vm->pendingDayRegions())
                all.insert(p.id);
            vm->confirmDayRegions(all);
        } else if (what == Published::pendingStackModeOffer && vm->pendingStackModeOffer()) {
            vm->answerStackModeOffer(false);
        }
    });
    vm->ingestURLs(urls);
    queue.runUntil([&vm] { return !vm->isIngesting(); });

    if (options.json) {
        std::cout << SessionJson::dump(vm->sources()) << '\n';
        return kExitOK;
    }
    std::vector<std::vector<std::string>> rows{
        {"TRACK", "TYPE", "CLIPS", "LOCKED", "SUBTITLE", "FIRST FOLDER", "SESSION"}};
    for (const auto& t : vm->sources()) {
        const std::string folder =
            t.clips.empty() ? std::string("-") : t.clips.front().url.deletingLastPathComponent().path();
        rows.push_back({terminalSafe(t.name), std::string(rawValue(t.type)), std::to_string(t.clips.size()),
                        t.lockedGrouping ? "yes" : "no", terminalSafe(t.subtitle()), terminalSafe(folder),
                        terminalSafe(t.session.empty() ? "-" : t.session)});
    }
    printTable(rows);
    std::cout << fmt::format("{} track{}, {} clip{}\n", vm->sources().size(),
                             vm->sources().size() == 1 ? "" : "s", vm->totalClipCount(),
                             vm->totalClipCount() == 1 ? "" : "s");
    return kExitOK;
}

} // namespace trelvane::cli
