// SPDX-License-Identifier: GPL-3.0-or-later
// The first ingest stage: dropped paths to tracks, and the small helpers later stages share.
#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Files.hpp"
#include "TrelvaneEngine/support/NaturalOrder.hpp"
#include "TrelvaneEngine/support/Text.hpp"

#include <algorithm>
#include <map>
#include <sys/stat.h>
#include <unordered_set>

namespace trelvane {

namespace {

// Deeper trees than this are not real card or shoot layouts; the cap keeps a hostile tree (or a
// bind mount looping back on itself) from walking forever.
constexpr int kMaxFolderDepth = 64;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isLowerLetter(char c) {
    return c >= 'a' && c <= 'z';
}
bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
bool isWordChar(char c) {
    return isDigit(c) || isLowerLetter(c) || (c >= 'A' && c <= 'Z') || c == '_';
}

// "^clips?\s*\d*$" on a lower-cased name.
bool matchesClipsPattern(const std::string& s) {
    if (!s.starts_with("clip")) return false;
    std::size_t i = 4;
    if (i < s.size() && s[i] == 's') ++i;
    while (i < s.size() && isSpace(s[i]))
        ++i;
    while (i < s.size() && isDigit(s[i]))
        ++i;
    return i == s.size();
}

// "^\d+[a-z]*$" on a lower-cased name ("100media", "001"); it also covers "^\d{3}[a-z]+$".
bool matchesNumberedFolder(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size() && isDigit(s[i]))
        ++i;
    if (i == 0) return false;
    while (i < s.size() && isLowerLetter(s[i]))
        ++i;
    return i == s.size();
}

// "(?i)^(card|cam|camera|body|slot)\b": a folder named like a card slot or a camera body.
bool namedLikeCardOrCamera(const std::string& name) {
    const std::string lower = Files::lowercased(name);
    for (std::string_view word : {"card", "cam", "camera", "body", "slot"}) {
        if (!lower.starts_with(word)) continue;
        if (lower.size() == word.size() || !isWordChar(lower[word.size()])) return true;
    }
    return false;
}

bool extensionIn(std::string_view ext, const auto& table) {
    const std::string lower = Files::lowercased(std::string(ext));
    return std::find(table.begin(), table.end(), lower) != table.end();
}

// The first `count` characters of UTF-8 text, never cutting a character in two.
std::string firstCharacters(const std::string& s, std::size_t count) {
    std::size_t i = 0, chars = 0;
    while (i < s.size() && chars < count) {
        const auto c = static_cast<unsigned char>(s[i]);
        std::size_t len = 1;
        if (c >= 0xF0 && c < 0xF8)
            len = 4;
        else if (c >= 0xE0)
            len = 3;
        else if (c >= 0xC0)
            len = 2;
        i = std::min(s.size(), i + len);
        ++chars;
    }
    return s.substr(0, i);
}

// A list of names as the log shows it: ["A001", "A002"].
std::string printedList(const std::vector<std::string>& names) {
    std::string out = "[";
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i) out += ", ";
        out += "\"" + names[i] + "\"";
    }
    return out + "]";
}

struct FolderId {
    dev_t dev;
    ino_t ino;
    bool operator==(const FolderId&) const = default;
};
struct FolderIdHash {
    std::size_t operator()(const FolderId& f) const noexcept {
        return std::hash<ino_t>{}(f.ino) ^ (f.dev << 1);
    }
};

std::optional<FolderId> folderId(const std::filesystem::path& p) {
    struct stat st {};
    if (::stat(p.c_str(), &st) != 0) return std::nullopt;
    return FolderId{st.st_dev, st.st_ino};
}

struct Group {
    std::string name;
    std::vector<Url> files;
    bool locked = false;
    std::string session;
};

struct QueuedCard {
    REDCard card;
    std::string session;
};

