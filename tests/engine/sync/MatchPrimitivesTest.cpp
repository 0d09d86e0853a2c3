// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/SyncEngine.hpp"
#include "engine/sync/SyntheticBands.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <tuple>
#include <vector>

using namespace trelvane;
using namespace trelvane::SyncEngine;
using namespace trelvane::test;

namespace {

constexpr double kInf = kUnbounded;

Span spanOf(double off, const SpectralBands::Feature& bands, std::optional<double> startTC = std::nullopt) {
    Span s;
    s.off = off;
    s.dur = bands.frames / static_cast<double>(kFps);
    s.bands = &bands;
    s.startTC = startTC;
    return s;
}

ClipItem clipWith(const SpectralBands::Feature& bands) {
    ClipItem c;
    c.duration = bands.frames / static_cast<double>(kFps);
    c.bandFeature = bands;
    return c;
}

Date at(double seconds) {
    return dateFromUnixSeconds(1'700'000'000.0 + seconds);
}

// Found at `pos` give or take `tolerance`, scoring at least `floor`.
testing::AssertionResult foundAt(const std::optional<Match>& m, double pos, double tolerance,
                                 float floor = 0) {
    if (!m) return testing::AssertionFailure() << "nothing found";
    if (std::abs(m->pos - pos) > tolerance || m->score < floor)
        return testing::AssertionFailure() << "found at " << m->pos << " scoring " << m->score;
    return testing::AssertionSuccess();
}

} // namespace

TEST(MatchPrimitives, BestMatchFindsAClipInALongerSpanOrAShorterSpanInTheClipAndKeepsTheBestFirst) {
    const auto ref = noiseBands(60 * kFps, 1);
    const auto clip = cutBands(ref, 12 * kFps, 20 * kFps);
    const std::vector<Span> spans{spanOf(100.0, ref)};
    EXPECT_TRUE(foundAt(bestMatch(spans, &clip, -kInf, kInf), 112.0, kFrame / 2, kStrongScore));
    // The bounds limit the clip's start on the timeline, not its offset within the span.
    EXPECT_TRUE(bestMatch(spans, &clip, 111.0, 113.0));
    EXPECT_FALSE(foundAt(bestMatch(spans, &clip, 120.0, 130.0), 112.0, 1.0));

    // A span shorter than the clip is searched in the clip, the bounds turned round.
    const auto longClip = noiseBands(120 * kFps, 2);
    const auto piece = cutBands(longClip, 30 * kFps, 40 * kFps);
    const std::vector<Span> shorter{spanOf(500.0, piece)};
    EXPECT_TRUE(foundAt(bestMatch(shorter, &longClip, -kInf, kInf), 470.0, kFrame / 2));
    EXPECT_TRUE(foundAt(bestMatch(shorter, &longClip, 469.0, 471.0), 470.0, kFrame / 2));
    EXPECT_FALSE(bestMatch(shorter, &longClip, 470.0, 470.0)) << "a single point is no range";

    // Unrelated audio first: the better score later still wins.
    const std::vector<Span> mixed{spanOf(0.0, longClip), spanOf(1000.0, ref)};
    EXPECT_TRUE(foundAt(bestMatch(mixed, &clip, -kInf, kInf), 1012.0, kFrame / 2));
    // The same audio twice scores the same: the first span in the list wins either way round.
    const std::vector<Span> ab{spanOf(0.0, ref), spanOf(1000.0, ref)};
    const std::vector<Span> ba{spanOf(1000.0, ref), spanOf(0.0, ref)};
    EXPECT_TRUE(foundAt(bestMatch(ab, &clip, -kInf, kInf), 12.0, kFrame / 2));
    EXPECT_TRUE(foundAt(bestMatch(ba, &clip, -kInf, kInf), 1012.0, kFrame / 2));
    // Bounds that leave the first span no room hand the result to the second.
    EXPECT_TRUE(foundAt(bestMatch(ab, &clip, 500.0, kInf), 1012.0, kFrame / 2));
}

TEST(MatchPrimitives, BestMatchRefusesWhatItCannotSearch) {
    const auto ref = noiseBands(60 * kFps, 3);
    const auto same = cutBands(ref, 0, ref.frames);
    const auto tiny = cutBands(ref, 0, 4);
    const auto clip = cutBands(ref, 10 * kFps, 20 * kFps);
    // A span of exactly the clip's frame count is taken by neither direction.
    const std::vector<Span> equal{spanOf(0.0, ref)};
    EXPECT_FALSE(bestMatch(equal, &same, -kInf, kInf));
    EXPECT_FALSE(bestMatch(equal, nullptr, -kInf, kInf));
    EXPECT_FALSE(bestMatch(equal, &tiny, -kInf, kInf));
    EXPECT_FALSE(bestMatch({}, &clip, -kInf, kInf));
    // Spans without a usable feature are passed over.
    Span absent = spanOf(10.0, ref);
    absent.bands = nullptr;
    const std::vector<Span> unusable{absent, spanOf(0.0, tiny), spanOf(50.0, ref)};
    EXPECT_TRUE(foundAt(bestMatch(unusable, &clip, -kInf, kInf), 60.0, kFrame / 2));
}

TEST(MatchPrimitives, MultiWindowMatchSitsItsWindowsInTheClipAndNeedsTheirVotesToAgree) {
    EXPECT_EQ(windowStart(200.0, 45.0, 0.15), 7.5);
    EXPECT_EQ(windowStart(200.0, 45.0, 0.45), 67.5);
    EXPECT_EQ(windowStart(200.0, 45.0, 0.75), 127.5);
    EXPECT_EQ(windowStart(30.0, 20.0, 0.15), 0.0);  // clamped at the start
    EXPECT_EQ(windowStart(30.0, 20.0, 0.75), 10.0); // clamped at the end
    EXPECT_EQ(windowStart(20.0, 20.0, 0.45), 0.0);
    EXPECT_FALSE(windowStart(10.0, 20.0, 0.45));
    EXPECT_FALSE(windowStart(std::nan(""), 20.0, 0.45));

    const auto cluster =
        largestCluster(std::vector<Vote>{{100.0, 8.0f}, {103.0, 9.0f}, {110.0, 20.0f}}, kVoteTolerance);
    ASSERT_EQ(cluster.size(), 2u);
    EXPECT_EQ(cluster[0].pos, 100.0);
    EXPECT_EQ(cluster[1].pos, 103.0);
    EXPECT_DOUBLE_EQ(weightedMean(cluster), (100.0 * 8 + 103.0 * 9) / 17);

    // The tolerance is inclusive, and a later cluster of the same size does not replace the first.
    const auto first =
        largestCluster(std::vector<Vote>{{0.0, 1.0f}, {5.0, 1.0f}, {20.0, 1.0f}, {25.0, 1.0f}}, 5.0);
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(first[0].pos, 0.0);
    EXPECT_TRUE(largestCluster({}, 5.0).empty());

    EXPECT_TRUE(std::isfinite(weightedMean(std::vector<Vote>{{10.0, 1.0f}, {12.0, -1.0f}})));
    EXPECT_EQ(weightedMean(std::vector<Vote>{{10.0, 0.0f}, {12.0, 0.0f}}), 0.0);

    const auto ref = noiseBands(400 * kFps, 6);
    const std::vector<Span> spans{spanOf(0.0, ref)};
    const auto clip = cutBands(ref, 50 * kFps, 200 * kFps);

    EXPECT_TRUE(foundAt(multiWindowMatch(&clip, 200.0, -kInf, kInf, spans, false), 50.0, kFrame,
                        kSingleStrongWindow));
    // Each window's bounds follow it, so a prior on the clip's start holds for all three.
    EXPECT_TRUE(foundAt(multiWindowMatch(&clip, 200.0, 45.0, 55.0, spans, false), 50.0, kFrame));
    EXPECT_FALSE(foundAt(multiWindowMatch(&clip, 200.0, 150.0, 160.0, spans, false), 50.0, 1.0));

    EXPECT_FALSE(multiWindowMatch(nullptr, 200.0, -kInf, kInf, spans, true));

    // A clip too short for windows of 8 s is searched whole.
    const auto shortClip = cutBands(ref, 40 * kFps, 20 * kFps);
    const auto whole = multiWindowMatch(&shortClip, 20.0, -kInf, kInf, spans, false);
    EXPECT_TRUE(foundAt(whole, 40.0, kFrame / 2));
    EXPECT_EQ(whole, bestMatch(spans, &shortClip, -kInf, kInf));
}

TEST(MatchPrimitives, MultiWindowMatchBelievesALoneVoteOnlyWhenAllowedAndStrong) {
    // The pool heard only the first minute of the clip, placed at 50 s; the first window alone lies in it.
    const auto strong = noiseBands(200 * kFps, 8);
    const auto heard = cutBands(strong, 0, 60 * kFps);
    const std::vector<Span> spans{spanOf(50.0, heard)};
    EXPECT_FALSE(multiWindowMatch(&strong, 200.0, -kInf, kInf, spans, false));
    EXPECT_TRUE(foundAt(multiWindowMatch(&strong, 200.0, -kInf, kInf, spans, true), 50.0, kFrame,
                        kSingleStrongWindow));
    // The same, heard through noise: the window still finds its place, but not strongly enough.
    const auto weak = noisyBands(strong, 8.0f, 10);
    const auto window = SpectralBands::slice(weak, 7.5, 45.0).value_or(SpectralBands::Feature{});
    const auto vote = bestMatch(spans, &window, -kInf, kInf);
    ASSERT_TRUE(foundAt(vote, 57.5, kFrame, kStrongScore));
    ASSERT_LT(vote->score, kSingleStrongWindow);
    EXPECT_FALSE(multiWindowMatch(&weak, 200.0, -kInf, kInf, spans, true));
}

TEST(MatchPrimitives, ClockWindowComesFromTextSyncOrATrustedClockAndNarrowsTheSearch) {
    TrackSource audio, synced, video;
    audio.type = synced.type = SourceType::audio;
    synced.textSyncOffsetByPeer["Ref"] = 20.0;
    video.type = SourceType::video;
    const PriorContext context{"Ref", false, at(0.0), 50.0}, asReference{"Ref", true, at(0.0), 50.0},
        noEpoch{"Ref", false, std::nullopt, 50.0};
    struct Case {
        const char* what;
        const TrackSource& track;
        ClockQuality quality;
        bool dated;
        const PriorContext& context;
        std::optional<double> centre, half; // none: no window
    };
    const std::optional<double> none;
    const Case cases[] = {
        {"embedded", audio, ClockQuality::embedded, true, context, 150.0, 900.0},
        {"file name", audio, ClockQuality::filename, true, context, 150.0, 1350.0},
        {"no clock", audio, ClockQuality::none, true, context, none, none},
        {"file date", audio, ClockQuality::filesystem, true, context, none, none},
        {"asset date", audio, ClockQuality::asset, true, context, none, none},
        {"no epoch", audio, ClockQuality::embedded, true, noEpoch, none, none},
        {"undated", audio, ClockQuality::embedded, false, context, none, none},
        // A text-sync offset to the reference outranks the clock, except on the reference itself.
        {"text sync", synced, ClockQuality::embedded, false, context, 30.0, 360.0},
        {"text sync on the reference", synced, ClockQuality::embedded, true, asReference, 150.0, 900.0},
        {"video", video, ClockQuality::embedded, true, context, none, none},
    };
    for (const auto& c : cases) {
        ClipItem clip;
        if (c.dated) clip.recordingDate = at(100.0);
        clip.clockQuality = c.quality;
        const auto w = clockWindow(c.track, clip, c.context);
        ASSERT_EQ(w.has_value(), c.centre.has_value()) << c.what;
        if (!w) continue;
        EXPECT_DOUBLE_EQ(w->lo, *c.centre - *c.half) << c.what;
        EXPECT_DOUBLE_EQ(w->hi, *c.centre + *c.half) << c.what;
    }

    // The window narrows the search: audio far from the clock is missed, unless the window misses
    // the bracket altogether, which then stands as it was.
    const auto ref = noiseBands(120 * kFps, 12);
    const std::vector<Span> spans{spanOf(50.0, ref)};
    ClipItem clip = clipWith(cutBands(ref, 30 * kFps, 20 * kFps)); // truly at 80, by its clock at 2080
    clip.recordingDate = at(2030.0);
    clip.clockQuality = ClockQuality::embedded;
    EXPECT_FALSE(foundAt(clipMatch(audio, clip, -kInf, kInf, spans, true, context), 80.0, 1.0));
    EXPECT_TRUE(foundAt(clipMatch(audio, clip, -kInf, kInf, spans, false, context), 80.0, kFrame / 2));
    EXPECT_TRUE(foundAt(clipMatch(audio, clip, 50.0, 150.0, spans, true, context), 80.0, kFrame / 2));
}

TEST(MatchPrimitives, CompareClipsReadsTheOffsetFromAToB) {
    const auto longer = noiseBands(120 * kFps, 13);
    const ClipItem a = clipWith(longer);
    const ClipItem b = clipWith(cutBands(longer, 30 * kFps, 60 * kFps)); // b starts 30 s into a

    const auto ab = compareClips(a, b, kMaxWindow, 0.5), ba = compareClips(b, a, kMaxWindow, 0.5);
    EXPECT_TRUE(foundAt(ab, 30.0, kFrame, kStrongScore));
    EXPECT_TRUE(foundAt(ba, -30.0, kFrame));
    EXPECT_EQ(ab.value_or(Match{}).score, ba.value_or(Match{}).score);

    // Nothing without sound; 18 s of probe gives a window of 9 s, too short to prove anything; and
    // two clips that never heard the same thing don't agree.
    ClipItem silent = b, featureless = b;
    silent.audioUsability = AudioUsability::silent;
    featureless.bandFeature.reset();
    const ClipItem shortProbe = clipWith(cutBands(longer, 30 * kFps, 18 * kFps));
    const ClipItem stranger = clipWith(noiseBands(60 * kFps, 14));
    for (const auto& [x, y] : std::vector<std::pair<ClipItem, ClipItem>>{
             {a, silent}, {featureless, a}, {a, shortProbe}, {a, stranger}})
        EXPECT_FALSE(compareClips(x, y, kMaxWindow, 0.5)) << x.duration << " " << y.duration;
}

TEST(MatchPrimitives, TimecodePutsAClipAgainstTheTimecodedSpans) {
    const auto bands = noiseBands(10 * kFps, 15);
    const std::vector<Span> spans{spanOf(100.0, bands, 3600.0), spanOf(120.0, bands, 3600.0),
                                  spanOf(500.0, bands, 7200.0), spanOf(600.0, bands)};
    ClipItem clip;
    clip.startTimecode = 3610.0; // 110 by the first span, 130 by the second, -3090 by the third
    clip.frameRate = 25.0f;
    // The search window covers every timecoded span, 1.5 s wider either side.
    const auto w = tcWindow(clip, spans);
    ASSERT_TRUE(w);
    EXPECT_DOUBLE_EQ(w->lo, 500.0 + (3610.0 - 7200.0) - 1.5);
    EXPECT_DOUBLE_EQ(w->hi, 131.5);
    EXPECT_FALSE(tcWindow(clip, std::vector<Span>{spanOf(200.0, bands)}));
    EXPECT_FALSE(tcWindow(ClipItem{}, spans));

    // A placement disagrees beyond two frames of the nearest span's (1/12 s without a frame rate,
    // two frames of at least one per second).
    using R = std::tuple<std::optional<float>, double, bool>; // frame rate, placed, disagrees
    for (const auto& [rate, placed, disagrees] :
         {R{25.0f, 110.07, false}, R{25.0f, 110.09, true}, R{25.0f, 130.0, false}, R{25.0f, 120.0, true},
          R{std::nullopt, 110.08, false}, R{std::nullopt, 110.09, true}, R{0.5f, 111.9, false}}) {
        clip.frameRate = rate;
        EXPECT_EQ(timecodeDisagrees(clip, placed, spans), disagrees) << placed;
    }
    EXPECT_FALSE(timecodeDisagrees(clip, 900.0, std::vector<Span>{spanOf(600.0, bands)}));
    EXPECT_FALSE(timecodeDisagrees(ClipItem{}, 900.0, spans));
}

TEST(MatchPrimitives, MeasureOverlapSaysHowFarTheTimelineIsFromTheSound) {
    // b truly starts 60 s after a; the timeline puts it at `placed`, and b must move by `correction`.
    const auto perf = noiseBands(400 * kFps, 21);
    const ClipItem a = clipWith(noisyBands(cutBands(perf, 0, 150 * kFps), 0.6f, 22));
    const ClipItem b = clipWith(noisyBands(cutBands(perf, 60 * kFps, 150 * kFps), 0.6f, 23));
    for (const auto& [placed, correction] : {std::pair{60.0, 0.0}, {61.2, -1.2}, {59.5, 0.5}, {72.0, -12.0}})
        EXPECT_TRUE(foundAt(measureOverlap(a, 0.0, b, placed), correction, kFrame, kStrongScore)) << placed;
    // 70 s late leaves 20 s of overlap whose sound lies beyond the reach; 140 s late, no overlap.
    for (const double placed : {130.0, 200.0}) {
        const auto m = measureOverlap(a, 0.0, b, placed);
        EXPECT_FALSE(m && m->score >= kWeakFloor) << placed;
    }
    // Too short an overlap, or a clip without sound, says nothing.
    EXPECT_FALSE(measureOverlap(a, 0.0, b, 142.0));
    ClipItem silent = b;
    silent.audioUsability = AudioUsability::silent;
    EXPECT_FALSE(measureOverlap(a, 0.0, silent, 60.0));
}
