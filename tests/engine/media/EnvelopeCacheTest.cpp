// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace trelvane;
using trelvane::test::LogCapture;
using trelvane::test::ScopedEnv;
using trelvane::test::TempDir;
namespace fs = std::filesystem;
namespace EC = trelvane::EnvelopeCache;

namespace {

using Bytes = std::vector<std::uint8_t>;

// An independent djb2 over a text, printed as the key is.
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

timespec modificationTime(const fs::path& p) {
    struct stat st {};
    ::stat(p.c_str(), &st);
    return st.st_mtim;
}

std::vector<std::uint32_t> bitsOf(const std::vector<float>& values) {
    std::vector<std::uint32_t> out;
    for (const float v : values)
        out.push_back(std::bit_cast<std::uint32_t>(v));
    return out;
}

// Floats whose bits a careless copy would change: negative zero, denormals, the extremes.
std::vector<float> awkwardFloats() {
    using L = std::numeric_limits<float>;
    return {0.0f, -0.0f, 1.0f, -2.5f, L::denorm_min(), L::max(), -L::max(), L::min(), 0.1f};
}

BandFeature featureOf(int bands, int frames, float seed) {
    BandFeature f;
    f.frames = frames;
    for (int b = 0; b < bands; ++b) {
        std::vector<float> series;
        for (int i = 0; i < frames; ++i)
            series.push_back(seed * static_cast<float>(b + 1) - 0.37f * static_cast<float>(i));
        f.bands.push_back(std::move(series));
    }
    return f;
}

void putLe(Bytes& out, std::uint64_t v, int size) {
    for (int i = 0; i < size; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// An entry made by hand: the version, the key text, the given 32-bit words and a valid checksum,
// so that only what the words say is on trial.
Bytes sealed(std::uint32_t version, const std::string& key, std::initializer_list<std::uint32_t> words,
             std::optional<double> duration = std::nullopt) {
    Bytes out;
    putLe(out, version, 4);
    putLe(out, key.size(), 4);
    out.insert(out.end(), key.begin(), key.end());
    if (duration) putLe(out, std::bit_cast<std::uint64_t>(*duration), 8);
    for (const auto w : words)
        putLe(out, w, 4);
    putLe(out, EC::crc32(out), 4);
    return out;
}

Bytes readBytes(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeBytes(const fs::path& p, const Bytes& bytes) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
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

const Date kNow = dateFromUnixSeconds(1'800'000'000);
constexpr long long kNowSeconds = 1'800'000'000;
constexpr long long kDay = 86'400;

// A file in the cache folder of `size` bytes (sparse: the size counts, the blocks don't exist), last
// changed `age` seconds before kNowSeconds.
fs::path aged(const TempDir& tmp, const std::string& name, std::uintmax_t size, long long age,
              long nanos = 0) {
    const auto p = tmp.file("cache/" + name, "");
    fs::resize_file(p, size);
    setModificationTime(p, kNowSeconds - age, nanos);
    return p;
}

} // namespace

// ---- formats ----------------------------------------------------------------------------------

TEST(EnvelopeCache, EntriesAreVersionKeyTextCountedValuesAndCrc32) {
    // The checksum is the CRC-32 of zlib and PNG: its published check value.
    const std::string check = "123456789";
    EXPECT_EQ(EC::crc32(Bytes(check.begin(), check.end())), 0xcbf43926u);
    EXPECT_EQ(EC::crc32({}), 0u);

    Bytes pair;
    putLe(pair, 5, 4);
    putLe(pair, 1, 4);
    pair.push_back('k');
    pair.insert(pair.end(), {0, 0, 0, 0, 0, 0, 0x04, 0x40}); // 2.5 as a double
    pair.insert(pair.end(), {2,    0,    0, 0, 0x00, 0x00, 0x80, 0x3f, 0x00, 0x00,
                             0x20, 0xc0, 1, 0, 0,    0,    0x00, 0x00, 0x00, 0x3f});
    putLe(pair, EC::crc32(pair), 4);
    EXPECT_EQ(EC::serialize("k", pairOf({1.0f, -2.5f}, {0.5f}, 2.5)), pair);

    Bytes bands;
    putLe(bands, 7, 4);
    putLe(bands, 1, 4);
    bands.push_back('k');
    bands.insert(bands.end(),
                 {2, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x00, 0x80, 0x3f, 0x00, 0x00, 0x00, 0x40}); // {1}, {2}
    putLe(bands, EC::crc32(bands), 4);
    EXPECT_EQ(EC::serializeBands("k", featureOf(2, 1, 1.0f)), bands);
}

TEST(EnvelopeCache, BothFormatsRoundTripBitExact) {
    const auto floats = awkwardFloats();
    std::vector<float> envelope(floats.rbegin(), floats.rend());
    envelope.push_back(3.0f);
    // The decoder's lengths are sample counts over the rate: not short decimals.
    const double duration = 1234567.0 / 16000.0;
    const auto pair = EC::deserialize(*EC::serialize(kKey, pairOf(floats, envelope, duration)), kKey);
    ASSERT_TRUE(pair);
    EXPECT_EQ(bitsOf(pair->preview), bitsOf(floats));
    EXPECT_EQ(bitsOf(pair->envelope), bitsOf(envelope));
    EXPECT_EQ(std::bit_cast<std::uint64_t>(pair->duration), std::bit_cast<std::uint64_t>(duration));

    BandFeature feature = featureOf(8, static_cast<int>(floats.size()), 0.25f);
    feature.bands[3] = floats;
    const auto back = EC::deserializeBands(*EC::serializeBands(kKey, feature), kKey);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->frames, feature.frames);
    ASSERT_EQ(back->bands.size(), 8u);
    for (std::size_t b = 0; b < 8; ++b)
        EXPECT_EQ(bitsOf(back->bands[b]), bitsOf(feature.bands[b])) << "band " << b;

    // Empty values are entries too: a clip too short for a feature caches the empty one.
    EXPECT_EQ(EC::deserialize(*EC::serialize(kKey, {}), kKey), EC::Pair{});
    EXPECT_EQ(EC::deserializeBands(*EC::serializeBands(kKey, {}), kKey), BandFeature{});
}

TEST(EnvelopeCache, SavedEntriesLoadBackThroughTheFiles) {
    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("shoot/clip.wav", "RIFF not really"));
    const auto folder = tmp / "cache/nested/Trelvane";
    const auto stored = pairOf(awkwardFloats(), {2.0f, 4.0f}, 601.25);
    const auto feature = featureOf(8, 40, 1.5f);

    EXPECT_FALSE(EC::loadPair(media, folder));
    EXPECT_FALSE(EC::loadBands(media, folder));
    ASSERT_TRUE(EC::savePair(media, stored, folder));
    ASSERT_TRUE(EC::saveBands(media, feature, folder));

    // Bit for bit, as the files hold exactly what serialising gives.
    EXPECT_EQ(EC::loadPair(media, folder), stored);
    EXPECT_EQ(EC::loadBands(media, folder), feature);

    const auto text = *EC::keyText(media);
    EXPECT_EQ(text, media.path() + "|15|" + std::to_string(modificationTime(media.path()).tv_sec));
    const auto key = *EC::cacheKey(media);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{key, key + ".bands"}));
    EXPECT_EQ(readBytes(folder / key), *EC::serialize(text, stored));
    EXPECT_EQ(readBytes(folder / (key + ".bands")), *EC::serializeBands(text, feature));
}

