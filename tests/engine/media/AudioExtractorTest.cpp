// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TestSupport.hpp"
#include "TrelvaneEngine/media/BRAWAudio.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

using namespace trelvane;
using trelvane::test::ScopedEnv;
using trelvane::test::TempDir;

namespace {

namespace AE = AudioExtractor;

// Real recorded music, so that alignment is judged on sound with structure rather than on a tone.
const std::string kMusic = "/usr/share/games/wesnoth/1.16/data/core/music/battle.ogg";

bool sh(const std::string& cmd) {
    return std::system(cmd.c_str()) == 0;
}

std::string q(const std::filesystem::path& p) {
    return "'" + p.string() + "'";
}

// Runs ffmpeg quietly with the given arguments; the output file comes last.
bool ffmpeg(const std::string& args, const std::filesystem::path& out) {
    return sh("ffmpeg -nostdin -v error -y " + args + " " + q(out));
}

AE::Extraction extract(const std::filesystem::path& p, double expected = 0, const ProgressFn& progress = {}) {
    return AE::extract(Url::fromPath(p), expected, progress);
}

std::optional<TrelvaneError> errorOf(const std::filesystem::path& p) {
    try {
        extract(p);
    } catch (const TrelvaneError& e) {
        return e;
    }
    return std::nullopt;
}

float peakOf(const std::vector<float>& x) {
    float peak = 0;
    for (const float v : x)
        peak = std::max(peak, std::abs(v));
    return peak;
}

// Amplitude of the `hz` component of x[from, from + count) (a single-bin DFT).
double toneLevel(const std::vector<float>& x, double hz, std::size_t from, std::size_t count,
                 double rate = 16000) {
    std::complex<double> sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += static_cast<double>(x[from + i]) *
               std::polar(1.0, -2 * std::numbers::pi * hz * static_cast<double>(i) / rate);
    return 2 * std::abs(sum) / static_cast<double>(count);
}

// The lag at which `b` matches `a` best: b[i + lag] ~ a[i] for i in [from, from + count), lags
// searched over center ± radius by normalised cross-correlation.
long bestLag(const std::vector<float>& a, const std::vector<float>& b, long center, long radius,
             std::size_t from, std::size_t count) {
    long best = center;
    double bestScore = -2;
    for (long lag = center - radius; lag <= center + radius; ++lag) {
        const long first = static_cast<long>(from) + lag;
        if (first < 0 || first + static_cast<long>(count) > static_cast<long>(b.size())) continue;
        double ab = 0, aa = 0, bb = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const double x = a[from + i];
            const double y = b[static_cast<std::size_t>(first) + i];
            ab += x * y;
            aa += x * x;
            bb += y * y;
        }
        const double score = aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : -1;
        if (score > bestScore) {
            bestScore = score;
            best = lag;
        }
    }
    return best;
}

// Windows of constant magnitude (alternating sign), `amplitudes[i]` in window i of 6,400 samples.
std::vector<float> windows(const std::vector<float>& amplitudes) {
    std::vector<float> x;
    for (const float a : amplitudes)
        for (int j = 0; j < 6400; ++j)
            x.push_back(j % 2 ? -a : a);
    return x;
}

// The magnitude at the centre of window i, where a window's gain applies alone.
float atCentre(const std::vector<float>& x, std::size_t i) {
    return std::abs(x[i * 6400 + 3200]);
}

std::vector<float> sine(double hz, double rate, std::size_t count, float amplitude = 0.5f) {
    std::vector<float> x(count);
    for (std::size_t i = 0; i < count; ++i)
        x[i] = amplitude *
               static_cast<float>(std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate));
    return x;
}

// Frequency from the rising zero crossings of a steady tone.
double frequencyOf(const std::vector<float>& x, double rate) {
    std::size_t first = 0, last = 0, crossings = 0;
    for (std::size_t i = 1; i < x.size(); ++i)
        if (x[i - 1] < 0 && x[i] >= 0) {
            if (crossings == 0) first = i;
            last = i;
            ++crossings;
        }
    if (crossings < 2) return 0;
    return static_cast<double>(crossings - 1) * rate / static_cast<double>(last - first);
}

} // namespace

// ---- decoding ---------------------------------------------------------------------------------

