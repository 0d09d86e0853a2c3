// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/stacks/StackBuilder.hpp"
#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

#include <random>

using namespace trelvane;
using trelvane::test::LogCapture;
namespace SB = trelvane::StackBuilder;
using M = PairwiseOffsetSolver::Measurement;

namespace {

constexpr int kRate = SpectralBands::kSampleRate;

// A long stretch of noise under a slowly wandering loudness, standing in for one playback. Cuts of
// it at whole frames (multiples of 40 ms) share their band features exactly.
std::vector<float> playback(unsigned seed, double seconds) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    std::uniform_real_distribution<float> level(0.2f, 1.0f);
    std::vector<float> pcm(static_cast<std::size_t>(seconds * kRate));
    float gain = 0.5f;
    for (std::size_t i = 0; i < pcm.size(); ++i) {
        if (i % 1600 == 0) gain = level(rng);
        pcm[i] = 0.1f * gain * noise(rng);
    }
    return pcm;
}

// A take cut from `source` at `fromSec` for `seconds`, with its band feature.
ClipItem cut(const std::vector<float>& source, const std::string& name, double fromSec, double seconds) {
    ClipItem c = test::clip(name, seconds);
    const auto begin = static_cast<std::ptrdiff_t>(std::llround(fromSec * kRate));
    const auto end = begin + static_cast<std::ptrdiff_t>(std::llround(seconds * kRate));
    c.bandFeature =
        SpectralBands::compute(std::span<const float>(source.data() + begin, source.data() + end));
    return c;
}

std::map<std::string, const ClipItem*> clipsByName(const SB::Result& r) {
    std::map<std::string, const ClipItem*> out;
    for (const auto& t : r.tracks)
        for (const auto& c : t.clips)
            out[c.url.baseName()] = &c;
    return out;
}

} // namespace

TEST(StackBuilder, CompareSaysWhereTheSecondClipStartsAndRefusesWhatCannotBeMatched) {
    const auto source = playback(1, 70);
    const ClipItem a = cut(source, "a", 4.0, 40.0);
    const ClipItem b = cut(source, "b", 10.0, 30.0);
    const auto ab = SB::compare(a, b);
    ASSERT_TRUE(ab.has_value());
    EXPECT_TRUE(ab->confident);
    EXPECT_NEAR(ab->offset, 6.0, 0.04);

    ClipItem noFeature = b, silent = b;
    noFeature.bandFeature.reset();
    silent.audioUsability = AudioUsability::silent;
    EXPECT_FALSE(SB::compare(noFeature, a));
    EXPECT_FALSE(SB::compare(a, silent));
    // Under 20 s the window would be under 10 s: never compared, even against its own source.
    EXPECT_FALSE(SB::compare(a, cut(source, "short", 5.0, 19.8)));
    EXPECT_TRUE(SB::compare(a, cut(source, "twenty", 5.0, 20.4)));
    EXPECT_FALSE(SB::compare(a, cut(playback(3, 40), "other", 0.0, 36.0))) << "another playback";
}

TEST(StackBuilder, SolveDropsOneWrongEdgeOnlyWhileTheRestSpansTheStack) {
    // Four takes at 0, 3, 7 and 12 s: five right edges, and a weak wrong one that says 20 s.
    const std::vector<int> nodes{4, 6, 7, 9};
    std::vector<M> edges{{4, 6, 3.0, 10}, {6, 7, 4.0, 10}, {7, 9, 5.0, 10}, {4, 7, 7.0, 10},
                         {6, 9, 9.0, 10}, {4, 9, 20.0, 1}, {1, 4, 50.0, 99}};
    const auto solved = [](std::span<const int> n, std::span<const M> e, std::vector<double> want) {
        LogCapture log;
        const auto at = SB::solve(n, e);
        for (std::size_t i = 1; i < n.size(); ++i)
            EXPECT_NEAR(at.at(n[i]) - at.at(n[0]), want[i - 1], 1e-4) << n[i];
        return log.lines();
    };
    EXPECT_EQ(solved(nodes, edges, {3.0, 7.0, 12.0}),
              std::vector<std::string>{"[Stacks]   dropped 1 inconsistent pair(s)"})
        << "the edge to a clip outside the stack is not counted";
    // As strong as the others, the wrong edge bends all of them past 0.5 s: dropping them would
    // leave too few to span the stack, so the compromise stands.
    edges[5].weight = 10;
    EXPECT_TRUE(solved(nodes, edges, {5.0, 9.0, 16.0}).empty());
    // Fewer edges than nodes: no round of dropping, whatever the residuals.
    EXPECT_TRUE(solved(std::vector<int>{0, 1, 2}, std::vector<M>{{0, 1, 1.0, 5}, {1, 2, 1.0, 5}}, {1.0, 2.0})
                    .empty());
}

