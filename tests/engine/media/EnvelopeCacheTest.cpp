// SPDX-License-Identifier: GPL-3.0-or-later
// Entries damaged in every other way, and what a read entry promises (exact size, finite values,
// the same bytes written back), are left to fuzz/EnvelopeCacheFuzz.cpp; these tests pin the format,
// the keys, the files and the housekeeping.
#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace trelvane;
using trelvane::test::TempDir;
namespace fs = std::filesystem;
namespace EC = trelvane::EnvelopeCache;

namespace {

using Bytes = std::vector<std::uint8_t>;

// An independent djb2 over a text, printed as the key is: from 5381, times 33 plus the byte,
// wrapping in 64 bits.
std::string djb2Key(const std::string& text) {
    std::uint64_t h = 5381;
    for (const unsigned char c : text)
        h = h * 33 + c;
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
    return buf;
}

void setModificationTime(const fs::path& p, long long seconds, long nanoseconds = 0) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, p.c_str(), times, 0), 0) << p;
}

BandFeature featureOf(std::size_t bands, int frames, float value = 0.5f) {
    return {std::vector(bands, std::vector(static_cast<std::size_t>(frames), value)), frames};
}

// An entry made by hand: the version, the key text, the given bytes and a valid checksum, so that
// only what the bytes say is on trial.
Bytes sealed(std::uint32_t version, const std::string& key, const Bytes& body) {
    Bytes out;
    for (const auto v : {version, static_cast<std::uint32_t>(key.size())})
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    out.insert(out.end(), key.begin(), key.end());
    out.insert(out.end(), body.begin(), body.end());
    const auto crc = EC::crc32(out);
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(crc >> (8 * i)));
    return out;
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(folder, ec))
        out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

const std::string kKey = "/shoot/clip.wav|1234|1700000000";

EC::Pair pairOf(std::vector<float> preview, std::vector<float> envelope, double duration = 12.5) {
    return EC::Pair{std::move(preview), std::move(envelope), duration};
}

} // namespace

// ---- formats ----------------------------------------------------------------------------------

TEST(EnvelopeCache, EntriesAreVersionKeyTextCountedValuesAndCrc32) {
    // The checksum is the CRC-32 of zlib and PNG: its published check value.
    EXPECT_EQ(EC::crc32(Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0xcbf43926u);
    // 2.5 as a double; {1, -2.5} and {0.5} as counted floats.
    EXPECT_EQ(EC::serialize("k", pairOf({1.0f, -2.5f}, {0.5f}, 2.5)),
              sealed(5, "k", {0,    0,    0, 0, 0,    0,    0x04, 0x40, 2, 0, 0, 0, 0, 0,
                              0x80, 0x3f, 0, 0, 0x20, 0xc0, 1,    0,    0, 0, 0, 0, 0, 0x3f}));
    // Two bands of one frame, {1} and {2}.
    EXPECT_EQ(EC::serializeBands("k", BandFeature{{{1.0f}, {2.0f}}, 1}),
              sealed(7, "k", {2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0x80, 0x3f, 0, 0, 0, 0x40}));
}

// That what reads writes back the same bytes is the fuzzer's to check; here, what can't be read back
// is not written, and empty values are entries too (a clip too short for a feature caches the
// empty one).
TEST(EnvelopeCache, EmptyValuesRoundTripAndWhatCantBeReadBackIsNotWritten) {
    EXPECT_EQ(EC::deserialize(*EC::serialize(kKey, {}), kKey), EC::Pair{});
    EXPECT_EQ(EC::deserializeBands(*EC::serializeBands(kKey, {}), kKey), BandFeature{});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const auto& bad :
         {pairOf({nan}, {}), pairOf({}, {std::numeric_limits<float>::infinity()}), pairOf({}, {}, -0.5)})
        EXPECT_FALSE(EC::serialize(kKey, bad));
    auto withNaN = featureOf(2, 3), ragged = featureOf(8, 10);
    withNaN.bands[1][2] = nan;
    ragged.bands[7].pop_back();
    for (const auto& bad : {withNaN, ragged, BandFeature{{}, 5}, BandFeature{{{}, {}}, 0}})
        EXPECT_FALSE(EC::serializeBands(kKey, bad)) << bad.bands.size() << " x " << bad.frames;
}

