// The whole pipeline, built by the composition root, against the development gateway.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <set>
#include <sstream>
#include <thread>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "Gateway/DevelopmentGateway.h"
#include "Platform/SerialQueue.h"
#include "Setup/AnalyticsStack.h"
#include "Support/RecordingTechLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using gateway::DevelopmentGateway;
using gateway::GatewayConfiguration;

constexpr auto kDeadline = 15s;  // guards against a hang only
constexpr const char* kUserAgent = "PipelineTests/1";

// (event name, payload) of the gateway elements, comparable across both ends.
using Elements = std::multiset<std::pair<std::string, json>>;

Elements received(const DevelopmentGateway& gateway) {
    Elements elements;
    for (const auto& e : gateway.lastEvents(10'000)) {
        EXPECT_EQ(e.version, "v1.27.36");
        elements.emplace(e.event, json::parse(e.payload));
    }
    return elements;
}

Elements recorded(const APEventGatewayEventRecorder& recorder, std::size_t skipping = 0) {
    Elements elements;
    const auto events = recorder.recordedEvents();
    for (auto e = events.begin() + static_cast<std::ptrdiff_t>(skipping); e < events.end(); ++e)
        elements.emplace((*e)["event"].get<std::string>(), (*e)["payload"]);
    return elements;
}

std::vector<fs::path> eventFiles(const AnalyticsStack& stack) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(stack.eventSerializer()->cacheDirectory()))
        if (entry.path().extension() == ".event") files.push_back(entry.path());
    return files;
}

class GatewayPipelineTests : public ::testing::Test {
protected:
    std::unique_ptr<DevelopmentGateway> startGateway(GatewayConfiguration configuration = {}) {
        configuration.port = 0;
        configuration.seed = 1;
        auto gateway = std::make_unique<DevelopmentGateway>(std::move(configuration));
        EXPECT_TRUE(gateway->start()) << gateway->lastError();
        return gateway;
    }

    AnalyticsStackConfiguration configuration(const std::string& baseURL, const fs::path& state) {
        AnalyticsStackConfiguration c;
        c.environment.eventGatewayBaseURL = baseURL;
        c.environment.clientId = 7;
        c.environment.userAgent = kUserAgent;
        c.environment.minimumBatchSize = 20;
        c.environment.shouldFlushAtRegularIntervals = false;
        c.stateDirectory = state;
        c.recorder = recorder;
        c.techLogger = techLogger;
        c.console = &console;
        return c;
    }

    std::unique_ptr<AnalyticsStack> makeStack(AnalyticsStackConfiguration c) {
        std::string error;
        auto stack = AnalyticsStack::make(std::move(c), &error);
        EXPECT_NE(stack, nullptr) << error;
        return stack;
    }

    static void tagSession(AnalyticsStack& stack, int count) {
        static const char* names[] = {"pageview", "audio", "like", "search", "impression"};
        for (int i = 0; i < count; ++i)
            stack.tagEvent(APEvent::make(names[i % 5], AttributeDictionary{{"page_name", "p" + std::to_string(i)},
                                                                         {"position", i},
                                                                         {"resource", "dropped-by-transformer"}}));
    }

    testing::TemporaryDirectory directory{"kt-e2e"};
    std::shared_ptr<APEventGatewayEventRecorder> recorder = std::make_shared<APEventGatewayEventRecorder>(true);
    std::shared_ptr<testing::RecordingTechLogger> techLogger = std::make_shared<testing::RecordingTechLogger>();
    std::ostringstream console;
};

TEST_F(GatewayPipelineTests, theGatewayReceivesExactlyTheEventsThatWereSentWithTheWireFormatsHeaders) {
    auto gateway = startGateway();
    auto signedIn = configuration(gateway->baseURL(), directory / "signed-in");
    signedIn.token = "secret-token";
    auto stack = makeStack(signedIn);
    auto signedOutStack = makeStack(configuration(gateway->baseURL(), directory / "signed-out"));
    ASSERT_TRUE(stack && signedOutStack);

    // 20 go out on their own when the minimum is reached, the last 5 with the flush.
    tagSession(*stack, 25);
    stack->flush();
    ASSERT_TRUE(stack->waitUntilDelivered(kDeadline));
    const auto sent = recorded(*recorder);
    ASSERT_EQ(sent.size(), 25u);
    EXPECT_EQ(received(*gateway), sent);
    for (const auto& [name, payload] : sent) {
        EXPECT_FALSE(payload.contains("resource"));
        EXPECT_EQ(payload["client_id"], 7);
        EXPECT_TRUE(payload["ts"].is_number_integer());
    }
    // Byte for byte: what the gateway inflated is what the uploader compressed.
    const auto upload = stack->statistics().upload;
    const auto stats = gateway->stats();
    EXPECT_EQ(upload.delivered, 25u);
    EXPECT_EQ(upload.waiting, 0u);
    EXPECT_EQ(stats.requests, upload.batchesSent);
    EXPECT_EQ(stats.events, 25u);
    EXPECT_EQ(stats.bytesRaw, upload.bytesRaw);
    EXPECT_EQ(stats.bytesCompressed, upload.bytesGzipped);
    EXPECT_TRUE(eventFiles(*stack).empty());

    signedOutStack->tagEvent(APEvent::make("like", AttributeDictionary{{"who", "signed-out"}}));
    signedOutStack->flush();
    ASSERT_TRUE(signedOutStack->waitUntilDelivered(kDeadline));
    const auto rows = gateway->lastEvents(100);
    ASSERT_EQ(rows.size(), 26u);
    for (const auto& row : rows) {
        const json headers = json::parse(row.headers);
        const bool signedOut = json::parse(row.payload).contains("who");
        SCOPED_TRACE(signedOut ? "signed out" : "signed in");
        EXPECT_EQ(headers["User-Agent"], kUserAgent);
        EXPECT_EQ(headers["Content-Type"], "application/json");
        EXPECT_EQ(headers["Content-Encoding"], "gzip");
        // The gateway keeps only that a credential came; its value is checked where the
        // request is built.
        EXPECT_EQ(headers.value("Authorization", "(none)"), signedOut ? "(none)" : "present");
    }
}

