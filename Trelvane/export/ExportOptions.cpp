// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/ExportOptions.hpp"

#include "Trelvane/export/FCP7Exporter.hpp"

#include <algorithm>
#include <cmath>
#include <fmt/printf.h>

namespace trelvane {

std::string_view rawValue(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "premiere";
    case ExportTarget::finalCut:
        return "finalCut";
    case ExportTarget::resolve:
        return "resolve";
    case ExportTarget::otio:
        return "otio";
    }
    return "premiere";
}

std::optional<ExportTarget> exportTargetFromRaw(std::string_view raw) {
    for (const auto target : kAllExportTargets)
        if (rawValue(target) == raw) return target;
    return std::nullopt;
}

std::string_view fileExtension(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "xml";
    case ExportTarget::finalCut:
        return "fcpxml";
    case ExportTarget::resolve:
        return "xml";
    case ExportTarget::otio:
        return "otio";
    }
    return "xml";
}

std::string_view savePanelTitle(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "Export FCP7 XML for Premiere Pro";
    case ExportTarget::finalCut:
        return "Export FCPXML for Final Cut Pro";
    case ExportTarget::resolve:
        return "Export FCP7 XML for Premiere Pro / DaVinci Resolve";
    case ExportTarget::otio:
        return "Export OpenTimelineIO";
    }
    return "";
}

std::string_view fileNameSuffix(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "tv_premiere";
    case ExportTarget::finalCut:
        return "tv_fcp";
    case ExportTarget::resolve:
        return "tv_fcp7";
    case ExportTarget::otio:
        return "tv_otio";
    }
    return "";
}

std::string_view cliName(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "premiere";
    case ExportTarget::finalCut:
        return "fcpxml";
    case ExportTarget::resolve:
        return "resolve";
    case ExportTarget::otio:
        return "otio";
    }
    return "premiere";
}

std::optional<ExportTarget> parseExportTarget(std::string_view word) {
    for (const auto target : kAllExportTargets)
        if (cliName(target) == word) return target;
    return std::nullopt;
}

std::string_view rawValue(RateFamily family) {
    return family == RateFamily::pal ? "PAL" : "NTSC";
}

std::optional<RateFamily> rateFamilyFromRaw(std::string_view raw) {
    for (const auto family : kAllRateFamilies)
        if (rawValue(family) == raw) return family;
    return std::nullopt;
}

const std::vector<double>& ratesOffered(RateFamily family) {
    static const std::vector<double> pal{25, 50};
    static const std::vector<double> ntsc{23.976, 29.97, 59.94};
    return family == RateFamily::pal ? pal : ntsc;
}

namespace {

// Detected rates are rough (a container says 25.02); 0.6 keeps 24 and 25 apart.
constexpr double kRateTolerance = 0.6;

bool near(double a, double b) {
    return std::fabs(a - b) < kRateTolerance;
}

} // namespace

RateFamily defaultRateFamily(const std::vector<float>& detected) {
    for (const float rate : detected)
        if (near(rate, 25) || near(rate, 50)) return RateFamily::pal;
    return RateFamily::ntsc;
}

double preferredRate(RateFamily family, const std::vector<float>& detected) {
    const auto& rates = ratesOffered(family);
    for (const double rate : rates)
        for (const float d : detected)
            if (near(rate, d)) return rate;
    return rates.front();
}

std::vector<float> detectedFrameRates(const std::vector<TrackSource>& sources) {
    std::vector<float> rates;
    for (const auto& track : sources)
        for (const auto& clip : track.clips) {
            if (clip.frameRate && *clip.frameRate > 0)
                rates.push_back(*clip.frameRate);
            else if (clip.conformFrameRate && *clip.conformFrameRate > 0)
                rates.push_back(*clip.conformFrameRate);
        }
    return rates;
}

std::string_view rawValue(ChannelLayout layout) {
    return layout == ChannelLayout::perChannel ? "perChannel" : "mixed";
}