void logCard(const REDCard& card) {
    int chunks = 0, missingWAV = 0;
    std::optional<std::string> model;
    std::optional<double> recordRate, timeBase;
    for (const auto& take : card.takes) {
        chunks += take.chunkCount;
        if (!take.wav) ++missingWAV;
        if (!take.header) continue;
        if (!model && take.header->model) model = take.header->model;
        if (!recordRate && take.header->recordFrameRate) recordRate = take.header->recordFrameRate;
        if (!timeBase && take.header->timeBase) timeBase = take.header->timeBase;
    }
    const std::string rate = (recordRate && timeBase)
                                 ? fmt::sprintf(", record %.3f / base %.3f", *recordRate, *timeBase)
                                 : std::string(", no rate in header");
    const std::string wavText =
        missingWAV > 0 ? fmt::sprintf(", %d take(s) with no sidecar WAV", missingWAV) : std::string();
    EngineLog::logf("[Ingest] RED card '%s': %d take(s), %d chunk(s), %s%s%s", card.root.baseName(),
                    static_cast<int>(card.takes.size()), chunks, model.value_or("unknown body"), rate,
                    wavText);
}

ClipItem newClip(const Url& url) {
    ClipItem clip;
    clip.id = IngestEngine::clipId(url);
    clip.url = url;
    return clip;
}

std::vector<std::string> trackNames(const std::vector<TrackSource>& tracks) {
    std::vector<std::string> names;
    names.reserve(tracks.size());
    for (const auto& t : tracks)
        names.push_back(t.name);
    return names;
}

} // namespace

Uuid IngestEngine::clipId(const Url& url) {
    return Uuid::named("clip|" + url.path());
}

Uuid IngestEngine::newTrackId(std::string_view origin, const std::vector<ClipItem>& clips,
                              const std::vector<TrackSource>& existing) {
    std::string text(origin);
    for (const auto& clip : clips) {
        text += '|';
        text += clip.url.path();
    }
    // A track made again of files that an earlier track was made of (they were removed and added
    // back) must not take the identifier that track still has.
    const auto taken = [&existing](const Uuid& id) {
        return std::any_of(existing.begin(), existing.end(),
                           [&id](const TrackSource& t) { return t.id == id; });
    };
    Uuid id = Uuid::named(text);
    for (int again = 1; taken(id); ++again)
        id = Uuid::named(text + "|" + std::to_string(again));
    return id;
}

bool IngestEngine::isVideoExtension(std::string_view ext) {
    return extensionIn(ext, videoExtensions);
}
bool IngestEngine::isAudioExtension(std::string_view ext) {
    return extensionIn(ext, audioExtensions);
}
bool IngestEngine::isAcceptedExtension(std::string_view ext) {
    return isVideoExtension(ext) || isAudioExtension(ext);
}

std::vector<Url> IngestEngine::directMedia(const Url& folder) {
    if (REDCard::isTakeFolder(folder)) return {};
    std::vector<Url> out;
    const auto entries = Files::listDirectory(folder.fsPath());
    if (!entries) return out;
    for (const auto& e : *entries) {
        const Url url = Url::fromPath(e.path);
        if (isAcceptedExtension(url.pathExtension())) out.push_back(url);
    }
    return out;
}

std::vector<Url> IngestEngine::mediaFiles(const Url& folder, std::set<std::string>* skipped) {
    const auto skip = [skipped](const std::filesystem::path& path) {
        if (skipped) skipped->insert(path.string());
    };
    std::vector<Url> out;
    std::unordered_set<FolderId, FolderIdHash> seen;
    struct Item {
        std::filesystem::path path;
        int depth;
    };
    std::vector<Item> stack{{folder.fsPath(), 0}};
    while (!stack.empty()) {
        const Item item = std::move(stack.back());
        stack.pop_back();
        const auto id = folderId(item.path);
        if (!id) skip(item.path);
        if (!id || !seen.insert(*id).second) continue;
        const auto entries = Files::listDirectory(item.path);
        if (!entries) {
            skip(item.path);
            continue;
        }
        // Children are pushed in reverse so that the walk visits them in listing order.
        for (auto it = entries->rbegin(); it != entries->rend(); ++it) {
            const Url url = Url::fromPath(it->path);
            if (it->isDirectory) {
                if (REDCard::isTakeFolder(url)) continue;
                if (item.depth + 1 <= kMaxFolderDepth)
                    stack.push_back({it->path, item.depth + 1});
                else
                    skip(it->path);
            } else if (isAcceptedExtension(url.pathExtension())) {
                out.push_back(url);
            }
        }
    }
    // One fixed order whatever the walk did, so that every caller sees the same list.
    std::stable_sort(out.begin(), out.end(), [](const Url& a, const Url& b) { return a.path() < b.path(); });
    return out;
}

