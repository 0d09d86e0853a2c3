// SPDX-License-Identifier: GPL-3.0-or-later
// The command line's own words: value checks, the help command, usage errors and the exit
// statuses.
#include "Trelvane/cli/Usage.hpp"
#include "Trelvane/cli/Commands.hpp"
#include "TrelvaneEngine/support/Files.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <iostream>
#include <unistd.h>

namespace trelvane::cli {

namespace {

std::string listed(const std::vector<std::string>& words, const std::string& separator) {
    std::string out;
    for (std::size_t i = 0; i < words.size(); ++i)
        out += (i ? separator : "") + words[i];
    return out;
}

CLI::Validator choiceValidator(const std::vector<std::string>& choices) {
    return CLI::Validator(
        [choices](std::string& value) -> std::string {
            const std::string lower = Files::lowercased(value);
            for (const auto& c : choices)
                if (c == lower) {
                    value = lower;
                    return {};
                }
            return fmt::format("\"{}\" is not one of {}", terminalSafe(value), listed(choices, ", "));
        },
        "");
}

// The name that a command line was given, for the hint after an error.
std::string commandOf(const CLI::App& app) {
    for (const auto* sub : app.get_subcommands())
        return sub->get_name();
    return {};
}

} // namespace

CLI::Option* addChoice(CLI::App& command, const std::string& name, std::string& into,
                       const std::vector<std::string>& choices, const std::string& description) {
    return addChoice(
        command, name, choices, into, [&into](const std::string& word) { into = word; }, description);
}

CLI::Option* addChoice(CLI::App& command, const std::string& name, const std::vector<std::string>& choices,
                       const std::string& defaultWord, std::function<void(const std::string&)> apply,
                       const std::string& description) {
    return command.add_option_function<std::string>(name, std::move(apply), description)
        ->check(choiceValidator(choices))
        ->option_text(listed(choices, "|") + " (default " + defaultWord + ")");
}

CLI::Option* addChoices(CLI::App& command, const std::string& name, std::vector<std::string>& into,
                        const std::vector<std::string>& choices, const std::string& description) {
    return command.add_option(name, into, description)
        ->check(choiceValidator(choices))
        ->allow_extra_args(false)
        ->option_text(listed(choices, "|"));
}

CLI::Option* addRate(CLI::App& command, const std::string& name, std::optional<double>& into, double most,
                     const std::string& description) {
    const CLI::Validator rate(
        [most](std::string& value) -> std::string {
            const char* text = value.c_str();
            char* end = nullptr;
            errno = 0;
            const double v = std::strtod(text, &end);
            if (value.empty() || end != text + value.size() || !std::isfinite(v) || errno == ERANGE)
                return fmt::format("\"{}\" is not a number", terminalSafe(value));
            if (v <= 0 || v > most)
                return fmt::format("{} is out of range: give a number above 0 and at most {:g}", value, most);
            return {};
        },
        "");
    return command.add_option(name, into, description)->check(rate)->option_text("RATE");
}

std::string exitStatusText() {
    std::string text = "Exit status:\n";
    for (const auto& s : kExitStatuses)
        text += fmt::format("  {:<5}{}\n", s.code, s.meaning);
    return text;
}

void useOwnWords(CLI::App& app) {
    auto& formatter = *app.get_formatter();
    formatter.label("Positionals", "Arguments");
    formatter.label("SUBCOMMAND", "COMMAND");
    formatter.label("OPTIONS", "OPTIONS");
    app.footer(exitStatusText());
}

void addHelpCommand(CLI::App& app, HelpOptions& options) {
    auto* cmd = app.add_subcommand("help", "Print this help, or the help of one command")->group("Commands");
    cmd->add_option("COMMAND", options.command, "scan, sync or probe")->option_text(" ");
}

int runHelp(const CLI::App& app, const HelpOptions& options) {
    if (options.command.empty()) {
        std::cout << app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
        return kExitOK;
    }
    for (const auto* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        if (sub->get_name() == options.command && options.command != "help") {
            std::cout << sub->get_formatter()->make_help(sub, app.get_name() + " " + sub->get_name(),
                                                         CLI::AppFormatMode::Normal);
            return kExitOK;
        }
    std::cerr << "trelvane: no command named \"" << terminalSafe(options.command)
              << "\"; the commands are scan, sync, probe and help\n";
    return kExitUsage;
}

void printUsageError(const CLI::App& app, const CLI::ParseError& error) {
    const std::string command = commandOf(app);
    std::string message = error.what();
    if (dynamic_cast<const CLI::RequiredError*>(&error)) {
        const auto rest = app.remaining();
        if (command.empty() && !rest.empty() && !rest.front().starts_with("-"))
            message =
                "no command named \"" + rest.front() + "\"; the commands are scan, sync, probe and help";
        else if (command.empty())
            message = "give a command: scan, sync, probe or help";
        else if (command == "probe")
            message = "give at least one media file";
        else
            message = "give at least one folder or media file of the shoot";
    } else if (dynamic_cast<const CLI::ExtrasError*>(&error)) {
        const auto colon = message.find(": ");
        message =
            "unexpected " + std::string(colon == std::string::npos ? message : message.substr(colon + 2));
        if (command.empty()) message += " (the commands are scan, sync, probe and help)";
    } else if (dynamic_cast<const CLI::ArgumentMismatch*>(&error)) {
        // "--fps: 1 required RATE missing" and the like: the option lacks its value.
        const auto colon = message.find(':');
        if (message.starts_with("-") && colon != std::string::npos)
            message = message.substr(0, colon) + " needs a value";
    }
    std::cerr << "trelvane: " << terminalSafe(message) << '\n'
              << "Run 'trelvane help" << (command.empty() ? "" : " " + command) << "' for the options.\n";
}

CheckedStandardOutput::CheckedStandardOutput() {
    setp(buffer_, buffer_ + sizeof buffer_);
    previous_ = std::cout.rdbuf(this);
}

CheckedStandardOutput::~CheckedStandardOutput() {
    drain();
    std::cout.rdbuf(previous_);
}

bool CheckedStandardOutput::drain() {
    const auto size = static_cast<std::size_t>(pptr() - pbase());
    // After a failure the rest is dropped: the run is failing, and a write that can't land must
    // not be retried for every line.
    if (size > 0 && error_ == 0 && !Files::writeAll(STDOUT_FILENO, pbase(), size))
        error_ = errno ? errno : EIO;
    setp(buffer_, buffer_ + sizeof buffer_);
    return error_ == 0;
}

int CheckedStandardOutput::overflow(int c) {
    if (!drain()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return traits_type::not_eof(c);
}

int CheckedStandardOutput::sync() {
    return drain() ? 0 : -1;
}

int CheckedStandardOutput::finish(int status) {
    drain();
    // Whatever went through stdio rather than the stream.
    if (error_ == 0 && std::fflush(stdout) != 0) error_ = errno ? errno : EIO;
    if (error_ == 0) return status;
    std::fprintf(stderr, "trelvane: cannot write to standard output: %s\n", std::strerror(error_));
    return status == kExitOK ? kExitFailure : status;
}

} // namespace trelvane::cli
