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

// Floats whose bits a careless copy would change: negative zero, denormals, the extremes.
std::vector<float> awkwardFloats() {
    return {0.0f,
            -0.0f,
            1.0f,
            -2.5f,
            std::numeric_limits<float>::denorm_min(),
            std::numeric_limits<float>::max(),
            -std::numeric_limits<float>::max(),
            std::numeric_limits<float>::min(),
            0.1f};
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

Bytes le32(std::initializer_list<std::uint32_t> words) {
    Bytes out;
    for (const auto w : words)
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<std::uint8_t>(w >> (8 * i)));
    return out;
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

const std::string kKey = "/shoot/clip.wav|1234|1700000000";

EC::Pair pairOf(std::vector<float> preview, std::vector<float> envelope, double duration = 12.5) {
    return EC::Pair{std::move(preview), std::move(envelope), duration};
}

const Date kNow = dateFromUnixSeconds(1'800'000'000);
constexpr long long kNowSeconds = 1'800'000'000;
constexpr long long kDay = 86'400;

} // namespace

// ---- formats ----------------------------------------------------------------------------------

TEST(EnvelopeCache, EntriesAreVersionKeyTextCountedValuesAndCrc32) {
    // The checksum is the CRC-32 of zlib and PNG: its published check value.
    const std::string check = "123456789";
    EXPECT_EQ(EC::crc32(Bytes(check.begin(), check.end())), 0xcbf43926u);
    EXPECT_EQ(EC::crc32({}), 0u);

    Bytes pair = le32({5, 1});
    pair.push_back('k');
    pair.insert(pair.end(), {0, 0, 0, 0, 0, 0, 0x04, 0x40}); // 2.5 as a double
    pair.insert(pair.end(), {2,    0,    0, 0, 0x00, 0x00, 0x80, 0x3f, 0x00, 0x00,
                             0x20, 0xc0, 1, 0, 0,    0,    0x00, 0x00, 0x00, 0x3f});
    putLe(pair, EC::crc32(pair), 4);
    EXPECT_EQ(EC::serialize("k", pairOf({1.0f, -2.5f}, {0.5f}, 2.5)), pair);

    Bytes bands = le32({7, 1});
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

    const auto pair = EC::loadPair(media, folder);
    ASSERT_TRUE(pair);
    EXPECT_EQ(bitsOf(pair->preview), bitsOf(stored.preview));
    EXPECT_EQ(pair->envelope, stored.envelope);
    EXPECT_EQ(pair->duration, 601.25);
    EXPECT_EQ(EC::loadBands(media, folder), feature);

    const auto text = *EC::keyText(media);
    EXPECT_EQ(text, media.path() + "|15|" + std::to_string(modificationTime(media.path()).tv_sec));
    const auto key = *EC::cacheKey(media);
    EXPECT_EQ(key, djb2Key(text));
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{key, key + ".bands"}));
    EXPECT_EQ(readBytes(folder / key), *EC::serialize(text, stored));
    EXPECT_EQ(readBytes(folder / (key + ".bands")), *EC::serializeBands(text, feature));
}

TEST(EnvelopeCache, OtherVersionsAreMisses) {
    for (const std::uint32_t version : {0u, 3u, 4u, 6u, 7u, 0x01000005u})
        EXPECT_FALSE(EC::deserialize(sealed(version, kKey, {0, 0}, 1.0), kKey)) << version;
    EXPECT_TRUE(EC::deserialize(sealed(5, kKey, {0, 0}, 1.0), kKey));
    for (const std::uint32_t version : {0u, 5u, 6u, 8u, 0x01000007u})
        EXPECT_FALSE(EC::deserializeBands(sealed(version, kKey, {0, 0}), kKey)) << version;
    EXPECT_TRUE(EC::deserializeBands(sealed(7, kKey, {0, 0}), kKey));
}

TEST(EnvelopeCache, TruncatedOrPaddedFilesAreMisses) {
    const auto pair = *EC::serialize(kKey, pairOf({1.0f, 2.0f, 3.0f}, {4.0f, 5.0f}));
    const auto bands = *EC::serializeBands(kKey, featureOf(8, 6, 1.0f));
    ASSERT_TRUE(EC::deserialize(pair, kKey));
    ASSERT_TRUE(EC::deserializeBands(bands, kKey));
    for (std::size_t n = 0; n < pair.size(); ++n)
        EXPECT_FALSE(EC::deserialize(std::span(pair).first(n), kKey)) << n << " bytes";
    for (std::size_t n = 0; n < bands.size(); ++n)
        EXPECT_FALSE(EC::deserializeBands(std::span(bands).first(n), kKey)) << n << " bytes";

    auto padded = pair;
    padded.push_back(0);
    EXPECT_FALSE(EC::deserialize(padded, kKey));
    padded = bands;
    padded.insert(padded.end(), {0, 0, 0, 0});
    EXPECT_FALSE(EC::deserializeBands(padded, kKey));

    // The same through a file on disk, as a crash or a full disk would leave it.
    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("clip.mov", "movie"));
    const auto folder = tmp / "cache";
    ASSERT_TRUE(EC::savePair(media, pairOf({1.0f, 2.0f}, {3.0f}), folder));
    ASSERT_TRUE(EC::saveBands(media, featureOf(8, 5, 1.0f), folder));
    const auto key = *EC::cacheKey(media);
    fs::resize_file(folder / key, fs::file_size(folder / key) - 1);
    fs::resize_file(folder / (key + ".bands"), 12);
    EXPECT_FALSE(EC::loadPair(media, folder));
    EXPECT_FALSE(EC::loadBands(media, folder));
}

