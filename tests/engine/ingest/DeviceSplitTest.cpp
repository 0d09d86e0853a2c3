// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace trelvane;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using trelvane::test::LogCapture;

namespace {

// The grouping only reads labels, names and lengths; the files need not exist (the clip order
// then falls back from file dates to names).
const std::string kDump = "/nonexistent/dump/";

ClipItem clip(const std::string& path, std::optional<std::string> label = std::nullopt,
              double duration = 2.0) {
    ClipItem c;
    c.url = Url::fromPath(path);
    c.deviceName = std::move(label);
    c.duration = duration;
    return c;
}

TrackSource track(const std::string& name, std::vector<ClipItem> clips, SourceType type = SourceType::video) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = "/nonexistent";
    t.clips = std::move(clips);
    return t;
}

// `count` clips "<prefix>0001.MP4"... in the dump folder, all with one label.
std::vector<ClipItem> clips(const std::string& prefix, int count, const std::optional<std::string>& label) {
    std::vector<ClipItem> out;
    for (int i = 1; i <= count; ++i)
        out.push_back(clip(kDump + fmt::format("{}{:04}.MP4", prefix, i), label));
    return out;
}

std::vector<ClipItem> concat(std::initializer_list<std::vector<ClipItem>> parts) {
    std::vector<ClipItem> out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::vector<std::string> names(const std::vector<TrackSource>& tracks) {
    std::vector<std::string> out;
    for (const auto& t : tracks)
        out.push_back(t.name);
    return out;
}

std::vector<std::string> fileNames(const TrackSource& t) {
    std::vector<std::string> out;
    for (const auto& c : t.clips)
        out.push_back(c.url.lastPathComponent());
    return out;
}

std::vector<std::string> splitLines(const LogCapture& log) {
    std::vector<std::string> out;
    for (const auto& line : log.lines())
        if (line.starts_with("[Ingest] device-split")) out.push_back(line);
    return out;
}

} // namespace

// Labels that differ by serial number, case, punctuation or repeated words share one key.
TEST(DeviceKey, NormalizeDeviceKey) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"Sony ILCE-7SM3 1234567", "SONY ILCE 7SM3"},
        {"sony ilce_7sm3", "SONY ILCE 7SM3"},
        {"  SONY, ILCE-7SM3 (7654321)  ", "SONY ILCE 7SM3"},
        {"SONY DIGITAL CAMERA", "SONY"},
        {"Sony Digital Camera", "SONY"},
        // Only trailing words of five digits or more are serial numbers.
        {"Zoom F6 2024", "ZOOM F6 2024"},
        {"Zoom F6 20245", "ZOOM F6"},
        {"GoPro HERO 12345 67890", "GOPRO HERO"},
        {"Unit 12345 B", "UNIT 12345 B"},
        {"ABC12345", "ABC12345"},
        {"1234567", ""},
        // Repeated neighbours count once; punctuation alone gives nothing.
        {"Canon Canon EOS R5", "CANON EOS R5"},
        {"Sony-Sony / Sony FX6", "SONY FX6"},
        {"EOS R5 EOS R5", "EOS R5 EOS R5"},
        {"-- / --", ""},
        {"", ""},
        {"Caf\xC3\xA9 Cam", "CAF CAM"}, // letters outside A-Z split words
    };
    for (const auto& [label, key] : cases)
        EXPECT_EQ(IngestEngine::normalizeDeviceKey(label), key) << label;
}

TEST(DeviceKey, TrackLabelIsTheFirstRawLabelOfTheLargestDevice) {
    const std::vector<ClipItem> mixed{
        clip(kDump + "a.mov", "Canon EOS R5"),
        clip(kDump + "b.mov", "Sony FX6 1234567"),
        clip(kDump + "c.mov", "SONY fx6"),
        clip(kDump + "d.mov", "cam_h264_1920x1080"),
        clip(kDump + "e.mov", "cam_h264_1920x1080"),
        clip(kDump + "f.mov", "cam_h264_1920x1080"),
        clip(kDump + "g.mov", ""),
        clip(kDump + "h.mov", "12345678"),
        clip(kDump + "i.mov", "12345678"),
        clip(kDump + "j.mov"),
    };
    EXPECT_EQ(IngestEngine::trackDeviceLabel(mixed), "Sony FX6 1234567")
        << "codec fingerprints, empty labels and labels with an empty key don't count";

    const std::vector<ClipItem> fingerprintsOnly{clip(kDump + "a.mov", "cam_x"), clip(kDump + "b.mov", "")};
    EXPECT_EQ(IngestEngine::trackDeviceLabel(fingerprintsOnly), std::nullopt);
    EXPECT_EQ(IngestEngine::trackDeviceLabel({}), std::nullopt);
}

