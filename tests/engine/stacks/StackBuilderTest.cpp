// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/stacks/StackBuilder.hpp"
#include "MediaSupport.hpp"
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
using trelvane::test::TempDir;
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

// The stack (by place on the timeline) that holds the clip.
int stackOf(const SB::Result& r, const Uuid& id) {
    for (std::size_t k = 0; k < r.stacks.size(); ++k)
        if (r.stacks[k].positions.contains(id)) return static_cast<int>(k);
    return -1;
}

} // namespace

// ---- compare -------------------------------------------------------------------------------------------

TEST(StackBuilder, CompareSaysWhereTheSecondClipStartsFromEitherSide) {
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

    const auto ba = SB::compare(b, a);
    ASSERT_TRUE(ba.has_value());
    EXPECT_NEAR(ba->offset, -6.0, 0.04);
    EXPECT_NEAR(ba->offset, -ab->offset, 1e-9);
}

TEST(StackBuilder, CompareRefusesWhatCannotBeMatched) {
    const auto source = playback(2, 70);
    const ClipItem a = cut(source, "a", 0.0, 40.0);
    ClipItem b = cut(source, "b", 5.0, 30.0);

    ClipItem noFeature = b;
    noFeature.bandFeature.reset();
    EXPECT_FALSE(SB::compare(a, noFeature));
    EXPECT_FALSE(SB::compare(noFeature, a));

    ClipItem silent = b;
    silent.audioUsability = AudioUsability::silent;
    EXPECT_FALSE(SB::compare(a, silent));

    // Under 20 s the window would be under 10 s: never compared, even against its own source.
    const ClipItem shortTake = cut(source, "short", 5.0, 19.8);
    EXPECT_FALSE(SB::compare(a, shortTake));
    EXPECT_TRUE(SB::compare(a, cut(source, "twenty", 5.0, 20.4)));

    // Another playback shares nothing.
    const auto other = playback(3, 40);
    EXPECT_FALSE(SB::compare(a, cut(other, "other", 0.0, 36.0)));
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

    LogCapture none;
    EXPECT_TRUE(SB::reconcile({}, firm, 5).empty());
    EXPECT_TRUE(none.lines().empty());
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
    EXPECT_TRUE(SB::isVideo(clipNamed("A001.MOV", 1)));
    EXPECT_TRUE(SB::isVideo(clipNamed("clip.braw", 1)));
    EXPECT_TRUE(SB::isVideo(clipNamed("x.Mxf", 1)));
    EXPECT_FALSE(SB::isVideo(clipNamed("take.wav", 1)));
    EXPECT_FALSE(SB::isVideo(clipNamed("noext", 1)));
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
        EXPECT_EQ(clip->placementPass, PlacementPass::stackAlone) << name;
    }
    EXPECT_EQ(r.stacks[0].recordedAt, c.recordingDate);
    EXPECT_FALSE(r.stacks[3].recordedAt.has_value());
    EXPECT_DOUBLE_EQ(r.stacks[1].length, 30.0);

    // One row per kind, picture rows first; names, session of the first track, locked.
    ASSERT_EQ(r.tracks.size(), 2u);
    EXPECT_EQ(r.tracks[0].name, "Stack 1");
    EXPECT_EQ(r.tracks[0].type, SourceType::video);
    EXPECT_EQ(r.tracks[1].name, "Audio 1");
    EXPECT_EQ(r.tracks[1].type, SourceType::audio);
    for (const auto& t : r.tracks) {
        EXPECT_EQ(t.session, "day1");
        EXPECT_TRUE(t.lockedGrouping);
        EXPECT_FALSE(t.deviceName.has_value());
        EXPECT_NE(t.id, sources[0].id);
        EXPECT_NE(t.id, sources[1].id);
    }
    ASSERT_EQ(r.tracks[0].clips.size(), 2u);
    EXPECT_EQ(r.tracks[0].clips[0].url.baseName(), "c");
    EXPECT_EQ(r.tracks[0].clips[1].url.baseName(), "a");

    EXPECT_TRUE(log.contains("[Stacks] 6 comparison(s), 0 match(es) → 4 stack(s), 2 row(s), 4 unmatched"));
    EXPECT_TRUE(log.contains("[Stacks]   stack 1: 1 take(s), 35.0s at 0.0s"));
    EXPECT_TRUE(log.contains("[Stacks]   stack 4: 1 take(s), 25.0s at 111.0s"));
    EXPECT_TRUE(log.contains("[Stacks]   unmatched: a, c, b, d"));
    EXPECT_EQ(log.countStartingWith("[Stacks] WARNING"), 0);
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
    EXPECT_EQ(stopped.tracks[0].id, two[0].id);
    EXPECT_EQ(stopped.tracks[0].clips[1].startOffset, 0.0);
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
    {
        LogCapture log;
        int reports = 0;
        double last = 0;
        const auto r = SB::build({trackOf("Rec", many)}, [&](const Progress& p) {
            ++reports;
            EXPECT_GT(p.fraction, last);
            last = p.fraction;
        });
        EXPECT_TRUE(
            log.contains("[Stacks] WARNING: 2016 comparisons — this looks like a whole shoot, not a set of "
                         "takes; stack mode is meant for a handful of takes over one playback"));
        EXPECT_EQ(r.comparisons, 2016);
        EXPECT_EQ(r.stacks.size(), 64u);
        EXPECT_EQ(reports, 2016 / SB::kProgressEvery);
        EXPECT_DOUBLE_EQ(last, 2016.0 / 2016.0);
    }
    many.pop_back(); // 63 takes: 1,953 pairs
    LogCapture log;
    const auto r = SB::build({trackOf("Rec", many)});
    EXPECT_EQ(r.comparisons, 1953);
    EXPECT_EQ(log.countStartingWith("[Stacks] WARNING"), 0);
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

