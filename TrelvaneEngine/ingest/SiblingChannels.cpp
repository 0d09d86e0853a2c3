// SPDX-License-Identifier: GPL-3.0-or-later
// Sibling channels: a multi-channel field recorder writes one mono file per input for each take,
// named alike but for a suffix, of one length and started together. Such tracks need one audio
// match between them, not one each: the others follow a leader.
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/NaturalOrder.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <unordered_map>

namespace trelvane {

namespace {

// Channels of one take are cut together; a tenth of a second allows for rounding in the readers.
constexpr double kDurationTolerance = 0.1;
// Channels start together; a second allows for clocks written with whole-second resolution.
constexpr double kClockTolerance = 1.0;
// Share of the larger track's clips that must have a twin for two tracks to be channels.
constexpr double kShareOfTwins = 0.9;
// Clocks below this are not believed enough to refuse a twin.
constexpr ClockQuality kClockQualityNeeded = ClockQuality::filename;

// What `twin` compares of a clip, worked out once per clip rather than once per comparison.
struct ClipKeys {
    std::string stem;
    std::string baseName;
};

// A clip of a candidate track under its stem.
struct StemEntry {
    double duration = 0;
    std::size_t clip = 0;
};

// One candidate track with its clips' keys, and its clips indexed by stem and sorted by length,
// so that finding a twin looks only at the clips that could be one. Recorders that name every
// take "Audio_001", "Audio_002"... put a whole track under one stem.
struct Candidate {
    std::size_t index = 0;
    std::vector<ClipKeys> keys;
    std::unordered_map<std::string, std::vector<StemEntry>> clipsByStem;
};

Candidate makeCandidate(std::size_t index, const TrackSource& track) {
    Candidate c;
    c.index = index;
    c.keys.reserve(track.clips.size());
    for (std::size_t k = 0; k < track.clips.size(); ++k) {
        const ClipItem& clip = track.clips[k];
        c.keys.push_back({IngestEngine::channelStem(clip.url), clip.url.baseName()});
        // A length that isn't a number is the same as no other length: such a clip has no twin.
        if (std::isfinite(clip.duration)) c.clipsByStem[c.keys.back().stem].push_back({clip.duration, k});
    }
    for (auto& [stem, entries] : c.clipsByStem)
        std::sort(entries.begin(), entries.end(), [](const StemEntry& a, const StemEntry& b) {
            return a.duration < b.duration || (a.duration == b.duration && a.clip < b.clip);
        });
    return c;
}

bool clocksAgree(const ClipItem& a, const ClipItem& b) {
    if (!a.recordingDate || !b.recordingDate) return true;
    // An untrusted clock never blocks a twin: it only counts where both are believable.
    if (a.clockQuality < kClockQualityNeeded || b.clockQuality < kClockQualityNeeded) return true;
    // In seconds before subtracting: two far-apart stamps from a damaged file must not overflow.
    return std::abs(unixSeconds(*a.recordingDate) - unixSeconds(*b.recordingDate)) <= kClockTolerance;
}

// The first clip of track `t` that is another channel of `clip`: same stem, another file name,
// the same length, and no believable clock that says otherwise.
std::optional<std::size_t> twin(const ClipItem& clip, const ClipKeys& keys, const TrackSource& t,
                                const Candidate& in) {
    if (!std::isfinite(clip.duration)) return std::nullopt;
    const auto found = in.clipsByStem.find(keys.stem);
    if (found == in.clipsByStem.end()) return std::nullopt;
    const auto& entries = found->second;
    // The window is a hair wider than the tolerance, so that rounding in the bounds can't lose a
    // clip that the exact test below accepts.
    const double slack = 1e-9;
    auto it = std::lower_bound(entries.begin(), entries.end(), clip.duration - kDurationTolerance - slack,
                               [](const StemEntry& e, double d) { return e.duration < d; });
    std::optional<std::size_t> first;
    for (; it != entries.end() && it->duration <= clip.duration + kDurationTolerance + slack; ++it) {
        if (first && *first < it->clip) continue;
        const ClipItem& d = t.clips[it->clip];
        if (in.keys[it->clip].baseName == keys.baseName) continue;
        if (!(std::abs(d.duration - clip.duration) <= kDurationTolerance)) continue;
        if (!clocksAgree(clip, d)) continue;
        first = it->clip;
    }
    return first;
}

// Whether b's clips are channels of a's. Counted over b's clips alone, and so not symmetric: it
// is asked once per pair, with the earlier track as a.
bool areChannels(const std::vector<TrackSource>& sources, const Candidate& a, const Candidate& b) {
    const TrackSource& ta = sources[a.index];
    const TrackSource& tb = sources[b.index];
    if (ta.session != tb.session) return false;
    const std::size_t larger = std::max(ta.clips.size(), tb.clips.size());
    const auto needed =
        std::max<std::size_t>(1, static_cast<std::size_t>(static_cast<double>(larger) * kShareOfTwins));
    if (tb.clips.size() < needed) return false;
    std::size_t count = 0;
    for (std::size_t k = 0; k < tb.clips.size(); ++k) {
        if (twin(tb.clips[k], b.keys[k], ta, a)) ++count;
        if (count >= needed) return true;
        // Stop as soon as the clips left can no longer reach the number.
        if (count + (tb.clips.size() - k - 1) < needed) return false;
    }
    return count >= needed;
}

// Union-find over candidate positions; `find` halves the path as it goes.
struct DisjointSets {
    std::vector<std::size_t> parent;
    explicit DisjointSets(std::size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), 0); }
    std::size_t find(std::size_t x) {
        while (parent[x] != x) {
            parent[x] = parent[parent[x]];
            x = parent[x];
        }
        return x;
    }
};

