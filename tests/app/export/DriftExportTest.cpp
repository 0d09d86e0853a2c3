// SPDX-License-Identifier: GPL-3.0-or-later
// Sound between frames and clock drift in the exports, read back from each document: FCPXML and
// OTIO keep a recorder on its sample, every format stretches a drifting clip so that its end lines
// up, FCP7 says how far its frames moved the sound, and a drift too small to matter changes nothing.
#include "TestSupport.hpp"
#include "Trelvane/export/ExportFlow.hpp"
#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/FCPXMLExporter.hpp"
#include "Trelvane/export/OTIOExporter.hpp"
#include "app/export/ExportFixtures.hpp"
#include "app/export/XmlCheck.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>

using namespace trelvane;
using nlohmann::json;

namespace {

constexpr double kHalfSample = 0.5 / 48000;

// A camera whose clock runs fast and an hour-long recording whose clock runs slow, both placed
// between frames, and a short take of the same recorder between frames without drift.
std::vector<TrackSource> driftSession() {
    auto cam = test::exportClip("/shoot/Cam/LONG.MOV", 5.0, 3600.0);
    cam.frameRate = 25;
    cam.pixelWidth = 1920, cam.pixelHeight = 1080;
    cam.driftPPM = -80;
    auto rec = test::exportClip("/shoot/Sound/LONG.WAV", 12.3456789, 3600.0);
    rec.driftPPM = 120;
    const auto take = test::exportClip("/shoot/Sound/SHORT.WAV", 3700.0101, 10.0);
    return {test::exportTrack("Cam", SourceType::video, {cam}),
            test::exportTrack("Recorder", SourceType::audio, {rec, take})};
}

const ClipItem& clipNamed(const std::vector<TrackSource>& sources, const std::string& name) {
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            if (clip.url.lastPathComponent() == name) return clip;
    throw std::runtime_error("no clip " + name);
}

// "1021/1000s", "5s" or "0s" in seconds.
double seconds(const std::string& time) {
    static const std::regex rational(R"((\d+)(?:/(\d+))?s)");
    std::smatch m;
    if (!std::regex_match(time, m, rational)) throw std::runtime_error("not a time: " + time);
    return std::stod(m[1]) / (m[2].matched ? std::stod(m[2]) : 1.0);
}

// The attributes and the time map of the first asset-clip of the named file.
struct AssetClip {
    double offset = 0, duration = 0;
    std::vector<std::pair<double, double>> timepts; // time, value
};

AssetClip assetClip(const std::string& xml, const std::string& name) {
    const std::regex line("<asset-clip [^>]*offset=\"([^\"]+)\" name=\"" + name +
                          R"re(" duration="([^"]+)"[^>]*>((?:\s*<timeMap[^>]*>(?:\s*<timept [^>]*>)*)?))re");
    std::smatch m;
    if (!std::regex_search(xml, m, line)) throw std::runtime_error("no asset-clip " + name);
    AssetClip clip{seconds(m[1]), seconds(m[2]), {}};
    const std::string map = m[3];
    const std::regex point(R"re(<timept time="([^"]+)" value="([^"]+)")re");
    for (std::sregex_iterator p(map.begin(), map.end(), point), end; p != end; ++p)
        clip.timepts.emplace_back(seconds((*p)[1]), seconds((*p)[2]));
    return clip;
}

// Where each clip of the named file starts on its OTIO track, how long it runs there (in seconds),
// and its effects; pictures first, as the tracks come.
struct OtioClip {
    double start = 0, duration = 0, rate = 0;
    json effects;
};

std::vector<OtioClip> otioClips(const json& doc, const std::string& name) {
    std::vector<OtioClip> found;
    for (const auto& track : doc["tracks"]["children"]) {
        double at = 0;
        for (const auto& item : track["children"]) {
            const auto& d = item["source_range"]["duration"];
            const double length = d["value"].get<double>() / d["rate"].get<double>();
            if (item["name"] == name) found.push_back({at, length, d["rate"].get<double>(), item["effects"]});
            at += length;
        }
    }
    return found;
}

// The first timeline clip item of the named file in an FCP7 document: its numbers and its speed.
struct Fcp7Item {
    int start = 0, in = 0, out = 0;
    std::optional<double> speed;
};

std::string between(const std::string& text, const std::string& open, const std::string& close,
                    std::size_t from = 0) {
    const auto a = text.find(open, from);
    if (a == std::string::npos) return {};
    const auto b = text.find(close, a + open.size());
    return text.substr(a + open.size(), b - a - open.size());
}