std::optional<ChannelLayout> channelLayoutFromRaw(std::string_view raw) {
    for (const auto layout : kAllChannelLayouts)
        if (rawValue(layout) == raw) return layout;
    return std::nullopt;
}

std::string_view cliName(ChannelLayout layout) {
    return layout == ChannelLayout::perChannel ? "per-channel" : "mixed";
}

std::optional<ChannelLayout> parseChannelLayout(std::string_view word) {
    for (const auto layout : kAllChannelLayouts)
        if (cliName(layout) == word) return layout;
    return std::nullopt;
}

std::string ExportSummary::durationString() const {
    // Truncated, and kept within what an int holds so that a wild duration can't overflow.
    const double clamped = std::isfinite(duration) ? std::clamp(duration, 0.0, 2147483647.0) : 0.0;
    const auto total = static_cast<long long>(clamped);
    return fmt::sprintf("%02d:%02d:%02d", total / 3600, (total / 60) % 60, total % 60);
}

std::optional<std::string> ExportSummary::snapLine(ExportTarget target, double fps) const {
    if (target != ExportTarget::premiere && target != ExportTarget::resolve) return std::nullopt;
    if (soundOffsets.empty() || !std::isfinite(fps) || fps <= 0) return std::nullopt;
    const auto ri = FCP7Exporter::rateInfo(fps);
    double largest = 0, total = 0;
    for (const double offset : soundOffsets) {
        const double moved = std::fabs(ri.frames(offset) / ri.effectiveRate() - offset);
        if (!std::isfinite(moved)) continue;
        largest = std::max(largest, moved);
        total += moved;
    }
    // Half a millisecond is about as far as sound travels in 17 cm: no one hears it.
    if (!(largest * 1000 > 0.5)) return std::nullopt;
    return fmt::sprintf("audio snapped to frames: up to %.1f ms (mean %.1f ms)", largest * 1000,
                        total / static_cast<double>(soundOffsets.size()) * 1000);
}

ExportSummary makeExportSummary(const std::vector<TrackSource>& sources) {
    ExportSummary summary;
    summary.trackCount = static_cast<int>(sources.size());
    for (const auto& track : sources)
        for (const auto& clip : track.clips) {
            ++summary.clipCount;
            summary.duration = std::max(summary.duration, clip.startOffset + clip.duration);
            summary.maxChannels = std::max(summary.maxChannels, std::max(clip.channelCount, 1));
            if (clip.audioUsability == AudioUsability::ok) summary.soundOffsets.push_back(clip.startOffset);
        }
    return summary;
}

namespace {

// "/a/b/c.wav" -> {"/", "a", "b"}: the components of the clip's folder.
std::vector<std::string> folderComponents(const Url& url) {
    std::vector<std::string> parts;
    const std::string path = url.deletingLastPathComponent().path();
    if (path.starts_with('/')) parts.emplace_back("/");
    std::size_t start = 0;
    while (start <= path.size()) {
        const auto slash = path.find('/', start);
        const auto end = slash == std::string::npos ? path.size() : slash;
        if (end > start) parts.push_back(path.substr(start, end - start));
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return parts;
}

} // namespace

std::string rootFolderName(const std::vector<TrackSource>& sources) {
    std::optional<std::vector<std::string>> common;
    for (const auto& track : sources)
        for (const auto& clip : track.clips) {
            auto parts = folderComponents(clip.url);
            if (!common) {
                common = std::move(parts);
                continue;
            }
            std::size_t n = 0;
            while (n < common->size() && n < parts.size() && (*common)[n] == parts[n])
                ++n;
            common->resize(n);
        }
    if (common)
        for (auto it = common->rbegin(); it != common->rend(); ++it)
            if (*it != "/" && !it->empty()) return *it;
    return "Trelvane";
}

std::string defaultFileName(const std::vector<TrackSource>& sources, ExportTarget target) {
    std::string name = rootFolderName(sources);
    name += "_";
    name += fileNameSuffix(target);
    name += ".";
    name += fileExtension(target);
    return name;
}

} // namespace trelvane
