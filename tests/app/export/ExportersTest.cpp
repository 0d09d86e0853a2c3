// SPDX-License-Identifier: GPL-3.0-or-later
// The exporters: each target's whole document for one small session (the golden documents), and
// the rules that session does not reach: frame counts and drop-frame timecode, a file used twice,
// presets and the FCPXML DTD at every offered rate.
#include "TestSupport.hpp"
#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/FCPXMLExporter.hpp"
#include "Trelvane/export/OTIOExporter.hpp"
#include "app/export/ExportFixtures.hpp"
#include "app/export/XmlCheck.hpp"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>

using namespace trelvane;
using trelvane::test::exportSession;
using trelvane::test::xmllintAccepts;

namespace {

// The golden documents: each exporter's whole output for the fixture session, checked in under
// tests/app/export/golden/ and compared byte for byte. They are the exporters' contract with the
// editors: after a deliberate change, regenerate them with
//   TRELVANE_UPDATE_GOLDEN=1 build/release/tests/trelvane_tests --gtest_filter='Exporters.Golden*'
// and read the diff before committing it.
void expectGolden(const std::string& name, const std::string& actual) {
    const auto path = std::filesystem::path(TRELVANE_SOURCE_DIR) / "tests/app/export/golden" / name;
    if (const char* update = std::getenv("TRELVANE_UPDATE_GOLDEN"); update && std::string(update) == "1") {
        std::ofstream(path, std::ios::binary) << actual;
        return;
    }
    EXPECT_EQ(test::slurp(path), actual) << name << " differs from the golden document";
}

} // namespace

// One document per target, each in the layout and at the rate an editor would most often pick for
// it, so that between them both layouts, a PAL and an NTSC rate and drop-frame timecode are pinned.
TEST(Exporters, GoldenDocuments) {
    const auto session = test::exportSession();
    expectGolden("premiere.xml",
                 FCP7Exporter::buildXML(session, 25, ExportStyle::premiere, ChannelLayout::perChannel));
    expectGolden("resolve.xml",
                 FCP7Exporter::buildXML(session, 29.97, ExportStyle::resolve, ChannelLayout::mixed));
    expectGolden("finalcut.fcpxml", FCPXMLExporter::build(session, 25, ChannelLayout::perChannel));
    expectGolden("timeline.otio", OTIOExporter::build(session, 23.976, ChannelLayout::perChannel));
    for (const char* xml : {"premiere.xml", "resolve.xml", "finalcut.fcpxml"})
        EXPECT_TRUE(
            xmllintAccepts(std::filesystem::path(TRELVANE_SOURCE_DIR) / "tests/app/export/golden" / xml))
            << xml;
}

TEST(FCP7Exporter, FramesAreCountedSafelyAndDropFrameTimecodeSkipsTheRightNumbers) {
    EXPECT_EQ((FCP7Exporter::RateInfo{30, true}).frames(1.0), 30);
    EXPECT_EQ((FCP7Exporter::RateInfo{25, false}).frames(std::nan("")), 0);
    EXPECT_EQ((FCP7Exporter::RateInfo{25, false}).frames(1e300), 1'000'000'000);
    // Drop-frame display skips two frame numbers each minute but every tenth.
    const struct {
        int frames, hours, minutes, seconds, frame;
    } timecodes[] = {{1800, 0, 1, 0, 2}, {17982, 0, 10, 0, 0}, {-5, 0, 0, 0, 0}, {107892, 1, 0, 0, 0}};
    for (const auto& t : timecodes) {
        const auto tc = FCP7Exporter::framesToDropFrame30(t.frames);
        EXPECT_EQ(std::vector<int>({tc.hours, tc.minutes, tc.seconds, tc.frames}),
                  std::vector<int>({t.hours, t.minutes, t.seconds, t.frame}))
            << t.frames;
    }
}

TEST(Exporters, AFileUsedTwiceIsDescribedOnce) {
    TrackSource v1, v2;
    v1.clips = {test::exportClip("/x/same.mov", 0, 10)};
    v2.clips = {test::exportClip("/x/same.mov", 20, 10)};
    const auto plans = FCP7Exporter::makePlans({v1, v2}, {}, ChannelLayout::perChannel);
    ASSERT_EQ(plans.size(), 2u);
    EXPECT_EQ(plans[0].fileID, plans[1].fileID);
    EXPECT_NE(plans[0].masterClipID, plans[1].masterClipID);
    const std::string fcpxml = FCPXMLExporter::build({v1, v2}, 25, ChannelLayout::mixed);
    int assets = 0;
    for (auto at = fcpxml.find("<asset id="); at != std::string::npos; at = fcpxml.find("<asset id=", at + 1))
        ++assets;
    EXPECT_EQ(assets, 1) << fcpxml;
}

TEST(FCPXMLExporter, PresetsAndTheFallbackForAnUnknownSize) {
    EXPECT_EQ(FCPXMLExporter::presetName(1280, 720, 59.94), "FFVideoFormat720p5994");
    EXPECT_FALSE(FCPXMLExporter::presetName(1000, 1000, 25));
    auto odd = exportSession();
    for (auto& track : odd)
        for (auto& c : track.clips)
            if (c.pixelWidth) c.pixelWidth = 5000, c.pixelHeight = 3000;
    EXPECT_NE(FCPXMLExporter::build(odd, 25, ChannelLayout::mixed)
                  .find("\n    <format id=\"r1\" name=\"FFVideoFormat3840x2160p25\" frameDuration=\"1/25s\" "
                        "width=\"3840\" height=\"2160\"/>\n"),
              std::string::npos);
}

namespace {

const std::filesystem::path kDtd = test::fcpxmlDtd();

} // namespace

// Every rate the export offers, both layouts: the document is valid against the format's DTD
// (which also resolves every reference), every picture falls on a frame of the sequence and every
// sound on a frame or a sample.
TEST(FCPXMLExporter, ValidatesAgainstDtdAtEveryRate) {
    TRELVANE_REQUIRE_FCPXML_DTD(kDtd)
    test::TempDir dir;
    for (const double fps : {23.976, 25.0, 29.97, 30.0, 50.0, 59.94})
        for (const auto layout : {ChannelLayout::perChannel, ChannelLayout::mixed}) {
            SCOPED_TRACE(fps);
            const std::string xml = FCPXMLExporter::build(exportSession(), fps, layout);
            EXPECT_TRUE(xmllintAccepts(dir.file("out.fcpxml", xml), kDtd.string())) << xml;
            const double rate = FCP7Exporter::rateInfo(fps).effectiveRate();
            int pictures = 0;
            const std::regex offset(R"(<asset-clip [^>]* offset="(\d+)(?:/(\d+))?s"([^>]*)>)");
            for (std::sregex_iterator m(xml.begin(), xml.end(), offset), end; m != end; ++m) {
                const double at = std::stod((*m)[1]) / ((*m)[2].matched ? std::stod((*m)[2]) : 1.0);
                const double frames = at * rate, samples = at * 48000;
                const bool sound = (*m)[3].str().find("audioRole") != std::string::npos;
                pictures += sound ? 0 : 1;
                if (sound && std::fabs(frames - std::round(frames)) > 1e-6)
                    EXPECT_NEAR(samples, std::round(samples), 1e-6) << m->str();
                else
                    EXPECT_NEAR(frames, std::round(frames), 1e-6) << m->str();
            }
            EXPECT_EQ(pictures, 6);
        }
}
