// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "MediaSupport.hpp"
#include "TrelvaneEngine/features/SyncCorrelator.hpp"
#include "TrelvaneEngine/media/BRAWAudio.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <dlfcn.h>
#include <functional>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

using namespace trelvane;
using trelvane::test::ffmpeg;
using trelvane::test::quoted;
using trelvane::test::ScopedEnv;
using trelvane::test::sineInput;
using trelvane::test::sox;
using trelvane::test::TempDir;
namespace AE = AudioExtractor;

namespace {

// Real recorded music, so that alignment is judged on sound with structure rather than on a tone.
const std::string kMusic = "/usr/share/games/wesnoth/1.16/data/core/music/battle.ogg";

AE::Extraction extract(const std::filesystem::path& p, double expected = 0, const ProgressFn& progress = {}) {
    return AE::extract(Url::fromPath(p), expected, progress);
}

// What `call` throws, or nothing.
template <class F> std::optional<TrelvaneError> errorOf(F&& call) {
    try {
        call();
    } catch (const TrelvaneError& e) {
        return e;
    }
    return std::nullopt;
}

float peakOf(const std::vector<float>& x) {
    return std::abs(*std::ranges::max_element(x, {}, [](float v) { return std::abs(v); }));
}

// Amplitude of the `hz` component of x[from, from + count) at 16 kHz (a single-bin DFT): a tone
// shifted by a hertz or more is not heard at all over a second.
double toneLevel(const std::vector<float>& x, double hz, std::size_t from, std::size_t count) {
    std::complex<double> sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += static_cast<double>(x[from + i]) *
               std::polar(1.0, -2 * std::numbers::pi * hz * static_cast<double>(i) / 16000);
    return 2 * std::abs(sum) / static_cast<double>(count);
}

// Where `part` sits in `whole` (part[m] ~ whole[m + lag]): the peak of their cross-correlation.
long lagOf(const std::vector<float>& whole, const std::vector<float>& part) {
    const auto r = SyncCorrelator::fftCrossCorrelate(whole, part).value();
    return std::max_element(r.values.begin(), r.values.begin() + static_cast<long>(whole.size())) -
           r.values.begin();
}

std::vector<float> sine(double hz, double rate, std::size_t count, float amplitude = 0.5f) {
    std::vector<float> x(count);
    for (std::size_t i = 0; i < count; ++i)
        x[i] = amplitude *
               static_cast<float>(std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate));
    return x;
}

} // namespace

TEST(AudioExtractor, MixesEveryChannelAndStreamAtEqualWeight) {
    TempDir tmp;
    const auto poly = tmp / "poly.wav", two = tmp / "two.mov";
    // Four channels at 44.1 kHz: 440 Hz, silence, silence, 1 kHz.
    sox("-r 44100 -c 2 -n -b 16 " + quoted(poly) + " synth 2 sine 440 sine 1000 remix 1 0 0 2 vol 0.5");
    // Two streams of a movie: 440 Hz for 2 s, 1 kHz for 3 s.
    ffmpeg("-f lavfi -i sine=f=440:d=2:r=48000 -f lavfi -i sine=f=1000:d=3:r=44100 -map 0 -map 1 "
           "-c:a pcm_s16le " +
           quoted(two));
    for (const auto& [file, seconds] : {std::pair(poly, 2.0), std::pair(two, 3.0)}) {
        SCOPED_TRACE(file.filename().string());
        const auto r = extract(file);
        EXPECT_NEAR(r.duration, seconds, 2.0 / 16000);
        EXPECT_NEAR(peakOf(r.samples), 0.5f, 1e-6f);
        // Heard alike: no centre or front bias of a surround downmix.
        const double low = toneLevel(r.samples, 440, 8000, 16000);
        EXPECT_GT(low, 0.1);
        EXPECT_NEAR(toneLevel(r.samples, 1000, 8000, 16000) / low, 1.0, 0.05);
    }
    // The last second of the movie holds its longer stream alone.
    const auto r = extract(two).samples;
    EXPECT_LT(toneLevel(r, 440, 36000, 8000), 0.01 * toneLevel(r, 1000, 36000, 8000));
}

