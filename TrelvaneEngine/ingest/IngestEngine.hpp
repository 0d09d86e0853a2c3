// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// From dropped paths to tracks. `IngestEngine` is a value owned by the session controller for its
// whole life: its only memory is `completeShootSessions`. Every other operation is static and works
// on copies of the track list. Nothing here throws or reaches the user as an error: a folder that
// can't be read counts as empty, and doubts end in fewer tracks and a log line.

#include "TrelvaneEngine/media/REDCard.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <array>
#include <functional>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane {

struct IngestEngine {
    // Paths of dropped folders found to hold both video and audio. Only grows, even when the
    // session is cleaned: a shoot stays a shoot for the life of the program.
    std::set<std::string> completeShootSessions;
    // Folders under the dropped ones that were not searched: they can't be listed (no permission,
    // a path too long for the system) or lie deeper than the walk goes. Only grows.
    std::set<std::string> skippedFolders;

    // Folder names (lower-cased) that are never searched for media.
    static inline const std::set<std::string> proxyDirNames{"sub", "proxy", "proxies", "lrv",
                                                            "thm", "drone", "drones"};
    static inline const std::array<std::string_view, 9> videoExtensions{"mov",  "mp4", "m4v", "mxf", "r3d",
                                                                        "braw", "ari", "arx", "crm"};
    static inline const std::array<std::string_view, 5> audioExtensions{"wav", "mp3", "aiff", "aif", "m4a"};

    // Adds the dropped paths to `into`: the given tracks in their order, then the new ones, with
    // every track's session recomputed. New clips carry no metadata yet (duration 0).
    std::vector<TrackSource> ingest(const std::vector<Url>& urls, std::vector<TrackSource> into);

    // Extension tests take the extension as written; they lower-case it themselves.
    static bool isVideoExtension(std::string_view ext);
    static bool isAudioExtension(std::string_view ext);
    static bool isAcceptedExtension(std::string_view ext);

    // Folders under `folder` (itself included) that directly hold media, depth first, parent
    // before children. Proxy folders and take folders end the walk with nothing beneath them seen.
    // Folders that can't be searched are added to `skipped`, when given.
    static std::vector<Url> leafMediaFolders(const Url& folder, std::set<std::string>* skipped = nullptr);
    // Every media file of the subtree, by path; take folders are not entered, proxy folders are.
    static std::vector<Url> mediaFiles(const Url& folder, std::set<std::string>* skipped = nullptr);
    // The media files directly inside the folder, in listing order; empty for a take folder.
    static std::vector<Url> directMedia(const Url& folder);

    static std::string commonAncestorPath(const std::vector<std::string>& paths);
    static bool isGenericFolder(const std::string& name);
    // A name for a folder: generic folder names ("DCIM", "100MEDIA", "Clips") give way to a
    // meaningful parent.
    static std::string trackName(const Url& url);
    static std::string uniqueName(const std::string& preferred, SourceType type,
                                  const std::vector<std::string>& existing);
    // Identifiers that two runs over the same media give alike, so that their sessions compare
    // byte for byte. A clip is named by its file, which stands at most once in a session. A new
    // track is named by how it was made (`origin`) and the files it is made of, and is unlike
    // every identifier in `existing`.
    static Uuid clipId(const Url& url);
    static Uuid newTrackId(std::string_view origin, const std::vector<ClipItem>& clips,
                           const std::vector<TrackSource>& existing);
    // Order of clips in a track: file name first (camera names count up), then the file date.
    static bool chronologicalOrder(const Url& a, const Url& b);
    static SourceType inferredType(const std::vector<ClipItem>& clips);
    // Video tracks before audio tracks, each by name in file-browser order. Stable.
    static std::vector<TrackSource> sortSources(std::vector<TrackSource> sources);
    static std::optional<double> pictureTimecode(const REDCard::Take& take);
    // Lays a track's clips end to end from 0 in array order, as an unsynced track is shown.
    static void recomputeOffsets(TrackSource& source);

    // Reads length, frame rate, device, recording clock, channels, picture size and timecode of
    // every clip whose duration is 0, four clips at a time, and merges each result as it comes:
    // the clip's fields, then recomputeOffsets on its track, then `onClipUpdated` (if set) with
    // the whole list, on the calling thread. Blocking; meant for a worker thread. At the end it
    // logs one "[Ingest] clock track …" line per track. Once `stop` is requested no further clip
    // is started and the list comes back as it was given, without the clock lines (what
    // `onClipUpdated` heard meanwhile stands for a caller that keeps it). A clip
    // whose length can't be read keeps duration 0 and is read again by the next call.
    static std::vector<TrackSource>
    loadMetadata(std::vector<TrackSource> sources,
                 const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated,
                 std::stop_token stop = {});

