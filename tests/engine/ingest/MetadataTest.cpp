// SPDX-License-Identifier: GPL-3.0-or-later
#include "MediaSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <set>

using namespace trelvane;
using trelvane::test::ffmpeg;
using trelvane::test::localDate;
using trelvane::test::LogCapture;
using trelvane::test::quoted;
using trelvane::test::sineInput;
using trelvane::test::TempDir;

namespace {

// A recorder's take: `seconds` long, stamped with the given local date and time.
std::filesystem::path recorderTake(const TempDir& tmp, const std::string& name, double seconds,
                                   const std::string& date, const std::string& time) {
    const auto p = tmp / name;
    std::filesystem::create_directories(p.parent_path());
    ffmpeg(sineInput(seconds) + " -c:a pcm_s16le -write_bext 1 -metadata originator=" + quoted("ZOOM F8") +
           " -metadata origination_date=" + date + " -metadata origination_time=" + time + " " +
           quoted(p.string()));
    return p;
}

ClipItem clipAt(const std::filesystem::path& p) {
    ClipItem c;
    c.url = Url::fromPath(p);
    return c;
}

TrackSource track(const std::string& name, std::vector<ClipItem> clips, SourceType type = SourceType::audio) {
    TrackSource t;
    t.name = name;
    t.type = type;
    t.clips = std::move(clips);
    return t;
}

// Sets a file's modification time to a local wall-clock moment.
void touch(const std::filesystem::path& p, Date when) {
    const auto sys = std::chrono::time_point_cast<std::chrono::system_clock::duration>(when);
    std::filesystem::last_write_time(p, std::chrono::file_clock::from_sys(sys));
}

std::vector<std::string> clockLines(const LogCapture& log) {
    std::vector<std::string> out;
    for (const auto& l : log.lines())
        if (l.starts_with("[Ingest] clock track ")) out.push_back(l);
    return out;
}

} // namespace

TEST(LoadMetadata, FillsEveryClipMergesEachAsItComesAndLogsTheClockLines) {
    TempDir tmp;
    const auto a = recorderTake(tmp, "Zoom/ZOOM0001.WAV", 2.0, "2024-03-15", "14:30:12");
    const auto b = recorderTake(tmp, "Zoom/ZOOM0002.WAV", 1.5, "2024-03-15", "15:05:59");
    // No stamp, a plain name: the file's own date, here inside the span of the others.
    const auto c = tmp / "Zoom/take.wav";
    ffmpeg(sineInput(1.0) + " " + quoted(c.string()));
    touch(c, localDate(2024, 3, 15, 14, 45, 0));
    const auto movie = tmp / "Cam/C0001.MP4";
    std::filesystem::create_directories(movie.parent_path());
    ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25:duration=2 " + sineInput(2.0) +
           " -timecode 01:00:00:00 -c:v libx264 -preset ultrafast -c:a aac -shortest " +
           quoted(movie.string()));

    std::vector<TrackSource> sources{track("Cam", {clipAt(movie)}, SourceType::video),
                                     track("Zoom", {clipAt(a), clipAt(b), clipAt(c)})};
    const auto ids = std::vector<Uuid>{sources[0].clips[0].id, sources[1].clips[0].id, sources[1].clips[1].id,
                                       sources[1].clips[2].id};

    LogCapture log;
    std::mutex mutex;
    std::vector<std::vector<TrackSource>> updates;
    const auto result = IngestEngine::loadMetadata(sources, [&](const std::vector<TrackSource>& s) {
        std::lock_guard lock(mutex);
        updates.push_back(s);
    });

    // One call per merged clip, each with the whole list and one more clip read than before.
    ASSERT_EQ(updates.size(), 4u);
    for (std::size_t i = 0; i < updates.size(); ++i) {
        ASSERT_EQ(updates[i].size(), 2u);
        int read = 0;
        for (const auto& t : updates[i])
            for (const auto& clip : t.clips)
                read += clip.duration > 0 ? 1 : 0;
        EXPECT_EQ(read, static_cast<int>(i) + 1);
    }
    EXPECT_EQ(updates.back()[1].clips[2].duration, result[1].clips[2].duration);

    ASSERT_EQ(result.size(), 2u);
    const auto& cam = result[0].clips[0];
    EXPECT_EQ(cam.id, ids[0]);
    EXPECT_NEAR(cam.duration, 2.0, 0.05);
    EXPECT_EQ(cam.frameRate, 25.0f);
    EXPECT_EQ(cam.pixelWidth, 320);
    EXPECT_EQ(cam.pixelHeight, 240);
    EXPECT_EQ(cam.startTimecode, 3600.0);
    EXPECT_EQ(cam.channelCount, 1);
    ASSERT_TRUE(cam.deviceName);
    EXPECT_TRUE(cam.deviceName->starts_with("cam_"));
    EXPECT_EQ(cam.clockQuality, ClockQuality::filesystem);

    const auto& zoom = result[1].clips;
    EXPECT_EQ(zoom[0].id, ids[1]);
    EXPECT_DOUBLE_EQ(zoom[0].duration, 2.0);
    EXPECT_DOUBLE_EQ(zoom[1].duration, 1.5);
    EXPECT_DOUBLE_EQ(zoom[2].duration, 1.0);
    // Laid end to end in track order.
    EXPECT_EQ(zoom[0].startOffset, 0.0);
    EXPECT_DOUBLE_EQ(zoom[1].startOffset, 2.0);
    EXPECT_DOUBLE_EQ(zoom[2].startOffset, 3.5);
    EXPECT_EQ(zoom[0].recordingDate, localDate(2024, 3, 15, 14, 30, 12));
    EXPECT_EQ(zoom[0].clockQuality, ClockQuality::embedded);
    EXPECT_EQ(zoom[2].clockQuality, ClockQuality::filesystem);
    // Its file was last written at 14:45:00, when the one-second take ended.
    EXPECT_EQ(zoom[2].recordingDate, localDate(2024, 3, 15, 14, 44, 59));
    EXPECT_EQ(zoom[0].deviceName, "ZOOM F8");
    EXPECT_FALSE(zoom[2].deviceName);
    EXPECT_FALSE(zoom[0].frameRate);
    EXPECT_FALSE(zoom[0].pixelWidth);
    EXPECT_EQ(zoom[0].channelCount, 1);
    EXPECT_TRUE(zoom[0].audioChannelIndices.empty());

    // One line per track, in track order, after the last merge.
    const auto lines = clockLines(log);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("[Ingest] clock track 'Cam': quality=filesystem ")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" (1/1 dated)")) << lines[0];
    EXPECT_EQ(lines[1], "[Ingest] clock track 'Zoom': quality=embedded 14:30\u201315:05 (3/3 dated)");
}