// An entry of another version, a flipped bit, a byte too few or too many, or another file's key
// text is a miss; the rest of each entry is intact and sealed.
TEST(EnvelopeCache, EntriesThatAreOffAreMisses) {
    const auto pair = *EC::serialize(kKey, pairOf({0.25f, 1.0f}, {0.5f}, 3.0));
    auto flipped = pair, padded = pair;
    flipped[pair.size() - 8] ^= 0x10; // in the envelope value
    padded.push_back(0);
    const auto swapped = [](const Bytes& b) {
        return sealed(b[0] == 5 ? 7 : 5, kKey,
                      Bytes(b.begin() + 8 + static_cast<long>(kKey.size()), b.end() - 4));
    };
    for (const auto& bytes : {swapped(pair), flipped, padded, *EC::serialize(kKey + "1", pairOf({1.0f}, {}))})
        EXPECT_FALSE(EC::deserialize(bytes, kKey));
    EXPECT_FALSE(EC::deserializeBands(swapped(*EC::serializeBands(kKey, featureOf(2, 1))), kKey));
}

// A record of numbers: 0.5 as a double, counted; empty is a record (a refusal remembered); what
// is off is a miss, and what could not be read back is not written.
TEST(EnvelopeCache, RecordsOfNumbersRoundTripAndWhatIsOffIsAMiss) {
    EXPECT_EQ(EC::serializeNumbers("k", std::vector<double>{0.5}),
              sealed(1, "k", {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xe0, 0x3f}));
    const std::vector<double> values{-0.0123, 4.5, 1e-9};
    EXPECT_EQ(EC::deserializeNumbers(*EC::serializeNumbers(kKey, values), kKey), values);
    EXPECT_EQ(EC::deserializeNumbers(*EC::serializeNumbers(kKey, {}), kKey), std::vector<double>{});
    EXPECT_FALSE(EC::serializeNumbers(kKey, std::vector<double>{std::numeric_limits<double>::infinity()}));
    const auto good = *EC::serializeNumbers(kKey, values);
    auto flipped = good, short_ = good;
    flipped[good.size() - 6] ^= 0x01;
    short_.erase(short_.end() - 5);
    for (const auto& bytes : {flipped, short_, *EC::serializeNumbers(kKey + "x", values)})
        EXPECT_FALSE(EC::deserializeNumbers(bytes, kKey));

    TempDir dir;
    EXPECT_FALSE(EC::loadNumbers(kKey, dir.path()));
    ASSERT_TRUE(EC::saveNumbers(kKey, values, dir.path()));
    EXPECT_EQ(EC::loadNumbers(kKey, dir.path()), values);
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{djb2Key(kKey) + ".fine"});
}

// ---- keys -------------------------------------------------------------------------------------

