// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/AppLog.hpp"
#include "TestSupport.hpp"
#include "Trelvane/session/Notifier.hpp"
#include "Trelvane/session/Settings.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneVersion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace trelvane;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

using trelvane::test::LogCapture;
using trelvane::test::ScopedEnv;
using trelvane::test::TempDir;

namespace {

// Stops the log file and restores the default sink, whatever the test did.
struct AppLogReset {
    ~AppLogReset() {
        AppLog::stop();
        EngineLog::resetSink();
    }
};

std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string percentDecode(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> parseForm(const std::string& body) {
    std::vector<std::pair<std::string, std::string>> fields;
    std::size_t start = 0;
    while (start <= body.size()) {
        auto end = body.find('&', start);
        if (end == std::string::npos) end = body.size();
        const auto pair = body.substr(start, end - start);
        const auto eq = pair.find('=');
        fields.emplace_back(percentDecode(pair.substr(0, eq)),
                            eq == std::string::npos ? "" : percentDecode(pair.substr(eq + 1)));
        start = end + 1;
    }
    return fields;
}

// A plain TCP listener on 127.0.0.1: proves that no request was made when none may be.
class Listener {
  public:
    Listener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(fd_, 4) != 0)
            throw std::runtime_error("listener");
        socklen_t len = sizeof addr;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    ~Listener() { ::close(fd_); }
    int port() const { return port_; }
    bool connectionArrivesWithin(int milliseconds) const {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, milliseconds) > 0;
    }

  private:
    int fd_ = -1;
    int port_ = 0;
};

bool haveTool(const std::string& name) {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

// The capture server from https_capture_server.py with a fresh self-signed certificate for
// 127.0.0.1. The server exits by itself after one POST or 30 s; the destructor ends it sooner.
class HttpsCaptureServer {
  public:
    explicit HttpsCaptureServer(const fs::path& folder)
        : cert_(folder / "c.pem"), key_(folder / "k.pem"), capture_(folder / "capture.txt"),
          errors_(folder / "server-stderr.txt") {
        const std::string openssl = "openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + key_.string() +
                                    "' -out '" + cert_.string() +
                                    "' -days 1 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1"
                                    " >/dev/null 2>&1";
        if (std::system(openssl.c_str()) != 0)
            throw std::runtime_error("openssl could not make a certificate");

        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors_.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const std::string script =
            std::string(TRELVANE_SOURCE_DIR) + "/tests/app/session/https_capture_server.py";
        std::vector<std::string> args = {"/usr/bin/python3", script,           "--cert",
                                         cert_.string(),     "--key",          key_.string(),
                                         "--capture",        capture_.string()};
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        if (rc != 0) {
            ::close(out[0]);
            pid_ = -1;
            throw std::runtime_error("could not start the capture server");
        }
        std::string line;
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            pollfd p{out[0], POLLIN, 0};
            if (::poll(&p, 1, 200) <= 0) continue;
            char buffer[64];
            const ssize_t n = ::read(out[0], buffer, sizeof buffer);
            if (n <= 0) break;
            line.append(buffer, static_cast<std::size_t>(n));
        }
        ::close(out[0]);
        port_ = std::atoi(line.c_str());
        if (port_ <= 0)
            throw std::runtime_error("the capture server gave no port; stderr: " + readBytes(errors_));
    }
    ~HttpsCaptureServer() {
        if (pid_ <= 0) return;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, &status, 0);
        }
    }
    int port() const { return port_; }
    std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/report"; }
    const fs::path& cert() const { return cert_; }
    const fs::path& capture() const { return capture_; }
    std::string serverErrors() const { return readBytes(errors_); }

  private:
    fs::path cert_, key_, capture_, errors_;
    pid_t pid_ = -1;
    int port_ = 0;
};

#define SKIP_WITHOUT_HTTPS_TOOLS()                                                                           \
    do {                                                                                                     \
        if (::access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "/usr/bin/python3 is not installed";    \
        if (!haveTool("openssl")) GTEST_SKIP() << "the openssl command is not installed";                    \
    } while (false)

} // namespace

