// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/AudioStreamReader.hpp"

#include "TrelvaneEngine/media/FFmpegMedia.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace trelvane {

namespace {

using FFmpegMedia::AudioDecoder;

constexpr int kMostRate = 768000;
constexpr int kMostChannels = 64;
// Decoded before the asked position after a seek and then dropped: a codec that builds on the
// frames before (AAC's overlapping windows, MP3's bit reservoir) sounds right from there on.
constexpr double kPreroll = 0.2;
// A stream this far behind the others (it ended early, or its packets lie elsewhere in the file)
// no longer holds the mix back; what it brings later is too late and dropped.
constexpr double kMostLag = 5.0;

struct ReadFailure {};

// One audio stream on its way to stereo at the output rate.
struct Stream {
    AudioDecoder decoder;
    // Built for the format of the frames that arrive, and built anew when it changes.
    FFmpegMedia::SwrPtr resampler;
    FFmpegMedia::FrameForm form;
    // The first frame fixes where the stream lies on the output; from then on its samples follow
    // each other without regard to later timestamps, as in the analysis.
    bool placed = false;
    // Output frame (0 = `fromSeconds`) of pending[0]; pending holds interleaved stereo.
    std::int64_t start = 0;
    std::vector<float> pending;

    std::int64_t end() const { return start + static_cast<std::int64_t>(pending.size() / 2); }
};

// A resampler from `channels` channels (the frame's layout, or the usual one for that count) to
// stereo floats at `to` Hz. Mono goes to both sides at full level rather than the library's
// -3 dB, so that a mono recorder sounds as loud as a stereo one. Nothing when it is refused.
FFmpegMedia::SwrPtr makeStereoResampler(const AVFrame* frame, int to) {
    const int channels = frame->ch_layout.nb_channels;
    if (channels < 1 || channels > kMostChannels || frame->sample_rate < 1) return nullptr;
    AVChannelLayout in{};
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC ||
        av_channel_layout_copy(&in, &frame->ch_layout) < 0)
        av_channel_layout_default(&in, channels);
    AVChannelLayout out{};
    av_channel_layout_default(&out, 2);
    SwrContext* raw = nullptr;
    const int made =
        swr_alloc_set_opts2(&raw, &out, AV_SAMPLE_FMT_FLT, to, &in,
                            static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&in);
    av_channel_layout_uninit(&out);
    FFmpegMedia::SwrPtr swr(raw);
    if (made < 0 || !swr) return nullptr;
    if (channels == 1) {
        const double both[2] = {1.0, 1.0};
        if (swr_set_matrix(swr.get(), both, 1) < 0) return nullptr;
    }
    if (swr_init(swr.get()) < 0) return nullptr;
    return swr;
}

} // namespace

struct AudioStreamReader::State {
    std::string name;
    int rate = 0;
    double from = 0;
    FFmpegMedia::FormatPtr format;
    std::vector<Stream> streams;
    std::vector<Stream*> byIndex;
    std::optional<double> zero;
    FFmpegMedia::PacketPtr packet{av_packet_alloc()};
    FFmpegMedia::FramePtr frame{av_frame_alloc()};
    std::vector<float> scratch;
    // The next output frame handed out.
    std::int64_t next = 0;
    // Every packet read and every decoder and resampler drained.
    bool ended = false;

    // `rewind`: the file has been read from, so a position near its start needs a seek too.
    void seek(bool rewind = false) {
        if (from - kPreroll <= 0) {
            if (rewind)
                avformat_seek_file(format.get(), -1, std::numeric_limits<std::int64_t>::min(), 0, 0, 0);
            return;
        }
        // Seeking on a sound stream lands on its own packets: a seek by the picture would go
        // back to the last key frame, seconds earlier.
        const AVStream* st = streams.front().decoder.stream;
        const double target = from - kPreroll + zero.value_or(0);
        const double ticks = target / av_q2d(st->time_base);
        if (!std::isfinite(ticks) || std::abs(ticks) > 9e18) return;
        const auto ts = static_cast<std::int64_t>(std::floor(ticks));
        // A file that can't seek is read from its start: slower, never wrong.
        if (avformat_seek_file(format.get(), st->index, std::numeric_limits<std::int64_t>::min(), ts, ts, 0) <
            0)
            avformat_seek_file(format.get(), -1, std::numeric_limits<std::int64_t>::min(), 0, 0, 0);
    }

