// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <fmt/printf.h>

namespace trelvane {

namespace {

template <typename E, std::size_t N>
std::optional<E> fromRaw(std::string_view raw, const std::array<std::pair<E, std::string_view>, N>& table) {
    for (const auto& [value, name] : table)
        if (name == raw) return value;
    return std::nullopt;
}

template <typename E, std::size_t N>
std::string_view toRaw(E v, const std::array<std::pair<E, std::string_view>, N>& table) {
    for (const auto& [value, name] : table)
        if (value == v) return name;
    return {};
}

constexpr std::array<std::pair<SourceType, std::string_view>, 2> kSourceTypes{
    {{SourceType::video, "video"}, {SourceType::audio, "audio"}}};
constexpr std::array<std::pair<SyncStatus, std::string_view>, 4> kSyncStatuses{
    {{SyncStatus::pending, "pending"},
     {SyncStatus::synced, "synced"},
     {SyncStatus::weak, "weak"},
     {SyncStatus::failed, "failed"}}};
constexpr std::array<std::pair<AudioUsability, std::string_view>, 4> kUsabilities{
    {{AudioUsability::ok, "ok"},
     {AudioUsability::none, "none"},
     {AudioUsability::silent, "silent"},
     {AudioUsability::undecodable, "undecodable"}}};
constexpr std::array<std::pair<SyncMode, std::string_view>, 2> kSyncModes{
    {{SyncMode::tracks, "tracks"}, {SyncMode::stacks, "stacks"}}};
constexpr std::array<std::pair<ClockQuality, std::string_view>, 5> kClockQualities{
    {{ClockQuality::none, "none"},
     {ClockQuality::filesystem, "filesystem"},
     {ClockQuality::asset, "asset"},
     {ClockQuality::filename, "filename"},
     {ClockQuality::embedded, "embedded"}}};

// The line of a clip that no pass explains by itself.
const char* statusLine(SyncStatus status) {
    switch (status) {
    case SyncStatus::pending:
        return "Not placed yet";
    case SyncStatus::synced:
        return "Strong audio match";
    case SyncStatus::weak:
        return "Weak audio match — check by ear";
    case SyncStatus::failed:
        return "Audio match below the confidence floor";
    }
    return "";
}

// Placements whose score proves nothing about the position, so the line leaves it out.
bool placedWithoutScore(std::optional<PlacementPass> pass) {
    using enum PlacementPass;
    if (!pass) return false;
    return *pass == reference || *pass == interpolated || *pass == interpolatedNoAudio || *pass == clock ||
           *pass == unlinkedBackup;
}

std::string upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    return s;
}

} // namespace

std::string_view rawValue(SourceType v) {
    return toRaw(v, kSourceTypes);
}
std::string_view rawValue(SyncStatus v) {
    return toRaw(v, kSyncStatuses);
}
std::string_view rawValue(AudioUsability v) {
    return toRaw(v, kUsabilities);
}
std::string_view rawValue(SyncMode v) {
    return toRaw(v, kSyncModes);
}
float standardFrameRate(float fps) {
    static constexpr float kRates[] = {23.976f, 24.0f, 25.0f, 29.97f, 30.0f, 50.0f, 59.94f, 60.0f};
    float best = kRates[0];
    // Ascending table and a strict test: at equal distance the lower rate stays.
    for (const float rate : kRates)
        if (std::fabs(rate - fps) < std::fabs(best - fps)) best = rate;
    return best;
}

std::string_view rawName(ClockQuality v) {
    return toRaw(v, kClockQualities);
}

std::optional<SourceType> sourceTypeFromRaw(std::string_view raw) {
    return fromRaw(raw, kSourceTypes);
}
std::optional<SyncStatus> syncStatusFromRaw(std::string_view raw) {
    return fromRaw(raw, kSyncStatuses);
}
std::optional<AudioUsability> audioUsabilityFromRaw(std::string_view raw) {
    return fromRaw(raw, kUsabilities);
}
std::optional<SyncMode> syncModeFromRaw(std::string_view raw) {
    return fromRaw(raw, kSyncModes);
}
std::optional<ClockQuality> clockQualityFromRaw(int raw) {
    if (raw < 0 || raw > 4) return std::nullopt;
    return static_cast<ClockQuality>(raw);
}

