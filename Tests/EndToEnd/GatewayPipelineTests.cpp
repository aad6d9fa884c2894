// The whole pipeline, built by the composition root, against the development gateway.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <sstream>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "Support/LoopbackStack.h"
#include "Support/RecordingTechLogger.h"
#include "Support/RunningGateway.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using testing::startGateway;

constexpr auto kDeadline = 15s;  // guards against a hang only
constexpr const char* kUserAgent = "PipelineTests/1";

std::vector<fs::path> eventFiles(const AnalyticsStack& stack) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(stack.eventSerializer()->cacheDirectory()))
        if (entry.path().extension() == ".event") files.push_back(entry.path());
    return files;
}

class GatewayPipelineTests : public ::testing::Test {
protected:
    AnalyticsStackConfiguration configuration(int port, const fs::path& state) {
        auto c = testing::loopbackConfiguration(port, state, console);
        c.environment.userAgent = kUserAgent;
        c.environment.minimumBatchSize = 20;
        c.techLogger = techLogger;
        return c;
    }

    static void tagSession(AnalyticsStack& stack, int count) {
        static const char* names[] = {"pageview", "audio", "like", "search", "impression"};
        for (int i = 0; i < count; ++i)
            stack.tagEvent(APEvent::make(names[i % 5], AttributeDictionary{{"page_name", "p" + std::to_string(i)},
                                                                         {"position", i},
                                                                         {"resource", "dropped-by-transformer"}}));
    }

    testing::TemporaryDirectory directory{"kt-e2e"};
    std::shared_ptr<testing::RecordingTechLogger> techLogger = std::make_shared<testing::RecordingTechLogger>();
    std::ostringstream console;
};

TEST_F(GatewayPipelineTests, theGatewayReceivesEveryEventByteForByteWithTheWireFormatsHeaders) {
    auto gateway = startGateway();
    auto signedIn = configuration(gateway->port(), directory / "signed-in");
    signedIn.token = "secret-token";
    auto stack = testing::makeStack(signedIn);
    auto signedOutStack = testing::makeStack(configuration(gateway->port(), directory / "signed-out"));
    ASSERT_TRUE(stack && signedOutStack);

    // 20 go out on their own when the minimum is reached, the last 5 with the flush.
    tagSession(*stack, 25);
    stack->flush();
    ASSERT_TRUE(stack->waitUntilDelivered(kDeadline));
    // Byte for byte: what the gateway inflated is what the uploader compressed.
    const auto upload = stack->statistics().upload;
    const auto stats = gateway->stats();
    EXPECT_EQ(std::tuple(upload.delivered, upload.waiting, stats.events), std::tuple(25u, 0u, 25u));
    EXPECT_EQ(std::tuple(stats.requests, stats.bytesRaw, stats.bytesCompressed),
              std::tuple(upload.batchesSent, upload.bytesRaw, upload.bytesGzipped));
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
        // The gateway keeps only that a credential came; its value is checked where the
        // request is built.
        EXPECT_EQ(json::array({headers["User-Agent"], headers["Content-Type"], headers["Content-Encoding"],
                               headers.value("Authorization", "(none)")}),
                  json::array({kUserAgent, "application/json", "gzip", signedOut ? "(none)" : "present"}));
    }
}

TEST_F(GatewayPipelineTests, anAlphaBuildUploadsOneEventPerRequestAndReportsEachRejectedOne) {
    auto gateway = startGateway({.failRate = 1.0, .failStatus = 400});
    auto c = configuration(gateway->port(), directory / "state");
    c.alpha = true;
    auto stack = testing::makeStack(c);
    ASSERT_NE(stack, nullptr);

    stack->tagEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:1"}}));
    stack->tagEvent(APEvent::make("repost", AttributeDictionary{{"track", "quillarbor:tracks:2"}}));
    stack->flush();
    ASSERT_TRUE(stack->waitUntilDelivered(kDeadline));

    const auto upload = stack->statistics().upload;
    EXPECT_EQ(std::tuple(upload.batchesSent, upload.dropped(APEventDropReason::rejected), gateway->stats().failuresInjected),
              std::tuple(2u, 2u, 2u));
    // What each report says is checked on the uploader; here, that the stack's tech logger gets them.
    EXPECT_EQ(techLogger->eventsNamed("invalid-tracking-event").size(), 2u);
}

}  // namespace
}  // namespace kt
