// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane scan PATH...`: adds the paths to a session and prints its tracks.
#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/cli/HeadlessSession.hpp"
#include "Trelvane/session/AppLog.hpp"
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/SessionJson.hpp"
#include "Trelvane/session/SyncViewModel.hpp"
#include "TrelvaneEngine/media/FFmpegLog.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Files.hpp"
#include "TrelvaneEngine/support/Utf8.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <unistd.h>

namespace trelvane::cli {

void addScanCommand(CLI::App& app, ScanOptions& options) {
    auto* cmd = app.add_subcommand("scan", "Group the media under the paths into tracks and print them")
                    ->group("Commands");
    cmd->add_option("PATH", options.paths, "Folders or media files of the shoot")
        ->required()
        ->option_text("...");
    cmd->add_flag("--json", options.json, "Print the session as JSON");
    cmd->add_flag("--analyze", options.analyze, "Decode and analyse the audio of every clip");
    addPromptOptions(*cmd, options.cameraGroups, options.dayRegions);
}

void startLogging(const CommonOptions& common) {
    AppLog::start(AppLog::Mode::fileOnly);
    FFmpegLog::routeToEngineLog();
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
        if (const std::size_t len = Utf8::sequenceLength(text, i); len > 0) {
            out.append(text, i, len);
            i += len;
        } else {
            out += Utf8::kReplacement;
            ++i;
        }
    }
    return out;
}

int runScan(const ScanOptions& options, const CommonOptions& common) {
    const auto urls = existingPaths(options.paths);
    if (!urls) return kExitFailure;
    startLogging(common);
    Interruption interruption;

    SessionStages stages = productStages();
    // Without --analyze the scan stops short of decoding: grouping needs only the metadata.
    if (!options.analyze) stages.extractClip = nullptr;
    HeadlessSession session(std::move(stages), std::nullopt, std::nullopt);
    auto& vm = session.vm;
    // What was decided goes where it can't spoil the JSON document.
    std::ostream& decisions = options.json ? std::cerr : std::cout;
    ProgressReport progress(*vm, !common.quiet && !common.verbose);
    if (!ingest(session, *urls, options.cameraGroups, options.dayRegions, decisions, progress, common.quiet))
        return Interruption::report(progress);

    if (options.json) {
        std::cout << SessionJson::dump(vm->sources()) << '\n';
        return kExitOK;
    }
    std::vector<std::vector<std::string>> rows{{"TRACK", "TYPE", "CLIPS", "LOCKED", "SUBTITLE", "GROUP",
                                                "DAY", "SIBLING OF", "FIRST FOLDER", "SESSION"}};
    for (const auto& t : vm->sources()) {
        const std::string folder =
            t.clips.empty() ? std::string("-") : t.clips.front().url.deletingLastPathComponent().path();
        std::optional<std::string> lead;
        if (t.siblingOf)
            for (const auto& other : vm->sources())
                if (other.id == *t.siblingOf) lead = other.name;
        rows.push_back({terminalSafe(t.name), std::string(rawValue(t.type)), std::to_string(t.clips.size()),
                        t.lockedGrouping ? "yes" : "no", terminalSafe(t.subtitle()),
                        optionalText(t.cameraGroup), optionalText(t.dayRegion), optionalText(lead),
                        terminalSafe(folder), terminalSafe(t.session.empty() ? "-" : t.session)});
    }
    printTable(rows, std::cout);
    std::cout << fmt::format("{} track{}, {} clip{}\n", vm->sources().size(),
                             vm->sources().size() == 1 ? "" : "s", vm->totalClipCount(),
                             vm->totalClipCount() == 1 ? "" : "s");
    if (!options.analyze) return kExitOK;

    std::cout << '\n';
    std::vector<std::vector<std::string>> clips{
        {"TRACK", "CLIP", "SECONDS", "BAND FRAMES", "ENVELOPE", "AUDIO", "SOURCE"}};
    int unreadable = 0;
    for (const auto& t : vm->sources())
        for (const auto& c : t.clips) {
            const bool analysed = c.cachedEnvelope.has_value();
            // A clip whose sound was neither analysed nor found wanting (silent, no track) failed,
            // whatever its mark says.
            const bool failed = c.audioProblem || (!analysed && c.audioUsability == AudioUsability::ok);
            if (failed) {
                ++unreadable;
                std::cerr << "trelvane: can't read " << terminalSafe(c.url.path()) << ": "
                          << terminalSafe(c.audioProblem.value_or("its sound was not analysed")) << '\n';
            }
            clips.push_back({terminalSafe(t.name), terminalSafe(c.url.lastPathComponent()),
                             fmt::format("{:.2f}", c.duration),
                             c.bandFeature ? std::to_string(c.bandFeature->frames) : std::string("-"),
                             analysed ? std::to_string(c.cachedEnvelope->size()) : std::string("-"),
                             failed ? "undecodable" : std::string(rawValue(c.audioUsability)),
                             analysed ? (vm->wasServedFromCache(c.id) ? "cache" : "decoded")
                                      : (failed ? "failed" : "-")});
            if (c.audioCutShort) clips.back()[5] += " (cut short)";
        }
    printTable(clips, std::cout);
    // As `probe` does: every clip is shown, and one whose sound can't be read fails the run.
    return unreadable > 0 ? kExitFailure : kExitOK;
}

} // namespace trelvane::cli
