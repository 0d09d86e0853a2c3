// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/sync/FineSync.hpp"

#include "TrelvaneEngine/media/EnvelopeCache.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"
#include "TrelvaneEngine/sync/PairwiseOffsetSolver.hpp"
#include "TrelvaneEngine/sync/SyncEngine.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <tuple>
#include <utility>

namespace trelvane::FineSync {

namespace {

// Two refined pairs of one truth agree to some hundredths of a millisecond; a pair this far from
// what the others make of its clips has locked onto something else (an echo, a repeated passage).
constexpr double kPlaceTolerance = 0.5e-3;
// A drift this far from the others' (or four standard errors, whichever is more) is not believed.
constexpr double kDriftTolerancePPM = 3.0;
// Standard errors below this are not trusted to weigh more: a line through a few windows can fit
// by chance better than its clocks allow.
constexpr double kLeastDriftErrorPPM = 0.2;
// Windows agree within a quarter of a millisecond, so a line through them can lean by a tenth of
// one over its span whatever their scatter says: over 30 s that is 3 ppm, over 10 minutes 0.2.
constexpr double kWindowLean = 1e-4;
// Pairs that overlap this long measure a drift to a fraction of a ppm: they alone set the clocks
// of the clips they join, each such group against its own pictures. A shorter pair only carries a
// clock to a clip no long pair reaches; let it join two groups and its few ppm of error would
// tilt one group's timeline against the other's by milliseconds over their length.
constexpr double kLongPair = 120.0;

struct Node {
    int si = 0, ci = 0;
    double start = 0, end = 0;
    std::string region;
    bool video = false;
    bool synced = false; // a weak clip is refined against synced ones but never moves them
};

struct Edge {
    int from = 0, to = 0;  // `from` is the pair's reference
    bool thorough = false; // measured with the retry's longer and more windows
    std::optional<FineAlign::Refinement> found;
    double centre = 0; // timeline time of the measurement
};

std::string regionOf(const TrackSource& track, const ClipItem& clip) {
    return track.session + '\x1f' + clip.dayRegion.value_or(track.dayRegion.value_or("default"));
}

// Everything a pair's measurement depends on, exactly: both files as the cache knows them, where
// one lies against the other and the stretch measured, and the options.
std::optional<std::string> pairKey(const FineAlign::Pair& pair, const FineAlign::Options& o) {
    const auto a = EnvelopeCache::keyText(pair.reference);
    const auto b = EnvelopeCache::keyText(pair.other);
    if (!a || !b) return std::nullopt;
    return fmt::sprintf("fine|%s|%s|%a|%a|%a|%d|%a|%a|%a|%a|%a|%d", *a, *b, pair.otherOffset,
                        pair.overlapStart, pair.overlapEnd, o.windows, o.windowSeconds, o.searchSeconds,
                        o.mostDriftPPM, o.minConfidence, o.agreementSeconds, o.minAgreeing);
}

std::vector<double> numbersOf(const std::optional<FineAlign::Refinement>& r) {
    if (!r) return {};
    return {r->correction,
            r->centre,
            r->driftPPM,
            r->driftUncertaintyPPM,
            double(r->windowsAgreeing),
            double(r->windowsUsed),
            double(r->windowsTried),
            r->residualSeconds};
}

std::optional<std::optional<FineAlign::Refinement>> refinementOf(const std::vector<double>& v) {
    if (v.empty()) return std::optional<FineAlign::Refinement>{};
    if (v.size() != 8) return std::nullopt;
    FineAlign::Refinement r;
    r.correction = v[0];
    r.centre = v[1];
    r.driftPPM = v[2];
    r.driftUncertaintyPPM = v[3];
    r.windowsAgreeing = int(v[4]);
    r.windowsUsed = int(v[5]);
    r.windowsTried = int(v[6]);
    r.residualSeconds = v[7];
    return r;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    const std::size_t mid = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + std::ptrdiff_t(mid), values.end());
    double m = values[mid];
    if (values.size() % 2 == 0)
        m = 0.5 * (m + *std::max_element(values.begin(), values.begin() + std::ptrdiff_t(mid)));
    return m;
}

int rootOf(std::vector<int>& parent, int i) {
    while (parent[i] != i)
        i = parent[i] = parent[parent[i]];
    return i;
}

// The nodes tied together by `edges`, each group in ascending order; lone nodes left out.
std::vector<std::vector<int>> groupsOf(int n, const std::vector<const Edge*>& edges) {
    std::vector<int> parent(n);
    std::iota(parent.begin(), parent.end(), 0);
    for (const Edge* e : edges)
        parent[rootOf(parent, e->to)] = rootOf(parent, e->from);
    std::map<int, std::vector<int>> byRoot;
    for (int i = 0; i < n; ++i)
        byRoot[rootOf(parent, i)].push_back(i);
    std::vector<std::vector<int>> groups;
    for (auto& [_, members] : byRoot)
        if (members.size() >= 2) groups.push_back(std::move(members));
    std::sort(groups.begin(), groups.end());
    return groups;
}

// The inverse of a symmetric positive definite matrix (row-major, n x n) by Gauss-Jordan; nothing
// when it is singular. The groups are the clips of one stretch of a shoot: small.
std::optional<std::vector<double>> inverse(std::vector<double> a, std::size_t n) {
    std::vector<double> inv(n * n, 0.0);
    for (std::size_t i = 0; i < n; ++i)
        inv[i * n + i] = 1;
    for (std::size_t col = 0; col < n; ++col) {
        std::size_t pivot = col;
        for (std::size_t r = col + 1; r < n; ++r)
            if (std::abs(a[r * n + col]) > std::abs(a[pivot * n + col])) pivot = r;
        if (!(std::abs(a[pivot * n + col]) > 1e-12)) return std::nullopt;
        for (std::size_t k = 0; k < n; ++k) {
            std::swap(a[col * n + k], a[pivot * n + k]);
            std::swap(inv[col * n + k], inv[pivot * n + k]);
        }
        const double d = a[col * n + col];
        for (std::size_t k = 0; k < n; ++k) {
            a[col * n + k] /= d;
            inv[col * n + k] /= d;
        }
        for (std::size_t r = 0; r < n; ++r) {
            if (r == col || a[r * n + col] == 0) continue;
            const double f = a[r * n + col];
            for (std::size_t k = 0; k < n; ++k) {
                a[r * n + k] -= f * a[col * n + k];
                inv[r * n + k] -= f * inv[col * n + k];
            }
        }
    }
    return inv;
}

struct Solution {
    std::vector<double> shift;      // seconds added to the start, per node
    std::vector<double> drift;      // ppm, per node
    std::vector<double> driftError; // ppm, per node
};

double spanOf(const std::vector<Node>& nodes, const Edge& e) {
    return std::min(nodes[e.from].end, nodes[e.to].end) - std::max(nodes[e.from].start, nodes[e.to].start);
}

double driftErrorOf(const std::vector<Node>& nodes, const Edge& e) {
    return std::max(
        {e.found->driftUncertaintyPPM, kLeastDriftErrorPPM, kWindowLean / spanOf(nodes, e) * 1e6});
}

// One group's drifts and shifts from its edges (already consistent or not): drifts first, since
// each pair's shift was measured at its own time and the drifts carry it to each clip's start.
void solveGroup(const std::vector<Node>& nodes, const std::vector<int>& members,
                const std::vector<const Edge*>& edges, Solution& out) {
    std::map<int, int> at;
    for (int m : members)
        at[m] = int(at.size());
    std::vector<PairwiseOffsetSolver::Measurement> drifts, places;
    const std::size_t m = members.size();
    std::vector<PairwiseOffsetSolver::Measurement> longOnes;
    for (const Edge* e : edges) {
        if (!at.count(e->from)) continue;
        const double error = driftErrorOf(nodes, *e);
        const float weight = float(1.0 / (error * error));
        drifts.push_back({at[e->from], at[e->to], e->found->driftPPM, weight});
        if (spanOf(nodes, *e) >= kLongPair) longOnes.push_back(drifts.back());
    }
    // The pictures' clock is the timeline's: the median drift of the video clips among `ks` (of
    // all of them where there is none) is made 0.
    const auto gaugeOf = [&](const std::vector<int>& ks, const std::vector<double>& drift) {
        std::vector<double> videos, all;
        for (const int k : ks) {
            all.push_back(drift[std::size_t(k)]);
            if (nodes[members[std::size_t(k)]].video) videos.push_back(drift[std::size_t(k)]);
        }
        return median(videos.empty() ? all : videos);
    };
    std::vector<double> drift(m, 0.0);
    std::vector<bool> fixed(m, false);
    // Clocks first from the long pairs, each group of clips they join on its own pictures' clock.
    std::vector<int> parent(m);
    std::iota(parent.begin(), parent.end(), 0);
    for (const auto& d : longOnes)
        parent[rootOf(parent, d.to)] = rootOf(parent, d.from);
    std::map<int, std::vector<int>> byRoot;
    for (int k = 0; k < int(m); ++k)
        byRoot[rootOf(parent, k)].push_back(k);
    for (const auto& [_, ks] : byRoot) {
        if (ks.size() < 2) continue;
        std::map<int, int> in;
        for (const int k : ks)
            in[k] = int(in.size());
        std::vector<PairwiseOffsetSolver::Measurement> local;
        for (const auto& d : longOnes)
            if (in.count(d.from)) local.push_back({in[d.from], in[d.to], d.offset, d.weight});
        const auto solved = PairwiseOffsetSolver::solve(int(ks.size()), 0, local);
        for (std::size_t k = 0; k < ks.size(); ++k)
            drift[std::size_t(ks[k])] = solved[k];
        const double zero = gaugeOf(ks, drift);
        for (const int k : ks) {
            drift[std::size_t(k)] -= zero;
            fixed[std::size_t(k)] = true;
        }
    }
    if (std::none_of(fixed.begin(), fixed.end(), [](bool f) { return f; })) {
        // No long pair at all: every pair sets the clocks together.
        drift = PairwiseOffsetSolver::solve(int(m), 0, drifts);
        std::vector<int> ks(m);
        std::iota(ks.begin(), ks.end(), 0);
        const double zero = gaugeOf(ks, drift);
        for (double& d : drift)
            d -= zero;
    } else {
        // The others from the clips already known, nearest first, each as the weighted mean of
        // what its pairs with them say.
        for (bool grew = true; grew;) {
            grew = false;
            std::vector<double> sum(m, 0.0), weights(m, 0.0);
            for (const auto& d : drifts) {
                if (fixed[std::size_t(d.from)] && !fixed[std::size_t(d.to)]) {
                    sum[std::size_t(d.to)] += d.weight * (drift[std::size_t(d.from)] + d.offset);
                    weights[std::size_t(d.to)] += d.weight;
                }
                if (fixed[std::size_t(d.to)] && !fixed[std::size_t(d.from)]) {
                    sum[std::size_t(d.from)] += d.weight * (drift[std::size_t(d.to)] - d.offset);
                    weights[std::size_t(d.from)] += d.weight;
                }
            }
            for (std::size_t k = 0; k < m; ++k)
                if (weights[k] > 0) {
                    drift[k] = sum[k] / weights[k];
                    fixed[k] = grew = true;
                }
        }
    }

    for (const Edge* e : edges) {
        if (!at.count(e->from)) continue;
        const int i = at[e->from], j = at[e->to];
        // The pair says how far the other clip's sound moves against the reference's at the
        // measurement's time; each clip's own drift carries that back to its start.
        const double offset = e->found->correction - (e->centre - nodes[e->to].start) * drift[j] * 1e-6 +
                              (e->centre - nodes[e->from].start) * drift[i] * 1e-6;
        places.push_back({i, j, offset, float(e->found->windowsAgreeing)});
    }
    auto shift = PairwiseOffsetSolver::solve(int(members.size()), 0, places);
    const double middle = median(shift);
    for (std::size_t k = 0; k < members.size(); ++k) {
        out.shift[members[k]] = shift[k] - middle;
        out.drift[members[k]] = drift[k];
    }
}

// Each clip's drift error in one group: the weighted graph Laplacian of its drift measurements,
// inverted with one clip held, is the covariance of the solved drifts, so that a clip tied to the
// rest by one loose measurement is told as loosely known as it is. Done once, for the solution
// that stands.
void driftErrors(const std::vector<Node>& nodes, const std::vector<int>& members,
                 const std::vector<const Edge*>& edges, Solution& out) {
    std::map<int, int> at;
    for (int k : members)
        at[k] = int(at.size());
    const std::size_t m = members.size();
    std::vector<double> laplacian(m * m, 0.0);
    for (const Edge* e : edges) {
        if (!at.count(e->from)) continue;
        const double error = driftErrorOf(nodes, *e);
        const double weight = double(float(1.0 / (error * error)));
        const std::size_t i = std::size_t(at[e->from]), j = std::size_t(at[e->to]);
        laplacian[i * m + i] += weight;
        laplacian[j * m + j] += weight;
        laplacian[i * m + j] -= weight;
        laplacian[j * m + i] -= weight;
    }
    // Covariance with the first clip held, then told against the gauge: the mean of the clips
    // that set it (the median's spread is near enough that of the mean).
    std::vector<double> held((m - 1) * (m - 1));
    for (std::size_t r = 1; r < m; ++r)
        for (std::size_t c = 1; c < m; ++c)
            held[(r - 1) * (m - 1) + (c - 1)] = laplacian[r * m + c];
    const auto covariance = inverse(std::move(held), m - 1);
    if (!covariance) return;
    const auto cov = [&](std::size_t r, std::size_t c) {
        return r == 0 || c == 0 ? 0.0 : (*covariance)[(r - 1) * (m - 1) + (c - 1)];
    };
    std::vector<std::size_t> setters;
    for (std::size_t k = 0; k < m; ++k)
        if (nodes[members[k]].video) setters.push_back(k);
    if (setters.empty())
        for (std::size_t k = 0; k < m; ++k)
            setters.push_back(k);
    const double g = 1.0 / double(setters.size());
    double gaugeVariance = 0;
    for (const std::size_t a : setters)
        for (const std::size_t b : setters)
            gaugeVariance += g * g * cov(a, b);
    for (std::size_t k = 0; k < m; ++k) {
        double withGauge = 0;
        for (const std::size_t a : setters)
            withGauge += g * cov(k, a);
        out.driftError[members[k]] = std::sqrt(std::max(0.0, cov(k, k) - 2 * withGauge + gaugeVariance));
    }
}

// How far one edge lies from the solution, as a share of what is tolerated (above 1: too far).
double misfit(const std::vector<Node>& nodes, const Edge& e, const Solution& s) {
    const double driftSaid = s.drift[e.to] - s.drift[e.from];
    const double driftRoom = std::max(kDriftTolerancePPM, 4 * e.found->driftUncertaintyPPM);
    const double placeSaid = s.shift[e.to] + (e.centre - nodes[e.to].start) * s.drift[e.to] * 1e-6 -
                             s.shift[e.from] - (e.centre - nodes[e.from].start) * s.drift[e.from] * 1e-6;
    const double placeMisfit = std::abs(placeSaid - e.found->correction) / kPlaceTolerance;
    // A short pair's drift may disagree with the clocks the long pairs set: it was not used there.
    if (spanOf(nodes, e) < kLongPair) return placeMisfit;
    return std::max(std::abs(driftSaid - e.found->driftPPM) / driftRoom, placeMisfit);
}

// The clips a run measures and the pairs it chose among them.
struct Plan {
    std::vector<Node> nodes;
    // Each clip's possible partners: the synced clips of other tracks in its region that overlap
    // it by at least the least overlap, the longest first.
    std::vector<std::vector<int>> candidates;
    std::vector<Edge> edges;
    std::set<std::tuple<int, int, bool>> chosen;
    // Whether any partner was ever proposed for the clip (its note says so when none was).
    std::vector<bool> hadPartner;

