// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace trelvane;
using trelvane::test::LogCapture;

namespace {

// A video track of clips named <prefix><number, 4 digits>.MP4 in /shoot/<name>/, 10 s each.
TrackSource card(const std::string& name, const std::string& prefix, int first, int last,
                 const std::string& session = "/shoot", SourceType type = SourceType::video) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.session = session;
    for (int n = first; n <= last; ++n) {
        char file[64];
        std::snprintf(file, sizeof file, "%s%04d.%s", prefix.c_str(), n,
                      type == SourceType::video ? "MP4" : "WAV");
        ClipItem c;
        c.url = Url::fromPath(session + "/" + name + "/" + file);
        c.duration = 10;
        c.startOffset = 0;
        t.clips.push_back(c);
    }
    return t;
}

} // namespace

TEST(CameraGroups, CardsWhoseNumbersContinueMakeOneProposalInFileOrder) {
    const std::vector<TrackSource> tracks{card("CardB", "C", 4, 6), card("CardA", "C", 1, 3)};
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 1u);
    const auto& p = proposals[0];
    EXPECT_EQ(p.trackNames, (std::vector<std::string>{"CardA", "CardB"}));
    EXPECT_EQ(p.trackIDs, (std::vector<Uuid>{tracks[1].id, tracks[0].id}));
    EXPECT_EQ(p.session, "/shoot");
    EXPECT_EQ(p.clipCount, 6);
    EXPECT_EQ(p.filenamePrefix, "C");
    EXPECT_EQ(p.sequenceHint, "C0003 → C0004");

    // Long cards and chains of three read as one sequence.
    const auto chain = IngestEngine::detectCameraGroups(
        {card("A1", "A", 1, 50), card("A2", "A", 51, 90), card("A3", "A", 91, 92)});
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].sequenceHint, "A0050 → A0051, A0090 → A0091");
    EXPECT_EQ(chain[0].clipCount, 92);
}

TEST(CameraGroups, OnlyVideoCardsOfOneSessionWhoseNumbersRiseByAtMost32Group) {
    TrackSource empty;
    empty.name = "Empty";
    empty.session = "/shoot";
    TrackSource unnumbered = card("N", "C", 1, 2);
    unnumbered.clips[1].url = Url::fromPath("/shoot/N/intro.MP4");
    struct Case {
        const char* what;
        std::vector<TrackSource> tracks;
        std::vector<std::string> grouped; // the one proposal's cards; empty: no proposal
    };
    const std::vector<Case> cases{
        {"a gap of 32", {card("X", "C", 1, 3), card("Y", "C", 35, 36)}, {"X", "Y"}},
        {"a gap of 33", {card("X", "C", 1, 3), card("Y", "C", 36, 37)}, {}},
        {"starting on the last number", {card("X", "C", 1, 3), card("Y", "C", 3, 4)}, {}},
        {"starting below the last number", {card("X", "C", 1, 9), card("Y", "C", 5, 12)}, {}},
        {"a third card continuing the second",
         {card("A", "D", 1, 5), card("B", "D", 100, 102), card("C", "D", 103, 105)},
         {"B", "C"}},
        {"no trailing digits", {unnumbered, card("Y", "C", 3, 4)}, {}},
        {"other prefixes", {card("X", "C", 1, 3), card("Y", "D", 4, 5)}, {}},
        {"recorders",
         {card("X", "C", 1, 3, "/shoot", SourceType::audio),
          card("Y", "C", 4, 5, "/shoot", SourceType::audio)},
         {}},
        {"two sessions", {card("X", "C", 1, 3, "/day1"), card("Y", "C", 4, 5, "/day2")}, {}},
        {"one card", {card("X", "C", 1, 3)}, {}},
        // Without clips a track sorts by its index: between the cards it breaks them apart.
        {"an empty track between", {card("X", "C", 1, 3), empty, card("Y", "C", 4, 5)}, {}},
        {"an empty track after", {card("X", "C", 1, 3), card("Y", "C", 4, 5), empty}, {"X", "Y"}},
    };
    for (const auto& c : cases) {
        const auto proposals = IngestEngine::detectCameraGroups(c.tracks);
        EXPECT_EQ(proposals.size(), c.grouped.empty() ? 0u : 1u) << c.what;
        if (!proposals.empty()) {
            EXPECT_EQ(proposals[0].trackNames, c.grouped) << c.what;
        }
    }
}

TEST(CameraGroups, AcceptedGroupsGetKeysWithoutGapsAndOneRunningTimeline) {
    LogCapture log;
    auto tracks = std::vector<TrackSource>{card("X", "C", 1, 3, "/day1"),   card("Y", "C", 4, 6, "/day1"),
                                           card("P", "G", 10, 11, "/day2"), card("Q", "G", 12, 13, "/day2"),
                                           card("R", "H", 1, 2, "/day3"),   card("S", "H", 3, 4, "/day3")};
    for (auto& t : tracks)
        for (std::size_t i = 0; i < t.clips.size(); ++i)
            t.clips[i].startOffset = 100.0 + static_cast<double>(i);
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 3u);
    EXPECT_EQ(proposals[1].session, "/day2");

    const auto none = IngestEngine::applyCameraGroups(tracks, proposals, {});
    for (const auto& t : none) {
        EXPECT_FALSE(t.cameraGroup);
        EXPECT_DOUBLE_EQ(t.clips[0].startOffset, 100.0);
    }
    EXPECT_EQ(log.countStartingWith("[Ingest] camera group"), 0);

    // The second is rejected; a proposal whose tracks are gone is skipped without using a key.
    const std::vector<TrackSource> remaining{tracks[0], tracks[1], tracks[2], tracks[4], tracks[5]};
    const auto out =
        IngestEngine::applyCameraGroups(remaining, proposals, {proposals[0].id, proposals[2].id});
    EXPECT_EQ(out[0].cameraGroup, "cam-0");
    EXPECT_EQ(out[1].cameraGroup, "cam-0");
    EXPECT_FALSE(out[2].cameraGroup);
    EXPECT_EQ(out[3].cameraGroup, "cam-1");
    // The second card starts where the first ends: 3 clips of 10 s.
    EXPECT_DOUBLE_EQ(out[0].clips[0].startOffset, 0);
    EXPECT_DOUBLE_EQ(out[1].clips[0].startOffset, 30);
    EXPECT_DOUBLE_EQ(out[1].clips[2].startOffset, 50);
    EXPECT_DOUBLE_EQ(out[2].clips[0].startOffset, 100.0);
    EXPECT_TRUE(log.contains("[Ingest] camera group 'cam-0': X, Y (6 clips, prefix=C)"));
    EXPECT_TRUE(log.contains("[Ingest] camera group 'cam-1': R, S (4 clips, prefix=H)"));

    const std::vector<TrackSource> gone{tracks[0], tracks[2], tracks[3]};
    const auto skipped = IngestEngine::applyCameraGroups(gone, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_FALSE(skipped[0].cameraGroup);
    EXPECT_EQ(skipped[1].cameraGroup, "cam-0");
}
