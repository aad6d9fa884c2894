// Tracking-plan events over the real gateway: re-addressed by the rewriter, signed with the
// user's token, gzip-compressed, carrying the "kt" context, each message once.

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <sstream>
#include <thread>

#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProvider.h"
#include "KTAnalytics/Segment/SegmentWrapper.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "Support/KilledChild.h"
#include "Support/LoopbackStack.h"
#include "Support/RunningGateway.h"
#include "Support/TemporaryDirectory.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using testing::startGateway;

std::unique_ptr<AnalyticsStack> makeStack(const std::filesystem::path& state, int port, std::ostream& console) {
    auto c = testing::loopbackConfiguration(port, state, console);
    c.token = "tok-1";
    c.userUrn = "quillarbor:users:7";
    c.variantIds = {"v-1"};
    c.segmentFlushAt = 5;
    return testing::makeStack(std::move(c));
}

TEST(TrackingPlanDelivery, ReachesTheGatewayOnlyThroughTheRewriterSignedCompressedAndWithItsContext) {
    testing::TemporaryDirectory directory;
    auto gateway = startGateway();
    std::ostringstream console;
    auto stack = makeStack(directory.path() / "state", gateway->port(), console);

    auto& sender = *stack->eventSender();
    sender.identify("u-7", AttributeValue{{"plan", "go+"}});
    for (int i = 0; i < 12; ++i)
        sender.send("Track Liked", 1, {{"track_urn", AttributeValue("quillarbor:tracks:" + std::to_string(i))}},
                    i % 2 ? std::vector<std::string>{"mo-engage"} : std::vector<std::string>{});
    ASSERT_TRUE(stack->waitUntilDelivered(20s));

    const auto statistics = stack->statistics().segment;
    EXPECT_EQ(std::tuple(statistics.delivered, statistics.waiting, gateway->stats().duplicateMessages),
              std::tuple(13u, 0u, 0u));
    EXPECT_TRUE(statistics.droppedByReason.empty());

    // Every message carries the context of the stack that sent it.
    const AttributeValue kt{{"client_application_id", 7}, {"anonymous_id", stack->segmentWrapper()->anonymousId()},
                            {"user_id", "quillarbor:users:7"}, {"part_of_variants", {"v-1"}}, {"analytics_id", nullptr},
                            {"session_id", stack->sessionIdProvider()->getSessionId().uuidString()}};
    std::set<std::string> ids;
    for (const auto& m : gateway->lastMessages(100)) {
        SCOPED_TRACE(m.messageId);
        ids.insert(m.messageId);
        // Signed with the user's token, not the client's write key.
        EXPECT_EQ(std::tuple(m.authorization, m.gzip), std::tuple("Bearer present", true));
        EXPECT_EQ(AttributeValue::parse(m.kt), kt);
    }
    EXPECT_EQ(ids.size(), 13u);
}

TEST(TrackingPlanDelivery, WhatWasQueuedWhileTheGatewayWasDownOrAtAKillArrivesAfterARestartOnce) {
    testing::TemporaryDirectory directory;
    const int port = testing::closedPort();
    std::ostringstream console;
    {
        // Nobody listens: the messages stay queued on disk when the stack goes.
        auto stack = makeStack(directory.path() / "state", port, console);
        for (int i = 0; i < 7; ++i) stack->eventSender()->send("App Cache Cleared", 1, {});
        EXPECT_FALSE(stack->waitUntilDelivered(300ms));
    }
    // A process killed once its messages are stored, before any of them went out.
    ASSERT_TRUE(testing::killedChild([&] {
        auto stack = makeStack(directory.path() / "state", port, console);
        for (int i = 0; i < 3; ++i) stack->eventSender()->send("App Theme Changed", 1, {{"value", AttributeValue("dark")}});
        while (stack->statistics().segment.persisted < 3) std::this_thread::sleep_for(1ms);
        testing::killNow();
    }));

    auto gateway = startGateway({.port = port});
    auto stack = makeStack(directory.path() / "state", port, console);
    ASSERT_TRUE(stack->waitUntilDelivered(20s));
    EXPECT_EQ(gateway->lastMessages(100).size(), 10u);
    EXPECT_EQ(gateway->stats().duplicateMessages, 0u);
}

}  // namespace
}  // namespace kt
