// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/TrackEditing.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <cmath>
#include <gtest/gtest.h>

using namespace trelvane;

namespace {

// Track A (video, session "day1") holds a1 a2 a3, track B (audio, "day2") b1 b2; 10 s each, end to end.
Sources shoot() {
    Sources out(2);
    for (const char* f : {"A/a1.MP4", "A/a2.MP4", "A/a3.MP4", "B/b1.WAV", "B/b2.WAV"}) {
        auto& t = out[f[0] == 'A' ? 0 : 1];
        t.name = std::string(1, f[0]);
        t.session = f[0] == 'A' ? "day1" : "day2";
        t.clips.emplace_back().url = Url::fromPath(std::string("/shoot/") + f);
        t.clips.back().duration = 10;
        t.type = IngestEngine::inferredType(t.clips);
        IngestEngine::recomputeOffsets(t);
    }
    return out;
}
constexpr const char* kUnchanged = "A:a1@0,a2@10,a3@20 | B:b1@0,b2@10";

std::set<Uuid> clipsNamed(const Sources& sources, const std::string& names) {
    std::set<Uuid> out;
    for (const auto& t : sources)
        for (const auto& c : t.clips)
            if (names.find(c.url.baseName()) != std::string::npos) out.insert(c.id);
    return out;
}

// "A:a1@0,a3@10 | b1*day2:b1@0": tracks in order, a locked one with its session, clips with their starts.
std::string describe(const Sources& sources) {
    std::string out;
    for (const auto& t : sources) {
        out += (out.empty() ? "" : " | ") + t.name + (t.lockedGrouping ? "*" + t.session : "") + ":";
        for (const auto& c : t.clips)
            out += (out.back() == ':' ? "" : ",") + c.url.baseName() + "@" +
                   std::to_string(std::lround(c.startOffset));
    }
    return out;
}

} // namespace

TEST(TrackEditingTest, MovingAndDeletingClips) {
    const struct {
        char op; // m: move to a new track; d: delete and lay out again; k: delete, keep the places
        const char* selected;
        const char* after;
    } cases[] = {
        {'m', "b1 b2", "A:a1@0,a2@10,a3@20 | b1*day2:b1@0,b2@10"}, // the emptied track goes
        {'m', "a2", "A:a1@0,a3@10 | a2*day1:a2@0 | B:b1@0,b2@10"},
        {'m', "b2 a3", "A:a1@0,a2@10 | a3*day1:a3@0,b2@10 | B:b1@0"}, // by file name, video first
        {'m', "zz", kUnchanged},
        {'d', "a2", "A:a1@0,a3@10 | B:b1@0,b2@10"},
        {'k', "a2", "A:a1@0,a3@20 | B:b1@0,b2@10"},
        {'d', "b1 b2", "A:a1@0,a2@10,a3@20"},
        {'d', "zz", kUnchanged},
    };
    for (const auto& c : cases) {
        Sources sources = shoot();
        const auto ids = clipsNamed(sources, c.selected);
        if (c.op == 'm')
            EXPECT_EQ(TrackEditing::moveToNewTrack(sources, ids), !ids.empty()) << c.selected;
        else
            TrackEditing::deleteClips(sources, ids, c.op == 'd');
        EXPECT_EQ(describe(sources), c.after) << c.op << " " << c.selected;
    }
}

// Selection, statuses and relayout are pinned through the controller's tests.
TEST(TrackEditingTest, MutingAndPlacingTouchOnlyWhatTheyFind) {
    Sources sources = shoot();
    EXPECT_TRUE(TrackEditing::toggleMute(sources, sources[1].id));
    EXPECT_TRUE(sources[1].isMuted);
    EXPECT_FALSE(TrackEditing::toggleMute(sources, Uuid::random()));
    const Uuid a1 = sources[0].clips[0].id;
    EXPECT_EQ(TrackEditing::moveClips(sources, {{a1, 42.0}, {Uuid::random(), 7.0}}),
              (std::map<Uuid, double>{{a1, 42.0}}));
    EXPECT_DOUBLE_EQ(sources[0].clips[0].startOffset, 42.0);
}

