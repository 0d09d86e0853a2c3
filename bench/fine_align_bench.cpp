// SPDX-License-Identifier: GPL-3.0-or-later
// Figures of the fine alignment: how far the peak interpolation leans towards whole samples, and
// what refining each synced clip against one neighbour does on generated shoots.
//
//   trelvane_fine_align_bench                            the interpolation bias only
//   trelvane_fine_align_bench SHOOT REPORT [SHOOT REPORT ...]
//
// SHOOT is a folder written by the corpus generator (truth.json with each file's start, acoustic
// delay_ms and clock ppm); REPORT the session report of `trelvane sync SHOOT --report REPORT`.
// Each synced matchable clip is refined against the synced clip that overlaps it longest on the
// report's timeline. Its error is the pair's: where the refinement puts it against where its
// sound truly lines up with the reference's sound (delays and both clocks counted), beside the
// same for the band offset. Printed: clips within 1 ms and 5 ms before and after, refused pairs,
// the drift error, and the wall time per pair (decoding included). Figures, never pass/fail.
//
// Two habits of the generator are allowed for. Its acoustic delay reaches only the first channel
// of the stereo performance, so each file holds the sound twice, undelayed and delay_ms late, at
// like levels: besides the error against the delayed truth, the error against the nearest of the
// four pairings of copies is printed. And its clock error sets a whole-hertz rate, so a file's
// real drift is ppm rounded to a multiple of 1/48000 (20.8 ppm).

#include "TrelvaneEngine/features/FineAlign.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <numbers>
#include <random>
#include <string>
#include <vector>

using namespace trelvane;

