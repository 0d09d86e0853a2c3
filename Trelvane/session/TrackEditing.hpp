// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The user's corrections of the machine's grouping, as functions over the track list: selecting,
// muting, moving clips to a new track, deleting, and laying a track out again. They change only
// the list they are given; the session controller calls them on its tracks and tells its
// observers.

#include "Trelvane/session/SessionStages.hpp"

#include <cstddef>
#include <map>
#include <set>

namespace trelvane::TrackEditing {

// The ids of every clip of the tracks with id `trackID`; none when there is no such track.
std::set<Uuid> clipsOfTrack(const Sources& sources, const Uuid& trackID);
// The ids of every clip of every track.
std::set<Uuid> allClips(const Sources& sources);

// Flips `isMuted` of the first track with id `trackID`; false when there is none.
bool toggleMute(Sources& sources, const Uuid& trackID);

// Takes the clips in `clipIDs` out of their tracks, in track order, into a new track sorted by
// file name. The new track is locked, so that later adds and the split by device keep the user's
// decision; it takes the session of the first track that gave a clip, a name unlike the others
// and a new id. A track that lost clips gets its type inferred and is laid out again; one left
// empty goes. The list ends sorted for display. False, and the list unchanged, when no clip of
// `clipIDs` is in it.
bool moveToNewTrack(Sources& sources, const std::set<Uuid>& clipIDs);

// Removes the clips in `clipIDs`; tracks left without clips go. With `relayout`, a track that
// lost clips is laid out again; without, the survivors keep their places.
void deleteClips(Sources& sources, const std::set<Uuid>& clipIDs, bool relayout);

// Lays the clips of one track end to end from 0, in array order; an index past the end changes
// nothing.
void recomputeOffsets(Sources& sources, std::size_t sourceIndex);

// Puts each clip named in `offsets` at its new start; returns the entries of the clips it found.
std::map<Uuid, double> moveClips(Sources& sources, const std::map<Uuid, double>& offsets);

// Every clip back to `pending`.
void resetStatuses(Sources& sources);

// Takes what a metadata read found into the live list, which may have changed while it ran: each
// clip of `read` that has a length and whose live twin (same id, on whatever track it now stands)
// still has none replaces that twin in its place, and each track that got one is laid out again.
// Clips the live list no longer has stay gone; live clips that `read` lacks are left as they are.
// True when a clip was taken.
bool adoptMetadata(Sources& live, const Sources& read);

// Which track each clip is on, by clip id.
std::map<Uuid, Uuid> trackOfClips(const Sources& sources);

// The result of a sync or stack run made to agree with the live list as it stands when the run
// ends, so that what the user did meanwhile is kept: clips deleted meanwhile stay deleted (a track
// left empty goes), a track's `isMuted` follows the live track of the same id, and the live clips
// the result does not hold (added meanwhile) are kept: after the end of the result's track of the
// same id when there is one, end to end, otherwise on their live track, appended to the list. A
// clip moved to another track meanwhile (its live track is not the one in `trackAtStart`, the
// layout the run started from) counts as added, back to `pending`: the run placed it as part of
// the grouping the user has just corrected.
Sources mergeRunResult(Sources result, const Sources& live, const std::map<Uuid, Uuid>& trackAtStart);

} // namespace trelvane::TrackEditing