// Whatever in an entry is off, the entry is a miss: one case of each kind, the rest of the entry
// intact and sealed. Byte-level damage of every other shape is left to fuzz/EnvelopeCacheFuzz.cpp.
TEST(EnvelopeCache, EntriesThatAreOffInAnyWayAreMisses) {
    const auto one = std::bit_cast<std::uint32_t>(1.0f);
    const auto nan = std::bit_cast<std::uint32_t>(std::numeric_limits<float>::quiet_NaN());
    const auto pair = *EC::serialize(kKey, pairOf({0.25f, 1.0f}, {0.5f}, 3.0));
    auto flipped = pair;
    flipped[pair.size() - 8] ^= 0x10; // in the envelope value
    auto padded = pair;
    padded.push_back(0);
    const struct {
        const char* what;
        Bytes bytes;
        bool bands;
    } cases[] = {
        {"the bands version on a pair", sealed(7, kKey, {0, 0}, 1.0), false},
        {"the pair version on bands", sealed(5, kKey, {0, 0}), true},
        {"a flipped bit", flipped, false},
        {"a byte cut off", Bytes(pair.begin(), pair.end() - 1), false},
        {"a byte too many", padded, false},
        {"another file's key text", *EC::serialize("/shoot/clip.wav|1234|1700000001", pairOf({1.0f}, {})),
         false},
        {"NaN in the preview", sealed(5, kKey, {2, one, nan, 1, one}, 1.0), false},
        {"a negative length", sealed(5, kKey, {1, one, 1, one}, -1.0), false},
        {"NaN in a band", sealed(7, kKey, {2, 1, one, nan}), true},
        {"frames without bands", sealed(7, kKey, {0, 5}), true},
        {"more frames than an int holds", sealed(7, kKey, {1, 0x8000'0000u}), true},
    };
    ASSERT_TRUE(EC::deserialize(sealed(5, kKey, {2, one, one, 1, one}, 1.0), kKey)) << "the cases' frame";
    ASSERT_TRUE(EC::deserializeBands(sealed(7, kKey, {2, 1, one, one}), kKey)) << "the cases' frame";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(c.bands ? EC::deserializeBands(c.bytes, kKey).has_value()
                             : EC::deserialize(c.bytes, kKey).has_value());
    }
    // Counts that describe a feature, however odd, are one.
    const auto odd = EC::deserializeBands(sealed(7, kKey, {3, 1, 0, 0, 0}), kKey);
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->bands.size(), 3u);
    EXPECT_EQ(odd->frames, 1);

    // The same through a file on disk, as a crash or a full disk would leave it.
    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("clip.mov", "movie"));
    ASSERT_TRUE(EC::savePair(media, pairOf({1.0f, 2.0f}, {3.0f}), tmp / "cache"));
    const auto entry = tmp / "cache" / *EC::cacheKey(media);
    fs::resize_file(entry, fs::file_size(entry) - 1);
    EXPECT_FALSE(EC::loadPair(media, tmp / "cache"));
}

