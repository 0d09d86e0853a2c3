// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Tells the user that a long stage (ingest, extraction, sync, export) has ended.
//
// Lifecycle: the desktop window installs a presenter while it exists, one that shows the notice in
// the window for a few seconds; without one (command-line tool, tests) each notice is a log line.
// Both operations are safe from any thread; the presenter is called on the thread that calls
// `stageDone`.

#include <functional>
#include <string>

namespace trelvane::Notifier {

using Presenter = std::function<void(const std::string& title, const std::string& body)>;

// Replaces the presenter; an empty one restores the log line.
void setPresenter(Presenter presenter);

// The presenter's notice, or the log line "[Notify] <title> — <body>" when there is none.
void stageDone(const std::string& title, const std::string& body);

} // namespace trelvane::Notifier
