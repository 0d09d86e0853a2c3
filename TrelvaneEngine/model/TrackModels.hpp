// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The shared vocabulary of the system: a session is an ordered list of `TrackSource`, each with an
// ordered list of `ClipItem`. Both are plain values; stages take a copy and return a changed copy,
// and only the session controller installs results. All times are seconds.

#include "TrelvaneEngine/model/BandFeature.hpp"
#include "TrelvaneEngine/model/Fingerprint.hpp"
#include "TrelvaneEngine/model/PlacementPass.hpp"
#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/Url.hpp"
#include "TrelvaneEngine/support/Uuid.hpp"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane {

enum class SourceType { video, audio };

enum class SyncStatus { pending, synced, weak, failed };

// Ordered by trust: a stage may ask for "at least filename".
enum class ClockQuality : int { none = 0, filesystem = 1, asset = 2, filename = 3, embedded = 4 };

enum class AudioUsability { ok, none, silent, undecodable };

enum class SyncMode { tracks, stacks };
inline constexpr SyncMode kAllSyncModes[] = {SyncMode::tracks, SyncMode::stacks};

// Raw names (the case names) and the way back; an unknown raw code gives nothing.
std::string_view rawValue(SourceType v);
std::string_view rawValue(SyncStatus v);
std::string_view rawValue(AudioUsability v);
std::string_view rawValue(SyncMode v);
std::string_view rawName(ClockQuality v);
inline int rawValue(ClockQuality v) {
    return static_cast<int>(v);
}

std::optional<SourceType> sourceTypeFromRaw(std::string_view raw);
std::optional<SyncStatus> syncStatusFromRaw(std::string_view raw);
std::optional<AudioUsability> audioUsabilityFromRaw(std::string_view raw);
std::optional<SyncMode> syncModeFromRaw(std::string_view raw);
std::optional<ClockQuality> clockQualityFromRaw(int raw);

// The nearest of the editing rates 23.976, 24, 25, 29.97, 30, 50, 59.94 and 60 frames a second;
// at equal distance the lower rate.
float standardFrameRate(float fps);

// The shortest clip that takes part in any audio search, in seconds.
inline constexpr double kShortestMatchableClip = 5.0;

struct ClipItem {
    Uuid id = Uuid::random();
    Url url;
    double duration = 0;
    double startOffset = 0;
    SyncStatus syncStatus = SyncStatus::pending;
    std::optional<float> matchScore;
    std::optional<PlacementPass> placementPass;
    std::optional<std::string> placementNote;
    std::vector<float> waveformPreview;
    std::optional<float> frameRate;
    std::optional<Url> pictureURL;
    std::optional<float> recordFrameRate;
    std::optional<float> conformFrameRate;
    std::optional<int> pictureFrames;
    std::optional<double> pictureTimecode;
    std::optional<int> pixelWidth;
    std::optional<int> pixelHeight;
    std::optional<double> startTimecode;
    bool tcDisagrees = false;
    int channelCount = 1;
    std::vector<int> audioChannelIndices;
    std::optional<std::string> deviceName;
    std::optional<Date> recordingDate;
    ClockQuality clockQuality = ClockQuality::none;
    std::optional<std::string> dayRegion;
    std::optional<std::vector<float>> cachedEnvelope;
    std::optional<std::vector<Fingerprint::Landmark>> fingerprint;
    std::optional<std::vector<float>> bassOnsets;
    std::optional<BandFeature> bandFeature;
    AudioUsability audioUsability = AudioUsability::ok;
    // Why the file's sound could not be read at all (with `undecodable`), in the user's words.
    std::optional<std::string> audioProblem;
    // The file ends before the sound its index promises: `duration` is what decoded.
    bool audioCutShort = false;
    std::optional<Uuid> siblingLeaderID;
    // The clip's clock against the timeline's, as its sound measures it: each second of the file
    // spans 1 + driftPPM / 1e6 seconds of the timeline, so a positive figure is a clock that runs
    // slow (the file holds more of the performance than its own length says). Nothing when it was
    // not measured. `driftUncertaintyPPM` is one standard error of it.
    std::optional<double> driftPPM;
    std::optional<double> driftUncertaintyPPM;
    // How the sample-accurate refinement of a synced or weak clip went, for its tool tip: the clip
    // its sound was lined up with, or (synced clips only) why the band placement was kept.
    std::optional<std::string> refinementNote;

    // The length of the picture: the sidecar audio of a take runs 0.512 s longer than its picture.
    double pictureDuration() const;
    // The speed, as a fraction of normal, that cancels the clip's drift on a timeline of frames
    // `frameSeconds` long: 1 / (1 + driftPPM / 1e6). Nothing where the drift over the whole clip
    // stays under a quarter of a frame: there the end's sound and picture lie within the frame the
    // start already rounds to, and a clip left at normal speed is what the editor expects.
    std::optional<double> driftSpeed(double frameSeconds) const;
    // The length the clip covers on the timeline: its duration stretched by its drift when
    // `driftSpeed` would correct it, else its duration.
    double timelineDuration(double frameSeconds) const;
    // One line telling the user why the clip stands where it stands (the clip's tool tip).
    std::string placementExplanation() const;
    // The cause of a failed clip, for counting failures; nothing unless the clip failed.
    std::optional<std::string> failureBucket() const;

    // Two clips are the same clip exactly when their ids are the same.
    bool operator==(const ClipItem& other) const { return id == other.id; }
};

struct TrackSource {
    Uuid id = Uuid::random();
    std::string name;
    SourceType type = SourceType::video;
    std::vector<ClipItem> clips;
    std::string session;
    std::optional<std::string> deviceName;
    bool lockedGrouping = false;
    std::optional<std::string> cameraGroup;
    std::optional<std::string> dayRegion;
    std::optional<Uuid> siblingOf;
    std::map<std::string, double> textSyncOffsetByPeer;
    bool forceReference = false;
    bool isMuted = false;

    // "<n> clip(s)  ·  <EXT>" of the first clip's picture file, or of its audio file.
    std::string subtitle() const;
};

struct DayRegionProposal {
    Uuid id = Uuid::random();
    std::string session;
    std::string regionKey;
    std::string label;
    std::vector<Uuid> trackIDs;
    std::vector<std::string> trackNames;
    std::vector<Uuid> clipIDs;
    int clipCount = 0;
    std::optional<Date> startDate;
    std::optional<Date> endDate;
    ClockQuality clockQuality = ClockQuality::none;
    std::optional<std::string> rangeOverride;

    // `rangeOverride`, else "h:mm a – h:mm a" of the two dates, else "time unknown".
    std::string timeRangeHint() const;
};

struct CameraGroupProposal {
    Uuid id = Uuid::random();
    std::string session;
    std::vector<Uuid> trackIDs;
    std::vector<std::string> trackNames;
    int clipCount = 0;
    std::string filenamePrefix;
    std::string sequenceHint;
};

} // namespace trelvane