// A stretch cut from a recording at 30 s must be found at 30 s, whatever container and codec
// carry it: edit lists, priming samples and late-starting streams all decide where sample 0 is.
TEST(AudioExtractor, StartsEveryContainerAtTheFirstSampleAnEditorPlays) {
    TempDir tmp;
    const auto full = tmp / "full.wav", cut = tmp / "cut.wav", narrow = tmp / "cut16k.wav",
               late = tmp / "late.mov";
    ffmpeg("-ss 60 -t 40 -i " + quoted(kMusic) + " -ar 48000 -ac 2 -c:a pcm_s24le " + quoted(full));
    ffmpeg("-i " + quoted(full) + " -ss 30 -t 5 -c:a pcm_s24le " + quoted(cut));
    ffmpeg("-i " + quoted(cut) + " -c:a aac -b:a 192k " + quoted(tmp / "cut.mp4"));
    ffmpeg("-i " + quoted(cut) + " -c:a libmp3lame -b:a 192k " + quoted(tmp / "cut.mp3"));
    // Resampled by another library: the analysis resampler must not shift the signal either.
    sox(quoted(cut) + " -r 16000 " + quoted(narrow));
    // The sound starts half a second after the picture (an empty edit in the audio track).
    ffmpeg("-f lavfi -i color=c=black:s=64x64:r=25:d=6 -itsoffset 0.5 -i " + quoted(cut) +
           " -map 0:v -map 1:a -c:v mpeg4 -c:a aac -b:a 192k " + quoted(late));

    const auto reference = extract(full).samples;
    const long at = 30 * 16000, ms = 16;
    for (const auto& file : {cut, tmp / "cut.mp4", tmp / "cut.mp3", narrow}) {
        SCOPED_TRACE(file.filename().string());
        const auto r = extract(file);
        EXPECT_LE(std::abs(lagOf(reference, r.samples) - at), ms);
        // Compressed sound ends on a whole frame (1,024 samples at 48 kHz, 342 at 16 kHz).
        EXPECT_NEAR(r.duration, 5.0, 342.0 / 16000);
    }
    // Silence before the sound starts, and the sound 0.5 s later than in the cut.
    const auto r = extract(late).samples;
    EXPECT_LT(peakOf({r.begin(), r.begin() + 7000}), 0.001f);
    EXPECT_LE(std::abs(lagOf(reference, r) - (at - 8000)), ms);
}

TEST(AudioExtractor, RefusesFilesWithoutUsableAudioNamingTheFile) {
    TempDir tmp;
    const auto video = tmp / "picture only.mp4", silent = tmp / "silent.wav";
    ffmpeg("-f lavfi -i color=c=red:s=64x64:r=25:d=1 -c:v mpeg4 " + quoted(video));
    ffmpeg("-f lavfi -i anullsrc=r=48000:cl=stereo -t 1 -c:a pcm_s16le " + quoted(silent));
    using K = TrelvaneError::Kind;
    for (const auto& [file, kind, detail] :
         {std::tuple(video, K::noAudioTrack, "picture only.mp4"),
          std::tuple(silent, K::silentAudio, "silent.wav"),
          std::tuple(tmp / "gone.wav", K::readerStartFailed, "No such file or directory")}) {
        const auto e = errorOf([&] { extract(file); });
        ASSERT_TRUE(e) << file;
        EXPECT_EQ(e->kind(), kind) << file;
        EXPECT_EQ(e->detail(), detail) << file;
    }
}

// Reports come in steps of at least 1 %, never above 1, even when the estimate was too short; an
// unknown estimate hears nothing. Stops are the sync command's to test, in every phase.
TEST(AudioExtractor, ReportsProgressInStepsOfOnePercentNeverAboveOne) {
    TempDir tmp;
    const auto file = tmp / "long.wav";
    sox("-n -r 16000 -b 16 -c 1 " + quoted(file) + " synth 20 pinknoise vol 0.3");
    for (const double expected : {20.0, 5.0, 0.0, -3.0}) {
        std::vector<double> seen;
        extract(file, expected, [&](const Progress& p) { seen.push_back(p.fraction); });
        EXPECT_EQ(seen.empty(), expected <= 0) << expected;
        EXPECT_LE(seen.size(), 101u);
        EXPECT_TRUE(seen.empty() || (seen.front() > 0 && seen.back() <= 1 && seen.back() >= 0.99))
            << expected;
        EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end(),
                                     [](double a, double b) { return b - a < 0.01 - 1e-12; }),
                  seen.end());
    }
}

