#include "KTData/ReliableRequestUploader.h"

#include <gtest/gtest.h>

#include "Support/FakeRequestQueue.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using testing::FakeRequestQueue;
using testing::TemporaryDirectory;

constexpr int kDelivered = 0;
constexpr int kFailed = 2;
constexpr int kRejected = 3;

HTTPRequest trackingRequest(const std::string& name) {
    HTTPRequest request;
    request.url = "http://127.0.0.1:9/track/" + name + "?a=1&b=%20";
    request.setValue("KTAnalytics/1.0", "User-Agent");
    request.setValue("Bearer token", "Authorization");
    // Binary bytes, a NUL among them, must come back unchanged.
    request.body = std::string("\x1f\x8b\x00\xff", 4) + name;
    return request;
}

class ReliableRequestUploaderTests : public ::testing::Test {
protected:
    std::shared_ptr<ReliableRequestUploader> makeUploader(int maximumAttempts = 5) {
        return std::make_shared<ReliableRequestUploader>(
            ReliableRequestUploader::Configuration{directory.path() / "requests.sqlite", maximumAttempts}, queue,
            nullptr);
    }

    TemporaryDirectory directory{"kt-reliable-uploader"};
    std::shared_ptr<FakeRequestQueue> queue = std::make_shared<FakeRequestQueue>();
};

TEST_F(ReliableRequestUploaderTests, onlyARetriableFailureIsKeptForLater) {
    auto uploader = makeUploader();
    uploader->uploadRequest(trackingRequest("delivered"));
    uploader->uploadRequest(trackingRequest("rejected"));
    uploader->uploadRequest(trackingRequest("failed"));
    ASSERT_EQ(queue->sentCount(), 3u);
    queue->respond(kDelivered);
    queue->respond(kRejected);
    queue->respond(kFailed);

    EXPECT_EQ(uploader->numberOfStoredRequests(), 1u);
    EXPECT_EQ(uploader->statistics().delivered, 1u);
    EXPECT_EQ(uploader->statistics().rejected, 1u);
    // Rejected on a later attempt, it is forgotten as well.
    uploader->uploadFailedRequests();
    queue->respond(kRejected);
    EXPECT_EQ(uploader->numberOfStoredRequests(), 0u);
    EXPECT_EQ(uploader->statistics().rejected, 2u);
    EXPECT_EQ(uploader->statistics().dropped, 0u);
}

TEST_F(ReliableRequestUploaderTests, aStoredRequestIsSentAgainUnchangedAndForgottenOnceDelivered) {
    auto uploader = makeUploader();
    const HTTPRequest original = trackingRequest("again");
    uploader->uploadRequest(original);
    queue->respond(kFailed);

    uploader->uploadFailedRequests();
    ASSERT_EQ(queue->sentCount(), 2u);
    const HTTPRequest resent = queue->sentRequests()[1];
    EXPECT_EQ(resent.url, original.url);
    EXPECT_EQ(resent.method, original.method);
    EXPECT_EQ(resent.headers, original.headers);
    EXPECT_EQ(resent.body, original.body);

    // In flight: a second pass must not send it twice.
    uploader->flush();
    EXPECT_EQ(queue->sentCount(), 2u);

    queue->respond(kDelivered);
    EXPECT_EQ(uploader->numberOfStoredRequests(), 0u);
    uploader->uploadFailedRequests();
    EXPECT_EQ(queue->sentCount(), 2u);
    EXPECT_EQ(uploader->statistics().retried, 1u);
}

TEST_F(ReliableRequestUploaderTests, aRequestIsDroppedAfterItsLastAllowedAttempt) {
    auto uploader = makeUploader(3);
    uploader->uploadRequest(trackingRequest("doomed"));
    queue->respond(kFailed);  // attempt 1
    uploader->uploadFailedRequests();
    queue->respond(kFailed);  // attempt 2
    EXPECT_EQ(uploader->numberOfStoredRequests(), 1u);
    uploader->uploadFailedRequests();
    queue->respond(kFailed);  // attempt 3

    EXPECT_EQ(uploader->numberOfStoredRequests(), 0u);
    EXPECT_EQ(uploader->statistics().dropped, 1u);
    uploader->uploadFailedRequests();
    EXPECT_EQ(queue->sentCount(), 3u);
}

TEST_F(ReliableRequestUploaderTests, storedRequestsSurviveARestart) {
    {
        auto first = makeUploader();
        first->uploadRequest(trackingRequest("one"));
        first->uploadRequest(trackingRequest("two"));
        queue->respondToAll(kFailed);
    }
    queue = std::make_shared<FakeRequestQueue>();
    auto second = makeUploader();
    EXPECT_EQ(second->numberOfStoredRequests(), 2u);
    second->uploadFailedRequests();
    ASSERT_EQ(queue->sentCount(), 2u);
    EXPECT_EQ(queue->sentRequests()[0].url, trackingRequest("one").url);
    EXPECT_EQ(queue->sentRequests()[1].url, trackingRequest("two").url);
}

TEST_F(ReliableRequestUploaderTests, nothingIsSentWhileTheNetworkIsUnreachable) {
    auto uploader = makeUploader();
    queue->setReachable(false);
    uploader->uploadRequest(trackingRequest("offline"));
    uploader->uploadFailedRequests();
    EXPECT_EQ(queue->sentCount(), 0u);
    EXPECT_EQ(uploader->numberOfStoredRequests(), 1u);

    queue->setReachable(true);
    uploader->uploadFailedRequests();
    ASSERT_EQ(queue->sentCount(), 1u);
    queue->respond(kDelivered);
    EXPECT_EQ(uploader->numberOfStoredRequests(), 0u);
}

TEST_F(ReliableRequestUploaderTests, answersArrivingAfterTheUploaderIsGoneAreHarmless) {
    auto uploader = makeUploader();
    uploader->uploadRequest(trackingRequest("late"));
    uploader.reset();
    EXPECT_TRUE(queue->respond(kFailed));
    auto again = makeUploader();
    EXPECT_EQ(again->numberOfStoredRequests(), 1u);
}

TEST_F(ReliableRequestUploaderTests, anUnusableDatabasePathStillRetriesWithinTheRun) {
    ReliableRequestUploader uploader({directory.path() / "missing" / "dir" / "requests.sqlite", 5}, queue, nullptr);
    uploader.uploadRequest(trackingRequest("memory"));
    queue->respond(kFailed);
    EXPECT_EQ(uploader.numberOfStoredRequests(), 1u);
    uploader.uploadFailedRequests();
    EXPECT_EQ(queue->sentCount(), 2u);
}

}  // namespace
}  // namespace kt
