// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/BRAWAudio.hpp"

#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TrelvaneEngine/support/Url.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fmt/format.h>
#include <memory>

namespace trelvane::BRAWAudio {

namespace {

// ---- the SDK's binary interface ----------------------------------------------------------------
// The SDK speaks COM on Linux: an object begins with a pointer to its table of functions, each
// taking the object as its first argument; objects are counted by AddRef/Release, and further
// interfaces are asked for by a 16-byte identifier passed by value. The slots are the order of
// the virtual functions in the SDK's interfaces. They are called here as C calls them, through
// the table, because this build has no declarations of the SDK's own to dispatch through.

using HResult = std::int32_t;

bool failed(HResult result) {
    return result < 0;
}

struct InterfaceId {
    unsigned char bytes[16];
};

using Slot = void (*)();

struct Object {
    const Slot* table;
};

template <typename Result, typename... Args> Result call(Object* object, int slot, Args... args) {
    using Function = Result (*)(Object*, Args...);
    return reinterpret_cast<Function>(object->table[slot])(object, args...);
}

// IUnknown, first in every table.
constexpr int kQueryInterface = 0;
constexpr int kRelease = 2;
// IBlackmagicRawFactory
constexpr int kCreateCodec = 3;
// IBlackmagicRaw
constexpr int kOpenClip = 3;
// IBlackmagicRawClipAudio
constexpr int kGetAudioFormat = 3;
constexpr int kGetAudioBitDepth = 4;
constexpr int kGetAudioChannelCount = 5;
constexpr int kGetAudioSampleRate = 6;
constexpr int kGetAudioSampleCount = 7;
constexpr int kGetAudioSamples = 8;

using CreateFactory = Object* (*)();

// IID_IBlackmagicRawClipAudio, 76D4ACED-E0D6-45BB-B547-56B7435B2A1D
constexpr InterfaceId kClipAudioId{
    {0x76, 0xD4, 0xAC, 0xED, 0xE0, 0xD6, 0x45, 0xBB, 0xB5, 0x47, 0x56, 0xB7, 0x43, 0x5B, 0x2A, 0x1D}};
// 'pcml': little-endian signed integers, interleaved.
constexpr std::uint32_t kPCMLittleEndian = 0x70636D6C;

constexpr const char* kLibraryName = "libBlackmagicRawAPI.so";
constexpr const char* kFactorySymbol = "CreateBlackmagicRawFactoryInstance";
constexpr int kMostChannels = 64;
constexpr std::uint32_t kHighestRate = 768000;
// An hour of 48 kHz stereo.
constexpr std::size_t kUsualValues = std::size_t{3600} * 48000 * 2;
// Frames asked for in one call: a second at 48 kHz.
constexpr std::uint32_t kChunkFrames = 48000;

struct Releaser {
    void operator()(Object* object) const noexcept {
        if (object) call<unsigned long>(object, kRelease);
    }
};
using ComPtr = std::unique_ptr<Object, Releaser>;

// The factory entry point of the first candidate that loads and has it, else nothing. A library
// that is found stays loaded: dlopen counts references, so looking again costs little and
// finds the same one, and the SDK (which runs threads of its own) is never unloaded.
CreateFactory findFactory() {
    std::vector<std::string> paths;
    if (const char* named = std::getenv("TRELVANE_BRAW_SDK"); named && *named) {
        std::error_code ec;
        if (std::filesystem::is_directory(named, ec))
            paths.push_back((std::filesystem::path(named) / kLibraryName).string());
        else
            paths.emplace_back(named);
    }
    for (auto& candidate : libraryCandidates())
        paths.push_back(std::move(candidate));
    for (const auto& path : paths) {
        void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!library) continue;
        if (void* symbol = ::dlsym(library, kFactorySymbol)) return reinterpret_cast<CreateFactory>(symbol);
        ::dlclose(library);
    }
    return nullptr;
}

ReadResult failure(std::string reason) {
    ReadResult result;
    result.error = std::move(reason);
    return result;
}

} // namespace

bool isAvailable() {
    return findFactory() != nullptr;
}

std::string availabilityNote() {
    return "Blackmagic RAW clips need Blackmagic’s free Blackmagic RAW SDK — install it (or Blackmagic RAW "
           "Player or DaVinci Resolve) from blackmagicdesign.com, or set TRELVANE_BRAW_SDK to the path of "
           "libBlackmagicRawAPI.so.";
}

std::vector<std::string> libraryCandidates() {
    return {
        kLibraryName, // the loader's own search
        "/usr/lib/blackmagic/BlackmagicRAWSDK/Linux/Libraries/libBlackmagicRawAPI.so",
        "/usr/lib64/blackmagic/BlackmagicRAWSDK/Linux/Libraries/libBlackmagicRawAPI.so",
        "/usr/lib/blackmagic/BlackmagicRAWPlayer/BlackmagicRawAPI/libBlackmagicRawAPI.so",
        "/usr/lib64/blackmagic/BlackmagicRAWPlayer/BlackmagicRawAPI/libBlackmagicRawAPI.so",
        "/usr/lib/blackmagic/BlackmagicRAWSpeedTest/BlackmagicRawAPI/libBlackmagicRawAPI.so",
        "/usr/lib64/blackmagic/BlackmagicRAWSpeedTest/BlackmagicRawAPI/libBlackmagicRawAPI.so",
        "/opt/resolve/libs/libBlackmagicRawAPI.so",
        "/opt/resolve/bin/BlackmagicRawAPI/libBlackmagicRawAPI.so",
        "/opt/blackmagic/BlackmagicRAWSDK/Linux/Libraries/libBlackmagicRawAPI.so",
        "/usr/local/lib/libBlackmagicRawAPI.so",
        "/usr/lib/libBlackmagicRawAPI.so",
    };
}

