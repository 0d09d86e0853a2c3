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
    EXPECT_EQ(parseExportTarget("premiere"), ExportTarget::premiere);
    EXPECT_EQ(parseExportTarget("resolve"), ExportTarget::resolve);
    EXPECT_EQ(parseExportTarget("fcpxml"), ExportTarget::finalCut);
    EXPECT_EQ(parseExportTarget("otio"), ExportTarget::otio);
    EXPECT_FALSE(parseExportTarget("finalCut"));
    EXPECT_EQ(parseChannelLayout("per-channel"), ChannelLayout::perChannel);
    EXPECT_EQ(parseChannelLayout("mixed"), ChannelLayout::mixed);
    EXPECT_FALSE(parseChannelLayout("perChannel"));
    EXPECT_EQ(rawValue(kAllExportTargets[3]), "otio");
    EXPECT_EQ(exportTargetFromRaw("finalCut"), ExportTarget::finalCut);

    EXPECT_EQ(defaultRateFamily({}), RateFamily::ntsc);
    EXPECT_EQ(defaultRateFamily({24.0f, 25.4f}), RateFamily::pal);
    EXPECT_EQ(preferredRate(RateFamily::ntsc, {29.97f}), 29.97);
    EXPECT_EQ(preferredRate(RateFamily::pal, {60.0f}), 25);

    const auto sources = test::exportSession();
    const auto s = makeExportSummary(sources);
    EXPECT_EQ(s.trackCount, 4);
    EXPECT_EQ(s.clipCount, 6);
    EXPECT_EQ(s.maxChannels, 4);
    EXPECT_EQ(s.durationString(), "00:00:50");
    EXPECT_EQ(rootFolderName(sources), "Card01");
    EXPECT_EQ(defaultFileName(sources, ExportTarget::premiere), "Card01_tv_premiere.xml");
    auto twoVolumes = sources;
    twoVolumes[3].clips[0].url = Url::fromPath("/Volumes2/x.wav");
    EXPECT_EQ(defaultFileName(twoVolumes, ExportTarget::finalCut), "Trelvane_tv_fcp.fcpxml");
    EXPECT_EQ(rootFolderName({}), "Trelvane");
}

TEST(ExportFlow, DefaultNameExtensionsAndOverwriteRules) {
    test::TempDir dir;
    const auto sources = sessionIn(dir);
    ExportRequest request;
    auto result = runExport(sources, request, dir.path());
    EXPECT_EQ(result.path, dir.path() / "Card01_tv_premiere.xml");
    EXPECT_EQ(result.options.fps, 25);
    const std::string first = slurp(result.path);
    EXPECT_TRUE(first.starts_with("<?xml"));
    EXPECT_EQ(result.noticeTitle, "Export finished");
    EXPECT_EQ(result.noticeBody, "Card01_tv_premiere.xml saved.");

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

TEST(ExportFlow, NeverWritesOverMediaAndReportsUnwritableFolders) {
    test::TempDir dir;
    const auto sources = sessionIn(dir);
    ExportRequest request;
    request.target = ExportTarget::premiere;
    request.force = true;
    request.output = dir.path() / "Card01" / "A001.MOV.xml";
    fs::create_symlink(dir.path() / "Card01" / "A001.MOV", dir.path() / "Card01" / "A001.MOV.xml");
    try {
        runExport(sources, request, dir.path());
        ADD_FAILURE() << "wrote over a media file";
    } catch (const ExportError& e) {
        EXPECT_NE(std::string(e.what()).find("media file"), std::string::npos) << e.what();
    }
    EXPECT_EQ(slurp(dir.path() / "Card01" / "A001.MOV"), "media");

    request.output = dir.path() / "missing" / "out.xml";
    EXPECT_THROW(runExport(sources, request, dir.path()), ExportError);
    const auto plainFile = dir.file("plain", "p");
    request.output = plainFile / "out.xml";
    EXPECT_THROW(runExport(sources, request, dir.path()), ExportError);

    const auto locked = dir.dir("locked");
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    request.output = locked / "out.xml";
    if (::access(locked.c_str(), W_OK) == 0)
        GTEST_SKIP() << "running with rights that ignore folder permissions";
    try {
        runExport(sources, request, dir.path());
        ADD_FAILURE() << "wrote into a read-only folder";
    } catch (const ExportError& e) {
        EXPECT_NE(std::string(e.what()).find("Cannot write"), std::string::npos) << e.what();
    }
    EXPECT_EQ(filesIn(locked), 0);
}
