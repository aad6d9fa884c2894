// Tracking-plan events over the real gateway: re-addressed by the rewriter, signed with the
// user's token, gzip-compressed, carrying the "kt" context, each message once.

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <sstream>
#include <thread>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "AnalyticsProvider/EventGateway/SessionIdProvider.h"
#include "Gateway/DevelopmentGateway.h"
#include "Segment/SegmentWrapper.h"
#include "Setup/AnalyticsStack.h"
#include "Support/TemporaryDirectory.h"
#include "TrackingArchitecture/EventSender.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using gateway::DevelopmentGateway;
using gateway::GatewayConfiguration;

std::unique_ptr<AnalyticsStack> makeStack(const std::filesystem::path& state, int port, std::ostream& console,
                                          std::optional<std::string> token = "tok-1") {
    AnalyticsStackConfiguration c;
    c.environment.eventGatewayBaseURL = "http://127.0.0.1:" + std::to_string(port);
    c.environment.clientId = 7;
    c.environment.segmentWriteKey = "wk";
    c.environment.shouldFlushAtRegularIntervals = false;
    c.stateDirectory = state;
    c.token = std::move(token);
    c.userUrn = "quillarbor:users:7";
    c.variantIds = {"v-1"};
    c.segmentFlushAt = 5;
    c.shutdownTimeout = 500ms;
    c.console = &console;
    std::string error;
    auto stack = AnalyticsStack::make(std::move(c), &error);
    EXPECT_NE(stack, nullptr) << error;
    return stack;
}

TEST(TrackingPlanDelivery, ReachesTheGatewayOnlyThroughTheRewriterSignedCompressedAndWithItsContext) {
    testing::TemporaryDirectory directory;
    DevelopmentGateway gateway(GatewayConfiguration{});
    ASSERT_TRUE(gateway.start()) << gateway.lastError();
    std::ostringstream console;
    auto stack = makeStack(directory.path() / "state", gateway.port(), console);
    // The client's own endpoint names the API host: only the rewriter's host swap finds the gateway.
    EXPECT_EQ(AnalyticsStack::segmentAPIURL(stack->configuration()),
              "http://api.segment.io:" + std::to_string(gateway.port()) + "/v1");

    auto& sender = *stack->eventSender();
    sender.identify("u-7", AttributeValue{{"plan", "go+"}});
    for (int i = 0; i < 12; ++i)
        sender.send("Track Liked", 1, {{"track_urn", AttributeValue("quillarbor:tracks:" + std::to_string(i))}},
                    i % 2 ? std::vector<std::string>{"mo-engage"} : std::vector<std::string>{});
    ASSERT_TRUE(stack->waitUntilDelivered(20s));

    const auto statistics = stack->statistics().segment;
    EXPECT_EQ(statistics.delivered, 13u);
    EXPECT_EQ(statistics.waiting, 0u);
    EXPECT_TRUE(statistics.droppedByReason.empty());
    EXPECT_EQ(gateway.stats().duplicateMessages, 0u);

    const auto messages = gateway.lastMessages(100);
    ASSERT_EQ(messages.size(), 13u);
    std::set<std::string> ids;
    std::size_t tracks = 0, enabled = 0;
    for (const auto& m : messages) {
        SCOPED_TRACE(m.messageId);
        ids.insert(m.messageId);
        EXPECT_EQ(m.authorization, "present");
        EXPECT_TRUE(m.gzip);
        const auto kt = AttributeValue::parse(m.kt);
        EXPECT_EQ(kt["client_application_id"], 7);
        EXPECT_EQ(kt["user_id"], "quillarbor:users:7");
        EXPECT_EQ(kt["part_of_variants"], AttributeValue({"v-1"}));
        EXPECT_EQ(kt["analytics_id"], nullptr);
        EXPECT_EQ(kt["anonymous_id"], stack->segmentWrapper()->anonymousId());
        EXPECT_EQ(kt["session_id"], stack->sessionIdProvider()->getSessionId().uuidString());
        if (m.type == "track") {
            ++tracks;
            EXPECT_EQ(m.name, "Track Liked");
            const auto integrations = AttributeValue::parse(m.integrations);
            if (integrations.contains("MoEngage")) ++enabled;
            EXPECT_EQ(integrations["All"], false);
        } else {
            EXPECT_EQ(m.type, "identify");
            EXPECT_EQ(m.name, "u-7");
        }
    }
    EXPECT_EQ(ids.size(), 13u);
    EXPECT_EQ(tracks, 12u);
    EXPECT_EQ(enabled, 6u);
}

TEST(TrackingPlanDelivery, WhatWasQueuedWhileTheGatewayWasDownOrAtAKillArrivesAfterARestartOnce) {
    testing::TemporaryDirectory directory;
    int port;
    {
        DevelopmentGateway probe(GatewayConfiguration{});
        ASSERT_TRUE(probe.start());
        port = probe.port();
    }
    std::ostringstream console;
    {
        // Nobody listens: the messages stay queued on disk when the stack goes.
        auto stack = makeStack(directory.path() / "state", port, console);
        for (int i = 0; i < 7; ++i) stack->eventSender()->send("App Cache Cleared", 1, {});
        EXPECT_FALSE(stack->waitUntilDelivered(300ms));
    }
    // A process killed once its messages are stored, before any of them went out.
    const pid_t child = ::fork();
    if (child == 0) {
        auto stack = makeStack(directory.path() / "state", port, console);
        for (int i = 0; i < 3; ++i) stack->eventSender()->send("App Theme Changed", 1, {{"value", AttributeValue("dark")}});
        while (stack->statistics().segment.persisted < 3) std::this_thread::sleep_for(1ms);
        ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));

    GatewayConfiguration c;
    c.port = port;
    DevelopmentGateway gateway(c);
    ASSERT_TRUE(gateway.start()) << gateway.lastError();
    auto stack = makeStack(directory.path() / "state", port, console);
    ASSERT_TRUE(stack->waitUntilDelivered(20s));
    EXPECT_EQ(gateway.lastMessages(100).size(), 10u);
    EXPECT_EQ(gateway.stats().duplicateMessages, 0u);
}

}  // namespace
}  // namespace kt