TEST(AppLog, FileOnlyStartWritesTheStartLineAndTruncatesAtTheNextStart) {
    TempDir dir;
    AppLogReset reset;
    const ScopedEnv data("XDG_DATA_HOME", (dir.path() / "share").string());
    EXPECT_TRUE(AppLog::logPath().empty());

    AppLog::start(AppLog::Mode::fileOnly);
    const auto expected = dir.path() / "share" / "Trelvane" / "Trelvane.log";
    EXPECT_EQ(AppLog::logPath(), expected);
    EngineLog::log("[Test] first run");
    EngineLog::logf("[Test] %d clips — %s", 3, "Ünïcode");

    auto lines = linesOf(readBytes(expected));
    ASSERT_EQ(lines.size(), 3u);
    const std::string version = kVersion;
    const std::regex startLine(
        R"(\[Trelvane\] log start \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d — v)" +
        std::regex_replace(version, std::regex(R"(\.)"), R"(\.)") + " — (.+)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, startLine)) << lines[0];
    EXPECT_EQ(match[1], AppLog::osVersionString());
    EXPECT_EQ(lines[1], "[Test] first run");
    EXPECT_EQ(lines[2], "[Test] 3 clips — Ünïcode");

    AppLog::start(AppLog::Mode::fileOnly);
    lines = linesOf(readBytes(expected));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("[Trelvane] log start "));

    AppLog::stop();
    EXPECT_TRUE(AppLog::logPath().empty());
}