bool appendPCM(std::span<const std::byte> bytes, int bytesPerSample, int bitDepth, std::vector<float>& out) {
    if (bytesPerSample < 2 || bytesPerSample > 4 ||
        bytes.size() % static_cast<std::size_t>(bytesPerSample) != 0)
        return false;
    // Full scale of the significant bits: 2, 3 or 4 bytes full, or fewer bits right-aligned in 4.
    int bits = bytesPerSample * 8;
    if (bytesPerSample == 4 && bitDepth > 16 && bitDepth < 32) bits = bitDepth;
    const float scale = 1.0f / static_cast<float>(std::int64_t{1} << (bits - 1));
    const auto count = bytes.size() / static_cast<std::size_t>(bytesPerSample);
    out.reserve(out.size() + count);
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (std::size_t i = 0; i < count; ++i, p += bytesPerSample) {
        std::uint32_t u = 0;
        for (int b = 0; b < bytesPerSample; ++b)
            u |= static_cast<std::uint32_t>(p[b]) << (8 * b);
        // Sign-extend from the top significant bit.
        const int shift = 32 - bits;
        const auto value = static_cast<std::int32_t>(u << shift) >> shift;
        out.push_back(static_cast<float>(value) * scale);
    }
    return true;
}

ReadResult readAudio(const std::string& path, const ProgressFn& progress) {
    const CreateFactory create = findFactory();
    if (!create) return failure(availabilityNote());
    const std::string name = Url::fromPath(path).lastPathComponent();

    const ComPtr factory(create());
    if (!factory) return failure("The Blackmagic RAW SDK could not be started");
    Object* codecRaw = nullptr;
    const HResult made = call<HResult>(factory.get(), kCreateCodec, &codecRaw);
    const ComPtr codec(codecRaw);
    if (failed(made) || !codec) return failure("The Blackmagic RAW SDK could not be started");
    Object* clipRaw = nullptr;
    const HResult opened = call<HResult>(codec.get(), kOpenClip, path.c_str(), &clipRaw);
    const ComPtr clip(clipRaw);
    if (failed(opened) || !clip) return failure(fmt::format("The Blackmagic RAW SDK can't open {}", name));

    ReadResult result;
    result.audio.emplace();
    Audio& audio = *result.audio;
    void* audioRaw = nullptr;
    const HResult asked = call<HResult>(clip.get(), kQueryInterface, kClipAudioId, &audioRaw);
    const ComPtr source(static_cast<Object*>(audioRaw));
    // A clip recorded without sound has no audio interface: no frames, no channels.
    if (failed(asked) || !source) return result;

    std::uint32_t format = 0;
    std::uint32_t bitDepth = 0;
    std::uint32_t channels = 0;
    std::uint32_t rate = 0;
    std::uint64_t frames = 0;
    Object* a = source.get();
    if (failed(call<HResult>(a, kGetAudioFormat, &format)) ||
        failed(call<HResult>(a, kGetAudioBitDepth, &bitDepth)) ||
        failed(call<HResult>(a, kGetAudioChannelCount, &channels)) ||
        failed(call<HResult>(a, kGetAudioSampleRate, &rate)) ||
        failed(call<HResult>(a, kGetAudioSampleCount, &frames)))
        return failure(fmt::format("The Blackmagic RAW SDK can't read the audio of {}", name));
    audio.frameCount = frames;
    audio.channelCount = channels;
    audio.sampleRate = rate;
    if (frames == 0 || channels == 0 || rate == 0) return result;
    if (format != kPCMLittleEndian || bitDepth < 8 || bitDepth > 32 || channels > kMostChannels ||
        rate > kHighestRate)
        return failure(fmt::format("The audio of {} is in a form this build can't read", name));
    if (static_cast<double>(frames) / rate > AudioExtractor::kLongestExtraction)
        return failure(fmt::format("{}: longer than {} hours", name,
                                   static_cast<int>(AudioExtractor::kLongestExtraction / 3600)));

    // The announced length is the SDK's word; memory beyond the usual clip is only taken as
    // samples actually arrive.
    audio.interleaved.reserve(
        std::min<std::size_t>(static_cast<std::size_t>(frames) * channels, kUsualValues));
    std::vector<std::byte> buffer(std::size_t{kChunkFrames} * channels * 4);
    for (std::uint64_t at = 0; at < frames;) {
        const auto wanted = static_cast<std::uint32_t>(std::min<std::uint64_t>(kChunkFrames, frames - at));
        std::uint32_t framesRead = 0;
        std::uint32_t bytesRead = 0;
        if (failed(call<HResult>(a, kGetAudioSamples, static_cast<std::int64_t>(at),
                                 static_cast<void*>(buffer.data()), static_cast<std::uint32_t>(buffer.size()),
                                 wanted, &framesRead, &bytesRead)))
            return failure(fmt::format("The Blackmagic RAW SDK can't read the audio of {}", name));
        // Fewer frames than announced: what was read is all there is, and falls short of the
        // count, which the caller takes as no usable audio.
        if (framesRead == 0) break;
        const std::uint64_t values = std::uint64_t{framesRead} * channels;
        if (framesRead > wanted || bytesRead > buffer.size() || bytesRead % values != 0 ||
            !appendPCM(std::span(buffer.data(), bytesRead), static_cast<int>(bytesRead / values),
                       static_cast<int>(bitDepth), audio.interleaved))
            return failure(fmt::format("The audio of {} is in a form this build can't read", name));
        at += framesRead;
        if (progress) progress({static_cast<double>(at) / static_cast<double>(frames), {}});
    }
    return result;
}

} // namespace trelvane::BRAWAudio
