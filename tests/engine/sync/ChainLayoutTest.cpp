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

TEST(ChainLayout, LongestChainCoversTheFootageBetweenItsHits) {
    const std::vector<double> prefix{0, 10, 20, 30};
    EXPECT_TRUE(longestConsistentChain(Hits{}, prefix, kChainSlack).empty());
    EXPECT_EQ(longestConsistentChain(Hits{{2, 55.0}}, prefix, kChainSlack), std::vector<int>{2});

    // Any pause between two hits is allowed.
    EXPECT_EQ(longestConsistentChain(Hits{{0, 0.0}, {1, 1e6}}, prefix, kChainSlack),
              (std::vector<int>{0, 1}));
    // Exactly the footage less the slack is enough; a little less is not.
    EXPECT_EQ(longestConsistentChain(Hits{{0, 0.0}, {1, 7.0}}, prefix, 3.0), (std::vector<int>{0, 1}));
    EXPECT_EQ(longestConsistentChain(Hits{{0, 0.0}, {1, 6.5}}, prefix, 3.0), std::vector<int>{0});
}

TEST(ChainLayout, OutOfOrderHitsLeaveTheLongerChain) {
    const std::vector<double> prefix{0, 10, 20, 30, 40};
    // The second hit lies before the first: it cannot follow it, and the third follows the first.
    EXPECT_EQ(longestConsistentChain(Hits{{0, 100.0}, {1, 50.0}, {2, 120.0}}, prefix, kChainSlack),
              (std::vector<int>{0, 2}));
    // Two chains of one: the earlier stands.
    EXPECT_EQ(longestConsistentChain(Hits{{0, 100.0}, {1, 0.0}}, prefix, kChainSlack), std::vector<int>{0});
    // A later, longer chain beats an early strong pair.
    EXPECT_EQ(longestConsistentChain(Hits{{0, 500.0}, {1, 0.0}, {2, 10.0}, {3, 20.0}}, prefix, kChainSlack),
              (std::vector<int>{1, 2, 3}));
    // An index beyond the prefix sums can't be judged and chains with nothing.
    EXPECT_EQ(longestConsistentChain(Hits{{0, 0.0}, {9, 50.0}, {2, 40.0}}, prefix, kChainSlack),
              (std::vector<int>{0, 2}));
}

TEST(ChainLayout, ATrackWithoutAnchorsButtJoinsFromTheBase) {
    Track t({10, 20, 5});
    auto counts = t.run(100.0);
    EXPECT_EQ(counts.byInterp, 3);
    EXPECT_EQ(counts.byClock, 0);
    EXPECT_EQ(t.of(0).pos, 100.0);
    EXPECT_EQ(t.of(1).pos, 110.0);
    EXPECT_EQ(t.of(2).pos, 130.0);
    EXPECT_EQ(t.of(2).placement, Placement::interp);

    Track dated({10, 20, 5});
    dated.dates[1] = at(0);
    counts = dated.run(100.0);
    EXPECT_EQ(counts.byClock, 3);
    EXPECT_EQ(dated.of(0).placement, Placement::clock);
    EXPECT_EQ(dated.of(2).pos, 130.0);
}

TEST(ChainLayout, FreeClipsBetweenAnchorsFollowTheirClocks) {
    Track t({10, 10, 10, 10});
    t.anchors = {0, 3};
    t.posOf = {{0, 1000.0}, {3, 1100.0}};
    t.dates = {at(0), at(20), at(50), at(100)};

    const auto counts = t.run();
    EXPECT_EQ(counts.byClock, 2);
    EXPECT_EQ(counts.byInterp, 0);
    ASSERT_EQ(t.written.size(), 4u);
    EXPECT_EQ(t.of(0).placement, Placement::matched);
    EXPECT_EQ(t.of(0).pos, 1000.0);
    EXPECT_EQ(t.of(3).placement, Placement::matched);
    EXPECT_EQ(t.of(1).pos, 1020.0); // measured from the next anchor
    EXPECT_EQ(t.of(2).pos, 1050.0);
    EXPECT_EQ(t.of(2).placement, Placement::clock);
}

TEST(ChainLayout, AClockSevenDaysFromTheAnchorCountsAsNone) {
    Track t({10, 10, 10, 10});
    t.anchors = {0, 3};
    t.posOf = {{0, 1000.0}, {3, 1100.0}};
    t.dates = {at(0), at(100 + kPlausiblePause), at(50), at(100)};

    const auto counts = t.run();
    EXPECT_EQ(counts.byClock, 1);
    EXPECT_EQ(counts.byInterp, 1);
    EXPECT_EQ(t.of(1).placement, Placement::interp);
    EXPECT_EQ(t.of(1).pos, 1010.0); // at the cursor, right after the anchor
    EXPECT_EQ(t.of(2).pos, 1050.0);
}

