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

AE::Extraction extract(const std::filesystem::path& p, double expected = 0,
                       const AE::Progress& progress = {}) {
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
    float peak = 0;
    for (const float v : x)
        peak = std::max(peak, std::abs(v));
    return peak;
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

// ---- decoding ---------------------------------------------------------------------------------

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
        EXPECT_NEAR(static_cast<double>(r.samples.size()), seconds * 16000, 2);
        EXPECT_DOUBLE_EQ(r.duration, static_cast<double>(r.samples.size()) / 16000);
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

// ---- refusals, breaks and stops -----------------------------------------------------------------

TEST(AudioExtractor, RefusesFilesWithoutUsableAudioNamingTheFile) {
    TempDir tmp;
    const auto video = tmp / "picture only.mp4", silent = tmp / "silent.wav";
    ffmpeg("-f lavfi -i color=c=red:s=64x64:r=25:d=1 -c:v mpeg4 " + quoted(video));
    ffmpeg("-f lavfi -i anullsrc=r=48000:cl=stereo -t 1 -c:a pcm_s16le " + quoted(silent));
    using K = TrelvaneError::Kind;
    // file, error, its detail (empty: any, as long as there is one)
    const std::tuple<std::filesystem::path, K, std::string> cases[] = {
        {video, K::noAudioTrack, "picture only.mp4"},
        {silent, K::silentAudio, "silent.wav"},
        {tmp.file("notes.mov", "Scene 4, take 2: the boom was in shot.\n"), K::readerStartFailed, ""},
        {tmp / "gone.wav", K::readerStartFailed, "No such file or directory"},
        {tmp.path(), K::readerStartFailed, ""},
    };
    for (const auto& [file, kind, detail] : cases) {
        SCOPED_TRACE(file.string());
        const auto e = errorOf([&] { extract(file); });
        ASSERT_TRUE(e);
        EXPECT_EQ(e->kind(), kind);
        EXPECT_FALSE(e->detail().empty());
        if (!detail.empty()) {
            EXPECT_EQ(e->detail(), detail);
        }
    }
}

TEST(AudioExtractor, KeepsWhatDecodesOfAFileThatBreaksOffAndSaysSo) {
    TempDir tmp;
    const auto whole = tmp / "whole.mp4", front = tmp / "front.mp4";
    ffmpeg(sineInput(4) + " -c:a aac " + quoted(whole));
    ffmpeg(sineInput(4) + " -c:a aac -movflags +faststart " + quoted(front));
    const auto half = [&](const std::filesystem::path& from) {
        const auto bytes = trelvane::test::slurp(from);
        return tmp.file("half-" + from.filename().string(), bytes.substr(0, bytes.size() / 2));
    };
    // Index at the end, cut away: the file can't even be opened.
    EXPECT_EQ(errorOf([&] { extract(half(whole)); }).value().kind(), TrelvaneError::Kind::readerStartFailed);
    // Index first, samples cut in half: what decodes before the break is kept, marked cut short.
    const auto cut = extract(half(front), 4);
    EXPECT_TRUE(cut.cutShort);
    EXPECT_GT(cut.duration, 1.0);
    EXPECT_LT(cut.duration, 3.0);
    EXPECT_FALSE(extract(front, 4).cutShort);
}

TEST(AudioExtractor, ReportsProgressInStepsOfAtLeastOnePercentNeverAboveOne) {
    TempDir tmp;
    const auto file = tmp / "four.wav";
    sox("-n -r 48000 -b 16 -c 2 " + quoted(file) + " synth 4 sine 300 vol 0.5");
    // Estimated length, fewest and most reports, least last report. An estimate that was too short
    // stops at 1; an unknown one hears nothing.
    const std::tuple<double, std::size_t, std::size_t, double> cases[] = {
        {4, 10, 101, 0.99}, {1, 1, 101, 1.0}, {0, 0, 0, 0}, {-3, 0, 0, 0}};
    for (const auto& [expected, fewest, most, last] : cases) {
        SCOPED_TRACE(expected);
        std::vector<double> seen;
        extract(file, expected, [&](double p) { seen.push_back(p); });
        EXPECT_GE(seen.size(), fewest);
        EXPECT_LE(seen.size(), most);
        EXPECT_TRUE(seen.empty() || (seen.front() > 0 && seen.back() <= 1 && seen.back() >= last));
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
    const auto onProgress = [&](double p) {
        lastSeen = p;
        if (p >= 0.5) halfWay.request_stop();
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

// Pitch and length through the resampler are pinned by the decoding tests above.
TEST(AudioExtractorResample, PassesNearRatesThroughKeepsTimeAndRefusesNonRates) {
    const auto tone = sine(1000, 16000, 16000);
    EXPECT_EQ(AE::detail::resampleMono(tone, 16000.4, 16000), tone);
    EXPECT_EQ(AE::detail::resampleMono(tone, 15999.5, 16000), tone);
    EXPECT_TRUE(AE::detail::resampleMono({}, 44100, 16000).empty());
    // An impulse at 0.5 s stays at 0.5 s.
    std::vector<float> click(44100, 0.0f);
    click[22050] = 1.0f;
    const auto moved = AE::detail::resampleMono(click, 44100, 16000);
    EXPECT_NEAR(static_cast<double>(std::max_element(moved.begin(), moved.end()) - moved.begin()), 8000, 1);
    for (const double rate : {0.0, -44100.0, std::nan(""), 1e12}) {
        const auto e = errorOf([&] { AE::detail::resampleMono(tone, rate, 16000); });
        ASSERT_TRUE(e) << rate;
        EXPECT_EQ(e->kind(), TrelvaneError::Kind::readFailed);
        EXPECT_EQ(e->detail(), "resampler");
    }
}

// ---- Blackmagic RAW -------------------------------------------------------------------------------

namespace {

BRAWAudio::Audio interleaved(std::uint64_t frames, double rate,
                             const std::vector<std::vector<float>>& channels) {
    BRAWAudio::Audio a{.frameCount = frames,
                       .channelCount = static_cast<std::uint32_t>(channels.size()),
                       .sampleRate = rate,
                       .interleaved = {}};
    for (std::size_t f = 0; f < frames; ++f)
        for (const auto& channel : channels)
            a.interleaved.push_back(channel[f]);
    return a;
}

std::optional<TrelvaneError> analysisError(const BRAWAudio::Audio& audio) {
    return errorOf([&] { AE::detail::analysisFromInterleaved(audio, "A001.braw"); });
}

} // namespace

// The averaging, resampling and levelling of a good stream are pinned through the stand-in SDK below.
TEST(AudioExtractorBRAW, TakesAStreamWithoutFramesChannelsRateOrDataForNoAudio) {
    const auto tone = sine(440, 48000, 4800);
    const auto good = interleaved(4800, 48000, {tone});
    EXPECT_FALSE(analysisError(good));
    // Opposite channels average to nothing.
    std::vector<float> inverted(tone);
    for (float& v : inverted)
        v = -v;
    EXPECT_EQ(analysisError(interleaved(4800, 48000, {tone, inverted})).value().kind(),
              TrelvaneError::Kind::silentAudio);
    using A = BRAWAudio::Audio;
    const std::function<void(A&)> breaks[] = {
        [](A& a) { a.frameCount = 0; },
        [](A& a) { a.channelCount = 0; },
        [](A& a) { a.sampleRate = 0; },
        [](A& a) { a.sampleRate = -48000; },
        [](A& a) { a.interleaved.pop_back(); },
        [](A& a) { a.channelCount = 2; }, // half the data that two channels need
    };
    for (std::size_t i = 0; i < std::size(breaks); ++i) {
        auto audio = good;
        breaks[i](audio);
        const auto e = analysisError(audio);
        ASSERT_TRUE(e) << i;
        EXPECT_EQ(e->kind(), TrelvaneError::Kind::noAudioTrack);
        EXPECT_EQ(e->detail(), "A001.braw");
    }
}

TEST(AudioExtractorBRAW, ConvertsTheSdksIntegerSamples) {
    const struct {
        std::vector<unsigned char> bytes;
        int bytesPerSample, bits;
        std::optional<std::vector<float>> expected;
    } cases[] = {
        {{0x00, 0x40, 0x00, 0x80, 0xFF, 0x7F}, 2, 16, std::vector<float>{0.5f, -1.0f, 32767.0f / 32768}},
        // 24 significant bits, right-aligned in four bytes, with or without the sign extended (24 bits
        // in three bytes are what the stand-in SDK below gives).
        {{0x00, 0x00, 0xC0, 0xFF, 0x00, 0x00, 0xC0, 0x00}, 4, 24, std::vector<float>{-0.5f, -0.5f}},
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
    const auto e = errorOf([&] { extract(clip); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind(), TrelvaneError::Kind::readFailed);
    EXPECT_EQ(e->detail(), note);
    EXPECT_FALSE(BRAWAudio::readAudio(clip.string()).audio);
}

namespace {

// A stand-in for the SDK's library with the same binary interface: objects whose first member is a
// table of functions, called with the object first, in the slots the SDK has them (0 QueryInterface,
// 1 AddRef, 2 Release, then the interface's own). One clip of two seconds of 48 kHz stereo, 24-bit,
// a 440 Hz tone on the left and silence on the right, at most 4,000 frames a call. Clips whose path
// holds "unreadable" fail to open. fakeLiveObjects() counts the objects not yet released.
const char* kFakeSdk = R"(
#include <cmath>
#include <cstdint>
#include <cstring>
typedef int H;
typedef void (*Slot)();
struct Obj { const Slot* table; int refs; };
struct Iid { unsigned char b[16]; };
static int live = 0;
extern "C" int fakeLiveObjects() { return live; }
static Obj* make(const Slot* table) { ++live; return new Obj{table, 1}; }
static unsigned long addRef(Obj* o) { return ++o->refs; }
static unsigned long release(Obj* o) { int r = --o->refs; if (r == 0) { --live; delete o; } return r; }
static H none(Obj*, Iid, void**) { return (H)0x80000004; }
static H format(Obj*, uint32_t* v) { *v = 0x70636D6C; return 0; }
static H depth(Obj*, uint32_t* v) { *v = 24; return 0; }
static H channels(Obj*, uint32_t* v) { *v = 2; return 0; }
static H rate(Obj*, uint32_t* v) { *v = 48000; return 0; }
static H count(Obj*, uint64_t* v) { *v = 96000; return 0; }
static H samples(Obj*, int64_t at, void* buffer, uint32_t size, uint32_t most, uint32_t* read, uint32_t* bytes) {
    unsigned char* p = (unsigned char*)buffer;
    uint32_t n = 0;
    for (; n < most && n < 4000 && at + n < 96000 && (n + 1) * 6 <= size; ++n) {
        int32_t v = (int32_t)std::lround(0.5 * 8388607 * std::sin(2 * 3.14159265358979 * 440 * (at + n) / 48000.0));
        for (int b = 0; b < 3; ++b) p[6 * n + b] = (unsigned char)(v >> (8 * b));
        std::memset(p + 6 * n + 3, 0, 3);
    }
    if (read) *read = n;
    if (bytes) *bytes = n * 6;
    return 0;
}
static const Slot audio[] = {(Slot)none, (Slot)addRef, (Slot)release, (Slot)format, (Slot)depth,
                             (Slot)channels, (Slot)rate, (Slot)count, (Slot)samples};
static H query(Obj*, Iid iid, void** out) {
    static const unsigned char id[16] = {0x76,0xD4,0xAC,0xED,0xE0,0xD6,0x45,0xBB,0xB5,0x47,0x56,0xB7,0x43,0x5B,0x2A,0x1D};
    if (std::memcmp(iid.b, id, 16) != 0) return (H)0x80000004;
    *out = make(audio);
    return 0;
}
static const Slot clip[] = {(Slot)query, (Slot)addRef, (Slot)release};
static H openClip(Obj*, const char* name, Obj** out) {
    if (std::strstr(name, "unreadable")) return (H)0x80000008;
    *out = make(clip);
    return 0;
}
static const Slot codec[] = {(Slot)none, (Slot)addRef, (Slot)release, (Slot)openClip};
static H createCodec(Obj*, Obj** out) { *out = make(codec); return 0; }
static const Slot factory[] = {(Slot)none, (Slot)addRef, (Slot)release, (Slot)createCodec};
extern "C" Obj* CreateBlackmagicRawFactoryInstance() { return make(factory); }
)";

} // namespace

TEST(AudioExtractorBRAW, ReadsAClipThroughALibraryWithTheSdksInterface) {
    TempDir tmp;
    const auto source = tmp.file("fake.cpp", kFakeSdk);
    const auto library = tmp / "libBlackmagicRawAPI.so";
    if (std::system(
            ("c++ -std=c++17 -shared -fPIC -O1 -o " + quoted(library) + " " + quoted(source)).c_str()) != 0)
        GTEST_SKIP() << "no C++ compiler to build the stand-in library";
    const ScopedEnv sdk("TRELVANE_BRAW_SDK", tmp.path().string());
    ASSERT_TRUE(BRAWAudio::isAvailable());

    std::vector<double> progress;
    const auto r =
        extract(tmp.file("A001_C002.braw", "picture and sound"), 0, [&](double p) { progress.push_back(p); });
    EXPECT_NEAR(static_cast<double>(r.samples.size()), 32000, 2);
    EXPECT_NEAR(peakOf(r.samples), 0.5f, 1e-6f);
    EXPECT_NEAR(toneLevel(r.samples, 440, 8000, 16000), 0.5, 0.02);
    ASSERT_GE(progress.size(), 2u);
    EXPECT_DOUBLE_EQ(progress[progress.size() - 2], 0.8);
    EXPECT_EQ(progress.back(), 0.9);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));

    const auto e = errorOf([&] { extract(tmp.file("unreadable.braw", "x")); });
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
