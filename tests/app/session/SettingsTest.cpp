// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/Settings.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

using namespace trelvane;
namespace fs = std::filesystem;

using namespace trelvane::test;

namespace {

void writeBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
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

TEST(Settings, ValuesRoundTripThroughTheFileAndKeysOfOthersSurvive) {
    TempDir dir;
    const auto file = dir.path() / "a" / "b" / "settings.json"; // folders made on the first write
    {
        LogCapture log;
        Settings s(file);
        expectDefaults(s);
        EXPECT_FALSE(fs::exists(file)) << "reading creates nothing";
        s.setString(Settings::kSyncModeKey, "stacks");
        s.setString("lastExportFolder", "/Volumes/Edit/Ünïcode");
        s.setBool(Settings::kDiagUploadKey, false);
        EXPECT_TRUE(log.lines().empty());
    }
    EXPECT_EQ(namesIn(file.parent_path()), std::vector<std::string>{"settings.json"}) << "no temporary files";
    Settings again(file);
    EXPECT_EQ(again.stringValue(Settings::kSyncModeKey), "stacks");
    EXPECT_EQ(again.optionalString("lastExportFolder"), "/Volumes/Edit/Ünïcode");
    EXPECT_FALSE(again.boolValue(Settings::kDiagUploadKey));
    for (const char* key : {"tvSyncMode", "lastExportFolder", "tv_diag_upload"})
        again.remove(key);
    expectDefaults(again);
    EXPECT_EQ(nlohmann::json::parse(slurp(file)), nlohmann::json::object());

    // Another writer changed the file: reload picks it up, and its keys survive our writes. Values
    // of the wrong type or out of their set read as the defaults, silently.
    const auto theirs = nlohmann::json::parse(R"({"list": [1, 2.5, "three", null], "flag": true})");
    writeBytes(file, R"({"tvAutoCloseGaps": false, "tvSyncMode": "sideways", "tv_diag_upload": null,
                         "tv_diag_endpoint": ["https://x"], "someoneElse": )" +
                         theirs.dump() + "}");
    LogCapture log;
    again.reload();
    EXPECT_FALSE(again.boolValue(Settings::kAutoCloseGapsKey));
    EXPECT_EQ(again.stringValue(Settings::kSyncModeKey), "tracks");
    EXPECT_EQ(again.optionalString(Settings::kSyncModeKey), "sideways");
    EXPECT_TRUE(again.boolValue(Settings::kDiagUploadKey));
    EXPECT_EQ(again.stringValue(Settings::kDiagEndpointKey), "");
    EXPECT_TRUE(log.lines().empty());
    again.setString(Settings::kDiagEndpointKey, "https://x");
    EXPECT_EQ(nlohmann::json::parse(slurp(file)).at("someoneElse"), theirs);

    const ScopedEnv config("XDG_CONFIG_HOME", dir.path().string());
    EXPECT_EQ(Settings::defaultPath(), dir.path() / "Trelvane" / "settings.json");
}

// A file that can't be read gives the defaults and one log line, and is left as it was until a
// change; a change that can't be written either is kept in memory with one more line.
TEST(Settings, AnUnreadableFileGivesDefaultsAndOneLogLine) {
    const std::string garbage = "{\"tvSyncMode\": \"stacks\", \"tvAutoCloseGaps\": fal";
    for (const bool corrupt : {true, false}) {
        SCOPED_TRACE(corrupt ? "corrupt JSON" : "a folder in its place");
        TempDir dir;
        const auto file = dir.path() / "settings.json";
        corrupt ? writeBytes(file, garbage) : (void)fs::create_directory(file);
        LogCapture log;
        Settings s(file);
        expectDefaults(s);
        s.remove(Settings::kSyncModeKey); // nothing to remove: not a change
        EXPECT_TRUE(!corrupt || slurp(file) == garbage) << "changed before any change";
        s.setBool(Settings::kDiagUploadKey, false);
        EXPECT_FALSE(s.boolValue(Settings::kDiagUploadKey));
        EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"settings.json"});
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), corrupt ? 1u : 2u);
        EXPECT_TRUE(lines[0].starts_with("[Settings] could not read " + file.string() + ": ") &&
                    lines[0].ends_with(" — using defaults"))
            << lines[0];
        if (corrupt)
            EXPECT_EQ(nlohmann::json::parse(slurp(file)), nlohmann::json({{"tv_diag_upload", false}}));
        else
            EXPECT_TRUE(lines[1].starts_with("[Settings] could not write " + file.string() + ": "))
                << lines[1];
    }
}

TEST(Settings, TheCacheCeilingComesFromTheEnvironmentThenTheFileThenTwoGB) {
    TempDir dir;
    const auto file = dir.path() / "settings.json";
    constexpr std::int64_t kGB = std::int64_t{1} << 30;
    const struct {
        std::optional<std::string> env;
        const char* json;
        std::int64_t bytes;
    } cases[] = {
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
        EXPECT_EQ(Settings(file).cacheCeilingBytes(), c.bytes) << c.env.value_or("(unset)") << " " << c.json;
    }
}
