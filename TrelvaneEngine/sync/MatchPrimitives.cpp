// SPDX-License-Identifier: GPL-3.0-or-later
// The searches every pass is built from: one feature in the pool, a clip by three windows, the
// narrowing of a search by clock and timecode, and the comparison of two clips with each other.

#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace trelvane::SyncEngine {

namespace {

constexpr int kTopK = 1;
constexpr float kPairVoteFloor = kStrongScore; // a pair vote below this is noise
constexpr double kShortWindow = 10.0;          // a window shorter than this proves nothing
constexpr double kMaxWindowShare = 0.4;        // of a clip, for the windows of a pool search
constexpr double kPairWindowShare = 0.5;       // of the shorter clip, for a pair comparison
constexpr double kTextSyncHalfWidth = 360.0;
constexpr double kEmbeddedHalfWidth = 900.0;
constexpr double kFilenameHalfWidth = 1350.0;
constexpr double kOtherClockHalfWidth = 2700.0;
constexpr double kTimecodeSlack = 1.5;
constexpr double kTimecodeFrames = 2.0;         // tolerated frames of a timecode disagreement
constexpr double kTimecodeDefault = 1.0 / 12.0; // tolerance of a clip without a frame rate
constexpr double kScoreFloor = 0.000001;
// The measurement of two overlapping clips: the least overlap it needs, its longest window, and how
// far either side of the timeline's offset it looks.
constexpr double kCheckLeastOverlap = 10.0;
constexpr double kCheckWindow = 90.0;
constexpr double kCheckReach = 60.0;

double secondsBetween(const Date& later, const Date& earlier) {
    return std::chrono::duration<double>(later - earlier).count();
}

// Only a clock the camera or the file name wrote is worth a window; file-system dates are copies.
bool trustedClock(ClockQuality q) {
    return q == ClockQuality::filename || q == ClockQuality::embedded;
}

const SpectralBands::Feature* featureOf(const ClipItem& clip) {
    return clip.bandFeature ? &*clip.bandFeature : nullptr;
}

// The best span's answer for each of several clips, each with its own bounds: what `bestMatch`
// gives for each, the earlier span kept on a tie. Spans are the outer loop, and the clips shorter
// than a span are searched in it together, so that what is kept of the span is read once for all.
// A span shorter than a clip is searched in the clip instead, the bounds turned round; one of
// exactly the clip's length gives nothing (peaks needs the searched feature strictly shorter, and
// the placement rests on that).
std::vector<std::optional<Match>> bestMatches(std::span<const Span> spans,
                                              std::span<SpectralBands::ClipSearch> searches,
                                              std::span<const Bounds> bounds) {
    std::vector<std::optional<Match>> best(searches.size());
    const auto offer = [&](std::size_t i, const Match& candidate) {
        if (!best[i] || candidate.score > best[i]->score) best[i] = candidate;
    };
    std::vector<std::size_t> inSpan;
    std::vector<SpectralBands::ClipSearch*> chosen;
    std::vector<SpectralBands::OffsetRange> ranges;
    // A clip searched as the reference of shorter spans keeps its transforms for all of them.
    std::vector<std::optional<SpectralBands::Reference>> asReference(searches.size());
    for (const Span& span : spans) {
        if (span.bands == nullptr || span.bands->frames < SpectralBands::kMinimumFrames) continue;
        inSpan.clear();
        chosen.clear();
        ranges.clear();
        for (std::size_t i = 0; i < searches.size(); ++i) {
            const SpectralBands::Feature& feature = searches[i].clip();
            const double lo = bounds[i].lo, hi = bounds[i].hi;
            if (span.bands->frames > feature.frames) {
                inSpan.push_back(i);
                chosen.push_back(&searches[i]);
                ranges.push_back({lo - span.off, hi - span.off});
            } else if (span.bands->frames < feature.frames && span.off - hi < span.off - lo) {
                if (!asReference[i]) asReference[i].emplace(feature);
                SpectralBands::ClipSearch spanSearch(*span.bands);
                const auto found = SpectralBands::peaks(spanSearch, *asReference[i], span.off - hi,
                                                        span.off - lo, kMinOverlap, kTopK, kPeakSeparation);
                if (!found.empty())
                    offer(i, Match{span.off - found.front().offsetSeconds, found.front().score});
            }
        }
        if (inSpan.empty()) continue;
        const auto found =
            SpectralBands::peaks(chosen, span.kept ? *span.kept : SpectralBands::Reference(*span.bands),
                                 ranges, kMinOverlap, kTopK, kPeakSeparation);
        for (std::size_t k = 0; k < inSpan.size(); ++k)
            if (!found[k].empty())
                offer(inSpan[k], Match{span.off + found[k].front().offsetSeconds, found[k].front().score});
    }
    return best;
}

// Where between frames the correlation of `clip` in `ref` peaks around the whole-frame `lag`: the
// vertex of the parabola through the lag and its two neighbours, in frames (-0.5 to 0.5). Matches
// come out on whole frames, 40 ms apart; this puts a measurement between them, so that two of one
// truth agree to a few milliseconds and a consensus can tell a frame's error.
double subFrame(const SpectralBands::Feature& clip, const SpectralBands::Feature& ref, int lag) {
    auto correlation = [&](int l) {
        double sum = 0;
        long count = 0;
        for (std::size_t b = 0; b < clip.bands.size() && b < ref.bands.size(); ++b) {
            const auto& c = clip.bands[b];
            const auto& r = ref.bands[b];
            const int from = std::max(0, -l),
                      to = std::min<int>(static_cast<int>(c.size()), static_cast<int>(r.size()) - l);
            for (int t = from; t < to; ++t)
                sum += static_cast<double>(c[t]) * r[t + l];
            count += std::max(0, to - from);
        }
        return count > 0 ? sum / static_cast<double>(count) : 0.0;
    };
    const double left = correlation(lag - 1), mid = correlation(lag), right = correlation(lag + 1);
    const double curve = left - 2 * mid + right;
    if (!(curve < 0)) return 0; // not a peak between its neighbours: stay on the frame
    return std::clamp(0.5 * (left - right) / curve, -0.5, 0.5);
}

} // namespace