TEST(AudioExtractor, ReadsWavOfEveryCommonSampleLayoutWithAllChannelsAtEqualWeight) {
    TempDir tmp;
    const auto mono16 = tmp / "mono16.wav";
    const auto stereo24 = tmp / "stereo24.wav";
    const auto poly = tmp / "poly.wav";
    ASSERT_TRUE(sh("sox -n -r 44100 -b 16 -c 1 " + q(mono16) + " synth 2 sine 440 vol 0.5"));
    // Left 440 Hz, right 1 kHz.
    ASSERT_TRUE(sh("sox -n -r 48000 -b 24 -c 2 " + q(stereo24) + " synth 2 sine 440 sine 1000 vol 0.5"));
    // Four channels: 440 Hz, silence, silence, 1 kHz.
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=f=440:d=2:r=48000 -f lavfi -i anullsrc=r=48000:cl=mono "
                       "-f lavfi -i anullsrc=r=48000:cl=mono -f lavfi -i sine=f=1000:d=2:r=48000 "
                       "-filter_complex '[0][1][2][3]amerge=inputs=4[a]' -map '[a]' -t 2 -c:a pcm_s16le",
                       poly));

    for (const auto& file : {mono16, stereo24, poly}) {
        SCOPED_TRACE(file.filename().string());
        const auto result = extract(file);
        EXPECT_NEAR(static_cast<double>(result.samples.size()), 32000, 2);
        EXPECT_DOUBLE_EQ(result.duration, static_cast<double>(result.samples.size()) / 16000.0);
        EXPECT_NEAR(peakOf(result.samples), 0.5f, 1e-6f);
    }

    const auto m = extract(mono16);
    EXPECT_NEAR(frequencyOf(m.samples, 16000), 440, 1);

    for (const auto& file : {stereo24, poly}) {
        SCOPED_TRACE(file.filename().string());
        const auto r = extract(file);
        const double low = toneLevel(r.samples, 440, 8000, 16000);
        const double high = toneLevel(r.samples, 1000, 8000, 16000);
        EXPECT_GT(low, 0.1);
        // Both channels heard alike: no centre or front bias of a surround downmix.
        EXPECT_NEAR(high / low, 1.0, 0.05);
    }
}

TEST(AudioExtractor, MixesEveryAudioStreamOfAMovieAlignedAtTheirStart) {
    TempDir tmp;
    const auto two = tmp / "two.mov";
    // A 440 Hz stream of 2 s and a 1 kHz stream of 3 s.
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=f=440:d=2:r=48000 -f lavfi -i sine=f=1000:d=3:r=44100 "
                       "-map 0 -map 1 -c:a pcm_s16le",
                       two));
    const auto r = extract(two);
    EXPECT_NEAR(static_cast<double>(r.samples.size()), 48000, 2);
    const double low = toneLevel(r.samples, 440, 8000, 16000);
    const double high = toneLevel(r.samples, 1000, 8000, 16000);
    EXPECT_GT(low, 0.1);
    EXPECT_NEAR(high / low, 1.0, 0.05);
    // The last second holds the longer stream alone.
    EXPECT_LT(toneLevel(r.samples, 440, 36000, 8000), 0.01 * high);
    EXPECT_GT(toneLevel(r.samples, 1000, 36000, 8000), 0.1);
}

