// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/features/SpectralBands.hpp"

#include "TrelvaneEngine/features/SyncCorrelator.hpp"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <numbers>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace trelvane::SpectralBands {

namespace {

// Periodic Hann window with the normalising factor sqrt(8/3) (0.8165 on the 1 - cos form), which
// keeps the windowed signal's energy. Its size shifts every log1p input, so it is kept.
const std::array<float, kWindow>& hannWindow() {
    static const std::array<float, kWindow> window = [] {
        std::array<float, kWindow> w{};
        const double norm = std::sqrt(8.0 / 3.0);
        for (int i = 0; i < kWindow; ++i)
            w[static_cast<std::size_t>(i)] =
                static_cast<float>(norm * 0.5 * (1.0 - std::cos(2.0 * std::numbers::pi * i / kWindow)));
        return w;
    }();
    return window;
}

bool isWellFormed(const Feature& f) {
    return std::all_of(f.bands.begin(), f.bands.end(), [&](const std::vector<float>& b) {
        return b.size() == static_cast<std::size_t>(f.frames);
    });
}

// Rounds half away from zero and limits to [lo, hi] before converting, so that no value, however
// large, overflows the conversion. NaN is left to the caller.
int roundedClamped(double x, int lo, int hi) {
    return static_cast<int>(std::clamp(std::round(x), static_cast<double>(lo), static_cast<double>(hi)));
}

} // namespace

std::vector<float> zscore(std::span<const float> values) {
    std::vector<float> out(values.begin(), values.end());
    if (out.empty()) return out;
    // Sums in double: a constant series then centres to exact zeros, which the correlation's
    // 1e-9 test relies on to skip a silent band; float sums would leave noise that normalises
    // to unit variance.
    double sum = 0;
    for (float v : out)
        sum += v;
    const float mean = static_cast<float>(sum / static_cast<double>(out.size()));
    double squares = 0;
    for (float& v : out) {
        v -= mean;
        squares += static_cast<double>(v) * v;
    }
    const float rms = static_cast<float>(std::sqrt(squares / static_cast<double>(out.size())));
    if (rms > 1e-9f) {
        const float inverse = 1.0f / rms;
        for (float& v : out)
            v *= inverse;
    }
    return out;
}

Feature compute(std::span<const float> pcm) {
    const std::size_t n = pcm.size();
    if (n < static_cast<std::size_t>(kWindow)) return {};
    const std::size_t frameCount = (n - kWindow) / kHop + 1;
    if (frameCount < static_cast<std::size_t>(kMinimumFrames) ||
        frameCount > static_cast<std::size_t>(INT_MAX))
        return {};
    const int frames = static_cast<int>(frameCount);

    const auto* setup = SyncCorrelator::sharedFFTSetup(kLog2Window);
    if (setup == nullptr) return {};
    const auto& window = hannWindow();
    auto ws = setup->makeWorkspace();
    auto signal = ws.signal();
    const auto re = ws.real();
    const auto im = ws.imag();

    Feature feature;
    feature.frames = frames;
    feature.bands.assign(kBandCount, std::vector<float>(frameCount));
    for (std::size_t f = 0; f < frameCount; ++f) {
        const auto frame = pcm.subspan(f * kHop, kWindow);
        for (std::size_t i = 0; i < static_cast<std::size_t>(kWindow); ++i)
            signal[i] = frame[i] * window[i];
        setup->forward(ws);
        // Element 0 (DC and Nyquist) lies below the first edge and is never read.
        for (int b = 0; b < kBandCount; ++b) {
            float energy = 0;
            for (int k = kBandEdges[static_cast<std::size_t>(b)];
                 k < kBandEdges[static_cast<std::size_t>(b) + 1]; ++k) {
                const auto ku = static_cast<std::size_t>(k);
                energy += re[ku] * re[ku] + im[ku] * im[ku];
            }
            feature.bands[static_cast<std::size_t>(b)][f] = std::log1pf(energy);
        }
    }
    for (auto& band : feature.bands)
        band = zscore(band);
    return feature;
}

std::optional<Feature> slice(const Feature& feature, double fromSec, double durationSec) {
    if (!std::isfinite(fromSec) || !std::isfinite(durationSec)) return std::nullopt;
    if (feature.bands.size() != static_cast<std::size_t>(kBandCount) || !isWellFormed(feature))
        return std::nullopt;
    // Limited before conversion; anything beyond the feature's frames is refused below anyway.
    const int start = roundedClamped(fromSec * kFrameRate, 0, INT_MAX / 2);
    const int length = roundedClamped(durationSec * kFrameRate, INT_MIN / 2, INT_MAX / 2);
    if (length <= 4 || start + length > feature.frames) return std::nullopt;

    Feature cut;
    cut.frames = length;
    cut.bands.reserve(kBandCount);
    for (const auto& band : feature.bands)
        cut.bands.push_back(zscore(std::span<const float>(band).subspan(static_cast<std::size_t>(start),
                                                                        static_cast<std::size_t>(length))));
    return cut;
}

