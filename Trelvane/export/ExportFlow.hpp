// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// From the placed tracks and the user's choices to a document on disk: the one export flow that the
// command line and the desktop application share.
//
// Usage (the command line maps its words with parseExportTarget / parseChannelLayout):
//
//   ExportRequest request;
//   request.target = *parseExportTarget("premiere");      // premiere|resolve|fcpxml|otio
//   request.channels = *parseChannelLayout("per-channel"); // per-channel|mixed
//   request.output = "out.xml";                            // optional
//   ExportResult result = runExport(sources, request, std::filesystem::current_path());
//
// The file:
// - Without `output`: rootFolderName + "_" + suffix + "." + extension in `cwd`
//   ("Card01_tv_premiere.xml"). A relative `output` is taken against `cwd`; an `output` that is an
//   existing folder gets the default name inside it. An output whose extension (compared without
//   case) is not the target's gets the target's appended: "cut" -> "cut.xml", "CUT.XML" stays.
//   An output that is written in place ("-", /dev/stdout, a pipe, a terminal) keeps its name.
// - Written by OutputFile: never over a media file of any clip, whatever it is called; an existing
//   file only with `force`; atomically, or in place for a pipe or a terminal.
//
// Failures throw ExportError, whose message is the sentence to show the user. When the file is
// written, the result carries the notice for the user ("Export finished" / "<file name> saved.");
// the flow shows nothing itself, its caller passes the notice on.
// Runs on the calling thread; the string building takes well under a second for real sessions.

#include "Trelvane/export/ExportOptions.hpp"
#include "Trelvane/export/OutputFile.hpp"
#include "TrelvaneEngine/model/TrackModels.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace trelvane {

// The writer's refusals and the request's own (a rate that is no rate) reach the user alike.
using ExportError = OutputError;

struct ExportRequest {
    ExportTarget target = ExportTarget::premiere;
    // The sequence rate; without it the rate the export dialog would preselect for the clips'
    // detected rates (defaultRateFamily, then preferredRate). Must be finite and above 0.
    std::optional<double> fps;
    ChannelLayout channels = ChannelLayout::perChannel;
    std::optional<std::filesystem::path> output;
    bool force = false;
};

struct ExportResult {
    // The file written, absolute.
    std::filesystem::path path;
    ExportSummary summary;
    // The options the document was built with (the rate filled in).
    ExportOptions options;
    // What to tell the user: "Export finished" and "<file name> saved.".
    std::string noticeTitle;
    std::string noticeBody;
};

// The options a request stands for: the rate filled in from the clips where the request has none.
// Throws ExportError for a rate that is not a positive finite number.
ExportOptions resolveOptions(const std::vector<TrackSource>& sources, const ExportRequest& request);

// Where the request would write, following the rules above, without checking or writing anything.
std::filesystem::path resolveOutputPath(const std::vector<TrackSource>& sources, const ExportRequest& request,
                                        const std::filesystem::path& cwd);

// The document for the options, as text.
std::string buildDocument(const std::vector<TrackSource>& sources, const ExportOptions& options);

// What can be told before the document exists: the rate, and whether the file can be written
// (OutputFile::check). Throws ExportError; writes nothing.
void checkExport(const std::vector<TrackSource>& sources, const ExportRequest& request,
                 const std::filesystem::path& cwd);

// The whole flow: options, path, checks, document, atomic write; the notice comes back with the result.
ExportResult runExport(const std::vector<TrackSource>& sources, const ExportRequest& request,
                       const std::filesystem::path& cwd);

} // namespace trelvane
