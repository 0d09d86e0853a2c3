// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The subcommands of `trelvane`. Each parses nothing itself: main.cpp fills its options struct,
// the command runs the session and returns the documented exit status.

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

namespace trelvane::cli {

// Exit statuses of every command.
inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1; // a path that doesn't exist, a failed run
inline constexpr int kExitUsage = 2;
inline constexpr int kExitInterrupted = 130; // Ctrl-C during a sync: cancelled, nothing written

struct CommonOptions {
    bool verbose = false; // echo the log on standard error
};

// How the command answers one of the controller's grouping prompts.
enum class PromptAnswer { accept, reject };

struct ScanOptions {
    std::vector<std::string> paths;
    bool json = false;
    bool analyze = false; // decode and analyse every clip, with progress on standard error
    PromptAnswer cameraGroups = PromptAnswer::accept;
    PromptAnswer dayRegions = PromptAnswer::accept;
};

void addScanCommand(CLI::App& app, ScanOptions& options);
int runScan(const ScanOptions& options, const CommonOptions& common);

// `trelvane probe FILE... [--json]`: what the metadata readers find in each file.
struct ProbeOptions {
    std::vector<std::string> files;
    bool json = false;
};

void addProbeCommand(CLI::App& app, ProbeOptions& options);
int runProbe(const ProbeOptions& options, const CommonOptions& common);

// `trelvane sync PATH...`: the whole chain headless, from scan to synchronised timeline.
struct SyncOptions {
    std::vector<std::string> paths;
    std::string mode = "tracks"; // or "stacks"
    PromptAnswer cameraGroups = PromptAnswer::accept;
    PromptAnswer dayRegions = PromptAnswer::accept;
    bool noCloseGaps = false;
    std::string report; // session JSON after the sync; empty: none
    bool table = false; // print every clip's placement
    std::vector<std::string> exports; // premiere|resolve|fcpxml|otio, each written once
    std::optional<double> fps;
    std::string channels = "per-channel";
    std::string output; // with one --export only; empty: the default name in the current folder
    bool force = false;
};

void addSyncCommand(CLI::App& app, SyncOptions& options);
int runSync(const SyncOptions& options, const CommonOptions& common);

// Shared by the commands: starts the log file and, with --verbose, echoes it on standard error.
void startLogging(const CommonOptions& common);
// Text made safe for a terminal: control characters escaped, invalid UTF-8 repaired.
std::string terminalSafe(const std::string& text);

} // namespace trelvane::cli