TEST_F(GatewayPipelineTests, anAlphaBuildUploadsOneEventPerRequestAndReportsEachRejectedOne) {
    auto gateway = startGateway({.failRate = 1.0, .failStatus = 400});
    auto c = configuration(gateway->baseURL(), directory / "state");
    c.alpha = true;
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);

    stack->tagEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:1"}}));
    stack->tagEvent(APEvent::make("repost", AttributeDictionary{{"track", "quillarbor:tracks:2"}}));
    stack->flush();
    ASSERT_TRUE(stack->waitUntilDelivered(kDeadline));

    const auto upload = stack->statistics().upload;
    EXPECT_EQ(upload.batchesSent, 2u);
    EXPECT_EQ(upload.dropped(APEventDropReason::rejected), 2u);
    EXPECT_EQ(upload.delivered, 0u);
    EXPECT_EQ(gateway->stats().failuresInjected, 2u);
    EXPECT_EQ(gateway->stats().events, 0u);

    std::multiset<std::string> described;
    for (const auto& report : techLogger->eventsNamed("invalid-tracking-event")) {
        EXPECT_EQ(report.space, 1);
        described.insert(report.attributes["event"].get<std::string>());
    }
    ASSERT_EQ(described.size(), 2u);
    EXPECT_NE(described.begin()->find("like"), std::string::npos) << *described.begin();
    EXPECT_NE(described.rbegin()->find("repost"), std::string::npos) << *described.rbegin();
}

// After the third failure on a gateway that refuses everything an event is dropped; what is
// still stored then goes out with a new stack over the same folder.
TEST_F(GatewayPipelineTests, theThirdFailedAttemptDropsAnEventAndANewStackUploadsWhatTheLastOneStored) {
    const fs::path state = directory / "state";
    {
        auto failing = startGateway({.failRate = 1.0, .failStatus = 503});
        auto stack = makeStack(configuration(failing->baseURL(), state));
        ASSERT_NE(stack, nullptr);
        tagSession(*stack, 2);
        for (std::uint64_t attempt = 1; attempt <= 3; ++attempt) {
            SCOPED_TRACE(attempt);
            stack->flush();
            ASSERT_TRUE(stack->waitUntilIdle(kDeadline));
            EXPECT_EQ(failing->stats().requests, attempt);
            const auto files = eventFiles(*stack);
            ASSERT_EQ(files.size(), attempt < 3 ? 2u : 0u);
            for (const auto& file : files) EXPECT_EQ(stack->eventSerializer()->retryCountForEventAtURL(file), attempt);
        }
        const auto upload = stack->statistics().upload;
        EXPECT_EQ(upload.dropped(APEventDropReason::failedThreeTimes), 2u);
        EXPECT_EQ(upload.retries, 4u);
        EXPECT_EQ(upload.waiting, 0u);

        tagSession(*stack, 3);
        stack->flush();
        ASSERT_TRUE(stack->waitUntilIdle(kDeadline));
        ASSERT_EQ(eventFiles(*stack).size(), 3u);
        EXPECT_EQ(failing->stats().events, 0u);
    }
    const auto stored = recorded(*recorder, 2);  // not the two dropped ones
    ASSERT_EQ(stored.size(), 3u);

    auto gateway = startGateway();
    auto stack = makeStack(configuration(gateway->baseURL(), state));
    ASSERT_NE(stack, nullptr);
    EXPECT_EQ(stack->statistics().upload.waiting, 3u);
    // Nothing new is tagged: the stored events go out on the first flush.
    stack->flush();
    ASSERT_TRUE(stack->waitUntilDelivered(kDeadline));
    EXPECT_EQ(received(*gateway), stored);
    EXPECT_EQ(stack->statistics().upload.delivered, 3u);
}

TEST_F(GatewayPipelineTests, theSixtySecondFlushSendsFewerEventsThanTheMinimumBatch) {
    auto gateway = startGateway();
    auto queue = std::make_shared<VirtualTimeSerialQueue>();
    auto c = configuration(gateway->baseURL(), directory / "state");
    c.environment.minimumBatchSize = 5;
    c.environment.shouldFlushAtRegularIntervals = true;
    c.queue = queue;
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);

    tagSession(*stack, 4);
    queue->runUntilIdle();
    EXPECT_EQ(stack->statistics().upload.waiting, 4u);
    queue->advance(59s);
    EXPECT_EQ(stack->statistics().upload.batchesSent, 0u);
    queue->advance(1s);
    // Handed to the real request queue now; its answer comes back through the virtual queue.
    EXPECT_EQ(stack->statistics().upload.batchesSent, 1u);
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (stack->statistics().upload.delivered < 4 && std::chrono::steady_clock::now() < deadline) {
        if (queue->runUntilIdle() == 0) std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(stack->statistics().upload.delivered, 4u);
    EXPECT_EQ(stack->statistics().upload.waiting, 0u);
    EXPECT_EQ(received(*gateway), recorded(*recorder));
    EXPECT_EQ(gateway->stats().requests, 1u);
}

}  // namespace
}  // namespace kt
