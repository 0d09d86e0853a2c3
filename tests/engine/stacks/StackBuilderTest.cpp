// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/stacks/StackBuilder.hpp"
#include "TestSupport.hpp"
#include "TrelvaneEngine/features/SpectralBands.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

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

ClipItem clipNamed(const std::string& name, double duration) {
    ClipItem c;
    c.url = Url::fromPath("/shoot/" + name);
    c.duration = duration;
    return c;
}

// A take cut from `source` at `fromSec` for `seconds`, with its band feature.
ClipItem cut(const std::vector<float>& source, const std::string& name, double fromSec, double seconds) {
    ClipItem c = clipNamed(name, seconds);
    const auto begin = static_cast<std::ptrdiff_t>(std::llround(fromSec * kRate));
    const auto end = begin + static_cast<std::ptrdiff_t>(std::llround(seconds * kRate));
    c.bandFeature =
        SpectralBands::compute(std::span<const float>(source.data() + begin, source.data() + end));
    return c;
}

TrackSource trackOf(const std::string& name, std::vector<ClipItem> clips,
                    const std::string& session = "shoot") {
    TrackSource t;
    t.name = name;
    t.clips = std::move(clips);
    t.session = session;
    return t;
}

std::map<std::string, const ClipItem*> clipsByName(const SB::Result& r) {
    std::map<std::string, const ClipItem*> out;
    for (const auto& t : r.tracks)
        for (const auto& c : t.clips)
            out[c.url.baseName()] = &c;
    return out;
}

} // namespace

// ---- compare -------------------------------------------------------------------------------------------

TEST(StackBuilder, CompareSaysWhereTheSecondClipStartsAndRefusesWhatCannotBeMatched) {
    const auto source = playback(1, 70);
    const ClipItem a = cut(source, "a", 4.0, 40.0);
    const ClipItem b = cut(source, "b", 10.0, 30.0);
    const auto ab = SB::compare(a, b);
    ASSERT_TRUE(ab.has_value());
    EXPECT_TRUE(ab->confident);
    EXPECT_NEAR(ab->offset, 6.0, 0.04);
    EXPECT_GE(ab->score, SB::kVoteScore);
    EXPECT_GE(ab->alternatives.size(), 2u);
    for (double v : ab->alternatives)
        EXPECT_NEAR(v, ab->offset, SB::kVoteAgreement);
    EXPECT_NEAR(SB::compare(b, a)->offset, -ab->offset, 1e-9);

    ClipItem noFeature = b, silent = b;
    noFeature.bandFeature.reset();
    silent.audioUsability = AudioUsability::silent;
    EXPECT_FALSE(SB::compare(a, noFeature));
    EXPECT_FALSE(SB::compare(noFeature, a));
    EXPECT_FALSE(SB::compare(a, silent));
    // Under 20 s the window would be under 10 s: never compared, even against its own source.
    EXPECT_FALSE(SB::compare(a, cut(source, "short", 5.0, 19.8)));
    EXPECT_TRUE(SB::compare(a, cut(source, "twenty", 5.0, 20.4)));
    EXPECT_FALSE(SB::compare(a, cut(playback(3, 40), "other", 0.0, 36.0))) << "another playback";
}

// ---- solve, reconcile, pack ---------------------------------------------------------------------------

