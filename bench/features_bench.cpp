// SPDX-License-Identifier: GPL-3.0-or-later
// Figures of the matching features, each beside a yardstick measured in the same run:
//   band features of 10 minutes of audio        vs the bare 1,024-point transforms of its frames
//   one correlation at the sizes sync meets     vs the plain sum over every lag
//   the peak search of 60 s and 2 min against one hour, whole range and a clock window
//                                               vs whole-length correlations per band, and the
//                                                  plain fused correlation by sums
// Sizes: audio at 16 kHz; features at 25 frames per second (60 s = 1,500 frames, 1 h = 90,000).

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/features/SyncCorrelator.hpp"

#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

using namespace trelvane;
namespace SB = trelvane::SpectralBands;

namespace {

std::vector<float> noise(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, 0.1f);
    std::vector<float> v(n);
    for (auto& x : v)
        x = dist(rng);
    return v;
}

SB::Feature randomFeature(int frames, unsigned seed) {
    SB::Feature f;
    f.frames = frames;
    for (unsigned b = 0; b < 8; ++b)
        f.bands.push_back(SB::zscore(noise(static_cast<std::size_t>(frames), seed * 16 + b)));
    return f;
}

// `length` frames of `ref` from `start`, with noise of their own.
SB::Feature cutOf(const SB::Feature& ref, int start, int length, unsigned seed) {
    SB::Feature f;
    f.frames = length;
    for (std::size_t b = 0; b < ref.bands.size(); ++b) {
        auto v = noise(static_cast<std::size_t>(length), seed * 16 + static_cast<unsigned>(b));
        for (int i = 0; i < length; ++i)
            v[static_cast<std::size_t>(i)] += ref.bands[b][static_cast<std::size_t>(start + i)];
        f.bands.push_back(SB::zscore(v));
    }
    return f;
}

// The plain correlation over every lag of `b` against `a`, lags -(b.size() - 1) to a.size() - 1.
void plainCorrelation(const std::vector<float>& a, const std::vector<float>& b, std::vector<float>& out) {
    const long na = static_cast<long>(a.size()), nb = static_cast<long>(b.size());
    out.assign(static_cast<std::size_t>(na + nb - 1), 0.0f);
    for (long k = -(nb - 1); k < na; ++k) {
        const long m0 = std::max(0L, -k), m1 = std::min(nb, na - k);
        float s = 0;
        for (long m = m0; m < m1; ++m)
            s += a[static_cast<std::size_t>(m + k)] * b[static_cast<std::size_t>(m)];
        out[static_cast<std::size_t>(k + nb - 1)] = s;
    }
}

constexpr std::size_t kTenMinutes = 16'000 * 600;

void BM_BandFeaturesOfTenMinutes(benchmark::State& state) {
    const auto pcm = noise(kTenMinutes, 1);
    for (auto _ : state) {
        auto f = SB::compute(pcm);
        benchmark::DoNotOptimize(f.bands.data());
    }
    state.counters["audio_s_per_s"] =
        benchmark::Counter(600.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BandFeaturesOfTenMinutes)->Unit(benchmark::kMillisecond);

// Yardstick: only the forward transforms of the same frames, straight through the FFT library.
void BM_BareFrameTransformsOfTenMinutes(benchmark::State& state) {
    const auto pcm = noise(kTenMinutes, 1);
    const std::size_t frames = (pcm.size() - 1024) / 640 + 1;
    struct Free {
        void operator()(void* p) const { fftwf_free(p); }
    };
    std::unique_ptr<float[], Free> in(static_cast<float*>(fftwf_malloc(sizeof(float) * 1024)));
    std::unique_ptr<fftwf_complex[], Free> out(
        static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * 513)));
    // Planned here, before any other thread of this program exists.
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(1024, in.get(), out.get(), FFTW_ESTIMATE);
    for (auto _ : state) {
        for (std::size_t f = 0; f < frames; ++f) {
            std::copy_n(pcm.begin() + static_cast<long>(f * 640), 1024, in.get());
            fftwf_execute(plan);
            benchmark::DoNotOptimize(out.get());
        }
    }
    fftwf_destroy_plan(plan);
    state.counters["audio_s_per_s"] =
        benchmark::Counter(600.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BareFrameTransformsOfTenMinutes)->Unit(benchmark::kMillisecond);

// Clip and reference lengths in frames: 60 s against 10 min, 60 s against 1 h, 1 h against 1 h.
void correlationSizes(benchmark::internal::Benchmark* b) {
    b->Args({15'000, 1'500})->Args({90'000, 1'500})->Args({90'000, 90'000});
}

void BM_FftCrossCorrelate(benchmark::State& state) {
    const auto a = noise(static_cast<std::size_t>(state.range(0)), 2);
    const auto b = noise(static_cast<std::size_t>(state.range(1)), 3);
    SyncCorrelator::fftCrossCorrelate(a, b); // the plan is made once per process, not per call
    for (auto _ : state) {
        auto r = SyncCorrelator::fftCrossCorrelate(a, b);
        benchmark::DoNotOptimize(r);
    }
    if (auto r = SyncCorrelator::fftCrossCorrelate(a, b)) state.counters["P"] = r->length;
}
BENCHMARK(BM_FftCrossCorrelate)->Apply(correlationSizes)->Unit(benchmark::kMicrosecond);