    // Device split: one track per recording device, run on the whole list after loadMetadata.
    // Locked tracks and single-folder audio tracks stay whole and only get their `deviceName`;
    // every other track with several device labels becomes one track per label (at most 8, the
    // rest and the unlabelled clips in "<name> (other)"). Every track leaves with its `type`
    // inferred from its clips and its `deviceName` from its clips' labels where they have one.
    static std::vector<TrackSource> splitSourcesByDevice(std::vector<TrackSource> sources);
    // The device behind a label: upper-cased, "DIGITAL CAMERA" and punctuation gone, trailing
    // serial numbers (words of five digits or more) dropped, repeated words once. May be empty.
    static std::string normalizeDeviceKey(const std::string& label);
    // The raw label of the device with most clips; labels starting "cam_" (codec fingerprints,
    // not devices) and labels with an empty key don't count. Nothing when no clip has a label.
    static std::optional<std::string> trackDeviceLabel(const std::vector<ClipItem>& clips);
    // "C0012.MP4" -> {"C", 12}: the file name without extension split before its trailing digits.
    // Nothing without trailing digits, without a prefix, or when the digits overflow.
    struct NumericKey {
        std::string prefix;
        long long num = 0;
    };
    static std::optional<NumericKey> clipNumericKey(const Url& url);

    // Sibling channels: audio tracks whose files are the channels of one multi-channel recording
    // (same stem, length and clock, one file per input) get `siblingOf` set to the leader track,
    // and their clips `siblingLeaderID` set to their twin on the leader. Tracks already marked,
    // video tracks and tracks of different sessions are never related. Never asks, never fails.
    static std::vector<TrackSource> detectSiblingChannels(std::vector<TrackSource> sources);
    // The file name without extension, less its last "_" and what follows ("T012_Tr1" -> "T012");
    // a name with no such suffix, or that starts with its only "_", stays whole.
    static std::string channelStem(const Url& url);

    // Camera groups, day regions and text sync: the grouping proposals the user confirms.
    // Detection never changes the tracks; apply writes only what the accepted proposals say.
    // Video tracks of one session whose file numbers continue from one track to the next (same
    // prefix, a step of 1 to 32) become one proposal per run of at least two tracks.
    static std::vector<CameraGroupProposal> detectCameraGroups(const std::vector<TrackSource>& sources);
    // Gives each accepted proposal that still finds two of its tracks the key "cam-<n>" (n counts
    // accepted groups from 0 in this call) and lays their clips end to end across the tracks.
    static std::vector<TrackSource> applyCameraGroups(std::vector<TrackSource> sources,
                                                      const std::vector<CameraGroupProposal>& proposals,
                                                      const std::set<Uuid>& accepted);
    // The track indices in chronologicalOrder of the tracks' first clips; where either track has
    // no clip, the lower index goes first. Stable, and safe although that order is not transitive.
    static std::vector<int> tracksInClipOrder(const std::vector<TrackSource>& sources,
                                              std::vector<int> indices);
    // The clock span of one track, from its trusted clips (clock from the file name or better),
    // else from any dated clip with a clock; nothing when no clip has one.
    struct TrackClockSpan {
        int si = 0;
        Date start;
        Date end; // the latest date used, plus that clip's duration
        ClockQuality quality = ClockQuality::none;
        Date median;         // element count/2 of the sorted dates used
        int clipCount = 0;   // all clips of the track, dated or not
        double totalDur = 0; // seconds, all clips of the track
    };
    static std::optional<TrackClockSpan> trackClockSpan(const TrackSource& source, int index);
    // One proposal per recording day of a session, from the audio recorders' clocks, or from the
    // text-sync regions file where there is one. Proposes nothing when the clocks are in doubt.
    static std::vector<DayRegionProposal> detectDayRegions(const std::vector<TrackSource>& sources);
    // Writes the keys of the accepted proposals on their clips and tracks (clearing earlier ones in
    // the sessions concerned), places tracks that no accepted proposal covers, then attaches the
    // text-sync offsets of those sessions.
    static std::vector<TrackSource> applyDayRegions(std::vector<TrackSource> sources,
                                                    const std::vector<DayRegionProposal>& proposals,
                                                    const std::set<Uuid>& accepted);
    // Day regions from the session's text-sync regions file (TextSyncStore). Nothing: the file has
    // nothing to say and the clocks decide. An empty list: the answer is "one day".
    static std::optional<std::vector<DayRegionProposal>>
    detectDayRegionsFromTextSync(const std::vector<TrackSource>& sources, const std::string& session,
                                 const std::vector<int>& indices);
    // Fills `textSyncOffsetByPeer` of the session's tracks from the support edges of its regions
    // file; the tracks come back unchanged without a file.
    static std::vector<TrackSource> attachTextSyncPriors(std::vector<TrackSource> sources,
                                                         const std::string& session);
    // attachTextSyncPriors for each session of the given proposals.
    static std::vector<TrackSource> attachTextSyncOffsets(const std::vector<DayRegionProposal>& proposals,
                                                          std::vector<TrackSource> sources);
};

} // namespace trelvane
