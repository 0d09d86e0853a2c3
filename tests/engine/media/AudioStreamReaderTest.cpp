// SPDX-License-Identifier: GPL-3.0-or-later
// The playback stream starts at exactly the asked time of the clip's timeline, at the asked rate,
// in stereo, for plain and compressed files alike.
#include "TrelvaneEngine/media/AudioStreamReader.hpp"
#include "MediaSupport.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <cmath>
#include <numbers>

namespace trelvane::test {
namespace {

constexpr double kTone = 440.0;

// How far, in output samples, the stream's tone is from a tone that started at 0 s of the file
// when the stream is taken to start at `from`: the phase of the first 0.2 s against the expected
// sine, turned into time. A codec delay left in shows as hundreds of samples modulo a period.
double startError(const std::vector<float>& stereo, double from, int rate) {
    const double w = 2 * std::numbers::pi * kTone;
    double in = 0, quad = 0;
    const std::size_t n = std::min<std::size_t>(stereo.size() / 2, static_cast<std::size_t>(rate / 5));
    for (std::size_t i = 0; i < n; ++i) {
        const double t = from + static_cast<double>(i) / rate;
        in += stereo[2 * i] * std::sin(w * t);
        quad += stereo[2 * i] * std::cos(w * t);
    }
    return std::atan2(quad, in) / w * rate;
}

TEST(AudioStreamReader, StartsOnTheAskedSampleInStereoAtTheAskedRate) {
    struct Case {
        const char* name;
        const char* file;
        std::string encode; // ffmpeg output options
        double from;
        int rate;
        double tolerance; // output samples: half of one where the first input sample falls between two
    };
    const std::vector<Case> cases{
        {"mono WAV", "tone.wav", "-ac 1 -c:a pcm_s16le", 1.2345, 48000, 0.05},
        {"WAV resampled", "tone44.wav", "-ar 44100 -c:a pcm_f32le", 2.2221, 48000, 0.5},
        {"MP4 AAC from its start", "tone.mp4", "-c:v libx264 -preset ultrafast -c:a aac -b:a 192k", 0, 48000,
         1},
        {"MP4 AAC after a seek", "tone.mp4", "", 3.0123, 44100, 1},
    };
    TempDir dir;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = dir / c.file;
        if (!c.encode.empty()) {
            const std::string picture = std::string(c.file).ends_with(".mp4")
                                            ? "-f lavfi -i testsrc=size=64x36:rate=10:duration=5 "
                                            : "";
            ffmpeg(sineInput(5) + " " + picture + c.encode + " " + quoted(path.string()));
        }
        AudioStreamReader reader(Url::fromPath(path.string()), c.from, c.rate);
        std::vector<float> out;
        std::size_t total = 0;
        while (const std::size_t got = reader.read(out, 1000))
            total += got;
        ASSERT_EQ(out.size(), 2 * total);
        EXPECT_NEAR(static_cast<double>(total) / c.rate, 5.0 - c.from, 0.03);
        EXPECT_NEAR(startError(out, c.from, c.rate), 0.0, c.tolerance);
        // Both sides carry the tone at its level (ffmpeg's sine peaks at 1/8).
        float peak = 0, sideDifference = 0;
        for (std::size_t i = 0; i < total; ++i) {
            peak = std::max(peak, std::abs(out[2 * i]));
            sideDifference = std::max(sideDifference, std::abs(out[2 * i] - out[2 * i + 1]));
        }
        EXPECT_NEAR(peak, 0.125, 0.01);
        EXPECT_LT(sideDifference, 1e-6f);
    }
}

// A reader moved on, back, and back to the start reads what a reader opened there reads: the same
// samples, but for the last bits of a compressed stream's decoder state (under -80 dB here).
TEST(AudioStreamReader, ASeekReadsWhatAReaderOpenedThereReads) {
    TempDir dir;
    const auto wav = dir / "tone.wav", mp4 = dir / "tone.mp4";
    ffmpeg(sineInput(5) + " -c:a pcm_s16le " + quoted(wav.string()));
    ffmpeg(sineInput(5) + " -c:a aac -b:a 128k " + quoted(mp4.string()));
    const auto first = [](AudioStreamReader& reader) {
        std::vector<float> out;
        while (out.size() < 2 * 4000)
            if (reader.read(out, 4000 - out.size() / 2) == 0) break;
        return out;
    };
    for (const auto& file : {wav, mp4}) {
        SCOPED_TRACE(file.filename().string());
        AudioStreamReader moved(Url::fromPath(file.string()), 0.5, 16000);
        first(moved);
        for (const double at : {3.3, 1.25, 0.05, 4.0}) {
            moved.seek(at);
            AudioStreamReader fresh(Url::fromPath(file.string()), at, 16000);
            const auto a = first(moved), b = first(fresh);
            ASSERT_EQ(a.size(), b.size()) << at;
            float worst = 0;
            for (std::size_t i = 0; i < a.size(); ++i)
                worst = std::max(worst, std::abs(a[i] - b[i]));
            EXPECT_LT(worst, 1e-5f) << at;
        }
    }
}

TEST(AudioStreamReader, AMissingFileOrAFileWithoutSoundIsRefused) {
    TempDir dir;
    EXPECT_THROW(AudioStreamReader(Url::fromPath((dir / "gone.wav").string()), 0, 48000), TrelvaneError);
    const auto picture = dir / "picture.mp4";
    ffmpeg("-f lavfi -i testsrc=size=64x36:rate=10:duration=1 -c:v libx264 " + quoted(picture.string()));
    EXPECT_THROW(AudioStreamReader(Url::fromPath(picture.string()), 0, 48000), TrelvaneError);
}

} // namespace
} // namespace trelvane::test
