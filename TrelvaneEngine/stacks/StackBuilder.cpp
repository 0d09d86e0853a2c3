// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/stacks/StackBuilder.hpp"

#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Text.hpp"

#include <cmath>
#include <cstddef>
#include <limits>
#include <set>

namespace trelvane::StackBuilder {

using Measurement = PairwiseOffsetSolver::Measurement;

namespace {

struct Vote {
    double value = 0; // where the shorter clip starts relative to the longer
    float score = 0;
};

// Union-find over clip indices with path halving; a join hangs the root of `to` under the root of
// `from`.
class Components {
  public:
    explicit Components(int count) : parent_(static_cast<std::size_t>(std::max(count, 0))) {
        for (std::size_t i = 0; i < parent_.size(); ++i)
            parent_[i] = static_cast<int>(i);
    }
    int find(int x) {
        while (parent_[static_cast<std::size_t>(x)] != x) {
            auto& p = parent_[static_cast<std::size_t>(x)];
            p = parent_[static_cast<std::size_t>(p)];
            x = p;
        }
        return x;
    }
    void join(int from, int to) {
        if (!contains(from) || !contains(to)) return;
        const int rootFrom = find(from), rootTo = find(to);
        if (rootFrom != rootTo) parent_[static_cast<std::size_t>(rootTo)] = rootFrom;
    }
    bool contains(int x) const { return x >= 0 && static_cast<std::size_t>(x) < parent_.size(); }
    // The groups by root, ascending; members in index order.
    std::map<int, std::vector<int>> groups() {
        std::map<int, std::vector<int>> out;
        for (std::size_t i = 0; i < parent_.size(); ++i)
            out[find(static_cast<int>(i))].push_back(static_cast<int>(i));
        return out;
    }

