#include "KTAnalytics/KTData/ReliableRequestUploader.h"

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "Support/FakeRequestQueue.h"
#include "Support/KilledChild.h"
#include "Support/SmallDisk.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using testing::FakeRequestQueue;
using testing::TemporaryDirectory;

constexpr int kDelivered = 0;
constexpr int kNotSent = 1;
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

using Drops = std::map<std::string, std::uint64_t>;

// Every request is delivered, dropped under one reason, or still waits.
void expectBalanced(const ReliableRequestUploader::Statistics& s) {
    EXPECT_EQ(s.restored + s.fired, s.delivered + s.dropped() + s.waiting);
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
// attempt or once too old) is counted. A request the queue did not send costs no attempt.
TEST_F(ReliableRequestUploaderTests, failuresAreRetriedUntilGivenUpAndRejectionsAreNot) {
    struct Case {
        const char* name;
        std::vector<int> answers;
        std::uint64_t delivered;
        Drops dropped;
        std::uint64_t retried;
        std::optional<std::chrono::milliseconds> maximumAge = std::nullopt;
    };
    for (const auto& c : std::vector<Case>{
             {"delivered at once", {kDelivered}, 1, {}, 0},
             {"rejected: never retried", {kRejected}, 0, {{"rejected", 1}}, 0},
             {"delivered on the third attempt", {kFailed, 503, kDelivered}, 1, {}, 2},
             {"three failures", {kFailed, kFailed, kFailed}, 0, {{"given_up", 1}}, 2},
             {"not sent: no attempt spent", {kNotSent, kFailed, kNotSent, kFailed, kFailed}, 0, {{"given_up", 1}}, 2},
             {"older than the age bound at its first failure", {kFailed}, 0, {{"given_up", 1}}, 0, 0ms}}) {
        SCOPED_TRACE(c.name);
        queue = std::make_shared<FakeRequestQueue>();
        std::filesystem::remove(directory.path() / "requests.sqlite");
        auto configured = configuration();
        configured.maximumAge = c.maximumAge.value_or(configured.maximumAge);
        ReliableRequestUploader uploader(configured, queue, nullptr);
        uploader.uploadRequest(trackingRequest("case"));
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
        EXPECT_EQ(s.droppedByReason, c.dropped);
        EXPECT_EQ(s.retried, c.retried);
        expectBalanced(s);
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

// While the request queue holds the origin back, nothing is sent to it, flush or not; the
// uploader sends by itself once the pause has passed.
TEST_F(ReliableRequestUploaderTests, aPausedOriginGetsNothingUntilThePausePasses) {
    queue->setPause(300ms);
    ReliableRequestUploader uploader(configuration(), queue, nullptr);
    uploader.uploadRequest(trackingRequest("paused"));
    uploader.flush();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(queue->sentCount(), 0u);
    queue->setPause(0ms);
    EXPECT_TRUE(sent(1));
}

// A full disk: a settled request whose row cannot be deleted is never sent again and counts
// once, a failed one keeps its back-off, one the disk refused is sent once from memory and
// counted. With space back, what the table owes is written and storing resumes.
TEST_F(ReliableRequestUploaderTests, aFullDiskSendsNothingTwiceAndCountsEachRequestOnce) {
    testing::SmallDisk disk("512k");
    if (!disk.mounted) GTEST_SKIP() << "needs root to mount a small tmpfs";
    auto c = configuration();
    c.databasePath = disk / "requests.sqlite";
    c.firstRetryDelay = c.longestRetryDelay = 1h;
    auto uploader = std::make_unique<ReliableRequestUploader>(c, queue, nullptr);
    for (const char* name : {"delivered", "failed", "rejected"}) uploader->uploadRequest(trackingRequest(name));
    ASSERT_TRUE(sent(3));
    disk.fill();
    for (int code : {kDelivered, kFailed, kRejected}) queue->respond(code);
    for (int code : {kDelivered, kFailed}) {
        uploader->uploadRequest(trackingRequest("not-stored"));
        ASSERT_TRUE(sent(queue->sentCount()));
        queue->respond(code);
    }
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(queue->sentCount(), 5u);
    const Drops dropped{{"not_stored", 1}, {"rejected", 1}};
    const auto s = uploader->statistics();
    EXPECT_EQ(s.delivered, 2u);
    EXPECT_EQ(s.droppedByReason, dropped);
    EXPECT_EQ(s.waiting, 1u);
    expectBalanced(s);

    disk.free();
    uploader->uploadRequest(trackingRequest("stored"));
    EXPECT_TRUE(sent(6));
    EXPECT_EQ(ReliableRequestUploader::recordedDrops(c.databasePath), dropped);
    uploader.reset();
    EXPECT_EQ(ReliableRequestUploader(c, queue, nullptr).statistics().restored, 2u);  // "failed" and "stored"
}

// Each drop is written when it happens, so a killed process loses none, and the counts add
// up over runs. Past `maximumWaiting` the oldest request gives way.
TEST_F(ReliableRequestUploaderTests, dropsAreRecordedAsTheyHappenAndSurviveAKill) {
    auto c = configuration();
    c.maximumWaiting = 1;
    ASSERT_TRUE(testing::killedChild([&] {
        queue->setReachable(false);
        ReliableRequestUploader uploader(c, queue, nullptr);
        uploader.uploadRequest(trackingRequest("oldest"));
        uploader.uploadRequest(trackingRequest("newest"));
        uploader.uploadRequest(HTTPRequest{.url = "ftp://127.0.0.1/track"});
        queue->setReachable(true);
        if (sent(1) && queue->sentRequests()[0] == trackingRequest("newest")) queue->respond(kRejected);
        testing::killNow();
    }));
    Drops expected{{"queue_full", 1}, {"not_http", 1}, {"rejected", 1}};
    EXPECT_EQ(ReliableRequestUploader::recordedDrops(c.databasePath), expected);
    {
        ReliableRequestUploader next(c, queue, nullptr);
        EXPECT_EQ(next.statistics().restored, 0u);
        next.refuseRequest("not_text");
    }
    expected["not_text"] = 1;
    EXPECT_EQ(ReliableRequestUploader::recordedDrops(c.databasePath), expected);
    EXPECT_EQ(ReliableRequestUploader::recordedDrops(directory.path() / "none.sqlite"), Drops{});
}

}  // namespace
}  // namespace kt
