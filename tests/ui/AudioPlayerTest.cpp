// SPDX-License-Identifier: GPL-3.0-or-later
// The player on a machine without sound: every operation leaves its state right, the reason is
// logged once, and nothing waits or breaks.
#include "Trelvane/ui/AudioPlayer.hpp"
#include "TestSupport.hpp"
#include "Trelvane/ui/QtMainQueue.hpp"

#include <algorithm>
#include <gtest/gtest.h>

using namespace trelvane;

TEST(AudioPlayer, WithoutAnOutputDeviceItStaysStoppedAndSaysWhyOnce) {
    QtMainQueue queue;
    test::LogCapture log;
    AudioPlayer player(queue, [] { return QAudioDevice(); });
    std::vector<AudioPlayer::Change> changes;
    auto watching = player.observe([&](AudioPlayer::Change c) { changes.push_back(c); });
    TrackSource track;
    ClipItem clip;
    clip.url = Url::fromPath("/nowhere/take.wav");
    clip.duration = 10;
    track.clips = {clip};
    const Sources sources{track};

    player.startPlayback(sources, 4);
    EXPECT_FALSE(player.isPlaying());
    EXPECT_DOUBLE_EQ(player.currentTime(), 4);
    player.togglePlayback(sources, 6);
    EXPECT_FALSE(player.isPlaying());
    EXPECT_DOUBLE_EQ(player.currentTime(), 6);
    player.seek(sources, 8);
    EXPECT_DOUBLE_EQ(player.currentTime(), 8) << "stopped, a seek only moves the time";
    player.seek(sources, -3);
    EXPECT_DOUBLE_EQ(player.currentTime(), 0);
    player.setMuted(track.id, true);
    player.stop();
    EXPECT_FALSE(player.isPlaying());
    EXPECT_EQ(std::count(changes.begin(), changes.end(), AudioPlayer::Change::isPlaying), 0);

    const auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) { return l.rfind("AudioEngine: ", 0) == 0; }),
              1);
    EXPECT_TRUE(log.contains("AudioEngine: no audio output device"));
}
