// `ktanalytics gateway` run as the built binary: it announces its address, serves with the
// failures it was asked to inject, refuses a port in use, and stops cleanly on SIGTERM.

#include <gtest/gtest.h>
#include <httplib.h>

#include "AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "Tool/ToolProcess.h"

namespace kt::tool {
namespace {

using testing::ToolProcess;

TEST(GatewayCommandTests, servesWithInjectedFailuresRefusesAPortInUseAndStopsCleanlyOnSIGTERM) {
    ToolProcess tool({"gateway", "--port", "0", "--fail-rate", "1", "--fail-status", "429", "--seed", "1"});
    ASSERT_GT(tool.pid(), 0);
    const auto first = tool.readLine();
    const std::string prefix = "listening on http://127.0.0.1:";
    ASSERT_TRUE(first && first->rfind(prefix, 0) == 0) << first.value_or("(nothing)");
    const std::string port = first->substr(prefix.size());

    httplib::Client client("127.0.0.1", std::stoi(port));
    const std::string body = GzipCodec::gzippedData(R"([{"event":"play","version":"v1","payload":{}}])").value();
    const auto upload = client.Post("/v1/events", {{"Content-Encoding", "gzip"}}, body, "application/json");
    EXPECT_EQ(upload ? upload->status : -1, 429);
    EXPECT_EQ(tool.readLine(), "POST /v1/events 429 events=0");

    ToolProcess second({"gateway", "--port", port});
    const auto refusal = second.readLine();
    EXPECT_NE(refusal.value_or("").find(port), std::string::npos) << refusal.value_or("(nothing)");
    EXPECT_EQ(second.waitForExit(), "exit 1");

    ASSERT_EQ(::kill(tool.pid(), SIGTERM), 0);
    EXPECT_EQ(tool.waitForExit(), "exit 0");
    EXPECT_EQ(tool.readLine(), "stopped (SIGTERM)");
}

}  // namespace
}  // namespace kt::tool
