// The SDK as a host application starts it: what the configuration says reaches every
// request, and the process-wide instances are the started stack's own.

#include <httplib.h>

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <thread>

#include "Commands/Playback.h"
#include "KTAnalytics/KTAnalytics.h"
#include "KTAnalytics/KTFoundation/OAuthHelper.h"
#include "Support/LoopbackStack.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;

// Answers every request 200 and keeps, per path, the headers a host cares about.
class RecordingServer {
public:
    RecordingServer() {
        const auto record = [this](const httplib::Request& q, httplib::Response& r) {
            std::lock_guard lock(mutex_);
            seen_[q.path] = q.get_header_value("User-Agent") + " | " + q.get_header_value("Authorization");
            r.status = 200;
        };
        server_.Get(".*", record);
        server_.Post(".*", record);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~RecordingServer() {
        server_.stop();
        thread_.join();
    }
    int port() const { return port_; }
    std::map<std::string, std::string> seen() const {
        std::lock_guard lock(mutex_);
        return seen_;
    }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> seen_;
};

struct Started {
    testing::TemporaryDirectory state;
    std::ostringstream console;
    std::shared_ptr<tool::ScriptedPlaybackService> player = std::make_shared<tool::ScriptedPlaybackService>();
    std::shared_ptr<tool::TokenRecorder> tokens = std::make_shared<tool::TokenRecorder>();
    std::unique_ptr<AnalyticsStack> stack;

    explicit Started(int port) {
        auto c = testing::loopbackConfiguration(port, state.path(), console);
        c.environment.userAgent = "X/2.0";
        c.environment.minimumBatchSize = 1;
        c.token = "t0ken";
        c.playbackService = player;
        c.attributionDelegate = tokens;
        std::string error;
        stack = AnalyticsStack::start(std::move(c), &error);
        EXPECT_NE(stack, nullptr) << error;
    }
};

// Tags through the shared controller and a tracking-plan event through the shared wrapper
// reach every destination, each request with the configured user agent, and the
// re-addressed batch signed with the user's token as the stack's own wrapper signs it.
TEST(OneProductTests, theSharedInstancesAreTheStartedStacksAndTheConfigurationReachesEveryRequest) {
    RecordingServer server;
    Started sdk(server.port());
    ASSERT_TRUE(sdk.stack);
    auto& shared = APAnalyticsController::sharedInstance();
    EXPECT_EQ(&shared, &sdk.stack->controller());
    const auto base = "http://127.0.0.1:" + std::to_string(server.port());
    shared.tagEvent(APEvent::make("pageview", AttributeDictionary{{"page_name", "stream"}}));
    shared.tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", base + "/track/impression/1"}}));
    shared.tagEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:1"}}));
    sdk.player->play("quillarbor:tracks:2", PlayQueueItemType::track, {31.0});
    EventSender().applicationOpened(false, std::nullopt, std::nullopt);  // over SegmentWrapper::shared()
    ASSERT_TRUE(sdk.stack->waitUntilDelivered(20s));

    const auto signedBy = "X/2.0 | " + OAuthHelper::authHeaderForToken("t0ken");
    EXPECT_EQ(server.seen(), (std::map<std::string, std::string>{
                                 {"/track/impression/1", "X/2.0 | "}, {"/v1/batch", signedBy}, {"/v1/events", signedBy}}));
    EXPECT_EQ(sdk.tokens->tokens(),
              (std::vector<std::string>{"k4tq7v", EventToken::playToken, EventToken::firstPlayToken}));
    EXPECT_EQ(sdk.stack->statistics().segment.delivered, 1u);
    EXPECT_EQ(DependencyRegistry::shared().get(DependencyKeys::eventSender), sdk.stack->eventSender());
}

// One started SDK at a time; shutting it down hands the shared instances back for the next.
TEST(OneProductTests, aSecondStartWaitsForTheFirstToShutDown) {
    RecordingServer server;
    Started first(server.port());
    ASSERT_TRUE(first.stack);
    testing::TemporaryDirectory other;
    std::string error;
    std::ostringstream console;
    EXPECT_FALSE(AnalyticsStack::start(testing::loopbackConfiguration(server.port(), other.path(), console), &error));
    EXPECT_EQ(error, "the SDK is already started in this process; shut the running one down first");

    const auto oldWrapper = first.stack->segmentWrapper();
    first.stack->shutdown();
    EXPECT_TRUE(APAnalyticsController::sharedInstance().analyticsProviders()->empty());
    EXPECT_EQ(DependencyRegistry::shared().get(DependencyKeys::eventSender), nullptr);
    Started second(server.port());
    ASSERT_TRUE(second.stack);
    EXPECT_EQ(SegmentWrapper::shared(), second.stack->segmentWrapper());
    EXPECT_NE(SegmentWrapper::shared(), oldWrapper);
}

}  // namespace
}  // namespace kt
