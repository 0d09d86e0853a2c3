// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Lets the editor hear the synchronised timeline: every track at once, each clip at its place, so a
// clip in the wrong place is heard as an echo. The mixing is the PlaybackMixer's (all tracks start
// on the same sample); this only feeds it to the system's audio output through a QAudioSink and
// moves `currentTime` along while it plays. It reads the tracks it is given and changes nothing.
//
// Only the clips under the playhead when playback starts are heard: a clip that begins later in
// the stretch is not scheduled, and the user presses Space again.
//
// Failure: without an output device (as in CI or on a headless machine) or when the output refuses
// to start, one log line "AudioEngine: <reason>" and playback stays stopped; the application goes
// on without sound. A file that can't be opened leaves its track silent (the mixer logs it).
//
// Lifecycle: GUI thread only; the queue outlives it.

#include "Trelvane/session/MainQueue.hpp"
#include "Trelvane/session/Observers.hpp"
#include "Trelvane/session/SessionStages.hpp"

#include <QAudioDevice>

#include <functional>
#include <memory>
#include <string>

class QAudioSink;

namespace trelvane {

class PlaybackMixer;
class MixerDevice;

class AudioPlayer {
  public:
    enum class Change { isPlaying, currentTime };

    // `output` names the device to play on, asked at each start; by default the system's default
    // output (a null device when there is none).
    using OutputLookup = std::function<QAudioDevice()>;
    explicit AudioPlayer(MainQueue& queue, OutputLookup output = {});
    ~AudioPlayer();
    AudioPlayer(const AudioPlayer&) = delete;
    AudioPlayer& operator=(const AudioPlayer&) = delete;

    // Called on the GUI thread after each change, until the handle is destroyed.
    [[nodiscard]] std::shared_ptr<void> observe(Observers<Change>::Observer observer) {
        return observers_.add(std::move(observer));
    }

    bool isPlaying() const { return isPlaying_; }
    // Timeline seconds: where playback started plus the time it has played.
    double currentTime() const { return currentTime_; }
    // Where the earliest sounding clip starts on the timeline; 0 before a start.
    double clipStartOffset() const { return clipStartOffset_; }

    void togglePlayback(const Sources& sources, double from);
    void startPlayback(const Sources& sources, double from);
    void stop();
    // Playing: starts again from `to`. Stopped: only moves `currentTime`.
    void seek(const Sources& sources, double to);
    // Acts on the next buffer.
    void setMuted(const Uuid& trackID, bool muted);

  private:
    void fail(const std::string& reason);
    void setPlaying(bool playing);
    void setCurrentTime(double seconds);

    MainQueue& queue_;
    const OutputLookup output_;
    Observers<Change> observers_;
    bool isPlaying_ = false;
    double currentTime_ = 0;
    double clipStartOffset_ = 0;
    double startTime_ = 0;
    double startedAt_ = 0;
    std::string lastFailure_;
    std::unique_ptr<PlaybackMixer> mixer_;
    std::unique_ptr<MixerDevice> device_;
    std::unique_ptr<QAudioSink> sink_;
    Timer timer_;
};

} // namespace trelvane
