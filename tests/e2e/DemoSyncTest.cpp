// SPDX-License-Identifier: GPL-3.0-or-later
// The bundled demo shoot, built from real recordings with its truth, synchronised by the command
// as a user would run it: every clip that can be matched must land within one frame of where it
// was really recorded, no decoy may come out as synced, and the answer is the same whatever the
// feature cache holds and however many workers run.
#include "e2e/CliRunner.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

namespace trelvane::test {
namespace {

constexpr double kFrame = 0.04; // one frame at 25 fps

// Builds the demo once; an up-to-date demo is left as it is.
std::string demoRoot() {
    const std::string root = TRELVANE_SOURCE_DIR;
    EXPECT_EQ(std::system(("bash " + quoted(root + "/scripts/make-demo.sh") + " >/dev/null").c_str()), 0);
    return root;
}

struct Placed {
    double start = 0;
    std::string status;
    std::string pass;
};

TEST(DemoSync, EveryMatchableClipLandsWithinOneFrameAndNoDecoyIsSynced) {
    const std::string root = demoRoot();
    ASSERT_FALSE(HasFailure());

    TempDir home;
    const auto report = home / "report.json";
    // Gaps stay open: closing them changes the distance between separate stretches.
    const auto run = runCli(
        home, "sync " + quoted(root + "/demo/shoot") + " --no-close-gaps --report " + quoted(report.string()),
        true);
    ASSERT_EQ(run.status, 0) << run.out;

    std::map<std::string, Placed> placed;
    const auto session = nlohmann::json::parse(std::ifstream(report));
    for (const auto& track : session["tracks"])
        for (const auto& clip : track["clips"])
            placed[clip["url"].get<std::string>()] = {
                clip["startOffset"].get<double>(), clip["syncStatus"].get<std::string>(),
                clip["placementPass"].is_string() ? clip["placementPass"].get<std::string>() : std::string()};

    const auto truth = nlohmann::json::parse(std::ifstream(root + "/demo/truth.json"))["files"];
    // The timeline may start anywhere: one shift, the median over the matchable clips, maps it on
    // the truth.
    std::vector<double> shifts;
    for (const auto& file : truth) {
        if (!file["matchable"].get<bool>()) continue;
        const auto path = file["path"].get<std::string>();
        const auto it = placed.find(root + "/demo/" + path);
        ASSERT_NE(it, placed.end()) << path << " is missing from the report";
        shifts.push_back(it->second.start - file["start"].get<double>());
    }
    ASSERT_FALSE(shifts.empty());
    std::sort(shifts.begin(), shifts.end());
    const double shift = shifts[shifts.size() / 2];

    int matchable = 0;
    for (const auto& file : truth) {
        const auto path = file["path"].get<std::string>();
        const Placed& p = placed.at(root + "/demo/" + path);
        if (file["matchable"].get<bool>()) {
            ++matchable;
            EXPECT_EQ(p.status, "synced") << path << " (" << p.pass << ")";
            EXPECT_NEAR(p.start - shift, file["start"].get<double>(), kFrame)
                << path << " (" << p.pass << ")";
        } else {
            EXPECT_NE(p.status, "synced") << path << " is a decoy (" << file["kind"] << ")";
        }
    }
    EXPECT_GE(matchable, 10);
}

// A first run computes what later runs read back from the cache; both, a run whose cache was cut
// off half-way, and runs with one or eight workers must write the same report and the same four
// documents, byte for byte.
TEST(DemoSync, CacheStateAndWorkerCountNeverChangeTheAnswer) {
    const std::string root = demoRoot();
    ASSERT_FALSE(HasFailure());
    const std::vector<std::string> outputs{"report.json", "shoot_tv_premiere.xml", "shoot_tv_fcp7.xml",
                                           "shoot_tv_fcp.fcpxml", "shoot_tv_otio.otio"};
    TempDir shared, alone, out;
    // Exports without -o land in the working folder.
    const auto sync = [&](const TempDir& home, const std::string& name, const std::string& workers) {
        const auto folder = out.dir(name);
        const auto run =
            runShell("cd " + quoted(folder.string()) + " && " + cliEnvironment(home) + " " + workers + " " +
                     quoted(TRELVANE_CLI_PATH) + " sync " + quoted(root + "/demo/shoot") +
                     " --report report.json --export premiere --export resolve"
                     " --export fcpxml --export otio 2>&1");
        EXPECT_EQ(run.status, 0) << name << ": " << run.out;
        std::vector<std::string> bytes;
        for (const auto& o : outputs)
            bytes.push_back(slurp(folder / o));
        return bytes;
    };
    const auto same = [&](const std::vector<std::string>& a, const std::vector<std::string>& b,
                          const std::string& what) {
        for (std::size_t i = 0; i < outputs.size(); ++i) {
            EXPECT_FALSE(a[i].empty()) << what << ": " << outputs[i] << " is missing";
            EXPECT_TRUE(a[i] == b[i]) << what << ": " << outputs[i] << " differs from the first run's";
        }
    };

    const auto cold = sync(shared, "cold", "");
    const auto cache = shared / "cache/Trelvane";
    std::vector<std::string> keys;
    for (const auto& e : std::filesystem::directory_iterator(cache))
        if (e.path().extension().empty()) keys.push_back(e.path().filename().string());
    std::sort(keys.begin(), keys.end());
    ASSERT_GE(keys.size(), 10u) << "the first run cached too little to cut";
    same(sync(shared, "warm", ""), cold, "warm");

    // Half the entries gone, one left with its pair only and one with its bands only.
    for (std::size_t k = 0; k < keys.size(); k += 2) {
        std::filesystem::remove(cache / keys[k]);
        std::filesystem::remove(cache / (keys[k] + ".bands"));
    }
    std::filesystem::remove(cache / (keys[1] + ".bands"));
    std::filesystem::remove(cache / keys[3]);
    same(sync(shared, "partial", ""), cold, "half a cache");

    same(sync(alone, "one-worker", "TRELVANE_WORKERS=1"), cold, "empty cache, one worker");
    same(sync(alone, "eight-workers", "TRELVANE_WORKERS=8"), cold, "full cache, eight workers");
}

} // namespace
} // namespace trelvane::test
