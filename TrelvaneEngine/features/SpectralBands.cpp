// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SpectralBands.hpp"

#include "TrelvaneEngine/features/SyncCorrelator.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>
#include <set>

namespace trelvane::SpectralBands {

namespace {

// Periodic Hann window with the normalising factor sqrt(8/3) (0.8165 on the 1 - cos form), which
// keeps the windowed signal's energy. Its size shifts every log1p input, so it is kept.
const std::array<float, kWindow>& hannWindow() {
    static const std::array<float, kWindow> window = [] {
        std::array<float, kWindow> w{};
        const double norm = std::sqrt(8.0 / 3.0);
        for (int i = 0; i < kWindow; ++i)
            w[static_cast<std::size_t>(i)] =
                static_cast<float>(norm * 0.5 * (1.0 - std::cos(2.0 * std::numbers::pi * i / kWindow)));
        return w;
    }();
    return window;
}

bool isWellFormed(const Feature& f) {
    return std::all_of(f.bands.begin(), f.bands.end(), [&](const std::vector<float>& b) {
        return b.size() == static_cast<std::size_t>(f.frames);
    });
}

// Rounds half away from zero and limits to [lo, hi] before converting, so that no value, however
// large, overflows the conversion. NaN is left to the caller.
int roundedClamped(double x, int lo, int hi) {
    return static_cast<int>(std::clamp(std::round(x), static_cast<double>(lo), static_cast<double>(hi)));
}

} // namespace

std::vector<float> zscore(std::span<const float> values) {
    std::vector<float> out(values.begin(), values.end());
    if (out.empty()) return out;
    // Sums in double: a constant series then centres to exact zeros, which the correlation's
    // 1e-9 test relies on to skip a silent band; float sums would leave noise that normalises
    // to unit variance.
    double sum = 0;
    for (float v : out)
        sum += v;
    const float mean = static_cast<float>(sum / static_cast<double>(out.size()));
    double squares = 0;
    for (float& v : out) {
        v -= mean;
        squares += static_cast<double>(v) * v;
    }
    const float rms = static_cast<float>(std::sqrt(squares / static_cast<double>(out.size())));
    if (rms > 1e-9f) {
        const float inverse = 1.0f / rms;
        for (float& v : out)
            v *= inverse;
    }
    return out;
}

Feature compute(std::span<const float> pcm) {
    const std::size_t n = pcm.size();
    if (n < static_cast<std::size_t>(kWindow)) return {};
    const std::size_t frameCount = (n - kWindow) / kHop + 1;
    if (frameCount < static_cast<std::size_t>(kMinimumFrames) ||
        frameCount > static_cast<std::size_t>(INT_MAX))
        return {};
    const int frames = static_cast<int>(frameCount);

    const auto* setup = SyncCorrelator::sharedFFTSetup(kLog2Window);
    if (setup == nullptr) return {};
    const auto& window = hannWindow();
    auto ws = setup->makeWorkspace();
    auto signal = ws.signal();
    const auto re = ws.real();
    const auto im = ws.imag();

    Feature feature;
    feature.frames = frames;
    feature.bands.assign(kBandCount, std::vector<float>(frameCount));
    for (std::size_t f = 0; f < frameCount; ++f) {
        const auto frame = pcm.subspan(f * kHop, kWindow);
        for (std::size_t i = 0; i < static_cast<std::size_t>(kWindow); ++i)
            signal[i] = frame[i] * window[i];
        setup->forward(ws);
        // Element 0 (DC and Nyquist) lies below the first edge and is never read.
        for (int b = 0; b < kBandCount; ++b) {
            float energy = 0;
            for (int k = kBandEdges[static_cast<std::size_t>(b)];
                 k < kBandEdges[static_cast<std::size_t>(b) + 1]; ++k) {
                const auto ku = static_cast<std::size_t>(k);
                energy += re[ku] * re[ku] + im[ku] * im[ku];
            }
            feature.bands[static_cast<std::size_t>(b)][f] = std::log1pf(energy);
        }
    }
    for (auto& band : feature.bands)
        band = zscore(band);
    return feature;
}

std::optional<Feature> slice(const Feature& feature, double fromSec, double durationSec) {
    if (!std::isfinite(fromSec) || !std::isfinite(durationSec)) return std::nullopt;
    if (feature.bands.size() != static_cast<std::size_t>(kBandCount) || !isWellFormed(feature))
        return std::nullopt;
    // Limited before conversion; anything beyond the feature's frames is refused below anyway.
    const int start = roundedClamped(fromSec * kFrameRate, 0, INT_MAX / 2);
    const int length = roundedClamped(durationSec * kFrameRate, INT_MIN / 2, INT_MAX / 2);
    if (length <= 4 || start + length > feature.frames) return std::nullopt;

    Feature cut;
    cut.frames = length;
    cut.bands.reserve(kBandCount);
    for (const auto& band : feature.bands)
        cut.bands.push_back(zscore(std::span<const float>(band).subspan(static_cast<std::size_t>(start),
                                                                        static_cast<std::size_t>(length))));
    return cut;
}

std::vector<Peak> peaks(const Feature& clip, const Feature& ref, double minOffsetSec, double maxOffsetSec,
                        double minOverlapSec, int topK, double minSeparationSec) {
    if (topK < 1 || clip.frames < kMinimumFrames || ref.frames < kMinimumFrames) return {};
    if (clip.bands.size() != ref.bands.size() || clip.frames >= ref.frames) return {};
    if (!isWellFormed(clip) || !isWellFormed(ref)) return {};

    const std::size_t n = static_cast<std::size_t>(clip.frames) + static_cast<std::size_t>(ref.frames) - 1;
    if (n < 2) return {};
    std::size_t length = 1;
    while (length < n)
        length *= 2;
    // Past the largest plan every band would be refused; don't allocate the sum for nothing.
    if (length > (std::size_t{1} << SyncCorrelator::kMaxLog2n)) return {};

    // Each usable band enters with equal weight: its correlation divided by its own RMS.
    std::vector<float> fused(length, 0.0f);
    int used = 0;
    for (std::size_t b = 0; b < clip.bands.size(); ++b) {
        const auto r = SyncCorrelator::fftCrossCorrelate(ref.bands[b], clip.bands[b]);
        if (!r || r->values.size() != length) continue;
        double squares = 0;
        for (float v : r->values)
            squares += static_cast<double>(v) * v;
        const float rms = static_cast<float>(std::sqrt(squares / static_cast<double>(length)));
        if (!(rms > 1e-9f) || !std::isfinite(rms)) continue;
        const float inverse = 1.0f / rms;
        for (std::size_t i = 0; i < length; ++i)
            fused[i] += r->values[i] * inverse;
        ++used;
    }
    if (used == 0) return {};

    // At least `overlapFrames` of the clip stay on the reference. A negative overlap would reach
    // lags that wrap round the correlation, so it counts as none.
    const double overlapSpan = minOverlapSec * kFrameRate;
    if (std::isnan(overlapSpan)) return {};
    const int overlapFrames =
        static_cast<int>(std::clamp(std::trunc(overlapSpan), 0.0, static_cast<double>(clip.frames)));
    const int lagMin = overlapFrames - clip.frames;
    const int lagMax = ref.frames - overlapFrames;
    if (overlapFrames >= clip.frames || lagMin > lagMax) return {};

    int lo = lagMin, hi = lagMax;
    if (const double x = minOffsetSec * kFrameRate; std::isfinite(x)) lo = roundedClamped(x, lagMin, lagMax);
    if (const double x = maxOffsetSec * kFrameRate; std::isfinite(x)) hi = roundedClamped(x, lagMin, lagMax);
    if (lo > hi) return {};

    const auto value = [&](int lag) {
        return fused[lag < 0 ? static_cast<std::size_t>(lag) + length : static_cast<std::size_t>(lag)];
    };

    double sum = 0, squares = 0;
    for (int lag = lo; lag <= hi; ++lag) {
        const double v = value(lag);
        sum += v;
        squares += v * v;
    }
    const double count = static_cast<double>(hi) - lo + 1;
    const double mean = sum / count;
    const double sd = std::sqrt(std::max(squares / count - mean * mean, 0.0));
    if (sd <= 1e-6) return {};

    struct Candidate {
        int lag;
        float score;
    };
    // Ties keep their neighbours (a flat top gives several candidates) and the ends of the range
    // compete like any other lag.
    constexpr float kFloor = std::numeric_limits<float>::lowest();
    std::vector<Candidate> candidates;
    for (int lag = lo; lag <= hi; ++lag) {
        const float v = value(lag);
        const float left = lag == lo ? kFloor : value(lag - 1);
        const float right = lag == hi ? kFloor : value(lag + 1);
        if (v >= left && v >= right)
            candidates.push_back({lag, static_cast<float>((static_cast<double>(v) - mean) / sd)});
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });

    const double separation = std::round(minSeparationSec * kFrameRate);
    const int sep = std::isnan(separation)
                        ? 1
                        : static_cast<int>(std::clamp(separation, 1.0, static_cast<double>(INT_MAX / 4)));
    std::set<int> kept; // ordered, so the nearest kept lags are found without a scan
    std::vector<Peak> result;
    for (const auto& c : candidates) {
        if (static_cast<int>(result.size()) >= topK) break;
        const auto above = kept.lower_bound(c.lag);
        if (above != kept.end() && static_cast<long long>(*above) - c.lag < sep) continue;
        if (above != kept.begin() && static_cast<long long>(c.lag) - *std::prev(above) < sep) continue;
        kept.insert(c.lag);
        result.push_back({c.lag / static_cast<double>(kFrameRate), c.score});
    }
    return result;
}

} // namespace trelvane::SpectralBands
