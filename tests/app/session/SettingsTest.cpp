// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/Settings.hpp"
#include "TestSupport.hpp"
#include "TrelvaneEngine/support/EngineLog.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace trelvane;
namespace fs = std::filesystem;

using trelvane::test::LogCapture;
using trelvane::test::ScopedEnv;
using trelvane::test::TempDir;

namespace {

void writeBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

nlohmann::json readJson(const fs::path& path) {
    return nlohmann::json::parse(readBytes(path));
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    return names;
}

void expectDefaults(const Settings& s) {
    EXPECT_EQ(s.stringValue(Settings::kSyncModeKey), "tracks");
    EXPECT_TRUE(s.boolValue(Settings::kAutoCloseGapsKey));
    EXPECT_TRUE(s.boolValue(Settings::kDiagUploadKey));
    EXPECT_EQ(s.stringValue(Settings::kDiagEndpointKey), "");
}

} // namespace

TEST(Settings, AbsentFileGivesTheDefaultsAndIsNotCreatedByReading) {
    TempDir dir;
    LogCapture log;
    const Settings s(dir.path() / "settings.json");
    expectDefaults(s);
    EXPECT_FALSE(s.boolValue("noSuchKey"));
    EXPECT_EQ(s.stringValue("noSuchKey"), "");
    EXPECT_EQ(s.optionalString(Settings::kSyncModeKey), std::nullopt);
    EXPECT_EQ(s.path(), dir.path() / "settings.json");
    EXPECT_FALSE(fs::exists(s.path()));
    EXPECT_TRUE(log.lines().empty());

    const ScopedEnv config("XDG_CONFIG_HOME", dir.path().string());
    EXPECT_EQ(Settings::defaultPath(), dir.path() / "Trelvane" / "settings.json");
}

TEST(Settings, EachTypeRoundTripsThroughTheFileAndRemoveRestoresTheDefault) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    {
        Settings s(file);
        s.setString(Settings::kSyncModeKey, "stacks");
        s.setBool(Settings::kAutoCloseGapsKey, false);
        s.setBool(Settings::kDiagUploadKey, false);
        s.setString(Settings::kDiagEndpointKey, "https://diag.example/report");
        s.setString("lastExportFolder", "/Volumes/Edit/Ünïcode");
        EXPECT_EQ(s.stringValue(Settings::kSyncModeKey), "stacks");
        EXPECT_FALSE(s.boolValue(Settings::kAutoCloseGapsKey));
    }
    Settings again(file);
    EXPECT_EQ(again.stringValue(Settings::kSyncModeKey), "stacks");
    EXPECT_FALSE(again.boolValue(Settings::kAutoCloseGapsKey));
    EXPECT_FALSE(again.boolValue(Settings::kDiagUploadKey));
    EXPECT_EQ(again.stringValue(Settings::kDiagEndpointKey), "https://diag.example/report");
    EXPECT_EQ(again.optionalString("lastExportFolder"), "/Volumes/Edit/Ünïcode");

    again.remove(Settings::kAutoCloseGapsKey);
    again.remove("lastExportFolder");
    EXPECT_TRUE(again.boolValue(Settings::kAutoCloseGapsKey));
    EXPECT_EQ(again.optionalString("lastExportFolder"), std::nullopt);
    const auto onDisk = readJson(file);
    EXPECT_FALSE(onDisk.contains(std::string(Settings::kAutoCloseGapsKey)));
    EXPECT_FALSE(onDisk.contains("lastExportFolder"));
    EXPECT_EQ(onDisk.at(std::string(Settings::kSyncModeKey)), "stacks");

    // Another writer changed the file: reload picks it up.
    writeBytes(file, R"({"tvSyncMode": "tracks", "tvAutoCloseGaps": false})");
    again.reload();
    EXPECT_EQ(again.stringValue(Settings::kSyncModeKey), "tracks");
    EXPECT_FALSE(again.boolValue(Settings::kAutoCloseGapsKey));
    EXPECT_TRUE(again.boolValue(Settings::kDiagUploadKey));
}

