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
#include <new>
#include <sys/inotify.h>
#include <sys/resource.h>
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

// Floats whose bits a careless copy would change: NaNs with payloads, negative zero, denormals.
std::vector<float> awkwardFloats() {
    return {0.0f,
            -0.0f,
            1.0f,
            -2.5f,
            std::numeric_limits<float>::denorm_min(),
            std::numeric_limits<float>::max(),
            -std::numeric_limits<float>::infinity(),
            std::bit_cast<float>(std::uint32_t{0x7fc00123}),
            std::bit_cast<float>(std::uint32_t{0xff800001}),
            0.1f};
}

SpectralBands::Feature featureOf(int bands, int frames, float seed) {
    SpectralBands::Feature f;
    f.frames = frames;
    for (int b = 0; b < bands; ++b) {
        std::vector<float> series;
        for (int i = 0; i < frames; ++i)
            series.push_back(seed * static_cast<float>(b + 1) - 0.37f * static_cast<float>(i));
        f.bands.push_back(std::move(series));
    }
    return f;
}

Bytes le32(std::initializer_list<std::uint32_t> words) {
    Bytes out;
    for (const auto w : words)
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<std::uint8_t>(w >> (8 * i)));
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

// Lowers the process's data limit to what it uses now plus `headroom` for the life of the object,
// so that any allocation larger than the headroom fails.
class DataLimit {
  public:
    explicit DataLimit(rlim_t headroom) {
        ::getrlimit(RLIMIT_DATA, &old_);
        std::ifstream status("/proc/self/status");
        std::string line;
        rlim_t usedKB = 0;
        while (std::getline(status, line))
            if (line.starts_with("VmData:")) usedKB = std::stoull(line.substr(7));
        rlimit lowered = old_;
        lowered.rlim_cur = usedKB * 1024 + headroom;
        active_ = usedKB > 0 && lowered.rlim_cur < old_.rlim_max && ::setrlimit(RLIMIT_DATA, &lowered) == 0;
    }
    ~DataLimit() {
        if (active_) ::setrlimit(RLIMIT_DATA, &old_);
    }
    bool active() const { return active_; }

  private:
    rlimit old_{};
    bool active_ = false;
};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

const Date kNow = dateFromUnixSeconds(1'800'000'000);
constexpr long long kNowSeconds = 1'800'000'000;
constexpr long long kDay = 86'400;

} // namespace

// ---- formats ----------------------------------------------------------------------------------

TEST(EnvelopeCache, PairBytesAreVersionThenCountedLittleEndianFloats) {
    const std::vector<float> preview{1.0f, -2.5f};
    const std::vector<float> envelope{0.5f};
    const auto bytes = EC::serialize(preview, envelope);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(*bytes, (Bytes{4,    0,    0,    0,    2, 0, 0, 0, 0x00, 0x00, 0x80, 0x3f,
                             0x00, 0x00, 0x20, 0xc0, 1, 0, 0, 0, 0x00, 0x00, 0x00, 0x3f}));

    const auto bands = EC::serializeBands(featureOf(2, 1, 1.0f)); // bands {1.0}, {2.0}
    ASSERT_TRUE(bands);
    EXPECT_EQ(*bands,
              (Bytes{6, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x00, 0x80, 0x3f, 0x00, 0x00, 0x00, 0x40}));
}

TEST(EnvelopeCache, BothFormatsRoundTripBitExact) {
    const auto floats = awkwardFloats();
    std::vector<float> envelope(floats.rbegin(), floats.rend());
    envelope.push_back(3.0f);
    const auto pair = EC::deserialize(*EC::serialize(floats, envelope));
    ASSERT_TRUE(pair);
    EXPECT_EQ(bitsOf(pair->preview), bitsOf(floats));
    EXPECT_EQ(bitsOf(pair->envelope), bitsOf(envelope));

    SpectralBands::Feature feature = featureOf(8, static_cast<int>(floats.size()), 0.25f);
    feature.bands[3] = floats;
    const auto back = EC::deserializeBands(*EC::serializeBands(feature));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->frames, feature.frames);
    ASSERT_EQ(back->bands.size(), 8u);
    for (std::size_t b = 0; b < 8; ++b)
        EXPECT_EQ(bitsOf(back->bands[b]), bitsOf(feature.bands[b])) << "band " << b;

    // Empty values are entries too: a clip too short for a feature caches the empty one.
    EXPECT_EQ(EC::deserialize(*EC::serialize({}, {})), EC::Pair{});
    EXPECT_EQ(EC::deserializeBands(*EC::serializeBands({})), SpectralBands::Feature{});
}