    // Frames ready from `next`: covered by every stream that still counts.
    std::int64_t readyUntil() const {
        std::int64_t lead = next;
        for (const Stream& s : streams)
            if (s.placed) lead = std::max(lead, s.end());
        if (ended) return lead;
        const auto lag = static_cast<std::int64_t>(kMostLag * rate);
        std::int64_t until = lead;
        for (const Stream& s : streams) {
            const std::int64_t at = s.placed ? s.end() : next;
            if (at >= lead - lag) until = std::min(until, at);
        }
        return until;
    }

    void pump() {
        try {
            const int got = av_read_frame(format.get(), packet.get());
            if (got < 0) {
                finish();
                return;
            }
            const auto index = static_cast<std::size_t>(packet->stream_index);
            Stream* s = index < byIndex.size() ? byIndex[index] : nullptr;
            if (s) decode(*s, packet.get());
            av_packet_unref(packet.get());
        } catch (const ReadFailure&) {
            av_packet_unref(packet.get());
            // What decoded before the break is the sound as far as it goes.
            ended = true;
        }
    }

    void finish() {
        for (Stream& s : streams) {
            decode(s, nullptr);
            drain(s);
        }
        ended = true;
    }

    void decode(Stream& s, const AVPacket* pkt) {
        if (!FFmpegMedia::decodePacket(s.decoder.decoder.get(), pkt, frame.get(),
                                       [&](const AVFrame* f) { convert(s, f); }))
            throw ReadFailure{};
    }

    void convert(Stream& s, const AVFrame* f) {
        if (f->nb_samples <= 0 || f->ch_layout.nb_channels <= 0) return;
        if (!s.resampler || FFmpegMedia::FrameForm::of(f) != s.form) {
            drain(s);
            s.resampler = makeStereoResampler(f, rate);
            if (!s.resampler) throw ReadFailure{};
            s.form = FFmpegMedia::FrameForm::of(f);
        }
        if (!s.placed) place(s, f);
        const int made = FFmpegMedia::resampleFrame(s.resampler.get(), f, scratch, 2);
        if (made < 0) throw ReadFailure{};
        append(s, made);
    }

    void drain(Stream& s) {
        if (!s.resampler) return;
        scratch.resize(2 * 4096);
        auto* out = reinterpret_cast<std::uint8_t*>(scratch.data());
        while (true) {
            const int made = swr_convert(s.resampler.get(), &out, 4096, nullptr, 0);
            if (made < 0) throw ReadFailure{};
            if (made == 0) break;
            append(s, made);
        }
        s.resampler.reset();
    }

    // Keeps the `count` frames in `scratch`, less those before the next frame handed out.
    void append(Stream& s, int count) {
        const std::int64_t at = s.end();
        const std::int64_t skip = std::clamp<std::int64_t>(next - at, 0, count);
        if (s.pending.empty()) s.start = at + skip;
        s.pending.insert(s.pending.end(), scratch.begin() + 2 * skip, scratch.begin() + 2 * count);
    }