// The member with most clips leads; among equals the first by name in file-browser order.
// Takes and returns candidate positions.
std::size_t leaderOf(const std::vector<TrackSource>& sources, const std::vector<Candidate>& candidates,
                     const std::vector<std::size_t>& group) {
    std::size_t leader = group.front();
    for (const std::size_t c : group) {
        const TrackSource& t = sources[candidates[c].index];
        const TrackSource& l = sources[candidates[leader].index];
        if (t.clips.size() > l.clips.size() ||
            (t.clips.size() == l.clips.size() && localizedStandardCompare(t.name, l.name) < 0))
            leader = c;
    }
    return leader;
}

} // namespace

std::string IngestEngine::channelStem(const Url& url) {
    std::string name = url.baseName();
    const std::size_t underscore = name.rfind('_');
    // No "_", a name that ends in "_" (nothing after it to be a channel), or one whose only
    // suffix would be the whole name: the name is its own stem.
    if (underscore == std::string::npos || underscore == 0 || underscore + 1 == name.size()) return name;
    name.resize(underscore);
    return name;
}

std::vector<TrackSource> IngestEngine::detectSiblingChannels(std::vector<TrackSource> sources) {
    // Tracks already marked stay out, so that a further drop leaves earlier marks as they are.
    std::vector<Candidate> candidates;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const TrackSource& t = sources[i];
        if (t.type == SourceType::audio && !t.siblingOf && !t.clips.empty())
            candidates.push_back(makeCandidate(i, t));
    }
    if (candidates.size() < 2) return sources;

    DisjointSets sets(candidates.size());
    for (std::size_t i = 0; i < candidates.size(); ++i)
        for (std::size_t j = i + 1; j < candidates.size(); ++j) {
            if (!areChannels(sources, candidates[i], candidates[j])) continue;
            const std::size_t ri = sets.find(i), rj = sets.find(j);
            if (ri != rj) sets.parent[rj] = ri;
        }

    // Sets in the order of their first member, members in track order: the same log every run.
    std::vector<std::vector<std::size_t>> groups;
    std::unordered_map<std::size_t, std::size_t> groupOfRoot;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        auto [it, isNew] = groupOfRoot.try_emplace(sets.find(i), groups.size());
        if (isNew) groups.emplace_back();
        groups[it->second].push_back(i);
    }

    for (const auto& group : groups) {
        if (group.size() < 2) continue;
        const std::size_t leaderPos = leaderOf(sources, candidates, group);
        const Candidate& lead = candidates[leaderPos];
        const TrackSource& leader = sources[lead.index];
        for (const std::size_t c : group) {
            if (c == leaderPos) continue;
            const Candidate& member = candidates[c];
            TrackSource& track = sources[member.index];
            track.siblingOf = leader.id;
            int twins = 0;
            for (std::size_t k = 0; k < track.clips.size(); ++k)
                if (const auto d = twin(track.clips[k], member.keys[k], leader, lead)) {
                    track.clips[k].siblingLeaderID = leader.clips[*d].id;
                    ++twins;
                }
            EngineLog::logf(
                "[Ingest] '%s' is a channel of '%s': %d/%d clips share stem, length and clock \u2014 "
                "will follow it instead of matching",
                track.name, leader.name, twins, static_cast<int>(track.clips.size()));
        }
    }
    return sources;
}

} // namespace trelvane
