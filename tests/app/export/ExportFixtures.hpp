// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A small hand-made synced session, the one the golden documents are made from: a camera track at
// 1080p (a six-channel file, a weak clip), a second camera at NTSC rates, a RED-style track with
// separate pictures and sidecar sound (a failed take at double speed, one at its own speed), a
// four-channel recorder with a silent take, its sibling channel, names that need escaping, and
// offsets either side of the middle of a frame. Ids are fixed and no file exists, so the
// documents are the same on every machine.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <string>
#include <vector>

namespace trelvane::test {

inline ClipItem exportClip(const std::string& path, double start, double duration, int channels = 2) {
    ClipItem c;
    c.id = Uuid::named(path);
    c.url = Url::fromPath(path);
    c.startOffset = start;
    c.duration = duration;
    c.channelCount = channels;
    c.syncStatus = SyncStatus::synced;
    c.matchScore = 0.75f;
    return c;
}

inline TrackSource exportTrack(const std::string& name, SourceType type, std::vector<ClipItem> clips) {
    TrackSource t;
    t.id = Uuid::named(name);
    t.name = name;
    t.type = type;
    t.clips = std::move(clips);
    return t;
}

inline std::vector<TrackSource> exportSession() {
    auto c1 = exportClip("/shoot/Card01/A001 \"take\" <1>.MOV", 0.0, 12.5, 6);
    c1.frameRate = 25;
    c1.startTimecode = 3600.0;
    // 500.4975 frames at 25 fps: frame 500, and 599.99 at 29.97: frame 600.
    auto c2 = exportClip("/shoot/Card01/Caf\xC3\xA9 100% & more.MOV", 20.0199, 8.0);
    c2.syncStatus = SyncStatus::weak;
    c2.matchScore = 0.31f;

    // Files keep their own rates and timecode in the documents: 29.97 drop-frame and 23.976.
    auto n1 = exportClip("/shoot/Card01/CamC/C0001.MP4", 30.0, 10.01);
    n1.frameRate = 29.97f;
    n1.startTimecode = 3600.0;
    auto n2 = exportClip("/shoot/Card01/CamC/C0002.MP4", 41.0, 8.0);
    n2.frameRate = 23.976f;
    n2.startTimecode = 60.0;
    for (auto* c : {&c1, &c2, &n1, &n2})
        c->pixelWidth = 1920, c->pixelHeight = 1080;

    auto r1 = exportClip("/shoot/Card01/A001_C001.wav", 3.0, 10.512);
    r1.pictureURL = Url::fromPath("/shoot/Card01/A001_C001_001.R3D");
    r1.pictureFrames = 250;
    r1.recordFrameRate = 50;
    r1.conformFrameRate = 25;
    r1.pictureTimecode = 7200.0;
    r1.pixelWidth = 4096;
    r1.pixelHeight = 2160;
    r1.syncStatus = SyncStatus::failed;
    r1.matchScore.reset();
    // The next take plays at its own speed.
    auto r2 = r1;
    r2.id = Uuid::named("A001_C002");
    r2.url = Url::fromPath("/shoot/Card01/A001_C002.wav");
    r2.pictureURL = Url::fromPath("/shoot/Card01/A001_C002_001.R3D");
    r2.startOffset = 16.0;
    r2.recordFrameRate = 25;
    r2.pictureTimecode = 7300.0;
    r2.syncStatus = SyncStatus::synced;
    r2.matchScore = 0.9f;

    auto a2 = exportClip("/shoot/Card01/Sound/ZOOM0002.WAV", 40.0, 10.0, 4);
    a2.syncStatus = SyncStatus::pending;
    a2.audioUsability = AudioUsability::silent;
    a2.matchScore.reset();
    // 25.525 frames at 25 fps: frame 26.
    auto rec = exportTrack("Recorder", SourceType::audio,
                           {exportClip("/shoot/Card01/Sound/ZOOM0001.WAV", 1.021, 30.0, 4), a2});
    auto sibling = exportTrack("Recorder ch2", SourceType::audio,
                               {exportClip("/shoot/Card01/Sound/ZOOM0001_Tr2.WAV", 1.021, 30.0, 1)});
    sibling.siblingOf = rec.id;
    return {exportTrack("Cam A & B", SourceType::video, {c1, c2}),
            exportTrack("Cam C", SourceType::video, {n1, n2}),
            exportTrack("RED", SourceType::video, {r1, r2}), rec, sibling};
}

} // namespace trelvane::test
