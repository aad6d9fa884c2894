// Promoted tracking URLs over the real gateway: every URL fired arrives once, whatever the
// gateway, a restart or a kill does in between.

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <sstream>
#include <thread>

#include <httplib.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Promoted/APPromotedAnalyticsProvider.h"
#include "KTAnalytics/Promoted/AnalyticsEntityTagger.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "Support/KilledChild.h"
#include "Support/LoopbackStack.h"
#include "Support/RunningGateway.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using gateway::DevelopmentGateway;
using testing::closedPort;
using testing::startGateway;

class PromotedDeliveryTests : public ::testing::Test {
protected:
    std::unique_ptr<AnalyticsStack> makeStack(int port) {
        auto c = testing::loopbackConfiguration(port, directory / "state", console);
        c.requestFirstRetryDelay = 20ms;
        c.environment.userAgent = "Quillarbor/10";
        c.firstRetryPause = 20ms;
        return testing::makeStack(std::move(c));
    }

    void fire(AnalyticsStack& stack, int port, int from, int to) {
        for (int i = from; i < to; ++i) {
            const auto url = "http://127.0.0.1:" + std::to_string(port) + "/track/impression/" + std::to_string(i);
            stack.tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", url}}));
        }
    }

    // Each target received, and how often.
    static std::multiset<std::string> received(const DevelopmentGateway& gateway) {
        std::multiset<std::string> targets;
        for (const auto& r : gateway.lastTrackingRequests(1000)) targets.insert(r.target);
        return targets;
    }

    testing::TemporaryDirectory directory{"kt-promoted"};
    std::ostringstream console;
};

// Fired while every request fails, then across a restart of the uploader over the same
// state folder, and across a kill right after the request was handed over: all arrive,
// each once, and a later start sends none again.
TEST_F(PromotedDeliveryTests, everyURLArrivesOnceAfterFailuresARestartAndAKill) {
    const int port = closedPort();
    {
        auto failing = startGateway({.port = port, .failRate = 1.0});
        auto stack = makeStack(port);
        fire(*stack, port, 0, 5);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (failing->stats().failuresInjected < 10 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        EXPECT_GE(failing->stats().failuresInjected, 10u);  // each tried at least twice
        EXPECT_EQ(stack->statistics().reliableRequests.waiting, 5u);
    }
    // A process that dies right after handing a URL over.
    ASSERT_TRUE(testing::killedChild([&] {
        auto stack = makeStack(port);
        fire(*stack, port, 5, 6);
        testing::killNow();
    }));

    auto gateway = startGateway({.port = port});
    auto stack = makeStack(port);
    ASSERT_TRUE(stack->waitUntilDelivered(20s));
    std::multiset<std::string> fired;
    for (int i = 0; i < 6; ++i) fired.insert("/track/impression/" + std::to_string(i));
    EXPECT_EQ(received(*gateway), fired);
    const auto requests = stack->statistics().reliableRequests;
    EXPECT_EQ(requests.delivered, 6u);
    EXPECT_EQ(requests.givenUp + requests.rejected, 0u);

    // What was delivered has left the store: the next start sends nothing again.
    stack.reset();
    stack = makeStack(port);
    ASSERT_TRUE(stack->waitUntilDelivered(5s));
    EXPECT_EQ(received(*gateway), fired);
}

// A tracking URL whose ad server redirects to the gateway arrives there once, with the
// configured user agent, and counts as delivered, never retried. A URL text that does
// not parse, fired beside it, is counted under its reason and sent nowhere.
TEST_F(PromotedDeliveryTests, aRedirectedURLArrivesOnceWithTheConfiguredUserAgentAndABadTextIsCounted) {
    auto gateway = startGateway();
    auto stack = makeStack(gateway->port());
    httplib::Server adServer;
    adServer.Get("/ad", [&](const httplib::Request&, httplib::Response& r) {
        r.set_redirect(gateway->baseURL() + "/track/impression/redirected");
    });
    adServer.set_keep_alive_max_count(1);  // stopping waits for no idle connection of the stack's
    const int adPort = adServer.bind_to_any_port("127.0.0.1");
    std::jthread serving([&] { adServer.listen_after_bind(); });
    const std::unique_ptr<httplib::Server, void (*)(httplib::Server*)> stopping(&adServer, [](auto* s) { s->stop(); });

    AnalyticsEntityTagger tagger(stack->promotedProvider());
    const std::string adURL = "http://127.0.0.1:" + std::to_string(adPort) + "/ad";
    tagger.tagEvents(tagger.promotedEventsForUrls({adURL, "http://ads.example/t?x={a b}"}));
    ASSERT_TRUE(stack->waitUntilDelivered(10s));

    const auto tracked = gateway->lastTrackingRequests(10);
    ASSERT_EQ(tracked.size(), 1u);
    EXPECT_EQ(tracked[0].target, "/track/impression/redirected");
    EXPECT_NE(tracked[0].headers.find("\"Quillarbor/10\""), std::string::npos) << tracked[0].headers;
    const auto requests = stack->statistics().reliableRequests;
    EXPECT_EQ(std::tuple(requests.delivered, requests.retried), std::tuple(1u, 0u));
    const std::map<std::string, std::uint64_t> refused{{"not_a_url", 1}};
    EXPECT_EQ(requests.droppedByReason, refused);
    EXPECT_EQ(AnalyticsStack::recordedRequestDrops(directory / "state"), refused);
}

}  // namespace
}  // namespace kt