TEST(DeviceKey, ClipNumericKeySplitsTheFileNameBeforeItsTrailingDigits) {
    struct Case {
        const char* name;
        std::optional<std::pair<std::string, long long>> key; // none: nothing in front, no digits at
                                                              // the end, or too many of them
    };
    const std::vector<Case> cases{
        {"C0012.MP4", {{"C", 12}}},
        {"A001C002_230101.mov", {{"A001C002_", 230101}}},
        {"Take 7.wav", {{"Take ", 7}}},
        {"0042.wav", std::nullopt},
        {"interview.wav", std::nullopt},
        {"C0001a.mov", std::nullopt},
        {"C99999999999999999999999.mov", std::nullopt},
    };
    for (const auto& c : cases) {
        const auto key = IngestEngine::clipNumericKey(Url::fromPath(std::string("/x/") + c.name));
        ASSERT_EQ(key.has_value(), c.key.has_value()) << c.name;
        if (key) {
            EXPECT_EQ(key->prefix, c.key->first) << c.name;
            EXPECT_EQ(key->num, c.key->second) << c.name;
        }
    }
}

TEST(DeviceSplit, AMixedFolderBecomesOneTrackPerDeviceLargestFirst) {
    LogCapture log;
    TrackSource dump = track("Dump", {
                                         clip(kDump + "DSC0002.MOV", "Canon EOS R5", 4.0),
                                         clip(kDump + "C0003.MP4", "SONY, ILCE-7SM3 (7654321)", 3.0),
                                         clip(kDump + "C0001.MP4", "Sony ILCE-7SM3 1234567", 1.0),
                                         clip(kDump + "DSC0001.MOV", "Canon EOS R5", 5.0),
                                         clip(kDump + "C0002.MP4", "sony ilce_7sm3", 2.0),
                                     });
    dump.session = "/shoot";
    dump.lockedGrouping = false;
    const Uuid dumpId = dump.id;
    const auto out = IngestEngine::splitSourcesByDevice({dump});

    ASSERT_EQ(names(out), (std::vector<std::string>{"SONY, ILCE-7SM3 (7654321)", "Canon EOS R5"}))
        << "a group is named by the first raw label met in the track";
    EXPECT_THAT(fileNames(out[0]), ElementsAre("C0001.MP4", "C0002.MP4", "C0003.MP4"));
    EXPECT_THAT(fileNames(out[1]), ElementsAre("DSC0001.MOV", "DSC0002.MOV"));
    EXPECT_EQ(out[0].deviceName, "Sony ILCE-7SM3 1234567")
        << "the label is read again from the clips, now in file order";
    EXPECT_EQ(out[1].deviceName, "Canon EOS R5");
    for (const auto& t : out) {
        EXPECT_NE(t.id, dumpId);
        EXPECT_EQ(t.session, "/shoot");
    }
    EXPECT_EQ(out[0].clips[0].startOffset, 0.0);
    EXPECT_EQ(out[0].clips[1].startOffset, 1.0);
    EXPECT_EQ(out[0].clips[2].startOffset, 3.0) << "the new tracks are laid out end to end";
    EXPECT_EQ(out[1].clips[1].startOffset, 5.0);
    EXPECT_THAT(splitLines(log),
                ElementsAre("[Ingest] device-split 'Dump': SONY, ILCE-7SM3 (7654321)=3, Canon EOS R5=2"));
}

