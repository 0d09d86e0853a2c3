// SPDX-License-Identifier: GPL-3.0-or-later
// The device split: a folder that holds the work of several devices (a card reader dump, a team's
// shared folder) becomes one track per device, once the metadata load has read the labels.
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Text.hpp"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <set>

namespace trelvane {

namespace {

// Below this many clips a track never folds its small keys: in a short folder a device with one
// or two clips is as likely real as stray.
constexpr std::size_t kClipCountForFolding = 20;
// A key with fewer clips than this is folded into the other group on a long track.
constexpr std::size_t kSmallKeyClips = 3;
// More tracks than this out of one folder is more likely a mess of labels than a team of devices.
constexpr std::size_t kMostTracksFromOneTrack = 8;

// Labels starting like this are fingerprints of a camera's codec parameters, not device names.
bool isCodecFingerprint(const std::string& label) {
    return label.starts_with("cam_");
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isUpperOrDigit(char c) {
    return isDigit(c) || (c >= 'A' && c <= 'Z');
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && text[i] == ' ')
            ++i;
        const std::size_t start = i;
        while (i < text.size() && text[i] != ' ')
            ++i;
        if (i > start) out.push_back(text.substr(start, i - start));
    }
    return out;
}

// The key a clip is grouped under; nothing for a clip that counts as unlabelled.
std::optional<std::pair<std::string, std::string>> keyedLabel(const ClipItem& clip) {
    if (!clip.deviceName || clip.deviceName->empty() || isCodecFingerprint(*clip.deviceName))
        return std::nullopt;
    std::string key = IngestEngine::normalizeDeviceKey(*clip.deviceName);
    if (key.empty()) return std::nullopt;
    return std::pair{std::move(key), *clip.deviceName};
}

// One device of a track being split. Groups are kept in the order their key was first met, so
// that every run of the same folder gives the same tracks and the same log.
struct DeviceGroup {
    std::string key;
    std::string rawLabel;
    std::vector<ClipItem> clips;
};

void sortChronologically(std::vector<ClipItem>& clips) {
    std::stable_sort(clips.begin(), clips.end(), [](const ClipItem& a, const ClipItem& b) {
        return IngestEngine::chronologicalOrder(a.url, b.url);
    });
}

// Largest first; among equals the order the keys were met.
void sortBySize(std::vector<DeviceGroup>& groups) {
    std::stable_sort(groups.begin(), groups.end(), [](const DeviceGroup& a, const DeviceGroup& b) {
        return a.clips.size() > b.clips.size();
    });
}

void moveToOthers(DeviceGroup& group, std::vector<ClipItem>& others) {
    for (auto& clip : group.clips)
        others.push_back(std::move(clip));
    group.clips.clear();
}

// A new track for one group of a split track: the split track's type and session, everything
// else as a fresh track has it.
TrackSource splitOffTrack(const TrackSource& from, std::string name, std::optional<std::string> deviceName,
                          std::vector<ClipItem> clips, const std::vector<TrackSource>& existing) {
    TrackSource track;
    track.id = IngestEngine::newTrackId("split", clips, existing);
    track.name = std::move(name);
    track.type = from.type;
    track.session = from.session;
    track.deviceName = std::move(deviceName);
    track.lockedGrouping = false;
    track.clips = std::move(clips);
    IngestEngine::recomputeOffsets(track);
    return track;
}

// Splits one track that is neither locked nor a single-folder recorder, appending the result
// (the track itself, or its parts) to `output`.
void splitTrack(TrackSource track, std::vector<TrackSource>& output) {
    std::vector<DeviceGroup> groups;
    std::map<std::string, std::size_t> groupOfKey;
    std::vector<ClipItem> others;
    for (const auto& clip : track.clips) {
        auto keyed = keyedLabel(clip);
        if (!keyed) {
            others.push_back(clip);
            continue;
        }
        auto [it, isNew] = groupOfKey.try_emplace(keyed->first, groups.size());
        if (isNew) groups.push_back({keyed->first, keyed->second, {}});
        groups[it->second].clips.push_back(clip);
    }

    // An unlabelled clip named like one device's files (same prefix before the counter) is that
    // device's: some cameras only label part of their files.
    if (!others.empty() && !groups.empty()) {
        // The prefixes of each group's labelled files, gathered once: a clip that joins a group
        // has one of them already, so the sets need no update.
        std::vector<std::set<std::string>> prefixes(groups.size());
        for (std::size_t g = 0; g < groups.size(); ++g)
            for (const auto& clip : groups[g].clips)
                if (auto key = IngestEngine::clipNumericKey(clip.url))
                    prefixes[g].insert(std::move(key->prefix));
        std::vector<ClipItem> unplaced;
        for (auto& clip : others) {
            const auto mine = IngestEngine::clipNumericKey(clip.url);
            std::optional<std::size_t> home;
            if (mine && !mine->prefix.empty())
                for (std::size_t g = 0; g < groups.size() && !home; ++g)
                    if (prefixes[g].contains(mine->prefix)) home = g;
            if (home)
                groups[*home].clips.push_back(std::move(clip));
            else
                unplaced.push_back(std::move(clip));
        }
        others = std::move(unplaced);
    }

    if (groups.size() < 2 && (groups.empty() || others.empty())) {
        track.deviceName =
            groups.empty() ? std::nullopt : std::optional<std::string>(groups.front().rawLabel);
        output.push_back(std::move(track));
        return;
    }

    if (groups.size() >= 2 && track.clips.size() >= kClipCountForFolding) {
        const auto small =
            static_cast<std::size_t>(std::count_if(groups.begin(), groups.end(), [](const DeviceGroup& g) {
                return g.clips.size() < kSmallKeyClips;
            }));
        if (small > 0 && small < groups.size()) {
            for (auto& group : groups)
                if (group.clips.size() < kSmallKeyClips) moveToOthers(group, others);
            std::erase_if(groups, [](const DeviceGroup& g) { return g.clips.empty(); });
            EngineLog::logf(
                "[Ingest] device-split '%s': %d device key(s) with fewer than %d clips folded into "
                "'(other)'",
                track.name, static_cast<int>(small), static_cast<int>(kSmallKeyClips));
        }
    }

    if (groups.size() > kMostTracksFromOneTrack) {
        const std::size_t before = groups.size();
        sortBySize(groups);
        for (std::size_t i = kMostTracksFromOneTrack; i < groups.size(); ++i)
            moveToOthers(groups[i], others);
        groups.resize(kMostTracksFromOneTrack);
        EngineLog::logf(
            "[Ingest] device-split '%s': %d device keys \u2014 keeping the %d largest as tracks, the "
            "rest in '(other)'. Check this folder by hand: select clips and press N to move them to "
            "their own track.",
            track.name, static_cast<int>(before), static_cast<int>(kMostTracksFromOneTrack));
    }

    sortBySize(groups);
    for (auto& group : groups)
        sortChronologically(group.clips);
    sortChronologically(others);

    std::vector<std::string> counts;
    for (const auto& group : groups)
        counts.push_back(fmt::format("{}={}", group.rawLabel, group.clips.size()));
    if (!others.empty()) counts.push_back(fmt::format("other={}", others.size()));
    EngineLog::logf("[Ingest] device-split '%s': %s", track.name, joined(counts, ", "));

    auto namesSoFar = [&output] {
        std::vector<std::string> names;
        names.reserve(output.size());
        for (const auto& t : output)
            names.push_back(t.name);
        return names;
    };
    for (auto& group : groups) {
        // Unlabelled and fingerprint clips never form a keyed group; a fingerprint label here would
        // still not be a name to show.
        const std::string preferred =
            isCodecFingerprint(group.rawLabel) ? track.name + " cam" : group.rawLabel;
        std::string name = IngestEngine::uniqueName(preferred, track.type, namesSoFar());
        output.push_back(
            splitOffTrack(track, std::move(name), group.rawLabel, std::move(group.clips), output));
    }
    if (!others.empty()) {
        std::string name = IngestEngine::uniqueName(track.name + " (other)", track.type, namesSoFar());
        output.push_back(splitOffTrack(track, std::move(name), std::nullopt, std::move(others), output));
    }
}

bool inOneFolder(const std::vector<ClipItem>& clips) {
    std::set<std::string> folders;
    for (const auto& clip : clips)
        folders.insert(clip.url.deletingLastPathComponent().path());
    return folders.size() <= 1;
}

} // namespace

