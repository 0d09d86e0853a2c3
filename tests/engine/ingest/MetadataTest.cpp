// SPDX-License-Identifier: GPL-3.0-or-later
#include "MediaSupport.hpp"
#include "engine/ingest/TrackBuilders.hpp"

#include <gtest/gtest.h>

#include <algorithm>
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
using trelvane::test::track;

namespace {

ClipItem clipAt(const std::filesystem::path& p) {
    return test::clip(p.string(), 0.0);
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
    TempDir tmp;
    const auto gone = tmp / "gone.wav";
    const std::vector<TrackSource> sources{
        track("Cam", {cam}, SourceType::video),
        track("Zoom", {sidecar, clipAt(b_), clipAt(gone), clipAt(plain_)})};
    LogCapture log;
    std::mutex mutex;
    std::vector<int> read; // clips read at each call
    const auto result = IngestEngine::loadMetadata(sources, [&](const std::vector<TrackSource>& s) {
        std::lock_guard lock(mutex);
        read.push_back(0);
        for (const auto& t : s)
            for (const auto& clip : t.clips)
                read.back() += clip.duration > 0 ? 1 : 0;
    });
    // One call per merged clip, the unreadable one too, whatever order they finish in.
    ASSERT_EQ(read.size(), 5u);
    EXPECT_TRUE(std::is_sorted(read.begin(), read.end()));
    EXPECT_EQ(read.back(), 4);

    const auto& c = result[0].clips[0];
    EXPECT_EQ(c.id, cam.id);
    EXPECT_NEAR(c.duration, 2.0, 0.05);
    EXPECT_EQ(c.pixelWidth, 320);
    const auto& zoom = result[1].clips;
    EXPECT_EQ(zoom[0].pixelWidth, 4096);
    // Laid end to end in track order; the file that vanished after the scan stays unread and adds
    // no length.
    EXPECT_DOUBLE_EQ(zoom[1].startOffset, 2.0);
    EXPECT_EQ(zoom[2].duration, 0.0);
    EXPECT_EQ(zoom[2].clockQuality, ClockQuality::none);
    EXPECT_DOUBLE_EQ(zoom[3].startOffset, 3.5);
    EXPECT_EQ(zoom[0].recordingDate, localDate(2024, 3, 15, 14, 30, 12));
    // Its file was last written at 14:45:00, when the one-second take ended.
    EXPECT_EQ(zoom[3].recordingDate, localDate(2024, 3, 15, 14, 44, 59));

    // One line per track, in track order, after the last merge; only dated clips make span and count.
    const auto lines = test::linesWith(log, "[Ingest] clock track ");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("[Ingest] clock track 'Cam': quality=filesystem ")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" (1/1 dated)")) << lines[0];
    EXPECT_EQ(lines[1], "[Ingest] clock track 'Zoom': quality=embedded 14:30\u201315:05 (3/4 dated)");

    // The next load takes the unread clip up again, and only it; clips already read are left alone.
    std::filesystem::copy_file(plain_, gone);
    int calls = 0;
    const auto again = IngestEngine::loadMetadata(result, [&](const std::vector<TrackSource>&) { ++calls; });
    EXPECT_EQ(calls, 1);
    EXPECT_DOUBLE_EQ(again[1].clips[2].duration, 1.0);
    EXPECT_DOUBLE_EQ(again[1].clips[3].startOffset, 4.5);
    EXPECT_EQ(again[1].clips[0].pixelWidth, 4096);
}
