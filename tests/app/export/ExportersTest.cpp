// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/FCPXMLExporter.hpp"
#include "Trelvane/export/OTIOExporter.hpp"
#include "app/export/ExportFixtures.hpp"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <map>
#include <memory>
#include <set>
#include <tuple>

using namespace trelvane;
using trelvane::test::exportSession;

namespace {

using Doc = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

Doc parse(const std::string& text) {
    return Doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), "doc.xml", "UTF-8", XML_PARSE_NONET),
               &xmlFreeDoc);
}

std::string prop(xmlNode* n, const char* name) {
    xmlChar* v = xmlGetProp(n, reinterpret_cast<const xmlChar*>(name));
    std::string s = v ? reinterpret_cast<const char*>(v) : "";
    xmlFree(v);
    return s;
}
std::string text(xmlNode* n) {
    xmlChar* v = xmlNodeGetContent(n);
    std::string s = v ? reinterpret_cast<const char*>(v) : "";
    xmlFree(v);
    return s;
}
bool is(xmlNode* n, const char* name) {
    return n->type == XML_ELEMENT_NODE && std::string(reinterpret_cast<const char*>(n->name)) == name;
}
xmlNode* child(xmlNode* n, const char* name) {
    for (xmlNode* c = n->children; c; c = c->next)
        if (is(c, name)) return c;
    return nullptr;
}
template <typename F> void walk(xmlNode* n, F&& f) {
    for (; n; n = n->next) {
        if (n->type == XML_ELEMENT_NODE) f(n);
        walk(n->children, f);
    }
}

std::string percentDecode(const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

bool hasLine(const std::string& doc, const std::string& line) {
    return doc.find("\n" + line + "\n") != std::string::npos;
}

// Every clip of the session, by the file the document names for it, with its position in seconds.
std::multimap<std::string, double> expectedPositions(const std::vector<TrackSource>& sources) {
    std::multimap<std::string, double> m;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            m.emplace((c.pictureURL ? *c.pictureURL : c.url).path(), c.startOffset);
    return m;
}

void expectAllRecovered(const std::vector<TrackSource>& sources,
                        const std::multimap<std::string, double>& found, double fps) {
    for (const auto& [path, start] : expectedPositions(sources)) {
        const auto [lo, hi] = found.equal_range(path);
        bool near = false;
        for (auto it = lo; it != hi; ++it)
            near = near || std::fabs(it->second - start) <= 1.0 / fps + 1e-9;
        EXPECT_TRUE(near) << path << " at " << start;
    }
}

} // namespace

