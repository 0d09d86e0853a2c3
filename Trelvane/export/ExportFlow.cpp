// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/ExportFlow.hpp"

#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/FCPXMLExporter.hpp"
#include "Trelvane/export/OTIOExporter.hpp"
#include "Trelvane/session/Notifier.hpp"
#include "TrelvaneEngine/support/Files.hpp"
#include "TrelvaneEngine/support/Uuid.hpp"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <fmt/printf.h>
#include <unistd.h>

namespace trelvane {

namespace fs = std::filesystem;

ExportOptions resolveOptions(const std::vector<TrackSource>& sources, const ExportRequest& request) {
    ExportOptions options;
    options.target = request.target;
    options.channels = request.channels;
    if (request.fps) {
        if (!std::isfinite(*request.fps) || *request.fps <= 0)
            throw ExportError(fmt::sprintf("Not a usable frame rate: %g", *request.fps));
        options.fps = *request.fps;
    } else {
        const auto detected = detectedFrameRates(sources);
        options.fps = preferredRate(defaultRateFamily(detected), detected);
    }
    return options;
}

fs::path resolveOutputPath(const std::vector<TrackSource>& sources, const ExportRequest& request,
                           const fs::path& cwd) {
    const std::string extension(fileExtension(request.target));
    if (!request.output || request.output->empty()) return cwd / defaultFileName(sources, request.target);
    fs::path path = request.output->is_absolute() ? *request.output : cwd / *request.output;
    std::error_code ec;
    if (fs::is_directory(path, ec)) return path / defaultFileName(sources, request.target);
    std::string given = path.extension().string();
    if (!given.empty()) given.erase(0, 1);
    if (Files::lowercased(given) != extension) path += "." + extension;
    return path;
}

std::string buildDocument(const std::vector<TrackSource>& sources, const ExportOptions& options) {
    switch (options.target) {
    case ExportTarget::premiere:
        return FCP7Exporter::buildXML(sources, options.fps, ExportStyle::premiere, options.channels);
    case ExportTarget::resolve:
        return FCP7Exporter::buildXML(sources, options.fps, ExportStyle::resolve, options.channels);
    case ExportTarget::finalCut:
        return FCPXMLExporter::build(sources, options.fps, options.channels);
    case ExportTarget::otio:
        return OTIOExporter::build(sources, options.fps, options.channels);
    }
    return {};
}

namespace {

// The path with links and "." / ".." resolved as far as it exists, for comparing two names of one file.
fs::path resolved(const fs::path& path) {
    std::error_code ec;
    auto r = fs::weakly_canonical(path, ec);
    return ec ? path.lexically_normal() : r;
}

bool isSessionMedia(const std::vector<TrackSource>& sources, const fs::path& target) {
    const fs::path resolvedTarget = resolved(target);
    std::error_code ec;
    const bool targetExists = fs::exists(target, ec);
    const auto same = [&](const Url& url) {
        if (url.isEmpty()) return false;
        if (resolved(url.fsPath()) == resolvedTarget) return true;
        // Hard links: one file under two names.
        std::error_code eq;
        return targetExists && fs::equivalent(url.fsPath(), target, eq) && !eq;
    };
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            if (same(clip.url) || (clip.pictureURL && same(*clip.pictureURL))) return true;
    return false;
}

[[noreturn]] void failWrite(const fs::path& path, int error) {
    throw ExportError(fmt::sprintf("Cannot write \"%s\": %s", path.string(), std::strerror(error)));
}

[[noreturn]] void failExists(const fs::path& path) {
    throw ExportError(
        fmt::sprintf("\"%s\" already exists; export with --force to replace it", path.string()));
}

// A temporary file in the target's folder (a rename is only atomic within one file system), flushed,
// then moved onto the target: a reader sees the old file or the whole new one, never a part. Without
// `replace` the move is a hard link, which fails rather than replace a file that appeared meanwhile.
void writeAtomically(const fs::path& path, const std::string& bytes, bool replace) {
    fs::path temp = path;
    std::string tempName = ".";
    tempName += path.filename().string();
    tempName += ".tmp-";
    tempName += Uuid::random().string();
    temp.replace_filename(tempName);

    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) failWrite(path, errno);
    if (!Files::writeAll(fd, bytes.data(), bytes.size()) || ::fsync(fd) != 0) {
        const int error = errno;
        ::close(fd);
        ::unlink(temp.c_str());
        failWrite(path, error);
    }
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        failWrite(path, error);
    }
    if (!replace) {
        if (::link(temp.c_str(), path.c_str()) == 0) {
            ::unlink(temp.c_str());
        } else if (errno == EEXIST) {
            ::unlink(temp.c_str());
            failExists(path);
        } else {
            // File systems without hard links: the existence check before writing has to do.
            std::error_code ec;
            if (fs::exists(fs::symlink_status(path, ec))) {
                ::unlink(temp.c_str());
                failExists(path);
            }
            replace = true;
        }
    }
    if (replace && ::rename(temp.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        failWrite(path, error);
    }
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    if (const int dfd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
}

} // namespace

ExportResult runExport(const std::vector<TrackSource>& sources, const ExportRequest& request,
                       const fs::path& cwd) {
    ExportResult result;
    result.options = resolveOptions(sources, request);
    result.summary = makeExportSummary(sources);
    const fs::path base = cwd.is_absolute() ? cwd : fs::absolute(cwd);
    result.path = resolveOutputPath(sources, request, base).lexically_normal();
    const fs::path& path = result.path;

    std::error_code ec;
    const fs::path folder = path.parent_path();
    if (!fs::is_directory(folder, ec))
        throw ExportError(fmt::sprintf("The folder \"%s\" does not exist", folder.string()));
    if (isSessionMedia(sources, path))
        throw ExportError(
            fmt::sprintf("\"%s\" is a media file of this session; choose another name", path.string()));
    const auto status = fs::symlink_status(path, ec);
    if (fs::exists(status)) {
        if (fs::is_directory(fs::status(path, ec)))
            throw ExportError(fmt::sprintf("\"%s\" is a folder", path.string()));
        if (!request.force) failExists(path);
    }

    writeAtomically(path, buildDocument(sources, result.options), request.force);
    Notifier::stageDone("Export finished", path.filename().string() + " saved.");
    return result;
}

} // namespace trelvane