// Values that can't be read back, and features that are not one, are never written.
TEST(EnvelopeCache, WhatCantBeReadBackIsNotWritten) {
    const float nanF = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(EC::serialize(kKey, pairOf({nanF}, {})));
    EXPECT_FALSE(EC::serialize(kKey, pairOf({}, {std::numeric_limits<float>::infinity()})));
    EXPECT_FALSE(EC::serialize(kKey, pairOf({}, {}, std::numeric_limits<double>::quiet_NaN())));
    EXPECT_FALSE(EC::serialize(kKey, pairOf({}, {}, -0.5)));
    auto withNaN = featureOf(2, 3, 1.0f);
    withNaN.bands[1][2] = nanF;
    auto ragged = featureOf(8, 10, 1.0f);
    ragged.bands[7].pop_back();
    auto miscounted = featureOf(8, 10, 1.0f);
    miscounted.frames = 9;
    for (const auto& feature : {withNaN, ragged, miscounted, BandFeature{{}, 5}, BandFeature{{{}, {}}, 0}})
        EXPECT_FALSE(EC::serializeBands(kKey, feature)) << feature.bands.size() << " x " << feature.frames;
}

// ---- keys -------------------------------------------------------------------------------------

TEST(EnvelopeCache, KeyIsDjb2OfPathSizeAndWholeSecondsOfModification) {
    // The oracle itself: djb2 from 5381, times 33 plus the byte, wrapping in 64 bits.
    EXPECT_EQ(djb2Key(""), "0000000000001505");
    EXPECT_EQ(djb2Key("/tmp/clip.wav|5|1700000000"), "6c0d7c56434e2fad");

    TempDir tmp;
    const auto p = tmp.file("A001 Clip é.MOV", "12345");
    setModificationTime(p, 1'700'000'000, 750'000'000);
    const auto url = Url::fromPath(p);
    EXPECT_EQ(EC::cacheKey(url), djb2Key(url.path() + "|5|1700000000"));

    // Before 1970 the whole seconds are truncated toward zero: -1.5 s gives -1.
    setModificationTime(p, -2, 500'000'000);
    if (modificationTime(p).tv_sec != -2) GTEST_SKIP() << "this file system holds no time before 1970";
    EXPECT_EQ(EC::cacheKey(url), djb2Key(url.path() + "|5|-1"));
    setModificationTime(p, -3, 0);
    EXPECT_EQ(EC::cacheKey(url), djb2Key(url.path() + "|5|-3"));
}

TEST(EnvelopeCache, KeyChangesWithSizeTimeOrPathAndIsStableOtherwise) {
    TempDir tmp;
    const auto keyOf = [&](const std::string& name, const std::string& content, long long seconds,
                           long nanos) {
        const auto p = tmp.file(name, content);
        setModificationTime(p, seconds, nanos);
        return EC::cacheKey(Url::fromPath(p));
    };
    const auto key = keyOf("clip.wav", "12345", 1'700'000'000, 100'000'000);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(key->size(), 16u);
    // Other content of the same size at the same second: the key can't tell, and doesn't claim to.
    using Case = std::tuple<const char*, const char*, const char*, long long, long, bool>;
    for (const auto& [what, name, content, seconds, nanos, same] :
         {Case{"touched within the second", "clip.wav", "12345", 1'700'000'000, 900'000'000, true},
          Case{"touched to the next second", "clip.wav", "12345", 1'700'000'001, 100'000'000, false},
          Case{"rewritten, same size and time", "clip.wav", "54321", 1'700'000'000, 100'000'000, true},
          Case{"one byte longer", "clip.wav", "123456", 1'700'000'000, 100'000'000, false},
          Case{"the same file elsewhere", "other/clip.wav", "12345", 1'700'000'000, 100'000'000, false}})
        EXPECT_EQ(keyOf(name, content, seconds, nanos) == key, same) << what;

    // A link gets its own key, but from the status of the file it points at.
    const auto link = tmp / "link.wav";
    fs::create_symlink(tmp / "clip.wav", link);
    EXPECT_EQ(EC::cacheKey(Url::fromPath(link)), djb2Key(Url::fromPath(link).path() + "|6|1700000000"));
}

TEST(EnvelopeCache, FilesThatCantBeReadHaveNoKeyAndAreNeverCached) {
    TempDir tmp;
    const auto folder = tmp / "cache";
    const std::vector<float> one{1.0f};
    for (const auto& p : {tmp / "missing.wav", tmp.dir("folder.wav"), fs::path()}) {
        const auto url = p.empty() ? Url() : Url::fromPath(p);
        EXPECT_FALSE(EC::cacheKey(url)) << p;
        EXPECT_FALSE(EC::savePair(url, pairOf(one, one), folder)) << p;
        EXPECT_FALSE(EC::loadPair(url, folder)) << p;
    }
    const auto dangling = tmp / "dangling.wav";
    fs::create_symlink(tmp / "gone.wav", dangling);
    EXPECT_FALSE(EC::cacheKey(Url::fromPath(dangling)));
    EXPECT_FALSE(fs::exists(folder));

    if (::geteuid() != 0) {
        const auto locked = tmp.file("locked.wav", "data");
        fs::permissions(locked, fs::perms::none);
        EXPECT_FALSE(EC::cacheKey(Url::fromPath(locked)));
        EXPECT_FALSE(EC::savePair(Url::fromPath(locked), pairOf(one, one), folder));
        EXPECT_FALSE(fs::exists(folder));
    }
}

TEST(EnvelopeCache, CachedClipOpensWithoutOpeningTheMedia) {
    TempDir tmp;
    const auto media = tmp.file("clip.wav", std::string(4096, 'w'));
    const auto url = Url::fromPath(media);
    const auto folder = tmp / "cache";
    ASSERT_TRUE(EC::savePair(url, pairOf({0.1f, 0.2f}, {0.3f}), folder));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 5, 1.0f), folder));

    const int watcher = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watcher, 0);
    ASSERT_GE(::inotify_add_watch(watcher, media.c_str(), IN_OPEN | IN_ACCESS | IN_MODIFY | IN_ATTRIB), 0);
    char events[4096];

    EXPECT_TRUE(EC::loadPair(url, folder));
    EXPECT_TRUE(EC::loadBands(url, folder));
    EXPECT_EQ(::read(watcher, events, sizeof events), -1) << "the media file was opened, read or changed";
    EXPECT_EQ(errno, EAGAIN);

    // The watch does see an open.
    std::ifstream(media).get();
    EXPECT_GT(::read(watcher, events, sizeof events), 0);
    ::close(watcher);
}

TEST(EnvelopeCache, HostileEntriesAreMissesWithoutHanging) {
    TempDir tmp;
    const auto folder = tmp.dir("cache");
    const auto fifo = Url::fromPath(tmp.file("fifo.wav", "1"));
    const auto dir = Url::fromPath(tmp.file("dir.wav", "2"));
    const auto zero = Url::fromPath(tmp.file("zero.wav", "3"));
    const auto big = Url::fromPath(tmp.file("big.wav", "4"));

    // A FIFO would block a plain open until a writer came.
    ASSERT_EQ(::mkfifo((folder / *EC::cacheKey(fifo)).c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((folder / (*EC::cacheKey(fifo) + ".bands")).c_str(), 0600), 0);
    fs::create_directory(folder / *EC::cacheKey(dir));
    fs::create_symlink("/dev/zero", folder / *EC::cacheKey(zero));
    fs::create_symlink("/dev/zero", folder / (*EC::cacheKey(zero) + ".bands"));
    // A valid head on a file beyond the largest entry: refused before it is read.
    const auto bigEntry = folder / *EC::cacheKey(big);
    writeBytes(bigEntry, sealed(5, *EC::keyText(big), {0, 0}, 1.0));
    fs::resize_file(bigEntry, EC::kMaxEntryBytes + 1);

    for (const auto& url : {fifo, dir, zero, big}) {
        EXPECT_FALSE(EC::loadPair(url, folder)) << url.path();
        EXPECT_FALSE(EC::loadBands(url, folder)) << url.path();
    }
}

// ---- writing ----------------------------------------------------------------------------------

TEST(EnvelopeCache, SavesReplaceEntriesWholeAndLeaveNoTemporaries) {
    TempDir tmp;
    const auto url = Url::fromPath(tmp.file("clip.wav", "wave"));
    const auto folder = tmp / "cache";
    const auto key = *EC::cacheKey(url);
    ASSERT_TRUE(
        EC::savePair(url, pairOf(std::vector<float>(1000, 1.0f), std::vector<float>(100, 2.0f)), folder));
    ASSERT_TRUE(EC::savePair(url, pairOf({3.0f}, {}, 0.5), folder));
    EXPECT_EQ(EC::loadPair(url, folder), pairOf({3.0f}, {}, 0.5));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 50, 1.0f), folder));
    ASSERT_TRUE(EC::saveBands(url, {}, folder));
    EXPECT_EQ(EC::loadBands(url, folder), BandFeature{});
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{key, key + ".bands"}));
    EXPECT_EQ(fs::file_size(folder / key), EC::serialize(*EC::keyText(url), pairOf({3.0f}, {}, 0.5))->size());

    // A feature that is not one is not written, and what was there stays.
    auto ragged = featureOf(8, 5, 1.0f);
    ragged.bands[0].push_back(0.0f);
    EXPECT_FALSE(EC::saveBands(url, ragged, folder));
    EXPECT_EQ(EC::loadBands(url, folder), BandFeature{});
}

TEST(EnvelopeCache, UnwritableFolderMakesSavesFailQuietly) {
    TempDir tmp;
    const auto url = Url::fromPath(tmp.file("clip.wav", "wave"));
    const std::vector<float> one{1.0f};
    const auto notAFolder = tmp.file("plain-file", "x");
    for (const auto& folder : {notAFolder, notAFolder / "Trelvane", fs::path("/proc/self/Trelvane")}) {
        EXPECT_FALSE(EC::savePair(url, pairOf(one, one), folder)) << folder;
        EXPECT_FALSE(EC::saveBands(url, featureOf(8, 5, 1.0f), folder)) << folder;
        EXPECT_EQ(EC::cacheSize(folder), 0) << folder;
        EXPECT_EQ(EC::prune(kNow, folder).removed, 0) << folder;
    }
    EXPECT_EQ(readBytes(notAFolder), (Bytes{'x'}));

    if (::geteuid() != 0) {
        const auto locked = tmp.dir("locked");
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(EC::savePair(url, pairOf(one, one), locked));
        EXPECT_FALSE(EC::saveBands(url, featureOf(8, 5, 1.0f), locked));
        EXPECT_TRUE(namesIn(locked).empty());
    }
}

TEST(EnvelopeCache, PlainCallsUseTheUserCacheFolder) {
    TempDir tmp;
    ScopedEnv cacheHome("XDG_CACHE_HOME", tmp.path().string());
    EXPECT_EQ(EC::cacheDir(), tmp / "Trelvane");
    const auto url = Url::fromPath(tmp.file("media/clip.wav", "wave"));
    ASSERT_TRUE(EC::savePair(url, pairOf({1.0f}, {2.0f})));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 5, 1.0f)));
    const auto key = *EC::cacheKey(url);
    EXPECT_TRUE(fs::is_regular_file(tmp / "Trelvane" / key));
    EXPECT_TRUE(EC::loadPair(url));
    EXPECT_EQ(EC::loadBands(url), featureOf(8, 5, 1.0f));
    EXPECT_GT(EC::cacheSize(), 0);
    EC::clearAll();
    EXPECT_EQ(EC::cacheSize(), 0);
    EXPECT_FALSE(EC::loadPair(url));
}