TEST(StackBuilder, AdviceSamplesALongCardEvenlyAndSpendsTheRestOnTheNextDevice) {
    // 100 clips on "A": only 0, 25, 50 and 75 are sampled, and they are the ones with audio.
    const auto real = takesOf(400, "a", 4, "A");
    std::vector<ClipItem> card;
    for (int i = 0; i < 100; ++i) {
        if (i % 25 == 0) {
            card.push_back(real[static_cast<std::size_t>(i / 25)]);
        } else {
            card.push_back(clipNamed("filler" + std::to_string(i) + ".mov", 30));
            card.back().bandFeature = SpectralBands::Feature{};
            card.back().deviceName = "A";
        }
    }
    // "B" (after "A" by key): 5 takes would make 10 pairs; 6 remain of the budget.
    const auto b = takesOf(500, "b", 5, "B");
    LogCapture log;
    const auto got = SB::advice({trackOf("B", b), trackOf("A", card)}, 12);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->probed, 12);
    EXPECT_EQ(got->matches, 12);
    EXPECT_EQ(got->example.first, "a1");
    EXPECT_EQ(got->example.second, "a2");
}

TEST(StackBuilder, AdviceGroupsClipsWithoutDeviceByTrackAndIgnoresShortOnes) {
    auto first = takesOf(600, "p", 2, "");
    auto second = takesOf(700, "q", 2, "");
    for (auto& c : first)
        c.deviceName.reset();
    for (auto& c : second)
        c.deviceName.reset();
    const auto got = SB::advice({trackOf("Folder 1", first), trackOf("Folder 2", second)}, 12);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->probed, 2) << "one pair per track: no pair across the two";
    EXPECT_EQ(got->matches, 2);

    // Clips under 20 s don't count: a track of two such takes has nothing to sample.
    const auto source = playback(800, 40);
    std::vector<ClipItem> shortOnes{cut(source, "s1", 0, 19.5), cut(source, "s2", 2, 19.5)};
    LogCapture log;
    EXPECT_FALSE(SB::advice({trackOf("Short", shortOnes)}, 12));
    EXPECT_TRUE(log.lines().empty());
}

// ---- build on real takes --------------------------------------------------------------------------------

