// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/export/ExportFlow.hpp"

#include "Trelvane/export/FCP7Exporter.hpp"
#include "Trelvane/export/FCPXMLExporter.hpp"
#include "Trelvane/export/OTIOExporter.hpp"
#include "Trelvane/export/OutputFile.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <cmath>
#include <fmt/printf.h>

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
    if (*request.output == "-") return *request.output;
    fs::path path = request.output->is_absolute() ? *request.output : cwd / *request.output;
    if (OutputFile::isStream(path)) return path;
    std::error_code ec;
    if (fs::is_directory(path, ec)) return path / defaultFileName(sources, request.target);
    std::string given = path.extension().string();
    if (!given.empty()) given.erase(0, 1);
    if (Files::lowercased(given) != extension) path += "." + extension;
    return path;
}

namespace {

fs::path exportPath(const std::vector<TrackSource>& sources, const ExportRequest& request,
                    const fs::path& cwd) {
    const fs::path base = cwd.is_absolute() ? cwd : fs::absolute(cwd);
    return resolveOutputPath(sources, request, base).lexically_normal();
}

} // namespace

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

void checkExport(const std::vector<TrackSource>& sources, const ExportRequest& request, const fs::path& cwd) {
    (void)resolveOptions(sources, request);
    OutputFile::check(exportPath(sources, request, cwd), request.force, sources);
}

ExportResult runExport(const std::vector<TrackSource>& sources, const ExportRequest& request,
                       const fs::path& cwd) {
    ExportResult result;
    result.options = resolveOptions(sources, request);
    result.summary = makeExportSummary(sources);
    result.path = exportPath(sources, request, cwd);
    OutputFile::write(result.path, buildDocument(sources, result.options), request.force, sources);
    result.noticeTitle = "Export finished";
    result.noticeBody = result.path.filename().string() + " saved.";
    return result;
}

} // namespace trelvane
