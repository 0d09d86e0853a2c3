// SPDX-License-Identifier: GPL-3.0-or-later
// What continuous integration relies on: checks that can't run there fail instead of skipping.
#include "TestSupport.hpp"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace trelvane::test {

TEST(ContinuousIntegration, TheFcpxmlDtdCheckFailsThereWhenTheDtdIsMissingAndSkipsElsewhere) {
    const std::string run =
        "TRELVANE_FCPXML_DTD=/nonexistent/FCPXMLv1_10.dtd /proc/" + std::to_string(::getpid()) +
        "/exe --gtest_filter=FCPXMLExporter.ValidatesAgainstDtdAtEveryRate >/dev/null 2>&1";
    const auto status = [](const std::string& cmd) {
        const int raw = std::system(cmd.c_str());
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    };
    EXPECT_NE(status("CI=true " + run), 0) << "skipped in CI";
    EXPECT_EQ(status("env -u CI " + run), 0) << "a developer's machine without the DTD skips it";
}

} // namespace trelvane::test