double ClipItem::pictureDuration() const {
    if (!pictureURL) return duration;
    if (pictureFrames && recordFrameRate && *recordFrameRate > 0)
        return static_cast<double>(*pictureFrames) / static_cast<double>(*recordFrameRate);
    // The sidecar audio of a take runs this much longer than its picture.
    return std::max(0.0, duration - 0.512);
}

std::string ClipItem::placementExplanation() const {
    switch (audioUsability) {
    case AudioUsability::none:
        return "No audio track in this file — placed by clock or between neighbours";
    case AudioUsability::silent:
        return "Audio track is silent — placed by clock or between neighbours";
    case AudioUsability::undecodable:
        if (audioProblem)
            return "Sound can't be read (" + *audioProblem + ") — placed by clock or between neighbours";
        return "Format not decodable on this Mac — placed by clock or between neighbours";
    case AudioUsability::ok:
        break;
    }

    std::string line;
    using enum PlacementPass;
    switch (placementPass.value_or(interpolated)) {
    case reference:
        line = "Reference track — everything else is measured against it";
        break;
    case linkedBackup:
        line = "Long recorder linked to the reference by content consensus";
        break;
    case unlinkedBackup:
        line = "Long recorder with no audio in common with the reference — placed after it";
        break;
    case clock:
        line = "No audio match nearby — placed by the device clock";
        break;
    case interpolated:
    case interpolatedNoAudio:
        line = duration >= kShortestMatchableClip
                   ? std::string("No matching audio nearby — placed between neighbours")
                   : fmt::sprintf("Shorter than %.0f s — not compared, placed between neighbours",
                                  kShortestMatchableClip);
        break;
    case stackAlone:
        line = "No other take shares this audio — placed in shooting order";
        break;
    case stack:
        line = "Stacked with takes sharing the same audio";
        break;
    case siblingCamera:
        line = "Placed alongside a matched clip from the same camera";
        break;
    case cameraCross:
        line = "Matched a sibling camera — no external recorder nearby";
        break;
    case cameraCluster:
        line = "Synced only against other cameras — no external recorder nearby";
        break;
    case brollRescue:
        line = "Long take placed via nearby B-roll";
        break;
    default:
        line = statusLine(syncStatus);
    }

    if (matchScore && !placedWithoutScore(placementPass)) line += fmt::sprintf(" · score %.1f", *matchScore);
    if (placementNote && !placementNote->empty()) line += " · " + *placementNote;
    if (tcDisagrees) line += " · timecode disagrees with the audio position";
    if (refinementNote && !refinementNote->empty()) line += " · " + *refinementNote;
    if (audioCutShort) line += fmt::sprintf(" · file cut short — its sound ends after %.1f s", duration);
    return line;
}

std::optional<double> ClipItem::driftSpeed(double frameSeconds) const {
    if (!driftPPM || !(frameSeconds > 0)) return std::nullopt;
    if (std::abs(*driftPPM) * 1e-6 * duration < frameSeconds / 4) return std::nullopt;
    return 1.0 / (1.0 + *driftPPM * 1e-6);
}

double ClipItem::timelineDuration(double frameSeconds) const {
    const auto speed = driftSpeed(frameSeconds);
    return speed ? duration / *speed : duration;
}

std::optional<std::string> ClipItem::failureBucket() const {
    if (syncStatus != SyncStatus::failed) return std::nullopt;
    if (audioUsability != AudioUsability::ok) return std::string("no usable audio");
    if (duration < kShortestMatchableClip) return fmt::sprintf("shorter than %.0f s", kShortestMatchableClip);
    switch (placementPass.value_or(PlacementPass::interpolated)) {
    case PlacementPass::interpolated:
    case PlacementPass::interpolatedNoAudio:
        return std::string("no audio nearby");
    case PlacementPass::clock:
        return std::string("placed by clock");
    case PlacementPass::stackAlone:
        return std::string("no matching take");
    default:
        return std::string("not found");
    }
}

std::string TrackSource::subtitle() const {
    const std::size_t n = clips.size();
    std::string s = std::to_string(n) + " clip" + (n == 1 ? "" : "s") + "  ·  ";
    if (!clips.empty()) {
        const ClipItem& first = clips.front();
        s += upper(first.pictureURL ? first.pictureURL->pathExtension() : first.url.pathExtension());
    }
    return s;
}

std::string DayRegionProposal::timeRangeHint() const {
    if (rangeOverride) return *rangeOverride;
    if (startDate && endDate) return formatClockTime(*startDate) + " – " + formatClockTime(*endDate);
    return "time unknown";
}

} // namespace trelvane
