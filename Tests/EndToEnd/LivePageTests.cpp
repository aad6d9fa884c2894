// The live page's streams: what the browser test cannot see, the bounds and the stop.

#include "Gateway/GatewayPage.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "Support/RunningGateway.h"

namespace kt::gateway {
namespace {

Arrival arrival(std::string name) { return Arrival{.name = std::move(name), .json = "{}"}; }

// The names of the arrivals in a stream's text, in order.
std::vector<std::string> namesIn(const std::string& text) {
    std::vector<std::string> names;
    for (std::size_t at = 0; (at = text.find(R"("name":")", at)) != std::string::npos;) {
        at += 8;
        names.push_back(text.substr(at, text.find('"', at) - at));
    }
    return names;
}

TEST(LiveStreams, aSlowPageLosesItsOldestItemsAndIsToldHowMany) {
    struct Case {
        LiveLimits limits;
        std::vector<std::string> kept;
        std::string note;
    };
    const Case cases[] = {
        {{.queueItems = 2}, {"c", "d"}, R"({"dropped":2,"total":2})"},
        // Each item takes some 150 bytes here: one fits, and the newest stays even alone.
        {{.queueBytes = 200}, {"d"}, R"({"dropped":3,"total":3})"},
        {{.queueBytes = 1}, {"d"}, R"({"dropped":3,"total":3})"},
    };
    for (const Case& c : cases) {
        LiveStreams streams(c.limits);
        auto stream = streams.open();
        EXPECT_EQ(streams.next(*stream), "retry: 3000\n\n");
        for (const char* name : {"a", "b", "c", "d"}) streams.publish(arrival(name));
        const std::string text = streams.next(*stream);
        EXPECT_EQ(text.rfind("event: dropped\ndata: " + c.note + "\n\n", 0), 0u) << text;
        EXPECT_EQ(namesIn(text), c.kept) << text;
        streams.publish(arrival("e"));
        EXPECT_EQ(streams.next(*stream).find("dropped"), std::string::npos) << "said once";
    }
}

TEST(LiveStreams, streamsBeyondTheBoundAreRefusedUntilOneCloses) {
    LiveStreams streams({.maximumStreams = 2});
    auto first = streams.open(), second = streams.open();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(streams.open(), nullptr);
    streams.close(first);
    EXPECT_NE(streams.open(), nullptr);
}

// Through the gateway: the live pages open at most take their slots, uploads are still
// served, every page hears of an upload, and stopping the gateway ends every stream.
TEST(LivePage, streamsAreBoundedDoNotHoldUpUploadsAndEndWhenTheGatewayStops) {
    auto gateway = testing::startGateway();
    const std::size_t slots = LiveLimits{}.maximumStreams;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> heard(slots);  // guarded by mutex
    std::vector<std::thread> pages;
    for (std::size_t i = 0; i < slots; ++i)
        pages.emplace_back([&, i] {
            httplib::Client client(gateway->baseURL());
            client.set_read_timeout(60, 0);
            client.Get("/live", [&](const char* data, std::size_t size) {
                std::lock_guard lock(mutex);
                heard[i].append(data, size);
                changed.notify_all();
                return true;
            });
        });
    const auto allHave = [&](const char* text) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::ranges::all_of(heard, [&](const std::string& h) { return h.find(text) != std::string::npos; });
        });
    };
    // No ASSERT from here on: the pages' threads must be joined whatever fails.
    EXPECT_TRUE(allHave("retry:"));

    httplib::Client client(gateway->baseURL());
    const auto refused = client.Get("/live");
    EXPECT_EQ(refused ? refused->status : -1, 503);
    EXPECT_EQ(refused ? refused->get_header_value("Retry-After") : "", "5");

    const std::string upload = R"([{"event":"pageview","version":"1","payload":{"user":"u"}}])";
    const auto stored = client.Post("/v1/events", {{"Content-Encoding", "gzip"}},
                                    GzipCodec::gzippedData(upload).value(), "application/json");
    EXPECT_EQ(stored ? stored->status : -1, 200);
    EXPECT_TRUE(allHave("pageview"));

    // Returns only once every stream has ended (the server waits for its workers).
    gateway->stop();
    for (std::thread& page : pages) page.join();
    for (const std::string& text : heard) EXPECT_EQ(namesIn(text), std::vector<std::string>{"pageview"}) << text;
}

}  // namespace
}  // namespace kt::gateway
