// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane scan PATH...`: adds the paths to a session and prints its tracks.
#include "Trelvane/cli/Commands.hpp"
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
#include <map>
#include <optional>
#include <set>
#include <unistd.h>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>

namespace trelvane::cli {

void addScanCommand(CLI::App& app, ScanOptions& options) {
    auto* cmd = app.add_subcommand("scan", "Group the media under the paths into tracks and print them");
    cmd->add_option("paths", options.paths, "Folders or media files of the shoot")->required();
    cmd->add_flag("--json", options.json, "Print the session as JSON");
    cmd->add_flag("--analyze", options.analyze, "Decode and analyse the audio of every clip");
    const std::map<std::string, PromptAnswer> answers{{"accept", PromptAnswer::accept},
                                                      {"reject", PromptAnswer::reject}};
    cmd->add_option("--camera-groups", options.cameraGroups, "Tracks that look like one camera over several cards")
        ->transform(CLI::CheckedTransformer(answers, CLI::ignore_case))
        ->default_str("accept");
    cmd->add_option("--day-regions", options.dayRegions, "Tracks whose clocks put them in different parts of the day")
        ->transform(CLI::CheckedTransformer(answers, CLI::ignore_case))
        ->default_str("accept");
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

namespace {

// The overall progress of the analysis on standard error: a bar redrawn in place on a terminal,
// a line per clip otherwise (a log file or a pipe has no use for carriage returns).
class ProgressReport {
public:
    explicit ProgressReport(const SyncViewModel& vm) : vm_(vm), tty_(::isatty(STDERR_FILENO) == 1) {}

    void update() {
        const AppState& state = vm_.state();
        if (!state.is(AppState::Kind::extracting)) return;
        const auto now = std::chrono::steady_clock::now();
        if (!started_) started_ = now;
        const bool newClip = state.current != lastClip_;
        if (!newClip && tty_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
        if (!newClip && !tty_) return;
        lastDraw_ = now;
        lastClip_ = state.current;

        int done = 0, total = 0;
        for (const auto& t : vm_.sources())
            for (const auto& c : t.clips) {
                ++total;
                done += c.cachedEnvelope || c.audioUsability != AudioUsability::ok;
            }
        const double p = std::clamp(state.progress, 0.0, 1.0);
        const double elapsed = std::chrono::duration<double>(now - *started_).count();
        std::string eta = "--:--";
        if (p > 0.02) {
            const auto left = static_cast<long long>(elapsed * (1 - p) / p + 0.5);
            eta = fmt::format("{}:{:02}", left / 60, left % 60);
        }
        constexpr int kWidth = 30;
        const int filled = static_cast<int>(p * kWidth);
        const std::string line = fmt::format("[{}{}] {:3.0f}%  clip {}/{}  {}  about {} left", std::string(filled, '#'),
                                             std::string(kWidth - filled, '.'), p * 100, std::min(done + 1, total),
                                             total, terminalSafe(state.current), eta);
        if (tty_)
            std::fprintf(stderr, "\r%-100s", line.c_str());
        else
            std::fprintf(stderr, "%s\n", line.c_str());
        drawn_ = true;
    }

    void finish() {
        if (drawn_ && tty_) std::fprintf(stderr, "\n");
    }

private:
    const SyncViewModel& vm_;
    const bool tty_;
    std::optional<std::chrono::steady_clock::time_point> started_;
    std::chrono::steady_clock::time_point lastDraw_{};
    std::string lastClip_;
    bool drawn_ = false;
};

std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? separator : "") + parts[i];
    return out;
}

std::set<Uuid> answerCameraGroups(const std::vector<CameraGroupProposal>& proposals, PromptAnswer answer,
                                  std::ostream& out) {
    std::set<Uuid> accepted;
    for (const auto& p : proposals) {
        if (answer == PromptAnswer::accept) accepted.insert(p.id);
        out << (answer == PromptAnswer::accept ? "camera group accepted: " : "camera group rejected: ")
            << terminalSafe(joined(p.trackNames, "  →  ")) << "  (" << p.clipCount << " clips  ·  prefix "
            << terminalSafe(p.filenamePrefix) << "  ·  " << terminalSafe(p.sequenceHint) << ")\n";
    }
    return accepted;
}

std::set<Uuid> answerDayRegions(const std::vector<DayRegionProposal>& proposals, PromptAnswer answer,
                                std::ostream& out) {
    std::set<Uuid> accepted;
    for (const auto& p : proposals) {
        if (answer == PromptAnswer::accept) accepted.insert(p.id);
        out << (answer == PromptAnswer::accept ? "day region accepted: " : "day region rejected: ")
            << terminalSafe(p.label) << "  (" << terminalSafe(p.timeRangeHint()) << "  ·  " << p.clipCount
            << " clips  ·  clock " << rawName(p.clockQuality) << ")  " << terminalSafe(joined(p.trackNames, ", "))
            << "\n";
    }
    return accepted;
}

std::string optionalText(const std::optional<std::string>& v) { return v ? terminalSafe(*v) : std::string("-"); }

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
    SessionStages stages = productStages();
    // Without --analyze the scan stops short of decoding: grouping needs only the metadata.
    if (!options.analyze) stages.extractClip = nullptr;
    auto vm = SyncViewModel::create(queue, settings, std::move(stages));
    // What was decided goes where it can't spoil the JSON document.
    std::ostream& decisions = options.json ? std::cerr : std::cout;
    ProgressReport progress(*vm);
    auto answers = vm->observe([&](Published what) {
        if (what == Published::pendingCameraGroups && vm->pendingCameraGroups()) {
            vm->confirmCameraGroups(answerCameraGroups(*vm->pendingCameraGroups(), options.cameraGroups, decisions));
        } else if (what == Published::pendingDayRegions && vm->pendingDayRegions()) {
            vm->confirmDayRegions(answerDayRegions(*vm->pendingDayRegions(), options.dayRegions, decisions));
        } else if (what == Published::pendingStackModeOffer && vm->pendingStackModeOffer()) {
            // The command keeps the mode it was given; the offer is told, not taken.
            std::cerr << "note: " << vm->pendingStackModeOffer()->title << " — run with --mode stacks to stack them\n";
            vm->answerStackModeOffer(false);
        } else if (what == Published::state) {
            progress.update();
        }
    });
    vm->ingestURLs(urls);
    queue.runUntil([&vm] { return !vm->isIngesting(); });
    progress.finish();

    if (options.json) {
        std::cout << SessionJson::dump(vm->sources()) << '\n';
        return kExitOK;
    }
    std::vector<std::vector<std::string>> rows{
        {"TRACK", "TYPE", "CLIPS", "LOCKED", "SUBTITLE", "GROUP", "DAY", "SIBLING OF", "FIRST FOLDER", "SESSION"}};
    for (const auto& t : vm->sources()) {
        const std::string folder =
            t.clips.empty() ? std::string("-") : t.clips.front().url.deletingLastPathComponent().path();
        std::optional<std::string> lead;
        if (t.siblingOf)
            for (const auto& other : vm->sources())
                if (other.id == *t.siblingOf) lead = other.name;
        rows.push_back({terminalSafe(t.name), std::string(rawValue(t.type)), std::to_string(t.clips.size()),
                        t.lockedGrouping ? "yes" : "no", terminalSafe(t.subtitle()), optionalText(t.cameraGroup),
                        optionalText(t.dayRegion), optionalText(lead), terminalSafe(folder),
                        terminalSafe(t.session.empty() ? "-" : t.session)});
    }
    printTable(rows);
    std::cout << fmt::format("{} track{}, {} clip{}\n", vm->sources().size(), vm->sources().size() == 1 ? "" : "s",
                             vm->totalClipCount(), vm->totalClipCount() == 1 ? "" : "s");
    if (!options.analyze) return kExitOK;

    std::cout << '\n';
    std::vector<std::vector<std::string>> clips{
        {"TRACK", "CLIP", "SECONDS", "BAND FRAMES", "ENVELOPE", "AUDIO", "SOURCE"}};
    for (const auto& t : vm->sources())
        for (const auto& c : t.clips) {
            const bool analysed = c.cachedEnvelope.has_value();
            clips.push_back({terminalSafe(t.name), terminalSafe(c.url.lastPathComponent()),
                             fmt::format("{:.2f}", c.duration),
                             c.bandFeature ? std::to_string(c.bandFeature->frames) : std::string("-"),
                             analysed ? std::to_string(c.cachedEnvelope->size()) : std::string("-"),
                             std::string(rawValue(c.audioUsability)),
                             analysed ? (vm->wasServedFromCache(c.id) ? "cache" : "decoded")
                                      : (c.audioUsability == AudioUsability::ok ? "failed" : "-")});
        }
    printTable(clips);
    return kExitOK;
}

} // namespace trelvane::cli
