// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Test media made at test time with the ffmpeg command-line tool.

#include "TestSupport.hpp"

#include <cstdlib>
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

} // namespace trelvane::test