TEST(StackBuilder, SolveDropsOneWrongEdgeOnlyWhileTheRestSpansTheStack) {
    // Four takes at 0, 3, 7 and 12 s: five right edges, and a weak wrong one that says 20 s.
    const std::vector<int> nodes{4, 6, 7, 9};
    std::vector<M> edges{{4, 6, 3.0, 10}, {6, 7, 4.0, 10}, {7, 9, 5.0, 10}, {4, 7, 7.0, 10},
                         {6, 9, 9.0, 10}, {4, 9, 20.0, 1}, {1, 4, 50.0, 99}};
    {
        LogCapture log;
        const auto at = SB::solve(nodes, edges);
        ASSERT_EQ(at.size(), 4u);
        EXPECT_NEAR(at.at(6) - at.at(4), 3.0, 1e-4);
        EXPECT_NEAR(at.at(7) - at.at(4), 7.0, 1e-4);
        EXPECT_NEAR(at.at(9) - at.at(4), 12.0, 1e-4);
        EXPECT_EQ(log.lines(), std::vector<std::string>{"[Stacks]   dropped 1 inconsistent pair(s)"})
            << "the edge to a clip outside the stack is not counted";
    }
    {
        // As strong as the others, the wrong edge bends all of them past 0.5 s: dropping them would
        // leave too few to span the stack, so the compromise stands.
        edges[5].weight = 10;
        LogCapture log;
        const auto at = SB::solve(nodes, edges);
        EXPECT_NEAR(at.at(6) - at.at(4), 5.0, 1e-4);
        EXPECT_NEAR(at.at(9) - at.at(4), 16.0, 1e-4);
        EXPECT_TRUE(log.lines().empty());
    }
    {
        // Fewer edges than nodes: no round of dropping, whatever the residuals.
        LogCapture log;
        const std::vector<int> three{0, 1, 2};
        const auto line = SB::solve(three, std::vector<M>{{0, 1, 1.0, 5}, {1, 2, 1.0, 5}});
        EXPECT_NEAR(line.at(2) - line.at(0), 2.0, 1e-4);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(StackBuilder, AmbiguousPairsAreDecidedByTheFirmPairs) {
    LogCapture log;
    // Firm: 0→1 at 5 s, 1→2 at 3 s, so 0→2 is 8 s. Between 3 and 4 nothing firm exists.
    const std::vector<M> firm{{0, 1, 5.0, 12}, {1, 2, 3.0, 12}};
    const std::vector<SB::AmbiguousPair> ambiguous{
        {0, 2, {12.0, 8.3, 4.0}, 9.0f}, // 8.3 lies within 0.5 s of the solved 8
        {3, 4, {1.5, -2.0}, 8.0f},      // nothing firm: the first vote at half weight
        {1, 2, {9.0, 1.0}, 7.5f},       // no option near the solved 3 s: first vote at half weight
    };
    const auto accepted = SB::reconcile(ambiguous, firm, 5);
    ASSERT_EQ(accepted.size(), 3u);
    EXPECT_EQ(accepted[0].from, 0);
    EXPECT_EQ(accepted[0].to, 2);
    EXPECT_DOUBLE_EQ(accepted[0].offset, 8.3);
    EXPECT_FLOAT_EQ(accepted[0].weight, 9.0f);
    EXPECT_EQ(accepted[1].from, 3);
    EXPECT_DOUBLE_EQ(accepted[1].offset, 1.5);
    EXPECT_FLOAT_EQ(accepted[1].weight, 4.0f);
    EXPECT_DOUBLE_EQ(accepted[2].offset, 9.0);
    EXPECT_FLOAT_EQ(accepted[2].weight, 3.75f);
    EXPECT_TRUE(log.contains("[Stacks] reconciled 3 ambiguous pair(s)  against the solved stacks"));

    // A pair decided in the first round joins the firm ones in the second: 5→6 is only reachable
    // through 4→5, which is itself ambiguous but near its firm solution.
    const std::vector<M> firm2{{4, 5, 2.0, 10}, {0, 4, 1.0, 10}, {0, 5, 3.0, 10}};
    const std::vector<SB::AmbiguousPair> chained{{4, 6, {40.0, 6.1}, 8.0f}, {5, 6, {-1.0, 4.0}, 8.0f}};
    // 4→6 has no firm route in round one; nor has 5→6, so both fall back to their first options.
    const auto fallback = SB::reconcile(chained, firm2, 7);
    ASSERT_EQ(fallback.size(), 2u);
    EXPECT_FLOAT_EQ(fallback[0].weight, 4.0f);
    // With 5→6 firm at 4 s, 4→6 is implied at 6 s and its second option is taken at full weight.
    std::vector<M> firm3 = firm2;
    firm3.push_back({5, 6, 4.0, 10});
    const auto decided = SB::reconcile(std::vector<SB::AmbiguousPair>{chained[0]}, firm3, 7);
    ASSERT_EQ(decided.size(), 1u);
    EXPECT_DOUBLE_EQ(decided[0].offset, 6.1);
    EXPECT_FLOAT_EQ(decided[0].weight, 8.0f);
}

TEST(StackBuilder, PackFillsTheFirstRowThatHasRoom) {
    std::vector<ClipItem> clips{clipNamed("a.wav", 10), clipNamed("b.wav", 10), clipNamed("c.wav", 5),
                                clipNamed("d.wav", 4), clipNamed("e.wav", 3)};
    const std::vector<int> nodes{0, 1, 2, 3, 4};
    // e has no position and counts as 0; a overlaps it; c overlaps both; d fits after e; b starts
    // where a ends, within the 0.001 s tolerance, and the first row is still busy with d.
    const std::map<int, double> at{{0, 1.0}, {1, 10.9995}, {2, 2.0}, {3, 8.0}};
    const auto rows = SB::pack(nodes, at, clips);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0], (std::vector<int>{4, 3}));
    EXPECT_EQ(rows[1], (std::vector<int>{0, 1}));
    EXPECT_EQ(rows[2], (std::vector<int>{2}));
    // Just past the tolerance opens a row of its own.
    const std::map<int, double> late{{0, 0.0}, {1, 9.9985}};
    EXPECT_EQ(SB::pack(std::vector<int>{0, 1}, late, clips).size(), 2u);
    EXPECT_TRUE(SB::pack({}, at, clips).empty());
}

