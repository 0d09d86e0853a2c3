// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The sound of the timeline from one position: every track at once, each clip at its place, mixed
// to interleaved stereo floats. One mixer per start of playback; the output device pulls from it.
//
// Which clips sound: for each track, the one clip under `from` (startOffset <= from <
// startOffset + duration; the first match stands), from `from - startOffset` inside it. A clip
// that starts later is not scheduled: playback checks a sync, the user presses Space again.
//
// Lifecycle and threads: built and destroyed on the main thread. Each sounding track gets a worker
// that opens its file and decodes ahead into a bounded buffer. `render` is called by one thread at
// a time (the audio thread) and never waits for a worker; `setMuted` may be called from the main
// thread meanwhile. The other operations may be called from any thread.

#include "Trelvane/session/SessionStages.hpp"
#include "TrelvaneEngine/support/Uuid.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace trelvane {

class PlaybackMixer {
  public:
    struct Options {
        int sampleRate = 48000;
        double bufferSeconds = 2.0; // decoded ahead per track, at most
        double firstChunkSeconds = 0.1;
    };

    // Starts a worker for each sounding track. A file that can't be opened: one log line
    // "[Playback] '<file name>' can't be played: <reason>" and that track stays silent.
    // `isMuted` of each track is the starting mute state.
    PlaybackMixer(const Sources& sources, double from, Options options);
    ~PlaybackMixer(); // stops and joins the workers
    PlaybackMixer(const PlaybackMixer&) = delete;
    PlaybackMixer& operator=(const PlaybackMixer&) = delete;

    // Mixes the next `frames` frames (interleaved stereo) into `out`, overwriting it; returns
    // `frames`. Summed and clamped to [-1, 1]. A track whose samples are not decoded yet
    // contributes silence for that stretch but keeps its place (those samples are skipped when
    // they arrive), so the tracks never slide against each other.
    std::size_t render(float* out, std::size_t frames);
    // Acts on the next render; an unknown track is ignored.
    void setMuted(const Uuid& trackID, bool muted);
    // Waits until every sounding track has its first chunk decoded (or has failed, or its clip
    // ended before that), at most `timeout`; true when all are ready.
    bool waitUntilReady(std::chrono::milliseconds timeout);
    // The tracks that have a clip under `from`, in track order.
    std::vector<Uuid> soundingTracks() const;
    // Bytes of decoded samples held now, and the most held at once since the start.
    std::size_t bufferedBytes() const;
    std::size_t peakBufferedBytes() const;
    // Timeline seconds rendered so far, from `from`.
    double renderedSeconds() const;

  private:
    struct Track;
    void decode(Track& track, std::stop_token stop);
    void markReady(Track& track);
    void notePeak();

    Options options_;
    std::size_t capacity_ = 0; // frames of each track's ring
    std::vector<std::unique_ptr<Track>> tracks_;
    // Frames rendered so far: written by the audio thread, read by the workers.
    std::atomic<std::uint64_t> played_{0};
    std::atomic<std::size_t> peak_{0};
    // Readiness of the first chunks, for waitUntilReady.
    std::mutex readyMutex_;
    std::condition_variable readyChanged_;
    std::size_t readyCount_ = 0;
};

} // namespace trelvane
