// SPDX-License-Identifier: GPL-3.0-or-later
#include "engine/ingest/TrackBuilders.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace trelvane;
using ::testing::ElementsAre;
using trelvane::test::fileNames;
using trelvane::test::LogCapture;
using trelvane::test::names;

namespace {

// The grouping only reads labels, names and lengths; the files need not exist (the clip order
// then falls back from file dates to names).
ClipItem clip(const std::string& file, std::optional<std::string> label = std::nullopt,
              double duration = 2.0) {
    return test::clip("/nonexistent/dump/" + file, duration, std::move(label));
}

TrackSource dump(std::vector<ClipItem> clips, const std::string& name = "Dump") {
    return test::track(name, std::move(clips), SourceType::video);
}

// `count` clips "<prefix>0001.MP4"..., all with one label, appended to `out`.
std::vector<ClipItem> clips(std::vector<ClipItem> out, const std::string& prefix, int count,
                            const std::string& label) {
    for (int i = 1; i <= count; ++i)
        out.push_back(clip(fmt::format("{}{:04}.MP4", prefix, i), label));
    return out;
}

} // namespace

// Labels that differ by serial number, case, punctuation or repeated words share one key.
TEST(DeviceKey, NormalizeDeviceKey) {
    const std::pair<std::string, std::string> cases[] = {
        {"  SONY, ILCE-7SM3 (7654321)  ", "SONY ILCE 7SM3"},
        {"Sony Digital Camera", "SONY"},
        // Only trailing words of five digits or more are serial numbers.
        {"Zoom F6 2024", "ZOOM F6 2024"},
        {"Zoom F6 20245", "ZOOM F6"},
        {"GoPro HERO 12345 67890", "GOPRO HERO"},
        {"1234567", ""},
        // Repeated neighbours count once; punctuation alone gives nothing.
        {"Sony-Sony / Sony FX6", "SONY FX6"},
        {"EOS R5 EOS R5", "EOS R5 EOS R5"},
        {"-- / --", ""},
        {"Caf\xC3\xA9 Cam", "CAF CAM"}, // letters outside A-Z split words
    };
    for (const auto& [label, key] : cases)
        EXPECT_EQ(IngestEngine::normalizeDeviceKey(label), key) << label;
}

TEST(DeviceKey, TrackLabelIsTheFirstRawLabelOfTheLargestDeviceAndNumericKeysSplitTrailingDigits) {
    std::vector<ClipItem> mixed{clip("j")};
    for (const char* label : {"Canon EOS R5", "Sony FX6 1234567", "SONY fx6", "", "12345678", "12345678",
                              "cam_h264_1920x1080", "cam_h264_1920x1080", "cam_h264_1920x1080"})
        mixed.push_back(clip("x", label));
    EXPECT_EQ(IngestEngine::trackDeviceLabel(mixed), "Sony FX6 1234567")
        << "codec fingerprints, empty labels and labels with an empty key don't count";
    EXPECT_EQ(IngestEngine::trackDeviceLabel({clip("a", "cam_x"), clip("b", "")}), std::nullopt);

    using Key = std::optional<std::pair<std::string, long long>>;
    // None: nothing in front, no digits at the end, or too many of them.
    for (const auto& [name, want] : {std::pair<const char*, Key>{"C0012.MP4", {{"C", 12}}},
                                     {"A001C002_230101.mov", {{"A001C002_", 230101}}},
                                     {"0042.wav", std::nullopt},
                                     {"C0001a.mov", std::nullopt},
                                     {"C99999999999999999999999.mov", std::nullopt}}) {
        const auto key = IngestEngine::clipNumericKey(Url::fromPath(std::string("/x/") + name));
        EXPECT_EQ((key ? Key{{key->prefix, key->num}} : std::nullopt), want) << name;
    }
}

TEST(DeviceSplit, AMixedFolderBecomesOneTrackPerDeviceLargestFirst) {
    LogCapture log;
    TrackSource mixed =
        dump({clip("DSC0002.MOV", "Canon EOS R5", 4.0), clip("C0003.MP4", "SONY, ILCE-7SM3 (7654321)", 3.0),
              clip("C0001.MP4", "Sony ILCE-7SM3 1234567", 1.0), clip("DSC0001.MOV", "Canon EOS R5", 5.0),
              clip("C0002.MP4", "sony ilce_7sm3", 2.0)});
    const auto out = IngestEngine::splitSourcesByDevice({mixed});
    ASSERT_EQ(names(out), (std::vector<std::string>{"SONY, ILCE-7SM3 (7654321)", "Canon EOS R5"}))
        << "a group is named by the first raw label met in the track";
    EXPECT_THAT(fileNames(out[0]), ElementsAre("C0001.MP4", "C0002.MP4", "C0003.MP4"));
    EXPECT_THAT(fileNames(out[1]), ElementsAre("DSC0001.MOV", "DSC0002.MOV"));
    EXPECT_EQ(out[0].deviceName, "Sony ILCE-7SM3 1234567") << "the label is read again, now in file order";
    EXPECT_NE(out[0].id, mixed.id);
    EXPECT_EQ(out[0].clips[2].startOffset, 3.0) << "the new tracks are laid out end to end";
    EXPECT_EQ(out[1].clips[1].startOffset, 5.0);
    EXPECT_EQ(test::linesWith(log, "device-split"),
              std::vector<std::string>{
                  "[Ingest] device-split 'Dump': SONY, ILCE-7SM3 (7654321)=3, Canon EOS R5=2"});
}

