// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/ingest/TextSyncStore.hpp"

#include "TrelvaneEngine/ingest/IngestEngine.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/UserDirs.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <locale.h>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>
#include <wctype.h>

namespace trelvane {

namespace {

using Json = nlohmann::json;

// ---- Unicode text ----------------------------------------------------------------------------

// Character classes come from the C.UTF-8 locale, opened per use so that nothing process-wide is
// touched; without it, ASCII rules stand in.
struct LocaleDeleter {
    void operator()(std::remove_pointer_t<locale_t>* l) const { freelocale(l); }
};
using LocaleHandle = std::unique_ptr<std::remove_pointer_t<locale_t>, LocaleDeleter>;

LocaleHandle utf8Locale() {
    return LocaleHandle(newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr)));
}

// One scalar of UTF-8 at `i`, advancing `i`; -1 for a byte that does not start a well-formed
// sequence (the byte alone is consumed).
long nextScalar(std::string_view s, std::size_t& i) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) {
        ++i;
        return b0;
    }
    int len = 0;
    long cp = 0;
    long min = 0;
    if ((b0 & 0xE0) == 0xC0) {
        len = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        len = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        len = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        ++i;
        return -1;
    }
    if (i + static_cast<std::size_t>(len) > s.size()) {
        ++i;
        return -1;
    }
    for (int k = 1; k < len; ++k) {
        const auto b = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
        if ((b & 0xC0) != 0x80) {
            ++i;
            return -1;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return -1;
    }
    i += static_cast<std::size_t>(len);
    return cp;
}

void appendScalar(std::string& out, long cp) {
    const auto u = static_cast<std::uint32_t>(cp);
    if (u < 0x80) {
        out += static_cast<char>(u);
    } else if (u < 0x800) {
        out += static_cast<char>(0xC0 | (u >> 6));
        out += static_cast<char>(0x80 | (u & 0x3F));
    } else if (u < 0x10000) {
        out += static_cast<char>(0xE0 | (u >> 12));
        out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (u & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (u >> 18));
        out += static_cast<char>(0x80 | ((u >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (u & 0x3F));
    }
}

bool isWhitespaceOrNewline(long cp) {
    return (cp >= 0x09 && cp <= 0x0D) || cp == 0x20 || cp == 0x85 || cp == 0xA0 || cp == 0x1680 ||
           (cp >= 0x2000 && cp <= 0x200A) || cp == 0x2028 || cp == 0x2029 || cp == 0x202F || cp == 0x205F ||
           cp == 0x3000;
}

bool isAlphanumeric(long cp, locale_t loc) {
    if (cp < 0x80 || !loc)
        return (cp >= '0' && cp <= '9') || (cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z');
    return iswalnum_l(static_cast<wint_t>(cp), loc) != 0;
}

// Lower case by scalar, so that names from the file and names of tracks meet whatever their case.
// Bytes that are not UTF-8 are kept as they are.
std::string lowered(std::string_view s, locale_t loc) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t at = i;
        const long cp = nextScalar(s, i);
        if (cp < 0)
            out += s[at];
        else if (cp < 0x80)
            out += (cp >= 'A' && cp <= 'Z') ? static_cast<char>(cp + 32) : static_cast<char>(cp);
        else if (!loc)
            out.append(s.substr(at, i - at));
        else
            appendScalar(out, static_cast<long>(towlower_l(static_cast<wint_t>(cp), loc)));
    }
    return out;
}

// ---- Decoding ----------------------------------------------------------------------------------

// Every way a document can be wrong ends here; decodeRegionsFile turns it into "no file".
[[noreturn]] void reject(const char* what) {
    throw std::invalid_argument(what);
}

const Json& requiredMember(const Json& obj, const char* key) {
    const auto it = obj.find(key);
    if (it == obj.end()) reject("missing key");
    return *it;
}

// An optional key counts as absent when it is missing or null.
const Json* optionalMember(const Json& obj, const char* key) {
    const auto it = obj.find(key);
    if (it == obj.end() || it->is_null()) return nullptr;
    return &*it;
}

void asObject(const Json& j) {
    if (!j.is_object()) reject("not an object");
}

std::string asString(const Json& j) {
    if (!j.is_string()) reject("not a string");
    return j.get<std::string>();
}

int asInt(const Json& j) {
    if (j.is_number_unsigned()) {
        const auto v = j.get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) reject("integer out of range");
        return static_cast<int>(v);
    }
    if (j.is_number_integer()) {
        const auto v = j.get<std::int64_t>();
        if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max())
            reject("integer out of range");
        return static_cast<int>(v);
    }
    reject("not an integer");
}

