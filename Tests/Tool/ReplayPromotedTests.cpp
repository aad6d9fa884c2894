// `ktanalytics replay` with promoted URLs and attribution milestones among its lines.

#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "Gateway/DevelopmentGateway.h"
#include "Support/TemporaryDirectory.h"

namespace kt::tool {
namespace {

using nlohmann::json;

TEST(ReplayPromotedTests, promotedURLsAreFiredAndMilestonesReportedInTheSummary) {
    gateway::DevelopmentGateway gateway(gateway::GatewayConfiguration{});
    ASSERT_TRUE(gateway.start()) << gateway.lastError();
    testing::TemporaryDirectory directory{"kt-replay-promoted"};
    const auto file = directory / "session.jsonl";
    {
        std::ofstream out(file);
        for (const json& line :
             {json{{"name", "promoted_event"}, {"attributes", {{"url", gateway.baseURL() + "/track/impression/1"}}}},
              json{{"name", "like"}, {"attributes", {{"track", "quillarbor:tracks:1"}}}},
              json{{"name", "click"}, {"attributes", {{"click_name", "follow::add"}}}},
              json{{"name", "audio"}, {"attributes", {{"action", "play"}, {"in_playlist", "quillarbor:system-playlists:7"}}}},
              json{{"name", "promoted_event"}, {"attributes", {{"url", gateway.baseURL() + "/track/click/1"}}}},
              json{{"name", "promoted_event"}, {"attributes", {{"no_url", true}}}}})
            out << line.dump() << '\n';
    }
    const std::string command = std::string(KTANALYTICS_TOOL_PATH) + " replay " + file.native() + " --gateway " +
                                gateway.baseURL() + " --state-dir " + (directory / "state").native() +
                                " --timeout 20 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    const int status = ::pclose(pipe);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << output;
    const json summary = json::parse(output, nullptr, false);
    ASSERT_TRUE(summary.is_object()) << output;
    EXPECT_EQ(summary["promoted"], json::parse(R"({"fired":2,"delivered":2,"waiting":0,"given_up":0})"));
    EXPECT_EQ(summary["attribution_tokens"], json::parse(R"(["k4tq7v","31x905","pqdse2"])"));
    EXPECT_EQ(gateway.stats().trackingByPrefix,
              (std::map<std::string, std::uint64_t>{{"/track/click", 1}, {"/track/impression", 1}}));
}

}  // namespace
}  // namespace kt::tool
