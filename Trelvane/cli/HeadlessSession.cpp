// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/cli/HeadlessSession.hpp"
#include "Trelvane/cli/Usage.hpp"
#include "Trelvane/session/ProductStages.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>
#include <map>
#include <set>
#include <unistd.h>

namespace trelvane::cli {

namespace {

// Columns in display width: every UTF-8 lead byte or ASCII byte counts one.
std::size_t displayWidth(const std::string& s) {
    return static_cast<std::size_t>(std::count_if(
        s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
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
            << " clips  ·  clock " << rawName(p.clockQuality) << ")  "
            << terminalSafe(joined(p.trackNames, ", ")) << "\n";
    }
    return accepted;
}

} // namespace

ProgressReport::ProgressReport(const SyncViewModel& vm, bool wanted)
    : vm_(vm), shown_(wanted && ::isatty(STDERR_FILENO) == 1) {}

void ProgressReport::update() {
    if (!shown_) return;
    const AppState& state = vm_.state();
    if (state.is(AppState::Kind::extracting)) {
        int done = 0, total = 0;
        for (const auto& t : vm_.sources())
            for (const auto& c : t.clips) {
                ++total;
                done += c.cachedEnvelope || c.audioUsability != AudioUsability::ok;
            }
        draw("analysing", state.progress,
             fmt::format("clip {}/{}  {}", std::min(done + 1, total), total, terminalSafe(state.current)),
             state.current != lastStep_);
        lastStep_ = state.current;
    } else if (state.is(AppState::Kind::syncing)) {
        const int step = static_cast<int>(vm_.syncProgress() * 20);
        const std::string key = std::to_string(step);
        draw("syncing", vm_.syncProgress(),
             fmt::format("{} synced  {} weak  {} failed", vm_.syncedCount(), vm_.weakCount(),
                         vm_.failedCount()),
             key != lastStep_);
        lastStep_ = key;
    }
}

void ProgressReport::draw(const std::string& stage, double fraction, const std::string& detail,
                          bool newStep) {
    const auto now = std::chrono::steady_clock::now();
    if (stage != lastStage_) {
        if (drawn_) std::fprintf(stderr, "\n");
        started_ = now;
        lastStage_ = stage;
        newStep = true;
    }
    lastDetail_ = detail;
    if (!newStep && now - lastDraw_ < std::chrono::milliseconds(100)) return;
    lastDraw_ = now;
    const double p = std::clamp(fraction, 0.0, 1.0);
    lastFraction_ = p;
    const double elapsed = std::chrono::duration<double>(now - *started_).count();
    std::string eta = "about --:-- left";
    if (p >= 1) {
        const auto took = static_cast<long long>(elapsed + 0.5);
        eta = fmt::format("took {}:{:02}", took / 60, took % 60);
    } else if (p > 0.02) {
        const auto left = static_cast<long long>(elapsed * (1 - p) / p + 0.5);
        eta = fmt::format("about {}:{:02} left", left / 60, left % 60);
    }
    constexpr int kWidth = 30;
    const int filled = static_cast<int>(p * kWidth);
    const std::string line = fmt::format("{:<9} [{}{}] {:3.0f}%  {}  {}", stage, std::string(filled, '#'),
                                         std::string(kWidth - filled, '.'), p * 100, detail, eta);
    std::fprintf(stderr, "\r%-110s", line.c_str());
    drawn_ = true;
}

void ProgressReport::finish(bool completed) {
    if (completed && drawn_ && lastFraction_ < 1) draw(lastStage_, 1.0, lastDetail_, true);
    if (drawn_) std::fprintf(stderr, "\n");
    drawn_ = false;
    lastStage_.clear();
    lastFraction_ = 0;
}

namespace {

// The signal that asked the run to stop, 0 while none has.
std::atomic<int> interruptSignal{0};

extern "C" void onInterrupt(int signal) {
    interruptSignal.store(signal);
}

} // namespace

Interruption::Interruption() {
    interruptSignal.store(0);
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    // The handler is used once: a second Ctrl-C finds the default again and ends the program.
    action.sa_flags = SA_RESETHAND;
    ::sigaction(SIGINT, &action, &previousInt_);
    // A batch scheduler ends a job past its time with SIGTERM: it stops the run the same way, so
    // that no half-written output is left behind.
    ::sigaction(SIGTERM, &action, &previousTerm_);
}

Interruption::~Interruption() {
    ::sigaction(SIGINT, &previousInt_, nullptr);
    ::sigaction(SIGTERM, &previousTerm_, nullptr);
}

bool Interruption::requested() {
    return interruptSignal.load() != 0;
}

int Interruption::report(ProgressReport& progress) {
    progress.finish(false);
    std::cout.flush();
    std::cerr << "trelvane: cancelled — nothing written\n";
    return interruptSignal.load() == SIGTERM ? kExitTerminated : kExitInterrupted;
}

HeadlessSession::HeadlessSession(SessionStages stages, std::optional<std::string> syncMode,
                                 std::optional<bool> autoCloseGaps)
    : settings(Settings::defaultPath(), Settings::Writes::inMemoryOnly) {
    if (syncMode) settings.setString(Settings::kSyncModeKey, *syncMode);
    if (autoCloseGaps) settings.setBool(Settings::kAutoCloseGapsKey, *autoCloseGaps);
    vm = SyncViewModel::create(queue, settings, std::move(stages));
}

bool ingest(HeadlessSession& session, const std::vector<Url>& urls, PromptAnswer cameraGroups,
            PromptAnswer dayRegions, std::ostream& decisions, ProgressReport& progress, bool quiet,
            const std::function<bool()>& beforeAnalysis) {
    auto& vm = session.vm;
    bool asked = false, refused = false, stopped = false;
    // The session is dropped from the queue, never from inside a notification.
    const auto stop = [&] {
        if (stopped || !vm->isIngesting()) return;
        stopped = true;
        vm->cleanProject();
    };
    auto answers = vm->observe([&](Published what) {
        if (what == Published::pendingCameraGroups && vm->pendingCameraGroups()) {
            vm->confirmCameraGroups(answerCameraGroups(*vm->pendingCameraGroups(), cameraGroups, decisions));
        } else if (what == Published::pendingDayRegions && vm->pendingDayRegions()) {
            vm->confirmDayRegions(answerDayRegions(*vm->pendingDayRegions(), dayRegions, decisions));
        } else if (what == Published::pendingStackModeOffer && vm->pendingStackModeOffer()) {
            // The command keeps the mode it was given; the offer is told, not taken.
            if (!quiet) {
                progress.finish(true);
                std::cerr << "note: " << vm->pendingStackModeOffer()->title
                          << " — run with --mode stacks to stack them\n";
            }
            vm->answerStackModeOffer(false);
        } else if (what == Published::state) {
            if (!asked && beforeAnalysis && vm->state().is(AppState::Kind::extracting)) {
                asked = true;
                refused = !beforeAnalysis();
                if (refused) session.queue.post(stop);
            }
            progress.update();
        }
    });
    // The run loop wakes at least this often, so that Ctrl-C is seen even while the workers are
    // quiet.
    auto poll = session.queue.every(0.1, [&] {
        if (Interruption::requested()) stop();
    });
    vm->ingestURLs(urls);
    session.queue.runUntil([&vm] { return !vm->isIngesting(); });
    poll.reset();
    stopped = stopped || refused || Interruption::requested();
    if (!stopped) progress.finish(true);
    if (const auto skipped = vm->ingestEngine().skippedFolders.size(); skipped > 0 && !stopped)
        std::cerr << fmt::format(
            "trelvane: {} folder{} not searched — can't be read, too deep or with too long "
            "a path (the log names {})\n",
            skipped, skipped == 1 ? "" : "s", skipped == 1 ? "it" : "them");
    return !stopped;
}

void addPromptOptions(CLI::App& command, PromptAnswer& cameraGroups, PromptAnswer& dayRegions) {
    const auto answer = [](PromptAnswer& into) {
        return [&into](const std::string& word) {
            into = word == "reject" ? PromptAnswer::reject : PromptAnswer::accept;
        };
    };
    const std::vector<std::string> words{"accept", "reject"};
    addChoice(command, "--camera-groups", words, "accept", answer(cameraGroups),
              "Tracks that look like one camera over several cards");
    addChoice(command, "--day-regions", words, "accept", answer(dayRegions),
              "Tracks whose clocks put them in different parts of the day");
}

std::optional<std::vector<Url>> existingPaths(const std::vector<std::string>& paths) {
    std::vector<Url> urls;
    for (const auto& p : paths) {
        const Url url = Url::fromPath(p);
        if (!Files::kindOf(url.fsPath()).exists) {
            std::cerr << "trelvane: no such file or folder: " << terminalSafe(p) << '\n';
            return std::nullopt;
        }
        urls.push_back(url);
    }
    return urls;
}

void printTable(const std::vector<std::vector<std::string>>& rows, std::ostream& out) {
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
        out << line << '\n';
    }
}

std::string optionalText(const std::optional<std::string>& v) {
    return v ? terminalSafe(*v) : std::string("-");
}

} // namespace trelvane::cli
