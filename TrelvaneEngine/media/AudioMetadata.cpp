// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/AudioMetadata.hpp"

#include "TrelvaneEngine/media/REDCard.hpp"
#include "TrelvaneEngine/media/RiffReader.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace trelvane::AudioMetadata {

namespace {

// ---- opening a file with libavformat ----------------------------------------------------------

// Enough to find the streams of any file a camera or recorder writes; the headers that hold
// what is read here sit at the start (or, for QuickTime, in one box that the demuxer seeks to).
constexpr const char* kProbeBytes = "2000000";
constexpr const char* kAnalyzeMicroseconds = "2000000";
// Demuxers of media that a shoot holds. Playlists and concatenation lists are not media: they
// would make the demuxer open other files.
constexpr const char* kMediaFormats = "mov,wav,w64,mp3,aiff,mxf,matroska,avi,flac,ogg,caf,aac,mpegts,mpeg,dv";
// No read of one file may take longer, whatever the file or the disk does.
constexpr auto kOpenDeadline = std::chrono::seconds(20);

struct FormatCloser {
    void operator()(AVFormatContext* ctx) const noexcept { avformat_close_input(&ctx); }
};
struct DictionaryFree {
    void operator()(AVDictionary** dict) const noexcept { av_dict_free(dict); }
};

struct MediaFile {
    std::chrono::steady_clock::time_point deadline;
    std::unique_ptr<AVFormatContext, FormatCloser> ctx;
};

int pastDeadline(void* opaque) {
    return std::chrono::steady_clock::now() > static_cast<const MediaFile*>(opaque)->deadline ? 1 : 0;
}

bool isRegularFile(const Url& url) {
    struct stat st {};
    return ::stat(url.path().c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool validRate(AVRational r) {
    return r.num > 0 && r.den > 0;
}

// A picture stream; cover art stored as a picture stream doesn't count.
bool isPicture(const AVStream* st) {
    return st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
           (st->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0;
}

const AVStream* firstPicture(const AVFormatContext* ctx) {
    for (unsigned i = 0; i < ctx->nb_streams; ++i)
        if (isPicture(ctx->streams[i])) return ctx->streams[i];
    return nullptr;
}

std::optional<double> rateOf(const AVStream* st) {
    const AVRational r = validRate(st->avg_frame_rate) ? st->avg_frame_rate : st->r_frame_rate;
    if (!validRate(r)) return std::nullopt;
    const double fps = av_q2d(r);
    if (!std::isfinite(fps) || fps <= 0 || fps > 1000) return std::nullopt;
    return fps;
}

std::optional<double> secondsOf(std::int64_t ts, AVRational base) {
    if (ts == AV_NOPTS_VALUE || ts <= 0 || !validRate(base)) return std::nullopt;
    const double s = static_cast<double>(ts) * av_q2d(base);
    if (!std::isfinite(s) || s <= 0) return std::nullopt;
    return s;
}

// Whether the headers left out something that the readers need; only then are packets probed.
bool needsStreamInfo(const AVFormatContext* ctx) {
    bool length = ctx->duration != AV_NOPTS_VALUE && ctx->duration > 0;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream* st = ctx->streams[i];
        const AVCodecParameters* par = st->codecpar;
        if (secondsOf(st->duration, st->time_base)) length = true;
        if (par->codec_type == AVMEDIA_TYPE_AUDIO &&
            (par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0))
            return true;
        if (isPicture(st) && (par->width <= 0 || par->height <= 0 || !rateOf(st))) return true;
    }
    return !length;
}

// Nothing for what is not a regular file (a pipe would block, a device never ends), for a file
// that no media demuxer takes, and for one that can't be read before the deadline.
std::unique_ptr<MediaFile> openMedia(const Url& url) {
    if (!isRegularFile(url)) return nullptr;
    // The file protocol by name, so that no part of a path is ever taken for another protocol.
    const std::string target = "file:" + url.path();
    auto media = std::make_unique<MediaFile>();
    media->deadline = std::chrono::steady_clock::now() + kOpenDeadline;

    AVDictionary* options = nullptr;
    const std::unique_ptr<AVDictionary*, DictionaryFree> freeOptions(&options);
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    av_dict_set(&options, "format_whitelist", kMediaFormats, 0);
    av_dict_set(&options, "probesize", kProbeBytes, 0);
    av_dict_set(&options, "analyzeduration", kAnalyzeMicroseconds, 0);

    AVFormatContext* raw = avformat_alloc_context();
    if (!raw) return nullptr;
    raw->interrupt_callback.callback = pastDeadline;
    raw->interrupt_callback.opaque = media.get();
    // On failure the context is freed by the call itself.
    if (avformat_open_input(&raw, target.c_str(), nullptr, &options) < 0) return nullptr;
    media->ctx.reset(raw);

    if (needsStreamInfo(raw)) {
        // Pictures whose headers told all, and streams that are neither sound nor picture, are
        // not read: nothing here needs their packets.
        for (unsigned i = 0; i < raw->nb_streams; ++i) {
            AVStream* st = raw->streams[i];
            const auto type = st->codecpar->codec_type;
            const bool knownPicture =
                isPicture(st) && st->codecpar->width > 0 && st->codecpar->height > 0 && rateOf(st);
            if (knownPicture || (type != AVMEDIA_TYPE_AUDIO && !isPicture(st))) st->discard = AVDISCARD_ALL;
        }
        // A failure leaves what the headers gave, which is all that can be known.
        avformat_find_stream_info(raw, nullptr);
    }
    return media;
}

std::string tag(const AVDictionary* dict, const char* key) {
    const AVDictionaryEntry* e = av_dict_get(dict, key, nullptr, 0);
    return e && e->value ? RiffReader::validText(e->value) : std::string();
}

// ---- text ---------------------------------------------------------------------------------------

std::optional<int> digitsAt(std::string_view s, std::size_t at, std::size_t count) {
    if (at > s.size() || s.size() - at < count) return std::nullopt;
    int value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (s[i] < '0' || s[i] > '9') return std::nullopt;
        value = value * 10 + (s[i] - '0');
    }
    return value;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string_view trimmed(std::string_view s) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!s.empty() && blank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && blank(s.back()))
        s.remove_suffix(1);
    return s;
}

bool startsWithIgnoringCase(const std::string& text, const std::string& prefix) {
    return Files::lowercased(text).starts_with(Files::lowercased(prefix));
}

// "<make> <model>", or the model alone when it already names the make ("Canon" + "Canon EOS R5").
std::optional<std::string> makeAndModel(const std::string& make, const std::string& model) {
    std::string label;
    if (model.empty())
        label = make;
    else if (make.empty() || startsWithIgnoringCase(model, make))
        label = model;
    else
        label = make + " " + model;
    label = RiffReader::validText(label);
    if (label.empty()) return std::nullopt;
    return label;
}

std::string decodeEntities(std::string_view s) {
    static constexpr std::pair<std::string_view, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        bool replaced = false;
        if (s[i] == '&')
            for (const auto& [name, c] : kEntities)
                if (s.substr(i, name.size()) == name) {
                    out.push_back(c);
                    i += name.size();
                    replaced = true;
                    break;
                }
        if (!replaced) out.push_back(s[i++]);
    }
    return out;
}

