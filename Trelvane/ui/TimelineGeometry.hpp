// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The timeline's measures and words, without a drawing toolkit: where a clip's rectangle stands,
// what its label and tool tip say, and how the ruler is divided. All lengths are points of the
// document (the ruler on top, then one row per track); times are seconds of the timeline.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace trelvane::TimelineGeometry {

inline constexpr double kRulerHeight = 31;
// Each row is 72 high with a 1-point divider under it.
inline constexpr double kRowHeight = 72;
inline constexpr double kRowPitch = 73;
// A clip's body sits 8 below its row's top, 56 high, 0.5 right of its time and 1 narrower.
inline constexpr double kBodyInset = 8;
inline constexpr double kBodyHeight = 56;
inline constexpr double kBodyLead = 0.5;
inline constexpr double kBodyTrim = 1;
inline constexpr double kMinBodyWidth = 3;
// A label needs a body wider than this; a waveform needs a body at least this wide to show more
// than a smear.
inline constexpr double kMinLabelWidth = 24;
inline constexpr double kMinWaveWidth = 6;
// The ruler aims at a tick every 80 points; labels stand 3 right of their tick and are made only
// for what is in view, give or take 60.
inline constexpr double kTickSpacing = 80;
inline constexpr double kTickLabelInset = 3;
inline constexpr double kTickLabelMargin = 60;
// Room after the end of the timeline, so the last clip and the ruler's last label are not cut off
// by the edge; at the widest zoom the timeline and this room fit the view.
inline constexpr double kTrailingRoom = 40;
// A press this high or less on the ruler scrubs; a release this close to its press is a click.
inline constexpr double kScrubHeight = 30;
inline constexpr double kClickSlop = 8;

struct Frame {
    double x = 0, y = 0, width = 0, height = 0;
    bool contains(double px, double py) const {
        return px >= x && px <= x + width && py >= y && py <= y + height;
    }
};

double rowTop(int trackIndex);
double documentHeight(int trackCount);
// The body of a clip that starts at `time` on the row of `trackIndex`.
Frame clipFrame(double time, double duration, double pxPerSec, int trackIndex);

// The spacing of the ruler's ticks in seconds: the smallest round step at or above 80 points.
double tickInterval(double pxPerSec);
// "0:%02d:%02d" under an hour, "%d:%02d:%02d" from the first hour on; negative times read as 0.
std::string tickLabel(double seconds);

// Whether a body this wide shows its label.
bool showsLabel(double bodyWidth);
// The file's name without its extension, then what is wrong with its audio, then its timecode.
std::string clipLabel(const ClipItem& clip);
// "pending", "synced", "weak", "not matched"; the audio's trouble stands in for them.
std::string statusWord(const ClipItem& clip);
// The name, the status word and, on a line of its own, why the clip stands where it stands.
std::string toolTipText(const ClipItem& clip);

// A running FNV-1a hash of what a drawing was made from, to tell cheaply whether it changed.
struct Signature {
    std::uint64_t value = 14695981039346656037ull;

    Signature& add(std::string_view bytes) {
        for (unsigned char ch : bytes) {
            value ^= ch;
            value *= 1099511628211ull;
        }
        return *this;
    }
    // The text and its length, so that neighbouring texts can't trade characters unseen.
    Signature& addText(std::string_view text) { return add(text).add(text.size()); }
    template <typename T>
    requires std::is_trivially_copyable_v<T> Signature& add(const T& v) {
        return add(std::string_view(reinterpret_cast<const char*>(&v), sizeof v));
    }
};

} // namespace trelvane::TimelineGeometry