  private:
    std::vector<int> parent_;
};

} // namespace

// ---- compare ----------------------------------------------------------------------------------------

std::optional<Comparison> compare(const ClipItem& a, const ClipItem& b, const SpectralBands::Reference* aKept,
                                  const SpectralBands::Reference* bKept) {
    if (!a.bandFeature || !b.bandFeature) return std::nullopt;
    if (a.audioUsability != AudioUsability::ok || b.audioUsability != AudioUsability::ok) return std::nullopt;

    const bool aShorter = !(b.duration < a.duration);
    const ClipItem& shorter = aShorter ? a : b;
    const ClipItem& longer = aShorter ? b : a;
    const double window = std::min(shorter.duration * 0.5, kLongestWindow);
    if (!(window >= kShortestWindow)) return std::nullopt;
    const SpectralBands::Reference* kept = aShorter ? bKept : aKept;
    const SpectralBands::Reference longerRef = kept ? *kept : SpectralBands::Reference(*longer.bandFeature);

    // Several windows, so that one passage repeated elsewhere in the song can't carry the pair.
    std::vector<Vote> votes;
    for (const double fraction : kWindowCentres) {
        double start = shorter.duration * fraction - window * 0.5;
        if (start < 0) start = 0;
        if (start > shorter.duration - window) start = shorter.duration - window;
        if (start < 0) continue;
        const auto cut = SpectralBands::slice(*shorter.bandFeature, start, window);
        if (!cut || cut->frames >= longer.bandFeature->frames) continue;
        SpectralBands::ClipSearch search(*cut);
        const auto found = SpectralBands::peaks(search, longerRef, std::numeric_limits<double>::lowest(),
                                                std::numeric_limits<double>::max(), kMinOverlapSec, kTopK,
                                                kMinSeparationSec);
        if (found.empty() || !(found.front().score >= kVoteScore)) continue;
        votes.push_back({found.front().offsetSeconds - start, found.front().score});
    }
    if (votes.empty()) return std::nullopt;

    std::vector<std::size_t> best;
    for (std::size_t i = 0; i < votes.size(); ++i) {
        std::vector<std::size_t> gathering;
        for (std::size_t j = 0; j < votes.size(); ++j)
            if (std::fabs(votes[j].value - votes[i].value) <= kVoteAgreement) gathering.push_back(j);
        if (gathering.size() > best.size()) best = std::move(gathering);
    }

    Comparison result;
    if (best.size() < 2) {
        result.offset = votes.front().value;
        result.score = votes.front().score;
        for (const auto& v : votes)
            result.alternatives.push_back(v.value);
        result.confident = false;
    } else {
        double sum = 0;
        float top = std::numeric_limits<float>::lowest();
        for (const std::size_t k : best) {
            sum += votes[k].value;
            top = std::max(top, votes[k].score);
            result.alternatives.push_back(votes[k].value);
        }
        result.offset = sum / static_cast<double>(best.size());
        result.score = top;
        result.confident = true;
    }
    // The votes say where the shorter clip starts; the answer is where `b` starts relative to `a`.
    if (aShorter) {
        result.offset = -result.offset;
        for (double& v : result.alternatives)
            v = -v;
    }
    return result;
}

// ---- solve and reconcile ------------------------------------------------------------------------------

std::map<int, double> solve(std::span<const int> nodes, std::span<const Measurement> edges) {
    std::map<int, int> place;
    for (std::size_t i = 0; i < nodes.size(); ++i)
        place.emplace(nodes[i], static_cast<int>(i));

    std::vector<Measurement> local;
    for (const auto& e : edges) {
        const auto from = place.find(e.from), to = place.find(e.to);
        if (from == place.end() || to == place.end()) continue;
        local.push_back({from->second, to->second, e.offset, e.weight});
    }
    const int count = static_cast<int>(nodes.size());
    std::vector<int> degree(nodes.size(), 0);
    for (const auto& e : local) {
        ++degree[static_cast<std::size_t>(e.from)];
        ++degree[static_cast<std::size_t>(e.to)];
    }
    int master = 0;
    for (int i = 1; i < count; ++i)
        if (degree[static_cast<std::size_t>(i)] > degree[static_cast<std::size_t>(master)]) master = i;

    auto solved = PairwiseOffsetSolver::solve(count, master, local);
    const auto residual = PairwiseOffsetSolver::residuals(local, solved);
    const double worst = residual.empty() ? 0.0 : *std::max_element(residual.begin(), residual.end());
    // One wrong match must not bend a whole stack; drop it only while the rest can still hold the
    // stack together.
    if (worst > kResidualTolerance && local.size() >= nodes.size()) {
        std::vector<Measurement> kept;
        for (std::size_t i = 0; i < local.size(); ++i)
            if (residual[i] <= kResidualTolerance) kept.push_back(local[i]);
        if (kept.size() + 1 >= nodes.size()) {
            EngineLog::logf("[Stacks]   dropped %d inconsistent pair(s)",
                            static_cast<int>(local.size() - kept.size()));
            solved = PairwiseOffsetSolver::solve(count, master, kept);
        }
    }

    std::map<int, double> out;
    for (std::size_t i = 0; i < nodes.size(); ++i)
        out[nodes[i]] = solved[i];
    return out;
}

std::vector<Measurement> reconcile(std::span<const AmbiguousPair> ambiguous,
                                   std::span<const Measurement> edges, int clipCount) {
    if (ambiguous.empty()) return {};
    std::vector<Measurement> accepted;
    std::vector<AmbiguousPair> pending(ambiguous.begin(), ambiguous.end());

    for (int round = 0; round < kReconcileRounds && !pending.empty(); ++round) {
        std::vector<Measurement> firm(edges.begin(), edges.end());
        firm.insert(firm.end(), accepted.begin(), accepted.end());
        Components components(clipCount);
        for (const auto& e : firm)
            components.join(e.from, e.to);

        std::map<int, double> position;
        std::map<int, int> componentOf;
        for (const auto& [root, members] : components.groups()) {
            if (members.size() < 2) continue;
            for (const auto& [clip, at] : solve(members, firm)) {
                position[clip] = at;
                componentOf[clip] = root;
            }
        }

        std::vector<AmbiguousPair> still;
        for (auto& pair : pending) {
            const auto from = position.find(pair.from), to = position.find(pair.to);
            if (from == position.end() || to == position.end() ||
                componentOf[pair.from] != componentOf[pair.to] || pair.options.empty()) {
                still.push_back(std::move(pair));
                continue;
            }
            const double implied = to->second - from->second;
            std::size_t nearest = 0;
            for (std::size_t k = 1; k < pair.options.size(); ++k)
                if (std::fabs(pair.options[k] - implied) < std::fabs(pair.options[nearest] - implied))
                    nearest = k;
            if (std::fabs(pair.options[nearest] - implied) <= kResidualTolerance)
                accepted.push_back({pair.from, pair.to, pair.options[nearest], pair.score});
            else
                still.push_back(std::move(pair));
        }
        pending = std::move(still);
    }

    // Nothing firm decides these: the first vote stands, trusted half as much.
    for (const auto& pair : pending)
        if (!pair.options.empty())
            accepted.push_back(
                {pair.from, pair.to, pair.options.front(), pair.score * kUnresolvedWeightFactor});

    if (!accepted.empty())
        EngineLog::logf("[Stacks] reconciled %d ambiguous pair(s)  against the solved stacks",
                        static_cast<int>(accepted.size()));
    return accepted;
}

// ---- layout --------------------------------------------------------------------------------------------

std::vector<std::vector<int>> pack(std::span<const int> nodes, const std::map<int, double>& at,
                                   std::span<const ClipItem> clips) {
    auto positionOf = [&at](int node) {
        const auto it = at.find(node);
        return it == at.end() ? 0.0 : it->second;
    };
    std::vector<int> order(nodes.begin(), nodes.end());
    std::stable_sort(order.begin(), order.end(), [&](int x, int y) { return positionOf(x) < positionOf(y); });

    std::vector<std::vector<int>> rows;
    std::vector<double> ends;
    for (const int node : order) {
        const double position = positionOf(node);
        std::size_t row = 0;
        while (row < ends.size() && !(ends[row] <= position + kPackTolerance))
            ++row;
        if (row == ends.size()) {
            rows.emplace_back();
            ends.push_back(0);
        }
        rows[row].push_back(node);
        const double duration = node >= 0 && static_cast<std::size_t>(node) < clips.size()
                                    ? clips[static_cast<std::size_t>(node)].duration
                                    : 0.0;
        ends[row] = position + duration;
    }
    return rows;
}

bool isVideo(const ClipItem& clip) {
    return clip.pictureURL.has_value() || IngestEngine::isVideoExtension(clip.url.pathExtension());
}

// ---- build ------------------------------------------------------------------------------------------------

Result build(const std::vector<TrackSource>& sources, const ProgressFn& onProgress, std::stop_token stop,
             int workers) {
    Result result;
    std::vector<ClipItem> clips;
    for (const auto& t : sources)
        clips.insert(clips.end(), t.clips.begin(), t.clips.end());
    const int clipCount = static_cast<int>(clips.size());
    if (clipCount < 2 || stop.stop_requested()) {
        result.tracks = sources;
        return result;
    }

    struct Pair {
        int i, j;
    };
    std::vector<Pair> pairs;
    for (int i = 0; i < clipCount; ++i)
        for (int j = i + 1; j < clipCount; ++j) {
            const double di = clips[static_cast<std::size_t>(i)].duration;
            const double dj = clips[static_cast<std::size_t>(j)].duration;
            if (!(di > 0) || !(dj > 0)) continue;
            if (std::max(di, dj) / std::min(di, dj) <= kMaxDurationRatio) pairs.push_back({i, j});
        }
    const long long possible = static_cast<long long>(clipCount) * (clipCount - 1) / 2;
    const int pairCount = static_cast<int>(pairs.size());
    if (pairCount < possible)
        EngineLog::logf(
            "[Stacks] %d pair(s) to compare, %lld skipped (takes differ in length by more than %.0f×)",
            pairCount, possible - pairCount, kMaxDurationRatio);
    if (pairCount > kPairWarning)
        EngineLog::logf(
            "[Stacks] WARNING: %d comparisons — this looks like a whole shoot, not a set of takes; "
            "stack mode is meant for a handful of takes over one playback",
            pairCount);

    // Every clip is the longer of many pairs: what the searches keep of its feature serves them all
    // and goes when the build ends.
    SpectralBands::ReferenceCache references;
    std::vector<std::optional<SpectralBands::Reference>> kept(clips.size());
    for (std::size_t i = 0; i < clips.size(); ++i)
        if (clips[i].bandFeature)
            kept[i] = references.reference({0, static_cast<int>(i)}, *clips[i].bandFeature);
    const auto keptOf = [&](int i) {
        return kept[static_cast<std::size_t>(i)] ? &*kept[static_cast<std::size_t>(i)] : nullptr;
    };

    // The comparisons run in parallel; their results are taken up in pair order afterwards, so the
    // outcome and the log do not depend on which worker finished first.
    std::vector<std::optional<Comparison>> outcomes(pairs.size());
    int finished = 0;
    WorkerWindow::run<std::optional<Comparison>>(
        workers, pairs.size(),
        [&](std::size_t k) -> std::optional<Comparison> {
            if (stop.stop_requested()) return std::nullopt;
            return compare(clips[static_cast<std::size_t>(pairs[k].i)],
                           clips[static_cast<std::size_t>(pairs[k].j)], keptOf(pairs[k].i),
                           keptOf(pairs[k].j));
        },
        [&](std::size_t k, std::optional<Comparison> outcome) {
            outcomes[k] = std::move(outcome);
            ++finished;
            if (finished % kProgressEvery == 0 && onProgress)
                onProgress({static_cast<double>(finished) / static_cast<double>(pairCount), {}});
        },
        stop);
    if (stop.stop_requested()) {
        result.tracks = sources;
        return result;
    }

    std::vector<Measurement> edges;
    std::vector<AmbiguousPair> ambiguous;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const auto& c = outcomes[k];
        if (!c) continue;
        if (c->confident)
            edges.push_back({pairs[k].i, pairs[k].j, c->offset, c->score});
        else
            ambiguous.push_back({pairs[k].i, pairs[k].j, c->alternatives, c->score});
    }
    const auto reconciled = reconcile(ambiguous, edges, clipCount);
    edges.insert(edges.end(), reconciled.begin(), reconciled.end());