// Yardstick: the plain sum at every lag (the one-hour pair is left out: about 8e9 products).
void BM_PlainCorrelation(benchmark::State& state) {
    const auto a = noise(static_cast<std::size_t>(state.range(0)), 2);
    const auto b = noise(static_cast<std::size_t>(state.range(1)), 3);
    std::vector<float> out;
    for (auto _ : state) {
        plainCorrelation(a, b, out);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_PlainCorrelation)->Args({15'000, 1'500})->Args({90'000, 1'500})->Unit(benchmark::kMicrosecond);

// The peak search in the shapes sync gives it: the whole range, and a clock window of +-900 s.
// Runs against one reference reuse its cached transforms, as a track's clips against the
// reference track do; the cold figure pays for them on every call.
void BM_PeaksAgainstAnHour(benchmark::State& state) {
    const int clipFrames = static_cast<int>(state.range(0));
    const bool window = state.range(1) != 0;
    const auto ref = randomFeature(90'000, 4);
    const auto clip = cutOf(ref, 40'000, clipFrames, 5);
    const double inf = std::numeric_limits<double>::infinity();
    const double lo = window ? 1600.0 - 900.0 : -inf, hi = window ? 1600.0 + 900.0 : inf;
    for (auto _ : state) {
        auto p = SB::peaks(clip, ref, lo, hi, 5.0, 5, 1.0);
        benchmark::DoNotOptimize(p.data());
    }
}
BENCHMARK(BM_PeaksAgainstAnHour)
    ->ArgNames({"clip_frames", "window"})
    ->Args({1'500, 0})
    ->Args({3'000, 0})
    ->Args({3'000, 1})
    ->Unit(benchmark::kMillisecond);

void BM_PeaksAgainstAnHourColdReference(benchmark::State& state) {
    auto ref = randomFeature(90'000, 4);
    const auto clip = cutOf(ref, 40'000, static_cast<int>(state.range(0)), 5);
    const double inf = std::numeric_limits<double>::infinity();
    float nudge = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ref.bands[0][0] += (nudge += 1e-3f); // another reference as far as any cache can tell
        state.ResumeTiming();
        auto p = SB::peaks(clip, ref, -inf, inf, 5.0, 5, 1.0);
        benchmark::DoNotOptimize(p.data());
    }
}
BENCHMARK(BM_PeaksAgainstAnHourColdReference)->Arg(3'000)->Unit(benchmark::kMillisecond);

// Yardstick: the straightforward search, one whole-length correlation per band (16 forward
// transforms and 8 inverse of 131,072 points), fused, and its best lag.
void BM_PeaksByWholeCorrelationsAgainstAnHour(benchmark::State& state) {
    const auto ref = randomFeature(90'000, 4);
    const auto clip = cutOf(ref, 40'000, static_cast<int>(state.range(0)), 5);
    for (auto _ : state) {
        std::vector<float> fused;
        for (std::size_t b = 0; b < 8; ++b) {
            const auto r = SyncCorrelator::fftCrossCorrelate(ref.bands[b], clip.bands[b]);
            if (!r) continue;
            fused.resize(r->values.size(), 0.0f);
            double sq = 0;
            for (float v : r->values)
                sq += static_cast<double>(v) * v;
            const float inverse =
                static_cast<float>(1.0 / std::sqrt(sq / static_cast<double>(r->values.size())));
            for (std::size_t i = 0; i < r->values.size(); ++i)
                fused[i] += r->values[i] * inverse;
        }
        benchmark::DoNotOptimize(std::max_element(fused.begin(), fused.end()));
    }
}
BENCHMARK(BM_PeaksByWholeCorrelationsAgainstAnHour)->Arg(1'500)->Arg(3'000)->Unit(benchmark::kMillisecond);

// Yardstick: the same fused correlation by plain sums, normalised per band, and its best lag.
void BM_PlainFusedCorrelationOfAMinuteAgainstAnHour(benchmark::State& state) {
    const auto ref = randomFeature(90'000, 4);
    const auto clip = cutOf(ref, 40'000, 1'500, 5);
    std::vector<float> r, fused;
    for (auto _ : state) {
        fused.assign(90'000 + 1'500 - 1, 0.0f);
        for (std::size_t b = 0; b < 8; ++b) {
            plainCorrelation(ref.bands[b], clip.bands[b], r);
            double sq = 0;
            for (float v : r)
                sq += static_cast<double>(v) * v;
            const float inverse = static_cast<float>(1.0 / std::sqrt(sq / static_cast<double>(r.size())));
            for (std::size_t i = 0; i < r.size(); ++i)
                fused[i] += r[i] * inverse;
        }
        benchmark::DoNotOptimize(std::max_element(fused.begin(), fused.end()));
    }
}
BENCHMARK(BM_PlainFusedCorrelationOfAMinuteAgainstAnHour)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