double asNumber(const Json& j) {
    if (!j.is_number()) reject("not a number");
    const double v = j.get<double>();
    if (!std::isfinite(v)) reject("number out of range");
    return v;
}

template <typename F> auto asArray(const Json& j, F element) {
    if (!j.is_array()) reject("not an array");
    std::vector<decltype(element(j))> out;
    out.reserve(j.size());
    for (const auto& e : j)
        out.push_back(element(e));
    return out;
}

TextSyncStore::TextSyncEdge decodeEdge(const Json& j) {
    asObject(j);
    TextSyncStore::TextSyncEdge e;
    e.a = asString(requiredMember(j, "a"));
    e.b = asString(requiredMember(j, "b"));
    e.support = asInt(requiredMember(j, "support"));
    e.approxOffsetSec = asNumber(requiredMember(j, "approx_offset_sec"));
    if (const auto* r = optionalMember(j, "time_range_a")) e.timeRangeA = asArray(*r, asNumber);
    if (const auto* r = optionalMember(j, "time_range_b")) e.timeRangeB = asArray(*r, asNumber);
    return e;
}

TextSyncStore::TextSyncRegion decodeRegion(const Json& j) {
    asObject(j);
    TextSyncStore::TextSyncRegion r;
    r.regionKey = asString(requiredMember(j, "region_key"));
    r.label = asString(requiredMember(j, "label"));
    r.trackNames = asArray(requiredMember(j, "track_names"), asString);
    if (const auto* e = optionalMember(j, "support_edges")) r.supportEdges = asArray(*e, decodeEdge);
    return r;
}

TextSyncStore::TextSyncPair decodePair(const Json& j) {
    asObject(j);
    TextSyncStore::TextSyncPair p;
    p.a = asString(requiredMember(j, "a"));
    p.b = asString(requiredMember(j, "b"));
    if (const auto* m = optionalMember(j, "match_count")) p.matchCount = asInt(*m);
    if (const auto* b = optionalMember(j, "best")) {
        asObject(*b);
        p.best = TextSyncStore::TextSyncEdgeBest{asNumber(requiredMember(*b, "approx_offset_sec")),
                                                 asInt(requiredMember(*b, "support"))};
    }
    return p;
}

// ---- Files ---------------------------------------------------------------------------------------

bool isRegularFile(const std::filesystem::path& p) {
    std::error_code ec;
    // Following links, as the tool may link the file in; a FIFO or device would block or never end.
    return std::filesystem::is_regular_file(p, ec) && !ec;
}

// The file's bytes, or nothing when it can't be read or is larger than any regions file.
std::optional<std::string> readBounded(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes;
    char buffer[65536];
    while (in) {
        in.read(buffer, sizeof buffer);
        bytes.append(buffer, static_cast<std::size_t>(in.gcount()));
        if (bytes.size() > TextSyncStore::kMaxFileBytes) return std::nullopt;
    }
    if (in.bad()) return std::nullopt;
    return bytes;
}

// "/shoots/day1/" -> "day1"; "" and "/" -> "".
std::string lastComponent(std::string path) {
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The session's tracks by lower-cased name; the first track of a name wins.
std::map<std::string, int> tracksByLoweredName(const std::vector<TrackSource>& sources,
                                               const std::vector<int>& indices, locale_t loc) {
    std::map<std::string, int> out;
    for (const int i : indices)
        out.try_emplace(lowered(sources[static_cast<std::size_t>(i)].name, loc), i);
    return out;
}

std::vector<int> sessionIndices(const std::vector<TrackSource>& sources, const std::string& session) {
    std::vector<int> out;
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (sources[i].session == session) out.push_back(static_cast<int>(i));
    return out;
}

} // namespace

