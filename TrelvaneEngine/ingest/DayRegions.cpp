// SPDX-License-Identifier: GPL-3.0-or-later
// Day regions: a shoot over several days leaves tracks that never overlap in time, and matching
// across days only finds false hits. The recorders' clocks cut a session into days and the
// cameras follow them. Clocks lie often, so most of this is about when not to believe them: in
// doubt, no proposal, and the session stays one day for the audio to sort out.
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/ingest/TextSyncStore.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Text.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace trelvane {

namespace {

// Seconds.
constexpr double kOutlierLimit = 86400;  // a clock further than a day from its group is wrong
constexpr double kClusterMargin = 10800; // recordings closer than three hours are one day
constexpr double kOrderMargin = 7200;
constexpr double kClipMargin = 900;
// A week: a day of one shoot that only one recorder's clock speaks for is believed up to this far
// from the others' days.
constexpr double kPlausiblePause = 604800;
// How far past the first region's audio length undated camera clips may run before the rest is
// taken to belong to the last region.
constexpr double kDurationRatio = 1.05;
// A clip length past this is a broken header, not a recording; it must not push dates off scale.
constexpr double kLongestCredibleClip = 1e7;

bool trusted(ClockQuality q) {
    return q >= ClockQuality::filename;
}

double seconds(Date d) {
    return unixSeconds(d);
}

double usableDuration(double d) {
    return std::isfinite(d) && d > 0 ? std::min(d, kLongestCredibleClip) : 0.0;
}

Date plus(Date d, double secs) {
    return d + std::chrono::microseconds(static_cast<long long>(std::llround(secs * 1e6)));
}

// "/shoots/day1/" -> "day1"; "" and "/" -> "".
std::string lastComponent(std::string path) {
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

struct Dated {
    Date date;
    double duration = 0;
    ClockQuality quality = ClockQuality::none;
};

// The clock span of a track's dated clips: earliest date, latest date plus that clip's length.
std::pair<Date, Date> spanOf(const std::vector<Dated>& dated) {
    Date start = dated.front().date;
    const Dated* latest = &dated.front();
    for (const auto& d : dated) {
        start = std::min(start, d.date);
        if (d.date > latest->date) latest = &d;
    }
    return {start, plus(latest->date, latest->duration)};
}

// The clips whose dates speak for a track's clock: those with a trusted clock, else those with
// any clock.
std::vector<std::size_t> clockedClips(const TrackSource& t) {
    std::vector<std::size_t> used;
    for (std::size_t ci = 0; ci < t.clips.size(); ++ci)
        if (t.clips[ci].recordingDate && trusted(t.clips[ci].clockQuality)) used.push_back(ci);
    if (used.empty())
        for (std::size_t ci = 0; ci < t.clips.size(); ++ci)
            if (t.clips[ci].recordingDate && t.clips[ci].clockQuality != ClockQuality::none)
                used.push_back(ci);
    return used;
}

struct UnionFind {
    std::vector<std::size_t> parent;
    explicit UnionFind(std::size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), std::size_t{0}); }
    std::size_t find(std::size_t x) {
        while (parent[x] != x)
            x = parent[x] = parent[parent[x]];
        return x;
    }
    void unite(std::size_t a, std::size_t b) {
        a = find(a), b = find(b);
        if (a != b) parent[std::max(a, b)] = std::min(a, b);
    }
};

// The proposal's dates from its dated clips, less those further than a day from their median.
void fillDates(DayRegionProposal& p, std::vector<Dated> dated) {
    if (dated.empty()) return;
    if (dated.size() > 1) {
        std::vector<Date> dates;
        for (const auto& d : dated)
            dates.push_back(d.date);
        std::sort(dates.begin(), dates.end());
        const double median = seconds(dates[dates.size() / 2]);
        std::vector<Dated> kept;
        for (const auto& d : dated)
            if (std::abs(seconds(d.date) - median) <= kOutlierLimit) kept.push_back(d);
        if (!kept.empty()) dated = std::move(kept);
    }
    // The region ends where its last recording ends: across tracks, a long take that began
    // earlier can end after the clip that began last.
    p.startDate = dated.front().date;
    p.endDate = plus(dated.front().date, dated.front().duration);
    for (const auto& d : dated) {
        p.startDate = std::min(*p.startDate, d.date);
        p.endDate = std::max(*p.endDate, plus(d.date, d.duration));
        p.clockQuality = std::max(p.clockQuality, d.quality);
    }
}

// The span of a group of recordings on one clock.
struct ClockRun {
    int si = 0;
    std::vector<std::size_t> clips; // indices into the track, by date
    Date start;
    Date end; // where the last of them ends
    Date median;
    ClockQuality quality = ClockQuality::none;
};

bool withinMargin(const ClockRun& a, const ClockRun& b) {
    return seconds(a.start) - kClusterMargin <= seconds(b.end) &&
           seconds(b.start) <= seconds(a.end) + kClusterMargin;
}

// A track's clocked clips cut wherever its own clock pauses for longer than the margin that joins
// recordings into one day. A recorder that worked on two days is two runs, not one span over both:
// as one span it would join the days together.
std::vector<ClockRun> clockRuns(const TrackSource& t, int si) {
    auto used = clockedClips(t);
    std::stable_sort(used.begin(), used.end(), [&](std::size_t a, std::size_t b) {
        return *t.clips[a].recordingDate < *t.clips[b].recordingDate;
    });
    std::vector<ClockRun> runs;
    for (const auto ci : used) {
        const auto& clip = t.clips[ci];
        const Date end = plus(*clip.recordingDate, usableDuration(clip.duration));
        if (runs.empty() || seconds(*clip.recordingDate) - seconds(runs.back().end) > kClusterMargin)
            runs.push_back({si, {}, *clip.recordingDate, end, *clip.recordingDate, clip.clockQuality});
        auto& run = runs.back();
        run.clips.push_back(ci);
        run.end = std::max(run.end, end);
        run.quality = std::max(run.quality, clip.clockQuality);
    }
    for (auto& run : runs)
        run.median = *t.clips[run.clips[run.clips.size() / 2]].recordingDate;
    return runs;
}

// Runs within the margin of each other are one day, and chains of them too; clusters in the order
// of their first run.
std::vector<std::vector<std::size_t>> clustersOf(const std::vector<ClockRun>& runs) {
    UnionFind uf(runs.size());
    for (std::size_t a = 0; a < runs.size(); ++a)
        for (std::size_t b = a + 1; b < runs.size(); ++b)
            if (withinMargin(runs[a], runs[b])) uf.unite(a, b);
    std::vector<std::vector<std::size_t>> clusters;
    std::map<std::size_t, std::size_t> clusterOfRoot;
    for (std::size_t a = 0; a < runs.size(); ++a) {
        const auto [it, inserted] = clusterOfRoot.try_emplace(uf.find(a), clusters.size());
        if (inserted) clusters.emplace_back();
        clusters[it->second].push_back(a);
    }
    return clusters;
}

// How far a recording of `duration` seconds from `date` lies outside [start, end]; 0 inside.
double distanceTo(Date date, double duration, Date start, Date end) {
    return std::max({0.0, seconds(start) - (seconds(date) + duration), seconds(date) - seconds(end)});
}

bool fitsDay(Date date, double duration, Date start, Date end) {
    return distanceTo(date, duration, start, end) <= kClusterMargin + kClipMargin;
}

// Which clips of a track may be placed by their dates. One device records one clip at a time:
// where by their file dates a clip would begin before the one ahead of it has run half its
// length, those two dates are of a copy or a later edit, not of the shoot.
std::vector<bool> datesToUse(const TrackSource& t) {
    std::vector<bool> use(t.clips.size(), false);
    std::vector<std::size_t> fileDated;
    for (std::size_t ci = 0; ci < t.clips.size(); ++ci) {
        const auto& c = t.clips[ci];
        if (!c.recordingDate || c.clockQuality == ClockQuality::none) continue;
        use[ci] = true;
        if (!trusted(c.clockQuality)) fileDated.push_back(ci);
    }
    std::stable_sort(fileDated.begin(), fileDated.end(), [&](std::size_t a, std::size_t b) {
        return *t.clips[a].recordingDate < *t.clips[b].recordingDate;
    });
    for (std::size_t i = 1; i < fileDated.size(); ++i) {
        const auto& before = t.clips[fileDated[i - 1]];
        if (seconds(*t.clips[fileDated[i]].recordingDate) <
            seconds(*before.recordingDate) + usableDuration(before.duration) / 2)
            use[fileDated[i - 1]] = use[fileDated[i]] = false;
    }
    return use;
}

// Clips without a region of their own were recorded between their neighbours in file order: they
// take the region of the clip before them, the first ones that of the clip after them.
void fillFromNeighbours(std::vector<int>& assigned) {
    int last = -1;
    for (int& r : assigned)
        if (r >= 0)
            last = r;
        else
            r = last;
    int next = -1;
    for (auto it = assigned.rbegin(); it != assigned.rend(); ++it)
        if (*it >= 0)
            next = *it;
        else
            *it = next;
}

// Clock-based proposals for one session; logs its doubts and returns nothing where it has them.
std::vector<DayRegionProposal> detectFromClocks(const std::vector<TrackSource>& sources,
                                                const std::string& session, const std::vector<int>& indices) {
    const auto& track = [&](int si) -> const TrackSource& { return sources[static_cast<std::size_t>(si)]; };

    // Audio recorders with trusted clocks decide; cameras and the other recorders follow.
    std::vector<ClockRun> runs;
    std::set<int> deciding;
    int audioTracks = 0;
    for (const int si : indices) {
        if (track(si).type != SourceType::audio) continue;
        ++audioTracks;
        for (auto& run : clockRuns(track(si), si)) {
            if (!trusted(run.quality)) continue;
            deciding.insert(si);
            runs.push_back(std::move(run));
        }
    }
    // One recorder has no second clock to check its own against.
    if (audioTracks < 2) return {};

    // The clips that may back a day: those of every track that doesn't decide, by any clock.
    std::vector<Dated> witnesses;
    for (const int si : indices) {
        const auto& t = track(si);
        if (deciding.contains(si)) continue;
        const auto use = datesToUse(t);
        for (std::size_t ci = 0; ci < t.clips.size(); ++ci)
            if (use[ci]) {
                const auto& c = t.clips[ci];
                witnesses.push_back({*c.recordingDate, usableDuration(c.duration), c.clockQuality});
            }
    }

    // Wrong clocks. Measuring every recorder against the median of all of them would throw out a
    // real second day as soon as it lies more than a day away, so the days are found first and
    // only a day that one recorder alone speaks for is in doubt: no second recorder there, and no
    // camera or other recorder whose dates fit it. Such a day stands while it lies within a week
    // of another device's day; further than that it is a clock set to a wrong date (a wrong year,
    // a battery reset), which is how wrong clocks lie, since days of one shoot are not that far
    // apart with nothing else recording.
    {
        const auto clusters = clustersOf(runs);
        std::vector<Date> starts, ends;
        // The channel files of one recorder are one device: they share one clock.
        auto deviceOf = [&](int si) { return track(si).siblingOf.value_or(track(si).id); };
        std::vector<std::set<Uuid>> devices;
        for (const auto& c : clusters) {
            starts.push_back(runs[c.front()].start);
            ends.push_back(runs[c.front()].end);
            devices.emplace_back();
            for (const auto a : c) {
                starts.back() = std::min(starts.back(), runs[a].start);
                ends.back() = std::max(ends.back(), runs[a].end);
                devices.back().insert(deviceOf(runs[a].si));
            }
        }
        std::set<std::size_t> doubtful;
        for (std::size_t k = 0; k < clusters.size(); ++k) {
            if (devices[k].size() > 1) continue;
            if (std::any_of(witnesses.begin(), witnesses.end(),
                            [&](const Dated& w) { return fitsDay(w.date, w.duration, starts[k], ends[k]); }))
                continue;
            // Where no other device has a trusted clock, the device's own days are all there is.
            const Uuid device = *devices[k].begin();
            const bool othersExist =
                std::any_of(devices.begin(), devices.end(),
                            [&](const std::set<Uuid>& d) { return d.size() > 1 || *d.begin() != device; });
            double nearest = std::numeric_limits<double>::infinity();
            for (std::size_t j = 0; j < clusters.size(); ++j) {
                if (j == k || (othersExist && devices[j].size() == 1 && *devices[j].begin() == device))
                    continue;
                nearest = std::min(nearest, std::max({0.0, seconds(starts[j]) - seconds(ends[k]),
                                                      seconds(starts[k]) - seconds(ends[j])}));
            }
            if (nearest > kPlausiblePause) doubtful.insert(k);
        }
        std::vector<bool> dropped(runs.size(), false);
        std::set<Uuid> droppedDevices;
        for (const auto k : doubtful)
            for (const auto a : clusters[k]) {
                dropped[a] = true;
                droppedDevices.insert(deviceOf(runs[a].si));
            }
        if (!droppedDevices.empty())
            EngineLog::logf(
                "[Ingest] day-region: %d audio device(s) have outlier clocks (>1 day from the group) — "
                "not trusting them to split days",
                static_cast<int>(droppedDevices.size()));
        std::vector<ClockRun> kept;
        for (std::size_t a = 0; a < runs.size(); ++a)
            if (!dropped[a]) kept.push_back(std::move(runs[a]));
        runs = std::move(kept);
    }

    if (runs.size() < 2) {
        EngineLog::logf(
            "[Ingest] day-region: device clocks for '%s' don't cohere within one day — treating as "
            "a single day (audio-content sync)",
            lastComponent(session));
        return {};
    }
    const auto clusters = clustersOf(runs);
    if (clusters.size() < 2) return {};

    // Region of every clip of the session, by track index; -1 while unassigned. For now the
    // deciding recorders' clips hold their cluster's index.
    std::map<int, std::vector<int>> regionOf;
    for (const int si : indices)
        regionOf[si].assign(track(si).clips.size(), -1);
    for (std::size_t k = 0; k < clusters.size(); ++k)
        for (const auto a : clusters[k])
            for (const auto ci : runs[a].clips)
                regionOf[runs[a].si][ci] = static_cast<int>(k);
    // A recorder whose every date was wrong keeps none and goes with the main day.
    for (const int si : deciding)
        fillFromNeighbours(regionOf[si]);

    struct Region {
        Date start;
        Date end;
        Date median;
        double totalDur = 0;
    };
    std::vector<Region> byCluster;
    for (const auto& c : clusters) {
        Region r{runs[c.front()].start, runs[c.front()].end, runs[c.front()].median, 0};
        for (const auto a : c) {
            r.start = std::min(r.start, runs[a].start);
            r.end = std::max(r.end, runs[a].end);
            r.median = std::min(r.median, runs[a].median);
        }
        byCluster.push_back(r);
    }
    for (const int si : deciding)
        for (std::size_t ci = 0; ci < track(si).clips.size(); ++ci)
            if (const int k = regionOf[si][ci]; k >= 0)
                byCluster[static_cast<std::size_t>(k)].totalDur +=
                    usableDuration(track(si).clips[ci].duration);

    // The day with the most audio comes first, then the days after it, then those before it.
    std::size_t largest = 0;
    for (std::size_t k = 1; k < byCluster.size(); ++k)
        if (byCluster[k].totalDur > byCluster[largest].totalDur) largest = k;
    const Date anchor = byCluster[largest].start;
    std::vector<std::size_t> order;
    for (std::size_t k = 0; k < byCluster.size(); ++k)
        if (k != largest) order.push_back(k);
    auto orderKey = [&](std::size_t k) {
        const double e = seconds(byCluster[k].start);
        return e < seconds(anchor) - kOrderMargin ? std::numeric_limits<double>::infinity() : e;
    };
    std::stable_sort(order.begin(), order.end(), [&](auto x, auto y) { return orderKey(x) < orderKey(y); });
    order.insert(order.begin(), largest);
    std::vector<int> regionOfCluster(byCluster.size());
    std::vector<Region> regions;
    for (std::size_t r = 0; r < order.size(); ++r) {
        regionOfCluster[order[r]] = static_cast<int>(r);
        regions.push_back(byCluster[order[r]]);
    }
    for (const int si : deciding)
        for (int& r : regionOf[si])
            if (r >= 0) r = regionOfCluster[static_cast<std::size_t>(r)];
    const int lastRegion = static_cast<int>(regions.size()) - 1;

    // Where each clip of a track falls by its own date, -1 where it has no date that fits a day. A
    // date of any kind will do, file dates too: a file date is off by minutes or by a time zone,
    // while the days it must tell apart lie hours apart. Where several days fit, the nearest one
    // takes the clip, so that a clip late on a long day stays with it.
    auto byOwnDates = [&](const TrackSource& t) {
        const auto use = datesToUse(t);
        std::vector<int> out(t.clips.size(), -1);
        for (std::size_t ci = 0; ci < t.clips.size(); ++ci) {
            if (!use[ci]) continue;
            const auto& clip = t.clips[ci];
            const double dur = usableDuration(clip.duration);
            double nearest = std::numeric_limits<double>::infinity();
            for (int r = 0; r <= lastRegion; ++r) {
                const auto& reg = regions[static_cast<std::size_t>(r)];
                const double d = distanceTo(*clip.recordingDate, dur, reg.start, reg.end);
                if (fitsDay(*clip.recordingDate, dur, reg.start, reg.end) && d < nearest)
                    nearest = d, out[ci] = r;
            }
        }
        return out;
    };
    auto placedByDate = [](const std::vector<int>& r) {
        return std::any_of(r.begin(), r.end(), [](int x) { return x >= 0; });
    };

    // The cards of one accepted camera group were shot one after another: one card per day. A card
    // whose clips carry dates that fit the days needs no such guess and follows its dates below.
    std::set<int> done;
    std::map<std::string, std::vector<int>> groups;
    for (const int si : indices)
        if (track(si).cameraGroup) groups[*track(si).cameraGroup].push_back(si);
    for (const auto& [key, members] : groups) {
        if (members.size() < 2) continue;
        const auto inOrder = IngestEngine::tracksInClipOrder(sources, members);
        for (std::size_t i = 0; i < inOrder.size() && static_cast<int>(i) <= lastRegion; ++i) {
            const int si = inOrder[i];
            if (placedByDate(byOwnDates(track(si)))) continue;
            std::fill(regionOf[si].begin(), regionOf[si].end(), static_cast<int>(i));
            done.insert(si);
            EngineLog::logf("[Ingest] day-region video '%s' → day-%d (group order %d/%d)", track(si).name,
                            static_cast<int>(i), static_cast<int>(i) + 1, static_cast<int>(inOrder.size()));
        }
    }

    // When the last region lies before the first, undated footage past the first clip is more
    // likely the earlier day's.
    const bool behindFirst =
        regions.size() >= 2 && seconds(regions.back().median) < seconds(anchor) - kOrderMargin;

    // Cameras, and recorders whose clocks didn't decide, follow their own dates, and their clips
    // without one their neighbours'. A camera with no date that fits any day is placed by length.
    for (const int si : indices) {
        const auto& t = track(si);
        if (deciding.contains(si) || done.contains(si)) continue;
        auto& assigned = regionOf[si];
        assigned = byOwnDates(t);
        if (placedByDate(assigned)) {
            fillFromNeighbours(assigned);
        } else if (t.type == SourceType::video) {
            double onFirst = 0;
            for (std::size_t ci = 0; ci < t.clips.size(); ++ci) {
                const bool first = ci == 0;
                if (!behindFirst)
                    assigned[ci] =
                        (first || onFirst < kDurationRatio * regions.front().totalDur) ? 0 : lastRegion;
                else
                    assigned[ci] = first ? 0 : lastRegion;
                if (assigned[ci] == 0) onFirst += usableDuration(t.clips[ci].duration);
            }
        }
        if (t.type != SourceType::video) continue;
        std::map<int, int> counts;
        for (const int r : assigned)
            ++counts[r];
        std::vector<std::string> pieces;
        for (const auto& [r, n] : counts)
            pieces.push_back(fmt::sprintf("day-%d:%d", r, n));
        std::sort(pieces.begin(), pieces.end());
        EngineLog::logf("[Ingest] day-region camera '%s' → %s", t.name, joined(pieces, ", "));
    }

    // Recorders without a usable clock stay with the main day.
    for (const int si : indices)
        if (track(si).type == SourceType::audio)
            for (int& r : regionOf[si])
                if (r < 0) r = 0;

    std::vector<DayRegionProposal> proposals;
    for (int r = 0; r <= lastRegion; ++r) {
        DayRegionProposal p;
        p.session = session;
        p.regionKey = "day-" + std::to_string(r);
        p.label = "Region " + std::to_string(r + 1);
        std::vector<Dated> dated;
        for (const int si : indices) {
            const auto& t = track(si);
            int inRegion = 0;
            for (std::size_t ci = 0; ci < t.clips.size(); ++ci) {
                if (regionOf[si][ci] != r) continue;
                const auto& clip = t.clips[ci];
                ++inRegion;
                p.clipIDs.push_back(clip.id);
                if (clip.recordingDate)
                    dated.push_back({*clip.recordingDate, usableDuration(clip.duration), clip.clockQuality});
            }
            if (inRegion == 0) continue;
            p.trackIDs.push_back(t.id);
            p.trackNames.push_back(
                inRegion == static_cast<int>(t.clips.size())
                    ? t.name
                    : fmt::sprintf("%s (%d of %d)", t.name, inRegion, static_cast<int>(t.clips.size())));
        }
        if (p.clipIDs.empty()) continue;
        p.clipCount = static_cast<int>(p.clipIDs.size());
        fillDates(p, std::move(dated));
        EngineLog::logf("[Ingest] day-region propose '%s': %s (%d clips, %s, q=%s)", p.regionKey,
                        joined(p.trackNames, ", "), p.clipCount, p.timeRangeHint(), rawName(p.clockQuality));
        proposals.push_back(std::move(p));
    }

    // A split where some day has cameras and another has none means the cameras' clocks and the
    // recorders' disagree, not that the recorders worked a day alone: trust neither.
    const bool hasVideo = std::any_of(indices.begin(), indices.end(),
                                      [&](int si) { return track(si).type == SourceType::video; });
    if (proposals.size() >= 2 && hasVideo) {
        auto withVideo = [&](const DayRegionProposal& p) {
            return std::any_of(p.trackIDs.begin(), p.trackIDs.end(), [&](const Uuid& id) {
                return std::any_of(indices.begin(), indices.end(), [&](int si) {
                    return track(si).id == id && track(si).type == SourceType::video;
                });
            });
        };
        const auto video = std::count_if(proposals.begin(), proposals.end(), withVideo);
        if (video > 0 && video < static_cast<long>(proposals.size())) {
            EngineLog::logf(
                "[Ingest] day-region: audio-only vs video clock split for '%s' — treating as one day "
                "(likely wrong wall clock)",
                lastComponent(session));
            return {};
        }
    }
    return proposals;
}

// Which accepted region a track that no accepted proposal covers belongs to.
//
// Where the session's regions come from text sync, they carry no clock span, and the file named the
// cameras it heard: a camera it didn't name most likely shot a day whose region has no camera yet.
// So the unnamed cameras, in the order of their files, take the regions without a camera in region
// order (all regions when every one has a camera), the last of them taking any surplus.
//
// Everything else goes by its own trusted clock: the region whose span, widened by the margin that
// joins recordings into one day, meets the track's span, the nearest to the track's median where
// several do. A track without a trusted clock, or whose clock meets no region, joins the first
// region: that is the day with the most audio, where undated footage goes in detection too.
void assignOrphanTracksToDayRegions(std::vector<TrackSource>& sources,
                                    const std::vector<DayRegionProposal>& regions) {
    std::vector<std::string> sessions;
    for (const auto& p : regions)
        if (std::find(sessions.begin(), sessions.end(), p.session) == sessions.end())
            sessions.push_back(p.session);

    for (const auto& session : sessions) {
        std::vector<const DayRegionProposal*> own;
        for (const auto& p : regions)
            if (p.session == session) own.push_back(&p);
        const bool fromTextSync = std::any_of(own.begin(), own.end(), [](const DayRegionProposal* p) {
            return p->rangeOverride && p->rangeOverride->find("text-sync") != std::string::npos;
        });

        std::vector<int> orphanCameras, orphans;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            const auto& t = sources[i];
            if (t.session != session || t.dayRegion) continue;
            (fromTextSync && t.type == SourceType::video ? orphanCameras : orphans)
                .push_back(static_cast<int>(i));
        }

        if (!orphanCameras.empty()) {
            auto hasCamera = [&](const DayRegionProposal* p) {
                return std::any_of(sources.begin(), sources.end(), [&](const TrackSource& t) {
                    return t.type == SourceType::video &&
                           std::find(p->trackIDs.begin(), p->trackIDs.end(), t.id) != p->trackIDs.end();
                });
            };
            std::vector<const DayRegionProposal*> open;
            for (const auto* p : own)
                if (!hasCamera(p)) open.push_back(p);
            if (open.empty()) open = own;
            const auto inOrder = IngestEngine::tracksInClipOrder(sources, orphanCameras);
            for (std::size_t i = 0; i < inOrder.size(); ++i) {
                auto& t = sources[static_cast<std::size_t>(inOrder[i])];
                const auto* p = open[std::min(i, open.size() - 1)];
                t.dayRegion = p->regionKey;
                EngineLog::logf("[Ingest] day-region orphan '%s' → %s (text-sync camera order %d/%d)", t.name,
                                p->regionKey, static_cast<int>(i) + 1, static_cast<int>(inOrder.size()));
            }
        }

        for (const int si : orphans) {
            auto& t = sources[static_cast<std::size_t>(si)];
            const DayRegionProposal* chosen = nullptr;
            if (const auto span = IngestEngine::trackClockSpan(t, si); span && trusted(span->quality)) {
                const double median = seconds(span->median);
                double nearest = std::numeric_limits<double>::infinity();
                for (const auto* p : own) {
                    if (!p->startDate || !p->endDate) continue;
                    const double start = seconds(*p->startDate), end = seconds(*p->endDate);
                    if (!(seconds(span->start) - kClusterMargin <= end &&
                          start - kClusterMargin <= seconds(span->end)))
                        continue;
                    const double distance = median < start ? start - median
                                            : median > end ? median - end
                                                           : 0.0;
                    if (distance < nearest) nearest = distance, chosen = p;
                }
            }
            if (chosen) {
                t.dayRegion = chosen->regionKey;
                EngineLog::logf("[Ingest] day-region orphan '%s' → %s (clock fits %s)", t.name,
                                chosen->regionKey, chosen->timeRangeHint());
            } else {
                t.dayRegion = own.front()->regionKey;
                EngineLog::logf("[Ingest] day-region orphan '%s' → %s (no trusted clock fits — first region)",
                                t.name, own.front()->regionKey);
            }
        }
    }
}

} // namespace