namespace {

// ---- The peak search, by blocks -------------------------------------------------------------------
//
// The fused correlation is linear in each band's correlation, and each band's weight (the inverse
// RMS of its whole correlation) can be had without the correlation itself: the sum of its squares
// over every lag is the sum over d of the two autocorrelations' products, Ra(d) * Rb(d), and Rb
// vanishes beyond the clip's length. So the weights come from the clip's spectrum and a short,
// cached autocorrelation of the reference, and the fused correlation is then needed only over the
// searched lags, block by block (overlap-save): one inverse transform per block for all bands,
// against block spectra of the reference that are cached between calls. A narrow clock window
// thus costs a block or two, and the reference is transformed once, not once per call.

struct BlockPlan {
    std::size_t clipPad = 0; // C: a power of two not below the clip's length
    std::size_t size = 0;    // F: the transform length, at least 2C
    std::size_t step = 0;    // F - C: lags per block; block j starts at lag j * step - C
    const SyncCorrelator::FFTSetup* setup = nullptr;
};

std::size_t ceilPow2(std::size_t n) {
    std::size_t p = 1;
    while (p < n)
        p *= 2;
    return p;
}

unsigned log2Of(std::size_t p) {
    unsigned l = 0;
    while ((std::size_t{1} << l) < p)
        ++l;
    return l;
}

long long blockOf(long long lag, const BlockPlan& plan) {
    // Lags start at -C or later, so lag + C is never negative.
    return (lag + static_cast<long long>(plan.clipPad)) / static_cast<long long>(plan.step);
}

// The transform size with the least work for this range: larger blocks waste less of each
// transform on the clip's overhang, smaller ones follow a narrow range more closely.
// The band count is taken as 8 whatever the features hold, so that leaving out a band never changes
// the plan, and with it the rounding.
std::optional<BlockPlan> choosePlan(int clipFrames, int lo, int hi) {
    constexpr double bandCount = kBandCount;
    BlockPlan best;
    double bestCost = std::numeric_limits<double>::infinity();
    const std::size_t clipPad = ceilPow2(static_cast<std::size_t>(std::max(clipFrames, 4)));
    const std::size_t whole = ceilPow2(static_cast<std::size_t>(hi - lo + 1) + 2 * clipPad);
    for (std::size_t size = 2 * clipPad; size <= std::size_t{1} << SyncCorrelator::kMaxLog2n; size *= 2) {
        BlockPlan plan{clipPad, size, size - clipPad, nullptr};
        const double blocks = static_cast<double>(blockOf(hi, plan) - blockOf(lo, plan) + 1);
        const double f = static_cast<double>(size), logf = std::log2(f);
        const double cost = blocks * f * (logf + 2.0 * bandCount) + bandCount * f * logf;
        if (cost < bestCost) bestCost = cost, best = plan;
        if (size >= whole) break;
    }
    if (best.size == 0) return std::nullopt;
    best.setup = SyncCorrelator::sharedFFTSetup(log2Of(best.size));
    if (best.setup == nullptr) return std::nullopt;
    return best;
}

// Packed spectra (real half, then imaginary half, as the plans give them) of one length.
using Packed = std::vector<float>;

void forwardPacked(const SyncCorrelator::FFTSetup& setup, SyncCorrelator::FFTWorkspace& ws, Packed& out) {
    setup.forward(ws);
    const std::size_t half = setup.length() / 2;
    out.resize(setup.length());
    std::copy(ws.real().begin(), ws.real().end(), out.begin());
    std::copy(ws.imag().begin(), ws.imag().end(), out.begin() + static_cast<std::ptrdiff_t>(half));
}

} // namespace

// What the searches keep of one reference between calls; the feature itself is the owner's. The
// transforms grow on demand under `lock`. Entries are never shrunk, so spectra handed out stay
// valid while the reference lives.
struct ReferenceSpectra {
    ReferenceSpectra(const Feature& f, std::shared_ptr<std::atomic<std::size_t>> b)
        : feature(f), budget(std::move(b)) {}

    const Feature& feature;
    // Bytes still free to the references sharing it; what is kept of this one counts against it.
    const std::shared_ptr<std::atomic<std::size_t>> budget;