// A stop asked for while a file is read ends the read there: half way through, or before the start.
TEST(AudioExtractor, AStopEndsTheReadWhereItStands) {
    TempDir tmp;
    const auto file = tmp / "long.wav";
    sox("-n -r 16000 -b 16 -c 1 " + quoted(file) + " synth 120 pinknoise vol 0.3");
    std::stop_source halfWay, before;
    double lastSeen = 0;
    const auto onProgress = [&](const Progress& p) {
        lastSeen = p.fraction;
        if (p.fraction >= 0.5) halfWay.request_stop();
    };
    const auto e = errorOf([&] { AE::extract(Url::fromPath(file), 120, onProgress, halfWay.get_token()); });
    ASSERT_TRUE(e) << "the read went on to the end";
    EXPECT_EQ(e->kind(), TrelvaneError::Kind::stopped);
    EXPECT_EQ(e->description(), "Stopped reading \"long.wav\"");
    EXPECT_LT(lastSeen, 0.6);

    before.request_stop();
    lastSeen = 0;
    const auto early =
        errorOf([&] { AE::extract(Url::fromPath(file), 120, onProgress, before.get_token()); });
    EXPECT_EQ(early.value().kind(), TrelvaneError::Kind::stopped);
    EXPECT_EQ(lastSeen, 0);
}

// ---- levelling and resampling -----------------------------------------------------------------

namespace {

// Windows of 6,400 samples (400 ms) of constant magnitude `amplitudes[i]`, alternating in sign.
std::vector<float> windows(const std::vector<float>& amplitudes) {
    std::vector<float> x;
    for (const float a : amplitudes)
        for (int j = 0; j < 6400; ++j)
            x.push_back(j % 2 ? -a : a);
    return x;
}

// The gain at the centre of window i (where its own gain applies alone) over that of window 0.
float gainAt(const std::vector<float>& x, std::size_t i) {
    return std::abs(x[i * 6400 + 3200]) / std::abs(x[3200]);
}

} // namespace

// Each window's gain brings it to the median level, limited to [0.25, 8] (silence under the gate
// gets the gate's gain), and is smoothed over five windows; the whole is then scaled to peak 0.5.
TEST(AudioExtractorLevel, TamesLoudAndLiftsQuietWithinLimitsAndLeavesNearSilenceAlone) {
    // A clap at 1.0 among 0.1: its gain 0.1 is limited to 0.25, smoothed (1 + 1 + 0.25 + 1 + 1) / 5;
    // two windows away it no longer counts.
    const std::vector<float> clap{0.1f, 0.1f, 0.1f, 0.1f, 0.1f, 1.0f, 0.1f, 0.1f, 0.1f, 0.1f};
    const std::tuple<std::vector<float>, std::size_t, float> cases[] = {
        {clap, 5, 10 * 0.85f},
        {clap, 3, 0.85f},
        {clap, 2, 1.0f},
        // 0.01 among 0.1: its gain 10 is limited to 8, smoothed (1 + 1 + 8 + 1 + 1) / 5.
        {{0.1f, 0.1f, 0.1f, 0.1f, 0.01f, 0.1f, 0.1f, 0.1f, 0.1f}, 4, 0.1f * 2.4f},
        // True silence (window 3) sits under the gate 0.05 set by the quietest kept window: it gets
        // the gate's gain 2, not the limit 8, so window 2 smooths to (1 + 1 + 1 + 2 + 2) / 5.
        {{0.1f, 0.1f, 0.1f, 0.0f, 0.05f, 0.1f, 0.1f}, 2, 1.4f}};
    for (const auto& [amplitudes, window, gain] : cases) {
        auto x = windows(amplitudes);
        AE::detail::levelAudio(x, 16000);
        EXPECT_NEAR(peakOf(x), 0.5f, 1e-6f);
        EXPECT_NEAR(gainAt(x, window), gain, 1e-4f * (1 + gain)) << "window " << window;
    }
    // One window is only scaled.
    std::vector<float> one = sine(100, 16000, 6400, 0.02f);
    one[100] = 0.04f;
    const auto before = one;
    AE::detail::levelAudio(one, 16000);
    EXPECT_NEAR(one[40] / before[40], 0.5f / 0.04f, 1e-3f);
    // Every window at or under RMS 0.0001, though the peak is above 0.001: untouched.
    std::vector<float> faint = windows({0.0001f, 0.00005f, 0.0001f});
    faint[7000] = 0.0011f;
    const auto copy = faint;
    AE::detail::levelAudio(faint, 16000);
    EXPECT_EQ(faint, copy);
}