TEST(StackBuilder, PictureClipsAreToldByPictureFileOrVideoExtension) {
    for (const auto& [name, video] : {std::pair{"A001.MOV", true},
                                      {"clip.braw", true},
                                      {"x.Mxf", true},
                                      {"take.wav", false},
                                      {"noext", false}})
        EXPECT_EQ(SB::isVideo(clipNamed(name, 1)), video) << name;
    ClipItem red = clipNamed("A001_C002.wav", 1);
    red.pictureURL = Url::fromPath("/shoot/A001_C002.R3D");
    EXPECT_TRUE(SB::isVideo(red));
}

// ---- build on synthetic playbacks ---------------------------------------------------------------------

TEST(StackBuilder, TakesAloneStandInShootingOrderTwoSecondsApart) {
    LogCapture log;
    // No features: nothing matches. Dates: c first, a and b on the same second (kept in clip
    // order), d undated and last.
    ClipItem a = clipNamed("a.mov", 30), b = clipNamed("b.wav", 40), c = clipNamed("c.mp4", 35),
             d = clipNamed("d.wav", 25);
    a.recordingDate = b.recordingDate = test::localDate(2024, 5, 1, 12, 0, 0);
    c.recordingDate = test::localDate(2024, 5, 1, 11, 0, 0);
    std::vector<TrackSource> sources{trackOf("Cam", {a, c}, "day1"), trackOf("Rec", {b, d}, "day2")};
    // Clip order is a, c, b, d.
    const auto r = SB::build(sources);
    ASSERT_EQ(r.stacks.size(), 4u);
    EXPECT_EQ(r.comparisons, 6);
    EXPECT_EQ(r.matches, 0);
    EXPECT_EQ(r.unmatched, (std::vector<std::string>{"a", "c", "b", "d"}));

    const auto byName = clipsByName(r);
    EXPECT_DOUBLE_EQ(byName.at("c")->startOffset, 0.0);
    EXPECT_DOUBLE_EQ(byName.at("a")->startOffset, 37.0);
    EXPECT_DOUBLE_EQ(byName.at("b")->startOffset, 69.0);
    EXPECT_DOUBLE_EQ(byName.at("d")->startOffset, 111.0);
    for (const auto& [name, clip] : byName) {
        EXPECT_EQ(clip->syncStatus, SyncStatus::failed) << name;
        EXPECT_EQ(clip->placementPass, "stack-alone") << name;
    }
    EXPECT_EQ(r.stacks[0].recordedAt, c.recordingDate);
    EXPECT_FALSE(r.stacks[3].recordedAt.has_value());

    // One row per kind, picture rows first, in the session of the first track, locked.
    ASSERT_EQ(r.tracks.size(), 2u);
    EXPECT_EQ(r.tracks[0].name, "Stack 1");
    EXPECT_EQ(r.tracks[0].type, SourceType::video);
    EXPECT_EQ(r.tracks[1].name, "Audio 1");
    for (const auto& t : r.tracks) {
        EXPECT_EQ(t.session, "day1");
        EXPECT_TRUE(t.lockedGrouping);
    }
    EXPECT_TRUE(log.contains("[Stacks] 6 comparison(s), 0 match(es) → 4 stack(s), 2 row(s), 4 unmatched"));
    EXPECT_TRUE(log.contains("[Stacks]   stack 4: 1 take(s), 25.0s at 111.0s"));
    EXPECT_TRUE(log.contains("[Stacks]   unmatched: a, c, b, d"));
}

