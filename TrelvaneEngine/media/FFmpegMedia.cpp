// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/FFmpegMedia.hpp"

#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fmt/format.h>
#include <sys/stat.h>
#include <system_error>

extern "C" {
#include <libavutil/error.h>
}

namespace trelvane::FFmpegMedia {

namespace {

// Frames one packet may fail to give before the decoder is taken to be stuck.
constexpr int kMostRejectedFrames = 1000;
// Demuxers of media that a shoot holds. Playlists and concatenation lists are not media: they
// would make the demuxer open other files.
constexpr const char* kMediaFormats = "mov,wav,w64,aiff,caf,mp3,aac,ac3,eac3,flac,ogg,matroska,avi,asf,mxf,"
                                      "mpegts,mpeg,dv,flv,amr,wv,ape,au,tta,dts,truehd,gxf,nut";

} // namespace

std::string message(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(error, text, sizeof text) < 0) return fmt::format("Error {}", error);
    return text;
}

FormatPtr openInput(const Url& url) {
    struct stat st {};
    if (::stat(url.path().c_str(), &st) != 0)
        throw TrelvaneError::readerStartFailed(std::error_code(errno, std::generic_category()).message());
    // A pipe would block, a device never end.
    if (S_ISDIR(st.st_mode))
        throw TrelvaneError::readerStartFailed(std::error_code(EISDIR, std::generic_category()).message());
    if (!S_ISREG(st.st_mode)) throw TrelvaneError::readerStartFailed("Not a regular file");

    AVDictionary* options = nullptr;
    const std::unique_ptr<AVDictionary*, DictionaryFree> freeOptions(&options);
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    av_dict_set(&options, "format_whitelist", kMediaFormats, 0);
    AVFormatContext* raw = nullptr;
    // The file protocol by name, so that no part of a path is ever taken for another protocol.
    const std::string target = "file:" + url.path();
    // On failure the context is freed by the call itself.
    const int opened = avformat_open_input(&raw, target.c_str(), nullptr, &options);
    if (opened < 0) {
        // A format outside the list above is, to this reader, no media at all.
        const int shown = opened == AVERROR(EINVAL) ? AVERROR_INVALIDDATA : opened;
        throw TrelvaneError::readerStartFailed(message(shown));
    }
    FormatPtr format(raw);

    // Pictures are never decoded, and not even read where the demuxer can skip them.
    bool incomplete = false;
    for (unsigned i = 0; i < raw->nb_streams; ++i) {
        AVStream* stream = raw->streams[i];
        const AVCodecParameters* par = stream->codecpar;
        if (par->codec_type != AVMEDIA_TYPE_AUDIO)
            stream->discard = AVDISCARD_ALL;
        else if (par->codec_id == AV_CODEC_ID_NONE || par->sample_rate <= 0 ||
                 par->ch_layout.nb_channels <= 0 || stream->start_time == AV_NOPTS_VALUE)
            incomplete = true;
    }
    // Only files whose headers leave something out are probed (a WAV tells no start time, an
    // MPEG transport stream no sample rate); a failure leaves what the headers gave.
    if (incomplete) avformat_find_stream_info(raw, nullptr);
    return format;
}

std::vector<AudioDecoder> openAudioDecoders(AVFormatContext* ctx, const std::string& name) {
    std::vector<AudioDecoder> decoders;
    int missingDecoder = 0;
    std::string missingName;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        AVStream* st = ctx->streams[i];
        if (st->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        st->discard = AVDISCARD_DEFAULT;
        const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
        CodecPtr decoder(codec ? avcodec_alloc_context3(codec) : nullptr);
        if (!decoder || avcodec_parameters_to_context(decoder.get(), st->codecpar) < 0) {
            ++missingDecoder;
            missingName = avcodec_get_name(st->codecpar->codec_id);
            st->discard = AVDISCARD_ALL;
            continue;
        }
        // The time base lets the decoder move a frame's timestamp past the priming samples it
        // drops, so that the first kept sample lands where the edit list puts it.
        decoder->pkt_timebase = st->time_base;
        if (avcodec_open2(decoder.get(), codec, nullptr) < 0) {
            ++missingDecoder;
            missingName = avcodec_get_name(st->codecpar->codec_id);
            st->discard = AVDISCARD_ALL;
            continue;
        }
        decoders.push_back({st, std::move(decoder)});
    }
    if (decoders.empty() && missingDecoder == 0) throw TrelvaneError::noAudioTrack(name);
    if (decoders.empty())
        throw TrelvaneError::readerStartFailed(
            fmt::format("{} ({})", message(AVERROR_DECODER_NOT_FOUND), missingName));
    return decoders;
}

bool decodePacket(AVCodecContext* decoder, const AVPacket* packet, AVFrame* frame,
                  const std::function<void(const AVFrame*)>& onFrame) {
    const int sent = avcodec_send_packet(decoder, packet);
    if (sent < 0 && sent != AVERROR_INVALIDDATA && sent != AVERROR_EOF) return false;
    // Each rejected frame consumes input; the bound only guards against a decoder that would
    // keep refusing the same data.
    for (int rejected = 0;;) {
        const int got = avcodec_receive_frame(decoder, frame);
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return true;
        if (got == AVERROR_INVALIDDATA && ++rejected < kMostRejectedFrames) continue;
        if (got < 0) return false;
        onFrame(frame);
        av_frame_unref(frame);
    }
}

int resampleFrame(SwrContext* swr, const AVFrame* frame, std::vector<float>& out, int outChannels) {
    const int room = swr_get_out_samples(swr, frame->nb_samples);
    if (room < 0) return room;
    out.resize(static_cast<std::size_t>(outChannels) * (static_cast<std::size_t>(room) + 1));
    auto* to = reinterpret_cast<std::uint8_t*>(out.data());
    return swr_convert(swr, &to, room + 1, const_cast<const std::uint8_t**>(frame->extended_data),
                       frame->nb_samples);
}

std::optional<double> seconds(std::int64_t ts, AVRational base) {
    if (ts == AV_NOPTS_VALUE || base.num <= 0 || base.den <= 0) return std::nullopt;
    const double s = static_cast<double>(ts) * av_q2d(base);
    if (!std::isfinite(s)) return std::nullopt;
    return s;
}

std::optional<double> clipZero(const AVFormatContext* ctx, const std::vector<AudioDecoder>& decoders) {
    std::optional<double> zero;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream* st = ctx->streams[i];
        const auto type = st->codecpar->codec_type;
        const bool picture =
            type == AVMEDIA_TYPE_VIDEO && (st->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0;
        if ((type != AVMEDIA_TYPE_AUDIO && !picture) || st->start_time == AV_NOPTS_VALUE) continue;
        if (type == AVMEDIA_TYPE_AUDIO &&
            std::none_of(decoders.begin(), decoders.end(),
                         [st](const AudioDecoder& d) { return d.stream == st; }))
            continue;
        const auto start = seconds(st->start_time, st->time_base);
        if (start && (!zero || *start < *zero)) zero = start;
    }
    return zero;
}

} // namespace trelvane::FFmpegMedia