TEST(ChainLayout, AClockLaidTailStopsAtItsCeiling) {
    // Tail from 10 s with 20 s of footage: the ceiling is 10 + 20 + 20 = 50.
    Track below({10, 10, 10});
    below.anchors = {0};
    below.posOf = {{0, 0.0}};
    below.dates = {at(0), at(10), at(39.9)};
    {
        LogCapture log;
        EXPECT_EQ(below.run().byClock, 2);
        EXPECT_EQ(log.countStartingWith("[SyncEngine]  clock-laid tail"), 0);
    }
    EXPECT_NEAR(below.of(2).pos, 39.9, 1e-5);

    Track beyond({10, 10, 10});
    beyond.anchors = {0};
    beyond.posOf = {{0, 0.0}};
    beyond.dates = {at(0), at(10), at(40.1)};
    LogCapture log;
    EXPECT_EQ(beyond.run().byClock, 2);
    EXPECT_TRUE(
        log.contains("[SyncEngine]  clock-laid tail of 2 clip(s) from 10s reached 50s (ceiling 50s) — the "
                     "anchor it is measured from looks wrong, butt-joining instead"));
    EXPECT_EQ(beyond.of(1).pos, 10.0);
    EXPECT_EQ(beyond.of(2).pos, 20.0);
    EXPECT_EQ(beyond.of(2).placement, Placement::clock);
}

TEST(ChainLayout, TooLittleRoomForTheClocksButtJoinsTheRange) {
    // 20 s of clips in 15 s of room: the backward pass pushes the first below the room.
    Track t({10, 10, 10, 10});
    t.anchors = {0, 3};
    t.posOf = {{0, 0.0}, {3, 25.0}};
    t.dates = {at(0), at(10), at(20), at(25)};

    const auto counts = t.run();
    EXPECT_EQ(counts.byClock, 2);
    EXPECT_EQ(t.of(1).pos, 10.0);
    EXPECT_EQ(t.of(2).pos, 20.0);
    EXPECT_EQ(t.of(1).placement, Placement::clock);
}

TEST(ChainLayout, ClipsWithoutEvidenceSpreadOverTheRoom) {
    Track t({10, 10, 10, 10});
    t.anchors = {0, 3};
    t.posOf = {{0, 0.0}, {3, 100.0}};

    auto counts = t.run();
    EXPECT_EQ(counts.byInterp, 2);
    const double gap = (100.0 - 10.0 - 20.0) / 3;
    EXPECT_DOUBLE_EQ(t.of(1).pos, 10.0 + gap);
    EXPECT_DOUBLE_EQ(t.of(2).pos, 10.0 + gap + 10.0 + gap);
    EXPECT_EQ(t.of(1).placement, Placement::interp);

    // One dated clip, but no dated anchor to measure it from: spread all the same, as clock.
    Track one({10, 10, 10, 10});
    one.anchors = {0, 3};
    one.posOf = {{0, 0.0}, {3, 100.0}};
    one.dates[2] = at(5);
    counts = one.run();
    EXPECT_EQ(counts.byClock, 2);
    EXPECT_DOUBLE_EQ(one.of(1).pos, 10.0 + gap);
    EXPECT_EQ(one.of(1).placement, Placement::clock);
}

TEST(ChainLayout, TheHeadEndsAtTheFirstAnchorOrWhereItsClocksSay) {
    Track plain({10, 10, 10});
    plain.anchors = {2};
    plain.posOf = {{2, 100.0}};
    plain.run();
    EXPECT_EQ(plain.of(0).pos, 80.0);
    EXPECT_EQ(plain.of(1).pos, 90.0);
    EXPECT_EQ(plain.of(1).placement, Placement::interp);
    // The head is written before the anchors.
    EXPECT_EQ(plain.written.front().k, 0);
    EXPECT_EQ(plain.written.back().k, 2);

    Track dated({10, 10, 10});
    dated.anchors = {2};
    dated.posOf = {{2, 100.0}};
    dated.dates = {at(-300), at(-50), at(0)};
    EXPECT_EQ(dated.run().byClock, 2);
    EXPECT_EQ(dated.of(0).pos, -200.0);
    EXPECT_EQ(dated.of(1).pos, 50.0);
}

TEST(ChainLayout, AnchorsThatNameNoClipAreIgnored) {
    Track t({10, 10});
    t.anchors = {5, -1, 1};
    t.posOf = {{1, 50.0}, {5, 0.0}};
    t.run();
    ASSERT_EQ(t.written.size(), 2u);
    EXPECT_EQ(t.of(0).pos, 40.0);
    EXPECT_EQ(t.of(1).placement, Placement::matched);
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