TEST(StackBuilder, AmbiguousPairsAreDecidedByTheFirmPairs) {
    using Edge = std::tuple<int, int, double, float>;
    const auto reconciled = [](std::vector<SB::AmbiguousPair> ambiguous, std::vector<M> firm, int clips) {
        std::vector<Edge> out;
        for (const auto& m : SB::reconcile(ambiguous, firm, clips))
            out.emplace_back(m.from, m.to, m.offset, m.weight);
        return out;
    };
    LogCapture log;
    // Firm: 0→1 at 5 s, 1→2 at 3 s, so 0→2 is 8 s. Between 3 and 4 nothing firm exists.
    EXPECT_EQ(reconciled({{0, 2, {12.0, 8.3, 4.0}, 9.0f}, // 8.3 lies within 0.5 s of the solved 8
                          {3, 4, {1.5, -2.0}, 8.0f},      // nothing firm: the first vote at half weight
                          {1, 2, {9.0, 1.0}, 7.5f}},      // no option near the solved 3 s: the same
                         {{0, 1, 5.0, 12}, {1, 2, 3.0, 12}}, 5),
              (std::vector<Edge>{{0, 2, 8.3, 9.0f}, {3, 4, 1.5, 4.0f}, {1, 2, 9.0, 3.75f}}));
    EXPECT_TRUE(log.contains("[Stacks] reconciled 3 ambiguous pair(s)  against the solved stacks"));

    // A pair decided in the first round joins the firm ones in the second: 5→6 is only reachable
    // through 4→5, which is itself ambiguous but near its firm solution. With neither firm, both
    // fall back to their first options; with 5→6 firm at 4 s, 4→6 is implied at 6 s.
    const std::vector<M> firm{{4, 5, 2.0, 10}, {0, 4, 1.0, 10}, {0, 5, 3.0, 10}};
    const SB::AmbiguousPair fourSix{4, 6, {40.0, 6.1}, 8.0f};
    EXPECT_EQ(reconciled({fourSix, {5, 6, {-1.0, 4.0}, 8.0f}}, firm, 7),
              (std::vector<Edge>{{4, 6, 40.0, 4.0f}, {5, 6, -1.0, 4.0f}}));
    auto firmer = firm;
    firmer.push_back({5, 6, 4.0, 10});
    EXPECT_EQ(reconciled({fourSix}, firmer, 7), (std::vector<Edge>{{4, 6, 6.1, 8.0f}}));
}

TEST(StackBuilder, PackFillsTheFirstRowThatHasRoomAndPictureClipsAreToldByFileOrExtension) {
    std::vector<ClipItem> clips{test::clip("a.wav", 10), test::clip("b.wav", 10), test::clip("c.wav", 5),
                                test::clip("d.wav", 4), test::clip("e.wav", 3)};
    // e has no position and counts as 0; a overlaps it; c overlaps both; d fits after e; b starts
    // where a ends, within the 0.001 s tolerance, and the first row is still busy with d.
    const std::map<int, double> at{{0, 1.0}, {1, 10.9995}, {2, 2.0}, {3, 8.0}};
    EXPECT_EQ(SB::pack(std::vector<int>{0, 1, 2, 3, 4}, at, clips),
              (std::vector<std::vector<int>>{{4, 3}, {0, 1}, {2}}));
    EXPECT_EQ(SB::pack(std::vector<int>{0, 1}, {{0, 0.0}, {1, 9.9985}}, clips).size(), 2u)
        << "just past the tolerance";
    EXPECT_TRUE(SB::pack({}, at, clips).empty());

    for (const auto& [name, video] : {std::pair{"A001.MOV", true},
                                      {"clip.braw", true},
                                      {"x.Mxf", true},
                                      {"take.wav", false},
                                      {"noext", false}})
        EXPECT_EQ(SB::isVideo(test::clip(name, 1)), video) << name;
    ClipItem red = test::clip("A001_C002.wav", 1);
    red.pictureURL = Url::fromPath("/shoot/A001_C002.R3D");
    EXPECT_TRUE(SB::isVideo(red));
}