    std::mutex lock;
    // By transform length: Ra(d) of each band for the lags that length holds without wrapping.
    std::map<std::size_t, std::vector<std::vector<double>>> autocorrelations;
    struct Grid {
        // Per band: the plain DFT of Ra cut to |d| < F/2, which is real; F/2 + 1 values.
        std::vector<std::vector<double>> weightSpectrum;
        // Per block index: the packed spectra of all bands, band after band.
        std::map<long long, std::unique_ptr<const Packed>> blocks;
    };
    // By transform length and clip padding: a block's reference frames start C before its first
    // lag, so the same length with another C is another grid.
    std::map<std::pair<std::size_t, std::size_t>, Grid> grids;
    std::atomic<std::size_t> bytes = 0; // what the transforms hold; read without `lock`

    // Counts `size` bytes as kept, whatever the budget: what no search can do without.
    void keep(std::size_t size) {
        bytes += size;
        std::size_t free = budget->load();
        while (!budget->compare_exchange_weak(free, free - std::min(free, size))) {
        }
    }
    // Counts `size` bytes as kept if the budget still has them.
    bool tryKeep(std::size_t size) {
        std::size_t free = budget->load();
        do {
            if (free < size) return false;
        } while (!budget->compare_exchange_weak(free, free - size));
        bytes += size;
        return true;
    }
};

// The searches' way into a reference's spectra.
struct ReferenceAccess {
    static ReferenceSpectra& spectra(const Reference& ref) { return *ref.spectra_; }
};

Reference::Reference(const Feature& feature)
    : Reference(feature, std::make_shared<std::atomic<std::size_t>>(kMaxKeptBytes)) {}

Reference::Reference(const Feature& feature, std::shared_ptr<std::atomic<std::size_t>> budget)
    : feature_(&feature), spectra_(std::make_shared<ReferenceSpectra>(feature, std::move(budget))) {}

std::size_t Reference::keptBytes() const {
    return spectra_->bytes.load();
}

ReferenceCache::ReferenceCache(std::size_t maxBytes)
    : budget_(std::make_shared<std::atomic<std::size_t>>(maxBytes)) {}

Reference ReferenceCache::reference(Key key, const Feature& feature) {
    std::lock_guard guard(lock_);
    if (const auto it = references_.find(key); it != references_.end()) return it->second;
    return references_.emplace(key, Reference(feature, budget_)).first->second;
}

std::size_t ReferenceCache::keptBytes() const {
    std::lock_guard guard(lock_);
    std::size_t total = 0;
    for (const auto& [key, ref] : references_)
        total += ref.keptBytes();
    return total;
}

