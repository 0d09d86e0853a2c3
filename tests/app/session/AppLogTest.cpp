// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/AppLog.hpp"
#include "TestSupport.hpp"
#include "Trelvane/session/Settings.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneVersion.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <filesystem>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace trelvane;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

using namespace trelvane::test;

namespace {

// Stops the log file and restores the default sink, whatever the test did.
struct AppLogReset {
    ~AppLogReset() {
        AppLog::stop();
        EngineLog::resetSink();
    }
};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// A plain TCP listener on 127.0.0.1: proves that no request was made when none may be.
struct Listener {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int port = 0;
    Listener() {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(fd, 4) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            throw std::runtime_error("listener");
        port = ntohs(addr.sin_port);
    }
    ~Listener() { ::close(fd); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    bool connectionArrivesWithin(int milliseconds) const {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, milliseconds) > 0;
    }
};

} // namespace

TEST(AppLog, FileOnlyStartWritesTheStartLineAndTruncatesAtTheNextStart) {
    TempDir dir;
    AppLogReset reset;
    const ScopedEnv data("XDG_DATA_HOME", (dir.path() / "share").string());
    EXPECT_TRUE(AppLog::logPath().empty());
    AppLog::start(AppLog::Mode::fileOnly);
    const auto expected = dir.path() / "share" / "Trelvane" / "Trelvane.log";
    EXPECT_EQ(AppLog::logPath(), expected);
    EngineLog::logf("[Test] %d clips — %s", 3, "Ünïcode");

    auto lines = linesOf(slurp(expected));
    ASSERT_EQ(lines.size(), 2u);
    const std::regex startLine(
        R"(\[Trelvane\] log start \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d — v)" +
        std::regex_replace(std::string(kVersion), std::regex(R"(\.)"), R"(\.)") + " — (.+)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, startLine)) << lines[0];
    EXPECT_EQ(match[1], AppLog::osVersionString());
    EXPECT_EQ(lines[1], "[Test] 3 clips — Ünïcode");

    AppLog::start(AppLog::Mode::fileOnly);
    EXPECT_EQ(linesOf(slurp(expected)).size(), 1u);
    AppLog::stop();
    EXPECT_TRUE(AppLog::logPath().empty());
}

TEST(AppLog, FallsBackToTheUsersOwnFolderInTheTemporaryFolderWhereNoPlantedLinkIsFollowed) {
    TempDir dir;
    AppLogReset reset;
    dir.file("plain-file", "not a folder");
    const auto tmp = dir.dir("tmp");
    const ScopedEnv data("XDG_DATA_HOME", (dir.path() / "plain-file" / "share").string());
    const ScopedEnv tmpdir("TMPDIR", tmp.string());
    const auto own = tmp / ("trelvane-" + std::to_string(::getuid()));
    // Another user's links where the log used to go, and where it goes now: neither is followed.
    dir.file("victim", "precious");
    fs::create_symlink(dir.path() / "victim", tmp / "Trelvane.log");
    fs::create_symlink(dir.dir("elsewhere"), own);

    AppLog::start(AppLog::Mode::fileOnly);
    EngineLog::log("[Test] nowhere to go");
    EXPECT_TRUE(AppLog::logPath().empty()) << AppLog::logPath();
    EXPECT_TRUE(fs::is_empty(dir.path() / "elsewhere"));
    EXPECT_EQ(slurp(dir.path() / "victim"), "precious");

    fs::remove(own);
    AppLog::start(AppLog::Mode::fileOnly);
    EXPECT_EQ(AppLog::logPath(), own / "Trelvane.log");
    EXPECT_EQ(fs::status(own).permissions() & fs::perms::all, fs::perms::owner_all);
    const auto lines = linesOf(slurp(own / "Trelvane.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("[Trelvane] log start "));
    EXPECT_EQ(slurp(dir.path() / "victim"), "precious");

    // A link planted in place of the file itself is refused too.
    AppLog::stop();
    fs::remove(own / "Trelvane.log");
    fs::create_symlink(dir.path() / "victim", own / "Trelvane.log");
    AppLog::start(AppLog::Mode::fileOnly);
    EXPECT_TRUE(AppLog::logPath().empty());
    EXPECT_EQ(slurp(dir.path() / "victim"), "precious");
}

TEST(AppLog, RedactPathsAndFormEncode) {
    const struct {
        std::string text, home, redacted;
    } redactions[] = {
        {"open /srv/people/carol/shoot/a.mov and /srv/people/carol", "/srv/people/carol",
         "open ~/shoot/a.mov and ~"},
        {"/srv/people/carol/x", "/srv/people/carol/", "~/x"},
        {"/Users/alice/Movies/A001.mov", "", "~/Movies/A001.mov"},
        {"\"/home/bob/y\" /home/bob\tz /Users/ /home//q", "/", "\"~/y\" ~\tz /Users/ /home//q"},
        {"/Volumes/Card/Users/dave/clip", "", "/Volumes/Card~/clip"},
        {"/ is root, not home", "/", "/ is root, not home"},
        {"", "/root", ""},
        // A very long name must not exhaust the stack.
        {"/home/" + std::string(1 << 20, 'x') + "/end", "", "~/end"},
    };
    for (const auto& r : redactions)
        EXPECT_EQ(AppLog::redactPaths(r.text, r.home), r.redacted) << r.text.substr(0, 60);

    const std::pair<std::vector<std::pair<std::string, std::string>>, std::string> forms[] = {
        {{}, ""},
        {{{"reason", "manual"}, {"text", "two words & a=b"}}, "reason=manual&text=two%20words%20%26%20a%3Db"},
        {{{"keep", "AZaz09-._~"}, {"utf8", "é—"}}, "keep=AZaz09-._~&utf8=%C3%A9%E2%80%94"},
        {{{"k e", "+/?#%\n"}, {"", std::string("\0\xff", 2)}}, "k%20e=%2B%2F%3F%23%25%0A&=%00%FF"},
    };
    for (const auto& [fields, encoded] : forms)
        EXPECT_EQ(AppLog::formEncode(fields), encoded);
}

// Each of these settles at once with nothing sent: no connection reaches the listener. The
// environment's endpoint, where not empty, wins over the configured one.
TEST(AppLog, UploadGoesOnlyOverHttpsAndOnlyWhenAllowed) {
    Listener listener;
    const std::string port = std::to_string(listener.port);
    const std::string notHttps = "[Diag] diagnostics endpoint is not HTTPS — report not sent";
    const std::string plain = "http://127.0.0.1:" + port + "/r", secure = "https://127.0.0.1:" + port + "/r";
    const struct {
        const char* what;
        bool enabled;
        std::optional<std::string> env;
        std::string configured, log; // the line logged on each try, if any
    } cases[] = {
        {"diagnostics off", false, secure, secure, ""},
        {"no endpoint", true, std::nullopt, "",
         "[Diag] no diagnostics endpoint configured — report not sent"},
        {"plain HTTP from the environment", true, plain, secure, notHttps},
        {"plain HTTP from the settings", true, std::nullopt, plain, notHttps},
        {"plain HTTP from the settings, the environment empty", true, "", plain, notHttps},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        Settings settings(dir.path() / "settings.json");
        if (!c.enabled) settings.setBool(Settings::kDiagUploadKey, false); // on by default
        settings.setString(Settings::kDiagEndpointKey, c.configured);
        const ScopedEnv url("TRELVANE_DIAG_URL", c.env);
        LogCapture log;
        for (const char* reason : {"sync", "manual"}) {
            auto sent = AppLog::upload(reason, settings);
            ASSERT_EQ(sent.wait_for(0s), std::future_status::ready);
            EXPECT_FALSE(sent.get());
        }
        EXPECT_EQ(log.lines(),
                  c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>(2, c.log));
    }
    // Plain HTTP never leaves the machine, not even as a connection.
    EXPECT_FALSE(AppLog::postForm(plain, "a=b"));
    EXPECT_FALSE(listener.connectionArrivesWithin(300));

    // Over HTTPS the report is read, redacted and encoded off the caller's thread; a server that
    // can't be reached means not sent.
    TempDir dir;
    AppLogReset reset;
    const ScopedEnv data("XDG_DATA_HOME", dir.path().string());
    const ScopedEnv url("TRELVANE_DIAG_URL", "https://127.0.0.1:1/r");
    AppLog::start(AppLog::Mode::fileOnly);
    auto sent = AppLog::upload("manual", Settings(dir.path() / "settings.json"));
    ASSERT_EQ(sent.wait_for(30s), std::future_status::ready);
    EXPECT_FALSE(sent.get());
}
