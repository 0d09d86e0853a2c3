// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the commands that drive a whole session share: the controller on a headless main queue, the
// grouping prompts answered from flags, and a progress bar on standard error.

#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/session/MainQueue.hpp"
#include "Trelvane/session/Settings.hpp"
#include "Trelvane/session/SyncViewModel.hpp"

#include <chrono>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trelvane::cli {

// The overall progress of a long stage on standard error: a bar redrawn in place on a terminal, a
// line per clip otherwise (a log file or a pipe has no use for carriage returns).
class ProgressReport {
  public:
    explicit ProgressReport(const SyncViewModel& vm);
    // Redraws for the controller's state: extraction (per clip) or synchronisation.
    void update();
    void finish();

  private:
    void draw(const std::string& stage, double fraction, const std::string& detail, bool newStep);

    const SyncViewModel& vm_;
    const bool tty_;
    std::optional<std::chrono::steady_clock::time_point> started_;
    std::chrono::steady_clock::time_point lastDraw_{};
    std::string lastStage_, lastStep_;
    bool drawn_ = false;
};

// A session controller driven from the command line.
struct HeadlessSession {
    HeadlessSession(SessionStages stages, std::optional<std::string> syncMode, std::optional<bool> autoCloseGaps);

    HeadlessMainQueue queue;
    // The user's settings, read; what the flags change stays in memory.
    Settings settings;
    std::shared_ptr<SyncViewModel> vm;
};

// Adds the paths and runs the ingest chain (metadata, grouping, and extraction when the stages
// have it) to its end, answering the grouping prompts as the flags say and printing the decisions
// on `decisions`. The stack-mode offer is told on standard error and declined.
void ingest(HeadlessSession& session, const std::vector<Url>& urls, PromptAnswer cameraGroups,
            PromptAnswer dayRegions, std::ostream& decisions, ProgressReport& progress);

// The --camera-groups and --day-regions options of a command that runs the ingest chain.
void addPromptOptions(CLI::App& command, PromptAnswer& cameraGroups, PromptAnswer& dayRegions);

// The paths as URLs, or an error line on standard error and nothing when one doesn't exist.
std::optional<std::vector<Url>> existingPaths(const std::vector<std::string>& paths);

void printTable(const std::vector<std::vector<std::string>>& rows, std::ostream& out);
std::string joined(const std::vector<std::string>& parts, const std::string& separator);
std::string optionalText(const std::optional<std::string>& v);

} // namespace trelvane::cli