namespace {

// Ra of every band for the lags that a transform of `length` gives without wrapping. Kept by
// length, so that the same reference and length always give the same values, whatever came before.
const std::vector<std::vector<double>>* autocorrelation(ReferenceSpectra& ref, std::size_t length) {
    if (const auto it = ref.autocorrelations.find(length); it != ref.autocorrelations.end())
        return &it->second;
    const std::size_t frames = static_cast<std::size_t>(ref.feature.frames);
    const std::size_t lags = std::min(length - frames + 1, frames);
    const auto* setup = SyncCorrelator::sharedFFTSetup(log2Of(length));
    if (setup == nullptr) return nullptr;
    auto ws = setup->makeWorkspace();
    const double scale = 1.0 / (4.0 * static_cast<double>(length)); // doubled forward, P-fold inverse
    std::vector<std::vector<double>> result;
    for (const auto& band : ref.feature.bands) {
        auto signal = ws.signal();
        std::fill(signal.begin(), signal.end(), 0.0f);
        std::copy(band.begin(), band.end(), signal.begin());
        setup->forward(ws);
        auto re = ws.real(), im = ws.imag();
        re[0] = re[0] * re[0];
        im[0] = im[0] * im[0];
        for (std::size_t k = 1; k < re.size(); ++k) {
            re[k] = re[k] * re[k] + im[k] * im[k];
            im[k] = 0.0f;
        }
        setup->inverse(ws);
        std::vector<double> ra(lags);
        for (std::size_t d = 0; d < lags; ++d)
            ra[d] = static_cast<double>(ws.signal()[d]) * scale;
        result.push_back(std::move(ra));
    }
    ref.keep(sizeof(double) * lags * ref.feature.bands.size());
    return &ref.autocorrelations.emplace(length, std::move(result)).first->second;
}

// The grid of one transform length: the band weights' spectra, made once.
ReferenceSpectra::Grid* ensureGrid(ReferenceSpectra& ref, const BlockPlan& plan) {
    auto& grid = ref.grids[{plan.size, plan.clipPad}];
    if (!grid.weightSpectrum.empty()) return &grid;
    const std::size_t half = plan.size / 2;
    // Rb vanishes from the clip's length on, and the clip is at most F/2 long: lags below F/2 do.
    const std::size_t length = ceilPow2(static_cast<std::size_t>(ref.feature.frames) + half);
    if (length > (std::size_t{1} << SyncCorrelator::kMaxLog2n)) return nullptr;
    const auto* ras = autocorrelation(ref, length);
    if (ras == nullptr) return nullptr;
    auto ws = plan.setup->makeWorkspace();
    std::vector<std::vector<double>> spectra;
    for (const auto& ra : *ras) {
        auto t = ws.signal();
        std::fill(t.begin(), t.end(), 0.0f);
        const std::size_t lags = std::min(half, ra.size());
        for (std::size_t d = 0; d < lags; ++d) {
            t[d] = static_cast<float>(ra[d]);
            if (d > 0) t[plan.size - d] = static_cast<float>(ra[d]);
        }
        plan.setup->forward(ws);
        // Even input, so the spectrum is real; the forward transform gives it doubled.
        std::vector<double> w(half + 1);
        w[0] = 0.5 * ws.real()[0];
        w[half] = 0.5 * ws.imag()[0];
        for (std::size_t k = 1; k < half; ++k)
            w[k] = 0.5 * ws.real()[k];
        spectra.push_back(std::move(w));
    }
    grid.weightSpectrum = std::move(spectra);
    ref.keep(sizeof(double) * (half + 1) * ref.feature.bands.size());
    return &grid;
}

// The packed spectra of every band of the reference from lag `block * step - C` on, F frames.
std::unique_ptr<const Packed> blockSpectra(const ReferenceSpectra& ref, const BlockPlan& plan,
                                           SyncCorrelator::FFTWorkspace& ws, long long block) {
    const long long start = block * static_cast<long long>(plan.step) - static_cast<long long>(plan.clipPad);
    const long long frames = ref.feature.frames;
    const long long from = std::max(start, 0LL);
    const long long to = std::min(start + static_cast<long long>(plan.size), frames);
    auto out = std::make_unique<Packed>(plan.size * ref.feature.bands.size());
    Packed one;
    for (std::size_t b = 0; b < ref.feature.bands.size(); ++b) {
        auto signal = ws.signal();
        std::fill(signal.begin(), signal.end(), 0.0f);
        if (from < to)
            std::copy(ref.feature.bands[b].begin() + from, ref.feature.bands[b].begin() + to,
                      signal.begin() + (from - start));
        forwardPacked(*plan.setup, ws, one);
        std::copy(one.begin(), one.end(), out->begin() + static_cast<std::ptrdiff_t>(b * plan.size));
    }
    return out;
}

// Bins of the product accumulated over all bands before moving on, so that the sums stay in the
// first-level cache while the band spectra stream past.
constexpr std::size_t kProductChunk = 512;

// One clip's part in a search by blocks: its lags, and the fused correlation there (each usable
// band's correlation over its RMS, summed), the same values the band-by-band correlations over the
// whole length would give, up to rounding. Empty when no band is usable; nothing when the blocks
// can't be planned (lengths near the largest plan), which the caller answers with whole-length
// transforms.
struct BlockJob {
    ClipSearch* search = nullptr;
    int lo = 0, hi = 0;
    std::size_t wholeLength = 0; // of the whole correlation with the reference
    std::optional<std::vector<float>> fused;
};

// A planned job: its clip's spectrum per usable band, weighted by the inverse RMS of that band's
// whole correlation, and the blocks it needs.
struct PlannedJob {
    BlockJob* job = nullptr;
    BlockPlan plan;
    std::vector<Packed> weighted;
    std::vector<std::size_t> usedBands;
    long long firstBlock = 0, lastBlock = 0;
};

// Weighs the clip's bands for `plan`; false when the clip or the grid can't be had for it.
bool weigh(PlannedJob& planned, ReferenceSpectra& spectra) {
    const BlockPlan& plan = planned.plan;
    const Feature& clip = planned.job->search->clip();
    const std::size_t size = plan.size, half = size / 2;
    const auto& clipTransforms = planned.job->search->transforms(size);
    if (clipTransforms.spectra.size() != size * clip.bands.size()) return false;
    const ReferenceSpectra::Grid* grid = nullptr;
    {
        std::lock_guard guard(spectra.lock);
        grid = ensureGrid(spectra, plan);
    }
    if (grid == nullptr) return false;
    for (std::size_t b = 0; b < clip.bands.size(); ++b) {
        // Sum of squares of the correlation over all lags, by Parseval: the sum over d of
        // Ra(d) * Rb(d), in the frequency domain. Four running sums keep the additions apart.
        const double* w = grid->weightSpectrum[b].data();
        const double* p = clipTransforms.power.data() + b * (half + 1);
        const double edge = w[0] * p[0] + w[half] * p[half];
        std::array<double, 4> inner{};
        std::size_t k = 1;
        for (; k + 4 <= half; k += 4)
            for (std::size_t j = 0; j < 4; ++j)
                inner[j] += w[k + j] * p[k + j];
        for (; k < half; ++k)
            inner[0] += w[k] * p[k];
        const double sumOfSquares =
            (edge + 2.0 * ((inner[0] + inner[1]) + (inner[2] + inner[3]))) / static_cast<double>(size);
        // The correlation as the plain transform gives it is twice the plain one, over P values.
        const float rms = static_cast<float>(
            std::sqrt(std::max(4.0 * sumOfSquares, 0.0) / static_cast<double>(planned.job->wholeLength)));
        if (!(rms > 1e-9f) || !std::isfinite(rms)) continue;
        const float inverse = 1.0f / rms;
        const auto first = clipTransforms.spectra.begin() + static_cast<std::ptrdiff_t>(b * size);
        Packed c(size);
        std::transform(first, first + static_cast<std::ptrdiff_t>(size), c.begin(),
                       [inverse](float v) { return v * inverse; });
        planned.weighted.push_back(std::move(c));
        planned.usedBands.push_back(b);
    }
    return true;
}

// The job's fused correlation at the lags block `j` holds, from the block's reference spectra.
void fuseBlock(const PlannedJob& planned, const Packed& block, long long j,
               SyncCorrelator::FFTWorkspace& ws) {
    const BlockPlan& plan = planned.plan;
    const std::size_t size = plan.size, half = size / 2;
    float* const re = ws.real().data();
    float* const im = ws.imag().data();
    // Element 0 holds two real terms (DC and Nyquist), not one complex bin.
    float dc = 0, nyquist = 0;
    for (std::size_t u = 0; u < planned.usedBands.size(); ++u) {
        const float* s = block.data() + planned.usedBands[u] * size;
        dc += s[0] * planned.weighted[u][0];
        nyquist += s[half] * planned.weighted[u][half];
    }
    // Band after band within a chunk of bins: each bin still sums the bands in their order.
    for (std::size_t k0 = 0; k0 < half; k0 += kProductChunk) {
        const std::size_t k1 = std::min(half, k0 + kProductChunk);
        std::fill(re + k0, re + k1, 0.0f);
        std::fill(im + k0, im + k1, 0.0f);
        for (std::size_t u = 0; u < planned.usedBands.size(); ++u) {
            const float* s = block.data() + planned.usedBands[u] * size;
            const float* sr = s;
            const float* si = s + half;
            const float* cr = planned.weighted[u].data();
            const float* ci = planned.weighted[u].data() + half;
            for (std::size_t k = k0; k < k1; ++k) {
                re[k] += sr[k] * cr[k] + si[k] * ci[k];
                im[k] += si[k] * cr[k] - sr[k] * ci[k];
            }
        }
    }
    re[0] = dc;
    im[0] = nyquist;
    plan.setup->inverse(ws);
    // Forward twice the plain scale on each side, inverse F times: 1/(2F) gives the same doubled
    // correlation as the whole-length transforms.
    const float scale = static_cast<float>(1.0 / (2.0 * static_cast<double>(size)));
    const int lo = planned.job->lo, hi = planned.job->hi;
    const long long start = j * static_cast<long long>(plan.step) - static_cast<long long>(plan.clipPad);
    const long long from = std::max<long long>(start, lo);
    const long long to = std::min<long long>(start + static_cast<long long>(plan.step) - 1, hi);
    const auto signal = ws.signal();
    auto& fused = *planned.job->fused;
    for (long long lag = from; lag <= to; ++lag)
        fused[static_cast<std::size_t>(lag - lo)] = signal[static_cast<std::size_t>(lag - start)] * scale;
}

// Fills in `fused` of every job, all against `ref`. Jobs with the same plan take each block of the
// reference in turn, so that a block read from memory serves all of them while it is cached. Each
// job's values are those it would get alone.
void fusedByBlocks(std::span<BlockJob> jobs, ReferenceSpectra& spectra) {
    if (jobs.empty()) return;
    std::vector<PlannedJob> planned;
    for (BlockJob& job : jobs) {
        const auto plan = choosePlan(job.search->clip().frames, job.lo, job.hi);
        if (!plan) continue;
        PlannedJob p;
        p.job = &job;
        p.plan = *plan;
        if (!weigh(p, spectra)) continue;
        if (p.usedBands.empty()) {
            job.fused = std::vector<float>{};
            continue;
        }
        p.firstBlock = blockOf(job.lo, *plan);
        p.lastBlock = blockOf(job.hi, *plan);
        job.fused = std::vector<float>(static_cast<std::size_t>(job.hi - job.lo + 1));
        planned.push_back(std::move(p));
    }

    std::vector<bool> done(planned.size(), false);
    for (std::size_t g = 0; g < planned.size(); ++g) {
        if (done[g]) continue;
        const BlockPlan& plan = planned[g].plan;
        std::vector<const PlannedJob*> group;
        std::set<long long> needed;
        for (std::size_t i = g; i < planned.size(); ++i) {
            if (done[i] || planned[i].plan.size != plan.size || planned[i].plan.clipPad != plan.clipPad)
                continue;
            done[i] = true;
            group.push_back(&planned[i]);
            for (long long j = planned[i].firstBlock; j <= planned[i].lastBlock; ++j)
                needed.insert(j);
        }
        auto ws = plan.setup->makeWorkspace();
        std::vector<std::pair<long long, const Packed*>> blocks;
        std::vector<std::unique_ptr<const Packed>> transient;
        {
            std::lock_guard guard(spectra.lock);
            auto& cached = spectra.grids[{plan.size, plan.clipPad}].blocks;
            for (const long long j : needed) {
                if (const auto it = cached.find(j); it != cached.end()) {
                    blocks.emplace_back(j, it->second.get());
                    continue;
                }
                auto made = blockSpectra(spectra, plan, ws, j);
                const std::size_t bytes = sizeof(float) * made->size();
                blocks.emplace_back(j, made.get());
                if (spectra.tryKeep(bytes)) {
                    cached.emplace(j, std::move(made));
                } else {
                    transient.push_back(std::move(made));
                }
            }
        }
        for (const auto& [j, block] : blocks)
            for (const PlannedJob* p : group)
                if (p->firstBlock <= j && j <= p->lastBlock) fuseBlock(*p, *block, j, ws);
    }
}

} // namespace