Fcp7Item fcp7Item(const std::string& xml, const std::string& name) {
    for (auto at = xml.find("<clipitem id=\"clipitem-"); at != std::string::npos;
         at = xml.find("<clipitem id=\"clipitem-", at + 1)) {
        const std::string item = xml.substr(at, xml.find("</clipitem>", at) - at);
        if (between(item, "<name>", "</name>") != name) continue;
        Fcp7Item out{std::stoi(between(item, "<start>", "</start>")),
                     std::stoi(between(item, "<in>", "</in>")), std::stoi(between(item, "<out>", "</out>")),
                     std::nullopt};
        if (const auto speed = item.find("<parameterid>speed</parameterid>"); speed != std::string::npos)
            out.speed = std::stod(between(item, "<value>", "</value>", speed));
        return out;
    }
    throw std::runtime_error("no clip item " + name);
}

} // namespace

TEST(DriftExport, FcpxmlPlacesSoundOnItsSampleAndStretchesDriftingClips) {
    const auto dtd = test::fcpxmlDtd();
    TRELVANE_REQUIRE_FCPXML_DTD(dtd)
    test::TempDir dir;
    const auto session = driftSession();
    for (const double fps : {25.0, 29.97}) {
        SCOPED_TRACE(fps);
        const double frame = 1.0 / FCP7Exporter::rateInfo(fps).effectiveRate();
        const std::string xml = FCPXMLExporter::build(session, fps, ChannelLayout::perChannel);
        EXPECT_TRUE(test::xmllintAccepts(dir.file("drift.fcpxml", xml), dtd.string())) << xml;

        const ClipItem& take = clipNamed(session, "SHORT.WAV");
        const auto short_ = assetClip(xml, "SHORT.WAV");
        EXPECT_NEAR(short_.offset, take.startOffset, kHalfSample);
        EXPECT_TRUE(short_.timepts.empty());

        for (const char* name : {"LONG.WAV", "LONG.MOV"}) {
            SCOPED_TRACE(name);
            const ClipItem& clip = clipNamed(session, name);
            const double speed = *clip.driftSpeed(frame);
            const auto read = assetClip(xml, name);
            const bool picture = clip.url.pathExtension() == "MOV";
            // A picture stays on its frame; sound lands on its sample.
            const double placed = picture ? std::round(clip.startOffset / frame) * frame : clip.startOffset;
            EXPECT_NEAR(read.offset, placed, picture ? 1e-9 : kHalfSample);
            EXPECT_NEAR(read.duration, clip.timelineDuration(frame), frame / 2);
            ASSERT_EQ(read.timepts.size(), 2u);
            EXPECT_EQ(read.timepts[0], std::make_pair(0.0, 0.0));
            EXPECT_DOUBLE_EQ(read.timepts[1].first, read.duration);
            EXPECT_NEAR(read.timepts[1].second, clip.duration, frame / 2);
            // The rate the map plays at is the speed that cancels the drift, to a sample (of
            // sound) or a frame (of picture) over the hour.
            EXPECT_NEAR(read.timepts[1].second / read.timepts[1].first, speed,
                        (picture ? frame : 1.0 / 48000) / clip.duration);
        }
    }
}

TEST(DriftExport, OtioCountsSoundInSamplesAndWarpsDriftingClips) {
    const auto session = driftSession();
    const double fps = 23.976;
    const double frame = 1.0 / FCP7Exporter::rateInfo(fps).effectiveRate();
    const json doc = OTIOExporter::document(session, fps, ChannelLayout::mixed);

    const auto take = otioClips(doc, "SHORT.WAV").at(0);
    EXPECT_EQ(take.rate, 48000);
    EXPECT_NEAR(take.start, clipNamed(session, "SHORT.WAV").startOffset, kHalfSample);
    EXPECT_TRUE(take.effects.empty());

    // The camera's picture (on frames) and its sound (in samples) are stretched alike.
    for (const char* name : {"LONG.WAV", "LONG.MOV"}) {
        SCOPED_TRACE(name);
        const ClipItem& clip = clipNamed(session, name);
        const auto clips = otioClips(doc, name);
        EXPECT_EQ(clips.size(), clip.url.pathExtension() == "MOV" ? 2u : 1u);
        for (const auto& read : clips) {
            const double unit = 1.0 / read.rate;
            EXPECT_NEAR(read.start, clip.startOffset, unit / 2);
            EXPECT_NEAR(read.duration, clip.timelineDuration(frame), unit / 2);
            ASSERT_EQ(read.effects.size(), 1u);
            EXPECT_EQ(read.effects[0]["OTIO_SCHEMA"], "LinearTimeWarp.1");
            EXPECT_EQ(read.effects[0]["time_scalar"].get<double>(), *clip.driftSpeed(frame));
        }
    }
}