TEST(StackBuilder, FewerThanTwoClipsOrAStopGiveTheTracksBackUntouched) {
    LogCapture log;
    const auto one = test::track("Cam", {test::clip("a.mov", 30)});
    EXPECT_EQ(SB::build({one}).tracks.at(0).id, one.id);
    std::stop_source stop;
    stop.request_stop();
    const auto stopped = SB::build({test::track("Cam", {test::clip("a.mov", 30), test::clip("b.mov", 30)})},
                                   {}, stop.get_token());
    EXPECT_EQ(stopped.tracks.at(0).clips.at(1).syncStatus, SyncStatus::pending);
    EXPECT_TRUE(log.lines().empty());
}

TEST(StackBuilder, TakesMoreThanThreeTimesApartInLengthMeetOnlyThroughAThird) {
    LogCapture log;
    const auto source = playback(11, 120);
    // 25 s and 80 s: 3.2 times, never compared. The 40 s take overlaps both.
    const auto r =
        SB::build({test::track("Cam", {cut(source, "short", 30.0, 25.0), cut(source, "long", 10.0, 80.0),
                                       cut(source, "middle", 20.0, 40.0)})});
    EXPECT_TRUE(
        log.contains("[Stacks] 2 pair(s) to compare, 1 skipped (takes differ in length by more than 3×)"));
    EXPECT_EQ(r.matches, 2);
    ASSERT_EQ(r.stacks.size(), 1u);
    EXPECT_NEAR(clipsByName(r).at("short")->startOffset - clipsByName(r).at("long")->startOffset, 20.0, 0.04);
    // Exactly three times is still compared; a clip of no length never is.
    LogCapture edge;
    SB::build(
        {test::track("Cam", {test::clip("a.wav", 30), test::clip("b.wav", 90), test::clip("c.wav", 0)})});
    EXPECT_TRUE(
        edge.contains("[Stacks] 1 pair(s) to compare, 2 skipped (takes differ in length by more than 3×)"));
}

TEST(StackBuilder, MoreThanTwoThousandPairsAreWarnedOfAndStillCompared) {
    std::vector<ClipItem> many;
    for (int i = 0; i < 64; ++i)
        many.push_back(test::clip("take" + std::to_string(i) + ".wav", 30));
    LogCapture log;
    int reports = 0;
    double last = 0;
    const auto r = SB::build({test::track("Rec", many)}, [&](const Progress& p) {
        ++reports;
        EXPECT_GT(p.fraction, last);
        last = p.fraction;
    });
    EXPECT_TRUE(
        log.contains("[Stacks] WARNING: 2016 comparisons — this looks like a whole shoot, not a set of "
                     "takes; stack mode is meant for a handful of takes over one playback"));
    EXPECT_EQ(r.comparisons, 2016);
    EXPECT_EQ(reports, 2016 / SB::kProgressEvery);
    EXPECT_DOUBLE_EQ(last, 1.0);
}

// ---- advice -------------------------------------------------------------------------------------------

namespace {

// `count` takes of one device: of one playback, 30 s each, 1.6 s apart (close enough that every
// two share their first window), or each of a playback of its own.
std::vector<ClipItem> takes(unsigned seed, const std::string& prefix, int count, bool related,
                            const std::string& device) {
    const auto source = related ? playback(seed, 30.0 + 1.6 * count) : std::vector<float>{};
    std::vector<ClipItem> out;
    for (int i = 0; i < count; ++i) {
        const auto name = prefix + std::to_string(i + 1);
        out.push_back(related ? cut(source, name, 1.6 * i, 30.0)
                              : cut(playback(seed + static_cast<unsigned>(i), 30), name, 0, 30));
        out.back().deviceName = device;
    }
    return out;
}

} // namespace

TEST(StackBuilder, AdviceIsGivenAtThreeMatchesInTwelveFromOneDevice) {
    // "cam-a": three takes of one playback and another, 6 pairs; "cam-b": 6 pairs, no match. (Fewer
    // matches are withheld: the end-to-end runs of ordinary shoots meet that.)
    const auto b = test::track("B", takes(200, "b", 4, false, "cam-b"));
    auto a = takes(100, "a", 3, true, "cam-a");
    a.push_back(takes(300, "x", 1, false, "cam-a")[0]);
    LogCapture log;
    const auto got = SB::advice({test::track("A", a), b}, 12);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->matches, 3);
    EXPECT_EQ(got->probed, 12);
    EXPECT_EQ(got->example, (std::pair<std::string, std::string>{"a1", "a2"}));
    EXPECT_NEAR(got->overlapSeconds, 28.4, 0.04) << "a2 starts 1.6 s into a1";
    EXPECT_TRUE(
        log.contains("[Stacks] advice: 3 of 12 sampled pair(s) from one device share music (e.g. a1 / "
                     "a2, 28s in common)"));
}
