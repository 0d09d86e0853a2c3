// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What a media file says about itself, short of its sound: the recording clock and how far to
// trust it, length, frame rate, picture size, channels, timecode and a label of the device that
// made it: the metadata readers, beside the decoder in `AudioExtractor`.
//
// Every reader takes a file and returns its value or nothing; none throws, none decodes audio,
// and each may run on any thread, any number at once. Container facts come from libavformat,
// opened with bounded probing, local files only and a deadline; the Broadcast WAV chunks come
// from RiffReader; the camera's embedded XML from a walk over the top-level boxes of the file.
// Bad input (a missing, vanishing, truncated, hostile or huge file, a folder, a pipe) gives
// nothing, in bounded time and memory.

#include "TrelvaneEngine/model/TrackModels.hpp"
#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/Url.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trelvane::AudioMetadata {

// ---- recording clock ------------------------------------------------------------------------

struct RecordingClock {
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;

    bool operator==(const RecordingClock&) const = default;
};

// When the file was recorded. The first source that gives a date wins, the extension compared
// in lower case:
//   "wav", "wave":       readBWFOriginationDate  -> embedded
//   "mov", "mp4", "m4v": readSonyXMLDate         -> embedded
//   all:                 dateFromFilename        -> filename
//   all:                 readAssetCreationDate   -> asset
//   all:                 fileCreationDate        -> filesystem (the modification time, on purpose)
// and otherwise no date with quality none. A `filesystem` date is when the file was last written;
// `startOfRecording` turns it into the start once the duration is known.
RecordingClock readRecordingClock(const Url& url);

// The start of the recording from a clock read by `readRecordingClock`. A device writes its file
// until it stops, so a file's modification time marks the end of the take: the start lies the
// take's duration earlier. The other clocks are stamps of the start and pass unchanged, as does
// a file date without a known, positive duration.
RecordingClock startOfRecording(RecordingClock clock, std::optional<double> durationSeconds);

// The Broadcast WAV stamp: OriginationDate and OriginationTime of a "bext" chunk of at least
// 338 bytes, in a RIFF, RF64 or BW64 file, read as the machine's local time.
std::optional<Date> readBWFOriginationDate(const Url& url);

// The first lastUpdate="…" (non-empty) in the camera's embedded XML (sonyNonRealTimeMetaXML),
// parsed by parseISO8601Date.
std::optional<Date> readSonyXMLDate(const Url& url);

// Eight digits of date and six of time, joined by "_", at the very end of the name:
// "CLIP_20240315_143012" is 2024-03-15 14:30:12 local time. A name with an extension is also
// tried without it. Nothing for digits that are no calendar moment.
std::optional<Date> dateFromFilename(std::string_view name);

// The container's own creation date: "com.apple.quicktime.creationdate", else "creation_time"
// of the container, else of its first stream that has one. Only full dates count (a WAV's
// "creation_time" holds a time of day alone).
std::optional<Date> readAssetCreationDate(const Url& url);

// "yyyy-mm-dd" and "hh:mm:ss", each separator any one non-digit character, as the machine's
// local time. Nothing for a field that is malformed or out of range.
std::optional<Date> parseBWFDate(std::string_view date, std::string_view time);

// "yyyy-mm-ddThh:mm:ss" (or a blank for "T"), optional fraction of a second, then "Z", "±hh",
// "±hhmm" or "±hh:mm"; without a zone the machine's local time.
std::optional<Date> parseISO8601Date(std::string_view text);

// ---- what the file holds --------------------------------------------------------------------

// Length of the audio in seconds: the longest audio stream, else the container's length (so that
// a picture without sound still has one). Nothing when no length is known or it is not above 0.
std::optional<double> readDuration(const Url& url);

// Frames per second of the first picture stream (cover art doesn't count), in (0, 1000].
std::optional<float> readFrameRate(const Url& url);

struct VideoSize {
    int width = 0;
    int height = 0;

    bool operator==(const VideoSize&) const = default;
};

// Coded size of the first picture stream (cover art doesn't count).
std::optional<VideoSize> readVideoSize(const Url& url);

// Channels of all audio streams together; 0 for a file without sound; nothing for a file that
// can't be opened as media.
std::optional<int> readChannelCount(const Url& url);

// The channels of the recorder that the file's channels stand for, counted from 0, in the file's
// channel order, as a multi-track recorder's iXML TRACK_LIST tells them ("Tr2" of a recorder
// that writes one file per input gives [1]). Empty, meaning all channels of the file as they
// are, when there is no such list, when it doesn't describe exactly `channelCount` channels, or
// when it maps them onto themselves.
std::vector<int> readAudioChannelIndices(const Url& url, int channelCount);

// A label for the device that made the file, the same for all of one device's clips. In order:
//   1. the container's make and model ("com.apple.quicktime.make"/"model", "make"/"model",
//      "com.android.manufacturer"/"model"), as "<make> <model>" unless the model already names
//      the make;
//   2. manufacturer and model of the camera's embedded XML;
//   3. the same in a sidecar XML beside the clip ("<name>M01.XML", "<name>.XML", any case);
//   4. the Broadcast WAV originator;
//   5. an "encoder" tag of the container or a stream that names no editing or encoding software;
//   6. for a file with a picture, a fingerprint of its codec parameters that begins with "cam_"
//      (not a device name: it tells clips of one camera setting apart from others).
// Text is valid UTF-8, blanks collapsed, never empty.
std::optional<std::string> readDeviceInfo(const Url& url);

// Manufacturer and model of a camera XML: the "manufacturer" and "modelName" attributes of its
// <Device> element, else <Manufacturer> and <ModelName> elements.
std::optional<std::string> xmlDeviceLabel(std::string_view xml);

// ---- timecode, in seconds of the label clock (see REDCard::timecodeSeconds) --------------------

// The chain: readMovieTimecode, else readSonyNRTMTimecode, else readBWFTimecode.
std::optional<double> readTimecode(const Url& url);

// A "timecode" tag of the container or of a stream (a QuickTime tmcd track, MXF), at the rate of
// the stream that carries it, else of the first picture stream.
std::optional<double> readMovieTimecode(const Url& url);

// The first LtcChange of the camera's embedded XML (nrtmTimecodeSeconds).
std::optional<double> readSonyNRTMTimecode(const Url& url);

// TimeReference of the "bext" chunk (samples since midnight) over the sample rate of "fmt ".
// A TimeReference of 0 is what recorders without timecode write, and counts as none.
std::optional<double> readBWFTimecode(const Url& url);

// Of a camera XML: the value of the first <LtcChange> (eight hex digits, BCD frames, seconds,
// minutes, hours; flag bits masked, the drop-frame flag kept) at the "tcFps" of <LtcChangeTable>,
// else at the rate of <VideoFrame formatFps="…">.
std::optional<double> nrtmTimecodeSeconds(std::string_view xml);

// The camera's non-real-time metadata XML embedded in an MP4/MOV file: the <NonRealTimeMeta>
// document inside a top-level "meta", "uuid", "udta" or "XMP_" box, or one of those inside
// "moov". Only box headers are read on the way, and no box over 4 MiB is read; at most 512
// boxes are looked at on each level. Nothing for a file that is not such a container.
std::optional<std::string> sonyNonRealTimeMetaXML(const Url& url);

} // namespace trelvane::AudioMetadata
