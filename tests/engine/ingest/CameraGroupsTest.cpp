// SPDX-License-Identifier: GPL-3.0-or-later
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

using namespace trelvane;

namespace {

// A card of clips <prefix><number, 4 digits> in <session>/<name>/, 10 s each.
TrackSource card(const std::string& name, const std::string& prefix, int first, int last,
                 const std::string& session = "/shoot", SourceType type = SourceType::video) {
    std::vector<ClipItem> clips;
    for (int n = first; n <= last; ++n)
        clips.push_back(test::clip(fmt::format("{}/{}/{}{:04}.{}", session, name, prefix, n,
                                               type == SourceType::video ? "MP4" : "WAV")));
    return test::track(name, std::move(clips), type, session);
}

} // namespace

TEST(CameraGroups, OnlyVideoCardsOfOneSessionWhoseNumbersRiseByAtMost32GroupInFileOrder) {
    const TrackSource empty = test::track("Empty", {}, SourceType::video);
    TrackSource unnumbered = card("N", "C", 1, 2);
    unnumbered.clips[1].url = Url::fromPath("/shoot/N/intro.MP4");
    const auto x = card("X", "C", 1, 3);
    const auto audio = SourceType::audio;
    const struct {
        const char* what;
        std::vector<TrackSource> tracks;
        std::vector<std::string> grouped; // the one proposal's cards; empty: no proposal
        std::string hint = "";
    } cases[] = {
        {"cards out of order",
         {card("CardB", "C", 4, 6), card("CardA", "C", 1, 3)},
         {"CardA", "CardB"},
         "C0003 → C0004"},
        {"a chain of long cards",
         {card("A1", "A", 1, 50), card("A2", "A", 51, 90), card("A3", "A", 91, 92)},
         {"A1", "A2", "A3"},
         "A0050 → A0051, A0090 → A0091"},
        {"a gap of 32", {x, card("Y", "C", 35, 36)}, {"X", "Y"}},
        {"a gap of 33", {x, card("Y", "C", 36, 37)}, {}},
        {"starting on the last number", {x, card("Y", "C", 3, 4)}, {}},
        {"starting below the last number", {card("X", "C", 1, 9), card("Y", "C", 5, 12)}, {}},
        {"a third card continuing the second",
         {card("A", "D", 1, 5), card("B", "D", 100, 102), card("C", "D", 103, 105)},
         {"B", "C"}},
        {"no trailing digits", {unnumbered, card("Y", "C", 3, 4)}, {}},
        {"other prefixes", {x, card("Y", "D", 4, 5)}, {}},
        {"recorders", {card("X", "C", 1, 3, "/shoot", audio), card("Y", "C", 4, 5, "/shoot", audio)}, {}},
        {"two sessions", {card("X", "C", 1, 3, "/day1"), card("Y", "C", 4, 5, "/day2")}, {}},
        // Without clips a track sorts by its index: between the cards it breaks them apart.
        {"an empty track between", {x, empty, card("Y", "C", 4, 5)}, {}},
        {"an empty track after", {x, card("Y", "C", 4, 5), empty}, {"X", "Y"}},
    };
    for (const auto& c : cases) {
        const auto proposals = IngestEngine::detectCameraGroups(c.tracks);
        EXPECT_EQ(proposals.empty() ? std::vector<std::string>{} : proposals[0].trackNames, c.grouped)
            << c.what;
        EXPECT_LE(proposals.size(), 1u) << c.what;
        EXPECT_EQ(c.hint.empty() ? c.hint : proposals.at(0).sequenceHint, c.hint) << c.what;
    }
}

TEST(CameraGroups, AcceptedGroupsGetKeysWithoutGapsAndOneRunningTimeline) {
    test::LogCapture log;
    auto tracks = std::vector<TrackSource>{card("X", "C", 1, 3, "/day1"),   card("Y", "C", 4, 6, "/day1"),
                                           card("P", "G", 10, 11, "/day2"), card("Q", "G", 12, 13, "/day2"),
                                           card("R", "H", 1, 2, "/day3"),   card("S", "H", 3, 4, "/day3")};
    for (auto& t : tracks)
        for (std::size_t i = 0; i < t.clips.size(); ++i)
            t.clips[i].startOffset = 100.0 + static_cast<double>(i);
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 3u);
    EXPECT_EQ(proposals[0].trackIDs, (std::vector<Uuid>{tracks[0].id, tracks[1].id}));
    EXPECT_EQ(proposals[1].session, "/day2");
    EXPECT_EQ(proposals[2].filenamePrefix, "H");
    for (const auto& t : IngestEngine::applyCameraGroups(tracks, proposals, {})) {
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
    EXPECT_DOUBLE_EQ(out[1].clips[2].startOffset, 50);
    EXPECT_DOUBLE_EQ(out[2].clips[0].startOffset, 100.0);
    const std::vector<TrackSource> gone{tracks[0], tracks[2], tracks[3]};
    const auto skipped = IngestEngine::applyCameraGroups(gone, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_FALSE(skipped[0].cameraGroup);
    EXPECT_EQ(skipped[1].cameraGroup, "cam-0");
}
