// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The analysis signal of one media file: all of its sound, mixed to one mono stream of 32-bit
// floats at exactly 16,000 samples per second, with the level of the recording evened out
// (peak 0.5). Everything the matching engine hears comes from here.
//
// `AudioExtractor` keeps no state: every function may run for any number of files at once, on
// any thread. Media are only read. The metadata and clock readers of the same namespace live in
// AudioMetadata.hpp.

#include "TrelvaneEngine/media/BRAWAudio.hpp"
#include "TrelvaneEngine/support/Progress.hpp"
#include "TrelvaneEngine/support/Url.hpp"

#include <functional>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

namespace trelvane::AudioExtractor {

// Samples per second of every analysis stream.
inline constexpr double kAnalysisRate = 16000.0;

// The longest analysis stream that is built (12 hours, 691,200,000 samples, 2.8 GB): a bound on
// the memory one file may take, whatever it claims or decompresses to.
inline constexpr double kLongestExtraction = 12 * 3600.0;

struct Extraction {
    std::vector<float> samples; // mono, 16 kHz, peak 0.5 after a normal extraction
    double duration = 0;        // seconds, always samples.size() / 16000
    // The file ends, or stops decoding, before the sound its index promises (a recording cut
    // off by a full card or a pulled cable): the samples are what decoded up to there.
    bool cutShort = false;
};

// Decodes every audio stream of the file at `url`. Each stream is mixed to mono (all its
// channels with equal weight) and resampled to 16 kHz; the streams are then summed sample by
// sample on the file's timeline, clipped to [-1, 1] and levelled (levelAudio).
//
// The first sample is the first sample of the clip as an editor plays it: edit lists and the
// codec's priming samples are honoured, and a stream that starts after the file's zero is
// preceded by silence (one that starts before it is cut). Picture streams are never decoded.
// A ".braw" file (any case) is read through the Blackmagic RAW SDK instead.
//
// `expectedSeconds` is the caller's estimate of the length (0 or less: unknown). Only when it is
// above 0 does `onProgress` hear of the decoding, on the thread that runs `extract`: the fraction
// min(decoded / expected, 1), in steps of at least 0.01, with no clip name.
//
// Throws TrelvaneError:
//   readerStartFailed  the file can't be opened as media (FFmpeg's message), or none of its
//                      audio streams has a decoder;
//   noAudioTrack       no audio stream (carries the last path component, as the next two do);
//   emptySamples       nothing decoded (a read that fails half way keeps what decoded before,
//                      with `cutShort` set);
//   silentAudio        the peak of the mix is 0.001 or less;
//   readFailed         longer than kLongestExtraction, a resampler that can't be built, or a
//                      .braw clip that can't be read (with the SDK's or availability message);
//   stopped            `stop` was requested while the file was read: a long recording takes many
//                      seconds to decode, and a user who cancels should not wait for it.
Extraction extract(const Url& url, double expectedSeconds, const ProgressFn& onProgress = {},
                   std::stop_token stop = {});

// ---- exposed for tests -----------------------------------------------------------------------
// Parts of `extract`, not meant to be called from elsewhere.
namespace detail {

// A .braw clip through BRAWAudio: readFailed with the availability note when the SDK is
// missing, readFailed with the SDK's message when the clip can't be read, then as
// analysisFromInterleaved. The bridge's progress is scaled by 0.8.
Extraction extractBRAW(const Url& url, const ProgressFn& onProgress = {});

// The analysis stream of audio given as interleaved floats: noAudioTrack(name) for no frames,
// no channels, a rate of 0 or less, or fewer values than frameCount * channelCount; else the
// channels averaged to mono, 0.9 reported, resampled to 16 kHz, clipped, tested for silence
// (silentAudio(name), also for an empty result) and levelled.
Extraction analysisFromInterleaved(const BRAWAudio::Audio& audio, const std::string& name,
                                   const ProgressFn& onProgress = {});

// `samples` at `from` Hz resampled to `to` Hz with libswresample, about to * n / from samples.
// Returned untouched when the rates differ by 0.5 Hz or less. readFailed("resampler") for a
// rate that is not a positive number of at most 2^31 - 1 Hz, more than 2^31 - 1 samples, or a
// conversion that fails.
std::vector<float> resampleMono(std::span<const float> samples, double from, double to);

// Automatic gain riding at 400 ms grain (6,400 samples at 16 kHz), then scaling to peak 0.5:
// lifts quiet passages and tames loud ones so that one loud event can't dominate correlation.
// At most one window: only scaled to peak 0.5 (when the peak is above 0.000001). No window with
// an RMS above 0.0001: left as it is. Throws nothing.
void levelAudio(std::vector<float>& samples, double rate);

} // namespace detail

} // namespace trelvane::AudioExtractor