namespace {

// The fused correlation at lags lo to hi from whole-length correlations of every band: the plain
// way, for lengths the blocks can't plan. Empty when no band is usable.
std::vector<float> fusedByWholeCorrelations(const Feature& clip, const Feature& ref, std::size_t length,
                                            int lo, int hi) {
    std::vector<float> fused(length, 0.0f);
    int used = 0;
    for (std::size_t b = 0; b < clip.bands.size(); ++b) {
        const auto r = SyncCorrelator::fftCrossCorrelate(ref.bands[b], clip.bands[b]);
        if (!r || r->values.size() != length) continue;
        double squares = 0;
        for (float v : r->values)
            squares += static_cast<double>(v) * v;
        const float rms = static_cast<float>(std::sqrt(squares / static_cast<double>(length)));
        if (!(rms > 1e-9f) || !std::isfinite(rms)) continue;
        const float inverse = 1.0f / rms;
        for (std::size_t i = 0; i < length; ++i)
            fused[i] += r->values[i] * inverse;
        ++used;
    }
    if (used == 0) return {};
    std::vector<float> range(static_cast<std::size_t>(hi - lo + 1));
    for (int lag = lo; lag <= hi; ++lag)
        range[static_cast<std::size_t>(lag - lo)] =
            fused[lag < 0 ? static_cast<std::size_t>(lag) + length : static_cast<std::size_t>(lag)];
    return range;
}

} // namespace