TEST(DeviceSplit, UnlabelledClipsJoinByPrefixAndSmallKeysFoldOnlyOnTracksOfTwentyClips) {
    std::vector<ClipItem> loose;
    for (int i = 0; i < 12; ++i)
        loose.push_back(clip(kDump + fmt::format("misc-{}x.mov", static_cast<char>('a' + i))));
    struct Case {
        const char* what;
        std::vector<ClipItem> clips;
        std::vector<std::string> tracks;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases{
        // Unlabelled clips and codec fingerprints join the device whose files share their prefix.
        {"unlabelled clips",
         {clip(kDump + "C0001.MP4", "Sony FX6"), clip(kDump + "C0002.MP4"),
          clip(kDump + "DSC_0001.MOV", "Canon R5"), clip(kDump + "DSC_0002.MOV", "cam_h264"),
          clip(kDump + "DSC_0003.MOV", ""), clip(kDump + "GOPR0001.MP4"), clip(kDump + "notes.mov")},
         {"Canon R5", "Sony FX6", "Dump (other)"},
         {"[Ingest] device-split 'Dump': Canon R5=3, Sony FX6=2, other=2"}},
        {"19 clips never fold",
         concat({clips("A", 15, "Alpha"), clips("B", 3, "Bravo"), clips("C", 1, "Charlie")}),
         {"Alpha", "Bravo", "Charlie"},
         {"[Ingest] device-split 'Dump': Alpha=15, Bravo=3, Charlie=1"}},
        {"20 clips fold the key of one",
         concat({clips("A", 16, "Alpha"), clips("B", 3, "Bravo"), clips("C", 1, "Charlie")}),
         {"Alpha", "Bravo", "Dump (other)"},
         {"[Ingest] device-split 'Dump': 1 device key(s) with fewer than 3 clips folded into '(other)'",
          "[Ingest] device-split 'Dump': Alpha=16, Bravo=3, other=1"}},
        // Every key is small: none folds.
        {"only small keys",
         concat({clips("A", 2, "Alpha"), clips("B", 2, "Bravo"), clips("C", 2, "Charlie"),
                 clips("D", 2, "Delta"), loose}),
         {"Alpha", "Bravo", "Charlie", "Delta", "Dump (other)"},
         {"[Ingest] device-split 'Dump': Alpha=2, Bravo=2, Charlie=2, Delta=2, other=12"}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(names(IngestEngine::splitSourcesByDevice({track("Dump", c.clips)})), c.tracks) << c.what;
        EXPECT_EQ(splitLines(log), c.lines) << c.what;
    }
}

TEST(DeviceSplit, NineDevicesKeepTheEightLargestAndSayToCheckByHand) {
    LogCapture log;
    std::vector<std::vector<ClipItem>> parts;
    const std::string letters = "ABCDEFGH";
    for (char c : letters)
        parts.push_back(clips(std::string(1, c), 2, std::string("Device ") + c));
    std::vector<ClipItem> all = clips("Z", 1, std::string("Device Z"));
    for (const auto& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    const auto out = IngestEngine::splitSourcesByDevice({track("Dump", all)});

    ASSERT_EQ(out.size(), 9u);
    EXPECT_EQ(out[0].name, "Device A");
    EXPECT_EQ(out[7].name, "Device H");
    EXPECT_EQ(out[8].name, "Dump (other)");
    EXPECT_THAT(fileNames(out[8]), ElementsAre("Z0001.MP4")) << "the smallest device goes to the other track";
    const auto lines = splitLines(log);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "[Ingest] device-split 'Dump': 9 device keys \u2014 keeping the 8 largest as tracks, the rest "
              "in '(other)'. Check this folder by hand: select clips and press N to move them to their "
              "own track.");
    EXPECT_EQ(lines[1], "[Ingest] device-split 'Dump': Device A=2, Device B=2, Device C=2, Device D=2, "
                        "Device E=2, Device F=2, Device G=2, Device H=2, other=1");
}

TEST(DeviceSplit, OneDeviceLockedTracksSingleFolderRecordersAndCodecFingerprintsStayWhole) {
    LogCapture log;
    TrackSource card = track("A001",
                             {clip(kDump + "A.R3D", "RED KOMODO"), clip(kDump + "B.MOV", "Sony FX6"),
                              clip(kDump + "C.MOV", "Sony FX6")},
                             SourceType::audio);
    card.lockedGrouping = true;
    TrackSource recorder =
        track("Zoom", {clip("/rec/ZOOM0001.WAV", "ZOOM F8"), clip("/rec/ZOOM0002.WAV", "Zoom H5")},
              SourceType::audio);
    TrackSource labelled = track("Kept", {clip(kDump + "K0001.MOV")});
    labelled.lockedGrouping = true;
    labelled.deviceName = "ARRI ALEXA";
    TrackSource fingerprinted =
        track("Body", {clip(kDump + "C0001.MP4", "cam_h264_1920"), clip(kDump + "X.MP4", "cam_hevc")});
    fingerprinted.deviceName = "cam_h264_1920";

    // One device under several serial numbers: the track stays as it was, clips untouched.
    const TrackSource one = track("A001", {clip(kDump + "C0002.MP4", "Sony FX6 1111111"),
                                           clip(kDump + "C0001.MP4", "SONY FX6 2222222"),
                                           clip(kDump + "C0003.MP4", "cam_hevc_3840")});
    const auto out = IngestEngine::splitSourcesByDevice({card, recorder, labelled, fingerprinted, one});
    ASSERT_EQ(out.size(), 5u);
    EXPECT_EQ(out[4].id, one.id);
    EXPECT_THAT(fileNames(out[4]), ElementsAre("C0002.MP4", "C0001.MP4", "C0003.MP4"));
    EXPECT_EQ(out[4].deviceName, "Sony FX6 1111111");
    EXPECT_EQ(out[0].id, card.id);
    EXPECT_EQ(out[0].clips.size(), 3u);
    EXPECT_EQ(out[0].deviceName, "Sony FX6");
    EXPECT_EQ(out[0].type, SourceType::video) << "the type is still corrected from the clips";
    EXPECT_EQ(out[1].id, recorder.id);
    EXPECT_EQ(out[1].deviceName, "ZOOM F8");
    EXPECT_EQ(out[2].deviceName, "ARRI ALEXA") << "a label the track has is kept where its clips give none";
    EXPECT_EQ(out[3].id, fingerprinted.id) << "codec fingerprints are no device";
    EXPECT_EQ(out[3].deviceName, std::nullopt);
    EXPECT_THAT(splitLines(log), IsEmpty());
}

TEST(DeviceSplit, NewTracksTakeNamesNotYetUsedByTheOutput) {
    const TrackSource earlier = track("Sony FX6", {clip("/other/C0100.MP4", "Sony FX6")});
    const TrackSource dump =
        track("Dump", concat({clips("C", 2, "Sony FX6"), clips("D", 1, "Media"), clips("E", 1, "Media 2")}));
    const auto out = IngestEngine::splitSourcesByDevice({earlier, dump});
    EXPECT_EQ(names(out), (std::vector<std::string>{"Sony FX6", "Sony FX6 2", "CLIP", "Media 2"}))
        << "a generic label gives the generic video name";
}
