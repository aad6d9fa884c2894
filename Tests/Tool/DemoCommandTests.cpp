#include <gtest/gtest.h>

#include <set>

#include "Commands/DemoSession.h"
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

TEST(DemoSessionTests, TheSameSeedGivesTheSameSessionOfDistinctEvents) {
    const auto first = makeDemoSession(300, 11);
    const auto second = makeDemoSession(300, 11);
    ASSERT_EQ(first.size(), 300u);
    std::set<std::string> ids;
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(first[i]->name(), second[i]->name());
        ASSERT_NE(first[i]->attributes(), nullptr);
        ids.insert((*first[i]->attributes())["client_event_id"].get<std::string>());
    }
    EXPECT_EQ(ids.size(), first.size()) << "identical events would collapse into one stored file";
}

}  // namespace
}  // namespace kt::tool
