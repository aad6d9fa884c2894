#include "KTData/ReliableRequestUploader.h"

#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "Support/FakeRequestQueue.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using testing::FakeRequestQueue;
using testing::TemporaryDirectory;

constexpr int kDelivered = 0;
constexpr int kFailed = 2;
constexpr int kRejected = 3;

HTTPRequest trackingRequest(const std::string& name) {
    HTTPRequest request;
    request.url = "http://127.0.0.1:9/track/" + name + "?a=1&b=%20";
    request.setValue("KTAnalytics/1.0", "User-Agent");
    // Binary bytes, a NUL among them, must come back unchanged.
    request.body = std::string("\x1f\x8b\x00\xff", 4) + name;
    return request;
}

// The worker runs on its own thread: wait, bounded, for what it is expected to do.
bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

class ReliableRequestUploaderTests : public ::testing::Test {
protected:
    ReliableRequestUploader::Configuration configuration() {
        ReliableRequestUploader::Configuration c;
        c.databasePath = directory.path() / "requests.sqlite";
        c.maximumAttempts = 3;
        c.firstRetryDelay = 5ms;
        c.longestRetryDelay = 20ms;
        c.reachabilityPoll = 5ms;
        return c;
    }
    bool sent(std::size_t count) {
        return eventually([&] { return queue->sentCount() == count && queue->pendingCount() > 0; });
    }

    TemporaryDirectory directory{"kt-reliable-uploader"};
    std::shared_ptr<FakeRequestQueue> queue = std::make_shared<FakeRequestQueue>();
};

// Stored before `uploadRequest` returns: a process that ends right after (here, while the
// network is down) loses nothing, and the next start sends it, bytes unchanged.
TEST_F(ReliableRequestUploaderTests, aRequestIsStoredBeforeUploadReturnsAndSentByTheNextStart) {
    queue->setReachable(false);
    {
        ReliableRequestUploader uploader(configuration(), queue, nullptr);
        uploader.uploadRequest(trackingRequest("first"));
        EXPECT_EQ(uploader.numberOfStoredRequests(), 1u);
    }
    EXPECT_EQ(queue->sentCount(), 0u);
    queue->setReachable(true);
    ReliableRequestUploader restarted(configuration(), queue, nullptr);
    ASSERT_TRUE(sent(1));
    EXPECT_EQ(queue->sentRequests()[0], trackingRequest("first"));
    queue->respond(kDelivered);
    EXPECT_TRUE(eventually([&] { return restarted.numberOfStoredRequests() == 0; }));
    EXPECT_EQ(restarted.statistics().delivered, 1u);
}

// Each outcome settles a request its own way, and every request given up (after its last
// attempt or once too old) is counted.
TEST_F(ReliableRequestUploaderTests, failuresAreRetriedUntilGivenUpAndRejectionsAreNot) {
    struct Case {
        const char* name;
        std::vector<int> answers;
        std::uint64_t delivered, rejected, givenUp, retried;
        std::optional<std::chrono::milliseconds> maximumAge = std::nullopt;
    };
    for (const auto& c : std::vector<Case>{{"delivered at once", {kDelivered}, 1, 0, 0, 0},
                                           {"rejected: never retried", {kRejected}, 0, 1, 0, 0},
                                           {"delivered on the third attempt", {kFailed, 503, kDelivered}, 1, 0, 0, 2},
                                           {"three failures", {kFailed, kFailed, kFailed}, 0, 0, 1, 2},
                                           {"older than the age bound at its first failure", {kFailed}, 0, 0, 1, 0, 0ms}}) {
        SCOPED_TRACE(c.name);
        queue = std::make_shared<FakeRequestQueue>();
        std::filesystem::remove(directory.path() / "requests.sqlite");
        auto configured = configuration();
        configured.maximumAge = c.maximumAge.value_or(configured.maximumAge);
        ReliableRequestUploader uploader(configured, queue, nullptr);
        uploader.uploadRequest(trackingRequest(c.name));
        for (std::size_t i = 0; i < c.answers.size(); ++i) {
            ASSERT_TRUE(sent(i + 1));
            queue->respond(c.answers[i]);
        }
        ASSERT_TRUE(eventually([&] { return uploader.numberOfStoredRequests() == 0; }));
        uploader.flush();
        std::this_thread::sleep_for(20ms);  // a settled request must not be sent again
        EXPECT_EQ(queue->sentCount(), c.answers.size());
        const auto s = uploader.statistics();
        EXPECT_EQ(s.fired, 1u);
        EXPECT_EQ(s.delivered, c.delivered);
        EXPECT_EQ(s.rejected, c.rejected);
        EXPECT_EQ(s.givenUp, c.givenUp);
        EXPECT_EQ(s.retried, c.retried);
        // Delivery never runs on the caller's thread.
        for (const auto& sender : queue->senders()) EXPECT_NE(sender, std::this_thread::get_id());
    }
}

// With a long back-off, a failed request waits; asking for the failed ones sends it at once.
TEST_F(ReliableRequestUploaderTests, uploadFailedRequestsSendsTheFailedOnesAtOnce) {
    auto c = configuration();
    c.firstRetryDelay = c.longestRetryDelay = 1h;
    ReliableRequestUploader uploader(c, queue, nullptr);
    uploader.uploadRequest(trackingRequest("waits"));
    ASSERT_TRUE(sent(1));
    queue->respond(kFailed);
    ASSERT_TRUE(eventually([&] { return uploader.statistics().inFlight == 0; }));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(queue->sentCount(), 1u);
    uploader.uploadFailedRequests();
    ASSERT_TRUE(sent(2));
    queue->respond(kDelivered);
    EXPECT_TRUE(eventually([&] { return uploader.numberOfStoredRequests() == 0; }));
}

}  // namespace
}  // namespace kt
