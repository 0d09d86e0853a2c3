// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSupport.hpp"
#include "TrelvaneEngine/support/Date.hpp"
#include "TrelvaneEngine/support/NaturalOrder.hpp"
#include "TrelvaneEngine/support/Url.hpp"
#include "TrelvaneEngine/support/Uuid.hpp"
#include "TrelvaneEngine/support/WorkerWindow.hpp"

#include <array>
#include <atomic>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <string_view>

using namespace trelvane;

TEST(Support, NaturalOrderComparesDigitRunsByValueAndIgnoresCase) {
    using P = std::pair<const char*, const char*>;
    for (const auto& [a, b] :
         {P{"A_2", "A_10"}, P{"clip9", "CLIP10"}, P{"a", "B"}, P{"x", "x1"}, P{"C0099", "C0100"},
          P{"99999999999999999999999", "100000000000000000000000"}}) {
        EXPECT_LT(localizedStandardCompare(a, b), 0) << a << " " << b;
        EXPECT_GT(localizedStandardCompare(b, a), 0) << a << " " << b;
    }
    EXPECT_EQ(localizedStandardCompare("same", "same"), 0);
    // Equivalent but not identical names still get a fixed, antisymmetric order.
    for (const auto& [a, b] : {P{"Clip", "clip"}, P{"A01", "A1"}}) {
        EXPECT_NE(localizedStandardCompare(a, b), 0) << a;
        EXPECT_EQ(localizedStandardCompare(a, b), -localizedStandardCompare(b, a)) << a;
    }
}