namespace TextSyncStore {

std::optional<Url> envRegionsURL() {
    const char* v = std::getenv(kRegionsEnvVariable);
    if (!v || v[0] == '\0') return std::nullopt;
    return Url::fromPath(std::string(v));
}

std::string sanitizeSession(const std::string& session) {
    const LocaleHandle loc = utf8Locale();
    // Trim by scalar from both ends: find the first and last scalar that is not white space.
    std::size_t begin = 0, end = 0;
    bool seen = false;
    for (std::size_t i = 0; i < session.size();) {
        const std::size_t at = i;
        const long cp = nextScalar(session, i);
        if (cp >= 0 && isWhitespaceOrNewline(cp)) continue;
        if (!seen) begin = at;
        seen = true;
        end = i;
    }
    if (!seen) return {};
    const std::string_view core = std::string_view(session).substr(begin, end - begin);
    std::string out;
    out.reserve(core.size());
    for (std::size_t i = 0; i < core.size();) {
        const std::size_t at = i;
        const long cp = nextScalar(core, i);
        if (cp == '-' || cp == '_' || (cp >= 0 && isAlphanumeric(cp, loc.get())))
            out.append(core.substr(at, i - at));
        else
            out += '_';
    }
    return out;
}

std::optional<TextSyncRegionsFile> decodeRegionsFile(std::string_view bytes) {
    if (bytes.size() > kMaxFileBytes) return std::nullopt;
    try {
        // The parser itself does not recurse, but the tree it builds would be walked recursively
        // later on; a regions file is four levels deep, so anything deeper is refused outright.
        const Json::parser_callback_t limitDepth = [](int depth, Json::parse_event_t, Json&) {
            if (depth > kMaxNestingDepth) throw std::length_error("nesting too deep");
            return true;
        };
        const Json doc = Json::parse(bytes.begin(), bytes.end(), limitDepth);
        asObject(doc);
        TextSyncRegionsFile file;
        if (const auto* m = optionalMember(doc, "min_support")) file.minSupport = asInt(*m);
        if (const auto* n = optionalMember(doc, "ngram")) file.ngram = asInt(*n);
        file.regions = asArray(requiredMember(doc, "regions"), decodeRegion);
        if (const auto* p = optionalMember(doc, "pairs")) file.pairs = asArray(*p, decodePair);
        return file;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<LoadedRegions> loadRegionsFile(const std::string& session) {
    std::vector<Url> candidates;
    if (auto env = envRegionsURL()) candidates.push_back(std::move(*env));
    const auto textsync = UserDirs::cacheDir() / "textsync";
    candidates.push_back(Url::fromPath(textsync / sanitizeSession(session) / "regions.json"));
    if (const auto leaf = lastComponent(session); !leaf.empty())
        candidates.push_back(Url::fromPath(textsync / leaf / "regions.json"));

    std::set<Url> tried;
    for (const auto& url : candidates) {
        if (!tried.insert(url).second) continue;
        if (!isRegularFile(url.fsPath())) continue;
        const auto bytes = readBounded(url.fsPath());
        auto file = bytes ? decodeRegionsFile(*bytes) : std::nullopt;
        if (!file) {
            EngineLog::logf("[TextSync] failed to decode %s", url.path());
            continue;
        }
        EngineLog::logf("[TextSync] loaded %d region(s) from %s", static_cast<int>(file->regions.size()),
                        url.path());
        return LoadedRegions{url, std::move(*file)};
    }
    return std::nullopt;
}

} // namespace TextSyncStore

std::optional<std::vector<DayRegionProposal>>
IngestEngine::detectDayRegionsFromTextSync(const std::vector<TrackSource>& sources,
                                           const std::string& session, const std::vector<int>& indices) {
    const auto loaded = TextSyncStore::loadRegionsFile(session);
    if (!loaded || loaded->file.regions.size() < 2) return std::nullopt;
    const LocaleHandle loc = utf8Locale();

    std::set<std::string> named;
    for (const auto& r : loaded->file.regions)
        for (const auto& n : r.trackNames)
            named.insert(lowered(n, loc.get()));

    const bool namesACamera = std::any_of(indices.begin(), indices.end(), [&](int i) {
        const auto& t = sources[static_cast<std::size_t>(i)];
        return t.type == SourceType::video && named.contains(lowered(t.name, loc.get()));
    });
    if (!namesACamera) {
        // Speech shared between recorders alone says nothing about which day a camera shot.
        EngineLog::logf(
            "[TextSync] audio-only regions for '%s' — skip day-region split (keep one camera chain "
            "+ unlinked banquet audio)",
            session);
        return std::vector<DayRegionProposal>{};
    }

    const auto byName = tracksByLoweredName(sources, indices, loc.get());
    std::vector<DayRegionProposal> proposals;
    for (const auto& r : loaded->file.regions) {
        DayRegionProposal p;
        p.session = session;
        p.regionKey = r.regionKey;
        p.label = r.label;
        p.rangeOverride = TextSyncStore::kRangeOverride;
        for (const auto& n : r.trackNames) {
            const auto it = byName.find(lowered(n, loc.get()));
            if (it == byName.end()) {
                EngineLog::logf("[TextSync] region '%s': no track named '%s'", r.regionKey, n);
                continue;
            }
            const auto& t = sources[static_cast<std::size_t>(it->second)];
            if (std::find(p.trackIDs.begin(), p.trackIDs.end(), t.id) != p.trackIDs.end()) continue;
            p.trackIDs.push_back(t.id);
            p.trackNames.push_back(t.name);
            for (const auto& c : t.clips)
                p.clipIDs.push_back(c.id);
        }
        p.clipCount = static_cast<int>(p.clipIDs.size());
        EngineLog::logf("[Ingest] day-region propose '%s' [text-sync]: %d track(s), %d clip(s)", p.regionKey,
                        static_cast<int>(p.trackIDs.size()), p.clipCount);
        proposals.push_back(std::move(p));
    }
    return proposals;
}

std::vector<TrackSource> IngestEngine::attachTextSyncPriors(std::vector<TrackSource> sources,
                                                            const std::string& session) {
    const auto loaded = TextSyncStore::loadRegionsFile(session);
    if (!loaded) return sources;
    const auto& file = loaded->file;
    const LocaleHandle loc = utf8Locale();
    const auto byName = tracksByLoweredName(sources, sessionIndices(sources, session), loc.get());
    auto find = [&](const TextSyncStore::TextSyncRegion& r, const std::string& name) -> std::optional<int> {
        const auto it = byName.find(lowered(name, loc.get()));
        if (it != byName.end()) return it->second;
        EngineLog::logf("[TextSync] region '%s': no track named '%s'", r.regionKey, name);
        return std::nullopt;
    };

    // One offset per pair of tracks: where the file gives a pair twice (two regions), the edge with
    // the most support stands, the first of equals. Edges below the tool's own `min_support` are
    // left out: they contradict the file's header, so the file is not sure of them either.
    struct Use {
        int a, b;
        double offset;
        int support;
    };
    std::vector<Use> uses;
    for (const auto& r : file.regions) {
        if (!r.supportEdges) continue;
        for (const auto& e : *r.supportEdges) {
            if (file.minSupport && e.support < *file.minSupport) continue;
            const auto a = find(r, e.a);
            const auto b = find(r, e.b);
            if (!a || !b || *a == *b) continue;
            const auto same = std::find_if(uses.begin(), uses.end(), [&](const Use& u) {
                return (u.a == *a && u.b == *b) || (u.a == *b && u.b == *a);
            });
            if (same == uses.end())
                uses.push_back({*a, *b, e.approxOffsetSec, e.support});
            else if (e.support > same->support)
                *same = {*a, *b, e.approxOffsetSec, e.support};
        }
    }
    for (const auto& u : uses) {
        auto& ta = sources[static_cast<std::size_t>(u.a)];
        auto& tb = sources[static_cast<std::size_t>(u.b)];
        ta.textSyncOffsetByPeer[tb.name] = u.offset;
        tb.textSyncOffsetByPeer[ta.name] = -u.offset;
        EngineLog::logf("[TextSync] offset '%s'↔'%s' = %.2fs (support=%d)", ta.name, tb.name, u.offset,
                        u.support);
    }
    return sources;
}

std::vector<TrackSource> IngestEngine::attachTextSyncOffsets(const std::vector<DayRegionProposal>& proposals,
                                                             std::vector<TrackSource> sources) {
    std::vector<std::string> sessions;
    for (const auto& p : proposals)
        if (std::find(sessions.begin(), sessions.end(), p.session) == sessions.end())
            sessions.push_back(p.session);
    for (const auto& s : sessions)
        sources = attachTextSyncPriors(std::move(sources), s);
    return sources;
}

} // namespace trelvane