TEST(Settings, WritesMakeTheFolderAndLeaveNoTemporaryFiles) {
    TempDir dir;
    const auto folder = dir.path() / "a" / "b" / "Trelvane";
    Settings s(folder / "settings.json");
    for (int i = 0; i < 20; ++i) {
        s.setBool(Settings::kAutoCloseGapsKey, i % 2 == 0);
        s.setString(Settings::kDiagEndpointKey, "https://x/" + std::to_string(i));
    }
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"settings.json"});
    const auto onDisk = readJson(folder / "settings.json");
    EXPECT_EQ(onDisk.at(std::string(Settings::kAutoCloseGapsKey)), false);
    EXPECT_EQ(onDisk.at(std::string(Settings::kDiagEndpointKey)), "https://x/19");
}

TEST(Settings, CorruptFileGivesDefaultsAndIsKeptUntilAChange) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    const std::string garbage = "{\"tvSyncMode\": \"stacks\", \"tvAutoCloseGaps\": fal";
    writeBytes(file, garbage);

    LogCapture log;
    Settings s(file);
    expectDefaults(s);
    s.remove(Settings::kSyncModeKey); // nothing to remove: not a change
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[Settings] could not read " + file.string() + ": ", 0), 0u) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" — using defaults")) << lines[0];
    EXPECT_EQ(readBytes(file), garbage);

    s.setBool(Settings::kDiagUploadKey, false);
    const auto onDisk = readJson(file);
    EXPECT_EQ(onDisk, nlohmann::json({{"tv_diag_upload", false}}));
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"settings.json"});
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Settings, UnreadableFileGivesDefaultsAndOneLogLine) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    fs::create_directory(file); // a folder where the file should be
    LogCapture log;
    Settings s(file);
    expectDefaults(s);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[Settings] could not read " + file.string() + ": ", 0), 0u) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" — using defaults")) << lines[0];

    // The write can't replace a folder either: one more log line, the value kept in memory.
    s.setBool(Settings::kAutoCloseGapsKey, false);
    EXPECT_FALSE(s.boolValue(Settings::kAutoCloseGapsKey));
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[1].rfind("[Settings] could not write " + file.string() + ": ", 0), 0u);
    EXPECT_TRUE(fs::is_directory(file));
}

TEST(Settings, WrongTypesAndUnknownModesReadAsDefaults) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    writeBytes(file, R"({"tvSyncMode": 3, "tvAutoCloseGaps": "no", "tv_diag_upload": null,
                         "tv_diag_endpoint": ["https://x"]})");
    LogCapture log;
    Settings s(file);
    expectDefaults(s);
    EXPECT_EQ(s.optionalString(Settings::kSyncModeKey), std::nullopt);
    EXPECT_EQ(s.optionalString(Settings::kDiagEndpointKey), std::nullopt);

    writeBytes(file, R"({"tvSyncMode": "sideways", "tvAutoCloseGaps": 0})");
    s.reload();
    EXPECT_EQ(s.stringValue(Settings::kSyncModeKey), "tracks");
    EXPECT_EQ(s.optionalString(Settings::kSyncModeKey), "sideways");
    EXPECT_TRUE(s.boolValue(Settings::kAutoCloseGapsKey));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Settings, TheCacheCeilingComesFromTheEnvironmentThenTheFileThenTwoGB) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    constexpr std::int64_t kGB = std::int64_t{1} << 30;
    struct Case {
        std::optional<std::string> env;
        const char* json;
        std::int64_t bytes;
    };
    const std::vector<Case> cases{
        {std::nullopt, "{}", 2 * kGB},
        {std::nullopt, R"({"tvCacheMaxGB": 10})", 10 * kGB},
        {std::nullopt, R"({"tvCacheMaxGB": 0.5})", kGB / 2},
        {std::nullopt, R"({"tvCacheMaxGB": 0})", 0},
        {std::nullopt, R"({"tvCacheMaxGB": -1})", 2 * kGB},
        {std::nullopt, R"({"tvCacheMaxGB": "10"})", 2 * kGB},
        {std::nullopt, R"({"tvCacheMaxGB": 1e300})", 2 * kGB},
        {"4", R"({"tvCacheMaxGB": 10})", 4 * kGB},
        {"0.25", "{}", kGB / 4},
        {"4GB", R"({"tvCacheMaxGB": 10})", 10 * kGB},
        {"nan", "{}", 2 * kGB},
        {"-3", "{}", 2 * kGB},
        {"", R"({"tvCacheMaxGB": 1})", kGB},
    };
    for (const auto& c : cases) {
        const ScopedEnv env("TRELVANE_CACHE_MAX_GB", c.env);
        writeBytes(file, c.json);
        const Settings s(file);
        EXPECT_EQ(s.cacheCeilingBytes(), c.bytes) << c.env.value_or("(unset)") << " " << c.json;
    }
}