std::vector<Url> IngestEngine::leafMediaFolders(const Url& folder, std::set<std::string>* skipped) {
    std::vector<Url> leaves;
    std::unordered_set<FolderId, FolderIdHash> seen;
    const auto skip = [skipped](const Url& url) {
        if (skipped) skipped->insert(url.fsPath().string());
    };
    auto walk = [&](auto&& self, const Url& current, int depth) -> void {
        if (proxyDirNames.contains(Files::lowercased(current.lastPathComponent()))) return;
        if (REDCard::isTakeFolder(current)) return;
        if (depth > kMaxFolderDepth) return skip(current);
        const auto id = folderId(current.fsPath());
        if (!id) return skip(current);
        if (!seen.insert(*id).second) return;
        if (!directMedia(current).empty()) leaves.push_back(current);
        const auto entries = Files::listDirectory(current.fsPath());
        if (!entries) return skip(current);
        for (const auto& e : *entries)
            if (e.isDirectory) self(self, Url::fromPath(e.path), depth + 1);
    };
    walk(walk, folder, 0);
    return leaves;
}

std::string IngestEngine::commonAncestorPath(const std::vector<std::string>& paths) {
    if (paths.empty()) return "";
    if (paths.size() == 1) return Url::fromPath(paths.front()).deletingLastPathComponent().path();
    auto split = [](const std::string& p) {
        std::vector<std::string> parts;
        std::size_t start = 0;
        for (;;) {
            const auto slash = p.find('/', start);
            parts.push_back(p.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
            if (slash == std::string::npos) break;
            start = slash + 1;
        }
        return parts;
    };
    std::vector<std::string> common = split(paths.front());
    for (std::size_t i = 1; i < paths.size(); ++i) {
        const auto parts = split(paths[i]);
        std::size_t n = 0;
        while (n < common.size() && n < parts.size() && common[n] == parts[n])
            ++n;
        common.resize(n);
    }
    const std::string path = joined(common, "/");
    return path.empty() ? "/" : path;
}

bool IngestEngine::isGenericFolder(const std::string& name) {
    static const std::set<std::string> generic{"clip",  "clips", "contents", "stream", "bdmv",  "private",
                                               "avchd", "dcim",  "video",    "movies", "media", "footage"};
    const std::string lower = Files::lowercased(name);
    return generic.contains(lower) || matchesClipsPattern(lower) || matchesNumberedFolder(lower);
}

std::string IngestEngine::trackName(const Url& url) {
    Url current = url;
    while (isGenericFolder(current.lastPathComponent())) {
        const Url parent = current.deletingLastPathComponent();
        if (parent == current || parent.path() == "/") break;
        const std::string lower = Files::lowercased(current.lastPathComponent());
        // A clips folder keeps its own name unless its parent is named like a card or a camera;
        // every other generic folder gives way to its parent.
        if ((lower == "clip" || lower == "clips" || matchesClipsPattern(lower)) &&
            !namedLikeCardOrCamera(parent.lastPathComponent()))
            break;
        current = parent;
    }
    if (Files::lowercased(current.pathExtension()) == "rdm") return current.baseName();
    return current.lastPathComponent();
}

std::string IngestEngine::uniqueName(const std::string& preferred, SourceType type,
                                     const std::vector<std::string>& existing) {
    static const std::set<std::string> genericTrackNames{"desktop", "downloads", "documents", "movies",
                                                         "music",   "videos",    "media"};
    const std::string base = genericTrackNames.contains(Files::lowercased(preferred))
                                 ? std::string(type == SourceType::video ? "CLIP" : "Mic")
                                 : firstCharacters(preferred, 40);
    auto taken = [&](const std::string& name) {
        return std::find(existing.begin(), existing.end(), name) != existing.end();
    };
    if (!taken(base)) return base;
    for (int n = 2;; ++n) {
        std::string candidate = base + " " + std::to_string(n);
        if (!taken(candidate)) return candidate;
    }
}

bool IngestEngine::chronologicalOrder(const Url& a, const Url& b) {
    const std::string na = a.lastPathComponent(), nb = b.lastPathComponent();
    if (const int c = localizedStandardCompare(na, nb); c != 0) return c < 0;
    const auto da = fileCreationDate(a.fsPath());
    const auto db = fileCreationDate(b.fsPath());
    if (da && db) return *da < *db;
    return na < nb;
}

SourceType IngestEngine::inferredType(const std::vector<ClipItem>& clips) {
    for (const auto& c : clips)
        if (c.pictureURL || isVideoExtension(c.url.pathExtension())) return SourceType::video;
    return SourceType::audio;
}

std::vector<TrackSource> IngestEngine::sortSources(std::vector<TrackSource> sources) {
    std::stable_sort(sources.begin(), sources.end(), [](const TrackSource& a, const TrackSource& b) {
        if (a.type != b.type) return a.type == SourceType::video;
        return localizedStandardCompare(a.name, b.name) < 0;
    });
    return sources;
}

std::optional<double> IngestEngine::pictureTimecode(const REDCard::Take& take) {
    if (!take.header) return std::nullopt;
    const auto& h = *take.header;
    const double rate = h.timeBase ? *h.timeBase : (h.recordFrameRate ? *h.recordFrameRate : 24.0);
    const auto& tc = h.todTimecode ? h.todTimecode : h.edgeTimecode;
    if (!tc) return std::nullopt;
    return REDCard::timecodeSeconds(*tc, rate);
}

void IngestEngine::recomputeOffsets(TrackSource& source) {
    double t = 0;
    for (auto& clip : source.clips) {
        clip.startOffset = t;
        t += clip.duration;
    }
}

std::vector<TrackSource> IngestEngine::ingest(const std::vector<Url>& urls, std::vector<TrackSource> into) {
    // 1. Camera cards first: they decide what counts as video and are added before loose files.
    std::map<std::string, std::vector<REDCard>> cardsByPath;
    for (const auto& url : urls) {
        auto cards = REDCard::cards(url);
        if (cards.empty()) continue;
        for (const auto& card : cards)
            logCard(card);
        cardsByPath[url.path()] = std::move(cards);
    }

    // Folders the walks could not search, told once for the whole drop.
    std::set<std::string> skipped;

    // 2. A dropped item holding both video and audio is a complete shoot, its own session.
    for (const auto& url : urls) {
        const auto kind = Files::kindOf(url.fsPath());
        const std::vector<Url> files = kind.isDirectory ? mediaFiles(url, &skipped) : std::vector<Url>{url};
        bool v = cardsByPath.contains(url.path()), a = false;
        for (const auto& f : files) {
            const std::string ext = f.pathExtension();
            v = v || isVideoExtension(ext);
            a = a || isAudioExtension(ext);
        }
        if (v && a) completeShootSessions.insert(url.path());
    }

    // 3. Everything else, over all drops, is one loose session at its common ancestor.
    std::vector<std::string> loosePaths;
    for (const auto& track : into) {
        if (completeShootSessions.contains(track.session)) continue;
        for (const auto& clip : track.clips)
            loosePaths.push_back(clip.url.path());
    }
    for (const auto& url : urls)
        if (!completeShootSessions.contains(url.path())) loosePaths.push_back(url.path());
    const std::string looseSession = commonAncestorPath(loosePaths);

    // 4. Session of each dropped path.
    std::map<std::string, std::string> sessionByPath;
    for (const auto& url : urls)
        sessionByPath[url.path()] = completeShootSessions.contains(url.path()) ? url.path() : looseSession;

    // 5. Queue the groups.
    std::vector<QueuedCard> queuedCards;
    std::vector<Group> lockedGroups, unlockedGroups;
    for (const auto& url : urls) {
        const auto kind = Files::kindOf(url.fsPath());
        EngineLog::logf("[Drop] '%s' isDir=%s", url.path(), kind.isDirectory ? "true" : "false");
        const auto found = sessionByPath.find(url.path());
        const std::string session =
            found != sessionByPath.end() ? found->second : url.deletingLastPathComponent().path();
        if (const auto cards = cardsByPath.find(url.path()); cards != cardsByPath.end())
            for (const auto& card : cards->second)
                queuedCards.push_back({card, session});

        if (kind.isDirectory) {
            const auto leaves = leafMediaFolders(url, &skipped);
            std::vector<std::string> leafNames;
            for (const auto& leaf : leaves)
                leafNames.push_back(leaf.lastPathComponent());
            EngineLog::log("[Drop]   leaves: " + printedList(leafNames));
            const bool onlyItself = leaves.size() < 2 && std::all_of(leaves.begin(), leaves.end(),
                                                                     [&](const Url& l) { return l == url; });
            if (onlyItself) {
                unlockedGroups.push_back({trackName(url), directMedia(url), false, session});
            } else {
                for (const auto& leaf : leaves) {
                    auto files = directMedia(leaf);
                    if (!files.empty())
                        lockedGroups.push_back({trackName(leaf), std::move(files), true, session});
                }
            }
        } else if (isAcceptedExtension(url.pathExtension())) {
            unlockedGroups.push_back({url.baseName(), {url}, false, session});
        }
    }

    if (!skipped.empty()) {
        EngineLog::logf("[Drop] %d folder(s) not searched — they can't be read, lie deeper than %d folders "
                        "or have a path too long: %s",
                        static_cast<int>(skipped.size()), kMaxFolderDepth,
                        printedList(std::vector<std::string>(skipped.begin(), skipped.end())));
        skippedFolders.insert(skipped.begin(), skipped.end());
    }

    // 6. Files already in the session. Deliberately not updated while groups are added: a file
    // dropped together with its folder lands in both groups.
    std::unordered_set<Url> existing;
    for (const auto& track : into)
        for (const auto& clip : track.clips)
            existing.insert(clip.url);

    auto addREDCard = [&](const REDCard& card, const std::string& session) {
        std::vector<ClipItem> clips;
        std::optional<std::string> model;
        for (const auto& take : card.takes) {
            if (!model && take.header && take.header->model) model = take.header->model;
            const Url url = take.wav ? *take.wav : take.picture;
            if (existing.contains(url)) continue;
            ClipItem clip = newClip(url);
            // Without a sidecar WAV the picture file is the clip's only file, so picture fields
            // would describe the clip's own url: they stay unset.
            if (take.wav) {
                clip.pictureURL = take.picture;
                clip.pictureFrames = take.pictureFrames;
                if (take.header) {
                    if (take.header->recordFrameRate)
                        clip.recordFrameRate = static_cast<float>(*take.header->recordFrameRate);
                    if (take.header->timeBase)
                        clip.conformFrameRate = static_cast<float>(*take.header->timeBase);
                    clip.pixelWidth = take.header->width;
                    clip.pixelHeight = take.header->height;
                }
                clip.pictureTimecode = pictureTimecode(take);
            }
            clips.push_back(std::move(clip));
        }
        if (clips.empty()) return;
        TrackSource track;
        track.id = newTrackId("card", clips, into);
        track.name = uniqueName(card.root.baseName(), SourceType::video, trackNames(into));
        track.type = SourceType::video;
        track.clips = std::move(clips);
        track.session = session;
        track.lockedGrouping = true; // device splitting leaves a card whole
        track.deviceName = model;
        into.push_back(std::move(track));
    };

    auto addGroup = [&](const Group& group) {
        std::vector<Url> files;
        for (const auto& f : group.files)
            if (!existing.contains(f)) files.push_back(f);
        if (files.empty()) return;
        std::stable_sort(files.begin(), files.end(), chronologicalOrder);
        const bool video = std::any_of(files.begin(), files.end(),
                                       [](const Url& f) { return isVideoExtension(f.pathExtension()); });
        TrackSource track;
        track.type = video ? SourceType::video : SourceType::audio;
        track.name = uniqueName(group.name, track.type, trackNames(into));
        for (const auto& f : files)
            track.clips.push_back(newClip(f));
        track.id = newTrackId("folder", track.clips, into);
        track.session = group.session;
        track.lockedGrouping = group.locked;
        into.push_back(std::move(track));
    };

    // 7. Cards, then locked groups, then unlocked ones.
    for (const auto& q : queuedCards)
        addREDCard(q.card, q.session);
    for (const auto& g : lockedGroups)
        addGroup(g);
    for (const auto& g : unlockedGroups)
        addGroup(g);

    // 8. Loose material of earlier drops joins the new loose session.
    for (auto& track : into)
        if (!completeShootSessions.contains(track.session)) track.session = looseSession;
    return into;
}

} // namespace trelvane