// A stretch cut from a recording at 30 s must be found at 30 s, whatever container and codec
// carry it: edit lists, priming samples and late-starting streams all decide where sample 0 is.
TEST(AudioExtractor, StartsEveryContainerAtTheFirstSampleAnEditorPlays) {
    TempDir tmp;
    const auto full = tmp / "full.wav";
    const auto cut = tmp / "cut.wav";
    ASSERT_TRUE(ffmpeg("-ss 60 -t 40 -i " + q(kMusic) + " -ar 48000 -ac 2 -c:a pcm_s24le", full));
    ASSERT_TRUE(ffmpeg("-i " + q(full) + " -ss 30 -t 5 -c:a pcm_s24le", cut));
    const auto mp4 = tmp / "cut.mp4";
    const auto mov = tmp / "cut.mov";
    const auto mp3 = tmp / "cut.mp3";
    const auto narrow = tmp / "cut16k.wav";
    const auto late = tmp / "late.mov";
    ASSERT_TRUE(ffmpeg("-i " + q(cut) + " -c:a aac -b:a 192k", mp4));
    ASSERT_TRUE(ffmpeg("-i " + q(cut) + " -c:a aac -b:a 192k", mov));
    ASSERT_TRUE(ffmpeg("-i " + q(cut) + " -c:a libmp3lame -b:a 192k", mp3));
    // Resampled by another library: the analysis resampler must not shift the signal either.
    ASSERT_TRUE(sh("sox " + q(cut) + " -r 16000 " + q(narrow)));
    // The sound starts half a second after the picture (an empty edit in the audio track).
    ASSERT_TRUE(ffmpeg("-f lavfi -i color=c=black:s=64x64:r=25:d=6 -itsoffset 0.5 -i " + q(cut) +
                           " -map 0:v -map 1:a -c:v mpeg4 -c:a aac -b:a 192k",
                       late));

    const auto reference = extract(full);
    const long at = 30 * 16000;
    // One millisecond.
    const long tolerance = 16;
    for (const auto& file : {cut, mp4, mov, mp3, narrow}) {
        SCOPED_TRACE(file.filename().string());
        const auto r = extract(file);
        EXPECT_LE(std::abs(bestLag(r.samples, reference.samples, at, 800, 16000, 32000) - at), tolerance);
        // Compressed sound ends on a whole frame (1,024 samples at 48 kHz, 342 at 16 kHz).
        EXPECT_NEAR(r.duration, 5.0, 342.0 / 16000);
        EXPECT_DOUBLE_EQ(r.duration, static_cast<double>(r.samples.size()) / 16000.0);
    }
    const auto r = extract(late);
    EXPECT_LE(std::abs(bestLag(r.samples, reference.samples, at - 8000, 800, 24000, 32000) - (at - 8000)),
              tolerance);
    // Silence before the sound starts, and the sound 0.5 s later than in the cut.
    EXPECT_LT(peakOf(std::vector<float>(r.samples.begin(), r.samples.begin() + 7000)), 0.001f);
}

// ---- refusals -------------------------------------------------------------------------------------

TEST(AudioExtractor, RefusesFilesWithoutUsableAudioNamingTheFile) {
    TempDir tmp;
    const auto video = tmp / "picture only.mp4";
    const auto silent = tmp / "silent.wav";
    ASSERT_TRUE(ffmpeg("-f lavfi -i color=c=red:s=64x64:r=25:d=1 -c:v mpeg4", video));
    ASSERT_TRUE(ffmpeg("-f lavfi -i anullsrc=r=48000:cl=stereo -t 1 -c:a pcm_s16le", silent));
    using K = TrelvaneError::Kind;
    const struct {
        std::filesystem::path file;
        K kind;
        std::string detail; // empty: any, as long as there is one
    } cases[] = {
        {video, K::noAudioTrack, "picture only.mp4"},
        {silent, K::silentAudio, "silent.wav"},
        {tmp.file("notes.mov", "Scene 4, take 2: the boom was in shot.\n"), K::readerStartFailed, ""},
        {tmp / "gone.wav", K::readerStartFailed, "No such file or directory"},
        {tmp.path(), K::readerStartFailed, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file.string());
        const auto e = errorOf(c.file);
        ASSERT_TRUE(e);
        EXPECT_EQ(e->kind(), c.kind);
        if (!c.detail.empty()) {
            EXPECT_EQ(e->detail(), c.detail);
        }
        EXPECT_FALSE(e->detail().empty());
    }
    EXPECT_NE(errorOf(silent)->description().find("silent.wav"), std::string::npos);
}

TEST(AudioExtractor, KeepsWhatDecodesOfAFileThatBreaksOffAndSaysSo) {
    TempDir tmp;
    const auto whole = tmp / "whole.mp4";
    const auto front = tmp / "front.mp4";
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=f=440:d=4:r=48000 -c:a aac", whole));
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=f=440:d=4:r=48000 -c:a aac -movflags +faststart", front));
    const auto half = [&](const std::filesystem::path& from, const std::string& name) {
        std::ifstream in(from, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        return tmp.file(name, bytes.substr(0, bytes.size() / 2));
    };

    // Index at the end, cut away: the file can't even be opened.
    auto e = errorOf(half(whole, "no-index.mp4"));
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind(), TrelvaneError::Kind::readerStartFailed);

    // Index first, samples cut in half: what decodes before the break is kept, marked cut short.
    const auto cut = extract(half(front, "half.mp4"), 4);
    EXPECT_TRUE(cut.cutShort);
    EXPECT_GT(cut.duration, 1.0);
    EXPECT_LT(cut.duration, 3.0);
    EXPECT_FALSE(extract(front, 4).cutShort);
}

