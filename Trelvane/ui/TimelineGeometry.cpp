// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/TimelineGeometry.hpp"

#include <algorithm>
#include <cmath>
#include <fmt/printf.h>

namespace trelvane::TimelineGeometry {

namespace {

// Round steps up to two hours; past that the ruler keeps two-hour ticks.
constexpr double kTickSteps[] = {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200};

std::string usabilityWord(AudioUsability usability) {
    switch (usability) {
    case AudioUsability::none:
        return "No audio";
    case AudioUsability::silent:
        return "Silent";
    case AudioUsability::undecodable:
        return "Undecodable";
    case AudioUsability::ok:
        break;
    }
    return {};
}

} // namespace

double rowTop(int trackIndex) {
    return kRulerHeight + kRowPitch * trackIndex;
}

double documentHeight(int trackCount) {
    return kRulerHeight + kRowPitch * std::max(0, trackCount);
}

Frame clipFrame(double time, double duration, double pxPerSec, int trackIndex) {
    const double width = std::max(0.0, duration) * pxPerSec;
    return {time * pxPerSec + kBodyLead, rowTop(trackIndex) + kBodyInset,
            std::max(kMinBodyWidth, width - kBodyTrim), kBodyHeight};
}

double tickInterval(double pxPerSec) {
    const double wanted = pxPerSec > 0 ? kTickSpacing / pxPerSec : kTickSteps[std::size(kTickSteps) - 1];
    for (double step : kTickSteps)
        if (step >= wanted) return step;
    return kTickSteps[std::size(kTickSteps) - 1];
}

std::string tickLabel(double seconds) {
    const auto total = static_cast<long long>(std::max(0.0, std::round(seconds)));
    const long long h = total / 3600, m = total / 60 % 60, s = total % 60;
    if (h == 0) return fmt::sprintf("0:%02d:%02d", m, s);
    return fmt::sprintf("%d:%02d:%02d", h, m, s);
}

bool showsLabel(double bodyWidth) {
    return bodyWidth > kMinLabelWidth;
}

std::string clipLabel(const ClipItem& clip) {
    std::string text = clip.url.baseName();
    if (clip.audioUsability != AudioUsability::ok) text += "  ·  " + usabilityWord(clip.audioUsability);
    if (clip.startTimecode) {
        const auto tc = static_cast<long long>(std::max(0.0, *clip.startTimecode));
        text += fmt::sprintf("  ·  TC%02d:%02d:%02d", tc / 3600, tc / 60 % 60, tc % 60);
    }
    return text;
}

std::string statusWord(const ClipItem& clip) {
    if (clip.audioUsability != AudioUsability::ok) return usabilityWord(clip.audioUsability);
    switch (clip.syncStatus) {
    case SyncStatus::pending:
        return "pending";
    case SyncStatus::synced:
        return "synced";
    case SyncStatus::weak:
        return "weak";
    case SyncStatus::failed:
        return "not matched";
    }
    return {};
}

std::string toolTipText(const ClipItem& clip) {
    return clip.url.lastPathComponent() + " · " + statusWord(clip) + "\n" + clip.placementExplanation();
}

} // namespace trelvane::TimelineGeometry
