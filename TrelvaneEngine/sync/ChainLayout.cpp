// SPDX-License-Identifier: GPL-3.0-or-later
// Which audio hits of a track to believe, and where the clips that audio could not place go:
// by their clocks measured from a neighbouring anchor, else spread over the room between anchors.

#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace trelvane::SyncEngine {

namespace {

constexpr double kLayoutTolerance = 0.05; // a clock layout may start this far before its room
constexpr double kTailAllowance = 7200.0; // most a clock-laid tail may add to its own footage

double secondsBetween(const Date& later, const Date& earlier) {
    return std::chrono::duration<double>(later - earlier).count();
}

struct Filler {
    const std::map<int, double>& posOf;
    const std::function<double(int)>& dur;
    const std::function<std::optional<Date>(int)>& clock;
    const std::function<void(int, double, Placement)>& setClip;
    LayoutCounts counts;

    void place(int k, double pos, Placement placement) {
        setClip(k, pos, placement);
        if (placement == Placement::clock) ++counts.byClock;
        if (placement == Placement::interp) ++counts.byInterp;
    }

    // Clips [from, to) in the room from `lo` to the end `hi` (open when absent). `lo` absent is a
    // head before the first anchor: the room then reaches back as far as the clips need.
    void fill(int from, int to, std::optional<double> lo, std::optional<double> hi,
              std::optional<int> prevAnchor, std::optional<int> nextAnchor) {
        const int n = to - from;
        if (n <= 0) return;
        std::vector<double> durs(static_cast<std::size_t>(n));
        std::vector<std::optional<Date>> dates(static_cast<std::size_t>(n));
        double total = 0;
        for (int i = 0; i < n; ++i) {
            durs[static_cast<std::size_t>(i)] = dur(from + i);
            dates[static_cast<std::size_t>(i)] = clock(from + i);
            total += durs[static_cast<std::size_t>(i)];
        }

        const std::optional<int> anchor = nextAnchor ? nextAnchor : prevAnchor;
        const std::optional<Date> anchorDate = anchor ? clock(*anchor) : std::nullopt;
        // The offset of each clip's clock from the anchor's, where it is a clock worth trusting.
        std::vector<std::optional<double>> fromAnchor(static_cast<std::size_t>(n));
        bool anyValid = false;
        if (anchorDate) {
            for (std::size_t i = 0; i < fromAnchor.size(); ++i) {
                if (!dates[i]) continue;
                const double d = secondsBetween(*dates[i], *anchorDate);
                if (std::abs(d) < kPlausiblePause) {
                    fromAnchor[i] = d;
                    anyValid = true;
                }
            }
        }
        const double anchorPos = anchor ? posOf.at(*anchor) : 0.0;

        double start = 0;
        if (lo) {
            start = *lo;
        } else {
            // The head has no floor: enough room for its footage, and more where a clock asks for it
            // with every clip before it butt-joined.
            start = *hi - total;
            double before = 0;
            for (std::size_t i = 0; i < fromAnchor.size(); ++i) {
                if (fromAnchor[i]) start = std::min(start, anchorPos + *fromAnchor[i] - before);
                before += durs[i];
            }
        }

        if (anyValid && layByClock(from, start, hi, anchorPos, durs, fromAnchor, total)) return;

        // Interpolation: no usable clock, or one that contradicts the anchors.
        const bool anyDate =
            std::any_of(dates.begin(), dates.end(), [](const auto& d) { return d.has_value(); });
        const Placement placement = anyDate ? Placement::clock : Placement::interp;
        const double gap = hi && total < *hi - start ? (*hi - start - total) / (n + 1) : 0.0;
        double pos = start + gap;
        for (int i = 0; i < n; ++i) {
            place(from + i, pos, placement);
            pos += durs[static_cast<std::size_t>(i)] + gap;
        }
    }

