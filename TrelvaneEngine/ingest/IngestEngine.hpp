// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// From dropped paths to tracks. `IngestEngine` is a value owned by the session controller for its
// whole life: its only memory is `completeShootSessions`. Every other operation is static and works
// on copies of the track list. Nothing here throws or reaches the user as an error: a folder that
// can't be read counts as empty, and doubts end in fewer tracks and a log line.

#include "TrelvaneEngine/media/REDCard.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <array>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane {

struct IngestEngine {
    // Paths of dropped folders found to hold both video and audio. Only grows, even when the
    // session is cleaned: a shoot stays a shoot for the life of the program.
    std::set<std::string> completeShootSessions;

    // Folder names (lower-cased) that are never searched for media.
    static inline const std::set<std::string> proxyDirNames{"sub", "proxy", "proxies", "lrv",
                                                            "thm", "drone", "drones"};
    static inline const std::array<std::string_view, 9> videoExtensions{"mov", "mp4", "m4v", "mxf", "r3d",
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
    static std::vector<Url> leafMediaFolders(const Url& folder);
    // Every media file of the subtree, by path; take folders are not entered, proxy folders are.
    static std::vector<Url> mediaFiles(const Url& folder);
    // The media files directly inside the folder, in listing order; empty for a take folder.
    static std::vector<Url> directMedia(const Url& folder);

    static std::string commonAncestorPath(const std::vector<std::string>& paths);
    static bool isGenericFolder(const std::string& name);
    // A name for a folder: generic folder names ("DCIM", "100MEDIA", "Clips") give way to a
    // meaningful parent.
    static std::string trackName(const Url& url);
    static std::string uniqueName(const std::string& preferred, SourceType type,
                                  const std::vector<std::string>& existing);
    // Order of clips in a track: file name first (camera names count up), then the file date.
    static bool chronologicalOrder(const Url& a, const Url& b);
    static SourceType inferredType(const std::vector<ClipItem>& clips);
    // Video tracks before audio tracks, each by name in file-browser order. Stable.
    static std::vector<TrackSource> sortSources(std::vector<TrackSource> sources);
    static std::optional<double> pictureTimecode(const REDCard::Take& take);
    // Lays a track's clips end to end from 0 in array order, as an unsynced track is shown.
    static void recomputeOffsets(TrackSource& source);
};

} // namespace trelvane
