// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/ClipAnalysis.hpp"
#include "MediaSupport.hpp"

#include <cmath>
#include <gtest/gtest.h>

using namespace trelvane;

TEST(ClipAnalysis, WaveformHasOneBarASecondWithinTenToAThousand) {
    const std::vector<float> shortClip(67200, 0.25f); // 4.2 s at 16 kHz
    EXPECT_EQ(ClipAnalysis::waveform(shortClip, 4.2).size(), 10u);
    const std::vector<float> longClip(3600 * 160, 0.1f); // the count matters, not the rate
    EXPECT_EQ(ClipAnalysis::waveform(longClip, 3600).size(), 1000u);
    EXPECT_EQ(ClipAnalysis::waveform(std::vector<float>(16000 * 42, 0.1f), 42.9).size(), 42u);
    EXPECT_TRUE(ClipAnalysis::waveform({}, 10).empty());
    EXPECT_TRUE(ClipAnalysis::waveform(shortClip, 0).empty());
}

TEST(ClipAnalysis, WaveformBarsAreRootsOfRmsOverThePeak) {
    // Ten one-second blocks: the loudest at RMS 0.4, one at 0.1, the rest silent.
    std::vector<float> samples(160000, 0.0f);
    for (int i = 0; i < 16000; ++i)
        samples[static_cast<std::size_t>(i)] = (i % 2 ? 0.4f : -0.4f);
    for (int i = 16000; i < 32000; ++i)
        samples[static_cast<std::size_t>(i)] = 0.1f;
    const auto bars = ClipAnalysis::waveform(samples, 10);
    ASSERT_EQ(bars.size(), 10u);
    EXPECT_FLOAT_EQ(bars[0], 1.0f);
    EXPECT_NEAR(bars[1], std::sqrt(0.1f / 0.4f), 1e-6);
    EXPECT_FLOAT_EQ(bars[9], 0.0f);
    // All silent: the bars stand as computed.
    const auto silent = ClipAnalysis::waveform(std::vector<float>(160000, 0.0f), 10);
    EXPECT_EQ(silent, std::vector<float>(10, 0.0f));
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