TEST(AppLog, FallsBackToTheUsersOwnFolderInTheTemporaryFolderWhereNoPlantedLinkIsFollowed) {
    TempDir dir;
    AppLogReset reset;
    std::ofstream(dir.path() / "plain-file") << "not a folder";
    const auto tmp = dir.path() / "tmp";
    fs::create_directory(tmp);
    const ScopedEnv data("XDG_DATA_HOME", (dir.path() / "plain-file" / "share").string());
    const ScopedEnv tmpdir("TMPDIR", tmp.string());
    const auto own = tmp / ("trelvane-" + std::to_string(::getuid()));
    // Another user's links where the log used to go, and where it goes now: neither is followed.
    std::ofstream(dir.path() / "victim") << "precious";
    fs::create_symlink(dir.path() / "victim", tmp / "Trelvane.log");
    fs::create_directory(dir.path() / "elsewhere");
    fs::create_symlink(dir.path() / "elsewhere", own);

    AppLog::start(AppLog::Mode::fileOnly);
    EngineLog::log("[Test] nowhere to go");
    EXPECT_TRUE(AppLog::logPath().empty()) << AppLog::logPath();
    EXPECT_TRUE(fs::is_empty(dir.path() / "elsewhere"));
    EXPECT_EQ(readBytes(dir.path() / "victim"), "precious");

    fs::remove(own);
    AppLog::start(AppLog::Mode::fileOnly);
    EXPECT_EQ(AppLog::logPath(), own / "Trelvane.log");
    EXPECT_EQ(fs::status(own).permissions() & fs::perms::all, fs::perms::owner_all);
    const auto lines = linesOf(readBytes(own / "Trelvane.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("[Trelvane] log start "));
    EXPECT_EQ(readBytes(dir.path() / "victim"), "precious");

    // A link planted in place of the file itself is refused too.
    AppLog::stop();
    fs::remove(own / "Trelvane.log");
    fs::create_symlink(dir.path() / "victim", own / "Trelvane.log");
    AppLog::start(AppLog::Mode::fileOnly);
    EXPECT_TRUE(AppLog::logPath().empty());
    EXPECT_EQ(readBytes(dir.path() / "victim"), "precious");
}

TEST(AppLog, RedirectStdioSendsStdoutAndStderrToTheFile) {
    TempDir dir;
    const ScopedEnv data("XDG_DATA_HOME", dir.path().string());
    // In a child process: the redirection can't be undone in this one.
    EXPECT_EXIT(
        {
            AppLog::start(AppLog::Mode::redirectStdio);
            std::printf("printed on stdout\n");
            std::fprintf(stderr, "printed on stderr\n");
            EngineLog::log("[Test] through the default sink");
            ::_exit(0);
        },
        testing::ExitedWithCode(0), "");
    const auto lines = linesOf(readBytes(dir.path() / "Trelvane" / "Trelvane.log"));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines[0].starts_with("[Trelvane] log start "));
    EXPECT_EQ(lines[1], "printed on stdout");
    EXPECT_EQ(lines[2], "printed on stderr");
    EXPECT_EQ(lines[3], "[Test] through the default sink");
}

TEST(AppLog, OsVersionStringIsSystemNameAndRelease) {
    utsname name{};
    ASSERT_EQ(::uname(&name), 0);
    EXPECT_EQ(AppLog::osVersionString(), std::string(name.sysname) + " " + name.release);
}

TEST(AppLog, RedactPathsReplacesHomeAndUserFoldersByTilde) {
    EXPECT_EQ(
        AppLog::redactPaths("open /srv/people/carol/shoot/a.mov and /srv/people/carol", "/srv/people/carol"),
        "open ~/shoot/a.mov and ~");
    EXPECT_EQ(AppLog::redactPaths("/srv/people/carol/x", "/srv/people/carol/"), "~/x");
    EXPECT_EQ(AppLog::redactPaths("/Users/alice/Movies/A001.mov", ""), "~/Movies/A001.mov");
    EXPECT_EQ(AppLog::redactPaths("\"/home/bob/y\" /home/bob\tz /Users/ /home//q", "/"),
              "\"~/y\" ~\tz /Users/ /home//q");
    EXPECT_EQ(AppLog::redactPaths("/Volumes/Card/Users/dave/clip", ""), "/Volumes/Card~/clip");
    EXPECT_EQ(AppLog::redactPaths("no paths here", "/root"), "no paths here");
    EXPECT_EQ(AppLog::redactPaths("/ is root, not home", "/"), "/ is root, not home");
    EXPECT_EQ(AppLog::redactPaths("", "/root"), "");
    // A very long name must not exhaust the stack.
    EXPECT_EQ(AppLog::redactPaths("/home/" + std::string(1 << 20, 'x') + "/end", ""), "~/end");
}

TEST(AppLog, FormEncodeKeepsUnreservedBytesAndEscapesTheRest) {
    EXPECT_EQ(AppLog::formEncode({}), "");
    EXPECT_EQ(AppLog::formEncode({{"a", "b"}}), "a=b");
    EXPECT_EQ(AppLog::formEncode({{"reason", "manual"}, {"text", "two words & a=b"}}),
              "reason=manual&text=two%20words%20%26%20a%3Db");
    EXPECT_EQ(AppLog::formEncode({{"keep", "AZaz09-._~"}}), "keep=AZaz09-._~");
    EXPECT_EQ(AppLog::formEncode({{"utf8", "é—"}}), "utf8=%C3%A9%E2%80%94");
    EXPECT_EQ(AppLog::formEncode({{"k e", "+/?#%\n"}}), "k%20e=%2B%2F%3F%23%25%0A");
    EXPECT_EQ(AppLog::formEncode({{"", ""}, {"x", std::string("\0\xff", 2)}}), "=&x=%00%FF");
}

TEST(AppLog, DiagnosticsSettingsAndEndpointPrecedence) {
    TempDir dir;
    Settings settings(dir.path() / "settings.json");
    const ScopedEnv url("TRELVANE_DIAG_URL", std::nullopt);
    EXPECT_TRUE(AppLog::diagnosticsEnabled(settings));
    settings.setBool(Settings::kDiagUploadKey, false);
    EXPECT_FALSE(AppLog::diagnosticsEnabled(settings));

    EXPECT_EQ(AppLog::diagnosticsEndpoint(settings), std::nullopt);
    settings.setString(Settings::kDiagEndpointKey, "https://configured/report");
    EXPECT_EQ(AppLog::diagnosticsEndpoint(settings), "https://configured/report");
    ::setenv("TRELVANE_DIAG_URL", "", 1);
    EXPECT_EQ(AppLog::diagnosticsEndpoint(settings), "https://configured/report");
    ::setenv("TRELVANE_DIAG_URL", "https://from-env/report", 1);
    EXPECT_EQ(AppLog::diagnosticsEndpoint(settings), "https://from-env/report");
}

TEST(AppLog, UploadWithDiagnosticsOffSendsNothingAndSaysNothing) {
    TempDir dir;
    Listener listener;
    Settings settings(dir.path() / "settings.json");
    settings.setBool(Settings::kDiagUploadKey, false);
    const ScopedEnv url("TRELVANE_DIAG_URL", "https://127.0.0.1:" + std::to_string(listener.port()) + "/r");
    LogCapture log;
    for (const char* reason : {"sync", "manual"}) {
        auto sent = AppLog::upload(reason, settings);
        ASSERT_EQ(sent.wait_for(0s), std::future_status::ready);
        EXPECT_FALSE(sent.get());
    }
    EXPECT_FALSE(listener.connectionArrivesWithin(300));
    EXPECT_TRUE(log.lines().empty());
}

TEST(AppLog, UploadWithoutEndpointLogsOneLineAndSendsNothing) {
    TempDir dir;
    Settings settings(dir.path() / "settings.json");
    const ScopedEnv url("TRELVANE_DIAG_URL", std::nullopt);
    LogCapture log;
    auto sent = AppLog::upload("sync", settings);
    ASSERT_EQ(sent.wait_for(0s), std::future_status::ready);
    EXPECT_FALSE(sent.get());
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"[Diag] no diagnostics endpoint configured — report not sent"});
}