    void place(Stream& s, const AVFrame* f) {
        s.placed = true;
        const AVStream* st = s.decoder.stream;
        std::int64_t ts = f->pts;
        if (ts == AV_NOPTS_VALUE) ts = f->best_effort_timestamp;
        if (ts == AV_NOPTS_VALUE) ts = st->start_time;
        const auto at = FFmpegMedia::seconds(ts, st->time_base);
        double offset = at ? *at - zero.value_or(0.0) - from : 0.0;
        if (!at && from > kPreroll) offset = -kPreroll;
        const double frames = std::round(offset * rate);
        // Timestamps absurdly far from the asked place say nothing of the stream's place.
        s.start = std::abs(frames) < 1e12 ? static_cast<std::int64_t>(frames) : 0;
    }

    std::size_t emit(std::vector<float>& out, std::size_t frames) {
        const std::int64_t until = readyUntil();
        const auto count = static_cast<std::size_t>(
            std::clamp<std::int64_t>(until - next, 0, static_cast<std::int64_t>(frames)));
        const std::size_t base = out.size();
        out.resize(base + 2 * count, 0.0f);
        float* to = out.data() + base;
        const std::int64_t last = next + static_cast<std::int64_t>(count);
        for (Stream& s : streams) {
            const std::int64_t lo = std::max(next, s.start);
            const std::int64_t hi = std::min(last, s.end());
            for (std::int64_t f = lo; f < hi; ++f) {
                const auto i = static_cast<std::size_t>(2 * (f - s.start));
                const auto o = static_cast<std::size_t>(2 * (f - next));
                to[o] += s.pending[i];
                to[o + 1] += s.pending[i + 1];
            }
            // What is handed out, or can no longer be, leaves the stream.
            const std::int64_t used = std::clamp<std::int64_t>(last - s.start, 0, s.end() - s.start);
            s.pending.erase(s.pending.begin(), s.pending.begin() + 2 * used);
            s.start += used;
        }
        next = last;
        return count;
    }
};

AudioStreamReader::AudioStreamReader(const Url& url, double fromSeconds, int sampleRate)
    : state_(std::make_unique<State>()) {
    State& s = *state_;
    if (sampleRate < 1 || sampleRate > kMostRate) throw TrelvaneError::readFailed("resampler");
    s.name = url.lastPathComponent();
    s.rate = sampleRate;
    s.from = std::isfinite(fromSeconds) ? std::max(fromSeconds, 0.0) : 0.0;
    s.format = FFmpegMedia::openInput(url);
    for (AudioDecoder& d : FFmpegMedia::openAudioDecoders(s.format.get(), s.name)) {
        Stream stream;
        stream.decoder = std::move(d);
        s.streams.push_back(std::move(stream));
    }
    for (Stream& stream : s.streams) {
        const auto i = static_cast<std::size_t>(stream.decoder.stream->index);
        if (s.byIndex.size() <= i) s.byIndex.resize(i + 1);
        s.byIndex[i] = &stream;
    }
    if (!s.packet || !s.frame) throw TrelvaneError::readFailed(s.name);
    s.zero = FFmpegMedia::clipZero(s.format.get(), [&] {
        std::vector<AudioDecoder> used;
        for (const Stream& stream : s.streams)
            used.push_back({stream.decoder.stream, nullptr});
        return used;
    }());
    s.seek();
}

AudioStreamReader::~AudioStreamReader() = default;

void AudioStreamReader::seek(double fromSeconds) {
    State& s = *state_;
    s.from = std::isfinite(fromSeconds) ? std::max(fromSeconds, 0.0) : 0.0;
    s.next = 0;
    s.ended = false;
    for (Stream& stream : s.streams) {
        avcodec_flush_buffers(stream.decoder.decoder.get());
        stream.resampler.reset();
        stream.form = {};
        stream.placed = false;
        stream.start = 0;
        stream.pending.clear();
    }
    s.seek(true);
}

std::size_t AudioStreamReader::read(std::vector<float>& out, std::size_t frames) {
    State& s = *state_;
    if (frames == 0) return 0;
    while (!s.ended && s.readyUntil() - s.next < static_cast<std::int64_t>(frames))
        s.pump();
    return s.emit(out, frames);
}

} // namespace trelvane