TEST(Support, UrlsAreAbsoluteNormalisedValuesAndDatesKeepMilliseconds) {
    const Url u = Url::fromPath("/shoot/./cam/../cam/C0001.MP4");
    EXPECT_EQ(u.path(), "/shoot/cam/C0001.MP4");
    EXPECT_EQ(u.pathExtension(), "MP4");
    EXPECT_EQ(u.baseName(), "C0001");
    EXPECT_EQ(u.lastPathComponent(), "C0001.MP4");
    EXPECT_EQ(u.deletingLastPathComponent().path(), "/shoot/cam");
    EXPECT_EQ(u.deletingPathExtension().path(), "/shoot/cam/C0001");
    EXPECT_EQ(u, Url::fromPath("/shoot/cam/C0001.MP4"));
    EXPECT_EQ(Url::fromPath("/shoot/cam/").path(), "/shoot/cam");
    EXPECT_EQ(Url::fromPath("/.hidden").pathExtension(), "");
    EXPECT_EQ(Url::fromPath("/").deletingLastPathComponent().path(), "/");
    EXPECT_EQ(Url::fromPath("/a").deletingLastPathComponent().path(), "/");
    EXPECT_TRUE(Url::fromPath("relative/x.wav").path().starts_with("/"));

    // Dates keep their milliseconds and print their offset.
    const Date d = dateFromUnixSeconds(1'718'390'096.789);
    EXPECT_NEAR(unixSeconds(d), 1'718'390'096.789, 1e-6);
    EXPECT_EQ(iso8601UTC(d), "2024-06-14T18:34:56.789Z");
    const std::regex local(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.789[+-]\d\d:\d\d$)");
    EXPECT_TRUE(std::regex_match(iso8601(d), local)) << iso8601(d);
    const std::regex clock(R"(^(1[0-2]|[1-9]):[0-5]\d (AM|PM)$)");
    EXPECT_TRUE(std::regex_match(formatClockTime(d), clock)) << formatClockTime(d);
}

// Random ones are version 4; named ones version 8, the same for the same text only.
TEST(Support, UuidsAreCanonicalRoundTripAndNamedOnesFollowTheirText) {
    const std::regex v4("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$"),
        v8("^[0-9A-F]{8}-[0-9A-F]{4}-8[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");
    std::set<Uuid> seen;
    for (int i = 0; i < 1000; ++i) {
        const Uuid u = Uuid::random();
        EXPECT_TRUE(std::regex_match(u.string(), v4)) << u.string();
        EXPECT_EQ(Uuid::parse(u.string()), u);
        seen.insert(u);
    }
    // Texts a byte apart, of equal and different lengths, the empty one included.
    for (const std::string text : {"", "a", "b", "ab", "ba", "clip|/shoot/C0001.MP4", "clip|/shoot/C0002.MP4",
                                   "clip|/shoot/C0001.MP4 ", "track|/shoot/C0001.MP4"}) {
        EXPECT_TRUE(std::regex_match(Uuid::named(text).string(), v8)) << text;
        EXPECT_EQ(Uuid::named(text), Uuid::named(text)) << text;
        seen.insert(Uuid::named(text));
    }
    EXPECT_EQ(seen.size(), 1009u);
    EXPECT_EQ(Uuid::parse("not-a-uuid"), std::nullopt);
    EXPECT_TRUE(Uuid().isNil());
}

TEST(Support, WorkerWindowKeepsAtMostNInFlightRunsEachJobOnceStopsAndReadsItsSize) {
    std::atomic<int> inFlight{0}, peak{0};
    std::vector<std::atomic<int>> runs(20);
    std::vector<int> handed(20);
    WorkerWindow::run<int>(
        3, 20,
        [&](std::size_t i) {
            ++runs[i];
            const int now = ++inFlight;
            for (int p = peak.load(); now > p && !peak.compare_exchange_weak(p, now);) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2 + (i % 3)));
            --inFlight;
            return static_cast<int>(i) * 2;
        },
        [&](std::size_t i, int r) { handed[i] += r == static_cast<int>(i) * 2 ? 1 : 100; });
    EXPECT_LE(peak.load(), 3);
    for (std::size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(runs[i], 1) << i;
        EXPECT_EQ(handed[i], 1) << i << ": each result is handed back once, with its index";
    }

    std::stop_source stop;
    int ran = 0;
    WorkerWindow::run<int>(
        2, 10, [&](std::size_t) { return 0; },
        [&](std::size_t, int) {
            ++ran;
            stop.request_stop();
        },
        stop.get_token());
    EXPECT_LE(ran, 2) << "no job starts after a stop";

    // The variable sets the worker count only when it holds a usable whole number.
    for (const auto* text : {"1", "8", "256"}) {
        const trelvane::test::ScopedEnv env("TRELVANE_WORKERS", text);
        EXPECT_EQ(WorkerWindow::requestedWorkers(), std::stoi(text)) << text;
    }
    for (const std::optional<std::string>& text :
         {std::optional<std::string>{}, {""}, {"0"}, {"257"}, {"-2"}, {"4x"}, {" 4"}, {"99999999999"}}) {
        const trelvane::test::ScopedEnv env("TRELVANE_WORKERS", text);
        EXPECT_EQ(WorkerWindow::requestedWorkers(), std::nullopt) << text.value_or("(unset)");
    }
}

TEST(Support, PercentEncodingKeepsOnlyItsCharacterSet) {
    // The input; then as a form field, a URL path and a report's exact bytes.
    const std::array<std::string_view, 4> cases[] = {
        {"AZaz09-._~", "AZaz09-._~", "AZaz09-._~", "AZaz09-._~"},
        {"!$&'()*+,/:;=@", "%21%24%26%27%28%29%2A%2B%2C%2F%3A%3B%3D%40", "!$&'()*+,/:;=@", "!$&'()*+,/:;=@"},
        {"\"#<>?[\\]^`{|}", "%22%23%3C%3E%3F%5B%5C%5D%5E%60%7B%7C%7D",
         "%22%23%3C%3E%3F%5B%5C%5D%5E%60%7B%7C%7D", "\"#<>?[\\]^`{|}"},
        {"% \n\x7F\xFFé", "%25%20%0A%7F%FF%C3%A9", "%25%20%0A%7F%FF%C3%A9", "%25%20%0A%7F%FF%C3%A9"},
    };
    for (const auto& [bytes, form, path, printable] : cases) {
        EXPECT_EQ(percentEncoded(bytes, UrlChars::unreserved), form);
        EXPECT_EQ(percentEncoded(bytes, UrlChars::path), path);
        EXPECT_EQ(percentEncoded(bytes, UrlChars::printable), printable);
    }
    EXPECT_EQ(percentEncoded(std::string_view("\0", 1), UrlChars::printable), "%00");
}