std::string IngestEngine::normalizeDeviceKey(const std::string& label) {
    std::string upper = label;
    for (char& c : upper)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');

    static const std::string kGenericBody = "DIGITAL CAMERA";
    for (std::size_t at = upper.find(kGenericBody); at != std::string::npos;
         at = upper.find(kGenericBody, at + 1))
        upper.replace(at, kGenericBody.size(), " ");

    // Every run of anything but letters and digits becomes one blank; with the trim, the text is
    // then words separated by single blanks.
    std::string text;
    for (std::size_t i = 0; i < upper.size();) {
        if (isUpperOrDigit(upper[i])) {
            text += upper[i++];
            continue;
        }
        text += ' ';
        while (i < upper.size() && !isUpperOrDigit(upper[i]))
            ++i;
    }
    std::vector<std::string> parts = words(text);

    // Serial numbers at the end go, however many; short model numbers ("A7S 3", "FX6 2024") stay.
    while (!parts.empty()) {
        const std::string& last = parts.back();
        if (last.size() < 5 || !std::all_of(last.begin(), last.end(), isDigit)) break;
        parts.pop_back();
    }

    std::vector<std::string> kept;
    for (std::size_t i = 0; i < parts.size(); ++i)
        if (i == 0 || parts[i] != parts[i - 1]) kept.push_back(parts[i]);
    return joined(kept, " ");
}

