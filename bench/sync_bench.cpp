// SPDX-License-Identifier: GPL-3.0-or-later
// Figures of one whole synchronisation on a shoot of the size users bring: 5 tracks, 300 clips,
// 8 hours of footage, features only (nothing is decoded inside the timed part).
//
//   trelvane_sync_bench [--runs N] [--no-single] [--no-yardstick] [--rebuild] [--log FILE]
//
//   --runs N        timed runs with the default worker count (default 3); min and median printed
//   --no-single     skip the run with one worker
//   --no-yardstick  skip the oracle searches
//   --rebuild       decode the recordings again even when the cached performance is current
//   --log FILE      write the engine log of the last timed run to FILE
//
// The "performance" every clip is cut from is real sound: the packaged game music and speech
// prompts, decoded by AudioExtractor and turned into band features by SpectralBands, music pieces
// and runs of speech in turn. About 2.5 h of material is stretched to 8 h without repeating a
// passage verbatim (a repeat would be a true ambiguity, not the engine's fault): the material
// forwards, time-reversed, slowed by 1.13 and sped up by 0.89 and reversed. The decoded material's
// feature is cached (under $XDG_CACHE_HOME, else /tmp) so that later runs start at once; the key
// covers the input files and the feature code's output on a probe signal.
//
// The shoot: a recorder "Rec" of four ~2 h files with embedded clocks (the reference), a second
// recorder of 16 takes with file-name clocks a few seconds off, three cameras of 93 or 94 clips of
// 1 to 6 minutes with file-system clocks a few seconds off, some silent and some under 5 s. Each
// device hears the performance through its own noise (0.3 to 0.9 standard deviations per band).
//
// Printed: wall time of SyncEngine::synchronise (min and median of the runs, and with one worker),
// the share of matchable clips (band feature, at least 5 s) placed within 0.04 s of the truth once
// the one constant shift of the timeline is removed, synced/weak/failed counts, whether the result
// depends on the worker count, and a yardstick from the same run: one clock-windowed peak search
// per matchable clip against the reference file holding it, the least an oracle would do with the
// same primitive. Target: under 10 s on 2 cores. Figures, never pass/fail.

#include "TrelvaneEngine/features/SpectralBands.hpp"
#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <time.h>
#include <vector>

using namespace trelvane;
namespace SB = trelvane::SpectralBands;
namespace fs = std::filesystem;

