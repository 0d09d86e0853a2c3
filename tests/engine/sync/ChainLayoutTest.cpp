// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <gtest/gtest.h>

#include <map>
#include <string>
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

    struct Written {
        int k;
        double pos;
        Placement placement;
    };
    std::vector<Written> written;

    explicit Track(std::vector<double> d) : durs(std::move(d)), dates(durs.size()) {}

    LayoutCounts run(double base = 0) {
        return layoutChain(
            anchors, posOf, [this](int k) { return durs[static_cast<std::size_t>(k)]; },
            [this](int k) { return dates[static_cast<std::size_t>(k)]; },
            [this](int k, double pos, Placement p) {
                written.push_back({k, pos, p});
            },
            base, static_cast<int>(durs.size()));
    }
    const Written& of(int k) const {
        for (const auto& w : written)
            if (w.k == k) return w;
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
        {"an index beyond the prefix sums chains with nothing",
         {{0, 0.0}, {9, 50.0}, {2, 40.0}},
         kChainSlack,
         {0, 2}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(longestConsistentChain(c.hits, prefix, c.slack), c.chain) << c.what;
}

TEST(ChainLayout, FreeClipsFollowTheirClocksFromTheAnchorsOrSpreadOverTheRoom) {
    using P = Placement;
    const auto m = P::matched, c = P::clock, i = P::interp;
    const std::optional<Date> none;
    struct Case {
        const char* what;
        std::vector<double> durs;
        std::map<int, double> anchors;
        std::vector<std::optional<Date>> dates;
        double base;
        std::vector<double> pos;
        std::vector<Placement> placement;
    };
    const double gap = (100.0 - 10.0 - 20.0) / 3;
    const std::vector<Case> cases{
        {"no anchor butt-joins from the base",
         {10, 20, 5},
         {},
         {none, none, none},
         100,
         {100, 110, 130},
         {i, i, i}},
        {"no anchor, one clock", {10, 20, 5}, {}, {none, at(0), none}, 100, {100, 110, 130}, {c, c, c}},
        // Measured from the next anchor.
        {"clocks between anchors",
         {10, 10, 10, 10},
         {{0, 1000.0}, {3, 1100.0}},
         {at(0), at(20), at(50), at(100)},
         0,
         {1000, 1020, 1050, 1100},
         {m, c, c, m}},
        {"a clock a week from the anchor is none",
         {10, 10, 10, 10},
         {{0, 1000.0}, {3, 1100.0}},
         {at(0), at(100 + kPlausiblePause), at(50), at(100)},
         0,
         {1000, 1010, 1050, 1100},
         {m, i, c, m}},
        // 20 s of clips in 15 s of room: the backward pass pushes the first below the room.
        {"too little room butt-joins",
         {10, 10, 10, 10},
         {{0, 0.0}, {3, 25.0}},
         {at(0), at(10), at(20), at(25)},
         0,
         {0, 10, 20, 25},
         {m, c, c, m}},
        {"no evidence spreads",
         {10, 10, 10, 10},
         {{0, 0.0}, {3, 100.0}},
         {none, none, none, none},
         0,
         {0, 10 + gap, 20 + 2 * gap, 100},
         {m, i, i, m}},
        // One dated clip, but no dated anchor to measure it from: spread all the same, as clock.
        {"a clock without a dated anchor spreads",
         {10, 10, 10, 10},
         {{0, 0.0}, {3, 100.0}},
         {none, none, at(5), none},
         0,
         {0, 10 + gap, 20 + 2 * gap, 100},
         {m, c, c, m}},
        {"the head ends at the first anchor",
         {10, 10, 10},
         {{2, 100.0}},
         {none, none, none},
         0,
         {80, 90, 100},
         {i, i, m}},
        {"the head follows its clocks",
         {10, 10, 10},
         {{2, 100.0}},
         {at(-300), at(-50), at(0)},
         0,
         {-200, 50, 100},
         {c, c, m}},
        // Tail from 10 s with 20 s of footage: the ceiling is 10 + 20 + 20 = 50.
        {"a tail below its ceiling",
         {10, 10, 10},
         {{0, 0.0}},
         {at(0), at(10), at(39.9)},
         0,
         {0, 10, 39.9},
         {m, c, c}},
        {"a tail beyond its ceiling butt-joins",
         {10, 10, 10},
         {{0, 0.0}},
         {at(0), at(10), at(40.1)},
         0,
         {0, 10, 20},
         {m, c, c}},
    };
    for (const auto& cs : cases) {
        Track t(cs.durs);
        t.dates = cs.dates;
        t.posOf = cs.anchors;
        for (const auto& [k, _] : cs.anchors)
            t.anchors.push_back(k);
        LogCapture log;
        const auto counts = t.run(cs.base);
        ASSERT_EQ(t.written.size(), cs.durs.size()) << cs.what;
        int byClock = 0, byInterp = 0;
        for (std::size_t k = 0; k < cs.durs.size(); ++k) {
            EXPECT_NEAR(t.of(static_cast<int>(k)).pos, cs.pos[k], 1e-5) << cs.what << " " << k;
            EXPECT_EQ(t.of(static_cast<int>(k)).placement, cs.placement[k]) << cs.what << " " << k;
            byClock += cs.placement[k] == c;
            byInterp += cs.placement[k] == i;
        }
        EXPECT_EQ(counts.byClock, byClock) << cs.what;
        EXPECT_EQ(counts.byInterp, byInterp) << cs.what;
        EXPECT_EQ(log.countStartingWith("[SyncEngine]  clock-laid tail"),
                  std::string(cs.what).ends_with("butt-joins") && cs.anchors.size() == 1)
            << cs.what;
    }
    // The head is written before the anchors; anchors that name no clip are ignored.
    Track t({10, 10});
    t.anchors = {5, -1, 1};
    t.posOf = {{1, 50.0}, {5, 0.0}};
    t.run();
    ASSERT_EQ(t.written.size(), 2u);
    EXPECT_EQ(t.written.front().k, 0);
    EXPECT_EQ(t.of(0).pos, 40.0);
}

TEST(ChainLayout, NeighbourNoteNamesTheNearestAnchors) {
    const std::vector<int> anchors{1, 4};
    const std::vector<std::string> names{"A001", "A002", "A003", "A004", "A005", "A006"};
    EXPECT_EQ(neighbourNote(2, anchors, names), "between 'A002' and 'A005'");
    EXPECT_EQ(neighbourNote(5, anchors, names), "after 'A005'");
    EXPECT_EQ(neighbourNote(0, anchors, names), "before 'A002'");
    EXPECT_FALSE(neighbourNote(0, std::vector<int>{}, names));
    EXPECT_FALSE(neighbourNote(0, std::vector<int>{9}, names));
}
