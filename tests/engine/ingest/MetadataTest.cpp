// SPDX-License-Identifier: GPL-3.0-or-later
#include "MediaSupport.hpp"
#include "TrelvaneEngine/ingest/IngestEngine.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>

using namespace trelvane;
using trelvane::test::ffmpeg;
using trelvane::test::localDate;
using trelvane::test::LogCapture;
using trelvane::test::quoted;
using trelvane::test::sineInput;
using trelvane::test::TempDir;

namespace {

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

std::vector<std::string> clockLines(const LogCapture& log) {
    std::vector<std::string> out;
    for (const auto& l : log.lines())
        if (l.starts_with("[Ingest] clock track ")) out.push_back(l);
    return out;
}

// What the readers return for each file is pinned by their own tests; these check how loading
// merges it into the clips. The takes are made once and copied where a test needs to change them.
class LoadMetadata : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        tmp_ = std::make_unique<TempDir>();
        take(a_ = *tmp_ / "ZOOM0001.WAV", 2.0, "14:30:12");
        take(b_ = *tmp_ / "ZOOM0002.WAV", 1.5, "15:05:59");
        // No stamp, a plain name: the file's own date, here inside the span of the others.
        plain_ = *tmp_ / "take.wav";
        ffmpeg(sineInput(1.0) + " " + quoted(plain_.string()));
        const auto sys = std::chrono::time_point_cast<std::chrono::system_clock::duration>(
            localDate(2024, 3, 15, 14, 45, 0));
        std::filesystem::last_write_time(plain_, std::chrono::file_clock::from_sys(sys));
        movie_ = *tmp_ / "C0001.MP4";
        ffmpeg("-f lavfi -i testsrc=size=320x240:rate=25:duration=2 " + sineInput(2.0) +
               " -timecode 01:00:00:00 -c:v libx264 -preset ultrafast -c:a aac -shortest " +
               quoted(movie_.string()));
    }
    static void TearDownTestSuite() { tmp_.reset(); }

    static void take(const std::filesystem::path& p, double seconds, const std::string& time) {
        ffmpeg(sineInput(seconds) +
               " -c:a pcm_s16le -write_bext 1 -metadata originator=" + quoted("ZOOM F8") +
               " -metadata origination_date=2024-03-15 -metadata origination_time=" + time + " " +
               quoted(p.string()));
    }

    static inline std::unique_ptr<TempDir> tmp_;
    static inline std::filesystem::path a_, b_, plain_, movie_;
};

} // namespace

TEST_F(LoadMetadata, FillsEveryClipMergesEachAsItComesAndLogsTheClockLines) {
    ClipItem cam = clipAt(movie_);
    // A size from the card's header is replaced where the file has a picture, and kept where not.
    cam.pixelWidth = 4096;
    ClipItem sidecar = clipAt(a_);
    sidecar.pixelWidth = 4096;
    std::vector<TrackSource> sources{track("Cam", {cam}, SourceType::video),
                                     track("Zoom", {sidecar, clipAt(b_), clipAt(plain_)})};

    LogCapture log;
    std::mutex mutex;
    std::vector<std::vector<TrackSource>> updates;
    const auto result = IngestEngine::loadMetadata(sources, [&](const std::vector<TrackSource>& s) {
        std::lock_guard lock(mutex);
        updates.push_back(s);
    });

    // One call per merged clip, whatever order they finish in, each with one more clip read.
    ASSERT_EQ(updates.size(), 4u);
    for (std::size_t i = 0; i < updates.size(); ++i) {
        int read = 0;
        for (const auto& t : updates[i])
            for (const auto& clip : t.clips)
                read += clip.duration > 0 ? 1 : 0;
        EXPECT_EQ(read, static_cast<int>(i) + 1);
    }

    // What the readers return is theirs to test; here only that it lands on the right clip.
    const auto& c = result[0].clips[0];
    EXPECT_EQ(c.id, cam.id);
    EXPECT_NEAR(c.duration, 2.0, 0.05);
    EXPECT_EQ(c.pixelWidth, 320);

    const auto& zoom = result[1].clips;
    EXPECT_EQ(zoom[0].pixelWidth, 4096);
    // Laid end to end in track order.
    EXPECT_EQ(zoom[0].startOffset, 0.0);
    EXPECT_DOUBLE_EQ(zoom[1].startOffset, 2.0);
    EXPECT_DOUBLE_EQ(zoom[2].startOffset, 3.5);
    EXPECT_EQ(zoom[0].recordingDate, localDate(2024, 3, 15, 14, 30, 12));
    // Its file was last written at 14:45:00, when the one-second take ended.
    EXPECT_EQ(zoom[2].recordingDate, localDate(2024, 3, 15, 14, 44, 59));

    // One line per track, in track order, after the last merge.
    const auto lines = clockLines(log);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("[Ingest] clock track 'Cam': quality=filesystem ")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" (1/1 dated)")) << lines[0];
    EXPECT_EQ(lines[1], "[Ingest] clock track 'Zoom': quality=embedded 14:30\u201315:05 (3/3 dated)");
}

