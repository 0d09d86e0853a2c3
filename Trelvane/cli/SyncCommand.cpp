// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane sync PATH...`: scan, metadata, grouping, analysis, synchronisation and close gaps,
// headless, then the summary and, on request, the session as JSON.
#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/cli/HeadlessSession.hpp"
#include "Trelvane/export/ExportFlow.hpp"
#include "Trelvane/export/ExportOptions.hpp"
#include "Trelvane/session/Notifier.hpp"
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/SessionJson.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <atomic>
#include <csignal>
#include <fmt/format.h>
#include <fmt/printf.h>
#include <iostream>
#include <map>
#include <set>
#include <unistd.h>

namespace trelvane::cli {

namespace {

std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) {
    interrupted.store(true);
}

std::string scoreText(const std::optional<float>& score) {
    return score ? fmt::format("{:.1f}", *score) : std::string("-");
}

} // namespace

void addSyncCommand(CLI::App& app, SyncOptions& options) {
    auto* cmd = app.add_subcommand("sync", "Line up every clip under the paths on one timeline by its sound");
    cmd->add_option("paths", options.paths, "Folders or media files of the shoot")->required();
    cmd->add_option("--mode", options.mode, "tracks: one timeline of all devices; stacks: repeated takes stacked")
        ->check(CLI::IsMember({"tracks", "stacks"}))
        ->default_str("tracks");
    addPromptOptions(*cmd, options.cameraGroups, options.dayRegions);
    cmd->add_flag("--no-close-gaps", options.noCloseGaps, "Keep the pauses between clips on the timeline");
    cmd->add_option("--report", options.report, "Write the synchronised session as JSON to this file");
    cmd->add_flag("--table", options.table, "Print every clip's place, status and how it was placed");
    cmd->add_option("--export", options.exports,
                    "Write the timeline for an editor: " + std::string(kExportTargetChoices) + " (may be repeated)")
        ->check(CLI::IsMember({"premiere", "resolve", "fcpxml", "otio"}));
    cmd->add_option("--fps", options.fps, "Timeline frame rate of the document (default: the footage's own)")
        ->check(CLI::PositiveNumber);
    cmd->add_option("--channels", options.channels, "Audio of multi-channel clips: " +
                                                         std::string(kChannelLayoutChoices))
        ->check(CLI::IsMember({"per-channel", "mixed"}))
        ->default_str("per-channel");
    cmd->add_option("-o,--output", options.output, "File to write (with a single --export)");
    cmd->add_flag("--force", options.force, "Replace an existing document");
}

int runSync(const SyncOptions& options, const CommonOptions& common) {
    if (!options.output.empty() && options.exports.size() != 1) {
        std::cerr << "trelvane: --output needs exactly one --export\n";
        return kExitUsage;
    }
    const auto urls = existingPaths(options.paths);
    if (!urls) return kExitFailure;
    startLogging(common);

    HeadlessSession session(productStages(), options.mode, !options.noCloseGaps);
    auto& vm = session.vm;
    ProgressReport progress(*vm);
    ingest(session, *urls, options.cameraGroups, options.dayRegions, std::cout, progress);

    std::optional<std::pair<std::string, std::string>> notice;
    Notifier::setPresenter([&notice](const std::string& title, const std::string& body) {
        notice = std::make_pair(title, body);
    });
    auto watch = vm->observe([&](Published what) {
        if (what == Published::state || what == Published::syncProgress) progress.update();
    });
    interrupted.store(false);
    auto previous = std::signal(SIGINT, onInterrupt);
    // The run loop wakes at least this often, so that Ctrl-C is seen even while the engine is
    // quiet.
    auto poll = session.queue.every(0.1, [&vm] {
        if (interrupted.load() && vm->isSyncRunning()) vm->cancelSynchronization();
    });
    vm->synchronize();
    session.queue.runUntil([&] { return !vm->isSyncRunning() && !vm->state().is(AppState::Kind::syncing); });
    poll.reset();
    std::signal(SIGINT, previous);
    progress.finish();
    Notifier::setPresenter(nullptr);

    if (interrupted.load()) {
        std::cerr << "trelvane: sync cancelled — the session is as it was before, nothing written\n";
        return kExitInterrupted;
    }
    if (vm->state().is(AppState::Kind::error)) {
        std::cerr << "trelvane: " << terminalSafe(vm->errorMessage().value_or("synchronisation failed")) << '\n';
        return kExitFailure;
    }

    if (options.table) {
        std::vector<std::vector<std::string>> rows{{"TRACK", "CLIP", "START", "END", "STATUS", "SCORE", "PASS"}};
        for (const auto& t : vm->sources())
            for (const auto& c : t.clips)
                rows.push_back({terminalSafe(t.name), terminalSafe(c.url.lastPathComponent()),
                                fmt::format("{:.2f}", c.startOffset), fmt::format("{:.2f}", c.startOffset + c.duration),
                                std::string(rawValue(c.syncStatus)), scoreText(c.matchScore),
                                terminalSafe(c.placementPass.value_or("-"))});
        printTable(rows, std::cout);
    }
    if (const auto& stacks = vm->lastStacks(); stacks && options.mode == "stacks") {
        // Each stack stands where its earliest take was laid.
        for (std::size_t k = 0; k < stacks->stacks.size(); ++k) {
            std::optional<double> at;
            for (const auto& t : vm->sources())
                for (const auto& c : t.clips)
                    if (stacks->stacks[k].positions.count(c.id) && (!at || c.startOffset < *at)) at = c.startOffset;
            std::cout << fmt::sprintf("stack %d: %d take(s), %.1fs at %.1fs\n", static_cast<int>(k + 1),
                                      static_cast<int>(stacks->stacks[k].positions.size()), stacks->stacks[k].length,
                                      at.value_or(0.0));
        }
        if (!stacks->unmatched.empty())
            std::cout << "unmatched: " << terminalSafe(joined(stacks->unmatched, ", ")) << '\n';
    }
    if (notice) std::cout << terminalSafe(notice->first) << ": " << terminalSafe(notice->second) << '\n';
    if (const auto& failures = vm->failureSummary()) std::cout << terminalSafe(*failures) << '\n';

    if (!options.report.empty()) {
        if (const auto failure = Files::writeAtomically(options.report, SessionJson::dump(vm->sources()) + "\n")) {
            std::cerr << "trelvane: cannot write " << terminalSafe(options.report) << ": " << terminalSafe(*failure)
                      << '\n';
            return kExitFailure;
        }
        std::cout << "report: " << terminalSafe(options.report) << '\n';
    }

    std::set<std::string> done;
    for (const auto& word : options.exports) {
        if (!done.insert(word).second) continue;
        ExportRequest request;
        request.target = *parseExportTarget(word);
        request.fps = options.fps;
        request.channels = *parseChannelLayout(options.channels);
        if (!options.output.empty()) request.output = options.output;
        request.force = options.force;
        try {
            const auto written = runExport(vm->sources(), request, std::filesystem::current_path());
            std::cout << word << ": " << terminalSafe(written.path.string()) << "  (" << written.summary.trackCount
                      << " tracks, " << written.summary.clipCount << " clips, "
                      << written.summary.durationString() << ")\n";
        } catch (const ExportError& e) {
            std::cerr << "trelvane: " << terminalSafe(e.what()) << '\n';
            return kExitFailure;
        }
    }
    return kExitOK;
}

} // namespace trelvane::cli