TEST(LoadMetadata, ClipsAlreadyReadAreLeftAloneAndTheClockLinesStillCome) {
    TempDir tmp;
    ClipItem known = clipAt(recorderTake(tmp, "a.wav", 1.0, "2024-03-15", "08:00:00"));
    known.duration = 7;
    known.deviceName = "kept";
    known.channelCount = 4;
    known.startOffset = 3;
    const std::vector<TrackSource> sources{track("Rec", {known}), track("Empty", {})};

    LogCapture log;
    int calls = 0;
    const auto result =
        IngestEngine::loadMetadata(sources, [&](const std::vector<TrackSource>&) { ++calls; });
    EXPECT_EQ(calls, 0);
    const auto& clip = result[0].clips[0];
    EXPECT_EQ(clip.duration, 7.0);
    EXPECT_EQ(clip.deviceName, "kept");
    EXPECT_EQ(clip.channelCount, 4);
    EXPECT_EQ(clip.startOffset, 3.0);
    EXPECT_FALSE(clip.recordingDate);
    EXPECT_EQ(clockLines(log), (std::vector<std::string>{"[Ingest] clock track 'Rec': no dates",
                                                         "[Ingest] clock track 'Empty': no dates"}));
}

TEST(LoadMetadata, FileThatVanishedAfterTheScanStaysUnreadAndAddsNoLength) {
    TempDir tmp;
    const auto first = recorderTake(tmp, "ZOOM0001.WAV", 2.0, "2024-03-15", "10:00:00");
    const auto gone = recorderTake(tmp, "ZOOM0002.WAV", 5.0, "2024-03-15", "10:10:00");
    const auto last = recorderTake(tmp, "ZOOM0003.WAV", 1.0, "2024-03-15", "10:20:00");
    std::vector<TrackSource> sources{track("Zoom", {clipAt(first), clipAt(gone), clipAt(last)})};
    std::filesystem::remove(gone);

    LogCapture log;
    const auto result = IngestEngine::loadMetadata(sources, {});
    const auto& clips = result[0].clips;
    EXPECT_EQ(clips[1].duration, 0.0);
    EXPECT_FALSE(clips[1].recordingDate);
    EXPECT_EQ(clips[1].clockQuality, ClockQuality::none);
    EXPECT_FALSE(clips[1].deviceName);
    EXPECT_EQ(clips[1].channelCount, 1);
    EXPECT_EQ(clips[0].startOffset, 0.0);
    EXPECT_DOUBLE_EQ(clips[1].startOffset, 2.0);
    EXPECT_DOUBLE_EQ(clips[2].startOffset, 2.0);
    // Only the dated clips make the span and the count.
    EXPECT_EQ(clockLines(log),
              std::vector<std::string>{
                  "[Ingest] clock track 'Zoom': quality=embedded 10:00\u201310:20 (2/3 dated)"});

    // The next load takes the unread clip up again, and only it.
    recorderTake(tmp, "ZOOM0002.WAV", 5.0, "2024-03-15", "10:10:00");
    int calls = 0;
    const auto again = IngestEngine::loadMetadata(result, [&](const std::vector<TrackSource>&) { ++calls; });
    EXPECT_EQ(calls, 1);
    EXPECT_DOUBLE_EQ(again[0].clips[1].duration, 5.0);
    EXPECT_DOUBLE_EQ(again[0].clips[2].startOffset, 7.0);
}

