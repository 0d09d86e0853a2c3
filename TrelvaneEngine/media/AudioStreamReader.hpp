// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A file's sound for listening (not for analysis): streamed from a position, as interleaved
// stereo 32-bit floats at a chosen rate. Every audio stream of the file is mixed down to stereo by
// the resampler (a mono stream goes to both sides at full level) and the streams are summed on the
// file's timeline, as the analysis sums them.
//
// The start is sample-accurate and on the analysis' timeline: 0 s is the clip's first sample as an
// editor plays it (edit lists and priming samples honoured, a stream that starts late preceded by
// silence), and frame 0 of the output is the sound at exactly `fromSeconds` of that timeline.
//
// Lifecycle: one thread at a time; it may be built on one thread and read on another. Media are
// only read.

#include "TrelvaneEngine/support/Url.hpp"

#include <cstddef>
#include <memory>
#include <vector>

namespace trelvane {

class AudioStreamReader {
  public:
    // Opens the file and seeks to `fromSeconds` (0 or less: the start; past the end: nothing is
    // read). Throws TrelvaneError: readerStartFailed when the file can't be opened as media or
    // none of its audio streams has a decoder, noAudioTrack when it has no audio stream,
    // readFailed("resampler") for a `sampleRate` outside 1 to 768,000 Hz.
    AudioStreamReader(const Url& url, double fromSeconds, int sampleRate);
    ~AudioStreamReader();
    AudioStreamReader(const AudioStreamReader&) = delete;
    AudioStreamReader& operator=(const AudioStreamReader&) = delete;

    // Moves the stream to `fromSeconds` as if it had been opened there: what was decoded and not
    // read is dropped. Cheaper than opening the file again, which for a long camera file means
    // reading its whole index.
    void seek(double fromSeconds);

    // Appends up to `frames` frames (2 floats each) to `out`; returns how many; 0 at the end.
    // Fewer than `frames` only at the end. A read that fails half-way (a damaged or cut-off
    // file) ends the stream there; nothing is thrown.
    std::size_t read(std::vector<float>& out, std::size_t frames);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace trelvane
