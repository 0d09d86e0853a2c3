// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The lowest primitives of matching: the process-wide cache of FFT plans, one FFT
// cross-correlation of two float sequences, and the block-RMS loudness envelope.
//
// Transforms follow one packing and scale throughout the engine, so that every caller can reason
// about magnitudes the same way: a forward real transform of P points gives P/2 packed complex
// values, DC in real[0], Nyquist in imag[0], bins 1 to P/2 - 1 after, each twice the plain DFT; the
// inverse of such a packed spectrum gives P times the plain inverse DFT, so a round trip scales by
// 2P. The band feature's logarithm sees that factor, so it is part of the behaviour.
//
// Threads: `sharedFFTSetup` may be called from any thread; plans are built under one lock and never
// change afterwards, so any number of transforms (each with its own workspace) run in parallel.

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <vector>

struct fftwf_plan_s; // the FFT library's opaque plan, kept out of this header

namespace trelvane {

namespace SyncCorrelator {

// Largest transform a plan is made for: 2^24 points, so 64 MB per buffer. Band features of two
// 90-hour files still fit; anything longer is refused rather than allocated.
inline constexpr unsigned kMaxLog2n = 24;

class FFTSetup;

// Scratch memory for transforms of one length, aligned as the plans need it. Not shared between
// threads; reuse one for many transforms of the same length to avoid reallocating.
class FFTWorkspace {
  public:
    // Time-domain samples, P floats: the input of `forward`, the output of `inverse`.
    std::span<float> signal() { return {signal_.get(), length_}; }
    // The packed spectrum, P/2 floats each: the output of `forward`, the input of `inverse`.
    std::span<float> real() { return {real_.get(), length_ / 2}; }
    std::span<float> imag() { return {imag_.get(), length_ / 2}; }
    std::size_t length() const { return length_; }

  private:
    friend class FFTSetup;
    struct Free {
        void operator()(void* p) const noexcept;
    };
    explicit FFTWorkspace(std::size_t length);

    std::size_t length_ = 0;
    std::unique_ptr<float[], Free> signal_;
    std::unique_ptr<float[], Free> real_;
    std::unique_ptr<float[], Free> imag_;
    std::unique_ptr<float[], Free> complex_; // the library's own interleaved layout, P/2 + 1 pairs
};

// A real FFT plan of 2^log2n points, forward and inverse. Made only by `sharedFFTSetup`; lives
// until the process ends. Read-only once made.
class FFTSetup {
    struct Key {
        explicit Key() = default;
    };

  public:
    // Only `sharedFFTSetup` holds a Key, so plans are never made outside its lock.
    FFTSetup(Key, unsigned log2n, fftwf_plan_s* forwardPlan, fftwf_plan_s* inversePlan);
    ~FFTSetup();
    FFTSetup(const FFTSetup&) = delete;
    FFTSetup& operator=(const FFTSetup&) = delete;

    unsigned log2n() const { return log2n_; }
    std::size_t length() const { return length_; } // P = 2^log2n

    // Fresh, zeroed scratch memory for this length.
    FFTWorkspace makeWorkspace() const;
    // `ws.signal()` (P samples, left unchanged) to the packed spectrum in `ws.real()`/`ws.imag()`,
    // twice the plain DFT. `ws` must come from a setup of the same length.
    void forward(FFTWorkspace& ws) const;
    // The packed spectrum in `ws.real()`/`ws.imag()` to `ws.signal()`, P times the plain inverse
    // DFT. The spectrum is left unchanged. `ws` must come from a setup of the same length.
    void inverse(FFTWorkspace& ws) const;

  private:
    struct PlanDestroy {
        void operator()(fftwf_plan_s* p) const noexcept;
    };
    friend const FFTSetup* sharedFFTSetup(unsigned log2n);

    unsigned log2n_ = 0;
    std::size_t length_ = 0;
    std::unique_ptr<fftwf_plan_s, PlanDestroy> forward_;
    std::unique_ptr<fftwf_plan_s, PlanDestroy> inverse_;
};

// The plan for 2^log2n points from the process-wide cache, made on first request under the one
// lock (`fftSetupLock`) that guards all FFT planning in the process; the same log2n always gives
// the same plan. Nothing (nullptr) when log2n is 0 or above kMaxLog2n, or the plan can't be made;
// a failure is not remembered.
const FFTSetup* sharedFFTSetup(unsigned log2n);

struct Correlation {
    std::vector<float> values; // `length` values
    int length = 0;            // P, a power of two
};

// Circular cross-correlation over P points, P the smallest power of two (at least 2) not below
// a.size() + b.size() - 1, so that positive and negative lags never wrap onto each other.
// values[k] is twice the sum over m of a[(m + k) mod P] * b[m]: for k from 0 to a.size() - 1 it
// says how well `b` fits starting k positions after the start of `a`; a negative lag -k (b starting
// before a) lies at index P - k. Units are whatever the inputs' are (band frames at 25 fps here).
// Nothing when either input is empty, the combined length is under 6 (P below 8), or there is no
// plan for P.
std::optional<Correlation> fftCrossCorrelate(std::span<const float> a, std::span<const float> b);

} // namespace SyncCorrelator

namespace CrossCorrelator {

// The RMS of each whole block of `factor` samples, in order; the trailing samples.size() % factor
// samples are dropped, and fewer samples than one block give an empty result. With analysis audio
// (16 kHz) and the extraction's factor of 160 that is 100 values per second.
// `factor` must be positive: anything else is a programming error and aborts the program.
std::vector<float> magnitudeEnvelope(std::span<const float> samples, int factor);

} // namespace CrossCorrelator

} // namespace trelvane