// A file that can't be read has no key and is never cached.
TEST(EnvelopeCache, KeyIsDjb2OfPathSizeAndWholeSecondsOfReadableFilesOnly) {
    EXPECT_EQ(djb2Key(""), "0000000000001505");
    EXPECT_EQ(djb2Key("/tmp/clip.wav|5|1700000000"), "6c0d7c56434e2fad");
    TempDir tmp;
    const auto clip = tmp.file("A001 Clip é.MOV", "12345");
    setModificationTime(clip, 1'700'000'000, 750'000'000);
    EXPECT_EQ(EC::cacheKey(Url::fromPath(clip)), djb2Key(Url::fromPath(clip).path() + "|5|1700000000"));

    std::vector<Url> unreadable{Url(), Url::fromPath(tmp / "missing.wav"),
                                Url::fromPath(tmp.dir("folder.wav"))};
    if (::geteuid() != 0) {
        fs::permissions(tmp.file("locked.wav", "data"), fs::perms::none);
        unreadable.push_back(Url::fromPath(tmp / "locked.wav"));
    }
    for (const auto& url : unreadable) {
        EXPECT_FALSE(EC::cacheKey(url)) << url.path();
        EXPECT_FALSE(EC::savePair(url, pairOf({1.0f}, {1.0f}), tmp / "cache")) << url.path();
    }
    EXPECT_FALSE(fs::exists(tmp / "cache"));
}

// ---- files ------------------------------------------------------------------------------------

TEST(EnvelopeCache, SavesReplaceEntriesWholeAndLoadThemBackWithoutOpeningTheMedia) {
    TempDir tmp;
    const auto media = tmp.file("shoot/clip.wav", "RIFF not really");
    const auto url = Url::fromPath(media);
    const auto folder = tmp / "cache/nested/Trelvane";
    EXPECT_FALSE(EC::loadPair(url, folder));
    ASSERT_TRUE(EC::savePair(url, pairOf(std::vector(1000, 1.0f), std::vector(100, 2.0f)), folder));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 50), folder));
    const auto stored = pairOf({3.0f}, {}, 0.5);
    const auto feature = featureOf(8, 40, 1.5f);
    ASSERT_TRUE(EC::savePair(url, stored, folder));
    ASSERT_TRUE(EC::saveBands(url, feature, folder));

    // Nothing but the two entries is left.
    const auto key = *EC::cacheKey(url);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{key, key + ".bands"}));

    // Loading reads the entries alone: the media file is not even opened. An entry read is an entry in
    // use, made new again, so that prune takes the entries unused longest, not those written first.
    for (const auto& name : namesIn(folder))
        setModificationTime(folder / name, static_cast<long long>(unixSeconds(dateNow())) - 8 * 86'400);
    const int watcher = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watcher, 0);
    ASSERT_GE(::inotify_add_watch(watcher, media.c_str(), IN_OPEN | IN_ACCESS | IN_MODIFY | IN_ATTRIB), 0);
    char events[4096];
    EXPECT_TRUE(EC::loadPair(url, folder) == stored && EC::loadBands(url, folder) == feature);
    EXPECT_EQ(::read(watcher, events, sizeof events), -1) << "the media file was opened, read or changed";
    EXPECT_EQ(errno, EAGAIN);
    std::ifstream(media).get();
    EXPECT_GT(::read(watcher, events, sizeof events), 0) << "the watch does see an open";
    ::close(watcher);
    EXPECT_EQ(EC::prune(dateNow(), folder).removed, 0);
}

TEST(EnvelopeCache, HostileEntriesAreMissesWithoutHangingAndAnUnwritableFolderFailsQuietly) {
    TempDir tmp;
    const auto folder = tmp.dir("cache");
    const auto fifo = Url::fromPath(tmp.file("fifo.wav", "1")), big = Url::fromPath(tmp.file("big.wav", "2"));
    // A FIFO would block a plain open until a writer came; a valid head on a file beyond the
    // largest entry is refused before it is read.
    ASSERT_EQ(::mkfifo((folder / *EC::cacheKey(fifo)).c_str(), 0600), 0);
    const auto head = *EC::serialize(*EC::keyText(big), {});
    fs::resize_file(tmp.file("cache/" + *EC::cacheKey(big), std::string(head.begin(), head.end())),
                    EC::kMaxEntryBytes + 1);
    EXPECT_FALSE(EC::loadPair(fifo, folder));
    EXPECT_FALSE(EC::loadPair(big, folder));

    const auto notAFolder = tmp.file("plain-file", "x");
    for (const auto& unwritable : {notAFolder, notAFolder / "Trelvane"})
        EXPECT_FALSE(EC::saveBands(fifo, featureOf(8, 5), unwritable) || EC::cacheSize(unwritable))
            << unwritable;
    EXPECT_EQ(trelvane::test::slurp(notAFolder), "x");
}