TEST(Settings, UnknownKeysSurviveAWrite) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    const auto theirs =
        nlohmann::json::parse(R"({"nested": {"list": [1, 2.5, "three", null]}, "flag": true})");
    writeBytes(file, nlohmann::json({{"someoneElse", theirs}, {"tvSyncMode", "stacks"}}).dump());
    Settings s(file);
    s.setBool(Settings::kAutoCloseGapsKey, false);
    const auto onDisk = readJson(file);
    EXPECT_EQ(onDisk.at("someoneElse"), theirs);
    EXPECT_EQ(onDisk.at("tvSyncMode"), "stacks");
    EXPECT_EQ(onDisk.at("tvAutoCloseGaps"), false);
}

TEST(Settings, HostileJsonNeverCrashesAndAChangeLeavesAValidFile) {
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    std::string deepObjects;
    for (int i = 0; i < 10000; ++i)
        deepObjects += "{\"a\":";
    deepObjects += "1" + std::string(10000, '}');
    const std::vector<std::string> hostile = {
        deep,
        "{\"x\": " + deep + "}",
        deepObjects,
        "1e999",
        "{\"x\": 1e999, \"tvAutoCloseGaps\": false}",
        "{\"x\": 123456789012345678901234567890123456789012345678901234567890}",
        "{\"tvSyncMode\": \"st\xff\xfe"
        "acks\"}",
        "{\"\xc3\x28\": true}",
        "{\"x\": \"\xed\xa0\x80\"}",
        "{\"x\": \"\\ud800\"}",
        "",
        "null",
        "[1, 2, 3]",
        "\"just a string\"",
        "{\"a\": 1} trailing",
        std::string("{\"a\":\0 1}", 9),
        "{\"tvSyncMode\": \"stacks\", \"tvSyncMode\": 7}",
    };
    for (const auto& text : hostile) {
        SCOPED_TRACE(testing::PrintToString(text.substr(0, 60)));
        TempDir dir;
        const auto file = dir.path() / "settings.json";
        writeBytes(file, text);
        LogCapture log;
        Settings s(file);
        (void)s.stringValue(Settings::kSyncModeKey);
        (void)s.boolValue(Settings::kAutoCloseGapsKey);
        (void)s.optionalString("x");
        EXPECT_LE(log.lines().size(), 1u);
        s.setString(Settings::kDiagEndpointKey, "https://diag.example/\xff");
        nlohmann::json onDisk;
        EXPECT_NO_THROW(onDisk = readJson(file));
        EXPECT_TRUE(onDisk.is_object());
        EXPECT_EQ(onDisk.value(std::string(Settings::kDiagEndpointKey), ""),
                  "https://diag.example/\xef\xbf\xbd");
    }
}

TEST(Settings, ConcurrentReadersAndWritersAreSafe) {
    TempDir dir;
    Settings s(dir.path() / "settings.json");
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&s, t] {
            for (int i = 0; i < 25; ++i) {
                if (t % 2 == 0) {
                    s.setBool(Settings::kAutoCloseGapsKey, i % 2 == 0);
                    s.setString(Settings::kSyncModeKey, i % 2 == 0 ? "stacks" : "tracks");
                } else {
                    const auto mode = s.stringValue(Settings::kSyncModeKey);
                    EXPECT_TRUE(mode == "tracks" || mode == "stacks");
                    (void)s.boolValue(Settings::kAutoCloseGapsKey);
                }
            }
        });
    }
    threads.clear();
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"settings.json"});
    EXPECT_NO_THROW((void)readJson(dir.path() / "settings.json"));
}
