// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/TimelineViewState.hpp"

#include <gtest/gtest.h>

using namespace trelvane;

TEST(TimelineViewStateTest, ZoomStepsAreBoundedAndTheScaleFitsTheWidth) {
    const struct {
        const char* keys; // '+' in, '-' out, '0' reset
        double totalDuration, multiplier, pxPerSec;
    } cases[] = {
        {"", 0, 1, 2.0}, // nothing to fit
        {"", 100, 1, 8.0},  {"+", 100, 1.6, 12.8}, {"++++++++++", 100, 64, 512}, {"+-", 100, 1, 8.0},
        {"-", 100, 1, 8.0}, {"++0", 100, 1, 8.0},  {"", 1e6, 1, 0.01}, // never below 0.01
    };
    for (const auto& c : cases) {
        TimelineZoom zoom;
        for (const char* k = c.keys; *k; ++k)
            *k == '+' ? zoom.zoomIn() : *k == '-' ? zoom.zoomOut() : zoom.zoomReset();
        EXPECT_DOUBLE_EQ(zoom.zoomMultiplier, c.multiplier) << c.keys;
        EXPECT_DOUBLE_EQ(zoom.pxPerSec(c.totalDuration), c.pxPerSec) << c.keys << " " << c.totalDuration;
    }
    TimelineZoom zoom;
    zoom.frozenPxPerSec = 3.0;
    EXPECT_DOUBLE_EQ(zoom.pxPerSec(100), 3.0) << "held while the divider moves";
    zoom.zoomReset();
    EXPECT_FALSE(zoom.frozenPxPerSec.has_value());
    zoom.availableWidth = 0;
    EXPECT_DOUBLE_EQ(zoom.pxPerSec(100), 2.0);
}

TEST(TimelineViewStateTest, TheBarEasesTowardsItsTargetAndCreepsWhenLevel) {
    const struct {
        double fill;
        AppState state;
        double syncProgress, next;
    } cases[] = {
        {0, AppState::extracting(0.5, "x"), 0, 0.075},
        {0, AppState::extracting(0, "x"), 0, 0.12 * 0.018 + 0.0004},              // level: creeps
        {0.12, AppState::extracting(0, "x"), 0, 0.12},                            // at its ceiling: holds
        {0.95, AppState::extracting(0.95, "x"), 0, 0.95 + 0.02 * 0.018 + 0.0004}, // ceiling 0.97
        {0.2, AppState::syncing(), 0.6, 0.2 + 0.4 * 0.15},
        {0.2, AppState::syncing(), 1.0, 0.2 + 0.8 * 0.15},
        {0.5, AppState::ready(), 0, 0.575},
        {0.9995, AppState::synced(), 0, 1.0}, // above 0.999: full
        {0.5, AppState::idle(), 0.7, 0.5},
        {0.5, AppState::error(), 0, 0.5},
    };
    for (const auto& c : cases)
        EXPECT_DOUBLE_EQ(TimelineViewState::barFillStep(c.fill, c.state, c.syncProgress), c.next)
            << rawName(c.state.kind) << " " << c.fill;
}

TEST(TimelineViewStateTest, TheGlideStepsTowardsItsTargetsAndTheOpeningSpreadsTheTracks) {
    const Uuid a = Uuid::random(), b = Uuid::random(), c = Uuid::random(), d = Uuid::random();
    const auto next =
        TimelineViewState::glideStep({{a, 0}, {b, 100}, {d, 7}}, {{a, 100}, {b, 100.2}, {c, 50}});
    EXPECT_EQ(next, (std::map<Uuid, double>{{a, 18}, {b, 100.2}, {c, 50}, {d, 7}}))
        << "18 % of the way, on target within 0.25 s, a clip without a place starts there";

    // Audio tracks are preferred to stand in full, the larger sum wins; the others spread over
    // the widest sum (20 s).
    auto track = [](SourceType type, std::vector<double> durations) {
        TrackSource t;
        t.type = type;
        for (double seconds : durations) {
            ClipItem clip;
            clip.duration = seconds;
            t.clips.push_back(clip);
        }
        return t;
    };
    for (const bool withAudio : {true, false}) {
        const SourceType second = withAudio ? SourceType::audio : SourceType::video;
        const Sources sources{track(SourceType::video, {10, 10}), track(second, {5}), track(second, {3, 3})};
        const auto layout = TimelineViewState::openingLayout(sources);
        std::vector<double> got;
        for (const auto& t : sources)
            for (const auto& clip : t.clips)
                got.push_back(layout.at(clip.id));
        EXPECT_EQ(got,
                  (withAudio ? std::vector<double>{0, 10, 0, 0, 3} : std::vector<double>{0, 10, 0, 0, 10}));
    }
}
