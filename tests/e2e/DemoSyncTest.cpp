// SPDX-License-Identifier: GPL-3.0-or-later
// The bundled demo shoot, built from real recordings, synchronised by the command as a user would
// run it: the answer is the same whatever the feature cache holds and however many workers run.
#include "e2e/CliRunner.hpp"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

namespace trelvane::test {
namespace {

// Builds the demo once; an up-to-date demo is left as it is.
std::string demoRoot() {
    const std::string root = TRELVANE_SOURCE_DIR;
    EXPECT_EQ(std::system(("bash " + quoted(root + "/scripts/make-demo.sh") + " >/dev/null").c_str()), 0);
    return root;
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
    std::map<std::string, std::string> first;
    // Exports without -o land in the working folder.
    const auto sync = [&](const TempDir& home, const std::string& name, const std::string& workers) {
        const auto folder = out.dir(name);
        const auto run =
            runShell("cd " + quoted(folder.string()) + " && " + cliEnvironment(home) + " " + workers + " " +
                     quoted(TRELVANE_CLI_PATH) + " sync " + quoted(root + "/demo/shoot") +
                     " --report report.json --export premiere --export resolve"
                     " --export fcpxml --export otio 2>&1");
        EXPECT_EQ(run.status, 0) << name << ": " << run.out;
        const bool isFirst = first.empty();
        for (const auto& o : outputs) {
            const auto bytes = slurp(folder / o);
            EXPECT_FALSE(bytes.empty()) << name << ": " << o << " is missing";
            if (isFirst) first[o] = bytes;
            EXPECT_TRUE(bytes == first[o]) << name << ": " << o << " differs from the first run's";
        }
    };

    sync(shared, "cold", "");
    const auto cache = shared / "cache/Trelvane";
    std::vector<std::string> keys;
    for (const auto& e : std::filesystem::directory_iterator(cache))
        if (e.path().extension().empty()) keys.push_back(e.path().filename().string());
    std::sort(keys.begin(), keys.end());
    ASSERT_GE(keys.size(), 10u) << "the first run cached too little to cut";
    sync(shared, "warm", "");

    // Half the entries gone, one left with its pair only and one with its bands only.
    for (std::size_t k = 0; k < keys.size(); k += 2) {
        std::filesystem::remove(cache / keys[k]);
        std::filesystem::remove(cache / (keys[k] + ".bands"));
    }
    std::filesystem::remove(cache / (keys[1] + ".bands"));
    std::filesystem::remove(cache / keys[3]);
    // And half of the pairs' fine alignments.
    std::vector<std::filesystem::path> fine;
    for (const auto& e : std::filesystem::directory_iterator(cache))
        if (e.path().extension() == ".fine") fine.push_back(e.path());
    std::sort(fine.begin(), fine.end());
    ASSERT_GE(fine.size(), 10u);
    for (std::size_t k = 0; k < fine.size(); k += 2)
        std::filesystem::remove(fine[k]);
    sync(shared, "half a cache", "");

    sync(alone, "one worker, empty cache", "TRELVANE_WORKERS=1");
    sync(alone, "eight workers, full cache", "TRELVANE_WORKERS=8");
}

// Every synced clip lies within a millisecond of where its sound lines up with the others' (the
// truth counts each device's distance from the stage), and nothing that was not measured is
// given a drift.
TEST(DemoSync, EverySyncedClipLiesWithinAMillisecondOfItsSound) {
    const std::string root = demoRoot();
    ASSERT_FALSE(HasFailure());
    TempDir home;
    const auto report = home / "report.json";
    const auto run =
        runShell(cliEnvironment(home) + " " + quoted(TRELVANE_CLI_PATH) + " sync " +
                 quoted(root + "/demo/shoot") + " --report " + quoted(report.string()) + " 2>&1");
    ASSERT_EQ(run.status, 0) << run.out;
    const auto truthFile = nlohmann::json::parse(slurp(root + "/demo/truth.json"));
    const auto reportFile = nlohmann::json::parse(slurp(report));
    std::map<std::string, double> truth;
    for (const auto& f : truthFile["files"])
        if (f["matchable"] == true) truth[root + "/demo/" + f["path"].get<std::string>()] = f["start"];
    std::vector<std::pair<std::string, double>> placed;
    for (const auto& t : reportFile["tracks"])
        for (const auto& c : t["clips"]) {
            const std::string url = c["url"];
            if (c["syncStatus"] != "synced") {
                EXPECT_TRUE(c["driftPPM"].is_null() || c["syncStatus"] == "weak") << url;
                continue;
            }
            ASSERT_TRUE(truth.count(url)) << url << " is synced but not matchable";
            placed.push_back({url, c["startOffset"].get<double>() - truth[url]});
            EXPECT_TRUE(c["driftPPM"].is_number()) << url;
        }
    ASSERT_GE(placed.size(), 12u);
    std::vector<double> shifts;
    for (const auto& [_, d] : placed)
        shifts.push_back(d);
    std::nth_element(shifts.begin(), shifts.begin() + std::ptrdiff_t(shifts.size() / 2), shifts.end());
    const double shift = shifts[shifts.size() / 2];
    for (const auto& [url, d] : placed)
        EXPECT_NEAR(d, shift, 1e-3) << url;
}

} // namespace
} // namespace trelvane::test
