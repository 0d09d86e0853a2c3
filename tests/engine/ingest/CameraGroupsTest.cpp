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

TrackSource namedClips(const std::string& name, const std::vector<std::string>& files) {
    TrackSource t;
    t.name = name;
    t.session = "/shoot";
    for (const auto& f : files) {
        ClipItem c;
        c.url = Url::fromPath("/shoot/" + name + "/" + f);
        c.duration = 5;
        t.clips.push_back(c);
    }
    return t;
}

std::vector<std::string> trackNames(const CameraGroupProposal& p) {
    return p.trackNames;
}

} // namespace

TEST(CameraGroups, TwoCardsWhoseNumbersContinueMakeOneProposal) {
    const std::vector<TrackSource> tracks{card("CardB", "C", 4, 6), card("CardA", "C", 1, 3)};
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 1u);
    const auto& p = proposals[0];
    // The cards are put in file order, whatever the order of the list.
    EXPECT_EQ(trackNames(p), (std::vector<std::string>{"CardA", "CardB"}));
    EXPECT_EQ(p.trackIDs, (std::vector<Uuid>{tracks[1].id, tracks[0].id}));
    EXPECT_EQ(p.session, "/shoot");
    EXPECT_EQ(p.clipCount, 6);
    EXPECT_EQ(p.filenamePrefix, "C");
    EXPECT_EQ(p.sequenceHint, "C0003 → C0004");
    EXPECT_FALSE(p.id.isNil());
}

TEST(CameraGroups, LongCardsAndThreeCardChainsReadAsOneSequence) {
    const auto a = card("A1", "A", 1, 50), b = card("A2", "A", 51, 90), c = card("A3", "A", 91, 92);
    const auto proposals = IngestEngine::detectCameraGroups({a, b, c});
    ASSERT_EQ(proposals.size(), 1u);
    EXPECT_EQ(proposals[0].sequenceHint, "A0050 → A0051, A0090 → A0091");
    EXPECT_EQ(proposals[0].clipCount, 92);
    EXPECT_EQ(trackNames(proposals[0]), (std::vector<std::string>{"A1", "A2", "A3"}));
}

TEST(CameraGroups, AGapOf32ContinuesAndAGapOf33Breaks) {
    EXPECT_EQ(IngestEngine::detectCameraGroups({card("X", "C", 1, 3), card("Y", "C", 35, 36)}).size(), 1u);
    EXPECT_TRUE(IngestEngine::detectCameraGroups({card("X", "C", 1, 3), card("Y", "C", 36, 37)}).empty());
}

TEST(CameraGroups, EqualOrFallingNumbersBreakTheCluster) {
    // Y starts at the number X ended on.
    EXPECT_TRUE(IngestEngine::detectCameraGroups({card("X", "C", 1, 3), card("Y", "C", 3, 4)}).empty());
    // Y comes after X by its first file, but starts below X's last number.
    EXPECT_TRUE(IngestEngine::detectCameraGroups({card("X", "C", 1, 9), card("Y", "C", 5, 12)}).empty());
}

TEST(CameraGroups, AThirdCardThatContinuesOnlyTheSecondGroupsTheLastTwo) {
    const auto a = card("A", "D", 1, 5), b = card("B", "D", 100, 102), c = card("C", "D", 103, 105);
    const auto proposals = IngestEngine::detectCameraGroups({a, b, c});
    ASSERT_EQ(proposals.size(), 1u);
    EXPECT_EQ(trackNames(proposals[0]), (std::vector<std::string>{"B", "C"}));
    EXPECT_EQ(proposals[0].sequenceHint, "D0102 → D0103");
}

TEST(CameraGroups, TracksThatCannotContinueNeverCluster) {
    // No trailing digits, no key.
    EXPECT_TRUE(IngestEngine::detectCameraGroups(
                    {namedClips("X", {"intro.MP4", "outro.MP4"}), namedClips("Y", {"take.MP4"})})
                    .empty());
    // Prefixes compare exactly.
    EXPECT_TRUE(IngestEngine::detectCameraGroups({card("X", "C", 1, 3), card("Y", "D", 4, 5)}).empty());
    // Audio tracks are recorders, not camera cards.
    EXPECT_TRUE(IngestEngine::detectCameraGroups({card("X", "C", 1, 3, "/shoot", SourceType::audio),
                                                  card("Y", "C", 4, 5, "/shoot", SourceType::audio)})
                    .empty());
    // Different sessions never mix.
    EXPECT_TRUE(
        IngestEngine::detectCameraGroups({card("X", "C", 1, 3, "/day1"), card("Y", "C", 4, 5, "/day2")})
            .empty());
    // One video track alone is no group.
    EXPECT_TRUE(IngestEngine::detectCameraGroups({card("X", "C", 1, 3)}).empty());
}

