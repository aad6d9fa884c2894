// The curl queue against a real HTTP server on loopback: answers become result codes,
// requests arrive as built, no more run at once than allowed, and connections are reused.
// Refusals, time-outs and shutdown are covered without a server in the KTData suite.

#include "KTAnalytics/KTData/CurlRequestQueue.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "Support/ResultCollector.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using testing::jsonPost;

struct Received {
    std::string path;
    std::string method;
    std::string body;
    httplib::Headers headers;
    int remotePort = 0;
};

// Answers /status/<code> with that code (and /busy/<s> with 429, Retry-After: s), records every
// request and the most it handled at once. /hop/<n> redirects to /hop/<n-1> (302, passing on
// its "to" parameter), /hop/1 to "to" when given, else to /status/200.
class StatusServer {
public:
    StatusServer() {
        auto answer = [this](const httplib::Request& q, httplib::Response& r) {
            {
                record(q);
                std::lock_guard lock(mutex_);
                mostAtOnce_ = std::max(mostAtOnce_, ++running_);
            }
            std::this_thread::sleep_for(2ms);  // lets requests overlap, to show the limit
            r.status = std::stoi(q.matches[1]);
            std::lock_guard lock(mutex_);
            --running_;
        };
        server_.Get(R"(/status/(\d+))", answer);
        server_.Post(R"(/busy/(\d+))", [](const httplib::Request& q, httplib::Response& r) {
            r.status = 429;
            r.set_header("Retry-After", q.matches[1]);
        });
        server_.Post(R"(/status/(\d+))", answer);
        server_.Get(R"(/hop/(\d+))", [this](const httplib::Request& q, httplib::Response& r) {
            record(q);
            const int n = std::stoi(q.matches[1]);
            const std::string to = q.get_param_value("to");
            if (n > 1) r.set_redirect("/hop/" + std::to_string(n - 1) + (to.empty() ? "" : "?to=" + to));
            else r.set_redirect(to.empty() ? "/status/200" : to);
        });
        server_.set_keep_alive_max_count(1000);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        const auto deadline = std::chrono::steady_clock::now() + 60s;  // guards against a hang only
        while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    }
    ~StatusServer() {
        server_.stop();
        thread_.join();
    }
    std::string url(int status, const char* path = "/status/") const {
        return "http://127.0.0.1:" + std::to_string(port_) + path + std::to_string(status);
    }
    int port() const { return port_; }
    std::vector<Received> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    int mostAtOnce() const {
        std::lock_guard lock(mutex_);
        return mostAtOnce_;
    }

private:
    void record(const httplib::Request& q) {
        std::lock_guard lock(mutex_);
        received_.push_back(Received{q.path, q.method, q.body, q.headers, q.remote_port});
    }

    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::vector<Received> received_;
    int running_ = 0;
    int mostAtOnce_ = 0;
};

TEST(CurlRequestQueueAgainstServerTests, statusCodesBecomeResultCodes) {
    StatusServer server;
    CurlRequestQueue queue({.baseURL = server.url(200)}, nullptr, nullptr);
    testing::ResultCollector results;
    const std::map<int, int> expected{{200, 0}, {204, 0}, {400, 3}, {404, 3}, {408, 2}, {429, 2}, {500, 2}, {503, 2}};
    for (const auto& [status, code] : expected) queue.sendRequest(jsonPost(server.url(status)), results.callback(status));
    EXPECT_EQ(results.waitFor(expected.size()), expected);
    const auto s = queue.statistics();
    EXPECT_EQ(std::tuple(s.requestsSent, s.delivered, s.rejected, s.failed), std::tuple(expected.size(), 2u, 2u, 4u));
}

TEST(CurlRequestQueueAgainstServerTests, requestsArriveAsBuiltAndOneAfterAnotherShareAConnection) {
    StatusServer server;
    CurlRequestQueue queue({}, nullptr, nullptr);
    testing::ResultCollector results;
    const std::string body("\x1f\x8b\x08\x00 binary \x00 bytes", 20);
    HTTPRequest withBody = jsonPost(server.url(200), body);
    withBody.setValue("Bearer abc", "Authorization");
    queue.sendRequest(withBody, results.callback(0));
    results.waitFor(1);
    HTTPRequest get;
    get.url = server.url(200) + "?q=a%20b";
    queue.sendRequest(get, results.callback(1));
    EXPECT_EQ(results.waitFor(2), (std::map<int, int>{{0, 0}, {1, 0}}));

    const auto received = server.received();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(std::tie(received[0].method, received[0].body, received[1].method, received[1].body),
              std::tuple("POST", body, "GET", ""));
    const httplib::Headers& headers = received[0].headers;
    for (const auto& [name, value] : {std::pair{"User-Agent", "KTAnalytics-Test/1"}, {"Content-Type", "application/json"},
                                      {"Authorization", "Bearer abc"}})
        EXPECT_TRUE(headers.count(name) == 1 && headers.find(name)->second == value) << name;
    EXPECT_EQ(headers.count("Expect"), 0u);
    EXPECT_EQ(received[1].remotePort, received[0].remotePort) << "the connection is reused";
    EXPECT_EQ(queue.statistics().bytesSent, body.size());
}

