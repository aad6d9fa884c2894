// The queue without an HTTP server: refused connections, silent servers, shutdown and
// reachability, and the result every status maps to. Answers from a real server are
// covered by the end-to-end suite.

#include "KTAnalytics/KTData/CurlRequestQueue.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "Support/FakeConnectivity.h"
#include "Support/ResultCollector.h"

namespace kt {
namespace {

using namespace std::chrono_literals;

using Codes = std::map<int, int>;
using testing::jsonPost;

// A loopback TCP port. Listening without ever accepting makes a server that takes the
// connection (the kernel completes it) and never answers; closing it leaves a port that
// refuses connections.
class LoopbackSocket {
public:
    explicit LoopbackSocket(bool listening) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (listening) {
            EXPECT_EQ(::listen(fd_, 64), 0);
        }
    }
    ~LoopbackSocket() { close(); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v1/events"; }

private:
    int fd_ = -1;
    int port_ = 0;
};

TEST(CurlRequestQueueTests, aRefusedConnectionAnUnsendableURLOrASilentServerIsCodeTwoOnTheWorkerThread) {
    LoopbackSocket closed(false), silent(true);
    const std::string url = closed.url();
    closed.close();  // nothing listens on that port any more

    CurlRequestQueue::Configuration configuration;
    configuration.totalTimeout = 200ms;
    CurlRequestQueue queue(configuration, nullptr, nullptr);
    testing::ResultCollector results;
    int key = 0;
    for (const auto& target : {url, std::string("file:///etc/passwd"), std::string("not a url at all")})
        queue.sendRequest(jsonPost(target), results.callback(key++));
    EXPECT_EQ(results.waitFor(3), (Codes{{0, 2}, {1, 2}, {2, 2}}));
    EXPECT_EQ(queue.statistics().failed, 3u);
    for (; key < 5; ++key) queue.sendRequest(jsonPost(silent.url()), results.callback(key));
    EXPECT_EQ(results.waitFor(5), (Codes{{0, 2}, {1, 2}, {2, 2}, {3, 2}, {4, 2}}));
    for (const auto& thread : results.threads()) EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(queue.statistics().requestsSent, 0u);
}

TEST(CurlRequestQueueTests, destructionAnswersEveryAcceptedRequestAndWhatItsCallbacksPost) {
    LoopbackSocket silent(true);
    testing::ResultCollector results, postedDuringShutdown;
    {
        CurlRequestQueue::Configuration configuration;
        configuration.totalTimeout = 10min;  // only the shutdown ends these transfers
        configuration.shutdownTimeout = 50ms;
        configuration.maximumConcurrentRequests = 2;  // some wait, never started
        CurlRequestQueue queue(configuration, nullptr, nullptr);
        for (int i = 0; i < 4; ++i) queue.sendRequest(jsonPost(silent.url()), results.callback(i));
        queue.sendRequest(jsonPost(silent.url()), [&queue, &postedDuringShutdown, &results](int code) {
            queue.sendRequest(jsonPost("http://127.0.0.1:1/"), postedDuringShutdown.callback(0));
            results.callback(4)(code);
        });
    }
    // The destructor has joined the worker: every callback has run, as not sent (no attempt
    // is spent on what shutdown cut off).
    EXPECT_EQ(results.codes(), (Codes{{0, 1}, {1, 1}, {2, 1}, {3, 1}, {4, 1}}));
    EXPECT_EQ(postedDuringShutdown.codes(), (Codes{{0, 1}}));
}

TEST(CurlRequestQueueTests, aFailedOriginPausesOnceForWhatWasUnderWayAndHoldsWhatComesMeanwhile) {
    LoopbackSocket closed(false), other(false);
    closed.close();
    other.close();
    CurlRequestQueue::Configuration configuration;
    configuration.firstFailurePause = 300ms;
    configuration.failurePauseGrowth = 3;
    CurlRequestQueue queue(configuration, nullptr, nullptr);
    testing::ResultCollector results;
    for (int key = 0; key < 3; ++key) queue.sendRequest(jsonPost(closed.url()), results.callback(key));
    results.waitFor(3);
    const auto paused = std::chrono::steady_clock::now();
    // Three requests under way at once failed together: one pause, of the first length.
    EXPECT_EQ(queue.statistics().pauses, 1u);
    const auto first = queue.pauseRemaining(closed.url());
    EXPECT_GT(first, 200ms);
    EXPECT_LE(first, 360ms);
    EXPECT_EQ(queue.pauseRemaining(other.url()), 0ms) << "another origin does not pause";

    queue.sendRequest(jsonPost(closed.url()), results.callback(3));
    queue.sendRequest(jsonPost(other.url()), results.callback(4));
    EXPECT_EQ(results.waitFor(4).count(3), 0u) << "held until the pause has passed";
    EXPECT_EQ(results.waitFor(5).at(3), 2);
    EXPECT_GE(std::chrono::steady_clock::now() - paused, 240ms);
    // Its one attempt after the pause failed too: the next pause is three times longer.
    EXPECT_GT(queue.pauseRemaining(closed.url()), 600ms);
    EXPECT_EQ(queue.statistics().failed, 5u);
}

TEST(CurlRequestQueueTests, aLoopbackGatewayIsReachableWhateverTheDetectorSays) {
    const auto offline = std::make_shared<testing::FakeConnectivity>(false);
    const auto online = std::make_shared<testing::FakeConnectivity>(true);
    for (const char* base : {"http://127.0.0.1:8080", "http://127.3.4.5", "http://localhost:9000/base",
                             "http://LOCALHOST", "http://[::1]:8080"}) {
        CurlRequestQueue queue({.baseURL = base}, offline, nullptr);
        EXPECT_TRUE(queue.isNetworkReachable()) << base;
    }
    for (const char* base : {"https://events.example.com", "http://10.0.0.1:8080", "http://[2001:db8::1]", ""}) {
        CurlRequestQueue queueOffline({.baseURL = base}, offline, nullptr);
        EXPECT_FALSE(queueOffline.isNetworkReachable()) << base;
        CurlRequestQueue queueOnline({.baseURL = base}, online, nullptr);
        EXPECT_TRUE(queueOnline.isNetworkReachable()) << base;
    }
    CurlRequestQueue withoutDetector({.baseURL = "https://events.example.com"}, nullptr, nullptr);
    EXPECT_TRUE(withoutDetector.isNetworkReachable());
}

// Delivered ends a request, rejected drops it, failed keeps it for another attempt.
TEST(RequestQueueTests, requestResultForMapsEveryKindOfOutcome) {
    using enum RequestResult;
    const std::pair<long, RequestResult> table[] = {
        {200, delivered}, {204, delivered}, {299, delivered}, {400, rejected}, {404, rejected}, {413, rejected},
        {499, rejected},  {408, failed},    {429, failed},    {500, failed},   {503, failed},   {0, failed},
        {199, failed},    {301, failed},    {304, failed},    {600, failed},
    };
    for (const auto& [status, expected] : table) EXPECT_EQ(requestResultFor(status), expected) << "status " << status;
}

}  // namespace
}  // namespace kt