TEST(EnvelopeCache, SavedEntriesLoadBackThroughTheFiles) {
    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("shoot/clip.wav", "RIFF not really"));
    const auto folder = tmp / "cache/nested/Trelvane";
    const auto floats = awkwardFloats();
    const auto feature = featureOf(8, 40, 1.5f);

    EXPECT_FALSE(EC::loadPair(media, folder));
    EXPECT_FALSE(EC::loadBands(media, folder));
    ASSERT_TRUE(EC::savePair(media, floats, std::vector<float>{2.0f, 4.0f}, folder));
    ASSERT_TRUE(EC::saveBands(media, feature, folder));

    const auto pair = EC::loadPair(media, folder);
    ASSERT_TRUE(pair);
    EXPECT_EQ(bitsOf(pair->preview), bitsOf(floats));
    EXPECT_EQ(pair->envelope, (std::vector<float>{2.0f, 4.0f}));
    EXPECT_EQ(EC::loadBands(media, folder), feature);

    const auto key = *EC::cacheKey(media);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{key, key + ".bands"}));
    EXPECT_EQ(readBytes(folder / key), *EC::serialize(floats, std::vector<float>{2.0f, 4.0f}));
}

TEST(EnvelopeCache, OtherVersionsAreMisses) {
    auto pair = *EC::serialize(std::vector<float>{1.0f}, std::vector<float>{2.0f});
    for (const std::uint8_t version : {0, 3, 5, 6}) {
        pair[0] = version;
        EXPECT_FALSE(EC::deserialize(pair)) << int{version};
    }
    pair[0] = 4;
    pair[3] = 1; // 0x01000004: the version is read little-endian
    EXPECT_FALSE(EC::deserialize(pair));

    auto bands = *EC::serializeBands(featureOf(8, 5, 1.0f));
    for (const std::uint8_t version : {0, 4, 5, 7}) {
        bands[0] = version;
        EXPECT_FALSE(EC::deserializeBands(bands)) << int{version};
    }
}

TEST(EnvelopeCache, TruncatedOrPaddedFilesAreMisses) {
    const auto pair = *EC::serialize(std::vector<float>{1.0f, 2.0f, 3.0f}, std::vector<float>{4.0f, 5.0f});
    const auto bands = *EC::serializeBands(featureOf(8, 6, 1.0f));
    ASSERT_TRUE(EC::deserialize(pair));
    ASSERT_TRUE(EC::deserializeBands(bands));
    for (std::size_t n = 0; n < pair.size(); ++n)
        EXPECT_FALSE(EC::deserialize(std::span(pair).first(n))) << n << " bytes";
    for (std::size_t n = 0; n < bands.size(); ++n)
        EXPECT_FALSE(EC::deserializeBands(std::span(bands).first(n))) << n << " bytes";

    auto padded = pair;
    padded.push_back(0);
    EXPECT_FALSE(EC::deserialize(padded));
    padded = bands;
    padded.insert(padded.end(), {0, 0, 0, 0});
    EXPECT_FALSE(EC::deserializeBands(padded));

    // The same through a file on disk, as a crash or a full disk would leave it.
    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("clip.mov", "movie"));
    const auto folder = tmp / "cache";
    ASSERT_TRUE(EC::savePair(media, std::vector<float>{1.0f, 2.0f}, std::vector<float>{3.0f}, folder));
    ASSERT_TRUE(EC::saveBands(media, featureOf(8, 5, 1.0f), folder));
    const auto key = *EC::cacheKey(media);
    fs::resize_file(folder / key, fs::file_size(folder / key) - 1);
    fs::resize_file(folder / (key + ".bands"), 12);
    EXPECT_FALSE(EC::loadPair(media, folder));
    EXPECT_FALSE(EC::loadBands(media, folder));
}