std::optional<Match> bestMatch(std::span<const Span> spans, const SpectralBands::Feature* feature, double lo,
                               double hi) {
    if (feature == nullptr || feature->frames < SpectralBands::kMinimumFrames || spans.empty())
        return std::nullopt;
    SpectralBands::ClipSearch search(*feature); // its transforms serve every longer span
    const Bounds bounds{lo, hi};
    return bestMatches(spans, std::span(&search, 1), std::span(&bounds, 1)).front();
}

std::optional<double> windowStart(double dur, double w, double fraction) {
    double s = std::max(dur * fraction - w * 0.5, 0.0);
    s = std::min(s, dur - w);
    if (!(s >= 0)) return std::nullopt;
    return s;
}

std::vector<Vote> largestCluster(std::span<const Vote> votes, double tolerance) {
    std::vector<Vote> kept;
    for (const Vote& centre : votes) {
        std::vector<Vote> cluster;
        for (const Vote& v : votes)
            if (std::abs(v.pos - centre.pos) <= tolerance) cluster.push_back(v);
        if (cluster.size() > kept.size()) kept = std::move(cluster);
    }
    return kept;
}

double weightedMean(std::span<const Vote> votes) {
    double weighted = 0, total = 0;
    for (const Vote& v : votes) {
        weighted += v.pos * static_cast<double>(v.score);
        total += static_cast<double>(v.score);
    }
    return weighted / std::max(total, kScoreFloor);
}