namespace {

// A sound of 300 sines up to 7 kHz, at 16 kHz from time `delay` (samples) on: a delay that is
// exact at any fraction, with no interpolator of its own to blame.
std::vector<float> sines(std::size_t n, double delay, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> freq(50, 7000), phase(0, 2 * std::numbers::pi);
    std::vector<double> y(n, 0.0);
    for (int i = 0; i < 300; ++i) {
        const double w = 2 * std::numbers::pi * freq(rng) / FineAlign::kSampleRate, p = phase(rng);
        for (std::size_t k = 0; k < n; ++k)
            y[k] += std::cos(w * (double(k) - delay) + p);
    }
    return {y.begin(), y.end()};
}

void interpolationBias() {
    constexpr std::size_t n = 8192;
    double worstBand = 0, worstParabola = 0;
    const auto a = sines(n, 0, 5);
    for (int tenth = 0; tenth <= 10; ++tenth) {
        const double shift = 3 + tenth / 10.0;
        const auto b = sines(n, shift, 5);
        const auto band = FineAlign::gccPhat(a, b, 64);
        const auto parabola = FineAlign::gccPhatParabolic(a, b, 64);
        if (!band || !parabola) continue;
        worstBand = std::max(worstBand, std::abs(band->samples - shift));
        worstParabola = std::max(worstParabola, std::abs(parabola->samples - shift));
        std::printf("shift %.1f  band-limited %+.4f  parabola %+.4f samples\n", shift, band->samples - shift,
                    parabola->samples - shift);
    }
    std::printf("largest error: band-limited %.4f, parabola %.4f samples\n", worstBand, worstParabola);
}

struct Clip {
    std::string url;
    double band = 0, duration = 0;
    double start = 0, delay = 0, ppm = 0; // from the truth; ppm as rendered
    bool matchable = false;
};

void shoot(const std::string& folder, const std::string& reportPath) {
    std::ifstream truthFile(folder + "/truth.json"), reportFile(reportPath);
    const auto truth = nlohmann::json::parse(truthFile);
    const auto report = nlohmann::json::parse(reportFile);
    std::map<std::string, nlohmann::json> byUrl;
    for (const auto& f : truth["files"])
        byUrl[folder + "/" + f["path"].get<std::string>()] = f;
    std::vector<Clip> clips;
    for (const auto& track : report["tracks"])
        for (const auto& c : track["clips"]) {
            if (c["syncStatus"] != "synced") continue;
            const auto it = byUrl.find(c["url"].get<std::string>());
            if (it == byUrl.end()) continue;
            const auto& t = it->second;
            const double rate = std::round(48000 * (1 + t.value("ppm", 0.0) * 1e-6));
            clips.push_back({c["url"], c["startOffset"], c["duration"], t["start"].get<double>(),
                             t.value("delay_ms", 0.0) / 1000, (rate / 48000 - 1) * 1e6,
                             t.value("matchable", false)});
        }

    double worstBand = 0;
    int total = 0, refused = 0, bandIn1 = 0, bandIn5 = 0, in1 = 0, in5 = 0, copyIn1 = 0, copyIn5 = 0;
    double seconds = 0, worstDrift = 0;
    std::vector<double> errors;
    for (const auto& o : clips) {
        if (!o.matchable) continue;
        const Clip* best = nullptr;
        double longest = 0;
        for (const auto& r : clips) {
            const double overlap =
                std::min(o.band + o.duration, r.band + r.duration) - std::max(o.band, r.band);
            if (&r != &o && overlap > longest) {
                longest = overlap;
                best = &r;
            }
        }
        if (best == nullptr) continue;
        ++total;
        const Clip& r = *best;
        // Where the other's first sample belongs on the report's timeline, the reference held at
        // its band offset: the performance between the two aligned starts, in the reference's time.
        const auto at = [&](double otherDelay, double referenceDelay) {
            return r.band + (o.start - otherDelay - r.start + referenceDelay) / (1 + r.ppm * 1e-6);
        };
        const double expected = at(o.delay, r.delay);
        const double bandError = o.band - expected;
        worstBand = std::max(worstBand, std::abs(bandError));
        bandIn1 += std::abs(bandError) <= 1e-3;
        bandIn5 += std::abs(bandError) <= 5e-3;
        const auto started = std::chrono::steady_clock::now();
        const auto refined = FineAlign::refinePair({Url::fromPath(r.url), r.band, Url::fromPath(o.url),
                                                    o.band, std::max(o.band, r.band),
                                                    std::min(o.band + o.duration, r.band + r.duration)});
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        if (!refined) {
            ++refused;
            std::printf("  refused  %s (band %+.2f ms)\n", o.url.c_str() + folder.size() + 1,
                        bandError * 1e3);
            continue;
        }
        const double error = o.band + refined->correctionAt(o.band) - expected;
        errors.push_back(std::abs(error));
        in1 += std::abs(error) <= 1e-3;
        in5 += std::abs(error) <= 5e-3;
        double nearest = INFINITY;
        for (const double od : {0.0, o.delay})
            for (const double rd : {0.0, r.delay})
                nearest = std::min(nearest, std::abs(o.band + refined->correctionAt(o.band) - at(od, rd)));
        copyIn1 += nearest <= 1e-3;
        copyIn5 += nearest <= 5e-3;
        const double driftError = refined->driftPPM - (o.ppm - r.ppm);
        worstDrift = std::max(worstDrift, std::abs(driftError));
        if (nearest > 1e-3)
            std::printf("  %s against %s: band %+.2f ms, refined %+.3f ms, %d/%d windows, drift %+.1f ppm "
                        "(truth %+.1f)\n",
                        o.url.c_str() + folder.size() + 1, r.url.c_str() + folder.size() + 1, bandError * 1e3,
                        error * 1e3, refined->windowsAgreeing, refined->windowsUsed, refined->driftPPM,
                        o.ppm - r.ppm);
    }
    std::sort(errors.begin(), errors.end());
    const double median = errors.empty() ? 0 : errors[errors.size() / 2];
    const double worst = errors.empty() ? 0 : errors.back();
    std::printf("%s: %d pairs; band offsets %d within 1 ms, %d within 5 ms (worst %.2f ms); refined %d "
                "within 1 ms, %d within "
                "5 ms (median %.3f ms, worst %.3f ms), %d refused; nearest copy: %d within 1 ms, %d within 5 "
                "ms; worst drift error "
                "%.2f ppm; %.3f s per pair\n",
                folder.c_str(), total, bandIn1, bandIn5, worstBand * 1e3, in1, in5, median * 1e3, worst * 1e3,
                refused, copyIn1, copyIn5, worstDrift, total > 0 ? seconds / total : 0.0);
}

} // namespace

int main(int argc, char** argv) {
    interpolationBias();
    for (int i = 1; i + 1 < argc; i += 2)
        shoot(argv[i], argv[i + 1]);
    return 0;
}
