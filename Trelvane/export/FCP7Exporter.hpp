// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// FCP7 XML (XMEML version 4), the document Premiere Pro and DaVinci Resolve both read.
//
// Two steps: `makePlans` numbers every file, master clip, clip item and timeline track, and
// `buildXML` writes the document line by line from those numbers, so that every cross reference
// (`masterclipid`, `file id`, `linkclipref`) comes from one place. Nothing here fails or throws:
// every optional value has a default. All functions are pure and safe from any thread.
//
// Everything sits on whole frames, sound included: the format counts nothing finer. A clip whose
// clock drift is corrected (`ClipItem::driftSpeed`) gets on each of its items the Time Remap that
// a conformed picture gets, at the speed that makes its end line up as well as its start.

#include "Trelvane/export/ExportOptions.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <optional>
#include <string>
#include <vector>

namespace trelvane::FCP7Exporter {

// A frame rate as the editors write it: a whole nominal rate and whether it runs 1000/1001 slower.
struct RateInfo {
    int timebase = 30;
    bool ntsc = false;

    // Frames per second: `timebase`, or `timebase * 1000 / 1001` with `ntsc`.
    double effectiveRate() const;
    // `seconds` in frames at the effective rate, rounded half away from zero. Values beyond what an
    // int holds (and NaN) are clamped, so bad input can't overflow.
    int frames(double seconds) const;
};

// Banded: below 23.99 -> 24 NTSC, below 24.5 -> 24, below 27 -> 25, below 29.99 -> 30 NTSC,
// below 31 -> 30, below 51 -> 50, below 59.99 -> 60 NTSC, else 60.
RateInfo rateInfo(double fps);

// The rate a clip's picture file plays at: a separate picture's conform rate (else its record
// rate, else the clip's), or the camera file's own rate; nothing when unknown or not above 0.
std::optional<float> pictureFrameRate(const ClipItem& clip);

// One clip on the timeline and all the numbers the document gives it. Numbers start at 1 and are
// unique per kind (files, master clips, clip items); track numbers are 1-based.
struct ClipPlan {
    ClipItem clip;
    int fileID = 0;
    int masterClipID = 0;
    std::optional<int> videoItemID;
    int ch1ItemID = 0;
    std::optional<int> ch2ItemID;
    std::optional<int> videoTrackIdx;
    int ch1TrackIdx = 0;
    std::optional<int> ch2TrackIdx;
    int clipIndexInTrack = 0;
    bool isVideo = false;
    // The audio channels the file is said to have.
    int channelCount = 1;
    std::vector<int> audioItemIDs;
    std::vector<int> audioTrackIdxs;
    // Index among the audio sources; nothing for clips of video sources.
    std::optional<int> audioSourceIndex;
    std::optional<int> pictureFileID;
    std::optional<int> pictureMasterID;

    // The clip's picture is a file of its own (a RED take with its sidecar WAV).
    bool hasCompanionPicture() const;
};

// How a clip item fills the timeline: a companion picture played at its conform rate, or any file
// of a clip whose clock drift is corrected (`ClipItem::driftSpeed`), runs at another speed.
struct ItemTiming {
    int sourceFrames = 0;
    int timelineFrames = 0;
    // Playback speed in percent, the ratio of the two counts; nothing when there is nothing to remap.
    std::optional<double> speed;
};

struct AudioTrackMap {
    // For each video source, its audio track numbers.
    std::vector<std::vector<int>> perSource;
    // Audio tracks used so far.
    int next = 0;
};

// Video files count as two-channel sources unless they carry a companion picture, when the
// sidecar's channel count (at least 1) counts.
int videoSourceChannelCount(const TrackSource& track);
// The largest channel count over the track's clips, at least 1.
int sourceChannelCount(const TrackSource& track);
// Each video source takes `videoSourceChannelCount` audio tracks with `perChannel`, 1 with `mixed`.
AudioTrackMap videoAudioTrackMap(const std::vector<TrackSource>& videoSrcs, ChannelLayout channels);
// The plans of all clips: every video source's clips in order, then every audio source's.
std::vector<ClipPlan> makePlans(const std::vector<TrackSource>& videoSrcs,
                                const std::vector<TrackSource>& audioSrcs, ChannelLayout channels);

// The speed that cancels the clip's drift on a timeline of frames `frameSeconds` long
// (`ClipItem::driftSpeed`), where that is a speed at all: nothing for one that is not a positive
// finite number, as a damaged drift figure would give.
std::optional<double> driftCorrection(const ClipItem& clip, double frameSeconds);
// Nothing unless the clip has a picture file of its own.
std::optional<ItemTiming> pictureTiming(const ClipItem& clip, const RateInfo& ri);
// The clip's own file (its sound, or a camera file's picture and sound): its frames, and where its
// drift is corrected the stretched length it covers and the speed that plays it over that length.
ItemTiming fileTiming(const ClipItem& clip, const RateInfo& ri);
// The speed as the time remap writes it: three decimals, or as many more (up to nine) as the
// timeline length needs to give back the source's frame count.
std::string speedText(const ItemTiming& timing);
// The recording day as "yyyyMMdd" in local time, else the name of the clip's folder, else nothing.
std::optional<std::string> reelName(const ClipItem& clip);
// "file://localhost" + the percent-encoded path, links resolved where the file exists.
std::string localFileURL(const Url& url);

struct Timecode {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
};
// SMPTE drop-frame display of a frame count at 29.97; negative counts read as 0.
Timecode framesToDropFrame30(int frames);

// The whole document. `fps` is the sequence rate, `style` says where files are written in full.
std::string buildXML(const std::vector<TrackSource>& sources, double fps, ExportStyle style,
                     ChannelLayout channels);

// Element text and attribute values: "&", "<", ">" and '"' escaped, unusable bytes repaired.
std::string escape(std::string_view text);

} // namespace trelvane::FCP7Exporter
