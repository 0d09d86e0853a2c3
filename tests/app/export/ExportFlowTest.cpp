// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/ExportFlow.hpp"
#include "TestSupport.hpp"
#include "app/export/ExportFixtures.hpp"

#include <gtest/gtest.h>

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
    EXPECT_EQ(std::vector<int>({s.trackCount, s.clipCount, s.maxChannels}), std::vector<int>({5, 9, 6}));
    EXPECT_EQ(s.durationString(), "00:00:50");
    EXPECT_EQ(defaultFileName(sources, ExportTarget::premiere), "Card01_tv_premiere.xml");
    auto twoVolumes = sources;
    twoVolumes[4].clips[0].url = Url::fromPath("/Volumes2/x.wav");
    EXPECT_EQ(defaultFileName(twoVolumes, ExportTarget::finalCut), "Trelvane_tv_fcp.fcpxml");
    EXPECT_EQ(rootFolderName({}), "Trelvane");
}

// The default names and the writer's refusals reach the user through the command line, and are
// tested there; here, the names the flow makes of what it is given.
TEST(ExportFlow, NamesExtensionsAndRates) {
    test::TempDir dir;
    const auto sources = sessionIn(dir);
    test::LogCapture log;
    ExportRequest request;
    auto result = runExport(sources, request, dir.path());
    EXPECT_EQ(result.path, dir.path() / "Card01_tv_premiere.xml");
    EXPECT_EQ(result.options.fps, 25);
    EXPECT_TRUE(slurp(result.path).starts_with("<?xml"));
    EXPECT_TRUE(log.contains("[Notify] Export finished — Card01_tv_premiere.xml saved."));

    const struct {
        ExportTarget target;
        fs::path output, written;
    } names[] = {
        {ExportTarget::finalCut, "cut", dir.path() / "cut.fcpxml"},
        {ExportTarget::resolve, "NAME.XML", dir.path() / "NAME.XML"},
        {ExportTarget::otio, dir.path() / "Card01", dir.path() / "Card01" / "Card01_tv_otio.otio"},
        // What is written in place keeps its name: no extension is added to a device or a descriptor.
        {ExportTarget::otio, "/dev/null", "/dev/null"},
        {ExportTarget::otio, "-", "-"},
        {ExportTarget::otio, "/dev/stdout", "/dev/stdout"},
    };
    for (const auto& n : names) {
        ExportRequest named;
        named.target = n.target;
        named.output = n.output;
        EXPECT_EQ(resolveOutputPath(sources, named, dir.path()), n.written);
    }
    request.output = "/dev/null";
    EXPECT_EQ(runExport(sources, request, dir.path()).path, "/dev/null");
    request.fps = 0;
    EXPECT_THROW(runExport(sources, request, dir.path()), ExportError);
}
