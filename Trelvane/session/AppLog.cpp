// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/AppLog.hpp"

#include "Trelvane/session/Settings.hpp"
#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"
#include "TrelvaneEngine/support/Url.hpp"
#include "TrelvaneEngine/support/UserDirs.hpp"
#include "TrelvaneVersion.hpp"

#include <curl/curl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace trelvane::AppLog {

namespace {

constexpr const char* kLogFileName = "Trelvane.log";
constexpr long kUploadTimeoutSeconds = 60;

struct State {
    std::mutex mutex;
    // All guarded by mutex. fd is -1 before start; in Mode::redirectStdio it is stdout, not ours to
    // close.
    int fd = -1;
    bool ownsFd = false;
    bool sinkInstalled = false;
    // Mode::fileOnly without a file: lines go nowhere.
    bool discard = false;
    std::filesystem::path path;
};

// Process-wide: one log file per process, which the engine's log sink writes to from any thread.
State& state() {
    static State s;
    return s;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

void closeLocked(State& s) {
    if (s.ownsFd && s.fd >= 0) ::close(s.fd);
    s.fd = -1;
    s.ownsFd = false;
    s.discard = false;
    s.path.clear();
}

// O_APPEND so that each line goes out in one write at the end, whichever thread or stream writes it.
// O_NOFOLLOW: a link in the file's place is refused rather than followed.
int openTruncated(const std::filesystem::path& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
}

// The temporary folder is everybody's: a name in it may be a link planted by another user. The log
// goes into a folder of this user's own, "trelvane-<uid>", made with mode 0700 and, when it was
// there already, used only when it is a real folder owned by this user. Nothing when there is none.
std::optional<std::filesystem::path> privateTemporaryFolder() {
    std::error_code ec;
    auto temp = std::filesystem::temp_directory_path(ec);
    if (ec) temp = "/tmp";
    const auto folder = temp / ("trelvane-" + std::to_string(::getuid()));
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return std::nullopt;
    struct stat st {};
    if (::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid())
        return std::nullopt;
    if ((st.st_mode & 077) != 0 && ::chmod(folder.c_str(), 0700) != 0) return std::nullopt;
    return folder;
}

bool isHttps(const std::string& url) {
    const auto colon = url.find("://");
    if (colon == std::string::npos || colon + 3 >= url.size()) return false;
    std::string scheme = url.substr(0, colon);
    for (char& c : scheme)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return scheme == "https";
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Replaces each `prefix` followed by at least one name byte with "~". Hand-written rather than a
// std::regex because libstdc++'s matcher recurses per character and a long log line could
// exhaust the stack.
std::string replaceUserFolders(const std::string& text, std::string_view prefix) {
    const auto isNameByte = [](char c) {
        return c != '/' && c != '"' && c != ' ' && c != '\t' && c != '\n' && c != '\v' && c != '\f' &&
               c != '\r';
    };
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        const auto hit = text.find(prefix, pos);
        if (hit == std::string::npos) break;
        std::size_t end = hit + prefix.size();
        while (end < text.size() && isNameByte(text[end]))
            ++end;
        if (end == hit + prefix.size()) {
            out.append(text, pos, end - pos);
        } else {
            out.append(text, pos, hit - pos);
            out += '~';
        }
        pos = end;
    }
    out.append(text, pos, std::string::npos);
    return out;
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using HeaderList = std::unique_ptr<curl_slist, SlistDeleter>;

std::size_t discardBody(char*, std::size_t size, std::size_t count, void*) {
    return size * count;
}

} // namespace

void start(Mode mode) {
    auto& s = state();
    bool installSink = false;
    {
        std::lock_guard lock(s.mutex);
        closeLocked(s);

        std::vector<std::filesystem::path> folders;
        {
            std::error_code ec;
            const auto data = UserDirs::dataDir();
            std::filesystem::create_directories(data, ec);
            if (!ec) folders.push_back(data);
            if (const auto temp = privateTemporaryFolder()) folders.push_back(*temp);
        }
        int fd = -1;
        std::filesystem::path path;
        for (const auto& folder : folders) {
            path = folder / kLogFileName;
            fd = openTruncated(path);
            if (fd >= 0) break;
        }
        if (fd < 0) {
            // The command line's standard output carries its results: without a file its log is
            // dropped rather than mixed into them. The desktop app's stays on stdout.
            s.discard = mode == Mode::fileOnly;
            installSink = s.discard;
        } else if (mode == Mode::redirectStdio) {
            std::fflush(stdout);
            std::fflush(stderr);
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(fd, STDERR_FILENO);
            ::close(fd);
            // Unbuffered, so that the last lines before a crash are in the file.
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            s.fd = STDOUT_FILENO;
            s.ownsFd = false;
            s.path = path;
        } else {
            s.fd = fd;
            s.ownsFd = true;
            s.path = path;
            installSink = true;
        }
        s.sinkInstalled = installSink;
    }
    // Outside our lock: EngineLog calls the sink under its own lock, and the sink takes ours.
    if (installSink) EngineLog::setSink([](const std::string& line) { write(line); });

    write(
        fmt::sprintf("[Trelvane] log start %s — v%s — %s", iso8601(dateNow()), kVersion, osVersionString()));
}

void stop() {
    auto& s = state();
    bool removeSink = false;
    {
        std::lock_guard lock(s.mutex);
        removeSink = s.sinkInstalled;
        s.sinkInstalled = false;
        closeLocked(s);
    }
    if (removeSink) EngineLog::resetSink();
}

std::filesystem::path logPath() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.path;
}

void write(const std::string& line) {
    auto& s = state();
    std::string whole = line;
    whole += '\n';
    std::lock_guard lock(s.mutex);
    if (s.discard) return;
    if (s.fd < 0) {
        std::fwrite(whole.data(), 1, whole.size(), stdout);
        std::fflush(stdout);
        return;
    }
    writeAll(s.fd, whole);
}

std::string osVersionString() {
    utsname name{};
    if (::uname(&name) != 0) return "unknown";
    return std::string(name.sysname) + " " + name.release;
}

bool diagnosticsEnabled(const Settings& settings) {
    return settings.boolValue(Settings::kDiagUploadKey);
}

std::string redactPaths(std::string text, const std::string& home) {
    std::string folder = home;
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    if (!folder.empty() && folder != "/") {
        std::string out;
        out.reserve(text.size());
        std::size_t pos = 0;
        for (auto hit = text.find(folder); hit != std::string::npos; hit = text.find(folder, pos)) {
            out.append(text, pos, hit - pos);
            out += '~';
            pos = hit + folder.size();
        }
        out.append(text, pos, std::string::npos);
        text = std::move(out);
    }
    text = replaceUserFolders(text, "/Users/");
    text = replaceUserFolders(text, "/home/");
    return text;
}

std::string formEncode(const std::vector<std::pair<std::string, std::string>>& fields) {
    std::string body;
    for (const auto& [key, value] : fields) {
        if (!body.empty()) body += '&';
        body += percentEncoded(key, UrlChars::unreserved);
        body += '=';
        body += percentEncoded(value, UrlChars::unreserved);
    }
    return body;
}

std::optional<std::string> diagnosticsEndpoint(const Settings& settings) {
    if (const char* env = std::getenv("TRELVANE_DIAG_URL"); env && env[0] != '\0') return std::string(env);
    auto configured = settings.stringValue(Settings::kDiagEndpointKey);
    if (!configured.empty()) return configured;
    return std::nullopt;
}

bool postForm(const std::string& url, const std::string& body, const std::string& caFile) {
    // Once per process, as curl's own global set-up asks.
    static std::once_flag globalInit;
    static bool initialised = false;
    std::call_once(globalInit, [] { initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
    if (!initialised) return false;

    EasyHandle curl(curl_easy_init());
    if (!curl) return false;

    HeaderList headers;
    // "Expect:" off: a server that never answers 100-continue would otherwise stall each report.
    for (const char* header : {"Content-Type: application/x-www-form-urlencoded", "Expect:"}) {
        curl_slist* grown = curl_slist_append(headers.get(), header);
        if (!grown) return false;
        (void)headers.release();
        headers.reset(grown);
    }
    const std::string userAgent = std::string("Trelvane/") + kVersion;
    CURL* h = curl.get();

    // Refuse to send at all if any of the safety options can't be set.
    bool ok =
        curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "https") == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_URL, url.c_str()) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.data()) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size())) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_TIMEOUT, kUploadTimeoutSeconds) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_MAXREDIRS, 5L) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL)) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_USERAGENT, userAgent.c_str()) == CURLE_OK &&
        curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &discardBody) == CURLE_OK;
    if (ok && !caFile.empty()) ok = curl_easy_setopt(h, CURLOPT_CAINFO, caFile.c_str()) == CURLE_OK;
    if (!ok) return false;

    if (curl_easy_perform(h) != CURLE_OK) return false;
    long status = 0;
    if (curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) return false;
    return status >= 200 && status < 300;
}

