// The curl queue against a real HTTP server on loopback: answers become result codes,
// requests arrive as built, many run at once and connections are reused.

#include "KTData/CurlRequestQueue.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace kt {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;  // guards against a hang only

struct Received {
    std::string method;
    std::string path;
    std::string body;
    httplib::Headers headers;
    int remotePort = 0;
};

// Answers /status/<code> with that code and records every request.
class StatusServer {
public:
    StatusServer() {
        server_.Get(R"(/status/(\d+))", [this](const httplib::Request& q, httplib::Response& r) { answer(q, r); });
        server_.Post(R"(/status/(\d+))", [this](const httplib::Request& q, httplib::Response& r) { answer(q, r); });
        server_.set_keep_alive_max_count(1000);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    }
    ~StatusServer() {
        server_.stop();
        thread_.join();
    }
    std::string url(int status) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/status/" + std::to_string(status);
    }
    std::vector<Received> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

private:
    void answer(const httplib::Request& q, httplib::Response& r) {
        {
            std::lock_guard lock(mutex_);
            received_.push_back(Received{q.method, q.path, q.body, q.headers, q.remote_port});
        }
        r.status = std::stoi(q.matches[1]);
        if (r.status != 204) r.set_content("{}", "application/json");
    }

    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::vector<Received> received_;
};

// Result codes by the key each request was sent with.
class Results {
public:
    RequestQueueing::ResultCallback callback(int key) {
        return [this, key](int code) {
            std::lock_guard lock(mutex_);
            codes_[key] = code;
            changed_.notify_all();
        };
    }
    bool waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kDeadline, [&] { return codes_.size() >= count; });
    }
    std::map<int, int> codes() const {
        std::lock_guard lock(mutex_);
        return codes_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, int> codes_;
};

std::string header(const httplib::Headers& headers, const std::string& name) {
    const auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

HTTPRequest post(const std::string& url, std::string body) {
    HTTPRequest request;
    request.url = url;
    request.method = "POST";
    request.setValue("KTAnalytics-Test/1", "User-Agent");
    request.setValue("application/json", "Content-Type");
    request.setValue("test", "X-Kind");
    request.body = std::move(body);
    return request;
}

TEST(CurlRequestQueueAgainstServerTests, statusCodesBecomeResultCodes) {
    StatusServer server;
    CurlRequestQueue queue({.baseURL = server.url(200)}, nullptr, nullptr);
    Results results;
    const int statuses[] = {200, 204, 400, 404, 408, 429, 500, 503};
    for (int status : statuses) queue.sendRequest(post(server.url(status), "[]"), results.callback(status));
    ASSERT_TRUE(results.waitFor(std::size(statuses)));

    const std::map<int, int> expected{{200, 0}, {204, 0}, {400, 3}, {404, 3},
                                      {408, 2}, {429, 2}, {500, 2}, {503, 2}};
    EXPECT_EQ(results.codes(), expected);
    const auto statistics = queue.statistics();
    EXPECT_EQ(statistics.requestsSent, std::size(statuses));
    EXPECT_EQ(statistics.delivered, 2u);
    EXPECT_EQ(statistics.rejected, 2u);
    EXPECT_EQ(statistics.failed, 4u);
}

TEST(CurlRequestQueueAgainstServerTests, aRequestArrivesAsItWasBuilt) {
    StatusServer server;
    CurlRequestQueue queue({}, nullptr, nullptr);
    Results results;
    const std::string body("\x1f\x8b\x08\x00 binary \x00 bytes", 20);
    HTTPRequest withBody = post(server.url(200), body);
    withBody.setValue("Bearer abc", "Authorization");
    queue.sendRequest(withBody, results.callback(1));
    HTTPRequest get;
    get.url = server.url(200) + "?q=a%20b";
    queue.sendRequest(get, results.callback(2));
    ASSERT_TRUE(results.waitFor(2));

    auto received = server.received();
    ASSERT_EQ(received.size(), 2u);
    std::sort(received.begin(), received.end(), [](auto& a, auto& b) { return a.method > b.method; });
    const Received& p = received[0];
    EXPECT_EQ(p.method, "POST");
    EXPECT_EQ(p.body, body);
    EXPECT_EQ(header(p.headers, "User-Agent"), "KTAnalytics-Test/1");
    EXPECT_EQ(header(p.headers, "Content-Type"), "application/json");
    EXPECT_EQ(header(p.headers, "Authorization"), "Bearer abc");
    EXPECT_EQ(header(p.headers, "X-Kind"), "test");
    EXPECT_EQ(p.headers.count("Expect"), 0u);
    EXPECT_EQ(received[1].method, "GET");
    EXPECT_TRUE(received[1].body.empty());
    EXPECT_EQ(queue.statistics().bytesSent, body.size());
}

TEST(CurlRequestQueueAgainstServerTests, manyConcurrentRequestsAreAllAnswered) {
    StatusServer server;
    CurlRequestQueue queue({.maximumConcurrentRequests = 6}, nullptr, nullptr);
    Results results;
    constexpr int kCount = 200;
    std::size_t bytes = 0;
    // Posted from several threads at once, as application threads would.
    std::vector<std::thread> posters;
    std::mutex bytesMutex;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&, t] {
            for (int i = t; i < kCount; i += 4) {
                std::string body(100 + i, 'x');
                {
                    std::lock_guard lock(bytesMutex);
                    bytes += body.size();
                }
                queue.sendRequest(post(server.url(200), std::move(body)), results.callback(i));
            }
        });
    }
    for (auto& t : posters) t.join();
    ASSERT_TRUE(results.waitFor(kCount));

    const auto codes = results.codes();
    ASSERT_EQ(codes.size(), static_cast<std::size_t>(kCount));
    for (const auto& [key, code] : codes) EXPECT_EQ(code, 0) << "request " << key;
    EXPECT_EQ(server.received().size(), static_cast<std::size_t>(kCount));
    EXPECT_EQ(queue.statistics().requestsSent, static_cast<std::uint64_t>(kCount));
    EXPECT_EQ(queue.statistics().bytesSent, bytes);
}

TEST(CurlRequestQueueAgainstServerTests, requestsOneAfterAnotherShareOneConnection) {
    StatusServer server;
    CurlRequestQueue queue({}, nullptr, nullptr);
    Results results;
    for (int i = 0; i < 5; ++i) {
        queue.sendRequest(post(server.url(200), "[]"), results.callback(i));
        ASSERT_TRUE(results.waitFor(i + 1));
    }
    std::set<int> ports;
    for (const auto& r : server.received()) ports.insert(r.remotePort);
    EXPECT_EQ(ports.size(), 1u);
}

}  // namespace
}  // namespace kt
