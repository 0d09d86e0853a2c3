// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/FineAlign.hpp"

#include "TrelvaneEngine/features/SyncCorrelator.hpp"
#include "TrelvaneEngine/media/AudioStreamReader.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <vector>

namespace trelvane {

namespace FineAlign {

namespace {

constexpr std::size_t kShortest = 64;
// The sidelobe statistics look at least this far either side, so that a narrow search still
// measures the peak against a fair sample of the correlation.
constexpr int kLeastSidelobeSpan = 512;
constexpr int kNewtonSteps = 12;
// Share of the mean cross-spectral magnitude below which a bin is not raised to full weight.
constexpr double kWhiteningFloor = 0.1;

// The whitened cross-spectrum of b against a (bins 1 to P/2 - 1, DC and Nyquist dropped: they
// carry no phase) and its inverse transform, the whitened correlation by lag.
struct Whitened {
    std::vector<double> re, im; // bin k at index k; index 0 unused
    std::vector<float> byLag;   // P values: lag l >= 0 at l, lag -l at P - l
    std::size_t length = 0;
};

// Both sides are tapered by one half-sine, b's moved `shift` samples later: with the taper on the
// same stretch of shared sound on both sides, the window's edges neither blur the peak nor pull it
// towards the lag where the tapers coincide.
//
// Only lags within `reach` either side are read, so the transform need only be long enough that
// no lag within it wraps onto another where the two windows still overlap: the longer window and
// the reach, not both windows end to end, which halves the work.
std::optional<Whitened> whiten(std::span<const float> a, std::span<const float> b, int shift, int reach) {
    const std::size_t total = std::max(a.size(), b.size()) + std::size_t(reach) + 1;
    unsigned log2n = 1;
    while ((std::size_t{1} << log2n) < total) {
        if (++log2n > SyncCorrelator::kMaxLog2n) return std::nullopt;
    }
    const auto* setup = SyncCorrelator::sharedFFTSetup(log2n);
    if (setup == nullptr) return std::nullopt;
    auto wa = setup->makeWorkspace();
    auto wb = setup->makeWorkspace();
    // sin(step * (i + 0.5)) by one rotation per sample: the rounding over a window stays far
    // below a float's resolution, at a fraction of the cost of a sine each.
    const double step = std::numbers::pi / double(a.size());
    std::vector<float> halfSine(a.size());
    {
        const double turnC = std::cos(step), turnS = std::sin(step);
        double c = std::cos(0.5 * step), s = std::sin(0.5 * step);
        for (float& v : halfSine) {
            v = float(s);
            const double nextS = s * turnC + c * turnS;
            c = c * turnC - s * turnS;
            s = nextS;
        }
    }
    const auto taper = [&](std::span<const float> x, std::span<float> out, long from) {
        for (std::size_t i = 0; i < x.size(); ++i) {
            const long at = long(i) - from;
            out[i] = at < 0 || at >= long(a.size()) ? 0.0f : x[i] * halfSine[std::size_t(at)];
        }
    };
    taper(a, wa.signal(), 0);
    taper(b, wb.signal(), shift);
    setup->forward(wa);
    setup->forward(wb);

    const std::size_t half = setup->length() / 2;
    Whitened w;
    w.length = setup->length();
    w.re.assign(half, 0.0);
    w.im.assign(half, 0.0);
    const auto ar = wa.real(), ai = wa.imag(), br = wb.real(), bi = wb.imag();
    double magnitudes = 0;
    for (std::size_t k = 1; k < half; ++k) {
        // B times the conjugate of A: a pure delay of L samples in b leaves the phase -wL, whose
        // inverse transform peaks at +L.
        w.re[k] = double(br[k]) * ar[k] + double(bi[k]) * ai[k];
        w.im[k] = double(bi[k]) * ar[k] - double(br[k]) * ai[k];
        magnitudes += std::sqrt(w.re[k] * w.re[k] + w.im[k] * w.im[k]);
    }
    if (!(magnitudes > 0)) return std::nullopt; // one side silent
    // Every bin to unit magnitude, except those far below the mean: there one side holds next to
    // nothing (a band a device does not record, a telephone recording's empty top), and the other
    // side's noise would weigh as much as the sound. They keep their share of the floor instead.
    const double floor = kWhiteningFloor * magnitudes / double(half - 1);
    auto out = wa.real(), outi = wa.imag();
    out[0] = 0.0f;
    outi[0] = 0.0f;
    for (std::size_t k = 1; k < half; ++k) {
        const double m = std::max(std::sqrt(w.re[k] * w.re[k] + w.im[k] * w.im[k]), floor);
        w.re[k] /= m;
        w.im[k] /= m;
        out[k] = static_cast<float>(w.re[k]);
        outi[k] = static_cast<float>(w.im[k]);
    }
    setup->inverse(wa);
    const auto sig = wa.signal();
    w.byLag.assign(sig.begin(), sig.end());
    return w;
}

float atLag(const Whitened& w, int lag) {
    return w.byLag[lag >= 0 ? std::size_t(lag) : w.length - std::size_t(-lag)];
}

struct Peak {
    int lag = 0;
    double confidence = 0;
};

std::optional<Peak> integerPeak(const Whitened& w, int maxLag) {
    Peak best;
    float height = -INFINITY;
    for (int l = -maxLag; l <= maxLag; ++l)
        if (const float v = atLag(w, l); v > height) {
            height = v;
            best.lag = l;
        }
    const int span = std::min(std::max(maxLag, kLeastSidelobeSpan), int(w.length / 2) - 1);
    double sum = 0, squares = 0;
    int count = 0;
    for (int l = -span; l <= span; ++l) {
        if (std::abs(l - best.lag) <= kPeakGuard) continue;
        const double v = atLag(w, l);
        sum += v;
        squares += v * v;
        ++count;
    }
    if (count < 2) return std::nullopt;
    const double mean = sum / count;
    const double spread = std::sqrt(std::max(0.0, squares / count - mean * mean));
    best.confidence = spread > 0 ? (height - mean) / spread : 0.0;
    return best;
}

// The continuous whitened correlation near `start` (sum over bins of Re(G e^{iwt})): Newton steps
// on its first derivative, kept within a sample of the integer peak.
double bandLimitedPeak(const Whitened& w, int start) {
    const double step = 2.0 * std::numbers::pi / double(w.length);
    double tau = start;
    for (int i = 0; i < kNewtonSteps; ++i) {
        double d1 = 0, d2 = 0;
        // e^{i w_k tau} by one rotation per bin rather than a sine and cosine each: the rounding
        // this accumulates over 2^23 bins stays far below the lag's own uncertainty.
        const double turnC = std::cos(step * tau), turnS = std::sin(step * tau);
        double c = turnC, s = turnS;
        for (std::size_t k = 1; k < w.re.size(); ++k) {
            const double omega = step * double(k);
            const double re = w.re[k] * c - w.im[k] * s;
            d1 -= omega * (w.re[k] * s + w.im[k] * c);
            d2 -= omega * omega * re;
            const double nextC = c * turnC - s * turnS;
            s = s * turnC + c * turnS;
            c = nextC;
        }
        if (!(d2 < 0)) break; // not at a maximum: keep what we have
        const double next = std::clamp(tau - d1 / d2, start - 1.0, start + 1.0);
        const double moved = std::abs(next - tau);
        tau = next;
        if (moved < 1e-7) break;
    }
    return tau;
}

// The whitened correlation with b's taper following the lag found with both tapers in place.
std::optional<std::pair<Whitened, Peak>> alignedPeak(std::span<const float> a, std::span<const float> b,
                                                     int maxLag) {
    if (a.size() < kShortest || b.size() < kShortest || maxLag < 0 ||
        std::size_t(maxLag) >= std::min(a.size(), b.size()))
        return std::nullopt;
    const int reach = std::max(maxLag, kLeastSidelobeSpan);
    const auto first = whiten(a, b, 0, reach);
    if (!first) return std::nullopt;
    const auto rough = integerPeak(*first, maxLag);
    if (!rough) return std::nullopt;
    auto w = whiten(a, b, rough->lag, reach);
    if (!w) return std::nullopt;
    const auto peak = integerPeak(*w, maxLag);
    if (!peak) return std::nullopt;
    return std::pair{std::move(*w), *peak};
}

} // namespace

std::optional<Lag> gccPhat(std::span<const float> a, std::span<const float> b, int maxLag) {
    const auto found = alignedPeak(a, b, maxLag);
    if (!found) return std::nullopt;
    const auto& [w, peak] = *found;
    return Lag{bandLimitedPeak(w, peak.lag), peak.confidence};
}

std::optional<Lag> gccPhatParabolic(std::span<const float> a, std::span<const float> b, int maxLag) {
    const auto found = alignedPeak(a, b, maxLag);
    if (!found) return std::nullopt;
    const auto& [w, peak] = *found;
    const double before = atLag(w, peak.lag - 1), at = atLag(w, peak.lag), after = atLag(w, peak.lag + 1);
    const double curve = before - 2 * at + after;
    const double shift = curve < 0 ? std::clamp(0.5 * (before - after) / curve, -0.5, 0.5) : 0.0;
    return Lag{peak.lag + shift, peak.confidence};
}

namespace {

// `seconds` of a file's sound from file time `from`, mixed to mono at kSampleRate; empty when
// the window starts before the file (the reader would start at 0, out of step) or the file ends
// first. The reader is opened at the first window and moved on for the next.
std::vector<float> monoWindow(std::optional<AudioStreamReader>& reader, const Url& url, double from,
                              double seconds) {
    if (from < -0.5 / kSampleRate) return {};
    from = std::max(from, 0.0);
    const auto frames = static_cast<std::size_t>(std::lround(seconds * kSampleRate));
    if (reader)
        reader->seek(from);
    else
        reader.emplace(url, from, kSampleRate);
    std::vector<float> stereo;
    stereo.reserve(2 * frames);
    while (stereo.size() < 2 * frames)
        if (reader->read(stereo, frames - stereo.size() / 2) == 0) break;
    if (stereo.size() < 2 * frames) return {};
    std::vector<float> mono(frames);
    for (std::size_t i = 0; i < frames; ++i)
        mono[i] = 0.5f * (stereo[2 * i] + stereo[2 * i + 1]);
    return mono;
}

struct Point {
    double time = 0;       // timeline seconds, the window's centre
    double correction = 0; // seconds to add to the other file's offset there
};

struct Line {
    double centre = 0, value = 0, slope = 0, slopeError = 0, rms = 0;
    std::size_t worst = 0;
    double worstDistance = 0;
};

Line fit(const std::vector<Point>& points) {
    Line line;
    const double n = double(points.size());
    for (const auto& p : points) {
        line.centre += p.time / n;
        line.value += p.correction / n;
    }
    double sxx = 0, sxy = 0;
    for (const auto& p : points) {
        sxx += (p.time - line.centre) * (p.time - line.centre);
        sxy += (p.time - line.centre) * (p.correction - line.value);
    }
    line.slope = sxx > 0 ? sxy / sxx : 0.0;
    double squares = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const double r = points[i].correction - line.value - line.slope * (points[i].time - line.centre);
        squares += r * r;
        if (std::abs(r) > line.worstDistance) {
            line.worstDistance = std::abs(r);
            line.worst = i;
        }
    }
    line.rms = std::sqrt(squares / n);
    line.slopeError = points.size() > 2 && sxx > 0 ? std::sqrt(squares / (n - 2) / sxx) : INFINITY;
    return line;
}

} // namespace

std::optional<Refinement> refinePair(const Pair& pair, const Options& options) {
    const double length = options.windowSeconds;
    const double overlap = pair.overlapEnd - pair.overlapStart;
    if (!(length > 0) || options.windows < 1 || !(overlap >= length)) return std::nullopt;
    // Window centres from the first to the last that fits, overlapping by half a window at most.
    const double span = overlap - length;
    const int count = std::min(options.windows, 1 + int(std::floor(span / (0.5 * length))));
    const double middle = 0.5 * (pair.overlapStart + pair.overlapEnd);

    Refinement result;
    std::vector<Point> points;
    std::optional<AudioStreamReader> referenceReader, otherReader;
    for (int i = 0; i < count; ++i) {
        const double centre =
            pair.overlapStart + 0.5 * length + (count > 1 ? span * i / (count - 1) : 0.5 * span);
        const double search = options.searchSeconds + options.mostDriftPPM * 1e-6 * std::abs(centre - middle);
        const int maxLag = std::min(int(std::ceil(search * kSampleRate)), int(length * kSampleRate) / 2);
        ++result.windowsTried;
        std::vector<float> a, b;
        try {
            a = monoWindow(referenceReader, pair.reference, centre - 0.5 * length - pair.referenceOffset,
                           length);
            b = monoWindow(otherReader, pair.other, centre - 0.5 * length - pair.otherOffset, length);
        } catch (const TrelvaneError&) {
            return std::nullopt;
        }
        const auto lag = gccPhat(a, b, maxLag);
        if (!lag || lag->confidence < options.minConfidence) {
            // Once too few windows are left to agree, the pair is refused whatever they say: a
            // pair placed seconds out costs two windows, not all of them.
            if (result.windowsTried - int(points.size()) > count - options.minAgreeing) return std::nullopt;
            continue;
        }
        // A sound that comes late in the other file's window means that file starts earlier
        // than it is placed.
        points.push_back({centre, -lag->samples / kSampleRate});
    }
    result.windowsUsed = int(points.size());

    while (int(points.size()) >= options.minAgreeing) {
        const Line line = fit(points);
        if (line.worstDistance > options.agreementSeconds) {
            points.erase(points.begin() + std::ptrdiff_t(line.worst));
            continue;
        }
        if (2 * int(points.size()) <= result.windowsUsed) return std::nullopt;
        result.windowsAgreeing = int(points.size());
        result.centre = line.centre;
        result.correction = line.value;
        result.driftPPM = line.slope * 1e6;
        result.driftUncertaintyPPM = line.slopeError * 1e6;
        result.residualSeconds = line.rms;
        if (std::abs(result.driftPPM) > options.mostDriftPPM) return std::nullopt;
        return result;
    }
    return std::nullopt;
}

} // namespace FineAlign

} // namespace trelvane