TEST(EnvelopeCache, PlainCallsUseTheUserCacheFolderWhichClearAllEmpties) {
    TempDir tmp;
    const trelvane::test::ScopedEnv cacheHome("XDG_CACHE_HOME", tmp.path().string());
    EXPECT_EQ(EC::cacheDir(), tmp / "Trelvane");
    const auto a = Url::fromPath(tmp.file("media/a.wav", "a"));
    ASSERT_TRUE(EC::savePair(a, pairOf({1.0f}, {2.0f})));
    ASSERT_TRUE(EC::saveBands(a, featureOf(8, 5)));
    EXPECT_EQ(EC::loadBands(a), featureOf(8, 5));
    EXPECT_GT(EC::cacheSize(), 0);
    // Only the regular files directly in the folder are entries.
    tmp.file("Trelvane/sub/inside", "kept");
    EXPECT_EQ(EC::clearAll(), 2) << "the pair and the bands, not the folder";
    EXPECT_EQ(EC::cacheSize(), 0);
    EXPECT_EQ(EC::clearAll(), 0);
    EXPECT_EQ(namesIn(tmp / "Trelvane"), std::vector<std::string>{"sub"});
    EXPECT_FALSE(EC::loadPair(a));
}

// ---- housekeeping -----------------------------------------------------------------------------

namespace {

constexpr long long kNowSeconds = 1'800'000'000, kDay = 86'400;
const Date kNow = dateFromUnixSeconds(kNowSeconds);

// A file in the cache folder of `size` bytes (sparse: the size counts, the blocks don't exist),
// last changed `age` seconds before kNow.
void aged(const TempDir& tmp, const std::string& name, std::uintmax_t size, long long age, long nanos = 0) {
    const auto p = tmp.file("cache/" + name, "");
    fs::resize_file(p, size);
    setModificationTime(p, kNowSeconds - age, nanos);
}

} // namespace

// Entries and stray temporaries older than seven days go whatever the total; then, while the total
// is over the ceiling, the oldest go one by one.
TEST(EnvelopeCache, PruneRemovesWhatIsOlderThanSevenDaysThenTheOldestWhileOverTheCeiling) {
    TempDir tmp;
    const auto folder = tmp.dir("cache");
    const std::int64_t quarter = EC::kCeilingBytes / 4;
    aged(tmp, "0-stale", 3 * 1048576, 7 * kDay + 1, 999'999'000); // 7 days and a microsecond
    aged(tmp, ".0-temporary.AbCdEf", 4, 8 * kDay);                // of an interrupted save
    aged(tmp, "a-newest", quarter, 10);
    aged(tmp, "b-oldest", quarter - 7, 7 * kDay);
    aged(tmp, "c-middle", quarter, 2 * kDay);
    aged(tmp, "d-second-oldest", quarter - 100, 3 * kDay - 1);
    aged(tmp, "e-small", 107, 60);
    fs::create_directory(folder / "not-an-entry"); // not counted, not removed
    trelvane::test::LogCapture log;
    const auto pruned = [&](std::int64_t ceiling = EC::kCeilingBytes) {
        const auto r = EC::prune(kNow, folder, ceiling);
        return std::pair(r.removed, r.bytesFreed);
    };
    EXPECT_EQ(pruned(), std::pair(2, std::int64_t{3 * 1048576 + 4}));
    EXPECT_EQ(EC::cacheSize(folder), EC::kCeilingBytes) << "exactly the ceiling is left alone";
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"[Cache] pruned 2 entries (3 MB) — older than 7 days or "
                                                     "over the 2 GB ceiling"}));
    EXPECT_EQ(pruned().first, 0);
    EXPECT_EQ(log.lines().size(), 1u) << "nothing removed, nothing logged";

    aged(tmp, "f-huge", 2 * quarter, 5);
    EXPECT_EQ(pruned(), std::pair(3, 3 * quarter - 107));
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"a-newest", "e-small", "f-huge", "not-an-entry"}));
    // A ceiling of the user's: the same rule, and the log names it.
    EXPECT_EQ(pruned(2 * quarter).first, 2);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"f-huge", "not-an-entry"}));
    EXPECT_EQ(log.lines().back(),
              "[Cache] pruned 2 entries (512 MB) — older than 7 days or over the 1 GB ceiling");
}
