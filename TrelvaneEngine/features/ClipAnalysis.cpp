// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/ClipAnalysis.hpp"

#include "TrelvaneEngine/features/SyncCorrelator.hpp"
#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace trelvane {

namespace {

// Why a file that the reader could not open is no media, as a user would put it: what the file
// itself is, else what the reader said.
std::string unreadableReason(const Url& url, const TrelvaneError& error) {
    struct stat st {};
    if (::lstat(url.fsPath().c_str(), &st) == 0 && S_ISLNK(st.st_mode) &&
        ::stat(url.fsPath().c_str(), &st) != 0)
        return "a link to a file that does not exist";
    if (::stat(url.fsPath().c_str(), &st) != 0) return std::strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    if (::access(url.fsPath().c_str(), R_OK) != 0) return std::strerror(errno);
    if (st.st_size == 0) return "an empty file";
    return "not readable as media: " + error.detail();
}

} // namespace

namespace ClipAnalysis {

std::vector<float> waveform(std::span<const float> samples, double duration) {
    if (samples.empty() || !(duration > 0)) return {};
    const auto bars = static_cast<std::size_t>(std::clamp(std::floor(duration), 10.0, 1000.0));
    const std::size_t block = std::max<std::size_t>(1, samples.size() / bars);
    std::vector<float> out(bars, 0.0f);
    float peak = 0;
    for (std::size_t b = 0; b < bars; ++b) {
        const std::size_t start = b * block;
        // A short clip may have fewer samples than bars; the bars past the end stay 0. Samples
        // beyond the last whole block are left out.
        if (start >= samples.size()) break;
        const std::size_t end = std::min(samples.size(), start + block);
        double sum = 0;
        for (std::size_t i = start; i < end; ++i)
            sum += static_cast<double>(samples[i]) * samples[i];
        out[b] = static_cast<float>(std::sqrt(sum / static_cast<double>(end - start)));
        peak = std::max(peak, out[b]);
    }
    if (peak > 0)
        for (float& v : out)
            v = std::sqrt(v / peak);
    return out;
}

std::optional<ExtractOutcome> analyse(const Url& url, int factor, double expectedSeconds,
                                      const ProgressFn& onProgress, std::stop_token stop,
                                      const KnownFormat& knownFormat) {
    auto report = [&onProgress](double fraction) {
        if (onProgress) onProgress({fraction, {}});
    };
    std::optional<EnvelopeCache::Pair> pair = EnvelopeCache::loadPair(url);
    std::optional<SpectralBands::Feature> bands = EnvelopeCache::loadBands(url);
    if (pair && bands) {
        ExtractPayload cached;
        cached.fromCache = true;
        cached.duration = pair->duration;
        cached.preview = std::move(pair->preview);
        cached.envelope = std::move(pair->envelope);
        cached.bands = std::move(*bands);
        return cached;
    }

    // Decode even when only one part is missing; the part that was cached stands.
    AudioExtractor::Extraction audio;
    try {
        audio = AudioExtractor::extract(
            url, expectedSeconds, [&report](const Progress& p) { report(p.fraction * 0.8); },
            std::move(stop));
    } catch (const TrelvaneError& e) {
        using K = TrelvaneError::Kind;
        // The clip is not at fault: it stays as it was.
        if (e.kind() == K::stopped) return std::nullopt;
        if (e.kind() == K::noAudioTrack || e.kind() == K::emptySamples)
            return NoUsableAudio{AudioUsability::none, e.description(), std::nullopt};
        if (e.kind() == K::silentAudio)
            return NoUsableAudio{AudioUsability::silent, e.description(), std::nullopt};
        const std::string ext = Files::lowercased(url.pathExtension());
        if (knownFormat && knownFormat(ext))
            return NoUsableAudio{AudioUsability::undecodable, "container not decodable (" + ext + ")", ext};
        EngineLog::log("Extraction failed for " + url.lastPathComponent() + ": " + e.description());
        return ExtractFailed{e.kind() == K::readerStartFailed ? unreadableReason(url, e) : e.description()};
    } catch (const std::exception& e) {
        // Nothing but TrelvaneError is expected; anything else still only fails this clip.
        EngineLog::log("Extraction failed for " + url.lastPathComponent() + ": " + e.what());
        return ExtractFailed{e.what()};
    }
    if (audio.cutShort)
        EngineLog::logf("[Extract] '%s' breaks off: its sound ends after %.1f s", url.lastPathComponent(),
                        audio.duration);

    // What is installed here is what a later run reads back from the cache, bit for bit: the entry
    // holds the floats and the length as they are (a value that can't be stored is not, and is then
    // recomputed alike). Where one part was cached it stands, its length included, since that is
    // what later runs will read.
    ExtractPayload payload;
    payload.duration = audio.duration;
    payload.cutShort = audio.cutShort;
    bool storePair = false, storeBands = false;
    if (pair) {
        payload.duration = pair->duration;
        payload.preview = std::move(pair->preview);
        payload.envelope = std::move(pair->envelope);
    } else {
        payload.preview = waveform(audio.samples, audio.duration);
        payload.envelope = CrossCorrelator::magnitudeEnvelope(audio.samples, factor);
        storePair = true;
    }
    report(0.85);
    if (bands) {
        payload.bands = std::move(*bands);
    } else {
        payload.bands = SpectralBands::compute(audio.samples);
        storeBands = true;
    }
    // A cache that can't be written only costs a decode next time. A file that breaks off is not
    // stored: read again, it is told as cut short on every run.
    if (audio.cutShort) storePair = storeBands = false;
    if (storePair) EnvelopeCache::savePair(url, {payload.preview, payload.envelope, audio.duration});
    if (storeBands) EnvelopeCache::saveBands(url, payload.bands);
    report(1.0);
    return payload;
}

} // namespace ClipAnalysis
} // namespace trelvane