// The value of attribute `name` inside one tag's text (from "<" up to ">").
std::optional<std::string> attribute(std::string_view tagText, std::string_view name) {
    for (std::size_t pos = tagText.find(name); pos != std::string_view::npos;
         pos = tagText.find(name, pos + 1)) {
        if (pos == 0 || (tagText[pos - 1] != ' ' && tagText[pos - 1] != '\t' && tagText[pos - 1] != '\n' &&
                         tagText[pos - 1] != '\r'))
            continue;
        std::size_t at = pos + name.size();
        while (at < tagText.size() && (tagText[at] == ' ' || tagText[at] == '\t'))
            ++at;
        if (at >= tagText.size() || tagText[at] != '=') continue;
        ++at;
        while (at < tagText.size() && (tagText[at] == ' ' || tagText[at] == '\t'))
            ++at;
        if (at >= tagText.size() || (tagText[at] != '"' && tagText[at] != '\'')) continue;
        const char quote = tagText[at];
        const auto end = tagText.find(quote, at + 1);
        if (end == std::string_view::npos) return std::nullopt;
        return decodeEntities(tagText.substr(at + 1, end - at - 1));
    }
    return std::nullopt;
}

// The text of the start tag of the first element `name` ("<name" followed by a blank, "/" or
// ">"), from `from` on; empty when there is none.
std::string_view startTag(std::string_view xml, std::string_view name, std::size_t from = 0) {
    const std::string open = "<" + std::string(name);
    for (std::size_t pos = xml.find(open, from); pos != std::string_view::npos;
         pos = xml.find(open, pos + 1)) {
        const std::size_t after = pos + open.size();
        if (after >= xml.size()) return {};
        const char c = xml[after];
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != '/' && c != '>') continue;
        const auto end = xml.find('>', after);
        if (end == std::string_view::npos) return {};
        return xml.substr(pos, end - pos + 1);
    }
    return {};
}

