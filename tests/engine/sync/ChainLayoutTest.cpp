// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace trelvane;
using namespace trelvane::SyncEngine;
using trelvane::test::LogCapture;

namespace {

using Hits = std::vector<std::pair<int, double>>;

Date at(double seconds) {
    return dateFromUnixSeconds(1'700'000'000.0 + seconds);
}

// One track's clips for `layoutChain`, and what it wrote, in the order it wrote it.
struct Track {
    std::vector<double> durs;
    std::vector<std::optional<Date>> dates;
    std::map<int, double> posOf;
    std::vector<int> anchors;
    std::vector<std::tuple<int, double, Placement>> written;

    LayoutCounts run(double base = 0) {
        return layoutChain(
            anchors, posOf, [this](int k) { return durs[static_cast<std::size_t>(k)]; },
            [this](int k) { return dates[static_cast<std::size_t>(k)]; },
            [this](int k, double pos, Placement p) { written.emplace_back(k, pos, p); }, base,
            static_cast<int>(durs.size()));
    }
    std::pair<double, Placement> of(int k) const {
        for (const auto& [clip, pos, placement] : written)
            if (clip == k) return {pos, placement};
        throw std::out_of_range("clip not written");
    }
};

} // namespace

TEST(ChainLayout, TheLongestChainCoversTheFootageBetweenItsHitsInClipOrder) {
    const std::vector<double> prefix{0, 10, 20, 30, 40}; // clips of 10 s
    struct Case {
        const char* what;
        Hits hits;
        double slack;
        std::vector<int> chain;
    };
    const std::vector<Case> cases{
        {"no hits", {}, kChainSlack, {}},
        {"one hit", {{2, 55.0}}, kChainSlack, {2}},
        {"any pause between two hits", {{0, 0.0}, {1, 1e6}}, kChainSlack, {0, 1}},
        {"the footage less the slack", {{0, 0.0}, {1, 7.0}}, 3.0, {0, 1}},
        {"a little less", {{0, 0.0}, {1, 6.5}}, 3.0, {0}},
        // The second hit lies before the first: it cannot follow it, and the third follows the first.
        {"out of order", {{0, 100.0}, {1, 50.0}, {2, 120.0}}, kChainSlack, {0, 2}},
        {"two chains of one: the earlier", {{0, 100.0}, {1, 0.0}}, kChainSlack, {0}},
        {"a later, longer chain", {{0, 500.0}, {1, 0.0}, {2, 10.0}, {3, 20.0}}, kChainSlack, {1, 2, 3}},
        // An index beyond the prefix sums chains with nothing.
        {"beyond the prefix", {{0, 0.0}, {9, 50.0}, {2, 40.0}}, kChainSlack, {0, 2}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(longestConsistentChain(c.hits, prefix, c.slack), c.chain) << c.what;
}

TEST(ChainLayout, FreeClipsFollowTheirClocksFromTheAnchorsOrSpreadOverTheRoomNamingTheAnchors) {
    // Clocks are seconds after a fixed date (NaN: undated); placements are m(atched), c(lock), i(nterp).
    const double _ = std::nan(""), gap = (100.0 - 10.0 - 20.0) / 3, s1 = 10 + gap, s2 = 20 + 2 * gap;
    const double week = 100 + kPlausiblePause;
    struct Case {
        const char* what;
        std::map<int, double> anchors;
        std::vector<double> clocks;
        std::vector<double> pos;
        std::string placement;
        std::vector<double> durs{}; // none: 10 s each
        double base = 0;
    };
    const std::vector<Case> cases{
        {"no anchor butt-joins from the base", {}, {_, _, _}, {100, 110, 130}, "iii", {10, 20, 5}, 100},
        {"no anchor, one clock", {}, {_, 0, _}, {100, 110, 130}, "ccc", {10, 20, 5}, 100},
        // Measured from the next anchor.
        {"clocks from anchors", {{0, 1000}, {3, 1100}}, {0, 20, 50, 100}, {1000, 1020, 1050, 1100}, "mccm"},
        {"a week off is none", {{0, 1000}, {3, 1100}}, {0, week, 50, 100}, {1000, 1010, 1050, 1100}, "micm"},
        // 20 s of clips in 15 s of room: the backward pass pushes the first below the room.
        {"too little room butt-joins", {{0, 0}, {3, 25}}, {0, 10, 20, 25}, {0, 10, 20, 25}, "mccm"},
        {"no evidence spreads", {{0, 0}, {3, 100}}, {_, _, _, _}, {0, s1, s2, 100}, "miim"},
        // One dated clip, but no dated anchor to measure it from: spread all the same, as clock.
        {"no dated anchor spreads", {{0, 0}, {3, 100}}, {_, _, 5, _}, {0, s1, s2, 100}, "mccm"},
        {"the head ends at the first anchor", {{2, 100}}, {_, _, _}, {80, 90, 100}, "iim"},
        {"the head follows its clocks", {{2, 100}}, {-300, -50, 0}, {-200, 50, 100}, "ccm"},
        // Tail from 10 s with 20 s of footage: the ceiling is 10 + 20 + 20 = 50.
        {"a tail below its ceiling", {{0, 0}}, {0, 10, 39.9}, {0, 10, 39.9}, "mcc"},
        {"a tail beyond its ceiling butt-joins", {{0, 0}}, {0, 10, 40.1}, {0, 10, 20}, "mcc"},
    };
    const std::map<char, Placement> placementOf{
        {'m', Placement::matched}, {'c', Placement::clock}, {'i', Placement::interp}};
    for (const auto& cs : cases) {
        const auto n = cs.pos.size();
        Track t{cs.durs.empty() ? std::vector<double>(n, 10.0) : cs.durs, {}, cs.anchors, {}, {}};
        t.dates.resize(n);
        for (std::size_t k = 0; k < n; ++k)
            if (!std::isnan(cs.clocks[k])) t.dates[k] = at(cs.clocks[k]);
        for (const auto& anchor : cs.anchors)
            t.anchors.push_back(anchor.first);
        LogCapture log;
        const auto counts = t.run(cs.base);
        ASSERT_EQ(t.written.size(), n) << cs.what;
        for (std::size_t k = 0; k < n; ++k) {
            const auto [pos, placement] = t.of(static_cast<int>(k));
            EXPECT_NEAR(pos, cs.pos[k], 1e-5) << cs.what << " " << k;
            EXPECT_EQ(placement, placementOf.at(cs.placement[k])) << cs.what << " " << k;
        }
        EXPECT_EQ(counts.byClock, std::ranges::count(cs.placement, 'c')) << cs.what;
        EXPECT_EQ(counts.byInterp, std::ranges::count(cs.placement, 'i')) << cs.what;
        EXPECT_EQ(log.countStartingWith("[SyncEngine]  clock-laid tail"),
                  std::string(cs.what).ends_with("butt-joins") && cs.anchors.size() == 1)
            << cs.what;
    }
    // The head is written before the anchors; anchors that name no clip are ignored.
    Track t{{10, 10}, std::vector<std::optional<Date>>(2), {{1, 50.0}, {5, 0.0}}, {5, -1, 1}, {}};
    t.run();
    ASSERT_EQ(t.written.size(), 2u);
    EXPECT_EQ(std::get<0>(t.written.front()), 0);
    EXPECT_EQ(t.of(0).first, 40.0);

    // A free clip's note names the nearest anchors.
    const std::vector<int> anchors{1, 4};
    const std::vector<std::string> names{"A001", "A002", "A003", "A004", "A005", "A006"};
    EXPECT_EQ(neighbourNote(2, anchors, names), "between 'A002' and 'A005'");
    EXPECT_EQ(neighbourNote(5, anchors, names), "after 'A005'");
    EXPECT_EQ(neighbourNote(0, anchors, names), "before 'A002'");
    EXPECT_FALSE(neighbourNote(0, std::vector<int>{}, names));
    EXPECT_FALSE(neighbourNote(0, std::vector<int>{9}, names));
}