    Components components(clipCount);
    for (const auto& e : edges)
        components.join(e.from, e.to);

    std::vector<Stack> stacks;
    std::vector<std::map<int, double>> stackPositions; // by clip index, same order as `stacks`
    std::set<int> unmatched;
    for (const auto& [root, members] : components.groups()) {
        std::map<int, double> positions;
        if (members.size() == 1) {
            positions[members.front()] = 0;
            unmatched.insert(members.front());
        } else {
            positions = solve(members, edges);
        }
        double lowest = std::numeric_limits<double>::max();
        for (const auto& [clip, at] : positions)
            lowest = std::min(lowest, at);
        Stack stack;
        for (auto& [clip, at] : positions) {
            at -= lowest;
            const ClipItem& item = clips[static_cast<std::size_t>(clip)];
            stack.positions[item.id] = at;
            stack.length = std::max(stack.length, at + item.duration);
            if (item.recordingDate && (!stack.recordedAt || *item.recordingDate < *stack.recordedAt))
                stack.recordedAt = item.recordingDate;
        }
        stacks.push_back(std::move(stack));
        stackPositions.push_back(std::move(positions));
    }

    // Shooting order; undated stacks after the dated ones, in their own order.
    std::vector<std::size_t> order(stacks.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) {
        const auto& dx = stacks[x].recordedAt;
        const auto& dy = stacks[y].recordedAt;
        if (dx && dy) return *dx < *dy;
        return dx.has_value() && !dy.has_value();
    });

    std::map<int, double> timeline;
    std::vector<double> starts;
    double cursor = 0;
    for (const std::size_t s : order) {
        starts.push_back(cursor);
        for (const auto& [clip, at] : stackPositions[s])
            timeline[clip] = cursor + at;
        cursor += stacks[s].length + kStackGap;
        result.stacks.push_back(stacks[s]);
    }

    std::vector<int> pictures, sounds;
    for (int i = 0; i < clipCount; ++i)
        (isVideo(clips[static_cast<std::size_t>(i)]) ? pictures : sounds).push_back(i);
    const std::string session = sources.empty() ? std::string() : sources.front().session;
    std::vector<std::string> names;
    auto addRows = [&](const std::vector<int>& nodes, const std::string& prefix) {
        int number = 0;
        for (const auto& row : pack(nodes, timeline, clips)) {
            ++number;
            if (row.empty()) continue;
            TrackSource track;
            for (const int index : row) {
                ClipItem clip = clips[static_cast<std::size_t>(index)];
                clip.startOffset = timeline[index];
                const bool alone = unmatched.contains(index);
                clip.syncStatus = alone ? SyncStatus::failed : SyncStatus::synced;
                clip.placementPass = alone ? PlacementPass::stackAlone : PlacementPass::stack;
                // What a track-mode sync said of the clip no longer describes where it stands.
                clip.matchScore.reset();
                clip.placementNote.reset();
                clip.tcDisagrees = false;
                track.clips.push_back(std::move(clip));
            }
            track.type = IngestEngine::inferredType(track.clips);
            track.id = IngestEngine::newTrackId("stack", track.clips, result.tracks);
            track.name = IngestEngine::uniqueName(prefix + std::to_string(number), track.type, names);
            names.push_back(track.name);
            track.session = session;
            track.lockedGrouping = true;
            result.tracks.push_back(std::move(track));
        }
    };
    addRows(pictures, "Stack ");
    addRows(sounds, "Audio ");

    for (const int index : unmatched)
        result.unmatched.push_back(clips[static_cast<std::size_t>(index)].url.baseName());
    result.comparisons = pairCount;
    result.matches = static_cast<int>(edges.size());

    EngineLog::logf("[Stacks] %d comparison(s), %d match(es) → %d stack(s), %d row(s), %d unmatched",
                    result.comparisons, result.matches, static_cast<int>(result.stacks.size()),
                    static_cast<int>(result.tracks.size()), static_cast<int>(result.unmatched.size()));
    for (std::size_t k = 0; k < result.stacks.size(); ++k)
        EngineLog::logf("[Stacks]   stack %d: %d take(s), %.1fs at %.1fs", static_cast<int>(k + 1),
                        static_cast<int>(result.stacks[k].positions.size()), result.stacks[k].length,
                        starts[k]);
    if (!result.unmatched.empty())
        EngineLog::logf("[Stacks]   unmatched: %s", joined(result.unmatched, ", "));
    return result;
}

} // namespace trelvane::StackBuilder
