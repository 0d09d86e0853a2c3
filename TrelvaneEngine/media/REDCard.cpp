// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrelvaneEngine/media/REDCard.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <system_error>

namespace trelvane {

namespace {

// Real card layouts are a few levels deep; the cap ends a hostile tree or a bind mount that loops
// back on itself, which the no-links rule of the listing can't see.
constexpr int kMaxCardDepth = 32;

// Enough for any real field and small enough that the digits can't overflow an int.
constexpr std::size_t kMaxTimecodeFieldDigits = 9;

bool hasExtension(const Url& url, std::string_view lowerExt) {
    return Files::lowercased(url.pathExtension()) == lowerExt;
}

// Following links: a chunk may be a link to a file on another volume, but a link to a folder, a
// pipe or a device is no chunk (reading a pipe would block).
bool isRegularFile(const std::filesystem::path& path) {
    std::error_code ec;
    return std::filesystem::is_regular_file(path, ec);
}

std::optional<REDCard::Take> take(const Url& folder) {
    const auto entries = Files::listDirectory(folder.fsPath());
    if (!entries) return std::nullopt;
    REDCard::Take t;
    t.folder = folder;
    std::optional<Url> firstChunk, numberOne;
    for (const auto& e : *entries) {
        if (e.isDirectory || !isRegularFile(e.path)) continue;
        const Url url = Url::fromPath(e.path);
        if (hasExtension(url, "r3d")) {
            ++t.chunkCount;
            std::error_code ec;
            const auto size = std::filesystem::file_size(e.path, ec);
            if (!ec) t.byteCount += size;
            if (!firstChunk) firstChunk = url;
            // The camera numbers chunks from _001; a stray file that sorts first must not become
            // the picture.
            if (!numberOne && url.baseName().ends_with("_001")) numberOne = url;
        } else if (!t.wav && hasExtension(url, "wav")) {
            t.wav = url;
        }
    }
    if (!firstChunk) return std::nullopt;
    t.picture = numberOne ? *numberOne : *firstChunk;
    t.header = R3DHeader::read(t.picture);
    return t;
}

void collectCards(const Url& folder, int depth, std::vector<REDCard>& out) {
    const auto entries = Files::listDirectory(folder.fsPath());
    if (!entries) return;
    REDCard card;
    card.root = folder;
    std::vector<Url> subfolders;
    // Only real folders (Entry::isDirectory does not follow links): a link back up the tree can
    // then never make the walk loop, and a linked take can't be counted twice.
    for (const auto& e : *entries) {
        if (!e.isDirectory) continue;
        const Url url = Url::fromPath(e.path);
        if (hasExtension(url, "rdc")) {
            if (auto t = take(url)) card.takes.push_back(std::move(*t));
        } else {
            subfolders.push_back(url);
        }
    }
    // Whatever its own name: a card copied off the camera is often renamed or put in a plain folder.
    if (!card.takes.empty()) out.push_back(std::move(card));
    if (depth >= kMaxCardDepth) return;
    for (const auto& sub : subfolders)
        collectCards(sub, depth + 1, out);
}

// A non-empty run of at most kMaxTimecodeFieldDigits digits.
std::optional<int> timecodeField(std::string_view field) {
    if (field.empty() || field.size() > kMaxTimecodeFieldDigits) return std::nullopt;
    int value = 0;
    for (const char c : field) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

} // namespace

bool REDCard::isTakeFolder(const Url& url) {
    return hasExtension(url, "rdc") && Files::kindOf(url.fsPath()).isDirectory;
}

std::vector<REDCard> REDCard::cards(const Url& in) {
    if (in.isEmpty()) return {};
    if (isTakeFolder(in)) {
        auto t = take(in);
        if (!t) return {};
        REDCard card;
        card.root = in;
        card.takes.push_back(std::move(*t));
        return {std::move(card)};
    }
    // A dropped link to a folder is that folder; only links met inside the walk are skipped.
    if (!Files::kindOf(in.fsPath()).isDirectory) return {};
    std::vector<REDCard> out;
    collectCards(in, 0, out);
    return out;
}

std::optional<double> REDCard::timecodeSeconds(std::string_view timecode, double fps) {
    if (!std::isfinite(fps) || fps <= 0) return std::nullopt;
    // Frames count at the whole rate the label was written at (30 for 29.97), and the result is
    // the label read as a clock, not elapsed real time: every device's timecode is compared on
    // that same label clock, so drop-frame labels are not corrected here. Kept as a double so that
    // an absurd fps can't overflow an integer.
    const double nominal = std::max(1.0, std::round(fps));

    std::array<std::string_view, 4> fields;
    std::size_t start = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto sep =
            timecode.find_first_of(i < 2 ? std::string_view(":;") : std::string_view(":;."), start);
        if (sep == std::string_view::npos) return std::nullopt;
        fields[i] = timecode.substr(start, sep - start);
        start = sep + 1;
    }
    fields[3] = timecode.substr(start);

    std::array<int, 4> v{};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto value = timecodeField(fields[i]);
        if (!value) return std::nullopt;
        v[i] = *value;
    }
    const auto [hours, minutes, seconds, frames] = v;
    if (minutes >= 60 || seconds >= 60 || frames >= nominal) return std::nullopt;
    return hours * 3600.0 + minutes * 60.0 + seconds + frames / nominal;
}

} // namespace trelvane
