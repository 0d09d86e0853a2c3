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