const ClipSearch::Transforms& ClipSearch::transforms(std::size_t setupLength) {
    if (const auto it = byLength_.find(setupLength); it != byLength_.end()) return it->second;
    auto& out = byLength_[setupLength];
    const auto* setup = SyncCorrelator::sharedFFTSetup(log2Of(setupLength));
    if (setup == nullptr || setup->length() != setupLength ||
        static_cast<std::size_t>(clip_.frames) > setupLength || !isWellFormed(clip_))
        return out; // empty: the caller falls back to the plain way
    auto ws = setup->makeWorkspace();
    const std::size_t half = setupLength / 2;
    out.spectra.resize(setupLength * clip_.bands.size());
    out.power.resize((half + 1) * clip_.bands.size());
    Packed c;
    for (std::size_t b = 0; b < clip_.bands.size(); ++b) {
        auto signal = ws.signal();
        std::fill(signal.begin(), signal.end(), 0.0f);
        std::copy(clip_.bands[b].begin(), clip_.bands[b].end(), signal.begin());
        forwardPacked(*setup, ws, c);
        std::copy(c.begin(), c.end(), out.spectra.begin() + static_cast<std::ptrdiff_t>(b * setupLength));
        // The packed values are twice the plain DFT, hence the quarter.
        double* power = out.power.data() + b * (half + 1);
        power[0] = 0.25 * static_cast<double>(c[0]) * c[0];
        power[half] = 0.25 * static_cast<double>(c[half]) * c[half];
        for (std::size_t k = 1; k < half; ++k)
            power[k] =
                0.25 * (static_cast<double>(c[k]) * c[k] + static_cast<double>(c[half + k]) * c[half + k]);
    }
    return out;
}