TEST(EnvelopeCache, HugeCountsInSmallFilesAreMissesWithoutAllocating) {
    Bytes hugePreview = le32({4, 0x8000'0000u});
    hugePreview.resize(100, 0x41);
    Bytes hugeEnvelope = le32({4, 2, 0, 0, 0xffff'ffffu});
    hugeEnvelope.resize(100, 0x41);
    Bytes hugeFrames = le32({6, 8, 0x1000'0000u});
    hugeFrames.resize(100, 0x41);
    Bytes hugeBoth = le32({6, 0xffff'ffffu, 0x7fff'ffffu});
    hugeBoth.resize(100, 0x41);

    {
        DataLimit limit(64u << 20);
        if (!limit.active()) GTEST_SKIP() << "can't lower the data limit here";
        if (!kAddressSanitizer) {
            // The limit does catch an allocation of the size the counts claim.
            EXPECT_THROW(
                {
                    std::vector<float> v(std::size_t{1} << 31);
                    asm volatile("" : : "r"(v.data()) : "memory");
                },
                std::bad_alloc);
        }
        EXPECT_FALSE(EC::deserialize(hugePreview));
        EXPECT_FALSE(EC::deserialize(hugeEnvelope));
        EXPECT_FALSE(EC::deserializeBands(hugeFrames));
        EXPECT_FALSE(EC::deserializeBands(hugeBoth));
    }

    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("clip.wav", "wave"));
    const auto key = *EC::cacheKey(media);
    tmp.dir("cache");
    writeBytes(tmp / "cache" / key, hugePreview);
    writeBytes(tmp / "cache" / (key + ".bands"), hugeFrames);
    DataLimit limit(64u << 20);
    EXPECT_FALSE(EC::loadPair(media, tmp / "cache"));
    EXPECT_FALSE(EC::loadBands(media, tmp / "cache"));
}

TEST(EnvelopeCache, BandCountsMustDescribeAFeature) {
    EXPECT_FALSE(EC::deserializeBands(le32({6, 0, 5}))) << "frames without bands";
    EXPECT_FALSE(EC::deserializeBands(le32({6, 8, 0}))) << "bands without frames";
    // More frames than an int holds, in a file that claims no more than it has.
    EXPECT_FALSE(EC::deserializeBands(le32({6, 1, 0x8000'0000u})));
    EXPECT_EQ(EC::deserializeBands(le32({6, 0, 0})), SpectralBands::Feature{});
    const auto odd = EC::deserializeBands(le32({6, 3, 1, 0, 0, 0}));
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->bands.size(), 3u);
    EXPECT_EQ(odd->frames, 1);

    auto ragged = featureOf(8, 10, 1.0f);
    ragged.bands[7].pop_back();
    EXPECT_FALSE(EC::serializeBands(ragged));
    auto miscounted = featureOf(8, 10, 1.0f);
    miscounted.frames = 9;
    EXPECT_FALSE(EC::serializeBands(miscounted));
    EXPECT_FALSE(EC::serializeBands(SpectralBands::Feature{{}, 5}));
    EXPECT_FALSE(EC::serializeBands(SpectralBands::Feature{{{}, {}}, 0}));
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
    const auto p = tmp.file("clip.wav", "12345");
    setModificationTime(p, 1'700'000'000, 100'000'000);
    const auto url = Url::fromPath(p);
    const auto key = EC::cacheKey(url);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->size(), 16u);
    EXPECT_EQ(key->find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(EC::cacheKey(url), key);

    // A touch within the same second keeps the key.
    setModificationTime(p, 1'700'000'000, 900'000'000);
    EXPECT_EQ(EC::cacheKey(url), key);
    setModificationTime(p, 1'700'000'001, 100'000'000);
    EXPECT_NE(EC::cacheKey(url), key);

    // Rewritten with other content of the same size at the same time: the key can't tell.
    tmp.file("clip.wav", "54321");
    setModificationTime(p, 1'700'000'000, 100'000'000);
    EXPECT_EQ(EC::cacheKey(url), key);
    tmp.file("clip.wav", "123456");
    setModificationTime(p, 1'700'000'000, 100'000'000);
    EXPECT_NE(EC::cacheKey(url), key);

    // The same file elsewhere is another entry.
    tmp.file("clip.wav", "12345");
    setModificationTime(p, 1'700'000'000, 100'000'000);
    EXPECT_EQ(EC::cacheKey(url), key);
    const auto copy = tmp.file("other/clip.wav", "12345");
    setModificationTime(copy, 1'700'000'000, 100'000'000);
    EXPECT_NE(EC::cacheKey(Url::fromPath(copy)), key);

    // A link gets its own key, but from the status of the file it points at.
    const auto link = tmp / "link.wav";
    fs::create_symlink(p, link);
    EXPECT_EQ(EC::cacheKey(Url::fromPath(link)), djb2Key(Url::fromPath(link).path() + "|5|1700000000"));
}

TEST(EnvelopeCache, FilesThatCantBeReadHaveNoKeyAndAreNeverCached) {
    TempDir tmp;
    const auto folder = tmp / "cache";
    const std::vector<float> one{1.0f};
    for (const auto& p : {tmp / "missing.wav", tmp.dir("folder.wav"), fs::path()}) {
        const auto url = p.empty() ? Url() : Url::fromPath(p);
        EXPECT_FALSE(EC::cacheKey(url)) << p;
        EXPECT_FALSE(EC::savePair(url, one, one, folder)) << p;
        EXPECT_FALSE(EC::saveBands(url, featureOf(8, 5, 1.0f), folder)) << p;
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
        EXPECT_FALSE(EC::savePair(Url::fromPath(locked), one, one, folder));
        EXPECT_FALSE(fs::exists(folder));
    }
}

TEST(EnvelopeCache, CachedClipOpensWithoutOpeningTheMedia) {
    TempDir tmp;
    const auto media = tmp.file("clip.wav", std::string(4096, 'w'));
    const auto url = Url::fromPath(media);
    const auto folder = tmp / "cache";
    ASSERT_TRUE(EC::savePair(url, std::vector<float>{0.1f, 0.2f}, std::vector<float>{0.3f}, folder));
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

TEST(EnvelopeCache, ChangedMediaMissesItsOldEntries) {
    TempDir tmp;
    const auto media = tmp.file("clip.wav", "first take");
    setModificationTime(media, 1'700'000'000);
    const auto url = Url::fromPath(media);
    const auto folder = tmp / "cache";
    ASSERT_TRUE(EC::savePair(url, std::vector<float>{1.0f}, std::vector<float>{2.0f}, folder));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 5, 1.0f), folder));

    setModificationTime(media, 1'700'000'060);
    EXPECT_FALSE(EC::loadPair(url, folder));
    EXPECT_FALSE(EC::loadBands(url, folder));
    setModificationTime(media, 1'700'000'000);
    EXPECT_TRUE(EC::loadPair(url, folder));
    EXPECT_TRUE(EC::loadBands(url, folder));
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
    const std::uint32_t floats = (EC::kMaxEntryBytes - 12) / 4 + 1;
    writeBytes(bigEntry, le32({4, floats}));
    fs::resize_file(bigEntry, 8 + 4 * std::uintmax_t{floats} + 4);

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
    ASSERT_TRUE(EC::savePair(url, std::vector<float>(1000, 1.0f), std::vector<float>(100, 2.0f), folder));
    ASSERT_TRUE(EC::savePair(url, std::vector<float>{3.0f}, std::vector<float>{}, folder));
    EXPECT_EQ(EC::loadPair(url, folder), (EC::Pair{{3.0f}, {}}));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 50, 1.0f), folder));
    ASSERT_TRUE(EC::saveBands(url, {}, folder));
    EXPECT_EQ(EC::loadBands(url, folder), SpectralBands::Feature{});
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{key, key + ".bands"}));
    EXPECT_EQ(fs::file_size(folder / key), 16u);

    // A feature that is not one is not written, and what was there stays.
    auto ragged = featureOf(8, 5, 1.0f);
    ragged.bands[0].push_back(0.0f);
    EXPECT_FALSE(EC::saveBands(url, ragged, folder));
    EXPECT_EQ(EC::loadBands(url, folder), SpectralBands::Feature{});
}

TEST(EnvelopeCache, UnwritableFolderMakesSavesFailQuietly) {
    TempDir tmp;
    const auto url = Url::fromPath(tmp.file("clip.wav", "wave"));
    const std::vector<float> one{1.0f};
    const auto notAFolder = tmp.file("plain-file", "x");
    for (const auto& folder : {notAFolder, notAFolder / "Trelvane", fs::path("/proc/self/Trelvane")}) {
        EXPECT_FALSE(EC::savePair(url, one, one, folder)) << folder;
        EXPECT_FALSE(EC::saveBands(url, featureOf(8, 5, 1.0f), folder)) << folder;
        EXPECT_FALSE(EC::loadPair(url, folder)) << folder;
        EXPECT_EQ(EC::cacheSize(folder), 0) << folder;
        EXPECT_EQ(EC::prune(kNow, folder).removed, 0) << folder;
    }
    EXPECT_EQ(readBytes(notAFolder), (Bytes{'x'}));

    if (::geteuid() != 0) {
        const auto locked = tmp.dir("locked");
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(EC::savePair(url, one, one, locked));
        EXPECT_FALSE(EC::saveBands(url, featureOf(8, 5, 1.0f), locked));
        EXPECT_TRUE(namesIn(locked).empty());
    }
}

TEST(EnvelopeCache, PlainCallsUseTheUserCacheFolder) {
    TempDir tmp;
    ScopedEnv cacheHome("XDG_CACHE_HOME", tmp.path().string());
    EXPECT_EQ(EC::cacheDir(), tmp / "Trelvane");
    const auto url = Url::fromPath(tmp.file("media/clip.wav", "wave"));
    ASSERT_TRUE(EC::savePair(url, std::vector<float>{1.0f}, std::vector<float>{2.0f}));
    ASSERT_TRUE(EC::saveBands(url, featureOf(8, 5, 1.0f)));
    const auto key = *EC::cacheKey(url);
    EXPECT_TRUE(fs::is_regular_file(tmp / "Trelvane" / key));
    EXPECT_TRUE(EC::loadPair(url));
    EXPECT_EQ(EC::loadBands(url), featureOf(8, 5, 1.0f));
    EXPECT_EQ(EC::cacheSize(), static_cast<std::int64_t>(fs::file_size(tmp / "Trelvane" / key) +
                                                         fs::file_size(tmp / "Trelvane" / (key + ".bands"))));
    EC::clearAll();
    EXPECT_EQ(EC::cacheSize(), 0);
    EXPECT_FALSE(EC::loadPair(url));
}

// ---- housekeeping -----------------------------------------------------------------------------

TEST(EnvelopeCache, PruneRemovesEntriesOlderThanSevenDaysWhateverTheTotal) {
    TempDir tmp;
    const auto folder = tmp.dir("cache");
    const auto old = tmp.file("cache/0000000000000001", "");
    fs::resize_file(old, 3 * 1048576);
    setModificationTime(old, kNowSeconds - 7 * kDay - 1, 999'999'000); // 7 days and a microsecond
    const auto exactlySeven = tmp.file("cache/0000000000000002", "seven");
    setModificationTime(exactlySeven, kNowSeconds - 7 * kDay);
    const auto fresh = tmp.file("cache/0000000000000003.bands", "fresh");
    setModificationTime(fresh, kNowSeconds - kDay);
    const auto future = tmp.file("cache/0000000000000004", "future");
    setModificationTime(future, kNowSeconds + kDay);

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
    const auto stray = tmp.file("cache/.0000000000000005.AbCdEf", "half");
    setModificationTime(stray, kNowSeconds - 8 * kDay);
    const auto older = tmp.file("cache/0000000000000006", "old");
    setModificationTime(older, kNowSeconds - 30 * kDay);
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
    // Sparse files: their sizes count, their blocks don't exist.
    const auto sized = [&](const std::string& name, std::uintmax_t size, long long age) {
        const auto p = tmp.file("cache/" + name, "");
        fs::resize_file(p, size);
        setModificationTime(p, kNowSeconds - age);
        return p;
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
}

TEST(EnvelopeCache, CacheSizeAddsEntriesAndClearAllRemovesThem) {
    TempDir tmp;
    const auto folder = tmp / "cache";
    EXPECT_EQ(EC::cacheSize(folder), 0);
    EC::clearAll(folder); // a missing folder is nothing to clear
    EXPECT_FALSE(fs::exists(folder));

    const auto a = Url::fromPath(tmp.file("a.wav", "a"));
    const auto b = Url::fromPath(tmp.file("b.wav", "b"));
    ASSERT_TRUE(EC::savePair(a, std::vector<float>(10, 1.0f), std::vector<float>(5, 1.0f), folder));
    ASSERT_TRUE(EC::saveBands(a, featureOf(8, 5, 1.0f), folder));
    ASSERT_TRUE(EC::savePair(b, std::vector<float>(1, 1.0f), std::vector<float>(), folder));
    tmp.file("cache/sub/inside", "not counted");
    fs::create_symlink(tmp / "a.wav", folder / "link");
    EXPECT_EQ(EC::cacheSize(folder), (12 + 60) + (12 + 160) + (12 + 4));

    EC::clearAll(folder);
    EXPECT_EQ(EC::cacheSize(folder), 0);
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"link", "sub"}));
    EXPECT_FALSE(EC::loadPair(a, folder));
    EXPECT_FALSE(EC::loadBands(a, folder));
}
