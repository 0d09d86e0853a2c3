// SPDX-License-Identifier: GPL-3.0-or-later
// Figures of the stack builder on a music-video shoot: 60 takes of 2 to 4 minutes over one song,
// each starting and stopping elsewhere, each through its own colouring and room noise. `build`
// with the default workers, beside the yardstick of the same build on one worker (the plain
// sequential computation). Counters: comparisons, matches, stacks, rows, unmatched takes, and
// the processor seconds of one build over all threads.
//
// The song is decoded once with the real extraction; the takes' band features are kept under
// /tmp/trelvane-stacks-bench so that later runs start at once. Target: under 5 s on 2 cores.
//
//   trelvane_stacks_bench [--benchmark_...]   (TRELVANE_BENCH_SONG may name another .ogg/.wav)

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TrelvaneEngine/stacks/StackBuilder.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

using namespace trelvane;
namespace SB = trelvane::SpectralBands;

namespace {

constexpr int kTakes = 60;
constexpr unsigned kSeed = 20240602;
const char* const kDefaultSong = "/usr/share/games/wesnoth/1.16/data/core/music/journeys_end.ogg";
const std::filesystem::path kCacheDir = "/tmp/trelvane-stacks-bench";

struct Take {
    double duration = 0;
    SB::Feature feature;
};

// A one-pole low-pass at a take's own corner, plus a little high-pass of the rest: a microphone
// and a room of its own.
std::vector<float> coloured(const std::vector<float>& pcm, std::size_t from, std::size_t count,
                            std::mt19937& rng) {
    std::uniform_real_distribution<float> corner(0.2f, 0.9f), level(0.005f, 0.04f), gain(0.4f, 1.0f);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    const float a = corner(rng), noiseLevel = level(rng), g = gain(rng);
    std::vector<float> out(count);
    float low = 0, prev = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const float x = pcm[from + i];
        low += a * (x - low);
        const float y = 0.7f * low + 0.3f * (x - prev);
        prev = x;
        out[i] = g * y + noiseLevel * noise(rng);
    }
    return out;
}

std::string cachePath(const std::string& song) {
    const auto stem = std::filesystem::path(song).stem().string();
    return (kCacheDir / (stem + "-" + std::to_string(kTakes) + "-" + std::to_string(kSeed) + ".bin"))
        .string();
}

bool load(const std::string& path, std::vector<Take>& takes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    int count = 0;
    in.read(reinterpret_cast<char*>(&count), sizeof count);
    if (count != kTakes) return false;
    takes.resize(static_cast<std::size_t>(count));
    for (auto& t : takes) {
        in.read(reinterpret_cast<char*>(&t.duration), sizeof t.duration);
        in.read(reinterpret_cast<char*>(&t.feature.frames), sizeof t.feature.frames);
        if (!in || t.feature.frames < 0 || t.feature.frames > 1'000'000) return false;
        t.feature.bands.assign(SB::kBandCount,
                               std::vector<float>(static_cast<std::size_t>(t.feature.frames)));
        for (auto& band : t.feature.bands)
            in.read(reinterpret_cast<char*>(band.data()),
                    static_cast<std::streamsize>(band.size() * sizeof(float)));
    }
    return static_cast<bool>(in);
}

void save(const std::string& path, const std::vector<Take>& takes) {
    std::filesystem::create_directories(kCacheDir);
    const std::string partial = path + ".part";
    {
        std::ofstream out(partial, std::ios::binary);
        const int count = static_cast<int>(takes.size());
        out.write(reinterpret_cast<const char*>(&count), sizeof count);
        for (const auto& t : takes) {
            out.write(reinterpret_cast<const char*>(&t.duration), sizeof t.duration);
            out.write(reinterpret_cast<const char*>(&t.feature.frames), sizeof t.feature.frames);
            for (const auto& band : t.feature.bands)
                out.write(reinterpret_cast<const char*>(band.data()),
                          static_cast<std::streamsize>(band.size() * sizeof(float)));
        }
    }
    std::filesystem::rename(partial, path);
}

const std::vector<TrackSource>& shoot() {
    static const std::vector<TrackSource> sources = [] {
        const char* env = std::getenv("TRELVANE_BENCH_SONG");
        const std::string song = env ? env : kDefaultSong;
        std::vector<Take> takes;
        if (!load(cachePath(song), takes)) {
            const auto started = std::chrono::steady_clock::now();
            const auto pcm = AudioExtractor::extract(Url::fromPath(song), 0).samples;
            std::mt19937 rng(kSeed);
            const double songSeconds = static_cast<double>(pcm.size()) / SB::kSampleRate;
            const double longest = std::min(240.0, songSeconds);
            std::uniform_real_distribution<double> length(std::min(120.0, longest), longest);
            takes.clear();
            for (int k = 0; k < kTakes; ++k) {
                const double seconds = length(rng);
                std::uniform_real_distribution<double> start(0.0, songSeconds - seconds);
                const auto from = static_cast<std::size_t>(start(rng) * SB::kSampleRate);
                const auto count = static_cast<std::size_t>(seconds * SB::kSampleRate);
                const auto audio = coloured(pcm, from, count, rng);
                takes.push_back({static_cast<double>(count) / SB::kSampleRate, SB::compute(audio)});
            }
            save(cachePath(song), takes);
            std::fprintf(stderr, "made %d takes of %s in %.1f s (features kept in %s)\n", kTakes,
                         song.c_str(),
                         std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
                         cachePath(song).c_str());
        }
        TrackSource track;
        track.name = "Takes";
        track.type = SourceType::video;
        for (int k = 0; k < kTakes; ++k) {
            ClipItem c;
            c.url = Url::fromPath("/shoot/take" + std::to_string(k + 1) + ".mov");
            c.duration = takes[static_cast<std::size_t>(k)].duration;
            c.bandFeature = std::move(takes[static_cast<std::size_t>(k)].feature);
            track.clips.push_back(std::move(c));
        }
        return std::vector<TrackSource>{std::move(track)};
    }();
    return sources;
}

void BM_Build(benchmark::State& state) {
    const auto& sources = shoot();
    const int workers =
        state.range(0) == 0 ? StackBuilder::defaultWorkers() : static_cast<int>(state.range(0));
    EngineLog::setSink([](const std::string&) {});
    StackBuilder::Result result;
    // Processor time of all threads: on a busy machine wall time says little, and this bounds
    // what an idle one would take (it divided by the workers).
    const std::clock_t cpuStart = std::clock();
    for (auto _ : state) {
        result = StackBuilder::build(sources, {}, {}, workers);
        benchmark::DoNotOptimize(result);
    }
    const double cpuSeconds = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
    EngineLog::resetSink();
    state.counters["workers"] = workers;
    state.counters["cpu_s_per_build"] = cpuSeconds / static_cast<double>(state.iterations());
    state.counters["comparisons"] = result.comparisons;
    state.counters["matches"] = result.matches;
    state.counters["stacks"] = static_cast<double>(result.stacks.size());
    state.counters["rows"] = static_cast<double>(result.tracks.size());
    state.counters["unmatched"] = static_cast<double>(result.unmatched.size());
}

} // namespace

// 0: the default worker count; 1: the sequential yardstick.
BENCHMARK(BM_Build)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

BENCHMARK_MAIN();
