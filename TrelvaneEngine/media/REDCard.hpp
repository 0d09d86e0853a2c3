// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The camera-card reader. A RED camera writes a card folder ("A001_1225AB.RDM") holding one take
// folder per take ("A001_C001_1225XY.RDC"); a take folder holds the picture in chunks
// ("…_001.R3D", "…_002.R3D", …) and, when sound was recorded, a sidecar WAV. REDCard finds cards
// under a dropped path and describes their takes. Nothing here throws: a folder that can't be
// listed counts as empty, and a file whose header can't be read leaves `header` absent.

#include "TrelvaneEngine/media/R3DHeader.hpp"
#include "TrelvaneEngine/support/Url.hpp"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace trelvane {

struct REDCard {
    struct Take {
        Url folder;                                // the take folder
        std::optional<Url> wav;                    // first .wav in the take folder (any case), if any
        Url picture;                               // the "_001" chunk, else the first .R3D by name
        int chunkCount = 0;                        // .R3D files in the take folder
        std::uint64_t byteCount = 0;               // their sizes summed
        std::optional<R3DHeader::Metadata> header; // R3DHeader::read(picture)
        // Frames of the picture. Always absent for now: the header records carry no frame count,
        // and counting frames would mean reading the chunks' frame index, far past the 16 KiB
        // that are read of each file.
        std::optional<int> pictureFrames;
    };

    // The folder that directly holds the take folders (normally a .RDM folder), or the take
    // folder itself when that was dropped alone.
    Url root;
    // In name order (bytes of the name), never empty.
    std::vector<Take> takes;

    // The cards at or under `in`:
    // - a take folder: one card rooted at it with that one take;
    // - any other folder: every folder of its subtree (itself included) that directly holds at
    //   least one take, depth first, parent before children, siblings by name. Hidden entries are
    //   skipped, links to folders are not followed, take folders are not descended into and the
    //   walk stops 32 levels down, so any tree ends;
    // - a file or a missing path: none.
    // A take folder holding no .R3D file is not a take.
    static std::vector<REDCard> cards(const Url& in);

    // A folder (links followed) whose extension is "rdc" in any case.
    static bool isTakeFolder(const Url& url);

    // Seconds of a timecode label "HH:MM:SS:FF" at `fps` frames per second. Separators are ':'
    // or ';' (drop-frame), and '.' is also allowed before the frames. Frames count at round(fps),
    // at least 1. Nothing for a malformed label, minutes or seconds from 60, frames from the
    // nominal rate, or an fps that is not finite and above 0.
    static std::optional<double> timecodeSeconds(std::string_view timecode, double fps);
};

} // namespace trelvane