    // True when the clips were placed by clock; false when the layout contradicts the room.
    bool layByClock(int from, double lo, std::optional<double> hi, double anchorPos,
                    const std::vector<double>& durs, const std::vector<std::optional<double>>& fromAnchor,
                    double total) {
        const std::size_t n = durs.size();
        std::vector<double> pos(n);
        std::vector<Placement> placement(n);
        double cursor = lo;
        for (std::size_t i = 0; i < n; ++i) {
            if (fromAnchor[i]) {
                pos[i] = anchorPos + *fromAnchor[i];
                placement[i] = Placement::clock;
            } else {
                pos[i] = cursor;
                placement[i] = Placement::interp;
            }
            cursor = pos[i] + durs[i];
        }
        cursor = lo;
        for (std::size_t i = 0; i < n; ++i) {
            pos[i] = std::max(pos[i], cursor);
            cursor = pos[i] + durs[i];
        }
        double limit = hi ? *hi : std::numeric_limits<double>::max();
        for (std::size_t i = n; i-- > 0;) {
            limit -= durs[i];
            pos[i] = std::min(pos[i], limit);
            limit = pos[i];
        }

        if (pos.front() < lo - kLayoutTolerance) return false;
        if (!hi) {
            const double ceiling = lo + total + std::min(total, kTailAllowance);
            const double end = pos.back() + durs.back();
            if (end > ceiling) {
                EngineLog::logf(
                    "[SyncEngine]  clock-laid tail of %d clip(s) from %.0fs reached %.0fs (ceiling "
                    "%.0fs) — the anchor it is measured from looks wrong, butt-joining instead",
                    static_cast<int>(n), lo, end, ceiling);
                return false;
            }
        }
        for (std::size_t i = 0; i < n; ++i)
            place(from + static_cast<int>(i), pos[i], placement[i]);
        return true;
    }
};

} // namespace

std::vector<int> longestConsistentChain(std::span<const std::pair<int, double>> items,
                                        std::span<const double> prefixDur, double slack) {
    if (items.empty()) return {};
    const auto footageAt = [&](int ci) {
        // An index the prefix sums don't cover has no footage to judge by; it can only chain alone.
        return ci >= 0 && static_cast<std::size_t>(ci) < prefixDur.size()
                   ? std::optional<double>(prefixDur[static_cast<std::size_t>(ci)])
                   : std::nullopt;
    };
    const std::size_t n = items.size();
    std::vector<int> best(n, 1);
    std::vector<int> prev(n, -1);
    for (std::size_t i = 0; i < n; ++i) {
        const auto atI = footageAt(items[i].first);
        if (!atI) continue;
        for (std::size_t j = 0; j < i; ++j) {
            const auto atJ = footageAt(items[j].first);
            if (!atJ) continue;
            // The timeline distance must hold the footage between the two; a pause may be any length.
            if ((*atI - *atJ) - slack <= items[i].second - items[j].second && best[j] + 1 > best[i]) {
                best[i] = best[j] + 1;
                prev[i] = static_cast<int>(j);
            }
        }
    }
    const auto end = std::max_element(best.begin(), best.end()); // the first of the longest
    std::vector<int> chain;
    for (int i = static_cast<int>(end - best.begin()); i >= 0; i = prev[static_cast<std::size_t>(i)])
        chain.push_back(items[static_cast<std::size_t>(i)].first);
    std::reverse(chain.begin(), chain.end());
    return chain;
}

LayoutCounts layoutChain(std::span<const int> anchors, const std::map<int, double>& posOf,
                         const std::function<double(int)>& dur,
                         const std::function<std::optional<Date>(int)>& clock,
                         const std::function<void(int, double, Placement)>& setClip, double base, int count) {
    Filler filler{posOf, dur, clock, setClip, {}};
    // Only anchors that name a clip of the track and have a position can bracket anything.
    std::vector<int> sorted;
    for (int a : anchors)
        if (a >= 0 && a < count && posOf.count(a) != 0) sorted.push_back(a);
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());

    if (sorted.empty()) {
        filler.fill(0, count, base, std::nullopt, std::nullopt, std::nullopt);
        return filler.counts;
    }
    const auto endOf = [&](int a) { return posOf.at(a) + dur(a); };
    filler.fill(0, sorted.front(), std::nullopt, posOf.at(sorted.front()), std::nullopt, sorted.front());
    for (int a : sorted)
        filler.setClip(a, posOf.at(a), Placement::matched);
    for (std::size_t i = 0; i + 1 < sorted.size(); ++i)
        filler.fill(sorted[i] + 1, sorted[i + 1], endOf(sorted[i]), posOf.at(sorted[i + 1]), sorted[i],
                    sorted[i + 1]);
    filler.fill(sorted.back() + 1, count, endOf(sorted.back()), std::nullopt, sorted.back(), std::nullopt);
    return filler.counts;
}

std::optional<std::string> neighbourNote(int k, std::span<const int> anchors,
                                         std::span<const std::string> names) {
    std::optional<int> below, above;
    for (int a : anchors) {
        if (a < 0 || static_cast<std::size_t>(a) >= names.size()) continue;
        if (a < k && (!below || a > *below)) below = a;
        if (a > k && (!above || a < *above)) above = a;
    }
    const auto name = [&](int a) { return names[static_cast<std::size_t>(a)]; };
    if (below && above) return "between '" + name(*below) + "' and '" + name(*above) + "'";
    if (below) return "after '" + name(*below) + "'";
    if (above) return "before '" + name(*above) + "'";
    return std::nullopt;
}

} // namespace trelvane::SyncEngine