// A read or a run works on a copy; what the user did to the live list meanwhile must survive it.
TEST(TrackEditingTest, MetadataIsAdoptedByClipIdIntoTheLiveList) {
    Sources base = shoot();
    base[0].clips[1].duration = base[1].clips[0].duration = 0; // a2 and b1 not read yet
    TrackEditing::recomputeOffsets(base, 0);
    TrackEditing::recomputeOffsets(base, 1);
    Sources read = base;
    read[0].clips[0].duration = 3; // a1: deleted meanwhile
    read[0].clips[1].duration = 5;
    read[1].clips[0].duration = 6;
    Sources live = base;
    TrackEditing::deleteClips(live, clipsNamed(live, "a1"), false);
    ASSERT_TRUE(TrackEditing::moveToNewTrack(live, clipsNamed(live, "b1")));
    live.emplace_back().name = "C"; // dropped meanwhile, not read yet
    live.back().clips.emplace_back().url = Url::fromPath("/shoot/C/c1.WAV");

    EXPECT_TRUE(TrackEditing::adoptMetadata(live, read));
    EXPECT_EQ(describe(live), "A:a2@0,a3@5 | B:b2@0 | b1*day2:b1@0 | C:c1@0");
    EXPECT_DOUBLE_EQ(live[2].clips[0].duration, 6.0) << "found on the track it was moved to";
    EXPECT_DOUBLE_EQ(live[3].clips[0].duration, 0.0);
    EXPECT_FALSE(TrackEditing::adoptMetadata(live, read)) << "a clip with a length is not replaced";
}

TEST(TrackEditingTest, ARunResultKeepsTheDeletesMutesAndDropsMadeWhileItRan) {
    const Sources base = shoot();
    Sources result = base;
    for (std::size_t i = 0; i < result.size(); ++i)
        for (std::size_t k = 0; k < result[i].clips.size(); ++k) {
            result[i].clips[k].startOffset = 100.0 + 5.0 * static_cast<double>(i + 2 * k);
            result[i].clips[k].syncStatus = SyncStatus::synced;
        }
    Sources live = base;
    TrackEditing::deleteClips(live, clipsNamed(live, "a2"), true);
    TrackEditing::toggleMute(live, live[1].id);
    live[0].clips.emplace_back().url = Url::fromPath("/shoot/A/a4.MP4");
    live[0].clips.back().duration = 10;
    live.emplace_back().name = "C";
    live.back().clips.emplace_back().url = Url::fromPath("/shoot/C/c1.WAV");

    const auto layout = TrackEditing::trackOfClips(base);
    Sources merged = TrackEditing::mergeRunResult(result, live, layout);
    EXPECT_EQ(describe(merged), "A:a1@100,a3@120,a4@130 | B:b1@105,b2@115 | C:c1@0");
    EXPECT_TRUE(merged[1].isMuted);
    EXPECT_EQ(merged[0].clips[2].syncStatus, SyncStatus::pending);

    // A track emptied meanwhile goes; a result of other tracks (stacks) gets the new clips on
    // their own tracks, after its own.
    TrackEditing::deleteClips(live, clipsNamed(live, "b1 b2"), false);
    TrackSource stack;
    stack.name = "S";
    for (const auto& t : result)
        stack.clips.insert(stack.clips.end(), t.clips.begin(), t.clips.end());
    EXPECT_EQ(describe(TrackEditing::mergeRunResult(result, live, layout)),
              "A:a1@100,a3@120,a4@130 | C:c1@0");
    EXPECT_EQ(describe(TrackEditing::mergeRunResult({stack}, live, layout)),
              "S:a1@100,a3@120 | A:a4@0 | C:c1@0");

    // A clip moved to a track of its own meanwhile stays there, waiting for the next run.
    ASSERT_TRUE(TrackEditing::moveToNewTrack(live, clipsNamed(live, "a3")));
    merged = TrackEditing::mergeRunResult(result, live, layout);
    EXPECT_EQ(describe(merged), "A:a1@100,a4@110 | a3*day1:a3@0 | C:c1@0");
    EXPECT_EQ(merged[1].clips[0].syncStatus, SyncStatus::pending);
}