// The text between <name> and </name>, first occurrence, trimmed.
std::optional<std::string> elementText(std::string_view xml, std::string_view name) {
    const std::string open = "<" + std::string(name) + ">";
    const std::string close = "</" + std::string(name) + ">";
    const auto start = xml.find(open);
    if (start == std::string_view::npos) return std::nullopt;
    const auto end = xml.find(close, start + open.size());
    if (end == std::string_view::npos) return std::nullopt;
    return decodeEntities(trimmed(xml.substr(start + open.size(), end - start - open.size())));
}

std::optional<int> elementInt(std::string_view xml, std::string_view name) {
    const auto text = elementText(xml, name);
    if (!text) return std::nullopt;
    int value = 0;
    const auto* first = text->data();
    const auto* last = first + text->size();
    const auto [ptr, ec] = std::from_chars(first, last, value);
    if (ec != std::errc() || ptr != last) return std::nullopt;
    return value;
}

// ---- dates ----------------------------------------------------------------------------------------

bool validTime(int hour, int minute, int second) {
    return hour >= 0 && hour < 24 && minute >= 0 && minute < 60 && second >= 0 && second < 60;
}

std::optional<std::chrono::year_month_day> calendarDay(int year, int month, int day) {
    if (year < 1900 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31) return std::nullopt;
    const std::chrono::year_month_day ymd{std::chrono::year{year},
                                          std::chrono::month{static_cast<unsigned>(month)},
                                          std::chrono::day{static_cast<unsigned>(day)}};
    if (!ymd.ok()) return std::nullopt;
    return ymd;
}

// Recorders and cameras keep a wall clock that the operator set where they stood, and write no
// zone beside it (Broadcast WAV has no field for one, file names none either). The machine that
// sorts the shoot is as a rule in that same zone, and the file dates of the same cards are read
// in it too, so reading these clocks as the machine's local time keeps all clocks of a shoot on
// one scale.
std::optional<Date> localDate(int year, int month, int day, int hour, int minute, int second,
                              long micros = 0) {
    if (!calendarDay(year, month, day) || !validTime(hour, minute, second)) return std::nullopt;
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1; // the zone's own rule for that day
    const std::time_t t = std::mktime(&tm);
    if (t == static_cast<std::time_t>(-1)) return std::nullopt;
    return Date(std::chrono::seconds(t)) + std::chrono::microseconds(micros);
}

std::optional<Date> zonedDate(int year, int month, int day, int hour, int minute, int second, long micros,
                              int offsetMinutes) {
    const auto ymd = calendarDay(year, month, day);
    if (!ymd || !validTime(hour, minute, second)) return std::nullopt;
    const auto local = std::chrono::sys_days(*ymd) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                       std::chrono::seconds(second);
    return Date(local - std::chrono::minutes(offsetMinutes)) + std::chrono::microseconds(micros);
}

