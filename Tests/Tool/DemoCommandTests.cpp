#include <gtest/gtest.h>

#include "Support/TemporaryDirectory.h"
#include "Tool/ToolProcess.h"

namespace kt::tool {
namespace {

TEST(DemoCommandTests, DeliversEverythingDespiteFailuresAndReportsEveryDestination) {
    ::kt::testing::TemporaryDirectory directory;
    const auto run = testing::runTool({"demo", "--events", "150", "--min-batch", "10", "--fail-rate", "0.25", "--seed",
                                       "3", "--state-dir", (directory / "state").string()},
                                      directory.path());
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    // With failures injected at random an event may fail all three attempts: it is then
    // counted, and the demo's own check (delivered + dropped = tagged) still holds.
    for (const char* line : {"Delivery report", "still waiting on disk: 0", "(suppressed: no consent)",
                             "dev_ab_price_test", "promoted URLs", "/track/impression 9", "52hk3r (first play)",
                             "ufnrob (fifth play)", "Result: everything that should arrive arrived"})
        EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;
}

}  // namespace
}  // namespace kt::tool