namespace {

const fs::path kMusicDir = "/usr/share/games/wesnoth/1.16/data/core/music";
const fs::path kSpeechDir = "/usr/share/asterisk/sounds/en_US_f_Allison";

constexpr double kFootage = 8 * 3600.0;    // seconds of the shoot
constexpr double kTolerance = 0.04;        // one frame at 25 fps
constexpr double kOracleHalfWidth = 900.0; // the engine's window around an embedded clock
constexpr std::uint32_t kRecipeVersion = 1;
constexpr char kMagic[8] = {'T', 'V', 'S', 'Y', 'N', 'C', 'P', 'F'};

double secondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Processor time of all threads of the process: on a shared machine the wall time says as much
// about the neighbours as about the engine.
double processSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// ---- the decoded material -----------------------------------------------------------------------

struct Material {
    SB::Feature feature; // band-major, frames at 25 fps
    int sections = 0;
};

// Band features of one section appended to `into`; each section is z-scored on its own, as a
// clip's feature is, and the clips re-normalise their cuts anyway.
void append(SB::Feature& into, const SB::Feature& section) {
    if (section.frames < SB::kMinimumFrames) return;
    if (into.bands.empty()) into.bands.resize(SB::kBandCount);
    for (int b = 0; b < SB::kBandCount; ++b)
        into.bands[b].insert(into.bands[b].end(), section.bands[b].begin(), section.bands[b].end());
    into.frames += section.frames;
}

std::vector<fs::path> musicFiles() {
    std::vector<fs::path> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(kMusicDir, ec))
        // The menu's silence track is no music.
        if (e.path().extension() == ".ogg" && e.path().stem() != "silence") out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<fs::path> speechFiles() {
    std::vector<fs::path> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(kSpeechDir, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory() && it->path().filename() == "silence") {
            it.disable_recursion_pending();
            continue;
        }
        if (it->path().extension() == ".wav") out.push_back(it->path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::uint64_t fnv1a(std::uint64_t h, const void* data, std::size_t n) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < n; ++i) {
        h ^= p[i];
        h *= 1099511628211ull;
    }
    return h;
}

// What the cached material depends on: the recipe, every input file's path, size and date, and
// what the feature code makes of a fixed probe signal (so a change of SpectralBands rebuilds it).
std::uint64_t materialKey(const std::vector<fs::path>& music, const std::vector<fs::path>& speech) {
    std::uint64_t h = 14695981039346656037ull;
    h = fnv1a(h, &kRecipeVersion, sizeof kRecipeVersion);
    for (const auto* list : {&music, &speech})
        for (const auto& p : *list) {
            const std::string s = p.string();
            h = fnv1a(h, s.data(), s.size());
            std::error_code ec;
            const auto size = static_cast<std::uint64_t>(fs::file_size(p, ec));
            const auto date =
                static_cast<std::int64_t>(fs::last_write_time(p, ec).time_since_epoch().count());
            h = fnv1a(h, &size, sizeof size);
            h = fnv1a(h, &date, sizeof date);
        }
    std::mt19937 rng(3);
    std::normal_distribution<float> noise(0.0f, 0.1f);
    std::vector<float> probe(16'000);
    for (std::size_t i = 0; i < probe.size(); ++i)
        probe[i] = noise(rng) * static_cast<float>(1 + (i / 640) % 5);
    const auto f = SB::compute(probe);
    for (const auto& band : f.bands)
        h = fnv1a(h, band.data(), band.size() * sizeof(float));
    return h;
}

fs::path cachePath() {
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const fs::path root = xdg != nullptr && *xdg != '\0' ? fs::path(xdg) : fs::path("/tmp");
    return root / "trelvane-bench" / "sync-performance.bin";
}

std::optional<Material> readCache(const fs::path& path, std::uint64_t key) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    char magic[8];
    std::uint32_t version = 0, bands = 0, sections = 0;
    std::uint64_t storedKey = 0, frames = 0;
    in.read(magic, sizeof magic);
    in.read(reinterpret_cast<char*>(&version), sizeof version);
    in.read(reinterpret_cast<char*>(&bands), sizeof bands);
    in.read(reinterpret_cast<char*>(&storedKey), sizeof storedKey);
    in.read(reinterpret_cast<char*>(&frames), sizeof frames);
    in.read(reinterpret_cast<char*>(&sections), sizeof sections);
    if (!in || std::memcmp(magic, kMagic, sizeof magic) != 0 || version != kRecipeVersion ||
        bands != SB::kBandCount || storedKey != key || frames == 0 || frames > 100'000'000)
        return std::nullopt;
    Material m;
    m.sections = static_cast<int>(sections);
    m.feature.frames = static_cast<int>(frames);
    m.feature.bands.assign(SB::kBandCount, std::vector<float>(frames));
    for (auto& band : m.feature.bands)
        in.read(reinterpret_cast<char*>(band.data()), static_cast<std::streamsize>(frames * sizeof(float)));
    if (!in) return std::nullopt;
    return m;
}

void writeCache(const fs::path& path, std::uint64_t key, const Material& m) {
    std::error_code ec;
    fs::create_directories(path.parent_path(), ec);
    const fs::path partial = path.string() + ".partial";
    {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        const std::uint32_t version = kRecipeVersion, bands = SB::kBandCount;
        const auto sections = static_cast<std::uint32_t>(m.sections);
        const auto frames = static_cast<std::uint64_t>(m.feature.frames);
        out.write(kMagic, sizeof kMagic);
        out.write(reinterpret_cast<const char*>(&version), sizeof version);
        out.write(reinterpret_cast<const char*>(&bands), sizeof bands);
        out.write(reinterpret_cast<const char*>(&key), sizeof key);
        out.write(reinterpret_cast<const char*>(&frames), sizeof frames);
        out.write(reinterpret_cast<const char*>(&sections), sizeof sections);
        for (const auto& band : m.feature.bands)
            out.write(reinterpret_cast<const char*>(band.data()),
                      static_cast<std::streamsize>(band.size() * sizeof(float)));
        if (!out) {
            std::fprintf(stderr, "could not write the cache %s\n", partial.c_str());
            fs::remove(partial, ec);
            return;
        }
    }
    fs::rename(partial, path, ec);
}

std::optional<std::vector<float>> decode(const fs::path& file, int& failures) {
    try {
        return AudioExtractor::extract(Url::fromPath(file), 0).samples;
    } catch (const TrelvaneError& e) {
        std::fprintf(stderr, "  skipped %s: %s\n", file.c_str(), e.description().c_str());
        ++failures;
        return std::nullopt;
    }
}

// Music pieces and runs of speech in turn: the speech prompts are shared out over as many runs as
// there are pieces, so that the material changes character every few minutes.
Material decodeMaterial(const std::vector<fs::path>& music, const std::vector<fs::path>& speech) {
    Material m;
    int failures = 0;
    const std::size_t runs = std::max<std::size_t>(music.size(), 1);
    for (std::size_t i = 0; i < runs; ++i) {
        if (i < music.size()) {
            if (auto pcm = decode(music[i], failures)) {
                append(m.feature, SB::compute(*pcm));
                ++m.sections;
            }
        }
        const std::size_t from = speech.size() * i / runs, to = speech.size() * (i + 1) / runs;
        std::vector<float> run;
        for (std::size_t k = from; k < to; ++k)
            if (auto pcm = decode(speech[k], failures)) run.insert(run.end(), pcm->begin(), pcm->end());
        if (!run.empty()) {
            append(m.feature, SB::compute(run));
            ++m.sections;
        }
        std::fprintf(stderr, "\r  decoded %zu/%zu", i + 1, runs);
    }
    std::fprintf(stderr, "\n");
    if (failures > 0) std::fprintf(stderr, "  %d file(s) could not be decoded\n", failures);
    return m;
}

// ---- the 8-hour performance ---------------------------------------------------------------------

SB::Feature reversed(const SB::Feature& f) {
    SB::Feature r = f;
    for (auto& band : r.bands)
        std::reverse(band.begin(), band.end());
    return r;
}

// Played `factor` times as long (factor > 1 is slower), by linear interpolation between frames.
SB::Feature stretched(const SB::Feature& f, double factor) {
    SB::Feature s;
    s.frames = static_cast<int>(std::floor((f.frames - 1) * factor)) + 1;
    s.bands.assign(f.bands.size(), std::vector<float>(static_cast<std::size_t>(s.frames)));
    for (int i = 0; i < s.frames; ++i) {
        const double x = i / factor;
        const int j = std::min(static_cast<int>(x), f.frames - 1);
        const int k = std::min(j + 1, f.frames - 1);
        const auto t = static_cast<float>(x - j);
        for (std::size_t b = 0; b < f.bands.size(); ++b)
            s.bands[b][i] = (1 - t) * f.bands[b][j] + t * f.bands[b][k];
    }
    return s;
}

SB::Feature performanceOf(const SB::Feature& material, double seconds) {
    const int wanted = static_cast<int>(std::ceil(seconds * SB::kFrameRate));
    SB::Feature perf;
    const SB::Feature copies[] = {material, reversed(material), stretched(material, 1.13),
                                  reversed(stretched(material, 0.89))};
    for (const auto& copy : copies) {
        if (perf.frames >= wanted) break;
        append(perf, copy);
    }
    if (perf.frames < wanted) {
        std::fprintf(stderr, "only %.0f s of material: the performance falls short of %.0f s\n",
                     perf.frames / double(SB::kFrameRate), seconds);
        std::exit(1);
    }
    for (auto& band : perf.bands)
        band.resize(static_cast<std::size_t>(wanted));
    perf.frames = wanted;
    return perf;
}

// ---- the shoot ----------------------------------------------------------------------------------

Date dateAt(double secondsAfterStart) {
    // 2025-06-14 19:30:00 UTC: the start of the performance.
    const auto epoch = std::chrono::sys_seconds{std::chrono::seconds{1749929400}};
    return std::chrono::time_point_cast<std::chrono::microseconds>(epoch) +
           std::chrono::microseconds(static_cast<long long>(std::llround(secondsAfterStart * 1e6)));
}

struct Truth {
    std::string track;
    std::string name;
    double start = 0;
    bool matchable = false; // has a band feature and is long enough for an audio search
    bool short_ = false;    // under 5 s, with a feature
};

struct Shoot {
    std::vector<TrackSource> tracks;
    std::map<Uuid, Truth> truth;
};

double frameTime(double seconds) {
    return std::round(seconds * SB::kFrameRate) / SB::kFrameRate;
}

class ShootBuilder {
  public:
    explicit ShootBuilder(const SB::Feature& perf) : perf_(perf) {}

