// SPDX-License-Identifier: GPL-3.0-or-later
// The bundled demo shoot, built from real recordings with its truth, synchronised by the command
// as a user would run it: every clip that can be matched must land within one frame of where it
// was really recorded, and no decoy may come out as synced.
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

struct Placed {
    double start = 0;
    std::string status;
    std::string pass;
};

TEST(DemoSync, EveryMatchableClipLandsWithinOneFrameAndNoDecoyIsSynced) {
    const std::string root = TRELVANE_SOURCE_DIR;
    // Builds the demo once; an up-to-date demo is left as it is.
    ASSERT_EQ(std::system(("bash " + quoted(root + "/scripts/make-demo.sh") + " >/dev/null").c_str()), 0);

    TempDir home;
    const auto report = home / "report.json";
    // Gaps stay open: closing them changes the distance between separate stretches.
    const auto run = runCli(home, "sync " + quoted(root + "/demo/shoot") + " --no-close-gaps --report " +
                                      quoted(report.string()),
                            true);
    ASSERT_EQ(run.status, 0) << run.out;

    std::map<std::string, Placed> placed;
    const auto session = nlohmann::json::parse(std::ifstream(report));
    for (const auto& track : session["tracks"])
        for (const auto& clip : track["clips"])
            placed[clip["url"].get<std::string>()] = {clip["startOffset"].get<double>(),
                                                      clip["syncStatus"].get<std::string>(),
                                                      clip["placementPass"].is_string()
                                                          ? clip["placementPass"].get<std::string>()
                                                          : std::string()};

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
            EXPECT_NEAR(p.start - shift, file["start"].get<double>(), kFrame) << path << " (" << p.pass << ")";
        } else {
            EXPECT_NE(p.status, "synced") << path << " is a decoy (" << file["kind"] << ")";
        }
    }
    EXPECT_GE(matchable, 10);
}

} // namespace
} // namespace trelvane::test
