// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/ExportFlow.hpp"
#include "TestSupport.hpp"
#include "app/export/ExportFixtures.hpp"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using namespace trelvane;
namespace fs = std::filesystem;

namespace {

using trelvane::test::slurp;

std::vector<TrackSource> sessionIn(const test::TempDir& dir) {
    TrackSource t;
    t.name = "Cam";
    t.type = SourceType::video;
    t.clips = {test::exportClip(dir.file("Card01/A001.MOV", "media").string(), 0, 10)};
    t.clips[0].frameRate = 25;
    return {t};
}

int filesIn(const fs::path& dir) {
    int n = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir))
        ++n;
    return n;
}

} // namespace

TEST(ExportOptions, NamesParsingSummaryAndDefaults) {
    for (const auto target : kAllExportTargets) {
        EXPECT_EQ(parseExportTarget(cliName(target)), target);
        EXPECT_EQ(exportTargetFromRaw(rawValue(target)), target);
    }
    EXPECT_EQ(parseExportTarget("fcpxml"), ExportTarget::finalCut);
    EXPECT_FALSE(parseExportTarget("finalCut"));
    EXPECT_EQ(parseChannelLayout("per-channel"), ChannelLayout::perChannel);
    EXPECT_FALSE(parseChannelLayout("perChannel"));

    EXPECT_EQ(defaultRateFamily({}), RateFamily::ntsc);
    EXPECT_EQ(defaultRateFamily({24.0f, 25.4f}), RateFamily::pal);
    EXPECT_EQ(preferredRate(RateFamily::ntsc, {29.97f}), 29.97);
    EXPECT_EQ(preferredRate(RateFamily::pal, {60.0f}), 25);

    const auto sources = test::exportSession();
    const auto s = makeExportSummary(sources);
    EXPECT_EQ(std::vector<int>({s.trackCount, s.clipCount, s.maxChannels}), std::vector<int>({4, 6, 6}));
    EXPECT_EQ(s.durationString(), "00:00:50");
    EXPECT_EQ(defaultFileName(sources, ExportTarget::premiere), "Card01_tv_premiere.xml");
    auto twoVolumes = sources;
    twoVolumes[3].clips[0].url = Url::fromPath("/Volumes2/x.wav");
    EXPECT_EQ(defaultFileName(twoVolumes, ExportTarget::finalCut), "Trelvane_tv_fcp.fcpxml");
    EXPECT_EQ(rootFolderName({}), "Trelvane");
}

TEST(ExportFlow, DefaultNameExtensionsAndOverwriteRules) {
    test::TempDir dir;
    const auto sources = sessionIn(dir);
    test::LogCapture log;
    ExportRequest request;
    auto result = runExport(sources, request, dir.path());
    EXPECT_EQ(result.path, dir.path() / "Card01_tv_premiere.xml");
    EXPECT_EQ(result.options.fps, 25);
    const std::string first = slurp(result.path);
    EXPECT_TRUE(first.starts_with("<?xml"));
    EXPECT_TRUE(log.contains("[Notify] Export finished — Card01_tv_premiere.xml saved."));

    // No overwrite without force, and the old file stays as it was.
    request.fps = 50;
    EXPECT_THROW(runExport(sources, request, dir.path()), ExportError);
    EXPECT_EQ(slurp(result.path), first);
    request.force = true;
    runExport(sources, request, dir.path());
    EXPECT_NE(slurp(result.path), first);
    EXPECT_EQ(filesIn(dir.path()), 2); // the document and Card01: no temporary left behind

    ExportRequest named;
    named.target = ExportTarget::finalCut;
    named.output = "cut";
    EXPECT_EQ(runExport(sources, named, dir.path()).path, dir.path() / "cut.fcpxml");
    named.target = ExportTarget::resolve;
    named.output = "NAME.XML";
    EXPECT_EQ(runExport(sources, named, dir.path()).path, dir.path() / "NAME.XML");
    named.target = ExportTarget::otio;
    named.output = dir.path() / "Card01";
    EXPECT_EQ(runExport(sources, named, dir.path()).path, dir.path() / "Card01" / "Card01_tv_otio.otio");
    // What is written in place keeps its name: no extension is added to a device or a descriptor.
    for (const char* stream : {"/dev/null", "-", "/dev/stdout"}) {
        named.output = stream;
        EXPECT_EQ(resolveOutputPath(sources, named, dir.path()), fs::path(stream));
    }
    named.output = "/dev/null";
    EXPECT_EQ(runExport(sources, named, dir.path()).path, "/dev/null");

    ExportRequest badRate;
    badRate.fps = 0;
    badRate.output = "x.xml";
    EXPECT_THROW(runExport(sources, badRate, dir.path()), ExportError);
}