    void track(const std::string& name, SourceType type, float roughness, unsigned seed) {
        TrackSource t;
        t.name = name;
        t.type = type;
        t.session = "/shoot";
        shoot_.tracks.push_back(std::move(t));
        roughness_ = roughness;
        seed_ = seed * 100'003u;
    }

    // A clip of the last track: the cut [start, start + duration) of the performance (frame-exact)
    // under the track's noise, or no feature at all when `silent`.
    void clip(const std::string& name, double start, double duration, std::optional<double> clock,
              ClockQuality quality, bool silent = false) {
        TrackSource& t = shoot_.tracks.back();
        start = frameTime(start);
        duration = frameTime(duration);
        ClipItem c;
        c.url =
            Url::fromPath("/shoot/" + t.name + "/" + name + (t.type == SourceType::audio ? ".wav" : ".mov"));
        c.duration = duration;
        if (clock) c.recordingDate = dateAt(*clock);
        c.clockQuality = quality;
        Truth truth{t.name, name, start, false, false};
        if (silent) {
            c.audioUsability = AudioUsability::silent;
        } else if (auto f = SB::slice(perf_, start, duration)) {
            std::mt19937 rng(seed_++);
            std::normal_distribution<float> noise(0.0f, roughness_);
            for (auto& band : f->bands)
                for (auto& v : band)
                    v += noise(rng);
            c.bandFeature = std::move(*f);
            truth.matchable = duration >= kShortestMatchableClip;
            truth.short_ = !truth.matchable;
        }
        shoot_.truth.emplace(c.id, truth);
        t.clips.push_back(std::move(c));
    }