std::future<bool> upload(const std::string& reason, const Settings& settings) {
    const auto refused = [] {
        std::promise<bool> done;
        done.set_value(false);
        return done.get_future();
    };
    if (!diagnosticsEnabled(settings)) return refused();
    const auto endpoint = diagnosticsEndpoint(settings);
    if (!endpoint) {
        EngineLog::log("[Diag] no diagnostics endpoint configured — report not sent");
        return refused();
    }
    if (!isHttps(*endpoint)) {
        EngineLog::log("[Diag] diagnostics endpoint is not HTTPS — report not sent");
        return refused();
    }

    auto file = logPath();
    if (file.empty()) file = UserDirs::dataDir() / kLogFileName;
    std::string caFile;
    if (const char* ca = std::getenv("TRELVANE_DIAG_CA"); ca && ca[0] != '\0') caFile = ca;

    std::promise<bool> promise;
    auto future = promise.get_future();
    try {
        // Reading and sending both happen off the caller's thread: a long log must not stall the UI.
        std::thread([url = *endpoint, reason, file = std::move(file), caFile = std::move(caFile),
                     home = UserDirs::homeDir().string(), promise = std::move(promise)]() mutable {
            bool sent = false;
            try {
                const auto log = redactPaths(readText(file), home);
                const auto body = formEncode(
                    {{"version", kVersion}, {"os", osVersionString()}, {"reason", reason}, {"log", log}});
                sent = postForm(url, body, caFile);
            } catch (...) {
                // Fire and forget: a failed report must never take the application down.
            }
            promise.set_value(sent);
        }).detach();
    } catch (const std::system_error&) {
        return refused();
    }
    return future;
}

} // namespace trelvane::AppLog
