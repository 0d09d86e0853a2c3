// SPDX-License-Identifier: GPL-3.0-or-later
// The mixer on the demo shoot, its clips placed where demo/truth.json says they belong: every
// track's sound lines up with the others' to the millisecond, and muted, later and missing clips
// stay silent.
#include "Trelvane/session/PlaybackMixer.hpp"
#include "TestSupport.hpp"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

namespace trelvane::test {
namespace {

constexpr int kRate = 48000;

// The demo shoot as synced tracks: one track per folder, each clip at its true start.
Sources demoSources() {
    const std::string root = TRELVANE_SOURCE_DIR;
    EXPECT_EQ(std::system(("bash " + quoted(root + "/scripts/make-demo.sh") + " >/dev/null").c_str()), 0);
    const auto truth = nlohmann::json::parse(slurp(root + "/demo/truth.json"));
    std::map<std::string, TrackSource> byFolder;
    for (const auto& file : truth["files"]) {
        const std::filesystem::path path = root + "/demo/" + file["path"].get<std::string>();
        TrackSource& track = byFolder[path.parent_path().filename().string()];
        track.name = path.parent_path().filename().string();
        ClipItem clip;
        clip.url = Url::fromPath(path);
        clip.startOffset = file["start"].get<double>();
        clip.duration = file["duration"].get<double>();
        track.clips.push_back(clip);
    }
    Sources sources;
    for (auto& [name, track] : byFolder)
        sources.push_back(std::move(track));
    return sources;
}

const TrackSource& named(const Sources& sources, const std::string& name) {
    return *std::find_if(sources.begin(), sources.end(),
                         [&](const TrackSource& t) { return t.name == name; });
}

// `seconds` of the mix from `from`, rendered in blocks once every working track has decoded that
// much, so that the figures don't depend on how fast the machine decodes.
std::vector<float> render(const Sources& sources, double from, double seconds,
                          const std::function<void(PlaybackMixer&)>& before = {}) {
    PlaybackMixer mixer(sources, from, {.sampleRate = kRate, .bufferSeconds = seconds + 1});
    if (before) before(mixer);
    EXPECT_TRUE(mixer.waitUntilReady(std::chrono::seconds(20)));
    const auto frames = static_cast<std::size_t>(seconds * kRate);
    // Decoding stops short of the wanted length only where a track failed or its clip ends.
    std::size_t last = 0;
    for (int quiet = 0; quiet < 25; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        const std::size_t now = mixer.bufferedBytes();
        quiet = now == last ? quiet + 1 : 0;
        last = now;
    }
    std::vector<float> out(2 * frames);
    for (std::size_t at = 0; at < frames; at += 1024)
        EXPECT_EQ(mixer.render(out.data() + 2 * at, std::min<std::size_t>(1024, frames - at)),
                  std::min<std::size_t>(1024, frames - at));
    EXPECT_NEAR(mixer.renderedSeconds(), seconds, 1.0 / kRate);
    return out;
}

// The mix with only `solo` unmuted.
std::vector<float> contribution(Sources sources, const Uuid& solo, double from, double seconds) {
    for (TrackSource& t : sources)
        t.isMuted = t.id != solo;
    return render(sources, from, seconds);
}

double energy(const std::vector<float>& s) {
    double sum = 0;
    for (const float x : s)
        sum += static_cast<double>(x) * x;
    return sum;
}

// The lag (in samples, within ±maxLag) where the cross-correlation of the two mono sums peaks.
int peakLag(const std::vector<float>& a, const std::vector<float>& b, int maxLag) {
    const std::size_t n = a.size() / 2;
    std::vector<float> x(n), y(n);
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = a[2 * i] + a[2 * i + 1];
        y[i] = b[2 * i] + b[2 * i + 1];
    }
    int best = 0;
    double bestValue = -1e300;
    for (int lag = -maxLag; lag <= maxLag; ++lag) {
        double sum = 0;
        for (std::size_t i = static_cast<std::size_t>(maxLag); i + static_cast<std::size_t>(maxLag) < n; ++i)
            sum += static_cast<double>(x[i]) * y[static_cast<std::size_t>(static_cast<long>(i) + lag)];
        if (sum > bestValue) bestValue = sum, best = lag;
    }
    return best;
}

// At 450 s the first camera, the stereo recorder and both channels of the mono recorder are
// rolling; the second camera's next clip starts at 540 s.
TEST(PlaybackMixer, EveryTrackLinesUpWithTheOthersAndSilentOnesStaySilent) {
    const Sources sources = demoSources();
    ASSERT_FALSE(HasFailure());
    constexpr double kFrom = 450, kSeconds = 2;
    const PlaybackMixer probe(sources, kFrom, {});
    std::vector<std::string> sounding;
    for (const Uuid& id : probe.soundingTracks())
        sounding.push_back(std::find_if(sources.begin(), sources.end(), [&](const TrackSource& t) {
                               return t.id == id;
                           })->name);
    EXPECT_EQ(sounding, (std::vector<std::string>{"CamA_Card2", "Tr1", "Tr2", "Zoom"}));

    std::map<std::string, std::vector<float>> solo;
    for (const std::string& name : sounding)
        solo[name] = contribution(sources, named(sources, name).id, kFrom, kSeconds);
    // A millisecond either way; the search looks ten times as far so that an echo would be seen.
    for (const char* name : {"CamA_Card2", "Tr1", "Tr2"}) {
        SCOPED_TRACE(name);
        EXPECT_GT(energy(solo[name]), 1.0);
        EXPECT_LE(std::abs(peakLag(solo["Zoom"], solo[name], kRate / 100)), kRate / 1000);
    }

    // The full mix with one track muted on the way is the sum of the others.
    const Uuid muted = named(sources, "Tr1").id;
    const auto mix = render(sources, kFrom, kSeconds, [&](PlaybackMixer& m) { m.setMuted(muted, true); });
    double residual = 0;
    for (std::size_t i = 0; i < mix.size(); ++i) {
        const double d =
            mix[i] - std::clamp(solo["CamA_Card2"][i] + solo["Tr2"][i] + solo["Zoom"][i], -1.0f, 1.0f);
        residual = std::max(residual, std::abs(d));
    }
    EXPECT_LT(residual, 1e-5);

    // The second camera's clip at 540 s is never scheduled, and at 333.5 s the stereo recorder's
    // clip starting 1.5 s later isn't either.
    EXPECT_EQ(energy(contribution(sources, named(sources, "CamB").id, kFrom, kSeconds)), 0.0);
    EXPECT_EQ(energy(contribution(sources, named(sources, "Zoom").id, 333.5, 3)), 0.0);
}

TEST(PlaybackMixer, AMissingFileLeavesItsTrackSilentWhileTheOthersPlay) {
    Sources sources = demoSources();
    ASSERT_FALSE(HasFailure());
    TempDir dir;
    TrackSource& gone = const_cast<TrackSource&>(named(sources, "Tr1"));
    for (ClipItem& clip : gone.clips)
        clip.url = Url::fromPath((dir / clip.url.lastPathComponent()).string());
    LogCapture log;
    const auto alone = contribution(sources, gone.id, 450, 1);
    const auto others = render(sources, 450, 1);
    EXPECT_EQ(energy(alone), 0.0);
    EXPECT_GT(energy(others), 1.0);
    EXPECT_EQ(log.countStartingWith("[Playback] 'TASCAM_0002_Tr1.wav' can't be played: Reader failed: "), 2);
    EXPECT_EQ(log.countStartingWith("[Playback] "), 2); // one line per start of playback
}

} // namespace
} // namespace trelvane::test