std::optional<std::string> IngestEngine::trackDeviceLabel(const std::vector<ClipItem>& clips) {
    struct Tally {
        std::string key;
        std::string firstLabel;
        std::size_t count = 0;
    };
    std::vector<Tally> tallies;
    std::map<std::string, std::size_t> tallyOfKey;
    for (const auto& clip : clips) {
        auto keyed = keyedLabel(clip);
        if (!keyed) continue;
        auto [it, isNew] = tallyOfKey.try_emplace(keyed->first, tallies.size());
        if (isNew) tallies.push_back({keyed->first, keyed->second, 0});
        ++tallies[it->second].count;
    }
    const Tally* best = nullptr;
    for (const auto& tally : tallies)
        if (!best || tally.count > best->count) best = &tally;
    if (!best) return std::nullopt;
    return best->firstLabel;
}

std::optional<IngestEngine::NumericKey> IngestEngine::clipNumericKey(const Url& url) {
    const std::string name = url.baseName();
    std::size_t start = name.size();
    while (start > 0 && isDigit(name[start - 1]))
        --start;
    if (start == name.size() || start == 0) return std::nullopt;
    long long num = 0;
    const auto [end, ec] = std::from_chars(name.data() + start, name.data() + name.size(), num);
    if (ec != std::errc() || end != name.data() + name.size()) return std::nullopt;
    return NumericKey{name.substr(0, start), num};
}

std::vector<TrackSource> IngestEngine::splitSourcesByDevice(std::vector<TrackSource> sources) {
    std::vector<TrackSource> output;
    output.reserve(sources.size());
    for (auto& track : sources) {
        // The user or the folder structure has grouped these already; an audio recorder's folder
        // is one recorder, whatever its files say.
        if (track.lockedGrouping || (track.type == SourceType::audio && inOneFolder(track.clips))) {
            if (!track.deviceName) track.deviceName = trackDeviceLabel(track.clips);
            output.push_back(std::move(track));
            continue;
        }
        splitTrack(std::move(track), output);
    }

    for (auto& track : output) {
        track.type = inferredType(track.clips);
        if (auto label = trackDeviceLabel(track.clips))
            track.deviceName = std::move(label);
        else if (track.deviceName && isCodecFingerprint(*track.deviceName))
            track.deviceName.reset();
    }
    return output;
}

} // namespace trelvane