std::vector<Peak> peaks(const Feature& clip, const Feature& ref, double minOffsetSec, double maxOffsetSec,
                        double minOverlapSec, int topK, double minSeparationSec) {
    ClipSearch search(clip);
    return peaks(search, Reference(ref), minOffsetSec, maxOffsetSec, minOverlapSec, topK, minSeparationSec);
}

namespace {

struct SearchedLags {
    int lo = 0, hi = 0;
    std::size_t wholeLength = 0;
};

// The lags a search of `clip` in `ref` covers, or nothing when it is refused.
std::optional<SearchedLags> searchedLags(const Feature& clip, const Feature& ref, double minOffsetSec,
                                         double maxOffsetSec, double minOverlapSec, int topK) {
    if (topK < 1 || clip.frames < kMinimumFrames || ref.frames < kMinimumFrames) return std::nullopt;
    if (clip.bands.size() != ref.bands.size() || clip.frames >= ref.frames) return std::nullopt;
    if (!isWellFormed(clip) || !isWellFormed(ref)) return std::nullopt;

    const std::size_t n = static_cast<std::size_t>(clip.frames) + static_cast<std::size_t>(ref.frames) - 1;
    if (n < 2) return std::nullopt;
    const std::size_t length = ceilPow2(n);
    // Past the largest plan every band would be refused.
    if (length > (std::size_t{1} << SyncCorrelator::kMaxLog2n)) return std::nullopt;

    // At least `overlapFrames` of the clip stay on the reference. A negative overlap would reach
    // lags that wrap round the correlation, so it counts as none.
    const double overlapSpan = minOverlapSec * kFrameRate;
    if (std::isnan(overlapSpan)) return std::nullopt;
    const int overlapFrames =
        static_cast<int>(std::clamp(std::trunc(overlapSpan), 0.0, static_cast<double>(clip.frames)));
    const int lagMin = overlapFrames - clip.frames;
    const int lagMax = ref.frames - overlapFrames;
    if (overlapFrames >= clip.frames || lagMin > lagMax) return std::nullopt;

    int lo = lagMin, hi = lagMax;
    if (const double x = minOffsetSec * kFrameRate; std::isfinite(x)) lo = roundedClamped(x, lagMin, lagMax);
    if (const double x = maxOffsetSec * kFrameRate; std::isfinite(x)) hi = roundedClamped(x, lagMin, lagMax);
    if (lo > hi) return std::nullopt;
    return SearchedLags{lo, hi, length};
}

// The best `topK` of the fused correlation `values` at lags lo to hi, scored against the range.
std::vector<Peak> pickPeaks(const std::vector<float>& values, int lo, int hi, int topK,
                            double minSeparationSec) {
    if (values.empty()) return {};
    const auto value = [&](int lag) { return values[static_cast<std::size_t>(lag - lo)]; };

    // Four running sums, so that the additions don't wait on each other.
    std::array<double, 4> sums{}, squareSums{};
    const std::size_t n4 = values.size() / 4 * 4;
    for (std::size_t i = 0; i < n4; i += 4)
        for (std::size_t j = 0; j < 4; ++j) {
            const double v = values[i + j];
            sums[j] += v;
            squareSums[j] += v * v;
        }
    for (std::size_t i = n4; i < values.size(); ++i) {
        const double v = values[i];
        sums[0] += v;
        squareSums[0] += v * v;
    }
    const double sum = (sums[0] + sums[1]) + (sums[2] + sums[3]);
    const double squares = (squareSums[0] + squareSums[1]) + (squareSums[2] + squareSums[3]);
    const double count = static_cast<double>(hi) - lo + 1;
    const double mean = sum / count;
    const double sd = std::sqrt(std::max(squares / count - mean * mean, 0.0));
    if (sd <= 1e-6) return {};
    const auto scoreOf = [&](float v) { return static_cast<float>((static_cast<double>(v) - mean) / sd); };
    constexpr float kFloor = std::numeric_limits<float>::lowest();
    const auto isLocalMaximum = [&](int lag) {
        const float v = value(lag);
        return v >= (lag == lo ? kFloor : value(lag - 1)) && v >= (lag == hi ? kFloor : value(lag + 1));
    };

    // One peak wanted (the common case): the first lag of the highest score among the local maxima,
    // found without listing them. The highest value is a local maximum where it first occurs, and
    // the score never falls as the value rises; only an earlier local maximum whose value is within
    // rounding of the top can share its score, so those are looked at first.
    if (topK == 1) {
        std::size_t top = 0;
        for (std::size_t i = 1; i < values.size(); ++i)
            if (values[i] > values[top]) top = i;
        const float best = scoreOf(values[top]);
        const double near =
            static_cast<double>(values[top]) - sd * (std::abs(static_cast<double>(best)) + 1.0) * 1e-6;
        for (std::size_t i = 0; i < top; ++i) {
            const int lag = lo + static_cast<int>(i);
            if (static_cast<double>(values[i]) >= near && isLocalMaximum(lag) && scoreOf(values[i]) == best)
                return {Peak{lag / static_cast<double>(kFrameRate), best}};
        }
        return {Peak{(lo + static_cast<int>(top)) / static_cast<double>(kFrameRate), best}};
    }

    struct Candidate {
        int lag;
        float score;
    };
    // Ties keep their neighbours (a flat top gives several candidates) and the ends of the range
    // compete like any other lag.
    std::vector<Candidate> candidates;
    for (int lag = lo; lag <= hi; ++lag)
        if (isLocalMaximum(lag)) candidates.push_back({lag, scoreOf(value(lag))});
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });

    const double separation = std::round(minSeparationSec * kFrameRate);
    const int sep = std::isnan(separation)
                        ? 1
                        : static_cast<int>(std::clamp(separation, 1.0, static_cast<double>(INT_MAX / 4)));
    std::set<int> kept; // ordered, so the nearest kept lags are found without a scan
    std::vector<Peak> result;
    for (const auto& c : candidates) {
        if (static_cast<int>(result.size()) >= topK) break;
        const auto above = kept.lower_bound(c.lag);
        if (above != kept.end() && static_cast<long long>(*above) - c.lag < sep) continue;
        if (above != kept.begin() && static_cast<long long>(c.lag) - *std::prev(above) < sep) continue;
        kept.insert(c.lag);
        result.push_back({c.lag / static_cast<double>(kFrameRate), c.score});
    }
    return result;
}

} // namespace