std::optional<Match> multiWindowMatch(const SpectralBands::Feature* feature, double dur, double lo, double hi,
                                      std::span<const Span> spans, bool allowSingleStrong) {
    const double w = std::min(dur * kMaxWindowShare, kMaxWindow);
    if (feature == nullptr) return std::nullopt;
    if (w < kShortWindow) return bestMatch(spans, feature, lo, hi);

    // The windows are searched side by side, span by span; each keeps its own best span.
    std::vector<double> starts;
    std::vector<SpectralBands::Feature> windows;
    std::vector<Bounds> bounds;
    windows.reserve(kWindowFractions.size()); // the searches below refer to them
    for (double fraction : kWindowFractions) {
        const auto s = windowStart(dur, w, fraction);
        if (!s) continue;
        auto window = SpectralBands::slice(*feature, *s, w);
        if (!window || window->frames < SpectralBands::kMinimumFrames) continue;
        starts.push_back(*s);
        windows.push_back(std::move(*window));
        // The bounds are on the clip's start; the window starts s later.
        bounds.push_back({lo + *s, hi + *s});
    }
    std::vector<SpectralBands::ClipSearch> searches;
    searches.reserve(windows.size());
    for (const auto& window : windows)
        searches.emplace_back(window);
    const auto hits = bestMatches(spans, searches, bounds);
    std::vector<Vote> votes;
    for (std::size_t i = 0; i < hits.size(); ++i)
        if (hits[i]) votes.push_back({hits[i]->pos - starts[i], hits[i]->score});
    if (votes.empty()) return std::nullopt;

    const auto cluster = largestCluster(votes, kVoteTolerance);
    if (cluster.size() >= 2) {
        float score = cluster.front().score;
        for (const Vote& v : cluster)
            score = std::max(score, v.score);
        return Match{weightedMean(cluster), score};
    }
    if (!allowSingleStrong) return std::nullopt;
    const Vote* strongest = &votes.front();
    for (const Vote& v : votes)
        if (v.score > strongest->score) strongest = &v;
    if (strongest->score >= kSingleStrongWindow) return Match{strongest->pos, strongest->score};
    return std::nullopt;
}

std::optional<Bounds> tcWindow(const ClipItem& clip, std::span<const Span> spans) {
    if (!clip.startTimecode) return std::nullopt;
    std::optional<Bounds> window;
    for (const Span& span : spans) {
        if (!span.startTC) continue;
        const double t = span.off + (*clip.startTimecode - *span.startTC);
        if (!window)
            window = Bounds{t - kTimecodeSlack, t + kTimecodeSlack};
        else
            window =
                Bounds{std::min(window->lo, t - kTimecodeSlack), std::max(window->hi, t + kTimecodeSlack)};
    }
    return window;
}

std::optional<Bounds> clockWindow(const TrackSource& track, const ClipItem& clip,
                                  const PriorContext& context) {
    if (track.type != SourceType::audio) return std::nullopt;
    if (!context.isReference) {
        if (const auto it = track.textSyncOffsetByPeer.find(context.referenceName);
            it != track.textSyncOffsetByPeer.end()) {
            const double prior = context.base - it->second;
            return Bounds{prior - kTextSyncHalfWidth, prior + kTextSyncHalfWidth};
        }
    }
    if (!clip.recordingDate || !context.epoch || !trustedClock(clip.clockQuality)) return std::nullopt;
    const double prior = secondsBetween(*clip.recordingDate, *context.epoch) + context.base;
    const double half = clip.clockQuality == ClockQuality::embedded   ? kEmbeddedHalfWidth
                        : clip.clockQuality == ClockQuality::filename ? kFilenameHalfWidth
                                                                      : kOtherClockHalfWidth;
    return Bounds{prior - half, prior + half};
}

std::optional<Match> clipMatch(const TrackSource& track, const ClipItem& clip, double lo, double hi,
                               std::span<const Span> spans, bool useClockPrior, const PriorContext& context) {
    if (useClockPrior) {
        if (const auto window = clockWindow(track, clip, context)) {
            const double narrowLo = std::max(lo, window->lo);
            const double narrowHi = std::min(hi, window->hi);
            // A clock that misses the bracket altogether is the clock's fault: the bracket stands.
            if (narrowLo < narrowHi) {
                lo = narrowLo;
                hi = narrowHi;
            }
        }
    }
    return bestMatch(spans, featureOf(clip), lo, hi);
}