TEST(FCP7Exporter, RatesFramesAndDropFrame) {
    using namespace FCP7Exporter;
    EXPECT_EQ(rateInfo(29.97).timebase, 30);
    EXPECT_TRUE(rateInfo(29.97).ntsc);
    EXPECT_FALSE(rateInfo(29.99).ntsc);
    EXPECT_TRUE(rateInfo(59.94).ntsc);
    EXPECT_EQ(rateInfo(59.94).timebase, 60);
    EXPECT_EQ(rateInfo(50).timebase, 50);
    EXPECT_FALSE(rateInfo(50).ntsc);
    EXPECT_EQ(rateInfo(51).timebase, 60);
    EXPECT_TRUE(rateInfo(51).ntsc);
    EXPECT_EQ(rateInfo(48).timebase, 50);
    EXPECT_TRUE(rateInfo(15).ntsc);
    EXPECT_EQ(rateInfo(15).timebase, 24);
    EXPECT_EQ((RateInfo{30, true}).frames(1.0), 30);
    EXPECT_EQ((RateInfo{25, false}).frames(std::nan("")), 0);
    EXPECT_EQ((RateInfo{25, false}).frames(1e300), 1'000'000'000);
    const auto a = framesToDropFrame30(1800);
    EXPECT_EQ(a.hours * 1000000 + a.minutes * 10000 + a.seconds * 100 + a.frames, 10002);
    const auto b = framesToDropFrame30(17982);
    EXPECT_EQ(b.minutes, 10);
    EXPECT_EQ(b.seconds + b.frames + b.hours, 0);
    EXPECT_EQ(framesToDropFrame30(-5).frames, 0);
}

TEST(FCP7Exporter, PlansNumberFilesMastersAndTracks) {
    using namespace FCP7Exporter;
    TrackSource v1, v2;
    v1.clips = {test::exportClip("/x/same.mov", 0, 10)};
    v2.clips = {test::exportClip("/x/same.mov", 0, 10, 6)};
    auto plans = makePlans({v1, v2}, {}, ChannelLayout::perChannel);
    ASSERT_EQ(plans.size(), 2u);
    EXPECT_EQ(plans[0].fileID, plans[1].fileID);
    EXPECT_NE(plans[0].masterClipID, plans[1].masterClipID);
    // A camera clip without separate picture counts two channels, whatever the file holds.
    EXPECT_EQ(plans[1].audioTrackIdxs, (std::vector<int>{3, 4}));
    EXPECT_EQ(plans[1].channelCount, 2);

    const auto mixed = makePlans({v1}, {exportSession()[2]}, ChannelLayout::mixed);
    for (const auto& p : mixed) {
        EXPECT_FALSE(p.ch2ItemID);
        EXPECT_EQ(p.audioItemIDs.size(), 1u);
    }
    const auto session = exportSession();
    const auto per = makePlans({session[1]}, {session[2]}, ChannelLayout::perChannel);
    ASSERT_EQ(per.size(), 3u);
    EXPECT_EQ(per[0].pictureMasterID, per[0].masterClipID + 1);
    EXPECT_NE(per[0].pictureFileID, per[0].fileID);
    EXPECT_EQ(per[1].audioTrackIdxs, (std::vector<int>{3, 4, 5, 6}));
    EXPECT_EQ(per[1].audioSourceIndex, 0);
}

TEST(FCP7Exporter, PictureTimingAndReel) {
    using namespace FCP7Exporter;
    ClipItem c = test::exportClip("/x/A001/take.wav", 0, 40.0 + 0.512);
    c.pictureURL = Url::fromPath("/x/A001/take.R3D");
    c.pictureFrames = 1000;
    c.recordFrameRate = 25;
    auto t = pictureTiming(c, {25, false});
    ASSERT_TRUE(t);
    EXPECT_EQ(t->timelineFrames, 1000);
    EXPECT_FALSE(t->speed);
    c.recordFrameRate = 1000.0f / (998.0f / 25.0f);
    t = pictureTiming(c, {25, false});
    ASSERT_TRUE(t && t->speed);
    EXPECT_EQ(t->timelineFrames, 998);
    EXPECT_NEAR(*t->speed, 100.2004, 1e-4);
    EXPECT_EQ(reelName(c), "A001");
    c.pictureURL = c.url;
    EXPECT_FALSE(pictureTiming(c, {25, false}));
}

TEST(FCP7Exporter, DocumentsParseAndEveryReferenceResolves) {
    const auto sources = exportSession();
    for (const auto style : {ExportStyle::premiere, ExportStyle::resolve})
        for (const auto layout : {ChannelLayout::perChannel, ChannelLayout::mixed}) {
            SCOPED_TRACE(static_cast<int>(style) * 10 + static_cast<int>(layout));
            const std::string xml = FCP7Exporter::buildXML(sources, 25, style, layout);
            const Doc doc = parse(xml);
            ASSERT_TRUE(doc) << xml.substr(0, 2000);
            xmlNode* root = xmlDocGetRootElement(doc.get());
            std::set<std::string> clipIDs, fullFiles, itemIDs;
            std::map<std::string, int> fullCount;
            std::map<std::string, std::string> pathOfFile;
            walk(root, [&](xmlNode* n) {
                if (is(n, "clip")) clipIDs.insert(prop(n, "id"));
                if (is(n, "clipitem")) {
                    EXPECT_TRUE(itemIDs.insert(prop(n, "id")).second);
                }
                if (is(n, "file") && child(n, "pathurl")) {
                    ++fullCount[prop(n, "id")];
                    pathOfFile[prop(n, "id")] = text(child(n, "pathurl"));
                }
            });
            for (const auto& [id, count] : fullCount)
                EXPECT_EQ(count, 1) << id;
            xmlNode* sequence = nullptr;
            walk(root, [&](xmlNode* n) {
                if (is(n, "sequence")) sequence = n;
                if (is(n, "masterclipid")) {
                    EXPECT_TRUE(clipIDs.count(text(n))) << text(n);
                }
                if (is(n, "file")) {
                    EXPECT_TRUE(pathOfFile.count(prop(n, "id"))) << prop(n, "id");
                }
                if (is(n, "linkclipref")) {
                    EXPECT_TRUE(itemIDs.count(text(n))) << text(n);
                }
            });
            ASSERT_NE(sequence, nullptr);
            // Clip items sit where the clips do, in frames; each names its file.
            std::multimap<std::string, double> found;
            int fullInSequence = 0;
            walk(sequence->children, [&](xmlNode* n) {
                if (!is(n, "clipitem")) return;
                xmlNode* file = child(n, "file");
                ASSERT_NE(file, nullptr);
                fullInSequence += child(file, "pathurl") != nullptr;
                const int start = std::atoi(text(child(n, "start")).c_str());
                const int end = std::atoi(text(child(n, "end")).c_str());
                EXPECT_EQ(end - start, std::atoi(text(child(n, "out")).c_str()));
                std::string url = pathOfFile[prop(file, "id")];
                ASSERT_TRUE(url.starts_with("file://localhost"));
                found.emplace(percentDecode(url.substr(16)), start / 25.0);
            });
            if (style == ExportStyle::premiere) {
                EXPECT_EQ(fullInSequence, 0);
            }
            if (style == ExportStyle::resolve) {
                EXPECT_EQ(fullInSequence, static_cast<int>(fullCount.size()));
            }
            expectAllRecovered(sources, found, 25);
        }
}

TEST(FCP7Exporter, StructureLinesLabelsAndEscaping) {
    const auto sources = exportSession();
    const std::string xml =
        FCP7Exporter::buildXML(sources, 25, ExportStyle::premiere, ChannelLayout::perChannel);
    EXPECT_TRUE(xml.starts_with(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE xmeml>\n<xmeml version=\"4\">\n"));
    EXPECT_TRUE(hasLine(xml, "    <name>Trelvane</name>"));
    EXPECT_TRUE(hasLine(xml, "        <clipitem id=\"clipitem-1\">"));
    EXPECT_TRUE(hasLine(xml, "          <masterclipid>masterclip-1</masterclipid>"));
    EXPECT_TRUE(hasLine(xml, "          <in>0</in>"));
    EXPECT_TRUE(hasLine(xml, "        <enabled>TRUE</enabled>"));
    EXPECT_TRUE(hasLine(xml, "            <label2>Forest</label2>"));
    EXPECT_TRUE(hasLine(xml, "            <label2>Mango</label2>"));
    EXPECT_TRUE(hasLine(xml, "            <label2>Rose</label2>"));
    EXPECT_TRUE(hasLine(xml, "      <numOutputChannels>2</numOutputChannels>"));
    EXPECT_NE(
        xml.find("MZ.TrackTargeted=\"1\" PannerCurrentValue=\"0.5\" PannerIsInverted=\"true\" "
                 "PannerStartKeyframe=\"-91445760000000000,0.5,0,0,0,0,0,0\" PannerName=\"Balance\" "
                 "currentExplodedTrackIndex=\"1\" totalExplodedTrackCount=\"2\" premiereTrackType=\"Mono\">"),
        std::string::npos);
    EXPECT_NE(xml.find("MZ.TrackTargeted=\"0\" PannerCurrentValue"), std::string::npos);
    // 250 frames recorded at 50 fill 5 s of timeline: played at double speed.
    EXPECT_TRUE(hasLine(xml, "                <value>200.000</value>"));
    // Names and URLs keep their special characters.
    EXPECT_NE(xml.find("<name>A001 &quot;take&quot; &lt;1&gt;.MOV</name>"), std::string::npos);
    EXPECT_NE(xml.find("<name>Caf\xC3\xA9 100% &amp; more.MOV</name>"), std::string::npos);
    EXPECT_NE(xml.find("file://localhost/shoot/Card01/Caf%C3%A9%20100%25%20&amp;%20more.MOV"),
              std::string::npos);
    EXPECT_NE(xml.find("<name>Cam A &amp; B</name>"), std::string::npos);
    // A silent clip carries no label at all.
    const std::string mixed = FCP7Exporter::buildXML(sources, 25, ExportStyle::resolve, ChannelLayout::mixed);
    EXPECT_NE(mixed.find("currentExplodedTrackIndex=\"0\" totalExplodedTrackCount=\"1\""), std::string::npos);
}

TEST(FCP7Exporter, NoTimeRemapForPictureAtItsOwnSpeed) {
    auto sources = exportSession();
    sources[1].clips[0].recordFrameRate = 25;
    const std::string xml = FCP7Exporter::buildXML(sources, 25, ExportStyle::premiere, ChannelLayout::mixed);
    EXPECT_EQ(xml.find("<filter>"), std::string::npos);
    EXPECT_TRUE(parse(xml));
}

TEST(FCP7Exporter, FilesKeepTheirOwnRateWhileClipItemsCountInTheSequences) {
    // A mixed-rate shoot in a 25 fps sequence. Each file is described at its own rate (its rate,
    // frame count, timecode and picture samples) as the editors' own exports do; sound files have
    // no frames of their own and take the sequence's.
    struct Row {
        const char* file;
        float rate; // 0: sound; negative: a separate picture conformed to -rate
        double seconds;
        double timecode;
        int timebase;
        bool ntsc;
        int frames;
        int timecodeFrame;
        const char* display;
    };
    const Row rows[] = {
        {"/mixed/A24.MOV", 24, 10.0, 3600.5, 24, false, 240, 86412, "NDF"},
        {"/mixed/B2997.MOV", 29.97f, 10.01, 3600, 30, true, 300, 107892, "DF"},
        {"/mixed/C25.MOV", 25, 10.0, 0, 25, false, 250, 0, "NDF"},
        {"/mixed/D2398.MOV", 23.976f, 10.01, 60, 24, true, 240, 1440, "NDF"},
        {"/mixed/E.R3D", -24, 10.0, 7200, 24, false, 240, 172800, "NDF"},
        {"/mixed/F.WAV", 0, 10.0, 0, 25, false, 250, 0, "NDF"},
    };
    TrackSource cams, sound;
    cams.type = SourceType::video;
    sound.type = SourceType::audio;
    for (const Row& row : rows) {
        auto clip = test::exportClip(row.file, 12.0 * static_cast<double>(cams.clips.size()), row.seconds);
        if (row.rate > 0) clip.frameRate = row.rate;
        if (row.rate > 0) clip.startTimecode = row.timecode;
        if (row.rate < 0) {
            clip.url = Url::fromPath("/mixed/E.WAV");
            clip.pictureURL = Url::fromPath(row.file);
            clip.conformFrameRate = clip.recordFrameRate = -row.rate;
            clip.pictureFrames = row.frames;
            clip.pictureTimecode = row.timecode;
        }
        (row.rate == 0 ? sound : cams).clips.push_back(clip);
    }
    for (const auto style : {ExportStyle::premiere, ExportStyle::resolve}) {
        SCOPED_TRACE(static_cast<int>(style));
        const Doc doc = parse(FCP7Exporter::buildXML({cams, sound}, 25, style, ChannelLayout::perChannel));
        ASSERT_TRUE(doc);
        const auto rateOf = [](xmlNode* n) {
            xmlNode* rate = child(n, "rate");
            return rate ? text(child(rate, "timebase")) + text(child(rate, "ntsc")) : "";
        };
        std::set<std::string> described;
        walk(xmlDocGetRootElement(doc.get()), [&](xmlNode* n) {
            // Clips, master or on the timeline, count in the sequence's frames.
            if (is(n, "clipitem") || is(n, "clip") || is(n, "sequence")) {
                EXPECT_EQ(rateOf(n), "25FALSE") << prop(n, "id");
            }
            if (!is(n, "file") || !child(n, "pathurl")) return;
            const std::string path = percentDecode(text(child(n, "pathurl")).substr(16));
            for (const Row& row : rows) {
                if (path != row.file) continue;
                SCOPED_TRACE(path);
                described.insert(path);
                const std::string rate = std::to_string(row.timebase) + (row.ntsc ? "TRUE" : "FALSE");
                xmlNode* timecode = child(n, "timecode");
                EXPECT_EQ(rateOf(n), rate);
                EXPECT_EQ(rateOf(timecode), rate);
                EXPECT_EQ(std::atoi(text(child(n, "duration")).c_str()), row.frames);
                EXPECT_EQ(std::atoi(text(child(timecode, "frame")).c_str()), row.timecodeFrame);
                EXPECT_EQ(text(child(timecode, "displayformat")), row.display);
                if (xmlNode* video = child(child(n, "media"), "video")) {
                    EXPECT_EQ(rateOf(child(video, "samplecharacteristics")), rate);
                }
            }
        });
        EXPECT_EQ(described.size(), std::size(rows));
    }
}

TEST(FCP7Exporter, EmptySessionStillParses) {
    const std::string xml =
        FCP7Exporter::buildXML({}, 23.976, ExportStyle::premiere, ChannelLayout::perChannel);
    EXPECT_TRUE(parse(xml));
    EXPECT_TRUE(hasLine(xml, "  <duration>0</duration>"));
}

namespace {

// The DTD is not ours to ship, so it lives beside the checkout: TRELVANE_FCPXML_DTD names it, or
// it is looked for as shared/interchange/ in the folders above the sources.
std::filesystem::path findDtd() {
    if (const char* named = std::getenv("TRELVANE_FCPXML_DTD"); named != nullptr && *named != '\0')
        return named;
    const std::filesystem::path relative = "shared/interchange/FCPXMLv1_10.dtd";
    std::error_code ec;
    for (auto dir = std::filesystem::weakly_canonical(TRELVANE_SOURCE_DIR, ec).parent_path(); !dir.empty();
         dir = dir.parent_path()) {
        if (std::filesystem::exists(dir / relative, ec)) return dir / relative;
        if (dir == dir.parent_path()) break;
    }
    return std::filesystem::path(TRELVANE_SOURCE_DIR) / ".." / relative;
}

const std::filesystem::path kDtd = findDtd();

long long rationalNumerator(const std::string& t, long long& den) {
    den = 1;
    if (t == "0s") return 0;
    const auto slash = t.find('/');
    if (slash == std::string::npos) return std::stoll(t);
    den = std::stoll(t.substr(slash + 1));
    return std::stoll(t.substr(0, slash));
}

} // namespace

TEST(FCPXMLExporter, ValidatesAgainstDtdAndRoundTrips) {
    if (!std::filesystem::exists(kDtd)) {
        // Continuous integration must check against it: there a missing DTD fails, never skips.
        if (const char* ci = std::getenv("CI"); ci != nullptr && std::string(ci) == "true")
            FAIL() << "FCPXML DTD not found at " << kDtd << " (set TRELVANE_FCPXML_DTD)";
        GTEST_SKIP() << "FCPXML DTD not found at " << kDtd;
    }
    const auto sources = exportSession();
    test::TempDir dir;
    for (const double fps : {23.976, 25.0, 29.97, 30.0, 50.0, 59.94})
        for (const auto layout : {ChannelLayout::perChannel, ChannelLayout::mixed}) {
            SCOPED_TRACE(fps);
            const std::string xml = FCPXMLExporter::build(sources, fps, layout);
            const auto file = dir.file("out.fcpxml", xml);
            const std::string cmd = "xmllint --noout --dtdvalid " + test::quoted(kDtd.string()) + " " +
                                    test::quoted(file.string()) + " 2>&1";
            EXPECT_EQ(std::system(cmd.c_str()), 0) << xml;
            const Doc doc = parse(xml);
            ASSERT_TRUE(doc);
            std::map<std::string, std::string> assets;
            std::set<std::string> formats;
            walk(xmlDocGetRootElement(doc.get()), [&](xmlNode* n) {
                if (is(n, "format")) formats.insert(prop(n, "id"));
                if (is(n, "asset")) assets[prop(n, "id")] = prop(child(n, "media-rep"), "src");
            });
            const double rate = FCP7Exporter::rateInfo(fps).effectiveRate();
            std::multimap<std::string, double> found;
            walk(xmlDocGetRootElement(doc.get()), [&](xmlNode* n) {
                if ((is(n, "asset") || is(n, "sequence")) && !prop(n, "format").empty()) {
                    EXPECT_TRUE(formats.count(prop(n, "format")));
                }
                if (!is(n, "asset-clip")) return;
                ASSERT_TRUE(assets.count(prop(n, "ref")));
                long long den = 1;
                const long long num = rationalNumerator(prop(n, "offset"), den);
                // Offsets fall on frame boundaries.
                EXPECT_NEAR(std::fmod(static_cast<double>(num) / static_cast<double>(den) * rate + 1e-6, 1.0),
                            0.0, 1e-4);
                found.emplace(percentDecode(assets[prop(n, "ref")].substr(7)),
                              static_cast<double>(num) / static_cast<double>(den));
            });
            expectAllRecovered(sources, found, rate);
        }
}

TEST(FCPXMLExporter, FormatsPresetsAndLines) {
    const auto sources = exportSession();
    const std::string at25 = FCPXMLExporter::build(sources, 25, ChannelLayout::perChannel);
    EXPECT_TRUE(hasLine(at25, "    <format id=\"r1\" name=\"FFVideoFormat1080p25\" frameDuration=\"1/25s\" "
                              "width=\"1920\" height=\"1080\"/>"));
    EXPECT_TRUE(
        hasLine(at25, "            <gap name=\"Gap\" offset=\"0s\" start=\"0s\" duration=\"1250/25s\">"));
    EXPECT_TRUE(
        hasLine(at25, "            <audio-channel-source srcCh=\"4\" role=\"dialogue.dialogue-5\"/>"));
    EXPECT_NE(at25.find("name=\"A001 &quot;take&quot; &lt;1&gt;.MOV\""), std::string::npos);
    EXPECT_NE(at25.find("src=\"file:///shoot/Card01/Caf%C3%A9%20100%25%20&amp;%20more.MOV\""),
              std::string::npos);
    // Two clips of one file make one asset.
    auto twice = sources;
    twice[0].clips[1].url = twice[0].clips[0].url;
    const std::string one = FCPXMLExporter::build(twice, 25, ChannelLayout::mixed);
    std::size_t assetsNamed = 0;
    for (std::size_t at = one.find("<asset id="); at != std::string::npos;
         at = one.find("<asset id=", at + 1))
        assetsNamed += one.compare(one.find("name=\"", at) + 6, 8, "A001 &qu") == 0;
    EXPECT_EQ(assetsNamed, 1u);

    const std::string ntsc = FCPXMLExporter::build({}, 29.97, ChannelLayout::mixed);
    EXPECT_NE(ntsc.find("frameDuration=\"1001/30000s\""), std::string::npos);
    EXPECT_NE(ntsc.find("duration=\"0s\""), std::string::npos);
    EXPECT_EQ(FCPXMLExporter::presetName(4096, 2160, 23.976), "FFVideoFormat4096x2160p2398");
    EXPECT_EQ(FCPXMLExporter::presetName(1280, 720, 59.94), "FFVideoFormat720p5994");
    EXPECT_FALSE(FCPXMLExporter::presetName(1000, 1000, 25));
    // An unknown size falls back to a standard sequence.
    auto odd = sources;
    for (auto& c : odd[0].clips)
        c.pixelWidth = 5000, c.pixelHeight = 3000;
    odd[1].clips[0].pixelWidth = 5000, odd[1].clips[0].pixelHeight = 3000;
    EXPECT_TRUE(hasLine(FCPXMLExporter::build(odd, 25, ChannelLayout::mixed),
                        "    <format id=\"r1\" name=\"FFVideoFormat3840x2160p25\" frameDuration=\"1/25s\" "
                        "width=\"3840\" height=\"2160\"/>"));
}

TEST(OTIOExporter, TimelineRoundTripsAndOverlapsGoToExtraTracks) {
    auto sources = exportSession();
    // A clip overlapping its neighbour on the same track.
    sources[2].clips.push_back(test::exportClip("/shoot/Card01/Sound/ZOOM0003.WAV", 20.0, 5.0, 4));
    const auto doc = nlohmann::json::parse(OTIOExporter::build(sources, 29.97, ChannelLayout::perChannel));
    EXPECT_EQ(doc["OTIO_SCHEMA"], "Timeline.1");
    ASSERT_EQ(doc["tracks"]["OTIO_SCHEMA"], "Stack.1");
    std::multimap<std::string, double> found;
    int audioTracks = 0;
    for (const auto& track : doc["tracks"]["children"]) {
        EXPECT_EQ(track["OTIO_SCHEMA"], "Track.1");
        audioTracks += track["kind"] == "Audio";
        double at = 0;
        for (const auto& item : track["children"]) {
            const auto& range = item["source_range"];
            const double rate = range["duration"]["rate"];
            if (item["OTIO_SCHEMA"] == "Clip.2") {
                const std::string url = item["media_references"]["DEFAULT_MEDIA"]["target_url"];
                found.emplace(percentDecode(url.substr(7)), at);
            }
            at += range["duration"]["value"].get<double>() / rate;
        }
    }
    EXPECT_EQ(audioTracks, 5); // camera sound, RED sidecars, recorder, its overflow, sibling
    expectAllRecovered(sources, found, 29.97);
}

namespace {

// Where a document puts each clip: the file it names, the kind of track ("video", "audio"; an
// FCPXML asset-clip with a role is sound) and the first frame on the timeline.
using Placement = std::tuple<std::string, std::string, long long>;
using Placements = std::set<Placement>;

Placements fcp7Placements(const std::string& xml) {
    const Doc doc = parse(xml);
    Placements found;
    if (!doc) return found;
    std::map<std::string, std::string> pathOfFile;
    xmlNode* sequence = nullptr;
    walk(xmlDocGetRootElement(doc.get()), [&](xmlNode* n) {
        if (is(n, "file") && child(n, "pathurl"))
            pathOfFile[prop(n, "id")] = percentDecode(text(child(n, "pathurl")).substr(16));
        if (is(n, "sequence")) sequence = n;
    });
    if (sequence == nullptr) return found;
    for (const char* kind : {"video", "audio"})
        for (xmlNode* track = child(child(child(sequence, "media"), kind), "track"); track;
             track = track->next)
            for (xmlNode* item = track->children; item; item = item->next)
                if (is(item, "clipitem"))
                    found.emplace(pathOfFile[prop(child(item, "file"), "id")], kind,
                                  std::atoll(text(child(item, "start")).c_str()));
    return found;
}

Placements fcpxmlPlacements(const std::string& xml, double rate) {
    const Doc doc = parse(xml);
    Placements found;
    if (!doc) return found;
    std::map<std::string, std::string> assets;
    walk(xmlDocGetRootElement(doc.get()), [&](xmlNode* n) {
        if (is(n, "asset"))
            assets[prop(n, "id")] = percentDecode(prop(child(n, "media-rep"), "src").substr(7));
        if (!is(n, "asset-clip")) return;
        long long den = 1;
        const long long num = rationalNumerator(prop(n, "offset"), den);
        found.emplace(assets[prop(n, "ref")], prop(n, "audioRole").empty() ? "video" : "audio",
                      std::llround(static_cast<double>(num) / static_cast<double>(den) * rate));
    });
    return found;
}

Placements otioPlacements(const std::string& text) {
    Placements found;
    const auto doc = nlohmann::json::parse(text);
    for (const auto& track : doc["tracks"]["children"]) {
        long long at = 0;
        for (const auto& item : track["children"]) {
            if (item["OTIO_SCHEMA"] == "Clip.2")
                found.emplace(
                    percentDecode(
                        item["media_references"]["DEFAULT_MEDIA"]["target_url"].get<std::string>().substr(7)),
                    track["kind"] == "Video" ? "video" : "audio", at);
            at += std::llround(item["source_range"]["duration"]["value"].get<double>());
        }
    }
    return found;
}

// The same placements without the kind of track.
std::set<std::pair<std::string, long long>> positions(const Placements& placements) {
    std::set<std::pair<std::string, long long>> out;
    for (const auto& [path, kind, frame] : placements)
        out.emplace(path, frame);
    return out;
}

} // namespace

TEST(Exporters, EveryDocumentPutsEveryClipOnTheSameFrame) {
    // Clip positions in frames of the sequence, either side of the middle of a frame, and the
    // frame every document must put them on.
    struct Row {
        double fps;
        double at;
        long long frame;
    };
    const Row rows[] = {{25, 0.3, 0},
                        {25, 0.7, 1},
                        {25, 250.49, 250},
                        {25, 250.51, 251},
                        {25, 501.0, 501},
                        {29.97, 0.49, 0},
                        {29.97, 0.51, 1},
                        {29.97, 17981.49, 17981},
                        {29.97, 17981.51, 17982},
                        {29.97, 600.0, 600}};
    for (const double fps : {25.0, 29.97}) {
        const double rate = FCP7Exporter::rateInfo(fps).effectiveRate();
        auto sources = exportSession();
        TrackSource cam, rec;
        cam.name = "Cam C";
        cam.type = SourceType::video;
        rec.name = "Rec C";
        rec.type = SourceType::audio;
        Placements expected;
        for (const Row& row : rows) {
            if (row.fps != fps) continue;
            const std::string name = "/shoot/Card02/at " + std::to_string(row.at);
            cam.clips.push_back(test::exportClip(name + ".MOV", row.at / rate, 2.0));
            rec.clips.push_back(test::exportClip(name + ".WAV", row.at / rate, 2.0));
            expected.emplace(name + ".MOV", "video", row.frame);
            expected.emplace(name + ".MOV", "audio", row.frame);
            expected.emplace(name + ".WAV", "audio", row.frame);
        }
        sources.insert(sources.begin() + 1, cam);
        sources.push_back(rec);
        for (const auto layout : {ChannelLayout::perChannel, ChannelLayout::mixed}) {
            SCOPED_TRACE(fps + static_cast<int>(layout) * 1000);
            const Placements premiere =
                fcp7Placements(FCP7Exporter::buildXML(sources, fps, ExportStyle::premiere, layout));
            const Placements resolve =
                fcp7Placements(FCP7Exporter::buildXML(sources, fps, ExportStyle::resolve, layout));
            const Placements fcpxml = fcpxmlPlacements(FCPXMLExporter::build(sources, fps, layout), rate);
            const Placements otio = otioPlacements(OTIOExporter::build(sources, fps, layout));
            for (const auto& placement : expected)
                EXPECT_TRUE(premiere.count(placement)) << std::get<0>(placement);
            EXPECT_EQ(premiere, resolve);
            EXPECT_EQ(positions(premiere), positions(fcpxml));
            // OTIO has tracks of each kind as the FCP7 documents do: a camera's sound on an audio track.
            EXPECT_EQ(premiere, otio);
        }
    }
}