// ---- housekeeping -----------------------------------------------------------------------------

TEST(EnvelopeCache, PruneRemovesEntriesOlderThanSevenDaysWhateverTheTotal) {
    TempDir tmp;
    const auto folder = tmp.dir("cache");
    aged(tmp, "0000000000000001", 3 * 1048576, 7 * kDay + 1, 999'999'000); // 7 days and a microsecond
    aged(tmp, "0000000000000002", 5, 7 * kDay);
    aged(tmp, "0000000000000003.bands", 5, kDay);
    aged(tmp, "0000000000000004", 6, -kDay);

    LogCapture log;
    const auto result = EC::prune(kNow, folder);
    EXPECT_EQ(result.removed, 1);
    EXPECT_EQ(result.bytesFreed, 3 * 1048576);
    EXPECT_EQ(namesIn(folder),
              (std::vector<std::string>{"0000000000000002", "0000000000000003.bands", "0000000000000004"}));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"[Cache] pruned 1 entry (3 MB) — older than 7 days or "
                                                     "over the 2 GB ceiling"}));

    // Nothing to do: nothing logged.
    EXPECT_EQ(EC::prune(kNow, folder).removed, 0);
    EXPECT_EQ(log.lines().size(), 1u);

    // Stray temporaries of an interrupted save age out like entries.
    aged(tmp, ".0000000000000005.AbCdEf", 4, 8 * kDay);
    aged(tmp, "0000000000000006", 3, 30 * kDay);
    const auto twice = EC::prune(kNow, folder);
    EXPECT_EQ(twice.removed, 2);
    EXPECT_EQ(twice.bytesFreed, 7);
    EXPECT_EQ(log.lines().back(),
              "[Cache] pruned 2 entries (0 MB) — older than 7 days or over the 2 GB ceiling");
    EXPECT_EQ(EC::prune(kNow, tmp / "no-such-folder").removed, 0);
}