std::optional<Match> compareClips(const ClipItem& a, const ClipItem& b, double maxWindow, double tolerance,
                                  const SpectralBands::Reference* aKept,
                                  const SpectralBands::Reference* bKept) {
    if (!a.bandFeature || !b.bandFeature) return std::nullopt;
    if (a.audioUsability != AudioUsability::ok || b.audioUsability != AudioUsability::ok) return std::nullopt;
    const bool aIsProbe = a.duration <= b.duration;
    const ClipItem& probe = aIsProbe ? a : b;
    const ClipItem& longer = aIsProbe ? b : a;
    const double w = std::min(probe.duration * kPairWindowShare, maxWindow);
    if (!(w >= kShortWindow)) return std::nullopt;
    const SpectralBands::Reference* kept = aIsProbe ? bKept : aKept;
    const SpectralBands::Reference longerRef = kept ? *kept : SpectralBands::Reference(*longer.bandFeature);

    // Each vote is the probe's start relative to the longer clip's start.
    std::vector<Vote> votes;
    for (double fraction : kWindowFractions) {
        const auto s = windowStart(probe.duration, w, fraction);
        if (!s) continue;
        const auto window = SpectralBands::slice(*probe.bandFeature, *s, w);
        if (!window) continue;
        SpectralBands::ClipSearch search(*window);
        const auto found = SpectralBands::peaks(search, longerRef, -kUnbounded, kUnbounded, kMinOverlap,
                                                kTopK, kPeakSeparation);
        if (!found.empty() && found.front().score >= kPairVoteFloor)
            votes.push_back({found.front().offsetSeconds - *s, found.front().score});
    }
    const auto cluster = largestCluster(votes, tolerance);
    if (cluster.size() < 2) return std::nullopt;
    double sum = 0;
    float score = cluster.front().score;
    for (const Vote& v : cluster) {
        sum += v.pos;
        score = std::max(score, v.score);
    }
    const double mean = sum / static_cast<double>(cluster.size());
    return Match{aIsProbe ? -mean : mean, score};
}

std::optional<Match> measureOverlap(const ClipItem& a, double aStart, const ClipItem& b, double bStart) {
    if (!a.bandFeature || !b.bandFeature) return std::nullopt;
    if (a.audioUsability != AudioUsability::ok || b.audioUsability != AudioUsability::ok) return std::nullopt;
    const double from = std::max(aStart, bStart);
    const double to = std::min(aStart + a.duration, bStart + b.duration);
    if (!(to - from >= kCheckLeastOverlap)) return std::nullopt;
    // The window leaves part of the overlap free, so that b's cut is always longer than it.
    const double w = std::min((to - from) * 0.8, kCheckWindow);
    const double fps = SpectralBands::kFrameRate;
    // Cuts start on whole frames: the offsets below are taken from where they really start.
    const double probeAt = std::round(((from + to) / 2 - w / 2 - aStart) * fps) / fps;
    const auto probe = SpectralBands::slice(*a.bandFeature, probeAt, w);
    if (!probe) return std::nullopt;
    const double expected = aStart + probeAt - bStart; // where the window lies in b, by the timeline
    const double refAt = std::round(std::max(0.0, expected - kCheckReach) * fps) / fps;
    const double refEnd = std::min({b.duration, expected + w + kCheckReach, b.bandFeature->frames / fps});
    const auto ref = SpectralBands::slice(*b.bandFeature, refAt, std::floor((refEnd - refAt) * fps) / fps);
    if (!ref || ref->frames <= probe->frames) return std::nullopt;
    // The score stands against the whole reach, not the few lags near the peak: a narrow range
    // holds mostly the peak's own shoulders and scores even a perfect match low.
    const auto found = SpectralBands::peaks(*probe, *ref, expected - kCheckReach - refAt,
                                            expected + kCheckReach - refAt, w * 0.75, kTopK, kPeakSeparation);
    if (found.empty()) return std::nullopt;
    const double lag = found.front().offsetSeconds * fps;
    const double at = refAt + (lag + subFrame(*probe, *ref, static_cast<int>(std::lround(lag)))) / fps;
    return Match{expected - at, found.front().score};
}

bool timecodeDisagrees(const ClipItem& clip, double placedPos, std::span<const Span> spans) {
    if (!clip.startTimecode) return false;
    std::optional<double> nearest;
    for (const Span& span : spans) {
        if (!span.startTC) continue;
        const double t = span.off + (*clip.startTimecode - *span.startTC);
        if (!nearest || std::abs(t - placedPos) < std::abs(*nearest - placedPos)) nearest = t;
    }
    if (!nearest) return false;
    const double tolerance = clip.frameRate
                                 ? kTimecodeFrames / std::max(static_cast<double>(*clip.frameRate), 1.0)
                                 : kTimecodeDefault;
    return std::abs(*nearest - placedPos) > tolerance;
}

} // namespace trelvane::SyncEngine
