// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Test media made at test time with the ffmpeg command-line tool.

#include "TestSupport.hpp"
#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace trelvane::test {

// Runs ffmpeg quietly and fails the test when it fails; `args` are already quoted where needed.
inline void ffmpeg(const std::string& args) {
    const std::string cmd = "ffmpeg -nostdin -hide_banner -loglevel error -y " + args;
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

// Runs sox and fails the test when it fails; `args` are already quoted where needed.
inline void sox(const std::string& args) {
    const std::string cmd = "sox " + args;
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

// An input of a 440 Hz tone at 48 kHz for ffmpeg.
inline std::string sineInput(double seconds) {
    return "-f lavfi -i " +
           quoted("sine=frequency=440:sample_rate=48000:duration=" + std::to_string(seconds));
}

// A clip of the file at `path` with its length and band feature, as the analysis leaves it.
inline ClipItem analysedClip(const std::filesystem::path& path) {
    ClipItem c;
    c.url = Url::fromPath(path);
    const auto audio = AudioExtractor::extract(c.url, 0);
    c.duration = audio.duration;
    c.bandFeature = SpectralBands::compute(audio.samples);
    return c;
}

} // namespace trelvane::test