TEST(CameraGroups, AnEmptyTrackBreaksAClusterAtItsPlace) {
    TrackSource empty;
    empty.name = "Empty";
    empty.session = "/shoot";
    // Without clips a track sorts by its index: between the two cards here.
    const auto proposals =
        IngestEngine::detectCameraGroups({card("X", "C", 1, 3), empty, card("Y", "C", 4, 5)});
    EXPECT_TRUE(proposals.empty());
    // Placed after both, it leaves them alone.
    const auto after = IngestEngine::detectCameraGroups({card("X", "C", 1, 3), card("Y", "C", 4, 5), empty});
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(trackNames(after[0]), (std::vector<std::string>{"X", "Y"}));
}

TEST(CameraGroups, TwoSessionsGiveTwoProposals) {
    const auto proposals =
        IngestEngine::detectCameraGroups({card("X", "C", 1, 3, "/day1"), card("P", "G", 10, 11, "/day2"),
                                          card("Y", "C", 4, 5, "/day1"), card("Q", "G", 12, 13, "/day2")});
    ASSERT_EQ(proposals.size(), 2u);
    EXPECT_EQ(proposals[0].session, "/day1");
    EXPECT_EQ(proposals[0].filenamePrefix, "C");
    EXPECT_EQ(proposals[1].session, "/day2");
    EXPECT_EQ(proposals[1].filenamePrefix, "G");
}

TEST(CameraGroups, AnAcceptedGroupGetsItsKeyAndOneRunningTimeline) {
    LogCapture log;
    const std::vector<TrackSource> tracks{card("CardA", "C", 1, 3), card("CardB", "C", 4, 6),
                                          card("Other", "Z", 1, 1)};
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 1u);
    const auto out = IngestEngine::applyCameraGroups(tracks, proposals, {proposals[0].id});
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].cameraGroup, "cam-0");
    EXPECT_EQ(out[1].cameraGroup, "cam-0");
    EXPECT_FALSE(out[2].cameraGroup);
    // The second card starts where the first ends: 3 clips of 10 s.
    EXPECT_DOUBLE_EQ(out[0].clips[0].startOffset, 0);
    EXPECT_DOUBLE_EQ(out[0].clips[2].startOffset, 20);
    EXPECT_DOUBLE_EQ(out[1].clips[0].startOffset, 30);
    EXPECT_DOUBLE_EQ(out[1].clips[2].startOffset, 50);
    EXPECT_TRUE(log.contains("[Ingest] camera group 'cam-0': CardA, CardB (6 clips, prefix=C)"));
}

TEST(CameraGroups, RejectedProposalsChangeNothingAndKeysHaveNoGaps) {
    LogCapture log;
    auto tracks = std::vector<TrackSource>{card("X", "C", 1, 3, "/day1"),   card("Y", "C", 4, 5, "/day1"),
                                           card("P", "G", 10, 11, "/day2"), card("Q", "G", 12, 13, "/day2"),
                                           card("R", "H", 1, 2, "/day3"),   card("S", "H", 3, 4, "/day3")};
    for (auto& t : tracks)
        for (std::size_t i = 0; i < t.clips.size(); ++i)
            t.clips[i].startOffset = 100.0 + static_cast<double>(i);
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 3u);

    const auto none = IngestEngine::applyCameraGroups(tracks, proposals, {});
    for (std::size_t i = 0; i < tracks.size(); ++i) {
        EXPECT_FALSE(none[i].cameraGroup);
        EXPECT_DOUBLE_EQ(none[i].clips[0].startOffset, 100.0);
    }
    EXPECT_EQ(log.countStartingWith("[Ingest] camera group"), 0);

    // The first is rejected: the two accepted ones, in two sessions, are cam-0 and cam-1.
    const auto out = IngestEngine::applyCameraGroups(tracks, proposals, {proposals[1].id, proposals[2].id});
    EXPECT_FALSE(out[0].cameraGroup);
    EXPECT_DOUBLE_EQ(out[0].clips[0].startOffset, 100.0);
    EXPECT_EQ(out[2].cameraGroup, "cam-0");
    EXPECT_EQ(out[3].cameraGroup, "cam-0");
    EXPECT_EQ(out[4].cameraGroup, "cam-1");
    EXPECT_EQ(out[5].cameraGroup, "cam-1");
    EXPECT_TRUE(log.contains("[Ingest] camera group 'cam-0': P, Q (4 clips, prefix=G)"));
    EXPECT_TRUE(log.contains("[Ingest] camera group 'cam-1': R, S (4 clips, prefix=H)"));
}

TEST(CameraGroups, AProposalWhoseTracksAreGoneIsSkippedWithoutUsingAKey) {
    const std::vector<TrackSource> tracks{card("X", "C", 1, 3), card("Y", "C", 4, 5), card("P", "G", 1, 2),
                                          card("Q", "G", 3, 4)};
    const auto proposals = IngestEngine::detectCameraGroups(tracks);
    ASSERT_EQ(proposals.size(), 2u);
    // Only one track of the first proposal is still in the list.
    const std::vector<TrackSource> remaining{tracks[0], tracks[2], tracks[3]};
    const auto out =
        IngestEngine::applyCameraGroups(remaining, proposals, {proposals[0].id, proposals[1].id});
    EXPECT_FALSE(out[0].cameraGroup);
    EXPECT_EQ(out[1].cameraGroup, "cam-0");
    EXPECT_EQ(out[2].cameraGroup, "cam-0");
}