TEST(AppLog, UploadToAPlainHttpEndpointIsRefusedWithoutARequest) {
    TempDir dir;
    Listener listener;
    Settings settings(dir.path() / "settings.json");
    const std::string plain = "http://127.0.0.1:" + std::to_string(listener.port()) + "/report";
    for (const bool fromEnv : {true, false}) {
        SCOPED_TRACE(fromEnv ? "from the environment" : "from the settings");
        const ScopedEnv url("TRELVANE_DIAG_URL", fromEnv ? std::optional<std::string>(plain) : std::nullopt);
        settings.setString(Settings::kDiagEndpointKey, fromEnv ? "" : plain);
        LogCapture log;
        auto sent = AppLog::upload("manual", settings);
        ASSERT_EQ(sent.wait_for(0s), std::future_status::ready);
        EXPECT_FALSE(sent.get());
        EXPECT_EQ(log.lines(),
                  std::vector<std::string>{"[Diag] diagnostics endpoint is not HTTPS — report not sent"});
    }
    EXPECT_FALSE(listener.connectionArrivesWithin(300));
}

TEST(AppLog, PostFormRefusesPlainHttpAndAnUnverifiedCertificate) {
    SKIP_WITHOUT_HTTPS_TOOLS();
    TempDir dir;
    Listener listener;
    EXPECT_FALSE(AppLog::postForm("http://127.0.0.1:" + std::to_string(listener.port()) + "/r", "a=b"));
    EXPECT_FALSE(listener.connectionArrivesWithin(200));

    HttpsCaptureServer server(dir.path());
    EXPECT_FALSE(AppLog::postForm(server.url(), "a=b"));
    EXPECT_FALSE(fs::exists(server.capture())) << server.serverErrors();
    // The same server with its CA is accepted: the refusal above was the certificate check.
    EXPECT_TRUE(AppLog::postForm(server.url(), "a=b", server.cert().string())) << server.serverErrors();
    EXPECT_TRUE(fs::exists(server.capture()));
}

