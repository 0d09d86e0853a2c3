// SPDX-License-Identifier: GPL-3.0-or-later
// `trelvane probe FILE...`: what the metadata readers find in each file, as the metadata load
// would merge it into the clip. It is how a user sees why a clip landed where it did: which clock
// it had and how far that was trusted, which device it was counted to, which timecode it carried.
#include "Trelvane/cli/Commands.hpp"
#include "Trelvane/session/SessionJson.hpp"
#include "TrelvaneEngine/media/AudioMetadata.hpp"
#include "TrelvaneEngine/media/R3DHeader.hpp"
#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/Files.hpp"
#include "TrelvaneEngine/support/Url.hpp"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace trelvane::cli {

namespace {

struct Probe {
    Url url;
    std::optional<double> duration;
    std::optional<float> frameRate;
    std::optional<std::string> device;
    AudioMetadata::RecordingClock clock;
    std::optional<int> channels;
    std::vector<int> channelIndices;
    std::optional<AudioMetadata::VideoSize> size;
    std::optional<double> timecode;
    std::string timecodeSource; // which reader of the chain gave it
};

Probe probe(const Url& url) {
    Probe p;
    p.url = url;
    p.duration = AudioMetadata::readDuration(url);
    p.frameRate = AudioMetadata::readFrameRate(url);
    p.device = AudioMetadata::readDeviceInfo(url);
    p.clock = AudioMetadata::startOfRecording(AudioMetadata::readRecordingClock(url), p.duration);
    p.channels = AudioMetadata::readChannelCount(url);
    // The load stage reads the indices with the count it merges: 1 when the count is unknown.
    p.channelIndices = AudioMetadata::readAudioChannelIndices(url, p.channels.value_or(1));
    p.size = AudioMetadata::readVideoSize(url);
    if ((p.timecode = AudioMetadata::readMovieTimecode(url)))
        p.timecodeSource = "movie";
    else if ((p.timecode = AudioMetadata::readSonyNRTMTimecode(url)))
        p.timecodeSource = "camera-xml";
    else if ((p.timecode = AudioMetadata::readBWFTimecode(url)))
        p.timecodeSource = "bext";
    return p;
}

// A float rate as its decimal reading (29.97, not 29.969999313354492).
double rateValue(float fps) {
    return std::round(static_cast<double>(fps) * 1000.0) / 1000.0;
}

std::string clockText(double seconds) {
    const auto ms = static_cast<long long>(std::llround(seconds * 1000.0));
    return fmt::format("{:02}:{:02}:{:02}.{:03}", ms / 3'600'000, ms / 60'000 % 60, ms / 1000 % 60,
                       ms % 1000);
}

nlohmann::json toJson(const Probe& p) {
    using nlohmann::json;
    json o = json::object();
    SessionJson::setPath(o, "path", p.url.path());
    o["duration"] = p.duration ? json(*p.duration) : json(nullptr);
    o["frameRate"] = p.frameRate ? json(rateValue(*p.frameRate)) : json(nullptr);
    o["deviceName"] = p.device ? json(*p.device) : json(nullptr);
    o["recordingDate"] = p.clock.date ? json(iso8601(*p.clock.date)) : json(nullptr);
    o["clockQuality"] = std::string(rawName(p.clock.quality));
    o["channelCount"] = p.channels ? json(*p.channels) : json(nullptr);
    o["audioChannelIndices"] = p.channelIndices;
    o["pixelWidth"] = p.size ? json(p.size->width) : json(nullptr);
    o["pixelHeight"] = p.size ? json(p.size->height) : json(nullptr);
    o["startTimecode"] = p.timecode ? json(*p.timecode) : json(nullptr);
    o["timecodeSource"] = p.timecode ? json(p.timecodeSource) : json(nullptr);
    return o;
}

void printText(const Probe& p) {
    constexpr const char* kNone = "-";
    const auto line = [](const char* label, const std::string& value) {
        std::cout << fmt::format("  {:<17}{}\n", label, value);
    };
    std::cout << terminalSafe(p.url.path()) << '\n';
    line("duration", p.duration ? fmt::format("{:.3f} s", *p.duration) : kNone);
    line("frame rate", p.frameRate ? fmt::format("{:g} fps", rateValue(*p.frameRate)) : kNone);
    line("device", p.device ? terminalSafe(*p.device) : kNone);
    line("clock", p.clock.date ? fmt::format("{} ({})", iso8601(*p.clock.date), rawName(p.clock.quality))
                               : fmt::format("none ({})", rawName(p.clock.quality)));
    line("channels", p.channels ? std::to_string(*p.channels) : kNone);
    std::string indices = "all";
    if (!p.channelIndices.empty()) indices = fmt::format("{}", fmt::join(p.channelIndices, ", "));
    line("channel indices", indices);
    line("picture size", p.size ? fmt::format("{}x{}", p.size->width, p.size->height) : kNone);
    line("timecode",
         p.timecode ? fmt::format("{} ({:.3f} s, {})", clockText(*p.timecode), *p.timecode, p.timecodeSource)
                    : kNone);
}

// Why the file can't be probed at all, or nothing.
std::optional<std::string> problemWith(const Url& url) {
    struct stat st {};
    if (::stat(url.fsPath().c_str(), &st) != 0)
        return errno == ENOENT ? "no such file" : std::strerror(errno);
    if (S_ISDIR(st.st_mode)) return "a folder, not a file";
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    if (::access(url.fsPath().c_str(), R_OK) != 0) return std::strerror(errno);
    if (st.st_size == 0) return "an empty file";
    return std::nullopt;
}

// A file the container readers can open, or a RED take's picture file, which they can't.
bool isMedia(const Url& url, const Probe& p) {
    return p.channels.has_value() ||
           (Files::lowercased(url.pathExtension()) == "r3d" && R3DHeader::read(url));
}

} // namespace

void addProbeCommand(CLI::App& app, ProbeOptions& options) {
    auto* cmd =
        app.add_subcommand("probe", "Print what the metadata readers find in media files")->group("Commands");
    cmd->add_option("FILE", options.files, "Media files")->required()->option_text("...");
    cmd->add_flag("--json", options.json, "Print one JSON object per file, in an array");
}

int runProbe(const ProbeOptions& options, const CommonOptions&) {
    // Every file that can be probed is printed; each one that can't is named with its reason.
    bool failed = false;
    std::vector<Probe> probes;
    for (const auto& f : options.files) {
        const Url url = Url::fromPath(f);
        auto problem = problemWith(url);
        if (!problem) {
            Probe p = probe(url);
            if (isMedia(url, p))
                probes.push_back(std::move(p));
            else
                problem = "not a media file Trelvane can read";
        }
        if (problem) {
            std::cerr << "trelvane: " << *problem << ": " << terminalSafe(f) << '\n';
            failed = true;
        }
    }

    if (options.json) {
        nlohmann::json all = nlohmann::json::array();
        for (const auto& p : probes)
            all.push_back(toJson(p));
        std::cout << all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    } else {
        for (std::size_t i = 0; i < probes.size(); ++i) {
            if (i > 0) std::cout << '\n';
            printText(probes[i]);
        }
    }
    return failed ? kExitFailure : kExitOK;
}

} // namespace trelvane::cli