// Pitch, length and timing through the resampler are pinned by the decoding tests above.
TEST(AudioExtractorResample, PassesNearRatesThroughKeepsTimeAndRefusesNonRates) {
    const auto tone = sine(1000, 16000, 16000);
    EXPECT_EQ(AE::detail::resampleMono(tone, 16000.4, 16000), tone);
    EXPECT_EQ(AE::detail::resampleMono(tone, 15999.5, 16000), tone);
    EXPECT_TRUE(AE::detail::resampleMono({}, 44100, 16000).empty());
    for (const double rate : {0.0, -44100.0, std::nan(""), 1e12})
        EXPECT_EQ(errorOf([&] { AE::detail::resampleMono(tone, rate, 16000); }).value().detail(),
                  "resampler");
}

// ---- Blackmagic RAW -------------------------------------------------------------------------------

// A stream without frames, channels, rate or the data they promise is no audio; opposite channels
// average to silence.
TEST(AudioExtractorBRAW, TakesAStreamWithoutFramesChannelsRateOrDataForNoAudio) {
    using A = BRAWAudio::Audio;
    const A good{
        .frameCount = 4800, .channelCount = 1, .sampleRate = 48000, .interleaved = sine(440, 48000, 4800)};
    const std::function<void(A&)> breaks[] = {
        [](A& a) { a.frameCount = 0; }, [](A& a) { a.channelCount = 0; }, [](A& a) { a.sampleRate = -48000; },
        [](A& a) { a.channelCount = 2; }}; // half the data needed
    for (std::size_t i = 0; i < std::size(breaks); ++i) {
        auto audio = good;
        breaks[i](audio);
        const auto e = errorOf([&] { AE::detail::analysisFromInterleaved(audio, "A001.braw"); });
        ASSERT_TRUE(e) << i;
        EXPECT_EQ(e->kind(), TrelvaneError::Kind::noAudioTrack) << i;
        EXPECT_EQ(e->detail(), "A001.braw") << i;
    }
}

// 16 bits, and 24 significant bits right-aligned in four bytes with or without the sign extended;
// 24 bits in three bytes are what the stand-in SDK below gives. A sample cut in half, or a depth
// the SDK never gives, is refused.
TEST(AudioExtractorBRAW, ConvertsTheSdksIntegerSamples) {
    const std::vector<unsigned char> bytes{0x00, 0x40, 0x00, 0x80, 0xFF, 0x7F, 0x00,
                                           0x00, 0xC0, 0xFF, 0x00, 0x00, 0xC0, 0x00};
    const auto convert = [&](std::size_t from, std::size_t count, int bytesPerSample, int bits) {
        std::vector<float> out;
        const bool done = BRAWAudio::appendPCM(std::as_bytes(std::span(bytes).subspan(from, count)),
                                               bytesPerSample, bits, out);
        return done ? std::optional(out) : std::nullopt;
    };
    EXPECT_EQ(convert(0, 6, 2, 16), (std::vector<float>{0.5f, -1.0f, 32767.0f / 32768}));
    EXPECT_EQ(convert(6, 8, 4, 24), (std::vector<float>{-0.5f, -0.5f}));
    EXPECT_FALSE(convert(0, 5, 2, 16));
    EXPECT_FALSE(convert(0, 2, 1, 8));
}

