// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/SessionJson.hpp"
#include "TrelvaneEngine/support/Utf8.hpp"

namespace trelvane::SessionJson {

namespace {

using nlohmann::json;

template <typename T> json opt(const std::optional<T>& v) {
    return v ? json(*v) : json(nullptr);
}
json opt(const std::optional<Uuid>& v) {
    return v ? json(v->string()) : json(nullptr);
}
json opt(const std::optional<Date>& v) {
    return v ? json(iso8601(*v)) : json(nullptr);
}

json encodeClip(const ClipItem& c) {
    json o{
        {"id", c.id.string()},
        {"duration", c.duration},
        {"startOffset", c.startOffset},
        {"syncStatus", rawValue(c.syncStatus)},
        {"matchScore", opt(c.matchScore)},
        {"placementPass", c.placementPass ? json(rawValue(*c.placementPass)) : json(nullptr)},
        {"placementNote", opt(c.placementNote)},
        {"frameRate", opt(c.frameRate)},
        {"recordFrameRate", opt(c.recordFrameRate)},
        {"conformFrameRate", opt(c.conformFrameRate)},
        {"pictureFrames", opt(c.pictureFrames)},
        {"pictureTimecode", opt(c.pictureTimecode)},
        {"pixelWidth", opt(c.pixelWidth)},
        {"pixelHeight", opt(c.pixelHeight)},
        {"startTimecode", opt(c.startTimecode)},
        {"tcDisagrees", c.tcDisagrees},
        {"channelCount", c.channelCount},
        {"audioChannelIndices", c.audioChannelIndices},
        {"deviceName", opt(c.deviceName)},
        {"recordingDate", opt(c.recordingDate)},
        {"clockQuality", rawName(c.clockQuality)},
        {"dayRegion", opt(c.dayRegion)},
        {"audioUsability", rawValue(c.audioUsability)},
        {"audioProblem", opt(c.audioProblem)},
        {"audioCutShort", c.audioCutShort},
        {"siblingLeaderID", opt(c.siblingLeaderID)},
        {"driftPPM", opt(c.driftPPM)},
        {"driftUncertaintyPPM", opt(c.driftUncertaintyPPM)},
        {"refinementNote", opt(c.refinementNote)},
        {"placementExplanation", c.placementExplanation()},
        {"failureBucket", opt(c.failureBucket())},
    };
    setPath(o, "url", c.url.path());
    if (c.pictureURL)
        setPath(o, "pictureURL", c.pictureURL->path());
    else
        o["pictureURL"] = nullptr;
    return o;
}

json encodeTrack(const TrackSource& t) {
    json clips = json::array();
    for (const auto& c : t.clips)
        clips.push_back(encodeClip(c));
    json o{
        {"id", t.id.string()},
        {"name", t.name},
        {"type", rawValue(t.type)},
        {"deviceName", opt(t.deviceName)},
        {"lockedGrouping", t.lockedGrouping},
        {"cameraGroup", opt(t.cameraGroup)},
        {"dayRegion", opt(t.dayRegion)},
        {"siblingOf", opt(t.siblingOf)},
        {"textSyncOffsetByPeer", t.textSyncOffsetByPeer},
        {"forceReference", t.forceReference},
        {"isMuted", t.isMuted},
        {"subtitle", t.subtitle()},
        {"clips", std::move(clips)},
    };
    setPath(o, "session", t.session);
    return o;
}

} // namespace

void setPath(json& object, const std::string& key, const std::string& path) {
    object[key] = path;
    if (!Utf8::isValid(path)) object[key + "Bytes"] = percentEncoded(path, UrlChars::printable);
}

nlohmann::json encode(const std::vector<TrackSource>& sources) {
    json tracks = json::array();
    for (const auto& t : sources)
        tracks.push_back(encodeTrack(t));
    return json{{"tracks", std::move(tracks)}};
}

std::string dump(const std::vector<TrackSource>& sources) {
    return encode(sources).dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace trelvane::SessionJson
