// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane`: the command-line face of the session controller.
#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/cli/Usage.hpp"
#include "TrelvaneVersion.hpp"

#include <cstdio>
#include <fmt/format.h>

namespace {

int run(int argc, char** argv) {
    using namespace trelvane::cli;
    CLI::App app{"Trelvane: lines up the clips of a multi-camera shoot by their sound."};
    app.name("trelvane");
    app.set_version_flag("--version", std::string("trelvane ") + trelvane::kVersion);
    app.require_subcommand(1);
    app.fallthrough();
    useOwnWords(app);

    CommonOptions common;
    app.add_flag("-v,--verbose", common.verbose,
                 "Echo the log on standard error (instead of the progress bar)");
    app.add_flag("-q,--quiet", common.quiet, "No progress bar");

    ScanOptions scan;
    addScanCommand(app, scan);
    SyncOptions sync;
    addSyncCommand(app, sync);
    ProbeOptions probe;
    addProbeCommand(app, probe);
    HelpOptions help;
    addHelpCommand(app, help);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        printUsageError(app, e);
        return kExitUsage;
    }

    if (app.got_subcommand("scan")) return runScan(scan, common);
    if (app.got_subcommand("sync")) return runSync(sync, common);
    if (app.got_subcommand("probe")) return runProbe(probe, common);
    if (app.got_subcommand("help")) return runHelp(app, help);
    return kExitUsage;
}

} // namespace

int main(int argc, char** argv) {
    trelvane::cli::CheckedStandardOutput out;
    return out.finish(run(argc, argv));
}
