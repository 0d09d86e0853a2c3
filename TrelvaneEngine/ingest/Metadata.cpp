// SPDX-License-Identifier: GPL-3.0-or-later
// The metadata load: length, rate, device, clock, channels, picture size and timecode of every
// clip that has not been read yet, merged into the track list clip by clip.
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/media/AudioMetadata.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <thread>
#include <utility>

namespace trelvane {

namespace {

// Clips in work at once. Each of them has up to seven reads in flight.
constexpr int kClipsInWork = 4;

// What one clip's reads gave.
struct ClipMeta {
    Uuid id;
    double duration = 0;
    std::optional<float> fps;
    std::optional<std::string> device;
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
    int channels = 1;
    std::vector<int> channelMap;
    std::optional<AudioMetadata::VideoSize> size;
    std::optional<double> timecode;
};

// A reader that fails in an unforeseen way (memory, a thread that can't start) counts as one
// that found nothing: nothing may leave a worker thread.
template <typename Read> auto guarded(Read read) -> decltype(read()) {
    try {
        return read();
    } catch (...) {
        return {};
    }
}

ClipMeta readClip(const Uuid& id, const Url& url) {
    ClipMeta meta;
    meta.id = id;
    std::optional<double> duration;
    std::optional<int> channels;
    AudioMetadata::RecordingClock clock;
    try {
        // The seven reads run side by side; the scope ends when all have.
        std::jthread durationRead(
            [&] { duration = guarded([&] { return AudioMetadata::readDuration(url); }); });
        std::jthread fpsRead([&] { meta.fps = guarded([&] { return AudioMetadata::readFrameRate(url); }); });
        std::jthread deviceRead(
            [&] { meta.device = guarded([&] { return AudioMetadata::readDeviceInfo(url); }); });
        std::jthread channelsRead(
            [&] { channels = guarded([&] { return AudioMetadata::readChannelCount(url); }); });
        std::jthread sizeRead(
            [&] { meta.size = guarded([&] { return AudioMetadata::readVideoSize(url); }); });
        std::jthread timecodeRead(
            [&] { meta.timecode = guarded([&] { return AudioMetadata::readTimecode(url); }); });
        clock = guarded([&] { return AudioMetadata::readRecordingClock(url); });
    } catch (...) {
        // A thread that couldn't be started: the clip stays unread (duration 0) and is taken up
        // again by the next load.
        ClipMeta unread;
        unread.id = id;
        return unread;
    }
    meta.duration = duration.value_or(0);
    clock = AudioMetadata::startOfRecording(clock, duration);
    meta.date = clock.date;
    meta.quality = clock.quality;
    // A file that can't be opened as media keeps the count a new clip starts with.
    meta.channels = channels.value_or(1);
    meta.channelMap = guarded([&] { return AudioMetadata::readAudioChannelIndices(url, meta.channels); });
    return meta;
}

void merge(std::vector<TrackSource>& sources, const ClipMeta& meta) {
    for (auto& track : sources) {
        const auto clip = std::find_if(track.clips.begin(), track.clips.end(),
                                       [&](const ClipItem& c) { return c.id == meta.id; });
        if (clip == track.clips.end()) continue;
        clip->duration = meta.duration;
        clip->frameRate = meta.fps;
        clip->deviceName = meta.device;
        clip->recordingDate = meta.date;
        clip->clockQuality = meta.quality;
        clip->channelCount = meta.channels;
        clip->audioChannelIndices = meta.channelMap;
        clip->startTimecode = meta.timecode;
        // Without a picture size of its own a RED take keeps the one of its header.
        if (meta.size) {
            clip->pixelWidth = meta.size->width;
            clip->pixelHeight = meta.size->height;
        }
        IngestEngine::recomputeOffsets(track);
        return;
    }
}

std::string hourMinute(Date date) {
    const auto t =
        static_cast<std::time_t>(std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count());
    std::tm tm{};
    localtime_r(&t, &tm);
    return fmt::format("{:02}:{:02}", tm.tm_hour, tm.tm_min);
}

void logClockLines(const std::vector<TrackSource>& sources) {
    for (const auto& track : sources) {
        std::optional<Date> earliest, latest;
        ClockQuality best = ClockQuality::none;
        int dated = 0;
        for (const auto& clip : track.clips) {
            if (!clip.recordingDate) continue;
            ++dated;
            best = std::max(best, clip.clockQuality);
            if (!earliest || *clip.recordingDate < *earliest) earliest = clip.recordingDate;
            if (!latest || *clip.recordingDate > *latest) latest = clip.recordingDate;
        }
        if (dated == 0) {
            EngineLog::logf("[Ingest] clock track '%s': no dates", track.name);
            continue;
        }
        EngineLog::logf("[Ingest] clock track '%s': quality=%s %s\u2013%s (%d/%d dated)", track.name,
                        std::string(rawName(best)), hourMinute(*earliest), hourMinute(*latest), dated,
                        static_cast<int>(track.clips.size()));
    }
}

} // namespace

std::vector<TrackSource>
IngestEngine::loadMetadata(std::vector<TrackSource> sources,
                           const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated,
                           std::stop_token stop) {
    // A clip that has a length is never read again, so a second drop reads only the new files.
    std::vector<std::pair<Uuid, Url>> work;
    // Only the tracks that get work change, so only they are kept to give back after a stop.
    std::vector<std::pair<std::size_t, TrackSource>> before;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const std::size_t had = work.size();
        for (const auto& clip : sources[i].clips)
            if (clip.duration == 0.0) work.emplace_back(clip.id, clip.url);
        if (work.size() > had) before.emplace_back(i, sources[i]);
    }

    WorkerWindow::run<ClipMeta>(
        kClipsInWork, work.size(), [&work](std::size_t i) { return readClip(work[i].first, work[i].second); },
        [&](std::size_t, ClipMeta meta) {
            merge(sources, meta);
            if (onClipUpdated) onClipUpdated(sources);
        },
        stop);

    if (stop.stop_requested()) {
        for (auto& [i, track] : before)
            sources[i] = std::move(track);
        return sources;
    }
    logClockLines(sources);
    return sources;
}

} // namespace trelvane