std::optional<IngestEngine::TrackClockSpan> IngestEngine::trackClockSpan(const TrackSource& source,
                                                                         int index) {
    std::vector<Dated> used;
    for (const auto ci : clockedClips(source)) {
        const auto& c = source.clips[ci];
        used.push_back({*c.recordingDate, usableDuration(c.duration), c.clockQuality});
    }
    if (used.empty()) return std::nullopt;

    TrackClockSpan span;
    span.si = index;
    std::tie(span.start, span.end) = spanOf(used);
    std::vector<Date> dates;
    for (const auto& d : used) {
        dates.push_back(d.date);
        span.quality = std::max(span.quality, d.quality);
    }
    std::sort(dates.begin(), dates.end());
    span.median = dates[dates.size() / 2];
    span.clipCount = static_cast<int>(source.clips.size());
    for (const auto& c : source.clips)
        span.totalDur += usableDuration(c.duration);
    return span;
}

std::vector<DayRegionProposal> IngestEngine::detectDayRegions(const std::vector<TrackSource>& sources) {
    std::vector<std::string> sessionOrder;
    std::map<std::string, std::vector<int>> bySession;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        auto [it, inserted] = bySession.try_emplace(sources[i].session);
        if (inserted) sessionOrder.push_back(sources[i].session);
        it->second.push_back(static_cast<int>(i));
    }

    std::vector<DayRegionProposal> result;
    for (const auto& session : sessionOrder) {
        const auto& indices = bySession[session];
        // The text-sync file heard the same words on both sides: it outranks any clock.
        auto proposals = detectDayRegionsFromTextSync(sources, session, indices);
        if (!proposals) proposals = detectFromClocks(sources, session, indices);
        for (auto& p : *proposals)
            result.push_back(std::move(p));
    }
    return result;
}