TEST(EnvelopeCache, PruneTrimsTheOldestWhileOverTheCeiling) {
    TempDir tmp;
    const auto folder = tmp.dir("cache");
    const auto sized = [&](const std::string& name, std::uintmax_t size, long long age) {
        return aged(tmp, name, size, age);
    };
    const std::int64_t quarter = EC::kCeilingBytes / 4;
    sized("a-newest", quarter, 10);
    sized("b-oldest", quarter, 3 * kDay);
    sized("c-middle", quarter, 2 * kDay);
    sized("d-second-oldest", quarter - 100, 3 * kDay - 1);
    const auto small = sized("e-small", 100, 60);
    fs::create_directory(folder / "not-an-entry"); // not counted, not removed

    LogCapture log;
    EXPECT_EQ(EC::cacheSize(folder), EC::kCeilingBytes);
    EXPECT_EQ(EC::prune(kNow, folder).removed, 0) << "exactly the ceiling is left alone";
    EXPECT_TRUE(log.lines().empty());

    fs::resize_file(small, 101);
    setModificationTime(small, kNowSeconds - 60);
    auto result = EC::prune(kNow, folder);
    EXPECT_EQ(result.removed, 1);
    EXPECT_EQ(result.bytesFreed, quarter);
    EXPECT_FALSE(fs::exists(folder / "b-oldest"));
    EXPECT_EQ(log.lines().back(),
              "[Cache] pruned 1 entry (512 MB) — older than 7 days or over the 2 GB ceiling");

    // Far over: the oldest go one by one until the total is under; the newest stay.
    sized("f-huge", 2 * quarter + 1, 5);
    result = EC::prune(kNow, folder);
    EXPECT_EQ(result.removed, 2);
    EXPECT_EQ(result.bytesFreed, 2 * quarter - 100);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"a-newest", "e-small", "f-huge", "not-an-entry"}));
    EXPECT_EQ(EC::cacheSize(folder), 3 * quarter + 1 + 101);

    // A ceiling of the user's: the same rule, and the log names it.
    EXPECT_EQ(EC::prune(kNow, folder, 4 * EC::kCeilingBytes).removed, 0);
    result = EC::prune(kNow, folder, 2 * quarter + 1);
    EXPECT_EQ(result.removed, 2);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"f-huge", "not-an-entry"}));
    EXPECT_EQ(log.lines().back(),
              "[Cache] pruned 2 entries (512 MB) — older than 7 days or over the 1 GB ceiling");
    EXPECT_EQ(EC::prune(kNow, folder, 0).removed, 1);
    EXPECT_EQ(EC::cacheSize(folder), 0);
}