std::optional<Date> filenameDate(std::string_view name) {
    // (\d{8})_(\d{6})$
    constexpr std::size_t kLength = 15;
    if (name.size() < kLength) return std::nullopt;
    const auto tail = name.substr(name.size() - kLength);
    if (tail[8] != '_') return std::nullopt;
    const auto year = digitsAt(tail, 0, 4), month = digitsAt(tail, 4, 2), day = digitsAt(tail, 6, 2);
    const auto hour = digitsAt(tail, 9, 2), minute = digitsAt(tail, 11, 2), second = digitsAt(tail, 13, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    return localDate(*year, *month, *day, *hour, *minute, *second);
}

// ---- boxes of an MP4/MOV file ---------------------------------------------------------------------

constexpr std::size_t kMaxBoxesPerLevel = 512;
constexpr std::uint64_t kMaxXmlBoxBytes = 4 << 20;
constexpr std::size_t kMaxSidecarBytes = 1 << 20;
constexpr std::string_view kNrtmOpen = "<NonRealTimeMeta";
constexpr std::string_view kNrtmClose = "</NonRealTimeMeta>";

struct Box {
    std::string type;
    std::uint64_t payload = 0; // offset of the contents
    std::uint64_t size = 0;    // bytes of the contents
};

std::uint32_t be32(const std::vector<std::uint8_t>& b, std::size_t at) {
    return (std::uint32_t{b[at]} << 24) | (std::uint32_t{b[at + 1]} << 16) | (std::uint32_t{b[at + 2]} << 8) |
           std::uint32_t{b[at + 3]};
}

// The boxes of one level between `begin` and `end`. A box that claims more than its parent holds
// ends the level.
std::vector<Box> boxes(const ReadOnlyFile& file, std::uint64_t begin, std::uint64_t end) {
    std::vector<Box> out;
    std::uint64_t pos = begin;
    while (out.size() < kMaxBoxesPerLevel && pos < end && end - pos >= 8) {
        const auto h = file.read(pos, 16);
        if (h.size() < 8) break;
        std::uint64_t size = be32(h, 0);
        std::uint64_t header = 8;
        if (size == 1) {
            if (h.size() < 16) break;
            size = (std::uint64_t{be32(h, 8)} << 32) | be32(h, 12);
            header = 16;
        } else if (size == 0) {
            size = end - pos; // to the end of the enclosing space
        }
        if (size < header || size > end - pos) break;
        out.push_back(
            {std::string(reinterpret_cast<const char*>(h.data()) + 4, 4), pos + header, size - header});
        pos += size;
    }
    return out;
}

bool mayHoldXml(const std::string& type) {
    return type == "meta" || type == "uuid" || type == "udta" || type == "XMP_";
}

std::optional<std::string> nrtmIn(const ReadOnlyFile& file, const Box& box) {
    if (box.size > kMaxXmlBoxBytes) return std::nullopt;
    const auto bytes = file.read(box.payload, static_cast<std::size_t>(box.size));
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const auto start = text.find(kNrtmOpen);
    if (start == std::string_view::npos) return std::nullopt;
    const auto close = text.find(kNrtmClose, start);
    if (close == std::string_view::npos) return std::nullopt;
    return RiffReader::validText(text.substr(start, close + kNrtmClose.size() - start));
}

std::optional<std::string> sidecarXml(const Url& url) {
    const Url folder = url.deletingLastPathComponent();
    const std::string base = url.baseName();
    for (const char* suffix : {"M01.XML", "M01.xml", ".XML", ".xml"}) {
        const Url candidate = folder.appending(base + suffix);
        if (candidate == url) continue;
        const auto file = ReadOnlyFile::open(candidate);
        if (!file) continue;
        const auto bytes = file->read(0, kMaxSidecarBytes);
        return RiffReader::validText(
            std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    return std::nullopt;
}

// ---- device labels ----------------------------------------------------------------------------------

std::optional<std::string> containerMakeAndModel(const AVFormatContext* ctx) {
    static constexpr std::pair<const char*, const char*> kKeys[] = {
        {"com.apple.quicktime.make", "com.apple.quicktime.model"},
        {"make", "model"},
        {"com.android.manufacturer", "com.android.model"},
    };
    std::vector<const AVDictionary*> dicts{ctx->metadata};
    if (const AVStream* picture = firstPicture(ctx)) dicts.push_back(picture->metadata);
    for (const AVDictionary* dict : dicts)
        for (const auto& [makeKey, modelKey] : kKeys)
            if (auto label = makeAndModel(tag(dict, makeKey), tag(dict, modelKey))) return label;
    return std::nullopt;
}

// Encoder tags written by editing and encoding software say nothing about the camera.
bool namesSoftware(const std::string& label) {
    static constexpr std::string_view kSoftware[] = {
        "lavf",     "lavc",     "libav",    "ffmpeg",  "handbrake", "x264",     "x265",      "gstreamer",
        "mencoder", "avidemux", "adobe",    "davinci", "final cut", "imovie",   "quicktime", "compressor",
        "shotcut",  "kdenlive", "openshot", "vlc",     "sox",       "audacity", "reaper",    "pro tools",
        "logic",    "isomedia", "gpac",     "mp4box",  "wavelab",   "nero",     "itunes"};
    const std::string lower = Files::lowercased(label);
    return std::any_of(std::begin(kSoftware), std::end(kSoftware),
                       [&](std::string_view s) { return lower.starts_with(s); });
}

std::optional<std::string> encoderLabel(const AVFormatContext* ctx) {
    std::vector<const AVDictionary*> dicts{ctx->metadata};
    for (unsigned i = 0; i < ctx->nb_streams; ++i)
        dicts.push_back(ctx->streams[i]->metadata);
    for (const AVDictionary* dict : dicts) {
        const std::string encoder = tag(dict, "encoder");
        if (!encoder.empty() && !namesSoftware(encoder)) return encoder;
    }
    return std::nullopt;
}

// Clips of one camera at one setting share codec, picture size, rate and sound format.
std::optional<std::string> codecFingerprint(const AVFormatContext* ctx) {
    const AVStream* picture = firstPicture(ctx);
    if (!picture) return std::nullopt;
    const AVCodecParameters* v = picture->codecpar;
    std::string fp = fmt::format("cam_{}_{}x{}", avcodec_get_name(v->codec_id), std::max(0, v->width),
                                 std::max(0, v->height));
    if (const auto fps = rateOf(picture)) fp += fmt::format("_{:g}", std::round(*fps * 100) / 100);
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVCodecParameters* a = ctx->streams[i]->codecpar;
        if (a->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        fp += fmt::format("_{}_{}_{}", avcodec_get_name(a->codec_id), std::max(0, a->sample_rate),
                          std::max(0, a->ch_layout.nb_channels));
        break;
    }
    return fp;
}

// ---- channels -----------------------------------------------------------------------------------------

constexpr int kMaxChannels = 1024;

std::vector<int> ixmlChannelIndices(std::string_view ixml, int channelCount) {
    const auto listStart = ixml.find("<TRACK_LIST>");
    if (listStart == std::string_view::npos) return {};
    const auto listEnd = ixml.find("</TRACK_LIST>", listStart);
    if (listEnd == std::string_view::npos) return {};
    const auto list = ixml.substr(listStart, listEnd - listStart);

    std::vector<int> indices(static_cast<std::size_t>(channelCount), -1);
    int tracks = 0;
    for (std::size_t pos = list.find("<TRACK>"); pos != std::string_view::npos;
         pos = list.find("<TRACK>", pos + 1)) {
        const auto end = list.find("</TRACK>", pos);
        if (end == std::string_view::npos) return {};
        const auto track = list.substr(pos, end - pos);
        if (++tracks > channelCount) return {};
        const auto channel = elementInt(track, "CHANNEL_INDEX");
        const int place = elementInt(track, "INTERLEAVE_INDEX").value_or(tracks);
        if (!channel || *channel < 1 || *channel > kMaxChannels || place < 1 || place > channelCount)
            return {};
        auto& slot = indices[static_cast<std::size_t>(place - 1)];
        if (slot != -1) return {};
        slot = *channel - 1;
    }
    if (tracks != channelCount) return {};
    bool identity = true;
    for (int i = 0; i < channelCount; ++i)
        identity = identity && indices[static_cast<std::size_t>(i)] == i;
    if (identity) return {};
    return indices;
}

std::optional<double> parseRate(std::string_view text) {
    text = trimmed(text);
    double value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr == text.data() || !std::isfinite(value) || value <= 0 || value > 1000)
        return std::nullopt;
    return value;
}

std::optional<int> bcd(unsigned value) {
    if ((value & 0x0F) > 9 || (value >> 4) > 9) return std::nullopt;
    return static_cast<int>((value >> 4) * 10 + (value & 0x0F));
}

} // namespace

// ---- recording clock --------------------------------------------------------------------------------

RecordingClock readRecordingClock(const Url& url) {
    const std::string ext = Files::lowercased(url.pathExtension());
    if (ext == "wav" || ext == "wave")
        if (const auto d = readBWFOriginationDate(url)) return {d, ClockQuality::embedded};
    if (ext == "mov" || ext == "mp4" || ext == "m4v")
        if (const auto d = readSonyXMLDate(url)) return {d, ClockQuality::embedded};
    if (const auto d = dateFromFilename(url.lastPathComponent())) return {d, ClockQuality::filename};
    if (const auto d = readAssetCreationDate(url)) return {d, ClockQuality::asset};
    if (const auto d = fileCreationDate(url.fsPath())) return {d, ClockQuality::filesystem};
    return {};
}

RecordingClock startOfRecording(RecordingClock clock, std::optional<double> durationSeconds) {
    if (clock.quality != ClockQuality::filesystem || !clock.date || !durationSeconds ||
        !std::isfinite(*durationSeconds) || *durationSeconds <= 0)
        return clock;
    // Whole microseconds, the resolution of every date; no take lasts long enough to overflow them.
    const auto length = std::chrono::microseconds(std::llround(std::min(*durationSeconds, 1e12) * 1e6));
    clock.date = *clock.date - length;
    return clock;
}

std::optional<Date> readBWFOriginationDate(const Url& url) {
    const auto wave = RiffReader::read(url);
    if (!wave || !wave->bext) return std::nullopt;
    return parseBWFDate(wave->bext->originationDate, wave->bext->originationTime);
}

std::optional<Date> readSonyXMLDate(const Url& url) {
    const auto xml = sonyNonRealTimeMetaXML(url);
    if (!xml) return std::nullopt;
    // lastUpdate="([^"]+)": the first such attribute with a value.
    constexpr std::string_view key = "lastUpdate=\"";
    for (auto pos = xml->find(key); pos != std::string::npos; pos = xml->find(key, pos + 1)) {
        const auto start = pos + key.size();
        const auto end = xml->find('"', start);
        if (end == std::string::npos) return std::nullopt;
        if (end > start) return parseISO8601Date(std::string_view(*xml).substr(start, end - start));
    }
    return std::nullopt;
}

std::optional<Date> dateFromFilename(std::string_view name) {
    if (const auto d = filenameDate(name)) return d;
    const auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return std::nullopt;
    return filenameDate(name.substr(0, dot));
}

std::optional<Date> readAssetCreationDate(const Url& url) {
    const auto media = openMedia(url);
    if (!media) return std::nullopt;
    const AVFormatContext* ctx = media->ctx.get();
    for (const char* key : {"com.apple.quicktime.creationdate", "creation_time"})
        if (const auto d = parseISO8601Date(tag(ctx->metadata, key))) return d;
    for (unsigned i = 0; i < ctx->nb_streams; ++i)
        if (const auto d = parseISO8601Date(tag(ctx->streams[i]->metadata, "creation_time"))) return d;
    return std::nullopt;
}

std::optional<Date> parseBWFDate(std::string_view date, std::string_view time) {
    date = trimmed(date);
    time = trimmed(time);
    if (date.size() != 10 || time.size() != 8) return std::nullopt;
    if (isDigit(date[4]) || isDigit(date[7]) || isDigit(time[2]) || isDigit(time[5])) return std::nullopt;
    const auto year = digitsAt(date, 0, 4), month = digitsAt(date, 5, 2), day = digitsAt(date, 8, 2);
    const auto hour = digitsAt(time, 0, 2), minute = digitsAt(time, 3, 2), second = digitsAt(time, 6, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    return localDate(*year, *month, *day, *hour, *minute, *second);
}

std::optional<Date> parseISO8601Date(std::string_view text) {
    text = trimmed(text);
    if (text.size() < 19 || text[4] != '-' || text[7] != '-' || text[13] != ':' || text[16] != ':')
        return std::nullopt;
    if (text[10] != 'T' && text[10] != 't' && text[10] != ' ') return std::nullopt;
    const auto year = digitsAt(text, 0, 4), month = digitsAt(text, 5, 2), day = digitsAt(text, 8, 2);
    const auto hour = digitsAt(text, 11, 2), minute = digitsAt(text, 14, 2), second = digitsAt(text, 17, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;

    std::size_t pos = 19;
    long micros = 0;
    if (pos < text.size() && (text[pos] == '.' || text[pos] == ',')) {
        ++pos;
        const std::size_t first = pos;
        long scale = 100000;
        while (pos < text.size() && isDigit(text[pos])) {
            micros += (text[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == first) return std::nullopt;
    }
    if (pos == text.size()) return localDate(*year, *month, *day, *hour, *minute, *second, micros);
    if (text[pos] == 'Z' || text[pos] == 'z') {
        if (pos + 1 != text.size()) return std::nullopt;
        return zonedDate(*year, *month, *day, *hour, *minute, *second, micros, 0);
    }
    if (text[pos] != '+' && text[pos] != '-') return std::nullopt;
    const int sign = text[pos] == '-' ? -1 : 1;
    const auto zone = text.substr(pos + 1);
    std::optional<int> zoneHours = digitsAt(zone, 0, 2), zoneMinutes = 0;
    if (zone.size() == 5 && zone[2] == ':')
        zoneMinutes = digitsAt(zone, 3, 2);
    else if (zone.size() == 4)
        zoneMinutes = digitsAt(zone, 2, 2);
    else if (zone.size() != 2)
        return std::nullopt;
    if (!zoneHours || !zoneMinutes || *zoneHours > 23 || *zoneMinutes > 59) return std::nullopt;
    return zonedDate(*year, *month, *day, *hour, *minute, *second, micros,
                     sign * (*zoneHours * 60 + *zoneMinutes));
}

// ---- what the file holds ------------------------------------------------------------------------------

std::optional<double> readDuration(const Url& url) {
    const auto media = openMedia(url);
    if (!media) return std::nullopt;
    const AVFormatContext* ctx = media->ctx.get();
    std::optional<double> longest;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream* st = ctx->streams[i];
        if (st->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        if (const auto d = secondsOf(st->duration, st->time_base); d && (!longest || *d > *longest))
            longest = d;
    }
    if (longest) return longest;
    if (const auto d = secondsOf(ctx->duration, AVRational{1, AV_TIME_BASE})) return d;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream* st = ctx->streams[i];
        if (const auto d = secondsOf(st->duration, st->time_base); d && (!longest || *d > *longest))
            longest = d;
    }
    return longest;
}

std::optional<float> readFrameRate(const Url& url) {
    const auto media = openMedia(url);
    if (!media) return std::nullopt;
    const AVStream* picture = firstPicture(media->ctx.get());
    if (!picture) return std::nullopt;
    const auto fps = rateOf(picture);
    if (!fps) return std::nullopt;
    return static_cast<float>(*fps);
}

std::optional<VideoSize> readVideoSize(const Url& url) {
    constexpr int kMaxDimension = 1 << 16;
    const auto media = openMedia(url);
    if (!media) return std::nullopt;
    const AVStream* picture = firstPicture(media->ctx.get());
    if (!picture) return std::nullopt;
    const int w = picture->codecpar->width, h = picture->codecpar->height;
    if (w <= 0 || h <= 0 || w > kMaxDimension || h > kMaxDimension) return std::nullopt;
    return VideoSize{w, h};
}

std::optional<int> readChannelCount(const Url& url) {
    const auto media = openMedia(url);
    if (!media) return std::nullopt;
    const AVFormatContext* ctx = media->ctx.get();
    int total = 0;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVCodecParameters* par = ctx->streams[i]->codecpar;
        if (par->codec_type == AVMEDIA_TYPE_AUDIO)
            total += std::clamp(par->ch_layout.nb_channels, 0, kMaxChannels);
    }
    return std::min(total, kMaxChannels);
}

std::vector<int> readAudioChannelIndices(const Url& url, int channelCount) {
    if (channelCount <= 0 || channelCount > kMaxChannels) return {};
    const auto wave = RiffReader::read(url);
    if (!wave || !wave->ixml) return {};
    return ixmlChannelIndices(*wave->ixml, channelCount);
}

std::optional<std::string> readDeviceInfo(const Url& url) {
    const auto media = openMedia(url);
    if (media)
        if (auto label = containerMakeAndModel(media->ctx.get())) return label;
    if (const auto xml = sonyNonRealTimeMetaXML(url))
        if (auto label = xmlDeviceLabel(*xml)) return label;
    if (const auto xml = sidecarXml(url))
        if (auto label = xmlDeviceLabel(*xml)) return label;
    if (const auto wave = RiffReader::read(url); wave && wave->bext && !wave->bext->originator.empty())
        return wave->bext->originator;
    if (!media) return std::nullopt;
    if (auto label = encoderLabel(media->ctx.get())) return label;
    return codecFingerprint(media->ctx.get());
}

std::optional<std::string> xmlDeviceLabel(std::string_view xml) {
    for (std::size_t from = 0;;) {
        const auto device = startTag(xml, "Device", from);
        if (device.empty()) break;
        if (auto label = makeAndModel(RiffReader::validText(attribute(device, "manufacturer").value_or("")),
                                      RiffReader::validText(attribute(device, "modelName").value_or(""))))
            return label;
        from = static_cast<std::size_t>(device.data() - xml.data()) + device.size();
    }
    return makeAndModel(RiffReader::validText(elementText(xml, "Manufacturer").value_or("")),
                        RiffReader::validText(elementText(xml, "ModelName").value_or("")));
}

// ---- timecode -----------------------------------------------------------------------------------------

std::optional<double> readTimecode(const Url& url) {
    if (const auto tc = readMovieTimecode(url)) return tc;
    if (const auto tc = readSonyNRTMTimecode(url)) return tc;
    return readBWFTimecode(url);
}

std::optional<double> readMovieTimecode(const Url& url) {
    const auto media = openMedia(url);
    if (!media) return std::nullopt;
    const AVFormatContext* ctx = media->ctx.get();
    const AVStream* picture = firstPicture(ctx);
    const std::optional<double> pictureRate = picture ? rateOf(picture) : std::nullopt;

    if (const std::string tc = tag(ctx->metadata, "timecode"); !tc.empty() && pictureRate)
        if (const auto s = REDCard::timecodeSeconds(tc, *pictureRate)) return s;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream* st = ctx->streams[i];
        const std::string tc = tag(st->metadata, "timecode");
        if (tc.empty()) continue;
        // A timecode track carries the rate it counts at; elsewhere the picture's rate stands.
        const auto type = st->codecpar->codec_type;
        std::optional<double> rate = (type == AVMEDIA_TYPE_DATA || isPicture(st)) ? rateOf(st) : std::nullopt;
        if (!rate) rate = pictureRate;
        if (!rate) continue;
        if (const auto s = REDCard::timecodeSeconds(tc, *rate)) return s;
    }
    return std::nullopt;
}

std::optional<double> readSonyNRTMTimecode(const Url& url) {
    const auto xml = sonyNonRealTimeMetaXML(url);
    if (!xml) return std::nullopt;
    return nrtmTimecodeSeconds(*xml);
}

std::optional<double> readBWFTimecode(const Url& url) {
    const auto wave = RiffReader::read(url);
    if (!wave || !wave->bext || !wave->format || !wave->bext->timeReference) return std::nullopt;
    const std::uint64_t samples = *wave->bext->timeReference;
    const std::uint32_t rate = wave->format->sampleRate;
    if (samples == 0 || rate == 0) return std::nullopt;
    return static_cast<double>(samples) / static_cast<double>(rate);
}

std::optional<double> nrtmTimecodeSeconds(std::string_view xml) {
    const auto table = startTag(xml, "LtcChangeTable");
    if (table.empty()) return std::nullopt;
    std::optional<double> fps;
    if (const auto tcFps = attribute(table, "tcFps")) fps = parseRate(*tcFps);
    if (!fps)
        if (const auto frame = startTag(xml, "VideoFrame"); !frame.empty())
            if (const auto formatFps = attribute(frame, "formatFps")) {
                // "25p", "59.94i": the number in front of the scan letter.
                std::string_view s = *formatFps;
                std::size_t n = 0;
                while (n < s.size() && (isDigit(s[n]) || s[n] == '.'))
                    ++n;
                fps = parseRate(s.substr(0, n));
            }
    if (!fps) return std::nullopt;

    const std::size_t tableAt = static_cast<std::size_t>(table.data() - xml.data()) + table.size();
    const auto change = startTag(xml, "LtcChange", tableAt);
    if (change.empty()) return std::nullopt;
    const auto value = attribute(change, "value");
    if (!value || value->size() != 8) return std::nullopt;
    std::array<unsigned, 4> b{};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto [ptr, ec] = std::from_chars(value->data() + 2 * i, value->data() + 2 * i + 2, b[i], 16);
        if (ec != std::errc() || ptr != value->data() + 2 * i + 2) return std::nullopt;
    }
    // Frames, seconds, minutes, hours in that order, each a BCD byte with flag bits on top;
    // bit 6 of the frames byte marks drop-frame counting.
    const bool dropFrame = (b[0] & 0x40) != 0;
    const auto frames = bcd(b[0] & 0x3F), seconds = bcd(b[1] & 0x7F), minutes = bcd(b[2] & 0x7F),
               hours = bcd(b[3] & 0x3F);
    if (!frames || !seconds || !minutes || !hours) return std::nullopt;
    const std::string label =
        fmt::format("{:02}:{:02}:{:02}{}{:02}", *hours, *minutes, *seconds, dropFrame ? ';' : ':', *frames);
    return REDCard::timecodeSeconds(label, *fps);
}

std::optional<std::string> sonyNonRealTimeMetaXML(const Url& url) {
    const auto file = ReadOnlyFile::open(url);
    if (!file) return std::nullopt;
    const auto top = boxes(*file, 0, file->size());
    // Only a file that opens like an ISO media file is walked; anything else is not one.
    static constexpr std::string_view kFirstBoxes[] = {"ftyp", "moov", "mdat", "free", "skip", "wide",
                                                       "uuid", "meta", "pnot", "udta", "XMP_"};
    if (top.empty() ||
        std::find(std::begin(kFirstBoxes), std::end(kFirstBoxes), top.front().type) == std::end(kFirstBoxes))
        return std::nullopt;
    for (const Box& box : top) {
        if (mayHoldXml(box.type)) {
            if (auto xml = nrtmIn(*file, box)) return xml;
        } else if (box.type == "moov") {
            for (const Box& child : boxes(*file, box.payload, box.payload + box.size))
                if (mayHoldXml(child.type))
                    if (auto xml = nrtmIn(*file, child)) return xml;
        }
    }
    return std::nullopt;
}

} // namespace trelvane::AudioMetadata