TEST(StackBuilder, FewerThanTwoClipsOrAStopGiveTheTracksBackUntouched) {
    LogCapture log;
    const std::vector<TrackSource> one{trackOf("Cam", {clipNamed("a.mov", 30)})};
    const auto r = SB::build(one);
    ASSERT_EQ(r.tracks.size(), 1u);
    EXPECT_EQ(r.tracks[0].id, one[0].id);
    EXPECT_TRUE(r.stacks.empty());
    EXPECT_EQ(r.comparisons, 0);

    std::stop_source stop;
    stop.request_stop();
    const std::vector<TrackSource> two{trackOf("Cam", {clipNamed("a.mov", 30), clipNamed("b.mov", 30)})};
    const auto stopped = SB::build(two, {}, stop.get_token());
    ASSERT_EQ(stopped.tracks.size(), 1u);
    EXPECT_EQ(stopped.tracks[0].clips[1].syncStatus, SyncStatus::pending);
    EXPECT_TRUE(stopped.stacks.empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST(StackBuilder, TakesMoreThanThreeTimesApartInLengthMeetOnlyThroughAThird) {
    LogCapture log;
    const auto source = playback(11, 120);
    // 25 s and 80 s: 3.2 times, never compared. The 40 s take overlaps both.
    std::vector<TrackSource> sources{
        trackOf("Cam", {cut(source, "short", 30.0, 25.0), cut(source, "long", 10.0, 80.0),
                        cut(source, "middle", 20.0, 40.0)})};
    const auto r = SB::build(sources);
    EXPECT_TRUE(
        log.contains("[Stacks] 2 pair(s) to compare, 1 skipped (takes differ in length by more than 3×)"));
    EXPECT_EQ(r.comparisons, 2);
    EXPECT_EQ(r.matches, 2);
    ASSERT_EQ(r.stacks.size(), 1u);
    const auto byName = clipsByName(r);
    EXPECT_NEAR(byName.at("long")->startOffset, 0.0, 0.04);
    EXPECT_NEAR(byName.at("middle")->startOffset, 10.0, 0.04);
    EXPECT_NEAR(byName.at("short")->startOffset, 20.0, 0.04);
    EXPECT_NEAR(r.stacks[0].length, 80.0, 0.04);

    // Exactly three times is still compared; a clip of no length never is.
    LogCapture edge;
    SB::build({trackOf("Cam", {clipNamed("a.wav", 30), clipNamed("b.wav", 90), clipNamed("c.wav", 0)})});
    EXPECT_TRUE(
        edge.contains("[Stacks] 1 pair(s) to compare, 2 skipped (takes differ in length by more than 3×)"));
}

TEST(StackBuilder, MoreThanTwoThousandPairsAreWarnedOfAndStillCompared) {
    std::vector<ClipItem> many;
    for (int i = 0; i < 64; ++i)
        many.push_back(clipNamed("take" + std::to_string(i) + ".wav", 30));
    LogCapture log;
    int reports = 0;
    double last = 0;
    const auto r = SB::build({trackOf("Rec", many)}, [&](double f) {
        ++reports;
        EXPECT_GT(f, last);
        last = f;
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

// `count` takes of one playback, 30 s each, 1.6 s apart: close enough that every two share their
// first window.
std::vector<ClipItem> takesOf(unsigned seed, const std::string& prefix, int count,
                              const std::string& device) {
    const auto source = playback(seed, 30.0 + 1.6 * count);
    std::vector<ClipItem> out;
    for (int i = 0; i < count; ++i) {
        out.push_back(cut(source, prefix + std::to_string(i + 1), 1.6 * i, 30.0));
        out.back().deviceName = device;
    }
    return out;
}

std::vector<ClipItem> unrelated(unsigned seed, const std::string& prefix, int count,
                                const std::string& device) {
    std::vector<ClipItem> out;
    for (int i = 0; i < count; ++i) {
        out.push_back(
            cut(playback(seed + static_cast<unsigned>(i), 30), prefix + std::to_string(i + 1), 0, 30));
        out.back().deviceName = device;
    }
    return out;
}

std::vector<ClipItem> concat(std::vector<ClipItem> a, const std::vector<ClipItem>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace

TEST(StackBuilder, AdviceIsWithheldAtOneMatchInTwelveAndGivenAtThree) {
    const auto others = unrelated(200, "b", 4, "cam-b");
    {
        // "cam-a": two takes of one playback and two others, 6 pairs; "cam-b": 6 pairs, no match.
        LogCapture log;
        const auto a = concat(takesOf(100, "a", 2, "cam-a"), unrelated(300, "x", 2, "cam-a"));
        EXPECT_FALSE(SB::advice({trackOf("A", a), trackOf("B", others)}, 12));
        EXPECT_TRUE(
            log.contains("[Stacks] advice withheld: 1 of 12 sampled pair(s) share audio (need ≥2 and ≥25%) "
                         "— reads as an ordinary shoot"));
    }
    {
        LogCapture log;
        const auto a = concat(takesOf(100, "a", 3, "cam-a"), unrelated(300, "x", 1, "cam-a"));
        const auto got = SB::advice({trackOf("A", a), trackOf("B", others)}, 12);
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(got->matches, 3);
        EXPECT_EQ(got->probed, 12);
        EXPECT_EQ(got->example, (std::pair<std::string, std::string>{"a1", "a2"}));
        // a2 starts 1.6 s into a1: 28.4 s lie over each other.
        EXPECT_NEAR(got->overlapSeconds, 28.4, 0.04);
        EXPECT_TRUE(
            log.contains("[Stacks] advice: 3 of 12 sampled pair(s) from one device share music (e.g. a1 / "
                         "a2, 28s in common)"));
    }
    {
        // Nothing shared at all: no advice and no word.
        LogCapture log;
        EXPECT_FALSE(SB::advice({trackOf("B", others)}, 12));
        EXPECT_TRUE(log.lines().empty());
    }
}