TEST(DeviceSplit, UnlabelledClipsJoinByPrefixAndSmallKeysFoldOnlyOnTracksOfTwentyClips) {
    std::vector<ClipItem> loose;
    for (int i = 0; i < 12; ++i)
        loose.push_back(clip(fmt::format("misc-{}x.mov", static_cast<char>('a' + i))));
    auto small =
        clips(clips(clips(clips({}, "A", 2, "Alpha"), "B", 2, "Bravo"), "C", 2, "Charlie"), "D", 2, "Delta");
    small.insert(small.end(), loose.begin(), loose.end());
    const auto abc = [](int a) {
        return clips(clips(clips({}, "A", a, "Alpha"), "B", 3, "Bravo"), "C", 1, "Charlie");
    };
    const struct {
        const char* what;
        std::vector<ClipItem> clips;
        std::vector<std::string> tracks, lines;
    } cases[] = {
        // Unlabelled clips and codec fingerprints join the device whose files share their prefix.
        {"unlabelled clips",
         {clip("C0001.MP4", "Sony FX6"), clip("C0002.MP4"), clip("DSC_0001.MOV", "Canon R5"),
          clip("DSC_0002.MOV", "cam_h264"), clip("DSC_0003.MOV", ""), clip("GOPR0001.MP4"),
          clip("notes.mov")},
         {"Canon R5", "Sony FX6", "Dump (other)"},
         {"[Ingest] device-split 'Dump': Canon R5=3, Sony FX6=2, other=2"}},
        {"19 clips never fold",
         abc(15),
         {"Alpha", "Bravo", "Charlie"},
         {"[Ingest] device-split 'Dump': Alpha=15, Bravo=3, Charlie=1"}},
        {"20 clips fold the key of one",
         abc(16),
         {"Alpha", "Bravo", "Dump (other)"},
         {"[Ingest] device-split 'Dump': 1 device key(s) with fewer than 3 clips folded into '(other)'",
          "[Ingest] device-split 'Dump': Alpha=16, Bravo=3, other=1"}},
        // Every key is small: none folds.
        {"only small keys",
         small,
         {"Alpha", "Bravo", "Charlie", "Delta", "Dump (other)"},
         {"[Ingest] device-split 'Dump': Alpha=2, Bravo=2, Charlie=2, Delta=2, other=12"}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(names(IngestEngine::splitSourcesByDevice({dump(c.clips)})), c.tracks) << c.what;
        EXPECT_EQ(test::linesWith(log, "device-split"), c.lines) << c.what;
    }
}

TEST(DeviceSplit, OneDeviceLockedTracksAndSingleFolderRecordersStayWhole) {
    LogCapture log;
    TrackSource card = test::track(
        "A001", {clip("A.R3D", "RED KOMODO"), clip("B.MOV", "Sony FX6"), clip("C.MOV", "Sony FX6")});
    card.lockedGrouping = true;
    const TrackSource recorder = test::track("Zoom", {test::clip("/rec/ZOOM0001.WAV", 2, "ZOOM F8"),
                                                      test::clip("/rec/ZOOM0002.WAV", 2, "Zoom H5")});
    TrackSource labelled = dump({clip("K0001.MOV")}, "Kept");
    labelled.lockedGrouping = true;
    labelled.deviceName = "ARRI ALEXA";
    // One device under several serial numbers: the track stays as it was, clips untouched.
    const TrackSource one = dump({clip("C0002.MP4", "Sony FX6 1111111"),
                                  clip("C0001.MP4", "SONY FX6 2222222"), clip("C0003.MP4", "cam_hevc_3840")});
    const auto out = IngestEngine::splitSourcesByDevice({card, recorder, labelled, one});
    ASSERT_EQ(out.size(), 4u);
    EXPECT_THAT(fileNames(out[3]), ElementsAre("C0002.MP4", "C0001.MP4", "C0003.MP4"));
    EXPECT_EQ(out[3].deviceName, "Sony FX6 1111111");
    EXPECT_EQ(out[0].id, card.id);
    EXPECT_EQ(out[0].deviceName, "Sony FX6");
    EXPECT_EQ(out[0].type, SourceType::video) << "the type is still corrected from the clips";
    EXPECT_EQ(out[1].deviceName, "ZOOM F8");
    EXPECT_EQ(out[2].deviceName, "ARRI ALEXA") << "a label the track has is kept where its clips give none";
    EXPECT_TRUE(test::linesWith(log, "device-split").empty());

    const TrackSource earlier =
        test::track("Sony FX6", {test::clip("/other/C0100.MP4", 2, "Sony FX6")}, SourceType::video);
    const auto named = IngestEngine::splitSourcesByDevice(
        {earlier, dump(clips(clips(clips({}, "C", 2, "Sony FX6"), "D", 1, "Media"), "E", 1, "Media 2"))});
    EXPECT_EQ(names(named), (std::vector<std::string>{"Sony FX6", "Sony FX6 2", "CLIP", "Media 2"}))
        << "new tracks take names not yet used; a generic label gives the generic video name";
}
