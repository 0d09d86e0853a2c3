// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/StatusLine.hpp"

#include <cmath>
#include <fmt/format.h>

namespace trelvane {

namespace {

int wholePercent(double fraction) {
    return static_cast<int>(std::lround(std::clamp(fraction, 0.0, 1.0) * 100.0));
}

std::string syncedText(const SyncViewModel& vm) {
    std::string text = fmt::format("{} synced", vm.syncedCount());
    if (vm.weakCount() > 0) text += fmt::format(" · {} weak", vm.weakCount());
    if (vm.failedCount() > 0) text += fmt::format(" · {} failed", vm.failedCount());
    if (vm.failureSummary()) text += "  ·  " + *vm.failureSummary();
    return text;
}

} // namespace

StatusLine statusLine(const SyncViewModel& vm) {
    using Kind = AppState::Kind;
    using Tone = StatusLine::Tone;
    if (const auto n = vm.selectedClipIDs().size(); n > 0)
        return {fmt::format("{} selected  ·  N → new track  ·  ⌫ delete", n), Tone::accent, false};
    const AppState& state = vm.state();
    switch (state.kind) {
    case Kind::idle: {
        const int clips = vm.totalClipCount();
        if (clips == 0) return {"No media loaded", Tone::plain, false};
        return {fmt::format("{} clip{} loaded", clips, clips == 1 ? "" : "s"), Tone::plain, false};
    }
    case Kind::extracting:
        return {fmt::format("Extracting {}  {}%", state.current, wholePercent(state.progress)), Tone::accent,
                false};
    case Kind::ready:
        if (vm.syncWasStopped()) return {"Synchronization stopped", Tone::plain, false};
        return {"Ready — press Synchronize", Tone::plain, false};
    case Kind::syncing:
        return {fmt::format("Synchronizing…  {}%", wholePercent(vm.syncProgress())), Tone::syncing, false};
    case Kind::synced:
        return {syncedText(vm), Tone::plain, vm.failedCount() > 0};
    case Kind::error:
        return {vm.errorMessage().value_or(""), Tone::plain, true};
    }
    return {};
}

} // namespace trelvane