// ---- progress ---------------------------------------------------------------------------------------

TEST(AudioExtractor, ReportsProgressInStepsOfAtLeastOnePercentNeverAboveOne) {
    TempDir tmp;
    const auto file = tmp / "four.wav";
    ASSERT_TRUE(sh("sox -n -r 48000 -b 16 -c 2 " + q(file) + " synth 4 sine 300 vol 0.5"));

    const auto check = [&](double expected) {
        std::vector<double> seen;
        extract(file, expected, [&](const Progress& p) { seen.push_back(p.fraction); });
        for (std::size_t i = 0; i < seen.size(); ++i) {
            EXPECT_GT(seen[i], 0.0);
            EXPECT_LE(seen[i], 1.0);
            if (i > 0) {
                EXPECT_GE(seen[i] - seen[i - 1], 0.01 - 1e-12);
            }
        }
        return seen;
    };

    auto seen = check(4.0);
    ASSERT_GE(seen.size(), 10u);
    EXPECT_GE(seen.back(), 0.99);

    // An estimate that was too short stops at 1.
    seen = check(1.0);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), 1.0);
    EXPECT_LE(seen.size(), 101u);

    EXPECT_TRUE(check(0).empty());
    EXPECT_TRUE(check(-3).empty());
}

// A stop asked for while a file is read ends the read there: half way through a long file, or
// before the first packet.
TEST(AudioExtractor, AStopEndsTheReadWhereItStands) {
    TempDir tmp;
    const auto file = tmp / "long.wav";
    ASSERT_TRUE(sh("sox -n -r 16000 -b 16 -c 1 " + q(file) + " synth 120 pinknoise vol 0.3"));
    const Url url = Url::fromPath(file);

    std::stop_source halfWay;
    double lastSeen = 0;
    try {
        AE::extract(
            url, 120,
            [&](const Progress& p) {
                lastSeen = p.fraction;
                if (p.fraction >= 0.5) halfWay.request_stop();
            },
            halfWay.get_token());
        ADD_FAILURE() << "the read went on to the end";
    } catch (const TrelvaneError& e) {
        EXPECT_EQ(e.kind(), TrelvaneError::Kind::stopped);
        EXPECT_EQ(e.description(), "Stopped reading \"long.wav\"");
    }
    EXPECT_LT(lastSeen, 0.6);

    std::stop_source before;
    before.request_stop();
    int reports = 0;
    try {
        AE::extract(
            url, 120, [&](const Progress&) { ++reports; }, before.get_token());
        ADD_FAILURE() << "a stopped read decoded the file";
    } catch (const TrelvaneError& e) {
        EXPECT_EQ(e.kind(), TrelvaneError::Kind::stopped);
    }
    EXPECT_EQ(reports, 0);
}

// ---- levelling ----------------------------------------------------------------------------------------

TEST(AudioExtractorLevel, ScalesAClipOfOneWindowToHalfAndLeavesNearSilenceAlone) {
    std::vector<float> none;
    AE::detail::levelAudio(none, 16000);
    EXPECT_TRUE(none.empty());

    // 6,400 samples: one window, only scaled.
    std::vector<float> one = sine(100, 16000, 6400, 0.02f);
    one[100] = 0.04f;
    const std::vector<float> before = one;
    AE::detail::levelAudio(one, 16000);
    EXPECT_NEAR(peakOf(one), 0.5f, 1e-6f);
    EXPECT_NEAR(one[100], 0.5f, 1e-6f);
    EXPECT_NEAR(one[40] / before[40], 0.5f / 0.04f, 1e-3f);

    // Every window at or under RMS 0.0001, though the peak is above 0.001: untouched.
    std::vector<float> faint = windows({0.0001f, 0.00005f, 0.0001f});
    faint[7000] = 0.0011f;
    const std::vector<float> copy = faint;
    AE::detail::levelAudio(faint, 16000);
    EXPECT_EQ(faint, copy);
}

