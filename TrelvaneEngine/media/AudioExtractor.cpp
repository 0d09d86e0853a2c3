// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/AudioExtractor.hpp"

#include "TrelvaneEngine/media/FFmpegMedia.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <optional>
#include <sys/stat.h>

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace trelvane::AudioExtractor {

namespace {

constexpr int kRate = 16000;
// Room for two hours is made before the first sample, so that the usual clip never moves its
// samples while it grows; the reservation is address space, pages are only touched as filled.
constexpr std::size_t kTwoHours = 115'200'000;
constexpr std::int64_t kMostSamples = static_cast<std::int64_t>(kLongestExtraction * kAnalysisRate);
// The most channels libswresample mixes in one stream.
constexpr int kMostChannels = 64;

using FFmpegMedia::AudioDecoder;
using FFmpegMedia::FramePtr;
using FFmpegMedia::PacketPtr;
using FFmpegMedia::seconds;
using FFmpegMedia::SwrPtr;

// A resampler from `channels` channels of `format` at `rate` Hz to mono floats at `to` Hz that
// mixes all channels with the same weight. Nothing when libswresample refuses.
SwrPtr makeResampler(int channels, AVSampleFormat format, int rate, int to) {
    if (channels < 1 || channels > kMostChannels || rate < 1 || to < 1) return nullptr;
    AVChannelLayout in{};
    av_channel_layout_default(&in, channels);
    AVChannelLayout out{};
    av_channel_layout_default(&out, 1);
    SwrContext* raw = nullptr;
    const int made = swr_alloc_set_opts2(&raw, &out, AV_SAMPLE_FMT_FLT, to, &in, format, rate, 0, nullptr);
    av_channel_layout_uninit(&in);
    av_channel_layout_uninit(&out);
    SwrPtr swr(raw);
    if (made < 0 || !swr) return nullptr;
    // Equal weights rather than the library's downmix law, which would favour the centre and
    // drop channels it has no place for (an LFE, unnamed channels of a recorder).
    const std::vector<double> weights(static_cast<std::size_t>(channels), 1.0 / channels);
    if (channels > 1 && swr_set_matrix(swr.get(), weights.data(), channels) < 0) return nullptr;
    if (swr_init(swr.get()) < 0) return nullptr;
    return swr;
}

// ---- the mix ---------------------------------------------------------------------------------------

// The analysis stream as it is decoded: every stream adds its mono samples at its own position,
// so streams are summed sample by sample and the shorter ones are padded with silence.
class Mix {
  public:
    Mix(std::string name, double expectedSeconds, const ProgressFn& onProgress)
        : name_(std::move(name)), onProgress_(onProgress) {
        expected_ = expectedSeconds > 0 ? expectedSeconds * kAnalysisRate : 0;
    }

    // Called once the file is known to hold sound.
    void reserve() {
        std::size_t room = kTwoHours;
        // A longer file is expected: make its room at once rather than by doubling, which would
        // briefly hold the old and the new array.
        if (expected_ > 0 && expected_ < static_cast<double>(kMostSamples))
            room = std::max(room, static_cast<std::size_t>(expected_ + 60 * kAnalysisRate));
        samples_.reserve(std::min(room, static_cast<std::size_t>(kMostSamples)));
    }

    // Adds `count` samples at `position` (samples from the file's zero; before it, they are cut)
    // and moves `position` past them.
    void add(std::int64_t& position, const float* data, std::int64_t count) {
        if (position < 0) {
            const std::int64_t cut = std::min(count, -position);
            data += cut;
            count -= cut;
            position += cut;
        }
        if (count <= 0) return;
        if (position + count > kMostSamples)
            throw TrelvaneError::readFailed(
                fmt::format("{}: longer than {} hours", name_, static_cast<int>(kLongestExtraction / 3600)));
        const auto end = static_cast<std::size_t>(position + count);
        const bool appending = static_cast<std::size_t>(position) == samples_.size();
        if (samples_.size() < end) samples_.resize(end, 0.0f);
        float* to = samples_.data() + position;
        if (appending)
            std::copy(data, data + count, to);
        else
            for (std::int64_t i = 0; i < count; ++i)
                to[i] += data[i];
        position += count;
        report();
    }

    std::vector<float>& samples() { return samples_; }

  private:
    void report() {
        if (!onProgress_ || expected_ <= 0) return;
        const double p = std::min(static_cast<double>(samples_.size()) / expected_, 1.0);
        if (p - lastReported_ < 0.01) return;
        onProgress_({p, {}});
        lastReported_ = p;
    }

    std::string name_;
    const ProgressFn& onProgress_;
    double expected_ = 0;
    double lastReported_ = 0;
    std::vector<float> samples_;
};

// ---- one audio stream ------------------------------------------------------------------------------

struct StreamReader {
    AVStream* stream = nullptr;
    FFmpegMedia::CodecPtr decoder;
    // Built for the format of the frames that arrive, and built anew when it changes.
    SwrPtr resampler;
    FFmpegMedia::FrameForm form;
    // Where the next output sample goes, once the first frame has placed the stream.
    std::int64_t position = 0;
    bool placed = false;
};

// The reasons a read stops before its end.
struct ReadFailure {};

class Reader {
  public:
    Reader(const Url& url, double expectedSeconds, const ProgressFn& onProgress, std::stop_token stop)
        : url_(url), name_(url.lastPathComponent()), mix_(name_, expectedSeconds, onProgress),
          stop_(std::move(stop)) {}

    std::vector<float> run() {
        open();
        chooseStreams();
        try {
            decodeAll();
        } catch (const ReadFailure&) {
            // What decoded before the break is the clip's sound as far as it goes.
            cutShort_ = true;
        }
        if (mix_.samples().empty()) throw TrelvaneError::emptySamples(name_);
        return std::move(mix_.samples());
    }

    // Whether the read stopped before the end of the sound the file promises.
    bool cutShort() const { return cutShort_; }

  private:
    void open() { format_ = FFmpegMedia::openInput(url_); }

    void chooseStreams() {
        for (AudioDecoder& opened : FFmpegMedia::openAudioDecoders(format_.get(), name_)) {
            auto reader = std::make_unique<StreamReader>();
            reader->stream = opened.stream;
            reader->decoder = std::move(opened.decoder);
            const auto i = static_cast<std::size_t>(opened.stream->index);
            if (streamsByIndex_.size() <= i) streamsByIndex_.resize(i + 1);
            streamsByIndex_[i] = reader.get();
            streams_.push_back(std::move(reader));
        }
        std::vector<AudioDecoder> used;
        for (const auto& reader : streams_)
            used.push_back({reader->stream, nullptr});
        // The clip starts where its earliest sound or picture starts: a stream that begins later
        // is preceded by silence.
        zero_ = FFmpegMedia::clipZero(format_.get(), used);
    }

    void decodeAll() {
        const PacketPtr packet(av_packet_alloc());
        const FramePtr frame(av_frame_alloc());
        if (!packet || !frame) throw ReadFailure{};
        frame_ = frame.get();
        mix_.reserve();
        while (true) {
            if (stop_.stop_requested()) throw TrelvaneError::stopped(name_);
            const int got = av_read_frame(format_.get(), packet.get());
            if (got == AVERROR_EOF) break;
            if (got < 0) {
                cutShort_ = true;
                break;
            }
            const auto index = static_cast<std::size_t>(packet->stream_index);
            StreamReader* reader = index < streamsByIndex_.size() ? streamsByIndex_[index] : nullptr;
            if (reader) decode(*reader, packet.get());
            av_packet_unref(packet.get());
        }
        if (brokeOff()) cutShort_ = true;
        for (auto& reader : streams_) {
            decode(*reader, nullptr);
            drainResampler(*reader);
        }
    }

    // Whether the file ends before the sound its index promises. A demuxer that finds its next
    // sample beyond the end of a cut-off file reports the end of the file, not an error, and the
    // read would pass for complete with part of the sound. Files without an index of their own
    // (WAV) end where their data ends: a recording cut short by a flat battery stays readable.
    bool brokeOff() {
        struct stat st {};
        if (::stat(url_.path().c_str(), &st) != 0) return true;
        const auto size = static_cast<std::int64_t>(st.st_size);
        for (const auto& reader : streams_) {
            const int count = avformat_index_get_entries_count(reader->stream);
            for (int i = 0; i < count; ++i) {
                const AVIndexEntry* entry = avformat_index_get_entry(reader->stream, i);
                if (entry && entry->pos >= 0 && entry->pos + entry->size > size) return true;
            }
        }
        return false;
    }

    // Sends one packet (nothing: the end) and takes every frame it gives. A packet the decoder
    // rejects as invalid leaves a gap, as a damaged block does; any other error ends the read.
    void decode(StreamReader& reader, const AVPacket* packet) {
        if (!FFmpegMedia::decodePacket(reader.decoder.get(), packet, frame_,
                                       [&](const AVFrame* frame) { convert(reader, frame); }))
            throw ReadFailure{};
    }

    void convert(StreamReader& reader, const AVFrame* frame) {
        const int channels = frame->ch_layout.nb_channels;
        if (frame->nb_samples <= 0 || channels <= 0) return;
        if (!reader.resampler || FFmpegMedia::FrameForm::of(frame) != reader.form) {
            drainResampler(reader);
            reader.resampler = makeResampler(channels, static_cast<AVSampleFormat>(frame->format),
                                             frame->sample_rate, kRate);
            if (!reader.resampler) throw ReadFailure{};
            reader.form = FFmpegMedia::FrameForm::of(frame);
        }
        if (!reader.placed) place(reader, frame);
        const int made = FFmpegMedia::resampleFrame(reader.resampler.get(), frame, buffer_, 1);
        if (made < 0) throw ReadFailure{};
        mix_.add(reader.position, buffer_.data(), made);
    }

    void drainResampler(StreamReader& reader) {
        if (!reader.resampler) return;
        buffer_.resize(4096);
        auto* out = reinterpret_cast<std::uint8_t*>(buffer_.data());
        while (true) {
            const int made =
                swr_convert(reader.resampler.get(), &out, static_cast<int>(buffer_.size()), nullptr, 0);
            if (made < 0) throw ReadFailure{};
            if (made == 0) break;
            mix_.add(reader.position, buffer_.data(), made);
        }
        reader.resampler.reset();
    }

    // The first frame of a stream fixes where the stream lies on the clip's timeline; from then
    // on its samples follow each other without regard to later timestamps.
    void place(StreamReader& reader, const AVFrame* frame) {
        reader.placed = true;
        std::int64_t ts = frame->pts;
        if (ts == AV_NOPTS_VALUE) ts = frame->best_effort_timestamp;
        if (ts == AV_NOPTS_VALUE) ts = reader.stream->start_time;
        const auto start = seconds(ts, reader.stream->time_base);
        if (!start) return;
        if (!zero_) zero_ = start;
        const double offset = std::round((*start - *zero_) * kAnalysisRate);
        // Timestamps that put the stream absurdly far from the others say nothing of its place.
        if (std::abs(offset) >= static_cast<double>(kMostSamples)) return;
        reader.position = static_cast<std::int64_t>(offset);
    }

    Url url_;
    std::string name_;
    Mix mix_;
    std::stop_token stop_;
    FFmpegMedia::FormatPtr format_;
    std::vector<std::unique_ptr<StreamReader>> streams_;
    std::vector<StreamReader*> streamsByIndex_;
    std::optional<double> zero_;
    AVFrame* frame_ = nullptr;
    std::vector<float> buffer_;
    bool cutShort_ = false;
};

float peakMagnitude(std::span<const float> samples) {
    float peak = 0;
    for (const float x : samples)
        peak = std::max(peak, std::abs(x));
    return peak;
}

// Clips to [-1, 1]; a NaN, which no recording holds, becomes silence rather than poisoning the
// levels.
void clip(std::vector<float>& samples) {
    for (float& x : samples)
        x = x > 1.0f ? 1.0f : x < -1.0f ? -1.0f : std::isnan(x) ? 0.0f : x;
}

void scaleToHalf(std::vector<float>& samples) {
    const float peak = peakMagnitude(samples);
    if (peak <= 0.000001f) return;
    const float scale = 0.5f / peak;
    for (float& x : samples)
        x *= scale;
}

Extraction finish(std::vector<float> samples, const std::string& name) {
    clip(samples);
    if (!(peakMagnitude(samples) > 0.001f)) throw TrelvaneError::silentAudio(name);
    detail::levelAudio(samples, kAnalysisRate);
    Extraction result;
    result.duration = static_cast<double>(samples.size()) / kAnalysisRate;
    result.samples = std::move(samples);
    return result;
}

} // namespace

Extraction extract(const Url& url, double expectedSeconds, const ProgressFn& onProgress,
                   std::stop_token stop) {
    if (Files::lowercased(url.pathExtension()) == "braw") return detail::extractBRAW(url, onProgress);
    Reader reader(url, expectedSeconds, onProgress, std::move(stop));
    Extraction result = finish(reader.run(), url.lastPathComponent());
    result.cutShort = reader.cutShort();
    return result;
}

namespace detail {

Extraction extractBRAW(const Url& url, const ProgressFn& onProgress) {
    if (!BRAWAudio::isAvailable()) throw TrelvaneError::readFailed(BRAWAudio::availabilityNote());
    ProgressFn scaled;
    if (onProgress) scaled = [&onProgress](const Progress& p) { onProgress({p.fraction * 0.8, p.current}); };
    auto read = BRAWAudio::readAudio(url.path(), scaled);
    if (!read.audio) throw TrelvaneError::readFailed(read.error);
    return analysisFromInterleaved(*read.audio, url.lastPathComponent(), onProgress);
}

Extraction analysisFromInterleaved(const BRAWAudio::Audio& audio, const std::string& name,
                                   const ProgressFn& onProgress) {
    const std::uint64_t frames = audio.frameCount;
    const std::uint64_t channels = audio.channelCount;
    if (frames == 0 || channels == 0 || !(audio.sampleRate > 0)) throw TrelvaneError::noAudioTrack(name);
    if (frames > audio.interleaved.size() / channels) throw TrelvaneError::noAudioTrack(name);

    std::vector<float> mono(frames);
    const float* in = audio.interleaved.data();
    if (channels == 1) {
        std::copy(in, in + frames, mono.begin());
    } else {
        const float weight = 1.0f / static_cast<float>(channels);
        for (std::uint64_t f = 0; f < frames; ++f) {
            float sum = 0;
            for (std::uint64_t c = 0; c < channels; ++c)
                sum += in[f * channels + c];
            mono[f] = sum * weight;
        }
    }
    if (onProgress) onProgress({0.9, {}});
    std::vector<float> samples = resampleMono(mono, audio.sampleRate, kAnalysisRate);
    mono = {};
    // Here an empty stream is silence, not a failed read.
    return finish(std::move(samples), name);
}

std::vector<float> resampleMono(std::span<const float> samples, double from, double to) {
    if (std::abs(from - to) <= 0.5) return {samples.begin(), samples.end()};
    const auto hertz = [](double rate) -> std::optional<int> {
        if (!(rate >= 0.5) || rate > static_cast<double>(INT_MAX)) return std::nullopt;
        return static_cast<int>(std::lround(rate));
    };
    const auto fromHz = hertz(from);
    const auto toHz = hertz(to);
    if (!fromHz || !toHz || samples.size() > static_cast<std::size_t>(INT_MAX))
        throw TrelvaneError::readFailed("resampler");
    const int count = static_cast<int>(samples.size());
    const double capacity = std::trunc(to * static_cast<double>(count) / from) + 64;
    if (!(capacity <= static_cast<double>(INT_MAX))) throw TrelvaneError::readFailed("resampler");

    const SwrPtr swr = makeResampler(1, AV_SAMPLE_FMT_FLT, *fromHz, *toHz);
    if (!swr) throw TrelvaneError::readFailed("resampler");
    std::vector<float> out(static_cast<std::size_t>(capacity));
    auto* to8 = reinterpret_cast<std::uint8_t*>(out.data());
    const auto* from8 = reinterpret_cast<const std::uint8_t*>(samples.data());
    const int room = static_cast<int>(out.size());
    const int made = swr_convert(swr.get(), &to8, room, count > 0 ? &from8 : nullptr, count);
    if (made < 0) throw TrelvaneError::readFailed(FFmpegMedia::message(made));
    int total = made;
    // The filter's tail, held back until the end of the input is known.
    while (total < room) {
        auto* tail = reinterpret_cast<std::uint8_t*>(out.data() + total);
        const int more = swr_convert(swr.get(), &tail, room - total, nullptr, 0);
        if (more < 0) throw TrelvaneError::readFailed(FFmpegMedia::message(more));
        if (more == 0) break;
        total += more;
    }
    out.resize(static_cast<std::size_t>(total));
    return out;
}

void levelAudio(std::vector<float>& samples, double rate) {
    const std::size_t n = samples.size();
    if (n == 0) return;
    const double wanted = rate * 0.4;
    // Int(rate * 0.4) at least 1; a window longer than the clip is one window.
    const std::size_t W =
        wanted >= 1 ? (wanted >= static_cast<double>(n) ? n : static_cast<std::size_t>(wanted)) : 1;
    const std::size_t N = (n + W - 1) / W;
    if (N < 2) {
        scaleToHalf(samples);
        return;
    }

    std::vector<float> rms(N);
    for (std::size_t i = 0; i < N; ++i) {
        const std::size_t begin = i * W;
        const std::size_t length = std::min(W, n - begin);
        double sum = 0;
        for (std::size_t j = begin; j < begin + length; ++j)
            sum += static_cast<double>(samples[j]) * samples[j];
        rms[i] = static_cast<float>(std::sqrt(sum / static_cast<double>(length)));
    }

    std::vector<float> kept;
    for (const float r : rms)
        if (r > 0.0001f) kept.push_back(r);
    if (kept.empty()) return;
    std::sort(kept.begin(), kept.end());
    const float median = kept[kept.size() / 2];
    const float gate = std::max(median * 0.05f, kept.front());

    std::vector<float> gains(N);
    for (std::size_t i = 0; i < N; ++i)
        gains[i] = rms[i] >= gate ? std::clamp(median / rms[i], 0.25f, 8.0f) : std::min(median / gate, 8.0f);

    std::vector<float> smooth(N);
    for (std::size_t i = 0; i < N; ++i) {
        const std::size_t lo = i >= 2 ? i - 2 : 0;
        const std::size_t hi = std::min(i + 2, N - 1);
        float sum = 0;
        for (std::size_t k = lo; k <= hi; ++k)
            sum += gains[k];
        smooth[i] = sum / static_cast<float>(hi - lo + 1);
    }

    // Gains sit at window centres; between two centres they are interpolated, and the first and
    // last half window hold the end gain.
    const auto last = static_cast<double>(N - 1);
    const auto width = static_cast<double>(W);
    for (std::size_t j = 0; j < n; ++j) {
        const double pos = static_cast<double>(j) / width - 0.5;
        const double i0 = std::clamp(std::floor(pos), 0.0, last);
        const double i1 = std::min(i0 + 1, last);
        const auto t = static_cast<float>(std::clamp(pos - i0, 0.0, 1.0));
        samples[j] *=
            (1 - t) * smooth[static_cast<std::size_t>(i0)] + t * smooth[static_cast<std::size_t>(i1)];
    }

    scaleToHalf(samples);
}

} // namespace detail

} // namespace trelvane::AudioExtractor
