// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/PlaybackMixer.hpp"

#include "TrelvaneEngine/media/AudioStreamReader.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"

#include <algorithm>
#include <cmath>
#include <exception>
#include <stop_token>
#include <thread>

namespace trelvane {

namespace {

// How long a worker with a full buffer sleeps before it looks again; a stop wakes it at once.
constexpr auto kRefillPoll = std::chrono::milliseconds(10);
// The most a worker decodes in one go after the first chunk.
constexpr double kStepSeconds = 0.25;

} // namespace

// One sounding track: a ring of decoded frames with one writer (its worker) and one reader (the
// audio thread). Frame k of the track (k = 0 at `from`) lives in slot k % capacity; the worker
// writes frame k only once frame k - capacity has been played.
struct PlaybackMixer::Track {
    Uuid id;
    Url url;
    double position = 0; // seconds inside the clip
    std::atomic<bool> muted{false};
    std::vector<float> ring; // interleaved stereo
    // Frames written so far, counted from `from`: written by the worker, read by the audio thread.
    std::atomic<std::uint64_t> written{0};
    // Worker-owned: whether the first chunk (or the failure, or the end) has been announced.
    bool ready = false;
    std::jthread worker;
};

PlaybackMixer::PlaybackMixer(const Sources& sources, double from, Options options) : options_(options) {
    const double rate = std::max(options_.sampleRate, 1);
    capacity_ = static_cast<std::size_t>(std::max(
        {std::ceil(options_.bufferSeconds * rate), std::ceil(options_.firstChunkSeconds * rate), 1024.0}));
    for (const TrackSource& source : sources) {
        const auto clip = std::find_if(source.clips.begin(), source.clips.end(), [from](const ClipItem& c) {
            return c.startOffset <= from && from < c.startOffset + c.duration;
        });
        if (clip == source.clips.end()) continue;
        auto track = std::make_unique<Track>();
        track->id = source.id;
        track->url = clip->url;
        track->position = from - clip->startOffset;
        track->muted.store(source.isMuted, std::memory_order_relaxed);
        track->ring.assign(2 * capacity_, 0.0f);
        tracks_.push_back(std::move(track));
    }
    // Started once every track exists: a worker reads the others' counts for the peak.
    for (auto& track : tracks_) {
        Track* t = track.get();
        t->worker = std::jthread([this, t](std::stop_token stop) { decode(*t, std::move(stop)); });
    }
}

PlaybackMixer::~PlaybackMixer() {
    for (auto& track : tracks_)
        track->worker.request_stop();
    for (auto& track : tracks_)
        if (track->worker.joinable()) track->worker.join();
}

void PlaybackMixer::decode(Track& track, std::stop_token stop) {
    // Nothing may leave a worker: a failure is the log line and a silent track.
    try {
        AudioStreamReader reader(track.url, track.position, options_.sampleRate);
        const auto rate = static_cast<double>(options_.sampleRate);
        const auto first =
            static_cast<std::size_t>(std::max(1.0, std::ceil(options_.firstChunkSeconds * rate)));
        const std::size_t step = std::clamp<std::size_t>(static_cast<std::size_t>(kStepSeconds * rate), first,
                                                         std::max<std::size_t>(first, capacity_ / 2));
        std::vector<float> chunk;
        std::mutex sleepMutex;
        std::condition_variable_any wake;
        while (!stop.stop_requested()) {
            const std::uint64_t written = track.written.load(std::memory_order_relaxed);
            const std::uint64_t played = played_.load(std::memory_order_acquire);
            // Behind the playhead: those frames are decoded and dropped, so the track keeps its place.
            const std::uint64_t behind = played > written ? played - written : 0;
            const std::uint64_t room = played + capacity_ - std::max(written, played);
            const std::size_t want = track.ready ? step : first;
            if (behind == 0 && room < want) {
                std::unique_lock lock(sleepMutex);
                wake.wait_for(lock, stop, kRefillPoll, [] { return false; });
                continue;
            }
            const auto asked =
                static_cast<std::size_t>(std::min<std::uint64_t>(behind + want, behind + room));
            chunk.clear();
            const std::size_t got = reader.read(chunk, asked);
            if (got == 0) break;
            const auto skip = static_cast<std::size_t>(std::min<std::uint64_t>(behind, got));
            std::uint64_t at = written + skip;
            for (std::size_t f = skip; f < got; ++f, ++at) {
                const auto slot = static_cast<std::size_t>(at % capacity_);
                track.ring[2 * slot] = chunk[2 * f];
                track.ring[2 * slot + 1] = chunk[2 * f + 1];
            }
            track.written.store(at, std::memory_order_release);
            notePeak();
            if (!track.ready) markReady(track);
        }
    } catch (const std::exception& e) {
        EngineLog::logf("[Playback] '%s' can't be played: %s", track.url.lastPathComponent(), e.what());
    }
    // A failed track, or a clip that ended before its first chunk, waits for nothing.
    if (!track.ready) markReady(track);
}

void PlaybackMixer::markReady(Track& track) {
    track.ready = true;
    {
        const std::lock_guard lock(readyMutex_);
        ++readyCount_;
    }
    readyChanged_.notify_all();
}

void PlaybackMixer::notePeak() {
    const std::size_t now = bufferedBytes();
    std::size_t peak = peak_.load(std::memory_order_relaxed);
    while (now > peak && !peak_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

std::size_t PlaybackMixer::render(float* out, std::size_t frames) {
    std::fill(out, out + 2 * frames, 0.0f);
    const std::uint64_t played = played_.load(std::memory_order_relaxed);
    for (const auto& track : tracks_) {
        const std::uint64_t written = track->written.load(std::memory_order_acquire);
        if (track->muted.load(std::memory_order_relaxed) || written <= played) continue;
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(frames, written - played));
        const float* ring = track->ring.data();
        for (std::size_t f = 0; f < count; ++f) {
            const auto slot = static_cast<std::size_t>((played + f) % capacity_);
            out[2 * f] += ring[2 * slot];
            out[2 * f + 1] += ring[2 * slot + 1];
        }
    }
    for (std::size_t i = 0; i < 2 * frames; ++i)
        out[i] = std::clamp(out[i], -1.0f, 1.0f);
    played_.store(played + frames, std::memory_order_release);
    return frames;
}

void PlaybackMixer::setMuted(const Uuid& trackID, bool muted) {
    for (auto& track : tracks_)
        if (track->id == trackID) track->muted.store(muted, std::memory_order_relaxed);
}

bool PlaybackMixer::waitUntilReady(std::chrono::milliseconds timeout) {
    std::unique_lock lock(readyMutex_);
    return readyChanged_.wait_for(lock, timeout, [this] { return readyCount_ >= tracks_.size(); });
}

std::vector<Uuid> PlaybackMixer::soundingTracks() const {
    std::vector<Uuid> ids;
    for (const auto& track : tracks_)
        ids.push_back(track->id);
    return ids;
}

std::size_t PlaybackMixer::bufferedBytes() const {
    const std::uint64_t played = played_.load(std::memory_order_acquire);
    std::size_t bytes = 0;
    for (const auto& track : tracks_) {
        const std::uint64_t written = track->written.load(std::memory_order_acquire);
        if (written > played) bytes += static_cast<std::size_t>(written - played) * 2 * sizeof(float);
    }
    return bytes;
}

std::size_t PlaybackMixer::peakBufferedBytes() const {
    return peak_.load(std::memory_order_relaxed);
}

double PlaybackMixer::renderedSeconds() const {
    return static_cast<double>(played_.load(std::memory_order_relaxed)) / std::max(options_.sampleRate, 1);
}

} // namespace trelvane