TEST_F(LoadMetadata, ClipsAlreadyReadAreLeftAloneAndAStopBeforeTheStartReadsNothing) {
    ClipItem known = clipAt(a_);
    known.duration = 7;
    known.deviceName = "kept";
    known.startOffset = 3;
    LogCapture log;
    int calls = 0;
    const auto count = [&](const std::vector<TrackSource>&) { ++calls; };
    const auto result = IngestEngine::loadMetadata({track("Rec", {known}), track("Empty", {})}, count);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(result[0].clips[0].deviceName, "kept");
    EXPECT_EQ(result[0].clips[0].startOffset, 3.0);
    EXPECT_EQ(clockLines(log), (std::vector<std::string>{"[Ingest] clock track 'Rec': no dates",
                                                         "[Ingest] clock track 'Empty': no dates"}));

    std::stop_source stop;
    stop.request_stop();
    LogCapture stopped;
    const auto none = IngestEngine::loadMetadata({track("Zoom", {clipAt(a_)})}, count, stop.get_token());
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(none[0].clips[0].duration, 0.0);
    EXPECT_TRUE(clockLines(stopped).empty());
}

TEST_F(LoadMetadata, FileThatVanishedAfterTheScanStaysUnreadAndAddsNoLength) {
    TempDir tmp;
    const auto first = tmp / "1.wav", gone = tmp / "2.wav", last = tmp / "3.wav";
    std::filesystem::copy_file(a_, first);
    std::filesystem::copy_file(b_, last);
    const std::vector<TrackSource> sources{track("Zoom", {clipAt(first), clipAt(gone), clipAt(last)})};

    LogCapture log;
    const auto result = IngestEngine::loadMetadata(sources, {});
    const auto& clips = result[0].clips;
    EXPECT_EQ(clips[1].duration, 0.0);
    EXPECT_EQ(clips[1].clockQuality, ClockQuality::none);
    EXPECT_DOUBLE_EQ(clips[1].startOffset, 2.0);
    EXPECT_DOUBLE_EQ(clips[2].startOffset, 2.0);
    // Only the dated clips make the span and the count.
    EXPECT_EQ(clockLines(log),
              std::vector<std::string>{
                  "[Ingest] clock track 'Zoom': quality=embedded 14:30\u201315:05 (2/3 dated)"});

    // The next load takes the unread clip up again, and only it.
    std::filesystem::copy_file(plain_, gone);
    int calls = 0;
    const auto again = IngestEngine::loadMetadata(result, [&](const std::vector<TrackSource>&) { ++calls; });
    EXPECT_EQ(calls, 1);
    EXPECT_DOUBLE_EQ(again[0].clips[1].duration, 1.0);
    EXPECT_DOUBLE_EQ(again[0].clips[2].startOffset, 3.0);
}
