// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Options whose values are checked in the program's own words, and whose help shows what to type
// rather than the parser's types.

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace trelvane::cli {

// One of `choices`, compared without case and kept in lower case:
// --mode: "x" is not one of tracks, stacks
CLI::Option* addChoice(CLI::App& command, const std::string& name, std::string& into,
                       const std::vector<std::string>& choices, const std::string& description);
// The same, handing the word to `apply`; `defaultWord` is what the help shows.
CLI::Option* addChoice(CLI::App& command, const std::string& name, const std::vector<std::string>& choices,
                       const std::string& defaultWord, std::function<void(const std::string&)> apply,
                       const std::string& description);

// Like addChoice, for an option that may be given several times (--export a --export b); each
// time takes exactly one value, so that an option never takes the paths after it.
CLI::Option* addChoices(CLI::App& command, const std::string& name, std::vector<std::string>& into,
                        const std::vector<std::string>& choices, const std::string& description);

// A number above 0 and at most `most`: --fps: "abc" is not a number
CLI::Option* addRate(CLI::App& command, const std::string& name, std::optional<double>& into, double most,
                     const std::string& description);

// The help's closing lines: the exit statuses.
std::string exitStatusText();

// Help in the program's words: "Commands", "Arguments", the exit statuses at the end. Called
// before the commands are added, which take it over.
void useOwnWords(CLI::App& app);

} // namespace trelvane::cli