TEST(CurlRequestQueueAgainstServerTests, manyRequestsFromSeveralThreadsAreAllAnsweredNoMoreThanTheLimitAtOnce) {
    StatusServer server;
    CurlRequestQueue queue({.maximumConcurrentRequests = 6}, nullptr, nullptr);
    testing::ResultCollector results;
    constexpr int kCount = 200;
    std::vector<std::jthread> posters;
    for (int t = 0; t < 4; ++t)
        posters.emplace_back([&, t] {
            for (int i = t; i < kCount; i += 4) queue.sendRequest(jsonPost(server.url(200), std::string(100 + i, 'x')), results.callback(i));
        });
    posters.clear();  // joins them
    const auto codes = results.waitFor(kCount);
    ASSERT_EQ(codes.size(), static_cast<std::size_t>(kCount));
    for (const auto& [key, code] : codes) EXPECT_EQ(code, 0) << "request " << key;
    EXPECT_EQ(server.received().size(), static_cast<std::size_t>(kCount));
    EXPECT_EQ(queue.statistics().bytesSent, static_cast<std::uint64_t>(kCount * 100 + kCount * (kCount - 1) / 2));
    EXPECT_LE(server.mostAtOnce(), 6);
    EXPECT_GT(server.mostAtOnce(), 1) << "requests run at once";
}

// A Retry-After lengthens the pause; an answer that is not a failure ends the run of failures,
// so the next pause is a first one again.
TEST(CurlRequestQueueAgainstServerTests, retryAfterLengthensThePauseAndAnAnswerStartsItAfresh) {
    StatusServer server;
    CurlRequestQueue queue({.firstFailurePause = 20ms, .failurePauseGrowth = 3}, nullptr, nullptr);
    testing::ResultCollector results;
    const std::string busy = server.url(2, "/busy/");  // 429 with Retry-After: 2
    queue.sendRequest(jsonPost(busy), results.callback(0));
    results.waitFor(1);
    EXPECT_GT(queue.pauseRemaining(busy), 1500ms);

    CurlRequestQueue fresh({.firstFailurePause = 20ms, .failurePauseGrowth = 3}, nullptr, nullptr);
    int key = 1;
    const auto answer = [&](int status) {
        fresh.sendRequest(jsonPost(server.url(status)), results.callback(key));
        results.waitFor(++key);
        return fresh.pauseRemaining(server.url(status));
    };
    EXPECT_LE(answer(500), 24ms);
    std::this_thread::sleep_for(30ms);
    EXPECT_GT(answer(500), 40ms) << "a second failure in a row pauses three times longer";
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(answer(200), 0ms);
    EXPECT_LE(answer(500), 24ms) << "the answer in between started the count afresh";
}

// Only a request that may follow redirects does, at most five hops, the final answer deciding;
// every hop is requested once, and the last, to another host ("localhost" is not
// "127.0.0.1"), gets none of the request's credentials. Another request answered 302 fails
// as before, and its target is never reached.
TEST(CurlRequestQueueAgainstServerTests, onlyARequestThatMayFollowsRedirectsAtMostFiveHopsKeepingCredentialsHome) {
    const struct { int hops; bool follows; int code; std::string paths; } cases[] = {
        {5, true, 0, "/hop/5/hop/4/hop/3/hop/2/hop/1/status/200"},
        {6, true, 2, "/hop/6/hop/5/hop/4/hop/3/hop/2/hop/1"},
        {1, false, 2, "/hop/1"},
    };
    for (const auto& [hops, follows, code, paths] : cases) {
        StatusServer server;
        CurlRequestQueue queue({}, nullptr, nullptr);
        testing::ResultCollector results;
        const std::string other = "http://localhost:" + std::to_string(server.port()) + "/status/200";
        HTTPRequest request{.url = server.url(hops, "/hop/") + "?to=" + other, .followsRedirects = follows};
        request.setValue("Bearer abc", "Authorization");
        request.setValue("id=7", "Cookie");
        queue.sendRequest(request, results.callback(0));
        EXPECT_EQ(results.waitFor(1).at(0), code) << hops << " hops";
        std::string received;
        for (const auto& r : server.received()) {
            received += r.path;
            EXPECT_EQ(r.headers.count("Authorization") + r.headers.count("Cookie"), r.path == "/status/200" ? 0u : 2u);
        }
        EXPECT_EQ(received, paths);
    }
}

}  // namespace
}  // namespace kt