TEST(AudioExtractorLevel, CutsALoudEventByAtMostAQuarterAndSmoothsItIntoItsNeighbours) {
    // Steady windows at 0.1 with a clap at 1.0 in window 5: median 0.1, gate 0.1, the clap's own
    // gain 0.1 is limited to 0.25; smoothed over five windows, (1 + 1 + 0.25 + 1 + 1) / 5 = 0.85.
    std::vector<float> x = windows({0.1f, 0.1f, 0.1f, 0.1f, 0.1f, 1.0f, 0.1f, 0.1f, 0.1f, 0.1f});
    AE::detail::levelAudio(x, 16000);
    EXPECT_NEAR(peakOf(x), 0.5f, 1e-6f);
    const float base = atCentre(x, 0); // gain 1 there
    EXPECT_NEAR(atCentre(x, 5) / base, 10 * 0.85f, 1e-3f);
    EXPECT_NEAR(atCentre(x, 4) / base, 0.85f, 1e-4f);
    EXPECT_NEAR(atCentre(x, 3) / base, 0.85f, 1e-4f);
    // Two windows away the clap no longer counts.
    EXPECT_NEAR(atCentre(x, 2) / base, 1.0f, 1e-4f);
    // A quarter of the way from centre 2 to centre 3 (still in window 2): gains interpolated.
    EXPECT_NEAR(std::abs(x[2 * 6400 + 3200 + 1600]) / base, 0.75f * 1.0f + 0.25f * 0.85f, 1e-4f);
    // The first half window holds the first gain.
    EXPECT_NEAR(std::abs(x[0]) / base, 1.0f, 1e-4f);
}

TEST(AudioExtractorLevel, LiftsQuietPassagesAtMostEightfoldAndGivesSilenceTheGatesGain) {
    // 0.01 among 0.1: its own gain 10 is limited to 8; the neighbours' smoothed share is
    // (1 + 1 + 8 + 1 + 1) / 5.
    std::vector<float> x = windows({0.1f, 0.1f, 0.1f, 0.1f, 0.01f, 0.1f, 0.1f, 0.1f, 0.1f});
    AE::detail::levelAudio(x, 16000);
    const float base = atCentre(x, 0);
    EXPECT_NEAR(atCentre(x, 4) / base, 0.1f * 2.4f, 1e-4f);
    EXPECT_NEAR(atCentre(x, 3) / base, 2.4f, 1e-4f);

    // True silence (window 3) sits under the gate 0.05 set by the quietest kept window: it gets
    // the gate's gain 0.1 / 0.05 = 2, not the limit 8, so window 2 smooths to (1+1+1+2+2)/5.
    std::vector<float> z = windows({0.1f, 0.1f, 0.1f, 0.0f, 0.05f, 0.1f, 0.1f});
    AE::detail::levelAudio(z, 16000);
    EXPECT_NEAR(atCentre(z, 2) / atCentre(z, 0), 1.4f, 1e-4f);
    EXPECT_EQ(atCentre(z, 3), 0.0f);
}

// ---- resampling -------------------------------------------------------------------------------------

TEST(AudioExtractorResample, PassesWithinHalfAHertzThroughAndConvertsARealRateKeepingPitchAndTime) {
    const std::vector<float> tone = sine(1000, 16000, 16000);
    EXPECT_EQ(AE::detail::resampleMono(tone, 16000.4, 16000), tone);
    EXPECT_EQ(AE::detail::resampleMono(tone, 15999.5, 16000), tone);
    EXPECT_NE(AE::detail::resampleMono(tone, 16001, 16000), tone);

    // One second at 44.1 kHz: a 1 kHz tone stays 1 kHz, and an impulse at 0.5 s stays at 0.5 s.
    std::vector<float> in = sine(1000, 44100, 44100);
    const auto out = AE::detail::resampleMono(in, 44100, 16000);
    EXPECT_NEAR(static_cast<double>(out.size()), 16000, 2);
    EXPECT_NEAR(frequencyOf(out, 16000), 1000, 0.5);
    std::vector<float> click(44100, 0.0f);
    click[22050] = 1.0f;
    const auto moved = AE::detail::resampleMono(click, 44100, 16000);
    const auto loudest = std::max_element(moved.begin(), moved.end()) - moved.begin();
    EXPECT_NEAR(static_cast<double>(loudest), 8000, 1);

    EXPECT_TRUE(AE::detail::resampleMono({}, 44100, 16000).empty());
}

