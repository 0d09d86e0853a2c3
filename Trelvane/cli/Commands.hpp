// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The subcommands of `trelvane`. Each parses nothing itself: main.cpp fills its options struct,
// the command runs the session and returns the documented exit status.

#include <CLI/CLI.hpp>
#include <optional>
#include <streambuf>
#include <string>
#include <vector>

namespace trelvane::cli {

// Exit statuses of every command, as `--help` and the README list them.
inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure =
    1; // a path that doesn't exist, a file that can't be written, a failed run
inline constexpr int kExitUsage = 2;
inline constexpr int kExitTooFewDevices = 3; // fewer than two devices with sound that can be matched
inline constexpr int kExitInterrupted = 130; // Ctrl-C: the run stopped where it stood, nothing written
inline constexpr int kExitTerminated = 143;  // SIGTERM, as from a batch scheduler: the same as Ctrl-C

struct ExitStatus {
    int code;
    const char* meaning;
};
inline constexpr ExitStatus kExitStatuses[] = {
    {kExitOK, "success"},
    {kExitFailure, "a path does not exist, a file cannot be read or written, or the run failed"},
    {kExitUsage, "the command line is wrong (unknown option, bad value, missing path)"},
    {kExitTooFewDevices, "fewer than two devices have sound that can be read, so nothing can be synced"},
    {kExitInterrupted, "interrupted by Ctrl-C; nothing was written"},
    {kExitTerminated, "stopped by SIGTERM (a batch scheduler's time limit, kill); nothing was written"},
};

struct CommonOptions {
    bool verbose = false; // echo the log on standard error
    bool quiet = false;   // no progress bar
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
    std::string report;               // session JSON after the sync ("-": standard output); empty: none
    bool table = false;               // print every clip's placement
    std::vector<std::string> exports; // premiere|resolve|fcpxml|otio, each written once
    std::optional<double> fps;
    std::string channels = "per-channel";
    std::string output; // with one --export only ("-": standard output); empty: the default name in the
                        // current folder
    bool force = false; // replace existing files (report and documents)
};

void addSyncCommand(CLI::App& app, SyncOptions& options);
int runSync(const SyncOptions& options, const CommonOptions& common);

// `trelvane help [COMMAND]`: the help of the program or of one command.
struct HelpOptions {
    std::string command;
};
void addHelpCommand(CLI::App& app, HelpOptions& options);
int runHelp(const CLI::App& app, const HelpOptions& options);

// The sentence for a command line that could not be parsed, in the program's words, and a hint
// where to look; printed on standard error.
void printUsageError(const CLI::App& app, const CLI::ParseError& error);

// Standard output for the whole run, through a buffer that keeps the reason of the first failed
// write (a full disk, `> /dev/full`). `finish` flushes it: a failure turns a success into status 1
// with a message. Lives in main, around everything that prints.
class CheckedStandardOutput : public std::streambuf {
  public:
    CheckedStandardOutput();
    ~CheckedStandardOutput() override;
    CheckedStandardOutput(const CheckedStandardOutput&) = delete;
    CheckedStandardOutput& operator=(const CheckedStandardOutput&) = delete;

    int finish(int status);

  protected:
    int overflow(int c) override;
    int sync() override;

  private:
    bool drain();

    std::streambuf* previous_ = nullptr;
    int error_ = 0;
    char buffer_[1 << 16];
};

// Shared by the commands: starts the log file and, with --verbose, echoes it on standard error.
void startLogging(const CommonOptions& common);
// Text made safe for a terminal: control characters escaped, invalid UTF-8 repaired.
std::string terminalSafe(const std::string& text);

} // namespace trelvane::cli
