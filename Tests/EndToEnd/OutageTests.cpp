// Outages across the three roads (gateway events, promoted URLs, tracking-plan messages):
// what the application hands over while the gateway is away arrives once it is back, and
// nothing is dropped for the outage.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <sstream>
#include <thread>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "Support/KilledChild.h"
#include "Support/LoopbackStack.h"
#include "Support/RunningGateway.h"
#include "Support/TemporaryDirectory.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Time runs a hundred times faster than on a device: a first pause of 200 ms stands for the
// default 20 s, and an outage of 600 ms for a minute.
constexpr auto kFirstPause = 200ms;
constexpr auto kOutage = 600ms;

class OutageTests : public ::testing::Test {
protected:
    std::unique_ptr<AnalyticsStack> makeStack(int port) {
        auto c = testing::loopbackConfiguration(port, directory.path() / "state", console);
        c.environment.minimumBatchSize = 20;
        c.firstRetryPause = kFirstPause;
        c.requestFirstRetryDelay = 20ms;
        return testing::makeStack(std::move(c));
    }

    // One gateway event, one message, and a promoted URL every tenth time, each unique.
    void handOver(AnalyticsStack& stack, int port, int count) {
        for (int i = 0; i < count; ++i, ++sent) {
            stack.tagEvent(APEvent::make("pageview", AttributeDictionary{{"page_name", "p" + std::to_string(sent)}}));
            stack.eventSender()->send("App Cache Cleared", 1, {});
            if (sent % 10 == 0) {
                const auto url = "http://127.0.0.1:" + std::to_string(port) + "/track/impression/" + std::to_string(sent);
                stack.tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", url}}));
                ++urls;
            }
        }
    }

    testing::TemporaryDirectory directory{"kt-outage"};
    std::ostringstream console;
    std::uint64_t sent = 0, urls = 0;
};

TEST_F(OutageTests, aGatewayRefusingConnectionsAndThenAnsweringCostsNothingOnAnyRoad) {
    const int port = testing::closedPort();
    auto stack = makeStack(port);
    // Bursts at the start and in the middle, a trickle all along; the gateway comes back
    // after the outage while the trickle goes on.
    const auto start = Clock::now();
    handOver(*stack, port, 200);
    while (Clock::now() - start < kOutage / 2) handOver(*stack, port, 2), std::this_thread::sleep_for(10ms);
    handOver(*stack, port, 200);
    while (Clock::now() - start < kOutage) handOver(*stack, port, 2), std::this_thread::sleep_for(10ms);
    auto gateway = testing::startGateway({.port = port});
    while (Clock::now() - start < kOutage + kFirstPause) handOver(*stack, port, 2), std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(stack->waitUntilDelivered(30s));

    const auto s = stack->statistics();
    const auto received = gateway->stats();
    EXPECT_GT(s.requests.pauses, 0u) << "the outage was seen";
    constexpr std::uint64_t none = 0;
    EXPECT_EQ(std::tuple(s.upload.delivered, s.upload.dropped(), received.events), std::tuple(sent, none, sent));
    EXPECT_EQ(std::tuple(s.segment.delivered, s.segment.dropped(), received.messages, received.duplicateMessages),
              std::tuple(sent, none, sent, none));
    EXPECT_EQ(std::tuple(s.reliableRequests.delivered, s.reliableRequests.givenUp, received.trackingRequests),
              std::tuple(urls, none, urls));
}

// A run with the gateway away, killed once it has dropped some of what it was handed (events
// JSON cannot hold, URLs that are none, messages past the queue's bound), then a last run:
// on every road, what was handed over is delivered, counted in the state folder, or waiting.
TEST_F(OutageTests, aKilledRunsDropsAreCountedSoEveryRoadReconciles) {
    const int port = testing::closedPort();
    constexpr std::uint64_t kEvents = 20, kBadEvents = 5, kURLs = 5, kBadURLs = 5, kMessages = 1200, kBound = 1000;
    const auto goodURL = [&](std::uint64_t i) { return "http://127.0.0.1:" + std::to_string(port) + "/track/click/" + std::to_string(i); };
    ASSERT_TRUE(testing::killedChild([&] {
        auto stack = makeStack(port);
        for (std::uint64_t i = 0; i < kMessages; ++i) stack->eventSender()->send("App Cache Cleared", 1, {});
        for (std::uint64_t i = 0; i < kEvents + kBadEvents; ++i)
            stack->tagEvent(APEvent::make("pageview", AttributeDictionary{{"page_name", "p" + std::to_string(i)},
                                                                         {"position", i < kBadEvents ? NAN : static_cast<double>(i)}}));
        for (std::uint64_t i = 0; i < kURLs + kBadURLs; ++i) {
            const auto url = i < kBadURLs ? std::string("not a url ") + std::to_string(i) : goodURL(i);
            stack->tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", url}}));
        }
        // Killed once everything was stored or dropped, whatever is in flight.
        const auto settled = [&] {
            const auto s = stack->statistics();
            return s.upload.stored + s.upload.dropped() == kEvents + kBadEvents && s.segment.persisted == kMessages;
        };
        while (stack->drainQueue(1s), !settled()) std::this_thread::sleep_for(1ms);
        testing::killNow();
    }));

    // What the killed run left, as another process lists it: the messages within the bound and
    // the URLs in the order they were tagged.
    const auto left = directory.path() / "state";
    EXPECT_EQ(AnalyticsStack::storedMessages(left).value_or(std::vector<std::string>{}).size(), kBound);
    std::vector<std::string> urls;
    for (std::uint64_t i = kBadURLs; i < kBadURLs + kURLs; ++i) urls.push_back(goodURL(i));
    EXPECT_EQ(AnalyticsStack::storedURLs(left), urls);

    auto gateway = testing::startGateway({.port = port});
    auto stack = makeStack(port);
    ASSERT_TRUE(stack->waitUntilDelivered(30s));
    const auto received = gateway->stats();
    const auto eventDrops = AnalyticsStack::recordedDrops(stack->userDefaults());
    const auto state = stack->stateDirectory();
    stack.reset();  // the message queue is read once no client holds it
    const auto messageDrops = AnalyticsStack::recordedMessageDrops(state).value_or(std::map<std::string, std::uint64_t>{});
    const auto urlDrops = AnalyticsStack::recordedRequestDrops(state);
    using Counts = std::map<std::string, std::uint64_t>;
    EXPECT_EQ(std::tuple(received.events, eventDrops.total(), eventDrops[APEventDropReason::notRepresentable]),
              std::tuple(kEvents, kBadEvents, kBadEvents));
    EXPECT_EQ(std::tuple(received.messages, messageDrops), std::tuple(kBound, Counts{{"queue_full", kMessages - kBound}}));
    EXPECT_EQ(std::tuple(received.trackingRequests, urlDrops), std::tuple(kURLs, Counts{{"not_a_url", kBadURLs}}));
}

}  // namespace
}  // namespace kt