TEST(AudioExtractorResample, RefusesRatesThatAreNoRates) {
    const std::vector<float> tone = sine(1000, 16000, 1600);
    for (const double rate : {0.0, -44100.0, std::nan(""), 1e12}) {
        SCOPED_TRACE(rate);
        try {
            AE::detail::resampleMono(tone, rate, 16000);
            ADD_FAILURE() << "no error";
        } catch (const TrelvaneError& e) {
            EXPECT_EQ(e.kind(), TrelvaneError::Kind::readFailed);
            EXPECT_EQ(e.detail(), "resampler");
        }
    }
}

// ---- Blackmagic RAW -------------------------------------------------------------------------------

namespace {

BRAWAudio::Audio interleaved(std::uint64_t frames, std::uint32_t channels, double rate,
                             const std::vector<std::vector<float>>& perChannel) {
    BRAWAudio::Audio a;
    a.frameCount = frames;
    a.channelCount = channels;
    a.sampleRate = rate;
    for (std::size_t f = 0; f < frames; ++f)
        for (const auto& channel : perChannel)
            a.interleaved.push_back(channel[f]);
    return a;
}

std::optional<TrelvaneError> analysisError(const BRAWAudio::Audio& audio) {
    try {
        AE::detail::analysisFromInterleaved(audio, "A001.braw");
    } catch (const TrelvaneError& e) {
        return e;
    }
    return std::nullopt;
}

} // namespace

TEST(AudioExtractorBRAW, AveragesInterleavedChannelsAndResamplesToTheAnalysisRate) {
    const auto tone = sine(440, 44100, 44100);
    const std::vector<float> quiet(44100, 0.0f);
    std::vector<double> progress;
    const auto r =
        AE::detail::analysisFromInterleaved(interleaved(44100, 2, 44100, {tone, quiet}), "A001.braw",
                                            [&](const Progress& p) { progress.push_back(p.fraction); });
    EXPECT_NEAR(static_cast<double>(r.samples.size()), 16000, 2);
    EXPECT_DOUBLE_EQ(r.duration, static_cast<double>(r.samples.size()) / 16000);
    EXPECT_NEAR(peakOf(r.samples), 0.5f, 1e-6f);
    EXPECT_NEAR(frequencyOf(r.samples, 16000), 440, 1);
    EXPECT_EQ(progress, std::vector<double>{0.9});

    // Opposite channels average to nothing.
    std::vector<float> inverted(tone);
    for (float& v : inverted)
        v = -v;
    auto e = analysisError(interleaved(44100, 2, 44100, {tone, inverted}));
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind(), TrelvaneError::Kind::silentAudio);
    EXPECT_EQ(e->detail(), "A001.braw");
}

TEST(AudioExtractorBRAW, TakesAStreamWithoutFramesChannelsRateOrDataForNoAudio) {
    const auto tone = sine(440, 48000, 4800);
    auto good = interleaved(4800, 1, 48000, {tone});
    EXPECT_FALSE(analysisError(good));

    auto a = good;
    a.frameCount = 0;
    auto b = good;
    b.channelCount = 0;
    auto c = good;
    c.sampleRate = 0;
    auto d = good;
    d.sampleRate = -48000;
    auto e = good;
    e.interleaved.pop_back();
    auto f = good;
    f.channelCount = 2; // half the data that two channels need
    for (const auto& audio : {a, b, c, d, e, f}) {
        const auto error = analysisError(audio);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), TrelvaneError::Kind::noAudioTrack);
        EXPECT_EQ(error->detail(), "A001.braw");
    }
}