// An entry read is an entry in use: reading it makes it new again, so that age and the ceiling take
// the entries that went unused longest, not the ones written longest ago.
TEST(EnvelopeCache, EntriesReadAreKeptByPrune) {
    TempDir tmp;
    const auto folder = tmp / "cache";
    const auto used = Url::fromPath(tmp.file("used.wav", "u"));
    const auto unused = Url::fromPath(tmp.file("unused.wav", "n"));
    for (const auto& url : {used, unused}) {
        ASSERT_TRUE(EC::savePair(url, pairOf({1.0f}, {1.0f}), folder));
        ASSERT_TRUE(EC::saveBands(url, featureOf(8, 5, 1.0f), folder));
    }
    const long long now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    for (const auto& name : namesIn(folder))
        setModificationTime(folder / name, now - 8 * kDay);
    ASSERT_TRUE(EC::loadPair(used, folder));
    ASSERT_TRUE(EC::loadBands(used, folder));
    EXPECT_EQ(EC::prune(dateNow(), folder).removed, 2);
    EXPECT_TRUE(EC::loadPair(used, folder));
    EXPECT_TRUE(EC::loadBands(used, folder));
    EXPECT_FALSE(EC::loadPair(unused, folder));
}

TEST(EnvelopeCache, CacheSizeAddsEntriesAndClearAllRemovesThem) {
    TempDir tmp;
    const auto folder = tmp / "cache";
    EXPECT_EQ(EC::cacheSize(folder), 0);
    EC::clearAll(folder); // a missing folder is nothing to clear
    EXPECT_FALSE(fs::exists(folder));

    const auto a = Url::fromPath(tmp.file("a.wav", "a"));
    const auto b = Url::fromPath(tmp.file("b.wav", "b"));
    const auto pairA = pairOf(std::vector<float>(10, 1.0f), std::vector<float>(5, 1.0f));
    ASSERT_TRUE(EC::savePair(a, pairA, folder));
    ASSERT_TRUE(EC::saveBands(a, featureOf(8, 5, 1.0f), folder));
    ASSERT_TRUE(EC::savePair(b, pairOf({1.0f}, {}), folder));
    tmp.file("cache/sub/inside", "not counted");
    fs::create_symlink(tmp / "a.wav", folder / "link");
    const auto textA = *EC::keyText(a), textB = *EC::keyText(b);
    EXPECT_EQ(EC::cacheSize(folder),
              static_cast<std::int64_t>(EC::serialize(textA, pairA)->size() +
                                        EC::serializeBands(textA, featureOf(8, 5, 1.0f))->size() +
                                        EC::serialize(textB, pairOf({1.0f}, {}))->size()));

    EC::clearAll(folder);
    EXPECT_EQ(EC::cacheSize(folder), 0);
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"link", "sub"}));
    EXPECT_FALSE(EC::loadPair(a, folder));
    EXPECT_FALSE(EC::loadBands(a, folder));
}