namespace {

const std::filesystem::path kMusic = "/usr/share/games/wesnoth/1.16/data/core/music";

struct TakePlan {
    std::string name;
    std::string song;
    double from;    // seconds into the song
    double seconds; // length of the take
    std::string colour;
    std::string noise; // anoisesrc colour
    double noiseLevel;
    bool picture;
    std::optional<int> minute; // recorded at 9:<minute>, else undated
};

// One playback heard several times: each take starts and stops elsewhere, through its own
// microphone (filters) and room noise.
const std::vector<TakePlan> kTakes{
    {"take-a1", "frantic", 60.0, 34.0, "highpass=f=250,lowpass=f=4000", "pink", 0.03, true, 50},
    {"take-a2", "frantic", 71.32, 30.0, "equalizer=f=3000:t=q:w=1:g=8,volume=0.7", "brown", 0.05, true, 40},
    {"take-a3", "frantic", 52.6, 38.0, "lowpass=f=2500,volume=0.5", "white", 0.01, false, 55},
    {"take-a4", "frantic", 80.2, 26.0, "bandpass=f=1200:width_type=o:w=3,aecho=0.8:0.5:30:0.2", "pink", 0.02,
     false, std::nullopt},
    {"take-b1", "legends_of_the_north", 40.0, 32.0, "highpass=f=120,treble=g=-6", "pink", 0.04, true, 10},
    {"take-b2", "legends_of_the_north", 49.48, 28.0, "lowpass=f=5000,bass=g=6", "white", 0.02, false, 0},
    {"take-b3", "legends_of_the_north", 35.2, 36.0, "volume=1.4,highpass=f=400", "brown", 0.03, false, 20},
    {"take-c1", "the_deep_path", 30.0, 30.0, "lowpass=f=3500", "pink", 0.03, false, 30},
};

class StackBuilderTakes : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<TempDir>();
        std::vector<ClipItem> pictures, sounds;
        unsigned seed = 1;
        for (const auto& plan : kTakes) {
            const auto out = *dir_ / (plan.name + ".wav");
            const std::string graph =
                fmt::format("[0:a]atrim=start={0}:duration={1},asetpts=PTS-STARTPTS,aresample=48000,"
                            "aformat=channel_layouts=mono,{2}[s];"
                            "[1:a]atrim=duration={1},aformat=channel_layouts=mono[n];"
                            "[s][n]amix=inputs=2:duration=first:normalize=0[out]",
                            plan.from, plan.seconds, plan.colour);
            test::ffmpeg("-i " + test::quoted((kMusic / (plan.song + ".ogg")).string()) + " -f lavfi -i " +
                         test::quoted(fmt::format("anoisesrc=color={}:amplitude={}:seed={}:sample_rate=48000",
                                                  plan.noise, plan.noiseLevel, seed++)) +
                         " -filter_complex " + test::quoted(graph) + " -map '[out]' -c:a pcm_s16le " +
                         test::quoted(out.string()));
            if (HasFatalFailure()) return;

            ClipItem c = test::analysedClip(out);
            if (plan.picture) c.pictureURL = Url::fromPath(*dir_ / (plan.name + ".mov"));
            if (plan.minute) c.recordingDate = test::localDate(2024, 6, 2, 9, *plan.minute, 0);
            c.deviceName = "cam";
            (plan.picture ? pictures : sounds).push_back(std::move(c));
        }
        sources_ = {trackOf("Cam", pictures, "shoot"), trackOf("Recorder", sounds, "shoot")};
    }
    static void TearDownTestSuite() {
        sources_.clear();
        dir_.reset();
    }

    static const TakePlan& plan(const std::string& name) {
        return *std::find_if(kTakes.begin(), kTakes.end(), [&](const TakePlan& p) { return p.name == name; });
    }

    static std::unique_ptr<TempDir> dir_;
    static std::vector<TrackSource> sources_;
};

std::unique_ptr<TempDir> StackBuilderTakes::dir_;
std::vector<TrackSource> StackBuilderTakes::sources_;

} // namespace