TEST(AudioExtractorBRAW, ConvertsTheSdksIntegerSamples) {
    const struct {
        std::vector<unsigned char> bytes;
        int bytesPerSample, bits;
        std::optional<std::vector<float>> expected;
    } cases[] = {
        {{0x00, 0x40, 0x00, 0x80, 0xFF, 0x7F}, 2, 16, std::vector<float>{0.5f, -1.0f, 32767.0f / 32768}},
        {{0x00, 0x00, 0xC0, 0x00, 0x00, 0x20}, 3, 24, std::vector<float>{-0.5f, 0.25f}},
        // 24 significant bits, right-aligned in four bytes, with or without the sign extended.
        {{0x00, 0x00, 0xC0, 0xFF, 0x00, 0x00, 0xC0, 0x00}, 4, 24, std::vector<float>{-0.5f, -0.5f}},
        {{0x00, 0x00, 0x00, 0x40}, 4, 32, std::vector<float>{0.5f}},
        // A sample cut in half, and a depth the SDK never gives.
        {{0x00, 0x40, 0x00, 0x80, 0xFF}, 2, 16, std::nullopt},
        {{0x00, 0x40}, 1, 8, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.bits << " bits in " << c.bytesPerSample);
        std::vector<float> out;
        EXPECT_EQ(BRAWAudio::appendPCM(std::as_bytes(std::span(c.bytes)), c.bytesPerSample, c.bits, out),
                  c.expected.has_value());
        EXPECT_EQ(out, c.expected.value_or(std::vector<float>{}));
    }
}

TEST(AudioExtractorBRAW, TellsWhatToInstallWhenTheSdkIsMissing) {
    TempDir tmp;
    const ScopedEnv sdk("TRELVANE_BRAW_SDK", (tmp / "nowhere/libBlackmagicRawAPI.so").string());
    if (BRAWAudio::isAvailable()) GTEST_SKIP() << "a Blackmagic RAW SDK is installed on this machine";
    const auto note = BRAWAudio::availabilityNote();
    EXPECT_NE(note.find("Blackmagic RAW SDK"), std::string::npos);
    EXPECT_NE(note.find("TRELVANE_BRAW_SDK"), std::string::npos);

    // Any case of the extension goes to the SDK, never to FFmpeg.
    const auto clip = tmp.file("A001_C001.BRAW", "not really a clip");
    const auto e = errorOf(clip);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind(), TrelvaneError::Kind::readFailed);
    EXPECT_EQ(e->detail(), note);
    EXPECT_FALSE(BRAWAudio::readAudio(clip.string()).audio);
}