    double overlap(int i, int j) const {
        return std::min(nodes[i].end, nodes[j].end) - std::max(nodes[i].start, nodes[j].start);
    }
    bool bothSynced(const Edge& e) const { return nodes[e.from].synced && nodes[e.to].synced; }
    void add(int i, int j, bool thorough) {
        if (chosen.insert({std::min(i, j), std::max(i, j), thorough}).second)
            edges.push_back({std::min(i, j), std::max(i, j), thorough, std::nullopt, 0});
    }
};

Plan planOf(const std::vector<TrackSource>& tracks, double leastOverlap) {
    Plan plan;
    for (int si = 0; si < int(tracks.size()); ++si)
        for (int ci = 0; ci < int(tracks[si].clips.size()); ++ci) {
            const ClipItem& c = tracks[si].clips[ci];
            // A weak clip is measured too, even one its clock placed: a clock is often right to a
            // few tens of milliseconds, and a pair that is not costs only two windows.
            if ((c.syncStatus != SyncStatus::synced && c.syncStatus != SyncStatus::weak) ||
                c.audioUsability != AudioUsability::ok || c.duration < kShortestMatchableClip)
                continue;
            plan.nodes.push_back({si, ci, c.startOffset, c.startOffset + c.duration, regionOf(tracks[si], c),
                                  tracks[si].type == SourceType::video, c.syncStatus == SyncStatus::synced});
        }
    const int n = int(plan.nodes.size());
    plan.candidates.resize(std::size_t(n));
    plan.hadPartner.assign(std::size_t(n), false);
    for (int i = 0; i < n; ++i) {
        auto& mine = plan.candidates[std::size_t(i)];
        for (int j = 0; j < n; ++j)
            if (plan.nodes[j].synced && plan.nodes[j].si != plan.nodes[i].si &&
                plan.nodes[j].region == plan.nodes[i].region && plan.overlap(i, j) >= leastOverlap)
                mine.push_back(j);
        std::stable_sort(mine.begin(), mine.end(),
                         [&](int a, int b) { return plan.overlap(i, a) > plan.overlap(i, b); });
    }
    return plan;
}

// The pairs of one round, appended to `plan.edges` from `first` on, in a fixed order. Round 0:
// each clip's `perClip` longest partners, with the quick windows. Round 1: a clip none of them
// could be measured against (its shared stretch quiet, or only one of them hearing it well) tries
// twice as many more; a synced one tries them all with the thorough windows, its first ones again
// included. Then, where the pairs leave the synced clips in groups that overlaps would join, the
// longest overlap between two groups joins them: each group would otherwise keep its own band
// placement against the others, a few milliseconds out.
void choosePairs(Plan& plan, int round, int perClip) {
    const int n = int(plan.nodes.size());
    const std::size_t first = plan.edges.size();
    for (int i = 0; i < n; ++i) {
        const bool synced = plan.nodes[i].synced;
        const bool measured = std::any_of(plan.edges.begin(), plan.edges.end(), [&](const Edge& e) {
            return e.found && (e.from == i || e.to == i) && (!synced || plan.bothSynced(e));
        });
        if (round > 0 && measured) continue;
        const bool thorough = round > 0 && synced;
        const auto& mine = plan.candidates[std::size_t(i)];
        const auto from = std::min(mine.size(), std::size_t(thorough ? 0 : round * perClip));
        const auto to = std::min(mine.size(), std::size_t((1 + 2 * round) * perClip));
        for (auto k = from; k < to; ++k) {
            plan.hadPartner[std::size_t(i)] = true;
            if (synced) plan.hadPartner[std::size_t(mine[k])] = true;
            plan.add(i, mine[k], thorough);
        }
    }
    std::vector<int> parent(n);
    std::iota(parent.begin(), parent.end(), 0);
    const auto join = [&](int i, int j) { parent[rootOf(parent, i)] = rootOf(parent, j); };
    for (std::size_t k = 0; k < plan.edges.size(); ++k)
        if (plan.bothSynced(plan.edges[k]) && (k >= first || plan.edges[k].found))
            join(plan.edges[k].from, plan.edges[k].to);
    std::vector<std::pair<int, int>> links;
    for (int i = 0; i < n; ++i)
        if (plan.nodes[i].synced)
            for (const int j : plan.candidates[std::size_t(i)])
                if (i < j) links.push_back({i, j});
    std::stable_sort(links.begin(), links.end(), [&](const auto& a, const auto& b) {
        return plan.overlap(a.first, a.second) > plan.overlap(b.first, b.second);
    });
    for (const auto& [i, j] : links)
        if (rootOf(parent, i) != rootOf(parent, j)) {
            plan.add(i, j, round > 0);
            join(i, j);
        }
    std::sort(plan.edges.begin() + std::ptrdiff_t(first), plan.edges.end(), [](const Edge& a, const Edge& b) {
        return std::tuple{a.from, a.to, a.thorough} < std::tuple{b.from, b.to, b.thorough};
    });
}

// The synced clips' drifts and shifts from the pairs between them, solved together; the pair
// lying furthest out is dropped while any lies out of tolerance. `kept` is left holding the pairs
// the solution rests on.
Solution solveSynced(const std::vector<Node>& nodes, std::vector<const Edge*>& kept) {
    const std::size_t n = nodes.size();
    for (;;) {
        Solution solution{std::vector<double>(n, 0.0), std::vector<double>(n, 0.0),
                          std::vector<double>(n, 0.0)};
        for (const auto& members : groupsOf(int(n), kept))
            solveGroup(nodes, members, kept, solution);
        std::size_t worst = 0;
        double worstMisfit = 0;
        for (std::size_t k = 0; k < kept.size(); ++k)
            if (const double m = misfit(nodes, *kept[k], solution); m > worstMisfit)
                worst = k, worstMisfit = m;
        if (worstMisfit <= 1) {
            for (const auto& members : groupsOf(int(n), kept))
                driftErrors(nodes, members, kept, solution);
            return solution;
        }
        kept.erase(kept.begin() + std::ptrdiff_t(worst));
    }
}

// A weak clip follows the refined synced clips it was measured against, where they agree on it.
// Sets its entries of `solution`, `best` (the pair with most agreeing windows) and `refined`.
void followSynced(const std::vector<Node>& nodes, const std::vector<Edge>& edges, Solution& solution,
                  std::vector<const Edge*>& best, std::vector<bool>& refined) {
    for (std::size_t w = 0; w < nodes.size(); ++w) {
        if (nodes[w].synced) continue;
        std::vector<double> shifts, drifts;
        for (const Edge& e : edges) {
            if (!e.found || (e.from != int(w) && e.to != int(w))) continue;
            const bool later = e.to == int(w);
            const auto p = std::size_t(later ? e.from : e.to);
            if (!refined[p]) continue;
            const double drift = solution.drift[p] + (later ? e.found->driftPPM : -e.found->driftPPM);
            const double partnerThere =
                solution.shift[p] + (e.centre - nodes[p].start) * solution.drift[p] * 1e-6;
            shifts.push_back(partnerThere + (later ? e.found->correction : -e.found->correction) -
                             (e.centre - nodes[w].start) * drift * 1e-6);
            drifts.push_back(drift);
            if (!best[w] || e.found->windowsAgreeing > best[w]->found->windowsAgreeing) best[w] = &e;
        }
        const auto [low, high] = std::minmax_element(shifts.begin(), shifts.end());
        if (shifts.empty() || *high - *low > kPlaceTolerance) {
            best[w] = nullptr;
            continue;
        }
        refined[w] = true;
        solution.shift[w] = std::accumulate(shifts.begin(), shifts.end(), 0.0) / double(shifts.size());
        solution.drift[w] = std::accumulate(drifts.begin(), drifts.end(), 0.0) / double(drifts.size());
        solution.driftError[w] = best[w]->found->driftUncertaintyPPM;
    }
}

// A clip not refined keeps its place against the refined clip nearest it in its region, which
// moved by the shift and drift the solve gave it there.
void carryTheRest(std::vector<TrackSource>& tracks, const std::vector<TrackSource>& input,
                  const std::vector<Node>& nodes, const std::vector<bool>& refined,
                  const Solution& solution) {
    std::set<std::pair<int, int>> done;
    for (std::size_t i = 0; i < nodes.size(); ++i)
        if (refined[i]) done.insert({nodes[i].si, nodes[i].ci});
    for (int si = 0; si < int(tracks.size()); ++si)
        for (int ci = 0; ci < int(tracks[si].clips.size()); ++ci) {
            if (done.count({si, ci})) continue;
            ClipItem& clip = tracks[si].clips[ci];
            const double start = input[si].clips[ci].startOffset, end = start + clip.duration;
            const std::string region = regionOf(tracks[si], clip);
            std::optional<std::size_t> nearest;
            double distance = 0;
            for (std::size_t j = 0; j < nodes.size(); ++j) {
                if (!refined[j] || nodes[j].region != region) continue;
                const double d = std::max({0.0, nodes[j].start - end, start - nodes[j].end});
                if (!nearest || d < distance) nearest = j, distance = d;
            }
            if (!nearest) continue;
            clip.startOffset = start + solution.shift[*nearest] +
                               (start - nodes[*nearest].start) * solution.drift[*nearest] * 1e-6;
        }
}

} // namespace

