// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/AudioPlayer.hpp"

#include "Trelvane/session/PlaybackMixer.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"

#include <QAudioFormat>
#include <QAudioSink>
#include <QIODevice>
#include <QMediaDevices>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

namespace trelvane {

namespace {

// How long a start waits for every track's first sound, so that all begin audibly together; a
// track later than this joins in its place, never shifted.
constexpr auto kFirstSoundWait = std::chrono::milliseconds(300);

} // namespace

// The output pulls its samples from the mixer: stereo float, or 16-bit where the output wants it.
class MixerDevice : public QIODevice {
  public:
    MixerDevice(PlaybackMixer& mixer, QAudioFormat::SampleFormat format) : mixer_(mixer), format_(format) {}

  protected:
    qint64 readData(char* data, qint64 maxSize) override {
        const std::size_t bytesPerFrame = format_ == QAudioFormat::Float ? 8 : 4;
        const auto frames = static_cast<std::size_t>(std::max<qint64>(0, maxSize)) / bytesPerFrame;
        if (frames == 0) return 0;
        if (format_ == QAudioFormat::Float) {
            mixer_.render(reinterpret_cast<float*>(data), frames);
        } else {
            scratch_.resize(frames * 2);
            mixer_.render(scratch_.data(), frames);
            auto* out = reinterpret_cast<qint16*>(data);
            for (std::size_t i = 0; i < scratch_.size(); ++i)
                out[i] = static_cast<qint16>(std::lround(std::clamp(scratch_[i], -1.0f, 1.0f) * 32767.0f));
        }
        return static_cast<qint64>(frames * bytesPerFrame);
    }
    qint64 writeData(const char*, qint64) override { return -1; }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return 1 << 20; } // an endless stream

  private:
    PlaybackMixer& mixer_;
    const QAudioFormat::SampleFormat format_;
    std::vector<float> scratch_;
};

AudioPlayer::AudioPlayer(MainQueue& queue, OutputLookup output)
    : queue_(queue),
      output_(output ? std::move(output) : OutputLookup([] { return QMediaDevices::defaultAudioOutput(); })) {
}

AudioPlayer::~AudioPlayer() {
    stop();
}

void AudioPlayer::togglePlayback(const Sources& sources, double from) {
    if (isPlaying_)
        stop();
    else
        startPlayback(sources, from);
}

void AudioPlayer::startPlayback(const Sources& sources, double from) {
    stop();
    from = std::max(0.0, from);
    setCurrentTime(from);
    const QAudioDevice output = output_();
    if (output.isNull()) {
        fail("no audio output device");
        return;
    }
    QAudioFormat format = output.preferredFormat();
    format.setChannelCount(2);
    format.setSampleFormat(QAudioFormat::Float);
    if (!output.isFormatSupported(format)) format.setSampleFormat(QAudioFormat::Int16);
    if (format.sampleRate() <= 0) format.setSampleRate(48000);

    PlaybackMixer::Options options;
    options.sampleRate = format.sampleRate();
    mixer_ = std::make_unique<PlaybackMixer>(sources, from, options);
    clipStartOffset_ = from;
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            if (clip.startOffset <= from && from < clip.startOffset + clip.duration) {
                clipStartOffset_ = std::min(clipStartOffset_, clip.startOffset);
                break;
            }
    mixer_->waitUntilReady(kFirstSoundWait);

    device_ = std::make_unique<MixerDevice>(*mixer_, format.sampleFormat());
    device_->open(QIODevice::ReadOnly);
    sink_ = std::make_unique<QAudioSink>(output, format);
    sink_->start(device_.get());
    if (sink_->error() != QAudio::NoError) {
        fail("the output would not start (error " + std::to_string(static_cast<int>(sink_->error())) + ")");
        stop();
        return;
    }
    startTime_ = from;
    startedAt_ = queue_.now();
    setPlaying(true);
    timer_ = queue_.every(0.05, [this] {
        if (isPlaying_) setCurrentTime(startTime_ + (queue_.now() - startedAt_));
    });
}

void AudioPlayer::stop() {
    timer_.reset();
    // The output first: it reads from the device, which reads from the mixer.
    if (sink_) sink_->stop();
    sink_.reset();
    device_.reset();
    mixer_.reset();
    setPlaying(false);
}

void AudioPlayer::seek(const Sources& sources, double to) {
    if (isPlaying_)
        startPlayback(sources, to);
    else
        setCurrentTime(std::max(0.0, to));
}

void AudioPlayer::setMuted(const Uuid& trackID, bool muted) {
    if (mixer_) mixer_->setMuted(trackID, muted);
}

void AudioPlayer::fail(const std::string& reason) {
    // Said once per reason: Space pressed again on a machine without sound adds nothing new.
    if (reason != lastFailure_) EngineLog::log("AudioEngine: " + reason);
    lastFailure_ = reason;
    setPlaying(false);
}

void AudioPlayer::setPlaying(bool playing) {
    if (isPlaying_ == playing) return;
    isPlaying_ = playing;
    observers_.notify(Change::isPlaying);
}

void AudioPlayer::setCurrentTime(double seconds) {
    currentTime_ = seconds;
    observers_.notify(Change::currentTime);
}

} // namespace trelvane