TEST(AppLog, UploadPostsTheRedactedLogOverHttps) {
    SKIP_WITHOUT_HTTPS_TOOLS();
    TempDir dir;
    AppLogReset reset;
    HttpsCaptureServer server(dir.path());

    const std::string home = "/srv/people/carol";
    const ScopedEnv homeEnv("HOME", home);
    const ScopedEnv data("XDG_DATA_HOME", (dir.path() / "share").string());
    const ScopedEnv url("TRELVANE_DIAG_URL", server.url());
    const ScopedEnv ca("TRELVANE_DIAG_CA", server.cert().string());
    Settings settings(dir.path() / "settings.json");

    AppLog::start(AppLog::Mode::fileOnly);
    EngineLog::log("[Ingest] added " + home + "/shoot/A001.mov");
    EngineLog::log("[Ingest] added /Users/alice/x and \"/home/bob/y\"");
    EngineLog::log("[Sync] 2 tracks & 5 clips = done — ok");
    const auto logText = readBytes(AppLog::logPath());

    auto sent = AppLog::upload("manual", settings);
    ASSERT_EQ(sent.wait_for(30s), std::future_status::ready) << server.serverErrors();
    EXPECT_TRUE(sent.get()) << server.serverErrors();

    const auto captured = readBytes(server.capture());
    const auto headEnd = captured.find("\n\n");
    ASSERT_NE(headEnd, std::string::npos) << captured;
    EXPECT_EQ(linesOf(captured.substr(0, headEnd)),
              (std::vector<std::string>{"POST", "/report", "application/x-www-form-urlencoded"}));
    const auto body = captured.substr(headEnd + 2);

    const auto expectedLog = AppLog::redactPaths(logText, home);
    EXPECT_EQ(body, AppLog::formEncode({{"version", kVersion},
                                        {"os", AppLog::osVersionString()},
                                        {"reason", "manual"},
                                        {"log", expectedLog}}));
    const auto fields = parseForm(body);
    ASSERT_EQ(fields.size(), 4u) << body;
    EXPECT_EQ(fields[0], (std::pair<std::string, std::string>{"version", kVersion}));
    EXPECT_EQ(fields[1], (std::pair<std::string, std::string>{"os", AppLog::osVersionString()}));
    EXPECT_EQ(fields[2], (std::pair<std::string, std::string>{"reason", "manual"}));
    EXPECT_EQ(fields[3].first, "log");
    const auto& log = fields[3].second;
    EXPECT_NE(log.find("[Ingest] added ~/shoot/A001.mov\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[Ingest] added ~/x and \"~/y\"\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[Sync] 2 tracks & 5 clips = done — ok\n"), std::string::npos) << log;
    EXPECT_TRUE(log.starts_with("[Trelvane] log start ")) << log;
    for (const char* name : {"carol", "alice", "bob"})
        EXPECT_EQ(log.find(name), std::string::npos) << name;
    // Percent-encoded: the only raw '&' and '=' are the separators.
    EXPECT_EQ(std::count(body.begin(), body.end(), '&'), 3);
    EXPECT_EQ(std::count(body.begin(), body.end(), '='), 4);
    for (const char* raw : {" ", "\n", "/", "\""})
        EXPECT_EQ(body.find(raw), std::string::npos) << raw;
}

TEST(Notifier, HeadlessStageDoneIsOneLogLineAndAPresenterReplacesIt) {
    LogCapture log;
    Notifier::setPresenter(nullptr);
    Notifier::stageDone("Sync finished", "4 tracks placed");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[Notify] Sync finished — 4 tracks placed"});

    std::vector<std::pair<std::string, std::string>> shown;
    Notifier::setPresenter(
        [&shown](const std::string& title, const std::string& body) { shown.emplace_back(title, body); });
    Notifier::stageDone("Export finished", "timeline.xml");
    Notifier::setPresenter(nullptr);
    EXPECT_EQ(shown, (std::vector<std::pair<std::string, std::string>>{{"Export finished", "timeline.xml"}}));
    EXPECT_EQ(log.lines().size(), 1u);

    Notifier::stageDone("Ingest finished", "12 clips");
    EXPECT_EQ(log.lines().back(), "[Notify] Ingest finished — 12 clips");
}