namespace {

// A stand-in for the SDK's library with the same binary interface: objects whose first member is a
// table of functions, called with the object first, in the slots the SDK has them (0 QueryInterface,
// 2 Release, then the interface's own). One clip of two seconds of 48 kHz stereo, 24-bit, a 440 Hz
// tone on the left and silence on the right, at most 4,000 frames a call. Clips whose path holds
// "unreadable" fail to open. fakeLiveObjects() counts the objects not yet released.
const char* kFakeSdk = R"(
#include <cmath>
#include <cstdint>
#include <cstring>
typedef int H; typedef void (*Slot)(); typedef uint32_t U; struct Obj { const Slot* table; };
static int live = 0;
extern "C" int fakeLiveObjects() { return live; }
static Obj* make(const Slot* table) { ++live; return new Obj{table}; }
static unsigned long release(Obj* o) { --live; delete o; return 0; }
static H none(Obj*) { return (H)0x80000004; }
static H format(Obj*, U* v) { *v = 0x70636D6C; return 0; }
static H depth(Obj*, U* v) { *v = 24; return 0; }
static H channels(Obj*, U* v) { *v = 2; return 0; }
static H rate(Obj*, U* v) { *v = 48000; return 0; }
static H count(Obj*, uint64_t* v) { *v = 96000; return 0; }
static H samples(Obj*, int64_t at, unsigned char* p, U size, U most, U* read, U* bytes) {
    U n = 0;
    for (; n < most && n < 4000 && at + n < 96000 && (n + 1) * 6 <= size; ++n) {
        int32_t v = (int32_t)std::lround(0.5 * 8388607 * std::sin(2 * M_PI * 440 * (at + n) / 48000.0));
        for (int b = 0; b < 6; ++b) p[6 * n + b] = b < 3 ? (unsigned char)(v >> (8 * b)) : 0;
    }
    *read = n; *bytes = n * 6; return 0;
}
static const Slot audio[] = {(Slot)none, 0, (Slot)release, (Slot)format, (Slot)depth, (Slot)channels, (Slot)rate, (Slot)count, (Slot)samples};
struct Iid { unsigned char b[16]; };
static H query(Obj*, Iid iid, void** out) {
    if (std::memcmp(iid.b, "\x76\xD4\xAC\xED\xE0\xD6\x45\xBB\xB5\x47\x56\xB7\x43\x5B\x2A\x1D", 16)) return -1;
    *out = make(audio); return 0;
}
static const Slot clip[] = {(Slot)query, 0, (Slot)release};
static H openClip(Obj*, const char* name, Obj** out) {
    if (std::strstr(name, "unreadable")) return (H)0x80000008;
    *out = make(clip); return 0;
}
static const Slot codec[] = {(Slot)none, 0, (Slot)release, (Slot)openClip};
static H createCodec(Obj*, Obj** out) { *out = make(codec); return 0; }
static const Slot factory[] = {(Slot)none, 0, (Slot)release, (Slot)createCodec};
extern "C" Obj* CreateBlackmagicRawFactoryInstance() { return make(factory); }
)";

} // namespace

// Any case of the extension goes to the SDK, never to FFmpeg: without it the clip fails with a note
// on what to install; with a library of its interface, the clip's sound is read through it.
TEST(AudioExtractorBRAW, TellsWhatToInstallWithoutTheSdkAndReadsAClipThroughALibraryOfItsInterface) {
    TempDir tmp;
    const auto library = tmp / "libBlackmagicRawAPI.so";
    const ScopedEnv sdk("TRELVANE_BRAW_SDK", tmp.path().string());
    const auto clip = tmp.file("A001_C001.BRAW", "picture and sound");
    if (!BRAWAudio::isAvailable()) {
        const auto note = BRAWAudio::availabilityNote();
        EXPECT_NE(note.find("TRELVANE_BRAW_SDK"), std::string::npos);
        const auto e = errorOf([&] { extract(clip); }).value();
        EXPECT_TRUE(e.kind() == TrelvaneError::Kind::readFailed && e.detail() == note) << e.detail();
    }
    const auto source = tmp.file("fake.cpp", kFakeSdk);
    if (std::system(
            ("c++ -std=c++17 -shared -fPIC -O1 -o " + quoted(library) + " " + quoted(source)).c_str()) != 0)
        GTEST_SKIP() << "no C++ compiler to build the stand-in library";
    ASSERT_TRUE(BRAWAudio::isAvailable());

    std::vector<double> progress;
    const auto r = extract(clip, 0, [&](const Progress& p) { progress.push_back(p.fraction); });
    EXPECT_NEAR(static_cast<double>(r.samples.size()), 32000, 2);
    EXPECT_NEAR(peakOf(r.samples), 0.5f, 1e-6f);
    EXPECT_NEAR(toneLevel(r.samples, 440, 8000, 16000), 0.5, 0.02);
    ASSERT_GE(progress.size(), 2u);
    EXPECT_DOUBLE_EQ(progress[progress.size() - 2], 0.8);
    EXPECT_EQ(progress.back(), 0.9);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));

    const auto e = errorOf([&] { extract(tmp.file("unreadable.braw", "x")); }).value();
    EXPECT_TRUE(e.kind() == TrelvaneError::Kind::readFailed &&
                e.detail().find("unreadable.braw") != std::string::npos)
        << e.detail();
    // Every object the SDK handed out was released.
    const auto live = reinterpret_cast<int (*)()>(
        ::dlsym(::dlopen(library.c_str(), RTLD_NOLOAD | RTLD_NOW), "fakeLiveObjects"));
    ASSERT_TRUE(live);
    EXPECT_EQ(live(), 0);
}