// Whatever in an entry was damaged, the entry is a miss: a flipped bit anywhere (the checksum), the
// key text of another file (a swapped or copied entry, a key collision), a value that is not a
// number, each with the rest of the entry intact and sealed.
TEST(EnvelopeCache, DamagedOrForeignEntriesAreMisses) {
    const auto pair = *EC::serialize(kKey, pairOf({0.25f, 1.0f}, {0.5f}, 3.0));
    const auto bands = *EC::serializeBands(kKey, featureOf(2, 2, 1.0f));
    for (const Bytes* entry : {&pair, &bands})
        for (std::size_t bit = 0; bit < 8 * entry->size(); ++bit) {
            Bytes flipped = *entry;
            flipped[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
            EXPECT_FALSE(EC::deserialize(flipped, kKey)) << "bit " << bit;
            EXPECT_FALSE(EC::deserializeBands(flipped, kKey)) << "bit " << bit;
        }

    for (const std::string other : {"/shoot/clip.wav|1234|1700000001", "/shoot/clip.wav|1234|170000000",
                                    "/shoot/clip.WAV|1234|1700000000", ""}) {
        EXPECT_FALSE(EC::deserialize(pair, other)) << other;
        EXPECT_FALSE(EC::deserializeBands(bands, other)) << other;
    }

    const auto nan = std::bit_cast<std::uint32_t>(std::numeric_limits<float>::quiet_NaN());
    const auto inf = std::bit_cast<std::uint32_t>(std::numeric_limits<float>::infinity());
    const auto one = std::bit_cast<std::uint32_t>(1.0f);
    const double nanD = std::numeric_limits<double>::quiet_NaN();
    const double infD = std::numeric_limits<double>::infinity();
    struct Case {
        const char* what;
        Bytes bytes;
    };
    const std::vector<Case> cases{
        {"NaN in the preview", sealed(5, kKey, {2, one, nan, 1, one}, 1.0)},
        {"negative infinity in the envelope", sealed(5, kKey, {1, one, 1, inf | 0x8000'0000u}, 1.0)},
        {"NaN length", sealed(5, kKey, {1, one, 1, one}, nanD)},
        {"infinite length", sealed(5, kKey, {1, one, 1, one}, infD)},
        {"negative length", sealed(5, kKey, {1, one, 1, one}, -1.0)},
        {"NaN in a band", sealed(7, kKey, {2, 1, one, nan})},
        {"infinity in a band", sealed(7, kKey, {1, 2, inf, one})},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(EC::deserialize(c.bytes, kKey)) << c.what;
        EXPECT_FALSE(EC::deserializeBands(c.bytes, kKey)) << c.what;
    }
    // The same cases, finite, are entries: only the value is on trial above.
    EXPECT_TRUE(EC::deserialize(sealed(5, kKey, {2, one, one, 1, one}, 1.0), kKey));
    EXPECT_TRUE(EC::deserializeBands(sealed(7, kKey, {2, 1, one, one}), kKey));

    // Values that can't be read back are never written.
    const float nanF = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(EC::serialize(kKey, pairOf({nanF}, {})));
    EXPECT_FALSE(EC::serialize(kKey, pairOf({}, {std::numeric_limits<float>::infinity()})));
    EXPECT_FALSE(EC::serialize(kKey, pairOf({}, {}, nanD)));
    EXPECT_FALSE(EC::serialize(kKey, pairOf({}, {}, -0.5)));
    auto feature = featureOf(2, 3, 1.0f);
    feature.bands[1][2] = nanF;
    EXPECT_FALSE(EC::serializeBands(kKey, feature));
}

// Valid entries of one file under the name of another (copied from another machine, or swapped by
// hand) are misses for both files; saving over them puts each file's own entry back.
TEST(EnvelopeCache, SwappedEntriesAreMissesAndSavesReplaceThem) {
    TempDir tmp;
    const auto folder = tmp / "cache";
    const auto a = Url::fromPath(tmp.file("a.wav", "aaaa"));
    const auto b = Url::fromPath(tmp.file("b.wav", "bbbb"));
    ASSERT_TRUE(EC::savePair(a, pairOf({1.0f}, {1.0f}, 1.0), folder));
    ASSERT_TRUE(EC::saveBands(a, featureOf(8, 5, 1.0f), folder));
    ASSERT_TRUE(EC::savePair(b, pairOf({2.0f}, {2.0f}, 2.0), folder));
    ASSERT_TRUE(EC::saveBands(b, featureOf(8, 5, 2.0f), folder));
    const auto ka = *EC::cacheKey(a), kb = *EC::cacheKey(b);
    for (const std::string suffix : {"", ".bands"}) {
        fs::rename(folder / (ka + suffix), folder / "swap");
        fs::rename(folder / (kb + suffix), folder / (ka + suffix));
        fs::rename(folder / "swap", folder / (kb + suffix));
    }
    for (const auto& url : {a, b}) {
        EXPECT_FALSE(EC::loadPair(url, folder)) << url.path();
        EXPECT_FALSE(EC::loadBands(url, folder)) << url.path();
    }
    ASSERT_TRUE(EC::savePair(a, pairOf({1.0f}, {1.0f}, 1.0), folder));
    ASSERT_TRUE(EC::saveBands(a, featureOf(8, 5, 1.0f), folder));
    EXPECT_EQ(EC::loadPair(a, folder), pairOf({1.0f}, {1.0f}, 1.0));
    EXPECT_EQ(EC::loadBands(a, folder), featureOf(8, 5, 1.0f));
    EXPECT_FALSE(EC::loadPair(b, folder));
}

TEST(EnvelopeCache, HugeCountsInSmallFilesAreMissesWithoutAllocating) {
    const auto padded = [](Bytes bytes) {
        bytes.resize(100, 0x41);
        return bytes;
    };
    const Bytes hugePreview = padded(sealed(5, kKey, {0x8000'0000u}, 1.0));
    const Bytes hugeEnvelope = padded(sealed(5, kKey, {0, 0xffff'ffffu}, 1.0));
    const Bytes hugeFrames = padded(sealed(7, kKey, {8, 0x1000'0000u}));
    const Bytes hugeBoth = padded(sealed(7, kKey, {0xffff'ffffu, 0x7fff'ffffu}));
    const Bytes hugeKey = padded(le32({5, 0xffff'fff0u}));

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
        EXPECT_FALSE(EC::deserialize(hugePreview, kKey));
        EXPECT_FALSE(EC::deserialize(hugeEnvelope, kKey));
        EXPECT_FALSE(EC::deserialize(hugeKey, kKey));
        EXPECT_FALSE(EC::deserializeBands(hugeFrames, kKey));
        EXPECT_FALSE(EC::deserializeBands(hugeBoth, kKey));
    }

    TempDir tmp;
    const auto media = Url::fromPath(tmp.file("clip.wav", "wave"));
    const auto key = *EC::cacheKey(media);
    const auto text = *EC::keyText(media);
    tmp.dir("cache");
    writeBytes(tmp / "cache" / key, padded(sealed(5, text, {0x8000'0000u}, 1.0)));
    writeBytes(tmp / "cache" / (key + ".bands"), padded(sealed(7, text, {8, 0x1000'0000u})));
    DataLimit limit(64u << 20);
    EXPECT_FALSE(EC::loadPair(media, tmp / "cache"));
    EXPECT_FALSE(EC::loadBands(media, tmp / "cache"));
}

TEST(EnvelopeCache, BandCountsMustDescribeAFeature) {
    EXPECT_FALSE(EC::deserializeBands(sealed(7, kKey, {0, 5}), kKey)) << "frames without bands";
    EXPECT_FALSE(EC::deserializeBands(sealed(7, kKey, {8, 0}), kKey)) << "bands without frames";
    // More frames than an int holds, in a file that claims no more than it has.
    EXPECT_FALSE(EC::deserializeBands(sealed(7, kKey, {1, 0x8000'0000u}), kKey));
    EXPECT_EQ(EC::deserializeBands(sealed(7, kKey, {0, 0}), kKey), BandFeature{});
    const auto odd = EC::deserializeBands(sealed(7, kKey, {3, 1, 0, 0, 0}), kKey);
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->bands.size(), 3u);
    EXPECT_EQ(odd->frames, 1);

    auto ragged = featureOf(8, 10, 1.0f);
    ragged.bands[7].pop_back();
    EXPECT_FALSE(EC::serializeBands(kKey, ragged));
    auto miscounted = featureOf(8, 10, 1.0f);
    miscounted.frames = 9;
    EXPECT_FALSE(EC::serializeBands(kKey, miscounted));
    EXPECT_FALSE(EC::serializeBands(kKey, BandFeature{{}, 5}));
    EXPECT_FALSE(EC::serializeBands(kKey, BandFeature{{{}, {}}, 0}));
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
        EXPECT_FALSE(EC::savePair(url, pairOf(one, one), folder)) << p;
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

TEST(EnvelopeCache, ChangedMediaMissesItsOldEntries) {
    TempDir tmp;
    const auto media = tmp.file("clip.wav", "first take");
    setModificationTime(media, 1'700'000'000);
    const auto url = Url::fromPath(media);
    const auto folder = tmp / "cache";
    ASSERT_TRUE(EC::savePair(url, pairOf({1.0f}, {2.0f}), folder));
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
        EXPECT_FALSE(EC::loadPair(url, folder)) << folder;
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