TEST_F(StackBuilderTakes, EachSongIsOneStackAlignedWithinAFrameInShootingOrderWhateverTheWorkers) {
    ASSERT_FALSE(sources_.empty());
    auto run = [](int workers) {
        LogCapture log;
        std::vector<double> progress;
        auto r = SB::build(
            sources_, [&](const Progress& p) { progress.push_back(p.fraction); }, {}, workers);
        return std::make_tuple(std::move(r), log.lines(), progress);
    };
    const auto [r, lines, progress] = run(6);
    const auto [one, oneLines, oneProgress] = run(1);

    // One worker and many: the same tracks, positions, log and progress.
    EXPECT_EQ(oneLines, lines);
    EXPECT_EQ(oneProgress, progress);
    EXPECT_EQ(progress, std::vector<double>{16.0 / 28.0});
    EXPECT_EQ(one.matches, r.matches);
    EXPECT_EQ(one.unmatched, r.unmatched);
    ASSERT_EQ(one.tracks.size(), r.tracks.size());
    for (std::size_t t = 0; t < one.tracks.size(); ++t) {
        EXPECT_EQ(one.tracks[t].name, r.tracks[t].name);
        ASSERT_EQ(one.tracks[t].clips.size(), r.tracks[t].clips.size());
        for (std::size_t k = 0; k < one.tracks[t].clips.size(); ++k) {
            EXPECT_EQ(one.tracks[t].clips[k].id, r.tracks[t].clips[k].id);
            EXPECT_EQ(one.tracks[t].clips[k].startOffset, r.tracks[t].clips[k].startOffset);
        }
    }

    const auto contains = [&lines](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    const auto byName = clipsByName(r);
    ASSERT_EQ(byName.size(), kTakes.size()) << "every take on exactly one track";
    ASSERT_EQ(r.stacks.size(), 3u);

    // Stacks by recording date: b (9:00), then the lone c (9:30), then a (its earliest take 9:40).
    const auto stackA = stackOf(r, byName.at("take-a1")->id);
    const auto stackB = stackOf(r, byName.at("take-b1")->id);
    const auto stackC = stackOf(r, byName.at("take-c1")->id);
    EXPECT_EQ(stackB, 0);
    EXPECT_EQ(stackC, 1);
    EXPECT_EQ(stackA, 2);
    for (const auto& [name, clip] : byName)
        EXPECT_EQ(stackOf(r, clip->id), name[5] == 'a' ? stackA : name[5] == 'b' ? stackB : stackC) << name;
    EXPECT_EQ(r.stacks[2].recordedAt, test::localDate(2024, 6, 2, 9, 40, 0));

    // Within a stack each take stands where it lies in the song, to one frame.
    for (const char song : {'a', 'b'}) {
        double earliest = 1e9;
        for (const auto& p : kTakes)
            if (p.name[5] == song) earliest = std::min(earliest, p.from);
        const int k = song == 'a' ? stackA : stackB;
        for (const auto& p : kTakes) {
            if (p.name[5] != song) continue;
            const ClipItem* clip = byName.at(p.name);
            EXPECT_NEAR(r.stacks[static_cast<std::size_t>(k)].positions.at(clip->id), p.from - earliest, 0.04)
                << p.name;
            EXPECT_EQ(clip->syncStatus, SyncStatus::synced) << p.name;
            EXPECT_EQ(clip->placementPass, PlacementPass::stack) << p.name;
        }
    }
    // Stacks follow one another 2 s apart; a clip's place is its stack's start plus its position.
    double cursor = 0;
    for (const auto& stack : r.stacks) {
        for (const auto& [id, at] : stack.positions)
            for (const auto& [name, clip] : byName)
                if (clip->id == id) {
                    EXPECT_NEAR(clip->startOffset, cursor + at, 1e-9) << name;
                }
        cursor += stack.length + SB::kStackGap;
    }

    // The third song's take shares nothing.
    EXPECT_EQ(r.unmatched, std::vector<std::string>{"take-c1"});
    EXPECT_EQ(byName.at("take-c1")->syncStatus, SyncStatus::failed);
    EXPECT_EQ(byName.at("take-c1")->placementPass, PlacementPass::stackAlone);
    EXPECT_EQ(r.stacks[1].positions.size(), 1u);
    EXPECT_EQ(r.comparisons, 28);
    EXPECT_GE(r.matches, 5) << "at least a spanning set: 3 edges for a, 2 for b";

    // Rows: picture rows first, no overlap inside a row, every row in order of position.
    ASSERT_GE(r.tracks.size(), 2u);
    EXPECT_EQ(r.tracks.front().name, "Stack 1");
    EXPECT_EQ(r.tracks.front().type, SourceType::video);
    EXPECT_EQ(r.tracks.back().type, SourceType::audio);
    for (const auto& t : r.tracks) {
        EXPECT_TRUE(t.lockedGrouping);
        EXPECT_EQ(t.session, "shoot");
        for (std::size_t i = 1; i < t.clips.size(); ++i)
            EXPECT_LE(t.clips[i - 1].startOffset + t.clips[i - 1].duration, t.clips[i].startOffset + 0.001)
                << t.name;
    }
    EXPECT_TRUE(
        contains(fmt::format("[Stacks] 28 comparison(s), {} match(es) → 3 stack(s), {} row(s), 1 unmatched",
                             r.matches, r.tracks.size())));
    EXPECT_TRUE(contains("[Stacks]   stack 2: 1 take(s), " + fmt::sprintf("%.1f", r.stacks[1].length) +
                         "s at " + fmt::sprintf("%.1f", r.stacks[0].length + 2.0) + "s"));
    EXPECT_TRUE(contains("[Stacks]   unmatched: take-c1"));
    // a3 and a4 share only 10.4 s, so one window at most can vote: their pair is ambiguous, and
    // the firm pairs of the stack decide it.
    EXPECT_TRUE(contains("[Stacks] reconciled 1 ambiguous pair(s)  against the solved stacks"));
}

TEST_F(StackBuilderTakes, AdviceFindsTheTakesOfOneCamera) {
    ASSERT_FALSE(sources_.empty());
    // All eight takes are on "cam", so the sample is the 1st, 3rd, 5th and 7th of the flat order:
    // a1, b1, a4 and b3. Of their six pairs, a1/a4 and b1/b3 share audio.
    LogCapture log;
    const auto got = SB::advice(sources_, 12);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->probed, 6);
    EXPECT_EQ(got->matches, 2);
    EXPECT_EQ(got->example, (std::pair<std::string, std::string>{"take-a1", "take-a4"}));
    // a4 starts 20.2 s into a1, which ends 13.8 s later.
    EXPECT_NEAR(got->overlapSeconds, 13.8, 0.04);
    EXPECT_TRUE(
        log.contains("[Stacks] advice: 2 of 6 sampled pair(s) from one device share music (e.g. take-a1 / "
                     "take-a4, 13s in common)"));
}
