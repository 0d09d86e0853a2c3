// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A small hand-made session for the exporter tests: a camera track at 1080p, a RED-style track
// with separate pictures and sidecar sound, a four-channel recorder, a sibling channel, names
// that need escaping, and every sync status.

#include "TrelvaneEngine/model/TrackModels.hpp"

#include <string>
#include <vector>

namespace trelvane::test {

inline ClipItem exportClip(const std::string& path, double start, double duration, int channels = 2) {
    ClipItem c;
    c.url = Url::fromPath(path);
    c.startOffset = start;
    c.duration = duration;
    c.channelCount = channels;
    c.syncStatus = SyncStatus::synced;
    return c;
}

inline std::vector<TrackSource> exportSession() {
    TrackSource cam;
    cam.name = "Cam A & B";
    cam.type = SourceType::video;
    auto c1 = exportClip("/shoot/Card01/A001 \"take\" <1>.MOV", 0.0, 12.5);
    c1.pixelWidth = 1920;
    c1.pixelHeight = 1080;
    c1.frameRate = 25;
    c1.startTimecode = 3600.0;
    auto c2 = exportClip("/shoot/Card01/Caf\xC3\xA9 100% & more.MOV", 20.04, 8.0);
    c2.pixelWidth = 1920;
    c2.pixelHeight = 1080;
    c2.syncStatus = SyncStatus::weak;
    cam.clips = {c1, c2};

    TrackSource red;
    red.name = "RED";
    red.type = SourceType::video;
    auto r1 = exportClip("/shoot/Card01/A001_C001.wav", 3.0, 10.512, 2);
    r1.pictureURL = Url::fromPath("/shoot/Card01/A001_C001_001.R3D");
    r1.pictureFrames = 250;
    r1.recordFrameRate = 50;
    r1.conformFrameRate = 25;
    r1.pictureTimecode = 7200.0;
    r1.pixelWidth = 4096;
    r1.pixelHeight = 2160;
    r1.syncStatus = SyncStatus::failed;
    red.clips = {r1};

    TrackSource rec;
    rec.name = "Recorder";
    rec.type = SourceType::audio;
    auto a1 = exportClip("/shoot/Card01/Sound/ZOOM0001.WAV", 1.0, 30.0, 4);
    auto a2 = exportClip("/shoot/Card01/Sound/ZOOM0002.WAV", 40.0, 10.0, 4);
    a2.syncStatus = SyncStatus::pending;
    a2.audioUsability = AudioUsability::silent;
    rec.clips = {a1, a2};

    TrackSource sib;
    sib.name = "Recorder ch2";
    sib.type = SourceType::audio;
    sib.siblingOf = rec.id;
    sib.clips = {exportClip("/shoot/Card01/Sound/ZOOM0001_Tr2.WAV", 1.0, 30.0, 1)};
    return {cam, red, rec, sib};
}

} // namespace trelvane::test
