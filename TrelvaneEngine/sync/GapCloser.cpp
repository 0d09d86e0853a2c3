// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/GapCloser.hpp"

#include <algorithm>

namespace trelvane::GapCloser {

std::optional<Closed> closedOffsets(const std::vector<TrackSource>& sources) {
    std::vector<const ClipItem*> clips;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            clips.push_back(&c);
    if (clips.empty()) return std::nullopt;
    std::stable_sort(clips.begin(), clips.end(),
                     [](const ClipItem* a, const ClipItem* b) { return a->startOffset < b->startOffset; });

    struct Span {
        double start, end;
    };
    std::vector<Span> spans;
    for (const ClipItem* c : clips) {
        const double end = c->startOffset + c->duration;
        if (spans.empty() || c->startOffset > spans.back().end + kGapTolerance)
            spans.push_back({c->startOffset, end});
        else
            spans.back().end = std::max(spans.back().end, end);
    }

    // The lead-in goes too, so that the first clip lands on 0.
    struct Shift {
        double from, shift;
    };
    std::vector<Shift> table{{spans.front().start, spans.front().start}};
    double running = spans.front().start;
    for (std::size_t i = 1; i < spans.size(); ++i) {
        running += spans[i].start - spans[i - 1].end;
        table.push_back({spans[i].start, running});
    }
    if (!(running > kMinimumRemoval)) return std::nullopt;

    Closed result;
    result.removed = running;
    result.gaps = static_cast<int>(spans.size()) - 1;
    for (const ClipItem* c : clips) {
        double shift = 0;
        for (const auto& entry : table)
            if (!(c->startOffset < entry.from - kBoundaryTolerance)) shift = entry.shift;
        result.offsets[c->id] = c->startOffset - shift;
    }
    return result;
}

} // namespace trelvane::GapCloser
