// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What every export target shares: the targets and their files, the rate families the dialog
// offers, the channel layouts, the options a dialog or a command fills, the summary line, and the
// name a document gets by default.
//
// Command-line spellings (parseExportTarget / parseChannelLayout, case-sensitive):
//   target:   "premiere" -> premiere, "resolve" -> resolve, "fcpxml" -> finalCut, "otio" -> otio
//   channels: "per-channel" -> perChannel, "mixed" -> mixed

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane {

enum class ExportTarget { premiere, finalCut, resolve, otio };
// Every list of targets shows them in this order.
inline constexpr ExportTarget kAllExportTargets[] = {ExportTarget::premiere, ExportTarget::finalCut,
                                                     ExportTarget::resolve, ExportTarget::otio};

// "premiere", "finalCut", "resolve", "otio"; the way back gives nothing for any other text.
std::string_view rawValue(ExportTarget target);
std::optional<ExportTarget> exportTargetFromRaw(std::string_view raw);
// "xml", "fcpxml", "xml", "otio" (no dot).
std::string_view fileExtension(ExportTarget target);
// The title of the save panel.
std::string_view savePanelTitle(ExportTarget target);
// What follows the folder name in the default file name: "tv_premiere", "tv_fcp", "tv_fcp7", "tv_otio".
std::string_view fileNameSuffix(ExportTarget target);
// The command-line word for the target, and the way back (see the header comment).
std::string_view cliName(ExportTarget target);
std::optional<ExportTarget> parseExportTarget(std::string_view word);
// "premiere|resolve|fcpxml|otio", for help texts.
inline constexpr std::string_view kExportTargetChoices = "premiere|resolve|fcpxml|otio";

// The two flavours of FCP7 XML, one for each FCP7 target.
enum class ExportStyle { premiere, resolve };

enum class RateFamily { pal, ntsc };
inline constexpr RateFamily kAllRateFamilies[] = {RateFamily::pal, RateFamily::ntsc};
// "PAL", "NTSC".
std::string_view rawValue(RateFamily family);
std::optional<RateFamily> rateFamilyFromRaw(std::string_view raw);
// PAL: 25, 50. NTSC: 23.976, 29.97, 59.94. In that order.
const std::vector<double>& ratesOffered(RateFamily family);
// PAL when a detected rate lies strictly within 0.6 of 25 or 50; otherwise (and for none) NTSC.
RateFamily defaultRateFamily(const std::vector<float>& detected);
// The family's first rate that lies strictly within 0.6 of some detected rate, else its first rate.
double preferredRate(RateFamily family, const std::vector<float>& detected);
// The frame rates found in the clips: each clip's `frameRate`, else its `conformFrameRate`, when
// above 0. In track and clip order, duplicates kept.
std::vector<float> detectedFrameRates(const std::vector<TrackSource>& sources);

enum class ChannelLayout { perChannel, mixed };
inline constexpr ChannelLayout kAllChannelLayouts[] = {ChannelLayout::perChannel, ChannelLayout::mixed};
// "perChannel", "mixed".
std::string_view rawValue(ChannelLayout layout);
std::optional<ChannelLayout> channelLayoutFromRaw(std::string_view raw);
// "per-channel", "mixed", and the way back.
std::string_view cliName(ChannelLayout layout);
std::optional<ChannelLayout> parseChannelLayout(std::string_view word);
inline constexpr std::string_view kChannelLayoutChoices = "per-channel|mixed";

struct ExportOptions {
    ExportTarget target = ExportTarget::premiere;
    double fps = 23.976;
    ChannelLayout channels = ChannelLayout::perChannel;
};

// The dialog's summary line.
struct ExportSummary {
    int trackCount = 0;
    int clipCount = 0;
    // The largest `startOffset + duration` over all clips, in seconds; 0 without clips.
    double duration = 0;
    // The largest `channelCount` over all clips, each counted as at least 1; 0 without clips.
    int maxChannels = 0;
    // The `startOffset` of every clip whose sound was usable, in track and clip order.
    std::vector<double> soundOffsets;

    // `duration` truncated to whole seconds as "HH:MM:SS".
    std::string durationString() const;
    // How far the FCP7 targets, which place everything on whole frames of `fps`, move the sound:
    // "audio snapped to frames: up to 19.8 ms (mean 9.6 ms)", the largest and the mean distance
    // over `soundOffsets`. Nothing for the other targets (they keep sound between frames) and
    // where no sound moves by more than half a millisecond.
    std::optional<std::string> snapLine(ExportTarget target, double fps) const;
};

ExportSummary makeExportSummary(const std::vector<TrackSource>& sources);

// The deepest folder that holds every clip's file (the last component of the common parent path
// that isn't "/"); "Trelvane" when only the root, or nothing, is common.
std::string rootFolderName(const std::vector<TrackSource>& sources);

// rootFolderName + "_" + suffix + "." + extension, as "Card01_tv_premiere.xml".
std::string defaultFileName(const std::vector<TrackSource>& sources, ExportTarget target);

} // namespace trelvane
