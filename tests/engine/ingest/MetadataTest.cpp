// SPDX-License-Identifier: GPL-3.0-or-later
// What loading reads and merges is run on real files by the command-line tests; here, the stop rule.
#include "MediaSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

using namespace trelvane;

// Stopped before the start or after a clip was merged, the list comes back as it was given.
TEST(LoadMetadata, AStopGivesTheListBackAsItWas) {
    test::TempDir tmp;
    const auto a = tmp / "a.wav", b = tmp / "b.wav";
    test::sox("-n -r 48000 " + test::quoted(a) + " synth 2 sine 300");
    test::sox("-n -r 48000 " + test::quoted(b) + " synth 1 sine 300");
    const std::vector<TrackSource> given{
        test::track("Zoom", {test::clip(a.string(), 0), test::clip(b.string(), 0)})};

    std::stop_source before, midway;
    before.request_stop();
    int heard = 0;
    for (auto* stop : {&before, &midway}) {
        const auto back = IngestEngine::loadMetadata(
            given,
            [&](const std::vector<TrackSource>&) {
                ++heard;
                midway.request_stop();
            },
            stop->get_token());
        EXPECT_EQ(back[0].clips[0].duration, 0.0);
        EXPECT_EQ(back[0].clips[1].duration, 0.0);
    }
    EXPECT_GE(heard, 1) << "the second load was stopped only after merging a clip";
    const auto read = IngestEngine::loadMetadata(given, nullptr);
    EXPECT_NEAR(read[0].clips[0].duration + read[0].clips[1].duration, 3.0, 0.01);
}
