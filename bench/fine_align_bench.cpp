// SPDX-License-Identifier: GPL-3.0-or-later
// Figures of the fine alignment: how far the peak interpolation leans towards whole samples, and
// what the fine alignment stage costs on generated shoots.
//
//   trelvane_fine_align_bench                            the interpolation bias only
//   trelvane_fine_align_bench SHOOT REPORT [SHOOT REPORT ...]   the stage on shoots
//
// SHOOT is a folder written by the corpus generator (truth.json with each file's clock ppm);
// REPORT the session report of `trelvane sync SHOOT --report REPORT`. The stage is run over the
// report's timeline with an empty cache, then again with the cache it filled: the two times are
// what it adds to a cold and a warm sync (compare the cold one with the whole `trelvane sync`).
// Each recorder's drift is printed beside its truth; the generator sets a whole-hertz rate, so
// that truth is its ppm rounded to a multiple of 1/48000 (20.8 ppm). How close the clips come
// is scored on the report itself: `score.py --aligned --frame 0.001`. Figures, never pass/fail.

#include "TrelvaneEngine/features/FineAlign.hpp"
#include "TrelvaneEngine/sync/FineSync.hpp"

#include <fmt/printf.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
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

// The tracks of a session report, as far as the fine alignment reads them.
std::vector<TrackSource> tracksOf(const nlohmann::json& report) {
    std::vector<TrackSource> tracks;
    for (const auto& t : report["tracks"]) {
        TrackSource track;
        track.name = t["name"];
        track.type = sourceTypeFromRaw(t["type"].get<std::string>()).value_or(SourceType::video);
        track.session = t.value("session", "");
        for (const auto& c : t["clips"]) {
            ClipItem clip;
            clip.url = Url::fromPath(c["url"].get<std::string>());
            clip.startOffset = c["startOffset"];
            clip.duration = c["duration"];
            clip.syncStatus =
                syncStatusFromRaw(c["syncStatus"].get<std::string>()).value_or(SyncStatus::pending);
            clip.audioUsability =
                audioUsabilityFromRaw(c["audioUsability"].get<std::string>()).value_or(AudioUsability::ok);
            if (c["dayRegion"].is_string()) clip.dayRegion = c["dayRegion"].get<std::string>();
            track.clips.push_back(std::move(clip));
        }
        tracks.push_back(std::move(track));
    }
    return tracks;
}

double secondsOf(const std::function<void()>& work) {
    const auto started = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

// The stage over a shoot's report: its time with nothing cached and with everything cached, and
// each recorder's measured drift against the truth (ppm as rendered: whole hertz).
void shoot(const std::string& folder, const std::string& reportPath) {
    std::ifstream truthFile(folder + "/truth.json"), reportFile(reportPath);
    const auto truth = nlohmann::json::parse(truthFile);
    const auto tracks = tracksOf(nlohmann::json::parse(reportFile));
    const auto cache = std::filesystem::temp_directory_path() / "trelvane-fine-align-bench";
    std::filesystem::remove_all(cache);
    FineSync::Options options;
    options.align = FineSync::defaultAlignOptions();
    options.cacheFolder = cache;
    std::vector<TrackSource> refined;
    const double cold = secondsOf([&] { refined = FineSync::refine(tracks, options, {}); });
    const double warm = secondsOf([&] { FineSync::refine(tracks, options, {}); });
    std::filesystem::remove_all(cache);
    std::printf("%s: fine alignment %.2f s cold, %.3f s warm\n", folder.c_str(), cold, warm);
    for (const auto& f : truth["files"]) {
        if (f.value("kind", "") != "recorder") continue;
        const std::string url = folder + "/" + f["path"].get<std::string>();
        const double rate = std::round(48000 * (1 + f.value("ppm", 0.0) * 1e-6));
        for (const auto& track : refined)
            for (const auto& clip : track.clips)
                if (clip.url.path() == url)
                    std::printf("  %s: drift %s ppm, truth %+.1f ppm\n", clip.url.lastPathComponent().c_str(),
                                clip.driftPPM ? fmt::sprintf("%+.2f (±%.2f)", *clip.driftPPM,
                                                             clip.driftUncertaintyPPM.value_or(0))
                                                    .c_str()
                                              : "-",
                                (rate / 48000 - 1) * 1e6);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) interpolationBias();
    for (int i = 1; i + 1 < argc; i += 2)
        shoot(argv[i], argv[i + 1]);
    return 0;
}
