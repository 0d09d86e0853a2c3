// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the commands that drive a whole session share: the controller on a headless main queue, the
// grouping prompts answered from flags, and a progress bar on standard error.

#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/session/MainQueue.hpp"
#include "Trelvane/session/Settings.hpp"
#include "Trelvane/session/SyncViewModel.hpp"
#include "TrelvaneEngine/support/Text.hpp"

#include <chrono>
#include <csignal>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trelvane::cli {

// The overall progress of a long stage on standard error, as a bar redrawn in place. Only on a
// terminal: a log file or a pipe has no use for it. A stage that ran to its end ends at 100 %.
class ProgressReport {
  public:
    // `wanted`: neither --quiet nor --verbose was given; even then the bar shows only on a terminal.
    ProgressReport(const SyncViewModel& vm, bool wanted);
    // Redraws for the controller's state: extraction (per clip) or synchronisation.
    void update();
    // Ends the bar's line: at 100 % when the stage ran to its end, where it stood otherwise.
    void finish(bool completed);

  private:
    void draw(const std::string& stage, double fraction, const std::string& detail, bool newStep);

    const SyncViewModel& vm_;
    const bool shown_;
    std::optional<std::chrono::steady_clock::time_point> started_;
    std::chrono::steady_clock::time_point lastDraw_{};
    std::string lastStage_, lastStep_, lastDetail_;
    double lastFraction_ = 0;
    bool drawn_ = false;
};

// Ctrl-C (or SIGTERM) while a command runs. The first asks the running phase to stop where it
// stands (scan, analysis and synchronisation alike); a second one ends the program at once, as
// Ctrl-C always did. One per command, for its whole run; the previous handling comes back when it goes.
class Interruption {
  public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    static bool requested();
    // The one message, on a line of its own, and the status to exit with.
    static int report(ProgressReport& progress);

  private:
    struct sigaction previousInt_ {};
    struct sigaction previousTerm_ {};
};

// A session controller driven from the command line.
struct HeadlessSession {
    HeadlessSession(SessionStages stages, std::optional<std::string> syncMode,
                    std::optional<bool> autoCloseGaps);

    HeadlessMainQueue queue;
    // The user's settings, read; what the flags change stays in memory.
    Settings settings;
    std::shared_ptr<SyncViewModel> vm;
};

// Adds the paths and runs the ingest chain (metadata, grouping, and extraction when the stages
// have it) to its end, answering the grouping prompts as the flags say and printing the decisions
// on `decisions`. The stack-mode offer is told on standard error (unless `quiet`) and declined.
// `beforeAnalysis`, when given, is asked once as the analysis starts, with the clips known; when
// it answers false the ingest stops there, as it does on Ctrl-C. False when the ingest stopped.
bool ingest(HeadlessSession& session, const std::vector<Url>& urls, PromptAnswer cameraGroups,
            PromptAnswer dayRegions, std::ostream& decisions, ProgressReport& progress, bool quiet,
            const std::function<bool()>& beforeAnalysis = {});

// The --camera-groups and --day-regions options of a command that runs the ingest chain.
void addPromptOptions(CLI::App& command, PromptAnswer& cameraGroups, PromptAnswer& dayRegions);

// The paths as URLs, or an error line on standard error and nothing when one doesn't exist.
std::optional<std::vector<Url>> existingPaths(const std::vector<std::string>& paths);

void printTable(const std::vector<std::vector<std::string>>& rows, std::ostream& out);
std::string optionalText(const std::optional<std::string>& v);

} // namespace trelvane::cli
