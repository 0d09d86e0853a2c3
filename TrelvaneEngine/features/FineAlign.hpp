// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sample-accurate placement of one clip against another, after the band sync has put them within
// a few band frames of each other: a phase-weighted cross-correlation of short stretches of both
// files' sound, its peak interpolated below one sample, and the clock drift between the two files
// from how that lag moves along their overlap.
//
// Why phase weighting: two devices colour the same sound differently (microphone, distance, EQ,
// room) and add their own noise. Whitening the cross-spectrum (every bin to unit magnitude) keeps
// only the phase, which a pure delay alone sets, so the peak is as sharp as the band allows and
// does not lean towards whichever frequencies one device happens to boost. Bins far below the
// mean magnitude (a band one device does not record at all) are not raised to full weight, or the
// other device's noise there would count as much as the shared sound.
//
// Refusal is an empty result, never an exception: too little sound, a peak no better than its
// sidelobes, or windows that do not agree on one line.
//
// Threads: every function may run on any thread; FFT plans come from the shared plan cache.

#include "TrelvaneEngine/support/Url.hpp"

#include <optional>
#include <span>

namespace trelvane {

namespace FineAlign {

struct Lag {
    // Where `b` lies against `a`, in samples (fractional): b[n] ~ a[n - samples]. Positive: the
    // shared sound comes later in `b`.
    double samples = 0;
    // The peak's height over the correlation's spread away from it (peak minus mean, over the
    // standard deviation, of the correlation within the searched lags outside +/-kPeakGuard
    // samples of the peak). Unrelated sound stays near 4 over a few thousand lags; one shared
    // sound gives tens to hundreds.
    double confidence = 0;
};

// Samples on each side of the peak left out of the sidelobe statistics: the main lobe of a
// whitened correlation is a few samples wide, and a microphone's early reflections sit close.
inline constexpr int kPeakGuard = 8;

// The lag of `b` against `a` within +/-maxLag samples (both sequences at one rate, any lengths;
// best when both cover nearly the same stretch of sound). Both are tapered by a half-sine the
// length of `a`, b's taper moved by the whole-sample lag of a first pass so that both tapers lie
// over the same sound; the integer peak of that whitened correlation is then refined by Newton
// steps on its band-limited interpolation (the continuous correlation the discrete one samples),
// which unlike a parabola through three points has no bias towards whole samples: on an exact
// fractional delay it is within 0.001 sample where the parabola is up to 0.09 off. Nothing when
// either input is shorter than 64 samples or silent, maxLag is negative or not below the shorter
// length, or there is no plan for the size.
std::optional<Lag> gccPhat(std::span<const float> a, std::span<const float> b, int maxLag);

// The same with the peak taken as the vertex of a parabola through the best sample and its two
// neighbours: the cheaper classic, kept to measure what the band-limited refinement gains.
std::optional<Lag> gccPhatParabolic(std::span<const float> a, std::span<const float> b, int maxLag);

// Two files and where the current sync places them: a file placed at `offset` has its sample at
// file time f (seconds from its first sample) at timeline time offset + f.
struct Pair {
    Url reference;
    double referenceOffset = 0; // seconds on the timeline
    Url other;
    double otherOffset = 0; // seconds on the timeline
    // The stretch of timeline both files cover, in seconds; windows are taken inside it.
    double overlapStart = 0;
    double overlapEnd = 0;
};

struct Options {
    int windows = 6;              // windows spread evenly over the overlap
    double windowSeconds = 2.0;   // length of each window
    double searchSeconds = 0.050; // +/- lag searched at the overlap's centre
    // Largest clock error looked for: the search widens by this much away from the centre, since
    // a drifting clip fits the band sync best near the middle of its overlap.
    double mostDriftPPM = 300;
    double minConfidence = 8;          // a window's peak below this is not used
    double agreementSeconds = 0.25e-3; // largest distance of an agreeing window from the fitted line
    int minAgreeing = 3;               // fewer agreeing windows refuse the pair
};

// The analysis rate of the refinement. 16 kHz, as the band analysis: voices and music carry most
// of their energy there, a sample is 62.5 us so a twentieth of one is far below what an ear or an
// editor notices, and the transforms are a third of those at 48 kHz.
inline constexpr int kSampleRate = 16000;

struct Refinement {
    // Seconds to add to the other file's offset so that its sound lines up with the reference's at
    // `centre` (a timeline time: the middle of the windows used).
    double correction = 0;
    double centre = 0;
    // The other file's clock against the reference's: its sound at file time f lies at
    // offset + correction + (f - fc) * (1 + driftPPM / 1e6) on the timeline, fc being the file time
    // at `centre`. Positive: the other file holds more of the performance per second of its own
    // time than the reference (its clock runs slow).
    double driftPPM = 0;
    double driftUncertaintyPPM = 0; // one standard error of driftPPM, from the windows' scatter
    int windowsAgreeing = 0;        // windows within agreementSeconds of the fitted line
    int windowsUsed = 0;            // windows decoded whose peak passed minConfidence
    int windowsTried = 0;
    double residualSeconds = 0; // RMS distance of the agreeing windows from the line

    // The correction at timeline time t, drift included.
    double correctionAt(double t) const { return correction + (t - centre) * driftPPM * 1e-6; }
};

// Decodes `windows` stretches of both files (mixed to mono at kSampleRate, each file's window over
// the same span of the timeline as placed) spread over the overlap, finds each window's lag with
// gccPhat, and fits lag against time by least squares, dropping the worst window until all the
// rest lie within agreementSeconds of the line. Windows overlap each other by half a window at
// most, so an overlap shorter than (minAgreeing + 1) / 2 windows (4 s by default) is refused.
// Nothing as well when fewer than minAgreeing windows agree, or no more than half of those that
// passed minConfidence, or the fitted drift exceeds mostDriftPPM; and when a file cannot be opened
// or decoded, since a pair that is not refined keeps the placement the sync gave it.
std::optional<Refinement> refinePair(const Pair& pair, const Options& options = {});

} // namespace FineAlign

} // namespace trelvane