std::vector<TrackSource> IngestEngine::applyDayRegions(std::vector<TrackSource> sources,
                                                       const std::vector<DayRegionProposal>& proposals,
                                                       const std::set<Uuid>& accepted) {
    // Clear every earlier answer in the sessions asked about, so that the stage can run again.
    std::set<std::string> concerned;
    for (const auto& p : proposals)
        concerned.insert(p.session);
    for (auto& t : sources) {
        if (!concerned.contains(t.session)) continue;
        t.dayRegion.reset();
        for (auto& c : t.clips)
            c.dayRegion.reset();
    }

    std::vector<DayRegionProposal> chosen;
    for (const auto& p : proposals)
        if (accepted.contains(p.id)) chosen.push_back(p);

    std::map<Uuid, std::pair<std::size_t, std::size_t>> clipAt;
    for (std::size_t si = 0; si < sources.size(); ++si)
        for (std::size_t ci = 0; ci < sources[si].clips.size(); ++ci)
            clipAt.try_emplace(sources[si].clips[ci].id, si, ci);

    for (const auto& p : chosen) {
        EngineLog::logf("[Ingest] day-region '%s': %s (%s)", p.regionKey, joined(p.trackNames, ", "),
                        p.timeRangeHint());
        for (const auto& id : p.clipIDs)
            if (const auto it = clipAt.find(id); it != clipAt.end())
                sources[it->second.first].clips[it->second.second].dayRegion = p.regionKey;
    }

    // A track needs one key of its own, though its clips may lie in several regions (a recorder
    // that ran past midnight, a track that text sync names twice). Every clip in a region keeps
    // that region's key, so the track's key only speaks for its clips without one: it is the key
    // that most of its clips hold, the earlier accepted region on a tie, since an unkeyed clip of a
    // mostly-day-1 track is most likely day 1 as well. A listed track without clips takes the first
    // region that lists it.
    for (auto& t : sources) {
        if (!concerned.contains(t.session)) continue;
        int best = -1, bestCount = 0;
        for (std::size_t k = 0; k < chosen.size(); ++k) {
            if (chosen[k].session != t.session) continue;
            const auto& key = chosen[k].regionKey;
            const int count = static_cast<int>(std::count_if(
                t.clips.begin(), t.clips.end(), [&](const ClipItem& c) { return c.dayRegion == key; }));
            const bool listed = std::find(chosen[k].trackIDs.begin(), chosen[k].trackIDs.end(), t.id) !=
                                chosen[k].trackIDs.end();
            if ((count > 0 || listed) && (best < 0 || count > bestCount))
                best = static_cast<int>(k), bestCount = count;
        }
        if (best >= 0) t.dayRegion = chosen[static_cast<std::size_t>(best)].regionKey;
    }

    if (chosen.size() >= 2) assignOrphanTracksToDayRegions(sources, chosen);
    return attachTextSyncOffsets(chosen, std::move(sources));
}

} // namespace trelvane
