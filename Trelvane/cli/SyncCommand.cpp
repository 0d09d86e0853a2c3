// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane sync PATH...`: scan, metadata, grouping, analysis, synchronisation and close gaps,
// headless, then the summary and, on request, the session as JSON.
#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/cli/HeadlessSession.hpp"
#include "Trelvane/cli/Usage.hpp"
#include "Trelvane/export/ExportFlow.hpp"
#include "Trelvane/export/ExportOptions.hpp"
#include "Trelvane/export/OutputFile.hpp"
#include "Trelvane/session/Notifier.hpp"
#include "Trelvane/session/ProductStages.hpp"
#include "Trelvane/session/SessionJson.hpp"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/printf.h>
#include <iostream>
#include <map>
#include <set>

namespace trelvane::cli {

namespace {

// The highest frame rate --fps takes, as the readers take none above it.
constexpr double kMostFps = 1000;

std::string scoreText(const std::optional<float>& score) {
    return score ? fmt::format("{:.1f}", *score) : std::string("-");
}

// "+12.3ppm", or "-" where the clip's clock was not measured (the report has its standard error).
std::string driftText(const ClipItem& clip) {
    return clip.driftPPM ? fmt::format("{:+.1f}ppm", *clip.driftPPM) : std::string("-");
}

// Each target once, in the order given.
std::vector<std::string> distinctExports(const SyncOptions& options) {
    std::vector<std::string> words;
    for (const auto& w : options.exports)
        if (std::find(words.begin(), words.end(), w) == words.end()) words.push_back(w);
    return words;
}

ExportRequest requestFor(const SyncOptions& options, const std::string& word) {
    ExportRequest request;
    request.target = *parseExportTarget(word);
    request.fps = options.fps;
    request.channels = *parseChannelLayout(options.channels);
    if (!options.output.empty()) request.output = options.output;
    request.force = options.force;
    return request;
}

bool writesStandardOutput(const SyncOptions& options) {
    return (!options.report.empty() && OutputFile::isStandardOutput(options.report)) ||
           (!options.output.empty() && OutputFile::isStandardOutput(options.output));
}

// Mistakes of the command line itself, told before anything is read.
std::optional<std::string> usageProblem(const SyncOptions& options) {
    if (!options.output.empty() && distinctExports(options).size() != 1)
        return "--output needs exactly one --export";
    if (!options.report.empty() && !options.output.empty()) {
        if (OutputFile::isStandardOutput(options.report) && OutputFile::isStandardOutput(options.output))
            return "--report and --output can't both go to standard output";
        const auto absolute = [](const std::string& p) {
            return std::filesystem::absolute(p).lexically_normal();
        };
        if (absolute(options.report) == absolute(options.output))
            return "--report and --output name the same file";
    }
    return std::nullopt;
}

// What keeps an output from being written, as far as can be told: before the scan
// (`sessionKnown` false) only the files the user named, since a document's default name comes
// from the clips' folders.
std::optional<std::string> outputProblem(const SyncOptions& options, const std::vector<TrackSource>& sources,
                                         bool sessionKnown) {
    try {
        if (!options.report.empty()) OutputFile::check(options.report, options.force, sources);
        for (const auto& word : distinctExports(options)) {
            std::error_code ec;
            if (!sessionKnown &&
                (options.output.empty() || std::filesystem::is_directory(options.output, ec)))
                continue;
            checkExport(sources, requestFor(options, word), std::filesystem::current_path());
        }
    } catch (const OutputError& e) {
        return std::string(e.what());
    }
    return std::nullopt;
}

// Names every file whose sound can't be read, with the reason, and takes it out of the session
// as a user would in the window; the rest goes on. Gives how many were left out.
int leaveOutUnreadable(SyncViewModel& vm) {
    std::vector<Uuid> unreadable;
    for (const auto& t : vm.sources())
        for (const auto& c : t.clips)
            if (c.audioProblem) {
                std::cerr << "trelvane: can't read " << terminalSafe(c.url.path()) << ": "
                          << terminalSafe(*c.audioProblem) << " — left out\n";
                unreadable.push_back(c.id);
            }
    if (unreadable.empty()) return 0;
    vm.clearSelection();
    for (const auto& id : unreadable)
        vm.toggleClipSelection(id);
    vm.deleteSelected();
    return static_cast<int>(unreadable.size());
}

// The devices (a recorder's channel tracks count once) with at least one clip whose sound was
// analysed, and the others; nothing when there are enough to sync.
std::optional<std::string> tooFewDevices(const Sources& sources) {
    std::vector<std::string> heard, deaf;
    std::set<Uuid> devices;
    for (const auto& t : sources) {
        const auto withSound = std::count_if(t.clips.begin(), t.clips.end(), [](const ClipItem& c) {
            return c.audioUsability == AudioUsability::ok && c.cachedEnvelope;
        });
        const auto clips = static_cast<int>(t.clips.size());
        if (withSound > 0) {
            devices.insert(t.siblingOf.value_or(t.id));
            heard.push_back(fmt::format("{} ({} of {} clip{} with sound)", t.name, withSound, clips,
                                        clips == 1 ? "" : "s"));
        } else {
            deaf.push_back(
                fmt::format("{} ({} clip{}, none with sound)", t.name, clips, clips == 1 ? "" : "s"));
        }
    }
    if (devices.size() >= 2) return std::nullopt;
    std::string text = devices.empty() ? std::string("no device has sound that can be read")
                                       : "only one device has sound that can be read: " + joined(heard, ", ");
    if (!deaf.empty()) text += "; also found " + joined(deaf, ", ");
    return text + ". Syncing by sound needs at least two devices.";
}

int refuse(const std::string& reason) {
    std::cerr << "trelvane: " << terminalSafe(reason) << '\n';
    return kExitFailure;
}

} // namespace

void addSyncCommand(CLI::App& app, SyncOptions& options) {
    auto* cmd = app.add_subcommand("sync", "Line up every clip under the paths on one timeline by its sound")
                    ->group("Commands");
    cmd->add_option("PATH", options.paths, "Folders or media files of the shoot")
        ->required()
        ->option_text("...");
    addChoice(*cmd, "--mode", options.mode, {"tracks", "stacks"},
              "tracks: one timeline of all devices; stacks: repeated takes stacked");
    addPromptOptions(*cmd, options.cameraGroups, options.dayRegions);
    cmd->add_flag("--no-close-gaps", options.noCloseGaps, "Keep the pauses between clips on the timeline");
    cmd->add_option("--report", options.report,
                    "Write the synchronised session as JSON to FILE (- for standard output)")
        ->option_text("FILE");
    cmd->add_flag("--table", options.table, "Print every clip's place, status and how it was placed");
    addChoices(*cmd, "--export", options.exports, {"premiere", "resolve", "fcpxml", "otio"},
               "Write the timeline for an editor (may be repeated)");
    addRate(*cmd, "--fps", options.fps, kMostFps,
            "Timeline frame rate of the document (default: the footage's own)");
    addChoice(*cmd, "--channels", options.channels, {"per-channel", "mixed"}, "Audio of multi-channel clips");
    cmd->add_option("-o,--output", options.output,
                    "File to write, with a single --export (- for standard output)")
        ->option_text("FILE");
    cmd->add_flag("--force", options.force, "Replace existing files (the report and the documents)");
}

int runSync(const SyncOptions& options, const CommonOptions& common) {
    if (const auto problem = usageProblem(options)) {
        std::cerr << "trelvane: " << *problem << "\nRun 'trelvane help sync' for the options.\n";
        return kExitUsage;
    }
    const auto urls = existingPaths(options.paths);
    if (!urls) return kExitFailure;
    if (const auto problem = outputProblem(options, {}, false)) return refuse(*problem);
    startLogging(common);
    Interruption interruption;

    HeadlessSession session(productStages(), options.mode, !options.noCloseGaps);
    auto& vm = session.vm;
    // A report or document on standard output has it to itself; what is told goes beside it.
    std::ostream& out = writesStandardOutput(options) ? std::cerr : std::cout;
    ProgressReport progress(*vm, !common.quiet && !common.verbose);
    // Once the clips are known and before minutes of analysis, every output is checked again,
    // now against the session's media and with the documents' default names.
    std::optional<std::string> refusal;
    const bool ingested =
        ingest(session, *urls, options.cameraGroups, options.dayRegions, out, progress, common.quiet, [&] {
            refusal = outputProblem(options, vm->sources(), true);
            return !refusal;
        });
    if (refusal) {
        progress.finish(false);
        return refuse(*refusal);
    }
    if (!ingested) return Interruption::report(progress);
    if ((refusal = outputProblem(options, vm->sources(), true))) return refuse(*refusal);

    const int leftOut = leaveOutUnreadable(*vm);
    // Takes of one device can be stacked; only the tracks need a second device.
    if (const auto few = options.mode == "stacks" ? std::nullopt : tooFewDevices(vm->sources())) {
        std::cerr << "trelvane: nothing synced — " << terminalSafe(*few) << '\n';
        return kExitTooFewDevices;
    }

    std::optional<std::pair<std::string, std::string>> notice;
    Notifier::setPresenter([&notice](const std::string& title, const std::string& body) {
        notice = std::make_pair(title, body);
    });
    auto watch = vm->observe([&](Published what) {
        if (what == Published::state || what == Published::syncProgress) progress.update();
    });
    // The run loop wakes at least this often, so that Ctrl-C is seen even while the engine is
    // quiet.
    auto poll = session.queue.every(0.1, [&vm] {
        if (Interruption::requested() && vm->isSyncRunning()) vm->cancelSynchronization();
    });
    vm->synchronize();
    session.queue.runUntil([&] { return !vm->isSyncRunning() && !vm->state().is(AppState::Kind::syncing); });
    poll.reset();
    Notifier::setPresenter(nullptr);

    if (Interruption::requested()) return Interruption::report(progress);
    if (vm->state().is(AppState::Kind::error)) {
        progress.finish(false);
        std::cerr << "trelvane: " << terminalSafe(vm->errorMessage().value_or("synchronisation failed"))
                  << '\n';
        return kExitFailure;
    }
    progress.finish(true);

    if (options.table) {
        std::vector<std::vector<std::string>> rows{
            {"TRACK", "CLIP", "START", "END", "STATUS", "SCORE", "DRIFT", "PASS"}};
        for (const auto& t : vm->sources())
            for (const auto& c : t.clips)
                rows.push_back(
                    {terminalSafe(t.name), terminalSafe(c.url.lastPathComponent()),
                     fmt::format("{:.2f}", c.startOffset), fmt::format("{:.2f}", c.startOffset + c.duration),
                     std::string(rawValue(c.syncStatus)), scoreText(c.matchScore), driftText(c),
                     terminalSafe(c.placementPass ? std::string(rawValue(*c.placementPass)) : "-")});
        printTable(rows, out);
    }
    if (const auto& stacks = vm->lastStacks(); stacks && options.mode == "stacks") {
        // Each stack stands where its earliest take was laid.
        for (std::size_t k = 0; k < stacks->stacks.size(); ++k) {
            std::optional<double> at;
            for (const auto& t : vm->sources())
                for (const auto& c : t.clips)
                    if (stacks->stacks[k].positions.count(c.id) && (!at || c.startOffset < *at))
                        at = c.startOffset;
            out << fmt::sprintf("stack %d: %d take(s), %.1fs at %.1fs\n", static_cast<int>(k + 1),
                                static_cast<int>(stacks->stacks[k].positions.size()),
                                stacks->stacks[k].length, at.value_or(0.0));
        }
        if (!stacks->unmatched.empty())
            out << "unmatched: " << terminalSafe(joined(stacks->unmatched, ", ")) << '\n';
    }
    if (notice) out << terminalSafe(notice->first) << ": " << terminalSafe(notice->second) << '\n';
    if (const auto& failures = vm->failureSummary()) out << terminalSafe(*failures) << '\n';
    if (leftOut > 0)
        out << fmt::format("left out: {} file{} whose sound can't be read (listed above)\n", leftOut,
                           leftOut == 1 ? "" : "s");
    for (const auto& t : vm->sources())
        for (const auto& c : t.clips)
            if (c.audioCutShort)
                out << "cut short: " << terminalSafe(c.url.lastPathComponent())
                    << fmt::format(" — the file breaks off; its sound ends after {:.1f} s\n", c.duration);
    // A Ctrl-C after the synchronisation still leaves nothing written, and so does a file that
    // can no longer be written: every output is checked before the first is written.
    if (Interruption::requested()) return Interruption::report(progress);
    if ((refusal = outputProblem(options, vm->sources(), true))) return refuse(*refusal);

    if (!options.report.empty()) {
        try {
            OutputFile::write(options.report, SessionJson::dump(vm->sources()) + "\n", options.force,
                              vm->sources());
        } catch (const OutputError& e) {
            return refuse(e.what());
        }
        out << "report: " << terminalSafe(options.report) << '\n';
    }

    for (const auto& word : distinctExports(options)) {
        try {
            const auto written =
                runExport(vm->sources(), requestFor(options, word), std::filesystem::current_path());
            Notifier::stageDone(written.noticeTitle, written.noticeBody);
            out << word << ": " << terminalSafe(written.path.string()) << "  (" << written.summary.trackCount
                << " tracks, " << written.summary.clipCount << " clips, " << written.summary.durationString()
                << ")";
            if (const auto snap = written.summary.snapLine(written.options.target, written.options.fps))
                out << "  ·  " << *snap;
            out << '\n';
        } catch (const ExportError& e) {
            return refuse(e.what());
        }
    }
    return kExitOK;
}

} // namespace trelvane::cli
