// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/ClipAnalysis.hpp"
#include "MediaSupport.hpp"

#include <cmath>
#include <gtest/gtest.h>

using namespace trelvane;

// One bar a second, at least ten and at most a thousand; each the root of its RMS over the loudest.
TEST(ClipAnalysis, WaveformHasOneBarASecondWithinTenToAThousandOfRootsOfRmsOverThePeak) {
    // Ten one-second blocks at 16 kHz: the loudest at RMS 0.4, one at 0.1, the rest silent.
    std::vector<float> samples(160000, 0.0f);
    for (std::size_t i = 0; i < 32000; ++i)
        samples[i] = i >= 16000 ? 0.1f : (i % 2 ? 0.4f : -0.4f);
    const auto bars = ClipAnalysis::waveform(samples, 10);
    ASSERT_EQ(bars.size(), 10u);
    EXPECT_FLOAT_EQ(bars[0], 1.0f);
    EXPECT_NEAR(bars[1], std::sqrt(0.1f / 0.4f), 1e-6);
    EXPECT_FLOAT_EQ(bars[9], 0.0f);
    EXPECT_EQ(ClipAnalysis::waveform(std::vector<float>(67200, 0.25f), 4.2).size(), 10u);
    EXPECT_EQ(ClipAnalysis::waveform(std::vector<float>(3600 * 160, 0.1f), 3600).size(), 1000u);
    EXPECT_TRUE(ClipAnalysis::waveform({}, 10).empty());
    EXPECT_TRUE(ClipAnalysis::waveform(samples, 0).empty());
}

// A stopped analysis gives nothing, so the clip is left as it was rather than marked unreadable.
TEST(ClipAnalysis, AStoppedAnalysisGivesNothing) {
    test::TempDir tmp;
    const auto file = tmp / "take.wav";
    test::ffmpeg(test::sineInput(20) + " " + test::quoted(file.string()));
    std::stop_source stop;
    stop.request_stop();
    EXPECT_FALSE(ClipAnalysis::analyse(Url::fromPath(file), kEnvelopeFactor, 20, {}, stop.get_token(), {}));
}