FineAlign::Options defaultAlignOptions() {
    FineAlign::Options o;
    o.windows = 4;
    o.windowSeconds = 1.0;
    return o;
}

std::optional<FineAlign::Refinement> measurePair(const FineAlign::Pair& pair, const FineAlign::Options& align,
                                                 const std::optional<std::filesystem::path>& cacheFolder) {
    const auto key = cacheFolder ? pairKey(pair, align) : std::nullopt;
    if (key)
        if (const auto stored = EnvelopeCache::loadNumbers(*key, *cacheFolder))
            if (const auto r = refinementOf(*stored)) return *r;
    auto found = FineAlign::refinePair(pair, align);
    if (key) EnvelopeCache::saveNumbers(*key, numbersOf(found), *cacheFolder);
    return found;
}

std::vector<TrackSource> refine(std::vector<TrackSource> tracks, const Options& options,
                                const ProgressFn& onProgress, std::stop_token stop) {
    const std::vector<TrackSource> input = tracks;
    for (auto& track : tracks)
        for (auto& clip : track.clips) {
            clip.driftPPM.reset();
            clip.driftUncertaintyPPM.reset();
            clip.refinementNote.reset();
        }
    Plan plan = planOf(tracks, options.leastOverlap);
    // Nothing placed by sound (a sync that had too little to work with): nothing moves either.
    if (plan.nodes.empty()) return tracks;
    const auto& nodes = plan.nodes;
    const int n = int(nodes.size());
    auto clipOf = [&](int i) -> ClipItem& { return tracks[nodes[i].si].clips[nodes[i].ci]; };

    // Measured with the reference at 0: the result then does not depend on where the timeline
    // happens to start, and the cache holds it exactly.
    constexpr int kRounds = 2;
    const std::array<double, kRounds + 1> progressAt{0.0, 0.85, 1.0};
    for (int round = 0; round < kRounds; ++round) {
        const std::size_t first = plan.edges.size();
        choosePairs(plan, round, options.partnersPerClip);
        const std::function<std::optional<FineAlign::Refinement>(std::size_t)> job = [&](std::size_t k) {
            const Edge& e = plan.edges[first + k];
            const Node &a = nodes[e.from], &b = nodes[e.to];
            const FineAlign::Pair pair{clipOf(e.from).url,
                                       0.0,
                                       clipOf(e.to).url,
                                       b.start - a.start,
                                       std::max(a.start, b.start) - a.start,
                                       std::min(a.end, b.end) - a.start};
            return measurePair(pair, e.thorough ? options.thorough : options.align, options.cacheFolder);
        };
        std::size_t done = 0;
        const std::function<void(std::size_t, std::optional<FineAlign::Refinement>)> keep =
            [&](std::size_t k, std::optional<FineAlign::Refinement> found) {
                Edge& e = plan.edges[first + k];
                e.found = found;
                if (found) e.centre = nodes[e.from].start + found->centre;
                ++done;
                if (onProgress)
                    onProgress({progressAt[round] + (progressAt[round + 1] - progressAt[round]) *
                                                        double(done) / double(plan.edges.size() - first),
                                clipOf(e.to).url.lastPathComponent()});
            };
        WorkerWindow::run<std::optional<FineAlign::Refinement>>(
            options.workers > 0 ? options.workers : std::max(WorkerWindow::processorCount(), 2),
            plan.edges.size() - first, job, keep, stop);
        if (stop.stop_requested()) return input;
    }
    const auto& edges = plan.edges;

    std::vector<const Edge*> kept;
    for (const Edge& e : edges)
        if (e.found && plan.bothSynced(e)) kept.push_back(&e);
    const int bothSynced = int(kept.size());
    Solution solution = solveSynced(nodes, kept);
    std::vector<const Edge*> best(n, nullptr);
    for (const Edge* e : kept)
        for (const int self : {e->from, e->to})
            if (!best[self] || e->found->windowsAgreeing > best[self]->found->windowsAgreeing) best[self] = e;
    std::vector<bool> refined(n, false);
    for (int i = 0; i < n; ++i)
        refined[i] = best[i] != nullptr;
    followSynced(nodes, edges, solution, best, refined);

    int lined = 0, keptBand = 0;
    for (int i = 0; i < n; ++i) {
        ClipItem& clip = clipOf(i);
        if (refined[i]) {
            ++lined;
            const int partner = best[i]->from == i ? best[i]->to : best[i]->from;
            clip.startOffset = nodes[i].start + solution.shift[i];
            clip.driftPPM = solution.drift[i];
            clip.driftUncertaintyPPM = solution.driftError[i];
            clip.refinementNote =
                "lined up to the sample with '" + clipOf(partner).url.lastPathComponent() + "'";
            // A drift that moves the clip's end by a few milliseconds is worth telling where the
            // user looks: it is what the exports then correct.
            if (std::abs(solution.drift[i]) * 1e-6 * clip.duration >= 0.005) {
                const std::string drift =
                    fmt::sprintf("clock %+.1f ppm (±%.1f) — %+.1f ms over the clip", solution.drift[i],
                                 solution.driftError[i], solution.drift[i] * 1e-3 * clip.duration);
                *clip.refinementNote += " · " + drift;
                EngineLog::logf("[FineSync]  '%s' %s", clip.url.lastPathComponent(), drift);
            }
            continue;
        }
        // A weak clip already tells the user to check it by ear.
        if (!nodes[i].synced) continue;
        ++keptBand;
        std::string why;
        if (!plan.hadPartner[std::size_t(i)])
            why = fmt::sprintf("no clip of another track overlaps it by %.0f s", options.leastOverlap);
        else if (std::none_of(edges.begin(), edges.end(), [&](const Edge& e) {
                     return e.found && plan.bothSynced(e) && (e.from == i || e.to == i);
                 }))
            why = "its sound and the clips around it did not agree closely enough in enough windows";
        else
            why = "its fine alignment disagrees with the clips around it";
        clip.refinementNote = "band placement kept (within a frame) — " + why;
    }
    carryTheRest(tracks, input, nodes, refined, solution);
    SyncEngine::normaliseOffsets(tracks);
    EngineLog::logf(
        "[FineSync] %d pair(s) measured, %d refused, %d left out as disagreeing; %d clip(s) lined up "
        "to the sample, %d kept at the band placement",
        int(edges.size()),
        int(std::count_if(edges.begin(), edges.end(), [](const Edge& e) { return !e.found; })),
        bothSynced - int(kept.size()), lined, keptBand);
    return tracks;
}

} // namespace trelvane::FineSync
