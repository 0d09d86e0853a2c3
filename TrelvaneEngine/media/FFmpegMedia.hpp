// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What every FFmpeg reader of the media layer shares: owning handles, FFmpeg's error text, the
// one safe way to open a file, its audio decoders, and where the clip's zero lies. Used by the
// analysis extraction and by the playback stream, so that both hear the same sound at the same
// time. Stateless; any thread.

#include "TrelvaneEngine/support/Url.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

namespace trelvane::FFmpegMedia {

struct FormatCloser {
    void operator()(AVFormatContext* ctx) const noexcept { avformat_close_input(&ctx); }
};
struct CodecFree {
    void operator()(AVCodecContext* ctx) const noexcept { avcodec_free_context(&ctx); }
};
struct SwrFree {
    void operator()(SwrContext* ctx) const noexcept { swr_free(&ctx); }
};
struct PacketFree {
    void operator()(AVPacket* pkt) const noexcept { av_packet_free(&pkt); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
struct DictionaryFree {
    void operator()(AVDictionary** dict) const noexcept { av_dict_free(dict); }
};

using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using SwrPtr = std::unique_ptr<SwrContext, SwrFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

// FFmpeg's text for an error code, "Error <code>" when it has none.
std::string message(int error);

// Opens the regular file at `url` with the demuxers of media a shoot holds (no playlists, no
// other protocol than the file itself). Every stream but sound is discarded; only files whose
// headers leave out something of the sound are probed further.
// Throws TrelvaneError::readerStartFailed with the system's or FFmpeg's message.
FormatPtr openInput(const Url& url);

// One audio stream with its opened decoder. The decoder knows the stream's time base, so that
// it moves a frame's timestamp past the priming samples it drops.
struct AudioDecoder {
    AVStream* stream = nullptr;
    CodecPtr decoder;
};

// Opens a decoder for every audio stream of `ctx`, in stream order; a stream without a usable
// decoder is discarded. Throws TrelvaneError::noAudioTrack(name) when there is no audio stream,
// readerStartFailed (FFmpeg's message and the codec) when none of them can be decoded.
std::vector<AudioDecoder> openAudioDecoders(AVFormatContext* ctx, const std::string& name);

// Sends one packet (nothing: the end) to `decoder` and hands every frame it gives to `onFrame`,
// unreferencing it after. A packet or frame the decoder rejects as invalid leaves a gap, as a
// damaged block does; any other error returns false. What `onFrame` throws passes through.
bool decodePacket(AVCodecContext* decoder, const AVPacket* packet, AVFrame* frame,
                  const std::function<void(const AVFrame*)>& onFrame);

// The form of a stream's decoded frames that its resampler was built for: a frame of another
// form (a broadcast switching from stereo to 5.1) needs a new resampler.
struct FrameForm {
    int channels = 0;
    int format = -1;
    int rate = 0;

    static FrameForm of(const AVFrame* frame) {
        return {frame->ch_layout.nb_channels, frame->format, frame->sample_rate};
    }
    bool operator==(const FrameForm&) const = default;
};

// Runs `frame` through `swr` into `out`, resized to hold all that may come out with `outChannels`
// interleaved floats a sample: the samples made, negative on failure.
int resampleFrame(SwrContext* swr, const AVFrame* frame, std::vector<float>& out, int outChannels);

// A timestamp in seconds; nothing when it is unset, the time base is not positive, or it is not
// finite.
std::optional<double> seconds(std::int64_t ts, AVRational base);

// The clip's zero on the file's timeline, in seconds: where its earliest sound (of `decoders`)
// or picture starts. Cover art has a time but is no picture of the clip. Nothing when no stream
// tells its start.
std::optional<double> clipZero(const AVFormatContext* ctx, const std::vector<AudioDecoder>& decoders);

} // namespace trelvane::FFmpegMedia