TEST(LoadMetadata, PictureSizeIsOverwrittenOnlyWhereTheFileHasOne) {
    TempDir tmp;
    // A RED take whose sound is the sidecar WAV: the header's size stays.
    ClipItem red = clipAt(recorderTake(tmp, "A001_C001.WAV", 1.0, "2024-03-15", "10:00:00"));
    red.pixelWidth = 4096;
    red.pixelHeight = 2160;
    const auto movie = tmp / "C0001.MP4";
    ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=1 -c:v libx264 -preset ultrafast " +
           quoted(movie.string()));
    ClipItem cam = clipAt(movie);
    cam.pixelWidth = 4096;
    cam.pixelHeight = 2160;

    const auto result = IngestEngine::loadMetadata(
        {track("RED", {red}, SourceType::video), track("Cam", {cam}, SourceType::video)}, {});
    EXPECT_EQ(result[0].clips[0].pixelWidth, 4096);
    EXPECT_EQ(result[0].clips[0].pixelHeight, 2160);
    EXPECT_EQ(result[1].clips[0].pixelWidth, 160);
    EXPECT_EQ(result[1].clips[0].pixelHeight, 120);
    // A picture without sound has no channels.
    EXPECT_EQ(result[1].clips[0].channelCount, 0);
}

TEST(LoadMetadata, ManyClipsAreAllReadWhateverOrderTheyFinishIn) {
    TempDir tmp;
    std::vector<ClipItem> clips;
    for (int i = 0; i < 9; ++i)
        clips.push_back(clipAt(recorderTake(tmp, "T" + std::to_string(i) + ".wav", 0.5 + 0.25 * i,
                                            "2024-03-15", "10:0" + std::to_string(i) + ":00")));
    LogCapture log;
    std::set<Uuid> seen;
    std::vector<TrackSource> previous;
    const auto result =
        IngestEngine::loadMetadata({track("T", clips)}, [&](const std::vector<TrackSource>& s) {
            // Each update differs from the one before by exactly one newly read clip.
            int newlyRead = 0;
            for (std::size_t i = 0; i < s[0].clips.size(); ++i)
                if (s[0].clips[i].duration > 0 && (previous.empty() || previous[0].clips[i].duration == 0)) {
                    ++newlyRead;
                    seen.insert(s[0].clips[i].id);
                }
            EXPECT_EQ(newlyRead, 1);
            previous = s;
        });
    EXPECT_EQ(seen.size(), 9u);
    double offset = 0;
    for (int i = 0; i < 9; ++i) {
        EXPECT_DOUBLE_EQ(result[0].clips[static_cast<std::size_t>(i)].duration, 0.5 + 0.25 * i);
        EXPECT_DOUBLE_EQ(result[0].clips[static_cast<std::size_t>(i)].startOffset, offset);
        offset += 0.5 + 0.25 * i;
    }
    EXPECT_EQ(
        clockLines(log),
        std::vector<std::string>{"[Ingest] clock track 'T': quality=embedded 10:00\u201310:08 (9/9 dated)"});
}

TEST(LoadMetadata, AStopBeforeTheStartReadsNothingAndLogsNothing) {
    TempDir tmp;
    const std::vector<TrackSource> sources{
        track("Zoom", {clipAt(recorderTake(tmp, "a.wav", 1.0, "2024-03-15", "10:00:00"))})};
    std::stop_source stop;
    stop.request_stop();
    LogCapture log;
    int calls = 0;
    const auto result = IngestEngine::loadMetadata(
        sources, [&](const std::vector<TrackSource>&) { ++calls; }, stop.get_token());
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(result[0].clips[0].duration, 0.0);
    EXPECT_TRUE(clockLines(log).empty());
}