std::vector<Peak> peaks(ClipSearch& search, const Reference& ref, double minOffsetSec, double maxOffsetSec,
                        double minOverlapSec, int topK, double minSeparationSec) {
    const OffsetRange range{minOffsetSec, maxOffsetSec};
    ClipSearch* const one = &search;
    return std::move(
        peaks(std::span(&one, 1), ref, std::span(&range, 1), minOverlapSec, topK, minSeparationSec).front());
}

std::vector<std::vector<Peak>> peaks(std::span<ClipSearch* const> searches, const Reference& reference,
                                     std::span<const OffsetRange> ranges, double minOverlapSec, int topK,
                                     double minSeparationSec) {
    std::vector<std::vector<Peak>> result(searches.size());
    if (ranges.size() != searches.size()) return result;
    const Feature& ref = reference.feature();
    std::vector<BlockJob> jobs;
    std::vector<std::size_t> owners;
    for (std::size_t i = 0; i < searches.size(); ++i) {
        const auto lags = searchedLags(searches[i]->clip(), ref, ranges[i].minOffsetSec,
                                       ranges[i].maxOffsetSec, minOverlapSec, topK);
        if (!lags) continue;
        jobs.push_back({searches[i], lags->lo, lags->hi, lags->wholeLength, std::nullopt});
        owners.push_back(i);
    }
    // Only the searched lags are computed; values[i] is the fused correlation at lag lo + i.
    fusedByBlocks(jobs, ReferenceAccess::spectra(reference));
    for (std::size_t k = 0; k < jobs.size(); ++k) {
        BlockJob& job = jobs[k];
        const std::vector<float> values =
            job.fused ? std::move(*job.fused)
                      : fusedByWholeCorrelations(job.search->clip(), ref, job.wholeLength, job.lo, job.hi);
        result[owners[k]] = pickPeaks(values, job.lo, job.hi, topK, minSeparationSec);
    }
    return result;
}

} // namespace trelvane::SpectralBands
