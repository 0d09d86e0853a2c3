// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SyncCorrelator.hpp"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

namespace trelvane {

namespace SyncCorrelator {

namespace {

// The FFT library's planner is not thread-safe, executing a finished plan on fresh arrays is: so
// every plan of the process is made here, under this one lock, and never changed afterwards. The
// lock and the plans are process-wide because the planner's own state is.
std::mutex& fftSetupLock() {
    static std::mutex lock;
    return lock;
}

// Destroyed at exit, after the workers have been joined; nothing is planned or destroyed before.
std::map<unsigned, std::unique_ptr<FFTSetup>>& fftSetups() {
    static std::map<unsigned, std::unique_ptr<FFTSetup>> setups;
    return setups;
}

float* allocateFloats(std::size_t count) {
    auto* p = static_cast<float*>(fftwf_malloc(sizeof(float) * count));
    if (p == nullptr) throw std::bad_alloc();
    std::memset(p, 0, sizeof(float) * count);
    return p;
}

struct PlanningFree {
    void operator()(float* p) const noexcept { fftwf_free(p); }
};

fftwf_complex* asComplex(float* p) {
    return reinterpret_cast<fftwf_complex*>(p);
}

} // namespace

void FFTWorkspace::Free::operator()(void* p) const noexcept {
    fftwf_free(p);
}

// Every buffer comes from the library's allocator, so that its alignment is the one the plans were
// made for; plans made on aligned arrays may use vector code that needs it.
FFTWorkspace::FFTWorkspace(std::size_t length)
    : length_(length), signal_(allocateFloats(length)), real_(allocateFloats(length / 2)),
      imag_(allocateFloats(length / 2)), complex_(allocateFloats(2 * (length / 2 + 1))) {}

void FFTSetup::PlanDestroy::operator()(fftwf_plan_s* p) const noexcept {
    fftwf_destroy_plan(p);
}

FFTSetup::FFTSetup(Key, unsigned log2n, fftwf_plan_s* forwardPlan, fftwf_plan_s* inversePlan)
    : log2n_(log2n), length_(std::size_t{1} << log2n), forward_(forwardPlan), inverse_(inversePlan) {}

FFTSetup::~FFTSetup() = default;

FFTWorkspace FFTSetup::makeWorkspace() const {
    return FFTWorkspace(length_);
}

void FFTSetup::forward(FFTWorkspace& ws) const {
    fftwf_complex* c = asComplex(ws.complex_.get());
    fftwf_execute_dft_r2c(forward_.get(), ws.signal_.get(), c);
    // The library gives the plain DFT, bins 0 to P/2; repack it with the doubled scale the rest of
    // the engine counts on. DC and Nyquist are real, so they share element 0.
    const std::size_t half = length_ / 2;
    float* re = ws.real_.get();
    float* im = ws.imag_.get();
    re[0] = 2.0f * c[0][0];
    im[0] = 2.0f * c[half][0];
    for (std::size_t k = 1; k < half; ++k) {
        re[k] = 2.0f * c[k][0];
        im[k] = 2.0f * c[k][1];
    }
}

void FFTSetup::inverse(FFTWorkspace& ws) const {
    fftwf_complex* c = asComplex(ws.complex_.get());
    const std::size_t half = length_ / 2;
    const float* re = ws.real_.get();
    const float* im = ws.imag_.get();
    c[0][0] = re[0];
    c[0][1] = 0.0f;
    c[half][0] = im[0];
    c[half][1] = 0.0f;
    for (std::size_t k = 1; k < half; ++k) {
        c[k][0] = re[k];
        c[k][1] = im[k];
    }
    // Unnormalised, so P times the plain inverse. The interleaved copy is scratch: the library's
    // complex-to-real transform is free to overwrite it.
    fftwf_execute_dft_c2r(inverse_.get(), c, ws.signal_.get());
}

const FFTSetup* sharedFFTSetup(unsigned log2n) {
    if (log2n == 0 || log2n > kMaxLog2n) return nullptr;
    std::lock_guard lock(fftSetupLock());
    auto& setups = fftSetups();
    if (auto it = setups.find(log2n); it != setups.end()) return it->second.get();

    const int n = 1 << log2n;
    // Planning with estimates reads no data, but the arrays' alignment and placement must be the
    // ones later transforms use: separate buffers from the library's allocator.
    std::unique_ptr<float[], PlanningFree> signal(
        static_cast<float*>(fftwf_malloc(sizeof(float) * static_cast<std::size_t>(n))));
    std::unique_ptr<float[], PlanningFree> spectrum(
        static_cast<float*>(fftwf_malloc(sizeof(float) * 2 * static_cast<std::size_t>(n / 2 + 1))));
    if (!signal || !spectrum) return nullptr;

    std::unique_ptr<fftwf_plan_s, FFTSetup::PlanDestroy> forwardPlan(fftwf_plan_dft_r2c_1d(
        n, signal.get(), asComplex(spectrum.get()), FFTW_ESTIMATE | FFTW_PRESERVE_INPUT));
    std::unique_ptr<fftwf_plan_s, FFTSetup::PlanDestroy> inversePlan(fftwf_plan_dft_c2r_1d(
        n, asComplex(spectrum.get()), signal.get(), FFTW_ESTIMATE | FFTW_DESTROY_INPUT));
    if (!forwardPlan || !inversePlan) return nullptr;

    auto setup =
        std::make_unique<FFTSetup>(FFTSetup::Key{}, log2n, forwardPlan.release(), inversePlan.release());
    return setups.emplace(log2n, std::move(setup)).first->second.get();
}

std::optional<Correlation> fftCrossCorrelate(std::span<const float> a, std::span<const float> b) {
    // With one side empty, total - 1 falls short of the other side's length, which would not fit
    // in P; correlating with nothing means nothing anyway.
    if (a.empty() || b.empty()) return std::nullopt;
    const std::size_t total = a.size() + b.size();
    if (total <= 2) return std::nullopt; // n = total - 1 is 1 or less
    const std::size_t n = total - 1;

    std::size_t length = 1;
    unsigned log2n = 0;
    do {
        length *= 2;
        ++log2n;
        if (log2n > kMaxLog2n) return std::nullopt;
    } while (length < n);
    if (length < 8) return std::nullopt;

    const FFTSetup* setup = sharedFFTSetup(log2n);
    if (setup == nullptr) return std::nullopt;

    FFTWorkspace wa = setup->makeWorkspace();
    FFTWorkspace wb = setup->makeWorkspace();
    std::copy(a.begin(), a.end(), wa.signal().begin());
    std::copy(b.begin(), b.end(), wb.signal().begin());
    setup->forward(wa);
    setup->forward(wb);

    // A times the conjugate of B, bin by bin; element 0 holds two real terms (DC and Nyquist),
    // not one complex bin, so it is mended after the loop.
    auto ar = wa.real(), ai = wa.imag();
    const auto br = wb.real(), bi = wb.imag();
    const float dc = ar[0] * br[0];
    const float nyquist = ai[0] * bi[0];
    for (std::size_t k = 0; k < ar.size(); ++k) {
        const float re = ar[k] * br[k] + ai[k] * bi[k];
        const float im = ai[k] * br[k] - ar[k] * bi[k];
        ar[k] = re;
        ai[k] = im;
    }
    ar[0] = dc;
    ai[0] = nyquist;

    setup->inverse(wa);

    // Forward twice the plain scale on each side, inverse P times: 1/(2P) leaves twice the plain
    // correlation. Callers normalise by RMS, so that factor is kept as it is.
    const float scale = static_cast<float>(1.0 / (2.0 * static_cast<double>(length)));
    Correlation result;
    result.length = static_cast<int>(length);
    result.values.resize(length);
    const auto signal = wa.signal();
    for (std::size_t i = 0; i < length; ++i)
        result.values[i] = signal[i] * scale;
    return result;
}

} // namespace SyncCorrelator

namespace CrossCorrelator {

std::vector<float> magnitudeEnvelope(std::span<const float> samples, int factor) {
    if (factor <= 0) {
        std::fprintf(stderr, "magnitudeEnvelope: block length %d is not positive\n", factor);
        std::abort();
    }
    const std::size_t block = static_cast<std::size_t>(factor);
    const std::size_t count = samples.size() / block;
    std::vector<float> envelope(count);
    for (std::size_t i = 0; i < count; ++i) {
        double sum = 0;
        for (float s : samples.subspan(i * block, block))
            sum += static_cast<double>(s) * s;
        envelope[i] = static_cast<float>(std::sqrt(sum / static_cast<double>(block)));
    }
    return envelope;
}

} // namespace CrossCorrelator

} // namespace trelvane