    Shoot take() { return std::move(shoot_); }

  private:
    const SB::Feature& perf_;
    Shoot shoot_;
    float roughness_ = 0.6f;
    unsigned seed_ = 1;
};

// `count` clip lengths drawn from [lo, hi] and the gaps before each, so that the clips spread over
// [from, to] with room left between them.
struct Scatter {
    std::vector<double> starts, durations;
};

Scatter scatter(int count, double lo, double hi, double from, double to, std::mt19937& rng) {
    std::uniform_real_distribution<double> length(lo, hi);
    std::exponential_distribution<double> weight(1.0);
    Scatter s;
    double total = 0;
    for (int i = 0; i < count; ++i)
        total += s.durations.emplace_back(length(rng));
    std::vector<double> gaps(static_cast<std::size_t>(count) + 1);
    double weights = 0;
    for (auto& g : gaps)
        weights += g = 0.2 + weight(rng);
    const double room = std::max(to - from - total, 0.0);
    double at = from;
    for (int i = 0; i < count; ++i) {
        at += gaps[static_cast<std::size_t>(i)] / weights * room;
        s.starts.push_back(at);
        at += s.durations[static_cast<std::size_t>(i)];
    }
    return s;
}

Shoot buildShoot(const SB::Feature& perf) {
    ShootBuilder b(perf);
    std::mt19937 rng(2025);
    char name[64];

    // The long recorder, the reference: four files of about two hours with card changes between.
    b.track("Rec", SourceType::audio, 0.3f, 1);
    const double recStarts[] = {20, 7240, 14485, 21685}, recDurations[] = {7150, 7190, 7120, 7080};
    for (int i = 0; i < 4; ++i) {
        std::snprintf(name, sizeof name, "REC_%04d", i + 1);
        b.clip(name, recStarts[i], recDurations[i], recStarts[i], ClockQuality::embedded);
    }

    // A second recorder of takes, its clock 4.6 s behind, written to the file name in whole seconds.
    b.track("Zoom", SourceType::audio, 0.5f, 2);
    const auto takes = scatter(16, 240, 1080, 0, kFootage, rng);
    for (int i = 0; i < 16; ++i) {
        std::snprintf(name, sizeof name, "ZOOM%04d_TAKE", i + 1);
        b.clip(name, takes.starts[i], takes.durations[i], std::floor(takes.starts[i] - 4.6),
               ClockQuality::filename);
    }

    // Three cameras of 1-6 minute clips over the whole day, file dates a few seconds off; two of
    // each are silent (a dead mic) and two are under 5 s (a tap of the record button).
    struct Camera {
        const char* name;
        int clips;
        float roughness;
        double clockError;
    };
    const Camera cameras[] = {{"CamA", 94, 0.7f, 2.4}, {"CamB", 93, 0.8f, -3.1}, {"CamC", 93, 0.9f, 5.7}};
    unsigned seed = 3;
    for (const auto& cam : cameras) {
        b.track(cam.name, SourceType::video, cam.roughness, seed++);
        auto clips = scatter(cam.clips, 60, 360, 0, kFootage, rng);
        std::uniform_real_distribution<double> jitter(-0.5, 0.5), tiny(2.0, 4.8);
        std::uniform_int_distribution<int> pick(0, cam.clips - 1);
        std::vector<char> kind(static_cast<std::size_t>(cam.clips), 'n');
        for (int n = 0; n < 2; ++n) {
            kind[static_cast<std::size_t>(pick(rng))] = 's';
            kind[static_cast<std::size_t>(pick(rng))] = 't';
        }
        for (int i = 0; i < cam.clips; ++i) {
            const char k = kind[static_cast<std::size_t>(i)];
            const double dur = k == 't' ? tiny(rng) : clips.durations[i];
            std::snprintf(name, sizeof name, "%c%03d_C%03d", cam.name[3], 1 + i / 40, i + 1);
            b.clip(name, clips.starts[i], dur, clips.starts[i] + cam.clockError + jitter(rng),
                   ClockQuality::filesystem, k == 's');
        }
    }
    return b.take();
}

// ---- running and judging ------------------------------------------------------------------------

struct LogLines {
    std::mutex mutex;
    std::vector<std::string> lines;
};

LogLines& engineLog() {
    static LogLines log;
    return log;
}

struct Timed {
    std::vector<TrackSource> result;
    double seconds = 0;
    double cpu = 0;
};

Timed runOnce(const std::vector<TrackSource>& sources, int workers) {
    {
        std::lock_guard lock(engineLog().mutex);
        engineLog().lines.clear();
    }
    auto input = sources; // the copy is the caller's, as the controller's is; not timed
    const double cpu = processSeconds();
    const auto begin = std::chrono::steady_clock::now();
    auto result = SyncEngine::synchronise(std::move(input), nullptr, nullptr, {}, workers);
    const double seconds = secondsSince(begin);
    return {std::move(result), seconds, processSeconds() - cpu};
}

struct Judgement {
    int matchable = 0, within = 0, shortClips = 0, shortWithin = 0;
    double shift = 0;
    std::map<SyncStatus, int> statuses;
    std::map<std::string, std::pair<int, int>> perTrack; // within, matchable
    struct Miss {
        double error;
        const ClipItem* clip;
        const Truth* truth;
    };
    std::vector<Miss> misses;
};

Judgement judge(const std::vector<TrackSource>& tracks, const std::map<Uuid, Truth>& truth) {
    Judgement j;
    std::vector<double> deltas;
    for (const auto& t : tracks)
        for (const auto& c : t.clips) {
            ++j.statuses[c.syncStatus];
            const auto it = truth.find(c.id);
            if (it != truth.end() && it->second.matchable) deltas.push_back(c.startOffset - it->second.start);
        }
    if (deltas.empty()) return j;
    std::nth_element(deltas.begin(), deltas.begin() + static_cast<long>(deltas.size() / 2), deltas.end());
    j.shift = deltas[deltas.size() / 2];
    for (const auto& t : tracks)
        for (const auto& c : t.clips) {
            const auto it = truth.find(c.id);
            if (it == truth.end()) continue;
            const double error = c.startOffset - j.shift - it->second.start;
            const bool ok = std::abs(error) <= kTolerance + 1e-6;
            if (it->second.matchable) {
                ++j.matchable;
                ++j.perTrack[t.name].second;
                if (ok) {
                    ++j.within;
                    ++j.perTrack[t.name].first;
                } else {
                    j.misses.push_back({error, &c, &it->second});
                }
            } else if (it->second.short_) {
                ++j.shortClips;
                if (ok) ++j.shortWithin;
            }
        }
    std::sort(j.misses.begin(), j.misses.end(),
              [](const auto& a, const auto& b) { return std::abs(a.error) > std::abs(b.error); });
    return j;
}

// The names of the clips whose place, status, score or pass differ between two results.
std::vector<std::string> differences(const std::vector<TrackSource>& a, const std::vector<TrackSource>& b) {
    std::vector<std::string> names;
    for (std::size_t t = 0; t < a.size() && t < b.size(); ++t)
        for (std::size_t c = 0; c < a[t].clips.size() && c < b[t].clips.size(); ++c) {
            const auto &x = a[t].clips[c], &y = b[t].clips[c];
            if (x.startOffset != y.startOffset || x.syncStatus != y.syncStatus ||
                x.matchScore != y.matchScore || x.placementPass != y.placementPass)
                names.push_back(x.url.baseName());
        }
    return names;
}

// One clock-windowed peak search per matchable clip against the reference file holding its
// truth: the least an oracle that knew which file to search would spend, with one thread.
void yardstick(const Shoot& shoot) {
    const TrackSource& rec = shoot.tracks.front();
    std::vector<double> recStart;
    for (const auto& c : rec.clips)
        recStart.push_back(shoot.truth.at(c.id).start);
    int searches = 0, found = 0;
    const double cpu = processSeconds();
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t t = 1; t < shoot.tracks.size(); ++t)
        for (const auto& c : shoot.tracks[t].clips) {
            const Truth& truth = shoot.truth.at(c.id);
            if (!truth.matchable) continue;
            std::size_t r = 0;
            while (r + 1 < recStart.size() && recStart[r + 1] <= truth.start)
                ++r;
            const auto& ref = *rec.clips[r].bandFeature;
            if (c.bandFeature->frames >= ref.frames) continue;
            const double at = truth.start - recStart[r];
            const auto peaks = SB::peaks(*c.bandFeature, ref, at - kOracleHalfWidth, at + kOracleHalfWidth,
                                         SyncEngine::kMinOverlap, 1, SyncEngine::kPeakSeparation);
            ++searches;
            if (!peaks.empty() && std::abs(peaks.front().offsetSeconds - at) <= kTolerance + 1e-6 &&
                peaks.front().score >= SyncEngine::kStrongScore)
                ++found;
        }
    std::printf(
        "yardstick: %d windowed searches (+-%.0f s) of whole clips in the reference file holding them, "
        "1 thread: %.2f s wall, %.2f s processor; %d of them strong and within %.2f s\n",
        searches, kOracleHalfWidth, secondsSince(begin), processSeconds() - cpu, found, kTolerance);
}

