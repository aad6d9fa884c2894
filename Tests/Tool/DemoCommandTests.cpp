#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "Commands/DemoSession.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

struct RunResult {
    int exitCode = -1;
    std::string output;
};

RunResult run(const std::string& arguments) {
    RunResult result;
    FILE* pipe = ::popen((std::string(KTANALYTICS_TOOL_PATH) + " " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) result.output.append(buffer, n);
    const int status = ::pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TEST(DemoCommandTests, DeliversEverythingAndReportsEveryDestination) {
    testing::TemporaryDirectory state;
    const auto result = run("demo --events 150 --min-batch 10 --fail-rate 0.25 --seed 3 --state-dir " +
                            state.path().string());
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_NE(result.output.find("Delivery report"), std::string::npos);
    // With failures injected at random an event may fail all three attempts: it must then
    // be counted, and the demo's own check (delivered + dropped = tagged) still holds.
    EXPECT_NE(result.output.find("gateway received 1"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("still waiting on disk: 0"), std::string::npos);
    EXPECT_NE(result.output.find("(suppressed: no consent)"), std::string::npos);
    EXPECT_NE(result.output.find("dev_ab_price_test"), std::string::npos);
    EXPECT_NE(result.output.find("Result: everything that should arrive arrived"), std::string::npos);
}

TEST(DemoCommandTests, RejectsOutOfRangeOptions) {
    const auto result = run("demo --fail-rate 2");
    EXPECT_NE(result.exitCode, 0);
}

TEST(DemoSessionTests, SessionIsDeterministicUniqueAndOfTheGatewayVocabulary) {
    const auto first = tool::makeDemoSession(300, 11);
    const auto second = tool::makeDemoSession(300, 11);
    ASSERT_EQ(first.size(), 300u);
    std::set<std::string> ids;
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(first[i]->name(), second[i]->name());
        ASSERT_NE(first[i]->attributes(), nullptr);
        ids.insert((*first[i]->attributes())["client_event_id"].get<std::string>());
    }
    // Identical events would collapse into one stored file.
    EXPECT_EQ(ids.size(), first.size());
}

}  // namespace
}  // namespace kt