TEST(DriftExport, Fcp7RemapsDriftingClipsOnFramesAndSaysHowFarItMovedTheSound) {
    const auto session = driftSession();
    const struct {
        ExportStyle style;
        double fps;
    } cases[] = {{ExportStyle::premiere, 25}, {ExportStyle::resolve, 29.97}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fps);
        const auto ri = FCP7Exporter::rateInfo(c.fps);
        const std::string xml = FCP7Exporter::buildXML(session, c.fps, c.style, ChannelLayout::perChannel);
        for (const char* name : {"LONG.WAV", "LONG.MOV"}) {
            SCOPED_TRACE(name);
            const ClipItem& clip = clipNamed(session, name);
            const auto item = fcp7Item(xml, name);
            EXPECT_EQ(item.start, ri.frames(clip.startOffset));
            EXPECT_EQ(item.out - item.in, ri.frames(clip.timelineDuration(1.0 / ri.effectiveRate())));
            ASSERT_TRUE(item.speed);
            // Whole frames at both ends: the speed is good to one frame over the clip.
            EXPECT_NEAR(*item.speed, 100 * *clip.driftSpeed(1.0 / ri.effectiveRate()),
                        100.0 / (item.out - item.in));
            EXPECT_NEAR(*item.speed * (item.out - item.in) / 100, ri.frames(clip.duration), 0.5);
        }
        EXPECT_FALSE(fcp7Item(xml, "SHORT.WAV").speed);
    }

    // 19.3 ms, 7 ms and nothing at 25 fps; no line where nothing moves, nor for the other targets.
    ExportSummary summary;
    summary.soundOffsets = {0.0193, 1.007, 2.0};
    EXPECT_EQ(summary.snapLine(ExportTarget::premiere, 25),
              "audio snapped to frames: up to 19.3 ms (mean 8.8 ms)");
    EXPECT_TRUE(summary.snapLine(ExportTarget::resolve, 25));
    EXPECT_FALSE(summary.snapLine(ExportTarget::finalCut, 25));
    EXPECT_FALSE(summary.snapLine(ExportTarget::otio, 25));
    summary.soundOffsets = {0.0004, 3.0};
    EXPECT_FALSE(summary.snapLine(ExportTarget::premiere, 25));
    // Only sound that was heard counts.
    auto silent = driftSession();
    for (auto& track : silent)
        for (auto& clip : track.clips)
            clip.audioUsability = AudioUsability::silent;
    EXPECT_TRUE(makeExportSummary(silent).soundOffsets.empty());
}

// A drift that moves the end by less than a quarter of a frame, or that is no speed at all (a
// damaged figure), leaves every document as it was.
TEST(DriftExport, ADriftUnderAQuarterFrameOrUnusableChangesNothing) {
    auto plain = test::exportSession();
    auto drifting = plain;
    const double unusable[] = {-1e6, -3e6, std::nan("")};
    std::size_t n = 0;
    for (auto& track : drifting)
        for (auto& clip : track.clips)
            // 4 ms over the clip: under a quarter of the shortest frame offered (4.17 ms at 59.94).
            clip.driftPPM = n < 3 ? unusable[n++] : 4e-3 / clip.duration * 1e6;
    for (const double fps : {23.976, 25.0, 59.94}) {
        SCOPED_TRACE(fps);
        for (const auto style : {ExportStyle::premiere, ExportStyle::resolve})
            EXPECT_EQ(FCP7Exporter::buildXML(drifting, fps, style, ChannelLayout::perChannel),
                      FCP7Exporter::buildXML(plain, fps, style, ChannelLayout::perChannel));
        EXPECT_EQ(FCPXMLExporter::build(drifting, fps, ChannelLayout::perChannel),
                  FCPXMLExporter::build(plain, fps, ChannelLayout::perChannel));
        EXPECT_EQ(OTIOExporter::build(drifting, fps, ChannelLayout::mixed),
                  OTIOExporter::build(plain, fps, ChannelLayout::mixed));
    }
}