// The machine's 1-minute load average, to read the wall times by.
std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string first;
    in >> first;
    return first.empty() ? "unknown" : first;
}

struct Options {
    int runs = 3;
    bool single = true;
    bool oracle = true;
    bool rebuild = false;
    std::string logFile;
};

[[noreturn]] void usage(const char* argv0) {
    std::fprintf(stderr, "usage: %s [--runs N] [--no-single] [--no-yardstick] [--rebuild] [--log FILE]\n",
                 argv0);
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--runs" && i + 1 < argc) {
            o.runs = std::atoi(argv[++i]);
            if (o.runs < 1) usage(argv[0]);
        } else if (a == "--no-single") {
            o.single = false;
        } else if (a == "--no-yardstick") {
            o.oracle = false;
        } else if (a == "--rebuild") {
            o.rebuild = true;
        } else if (a == "--log" && i + 1 < argc) {
            o.logFile = argv[++i];
        } else {
            usage(argv[0]);
        }
    }
    return o;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    EngineLog::setSink([](const std::string& line) {
        std::lock_guard lock(engineLog().mutex);
        engineLog().lines.push_back(line);
    });

    // The material, from the cache or decoded now (not timed).
    const auto music = musicFiles();
    const auto speech = speechFiles();
    if (music.empty() && speech.empty()) {
        std::fprintf(
            stderr, "no recordings under %s or %s (install wesnoth-1.16-music and asterisk-core-sounds-en)\n",
            kMusicDir.c_str(), kSpeechDir.c_str());
        return 2;
    }
    const auto key = materialKey(music, speech);
    const fs::path cache = cachePath();
    std::optional<Material> material = options.rebuild ? std::nullopt : readCache(cache, key);
    if (material) {
        std::printf("material: %.0f s in %d sections, from the cache %s\n", material->feature.frames / 25.0,
                    material->sections, cache.c_str());
    } else {
        std::fprintf(stderr, "decoding %zu music pieces and %zu speech prompts (once; cached afterwards)\n",
                     music.size(), speech.size());
        const auto begin = std::chrono::steady_clock::now();
        material = decodeMaterial(music, speech);
        std::printf("material: %.0f s in %d sections, decoded in %.1f s, cached in %s\n",
                    material->feature.frames / 25.0, material->sections, secondsSince(begin), cache.c_str());
        writeCache(cache, key, *material);
    }

    auto shoot = [&] {
        const SB::Feature perf = performanceOf(material->feature, kFootage + 120.0);
        material.reset();
        return buildShoot(perf);
    }();
    int clips = 0, silent = 0, shortClips = 0, matchable = 0;
    double footage = 0;
    for (const auto& t : shoot.tracks)
        for (const auto& c : t.clips) {
            ++clips;
            footage += c.duration;
            const Truth& truth = shoot.truth.at(c.id);
            silent += c.audioUsability == AudioUsability::silent;
            shortClips += truth.short_;
            matchable += truth.matchable;
        }
    std::printf(
        "shoot: %zu tracks, %d clips (%d matchable, %d silent, %d under 5 s), %.1f h of clips over %.0f h\n",
        shoot.tracks.size(), clips, matchable, silent, shortClips, footage / 3600, kFootage / 3600);

    const int defaultWorkers = std::max(WorkerWindow::processorCount(), 2);
    std::vector<double> times, cpus;
    Timed last;
    for (int r = 0; r < options.runs; ++r) {
        last = runOnce(shoot.tracks, 0);
        times.push_back(last.seconds);
        cpus.push_back(last.cpu);
        std::printf("  run %d (%d workers): %.2f s wall, %.2f s processor\n", r + 1, defaultWorkers,
                    last.seconds, last.cpu);
        std::fflush(stdout);
    }
    std::vector<std::string> lines;
    {
        std::lock_guard lock(engineLog().mutex);
        lines = engineLog().lines;
    }
    std::sort(times.begin(), times.end());
    std::sort(cpus.begin(), cpus.end());
    std::printf(
        "synchronise, %d workers on %d processor(s): wall min %.2f s, median %.2f s over %d run(s) "
        "(target: under 10 s on 2 cores); processor time min %.2f s, median %.2f s; load average %s\n",
        defaultWorkers, WorkerWindow::processorCount(), times.front(), times[times.size() / 2], options.runs,
        cpus.front(), cpus[cpus.size() / 2], loadAverage().c_str());

    if (options.single) {
        const Timed one = runOnce(shoot.tracks, 1);
        const auto differing = differences(one.result, last.result);
        std::string which;
        for (std::size_t i = 0; i < differing.size() && i < 8; ++i)
            which += (i ? ", " : " (") + differing[i];
        if (!differing.empty()) which += differing.size() > 8 ? ", ...)" : ")";
        std::printf("synchronise, 1 worker: %.2f s wall (%.2fx the median), %.2f s processor; result %s%s\n",
                    one.seconds, one.seconds / times[times.size() / 2], one.cpu,
                    differing.empty() ? "identical"
                                      : (std::to_string(differing.size()) + " clip(s) differ").c_str(),
                    which.c_str());
    }

    const Judgement j = judge(last.result, shoot.truth);
    std::printf(
        "accuracy: %d of %d matchable clips (%.1f%%) within %.2f s of the truth after a shift of %.3f s\n",
        j.within, j.matchable, j.matchable ? 100.0 * j.within / j.matchable : 0.0, kTolerance, j.shift);
    for (const auto& [track, counts] : j.perTrack)
        std::printf("  %-5s %3d / %3d\n", track.c_str(), counts.first, counts.second);
    std::printf("  clips under 5 s (placed by clock, no search): %d of %d within %.2f s\n", j.shortWithin,
                j.shortClips, kTolerance);
    auto count = [&](SyncStatus s) {
        const auto it = j.statuses.find(s);
        return it == j.statuses.end() ? 0 : it->second;
    };
    std::printf("status: synced %d, weak %d, failed %d, pending %d\n", count(SyncStatus::synced),
                count(SyncStatus::weak), count(SyncStatus::failed), count(SyncStatus::pending));
    for (const auto& line : lines)
        if (line.find("] DONE:") != std::string::npos) std::printf("engine: %s\n", line.c_str());
    if (!j.misses.empty()) {
        std::printf("largest misses (error after the shift):\n");
        for (std::size_t i = 0; i < j.misses.size() && i < 12; ++i) {
            const auto& m = j.misses[i];
            std::printf("  %-5s %-14s truth %8.2f  error %+10.2f  %-6s %-14s score %s\n",
                        m.truth->track.c_str(), m.truth->name.c_str(), m.truth->start, m.error,
                        std::string(rawValue(m.clip->syncStatus)).c_str(),
                        (m.clip->placementPass ? std::string(rawValue(*m.clip->placementPass)) : "-").c_str(),
                        m.clip->matchScore ? std::to_string(*m.clip->matchScore).substr(0, 5).c_str() : "-");
        }
    }
    if (!options.logFile.empty()) {
        std::ofstream out(options.logFile);
        for (const auto& line : lines)
            out << line << '\n';
        std::printf("engine log of the last timed run: %s (%zu lines)\n", options.logFile.c_str(),
                    lines.size());
    }
    if (options.oracle) yardstick(shoot);
    EngineLog::resetSink();
    return 0;
}
