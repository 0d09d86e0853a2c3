// SPDX-License-Identifier: GPL-3.0-or-later
// The timeline under a large session, offscreen: 5,000 clips on 20 tracks over 10 hours, each clip
// with the waveform preview its analysis would give (one bar a second). Prints, in milliseconds,
// the whole rebuild, the frames of the glide after a sync (the clips moved and the view
// repainted) and scroll steps that build the waveforms of clips coming into view, then the
// process's memory. Figures only: nothing here passes or fails.
//
// Usage: trelvane_timeline_bench [--frames N] (QT_QPA_PLATFORM defaults to offscreen)
#include "Trelvane/session/TimelineViewState.hpp"
#include "Trelvane/ui/TimelineView.hpp"

#include <QApplication>
#include <QScrollBar>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sys/resource.h>
#include <unistd.h>

using namespace trelvane;

namespace {

constexpr int kTracks = 20;
constexpr int kClipsPerTrack = 250;
constexpr double kHours = 10;

double ms(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

struct Figures {
    std::vector<double> samples;
    void add(double v) { samples.push_back(v); }
    double percentile(double p) {
        std::sort(samples.begin(), samples.end());
        return samples[static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1))];
    }
};

double residentMB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

double peakMB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// Clips of 2 to 4 minutes with short gaps, filling ten hours per track; the preview has a bar per
// second of varying height, as the analysis of real sound would.
Sources syntheticSession() {
    std::mt19937 random(7);
    std::uniform_real_distribution<double> length(100, 188), gap(0, 3);
    std::uniform_real_distribution<float> level(0.05f, 1.0f);
    Sources sources;
    for (int t = 0; t < kTracks; ++t) {
        TrackSource track;
        track.name = "Device " + std::to_string(t + 1);
        double at = 0;
        for (int k = 0; k < kClipsPerTrack; ++k) {
            ClipItem clip;
            clip.url =
                Url::fromPath("/shoot/Device" + std::to_string(t + 1) + "/C" + std::to_string(k) + ".MOV");
            clip.duration = length(random);
            clip.startOffset = at;
            clip.syncStatus = k % 9 == 0 ? SyncStatus::weak : SyncStatus::synced;
            clip.waveformPreview.resize(static_cast<std::size_t>(clip.duration));
            for (auto& v : clip.waveformPreview)
                v = level(random);
            at += clip.duration + gap(random);
            track.clips.push_back(std::move(clip));
        }
        // Stretch the track to ten hours.
        const double scale = kHours * 3600 / at;
        for (auto& c : track.clips)
            c.startOffset *= scale;
        sources.push_back(std::move(track));
    }
    return sources;
}

void paint(TimelineView& view) {
    view.viewport()->repaint();
}

} // namespace

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    int frames = 90;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--frames") == 0) frames = std::max(5, std::atoi(argv[i + 1]));
    QApplication app(argc, argv);

    Sources sources = syntheticSession();
    const double total = kHours * 3600;
    const double baseMB = residentMB();
    std::map<Uuid, double> displayed;
    std::set<Uuid> selected;
    TimelineView view({});
    view.resize(1600, 900);
    view.show();
    QApplication::processEvents();
    const double width = view.viewport()->width();
    TimelineZoom zoom;
    zoom.availableWidth = width;

    std::printf("timeline: %d clips on %d tracks over %.0f h, view %dx%d\n", kTracks * kClipsPerTrack,
                kTracks, kHours, view.viewport()->width(), view.viewport()->height());

    view.setDocument({&sources, &displayed, &selected, zoom.pxPerSec(total), total, 0});
    auto start = std::chrono::steady_clock::now();
    view.rebuildAll();
    const double rebuild = ms(std::chrono::steady_clock::now() - start);
    start = std::chrono::steady_clock::now();
    paint(view);
    const double firstPaint = ms(std::chrono::steady_clock::now() - start);
    std::printf("rebuildAll             %8.2f ms   first paint %.2f ms\n", rebuild, firstPaint);

    // The glide after a sync: from the opening spread towards the placed offsets, 18 % a frame.
    std::map<Uuid, double> targets;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            targets[c.id] = c.startOffset;
    displayed = TimelineViewState::openingLayout(sources);
    Figures glideMove, glideFrame;
    for (int f = 0; f < frames; ++f) {
        displayed = TimelineViewState::glideStep(displayed, targets);
        // Keep it moving for every measured frame: the last step would land and end the glide.
        for (auto& [id, at] : displayed)
            if (std::abs(at - targets[id]) <= 0.25) at = targets[id] + 5;
        start = std::chrono::steady_clock::now();
        view.repositionClips();
        const auto moved = std::chrono::steady_clock::now();
        paint(view);
        const auto painted = std::chrono::steady_clock::now();
        glideMove.add(ms(moved - start));
        glideFrame.add(ms(painted - start));
    }
    std::printf("glide frame, move      %8.2f ms median  %8.2f ms p95\n", glideMove.percentile(0.5),
                glideMove.percentile(0.95));
    std::printf("glide frame, move+paint%8.2f ms median  %8.2f ms p95\n", glideFrame.percentile(0.5),
                glideFrame.percentile(0.95));

    // Landed, zoomed in 16x: each step scrolls a quarter of the view to the right and builds the
    // waveforms of the clips that came into view.
    displayed.clear();
    zoom.zoomMultiplier = 16;
    view.setDocument({&sources, &displayed, &selected, zoom.pxPerSec(total), total, 0});
    view.repositionClips();
    paint(view);
    Figures scrollBuild, scroll;
    const std::size_t barsBefore = view.waveBarCount();
    QScrollBar* bar = view.horizontalScrollBar();
    for (int f = 0; f < frames && bar->value() < bar->maximum(); ++f) {
        start = std::chrono::steady_clock::now();
        bar->setValue(bar->value() + static_cast<int>(width / 4));
        const auto built = std::chrono::steady_clock::now();
        paint(view);
        scrollBuild.add(ms(built - start));
        scroll.add(ms(std::chrono::steady_clock::now() - start));
    }
    std::printf(
        "scroll step, build     %8.2f ms median  %8.2f ms p95   (16x zoom; %zu bars built over %zu steps)\n",
        scrollBuild.percentile(0.5), scrollBuild.percentile(0.95), view.waveBarCount() - barsBefore,
        scroll.samples.size());
    std::printf("scroll step, build+paint%7.2f ms median  %8.2f ms p95\n", scroll.percentile(0.5),
                scroll.percentile(0.95));
    std::printf("memory: resident %.0f MB (session alone %.0f MB), peak %.0f MB\n", residentMB(), baseMB,
                peakMB());
    return 0;
}