namespace {

// A stand-in for the SDK's library with the same binary interface: one clip of two seconds of
// 48 kHz stereo, 24-bit, a 440 Hz tone on the left and silence on the right. Clips whose path
// holds "unreadable" fail to open. fakeLiveObjects() counts the objects not yet released.
const char* kFakeSdk = R"(
#include <cmath>
#include <cstdint>
#include <cstring>
struct REFIID { unsigned char b[16]; };
typedef int HRESULT;
static int live = 0;
extern "C" int fakeLiveObjects() { return live; }
class IUnknown {
  public:
    virtual HRESULT QueryInterface(REFIID iid, void** out) = 0;
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;
};
template <class Base> class Counted : public Base {
  public:
    Counted() { ++live; }
    // Declared after the interface's functions, so that their slots stay where the SDK has them.
    virtual ~Counted() {}
    HRESULT QueryInterface(REFIID, void**) override { return (HRESULT)0x80000004; }
    unsigned long AddRef() override { return ++refs; }
    unsigned long Release() override { unsigned long r = --refs; if (r == 0) { --live; delete this; } return r; }
    unsigned long refs = 1;
};
// Each interface declares the functions called, and those before them in its table.
class IAudio : public IUnknown {
  public:
    virtual HRESULT GetAudioFormat(uint32_t*) = 0;
    virtual HRESULT GetAudioBitDepth(uint32_t*) = 0;
    virtual HRESULT GetAudioChannelCount(uint32_t*) = 0;
    virtual HRESULT GetAudioSampleRate(uint32_t*) = 0;
    virtual HRESULT GetAudioSampleCount(uint64_t*) = 0;
    virtual HRESULT GetAudioSamples(int64_t, void*, uint32_t, uint32_t, uint32_t*, uint32_t*) = 0;
};
class IClip : public IUnknown {};
class ICodec : public IUnknown { public: virtual HRESULT OpenClip(const char*, IClip**) = 0; };
class IFactory : public IUnknown { public: virtual HRESULT CreateCodec(ICodec**) = 0; };
const uint64_t kFrames = 96000;
class Audio : public Counted<IAudio> {
  public:
    HRESULT GetAudioFormat(uint32_t* f) override { *f = 0x70636D6C; return 0; }
    HRESULT GetAudioBitDepth(uint32_t* b) override { *b = 24; return 0; }
    HRESULT GetAudioChannelCount(uint32_t* c) override { *c = 2; return 0; }
    HRESULT GetAudioSampleRate(uint32_t* r) override { *r = 48000; return 0; }
    HRESULT GetAudioSampleCount(uint64_t* n) override { *n = kFrames; return 0; }
    HRESULT GetAudioSamples(int64_t at, void* buffer, uint32_t size, uint32_t most, uint32_t* read,
                            uint32_t* bytes) override {
        uint32_t n = 0;
        unsigned char* p = (unsigned char*)buffer;
        // A short count per call, as a real reader may give.
        if (most > 4000) most = 4000;
        while (n < most && at + n < (int64_t)kFrames && (n + 1) * 6 <= size) {
            int32_t v = (int32_t)std::lround(0.5 * 8388607 * std::sin(2 * 3.14159265358979323846 * 440 * (double)(at + n) / 48000));
            for (int b = 0; b < 3; ++b) p[6 * n + b] = (unsigned char)(v >> (8 * b));
            std::memset(p + 6 * n + 3, 0, 3);
            ++n;
        }
        if (read) *read = n;
        if (bytes) *bytes = n * 6;
        return 0;
    }
};
class Clip : public Counted<IClip> {
  public:
    HRESULT QueryInterface(REFIID iid, void** out) override {
        static const unsigned char id[16] = {0x76,0xD4,0xAC,0xED,0xE0,0xD6,0x45,0xBB,0xB5,0x47,0x56,0xB7,0x43,0x5B,0x2A,0x1D};
        if (std::memcmp(iid.b, id, 16) != 0) return (HRESULT)0x80000004;
        *out = static_cast<IAudio*>(new Audio);
        return 0;
    }
};
class Codec : public Counted<ICodec> {
  public:
    HRESULT OpenClip(const char* name, IClip** clip) override {
        if (std::strstr(name, "unreadable")) return (HRESULT)0x80000008;
        *clip = new Clip;
        return 0;
    }
};
class Factory : public Counted<IFactory> {
  public:
    HRESULT CreateCodec(ICodec** codec) override { *codec = new Codec; return 0; }
};
extern "C" IFactory* CreateBlackmagicRawFactoryInstance() { return new Factory; }
)";

} // namespace

TEST(AudioExtractorBRAW, ReadsAClipThroughALibraryWithTheSdksInterface) {
    TempDir tmp;
    const auto source = tmp.file("fake.cpp", kFakeSdk);
    const auto library = tmp / "libBlackmagicRawAPI.so";
    if (!sh("c++ -std=c++17 -shared -fPIC -O1 -o " + q(library) + " " + q(source)))
        GTEST_SKIP() << "no C++ compiler to build the stand-in library";
    const ScopedEnv sdk("TRELVANE_BRAW_SDK", tmp.path().string());
    ASSERT_TRUE(BRAWAudio::isAvailable());

    const auto clip = tmp.file("A001_C002.braw", "picture and sound");
    std::vector<double> progress;
    const auto r =
        AE::extract(Url::fromPath(clip), 0, [&](const Progress& p) { progress.push_back(p.fraction); });
    EXPECT_NEAR(static_cast<double>(r.samples.size()), 32000, 2);
    EXPECT_NEAR(peakOf(r.samples), 0.5f, 1e-6f);
    EXPECT_NEAR(frequencyOf(r.samples, 16000), 440, 1);
    ASSERT_GE(progress.size(), 2u);
    EXPECT_DOUBLE_EQ(progress[progress.size() - 2], 0.8);
    EXPECT_EQ(progress.back(), 0.9);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));

    const auto e = errorOf(tmp.file("unreadable.braw", "x"));
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind(), TrelvaneError::Kind::readFailed);
    EXPECT_NE(e->detail().find("unreadable.braw"), std::string::npos);

    // Every object the SDK handed out was released.
    void* handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    const auto live = reinterpret_cast<int (*)()>(::dlsym(handle, "fakeLiveObjects"));
    ASSERT_NE(live, nullptr);
    EXPECT_EQ(live(), 0);
    ::dlclose(handle);
}
