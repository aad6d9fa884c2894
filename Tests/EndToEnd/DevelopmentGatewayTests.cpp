#include "Gateway/DevelopmentGateway.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <zlib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "Support/TemporaryDirectory.h"

namespace kt::gateway {
namespace {

using nlohmann::json;

std::string gzip(const std::string& text) { return GzipCodec::gzippedData(text).value(); }

json element(const std::string& name, json payload = json::object()) {
    return json{{"event", name}, {"version", "v1.27.36"}, {"payload", std::move(payload)}};
}

// One element whose payload holds `levels` nested arrays: the body nests `levels + 3` deep.
// Built as text, since building it as a json value would recurse as deep.
std::string nestedUpload(std::size_t levels) {
    return R"([{"event":"deep","version":"v1","payload":{"a":)" + std::string(levels, '[') +
           std::string(levels, ']') + "}}]";
}

// A TCP connection to the gateway that sends `text` and then says nothing more.
int stalledConnection(int port, const std::string& text) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (s < 0 || connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        send(s, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        if (s >= 0) close(s);
        return -1;
    }
    return s;
}

class DevelopmentGatewayTests : public ::testing::Test {
protected:
    std::unique_ptr<DevelopmentGateway> startGateway(GatewayConfiguration configuration = {}) {
        auto gateway = std::make_unique<DevelopmentGateway>(std::move(configuration));
        EXPECT_TRUE(gateway->start()) << gateway->lastError();
        return gateway;
    }

    static httplib::Result upload(const DevelopmentGateway& gateway, const std::string& body,
                                  httplib::Headers headers = {{"Content-Encoding", "gzip"},
                                                              {"User-Agent", "KTAnalytics-Test/2"}}) {
        httplib::Client client(gateway.baseURL());
        return client.Post("/v1/events", headers, body, "application/json");
    }

    static json getJSON(const DevelopmentGateway& gateway, const std::string& path) {
        httplib::Client client(gateway.baseURL());
        auto result = client.Get(path.c_str());
        if (!result || result->status != 200) return json();
        return json::parse(result->body, nullptr, false);
    }

    testing::TemporaryDirectory directory{"kt-gateway"};
};

TEST_F(DevelopmentGatewayTests, aGzipUploadIsStoredWithItsHeadersAndCounted) {
    std::ostringstream log;
    auto gateway = startGateway({.log = &log});
    const json batch = json::array({element("play", {{"track", "quillarbor:tracks:1"}}), element("like")});
    const std::string raw = batch.dump();
    const std::string body = gzip(raw);

    auto result = upload(*gateway, body);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);

    const json stats = getJSON(*gateway, "/stats");
    EXPECT_EQ(stats["requests"], 1);
    EXPECT_EQ(stats["events"], 2);
    EXPECT_EQ(stats["bytes_compressed"], body.size());
    EXPECT_EQ(stats["bytes_raw"], raw.size());
    EXPECT_EQ(stats["failures_injected"], 0);
    EXPECT_EQ(stats["rejected"], 0);

    const json events = getJSON(*gateway, "/events?limit=10");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["event"], "play");
    EXPECT_EQ(events[0]["version"], "v1.27.36");
    EXPECT_EQ(events[0]["payload"], batch[0]["payload"]);
    EXPECT_EQ(events[1]["event"], "like");
    EXPECT_EQ(events[1]["headers"]["User-Agent"], "KTAnalytics-Test/2");
    EXPECT_EQ(events[1]["headers"]["Content-Encoding"], "gzip");
    EXPECT_FALSE(events[1]["headers"].contains("REMOTE_ADDR"));
    EXPECT_TRUE(events[1]["received_at"].is_string());

    const json last = getJSON(*gateway, "/events?limit=1");
    ASSERT_EQ(last.size(), 1u);
    EXPECT_EQ(last[0]["event"], "like");

    gateway->stop();
    std::istringstream lines(log.str());
    std::string first, second;
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_EQ(first, "listening on http://127.0.0.1:" + std::to_string(gateway->port()));
    EXPECT_EQ(second, "POST /v1/events 200 events=2");
}

TEST_F(DevelopmentGatewayTests, theSentAtLayoutIsAcceptedAndAGzipBodyWithoutTheHeaderToo) {
    auto gateway = startGateway();
    const json withSentAt{{"events", json::array({element("a"), element("b"), element("c")})},
                          {"sent_at", "2024-01-01T00:00:00.000Z"}};
    auto first = upload(*gateway, gzip(withSentAt.dump()));
    ASSERT_TRUE(first);
    EXPECT_EQ(first->status, 200);
    auto second = upload(*gateway, gzip(json::array({element("d")}).dump()), {});
    ASSERT_TRUE(second);
    EXPECT_EQ(second->status, 200);

    const auto stored = gateway->lastEvents(10);
    ASSERT_EQ(stored.size(), 4u);
    EXPECT_EQ(stored[0].event, "a");
    EXPECT_EQ(stored[2].event, "c");
    EXPECT_EQ(stored[3].event, "d");
    EXPECT_EQ(gateway->stats().events, 4u);
}

TEST_F(DevelopmentGatewayTests, bodiesThatAreNotGzipJSONOfTheRightShapeAre400AndStoreNothing) {
    auto gateway = startGateway();
    std::string zlibFormat(256, '\0');
    uLongf zlibSize = zlibFormat.size();
    const std::string json = "[]";
    compress(reinterpret_cast<Bytef*>(zlibFormat.data()), &zlibSize, reinterpret_cast<const Bytef*>(json.data()),
             json.size());
    zlibFormat.resize(zlibSize);
    const std::string valid = gzip(nlohmann::json::array({element("ok")}).dump());

    nlohmann::json extraMember = element("x");
    extraMember["extra"] = 1;
    nlohmann::json missingMember = element("x");
    missingMember.erase("version");

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"plain JSON", nlohmann::json::array({element("x")}).dump()},
        {"zlib, not gzip", zlibFormat},
        {"gzip of text", gzip("this is not json")},
        {"truncated gzip", valid.substr(0, valid.size() - 6)},
        {"gzip with trailing bytes", valid + "junk"},
        {"gzip of a number", gzip("42")},
        {"element with an extra member", gzip(nlohmann::json::array({element("ok"), extraMember}).dump())},
        {"element without version", gzip(nlohmann::json::array({missingMember}).dump())},
        {"payload not an object", gzip(nlohmann::json::array({element("x", nlohmann::json::array())}).dump())},
        {"event not a string",
         gzip(nlohmann::json::array({{{"event", 1}, {"version", "v"}, {"payload", nlohmann::json::object()}}})
                  .dump())},
        {"object without sent_at", gzip(nlohmann::json{{"events", nlohmann::json::array()}}.dump())},
        {"object with a third member",
         gzip(nlohmann::json{{"events", nlohmann::json::array()}, {"sent_at", "t"}, {"more", 1}}.dump())},
        {"empty body", ""},
    };
    for (const auto& [why, body] : bad) {
        auto result = upload(*gateway, body);
        ASSERT_TRUE(result) << why;
        EXPECT_EQ(result->status, 400) << why;
    }
    const GatewayStatistics stats = gateway->stats();
    EXPECT_EQ(stats.rejected, bad.size());
    EXPECT_EQ(stats.requests, bad.size());
    EXPECT_EQ(stats.events, 0u);
    EXPECT_EQ(stats.bytesCompressed, 0u);
    EXPECT_TRUE(gateway->lastEvents(10).empty());
}

TEST_F(DevelopmentGatewayTests, aFailRateOfOneAnswersEveryUploadWithTheFailStatus) {
    auto gateway = startGateway({.failRate = 1.0, .failStatus = 429, .seed = 7});
    const std::string body = gzip(json::array({element("play")}).dump());
    for (int i = 0; i < 3; ++i) {
        auto result = upload(*gateway, body);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 429);
    }
    httplib::Client client(gateway->baseURL());
    auto tracking = client.Get("/track/impression?id=1");
    ASSERT_TRUE(tracking);
    EXPECT_EQ(tracking->status, 429);

    const json stats = getJSON(*gateway, "/stats");  // inspection is never failed
    EXPECT_EQ(stats["failures_injected"], 4);
    EXPECT_EQ(stats["requests"], 3);
    EXPECT_EQ(stats["events"], 0);
    EXPECT_EQ(stats["tracking_requests"], 0);
}

TEST_F(DevelopmentGatewayTests, theSameSeedFailsTheSameRequests) {
    auto outcomes = [&](std::uint64_t seed) {
        auto gateway = startGateway({.failRate = 0.5, .seed = seed});
        const std::string body = gzip(json::array({element("play")}).dump());
        std::vector<int> statuses;
        for (int i = 0; i < 24; ++i) {
            auto result = upload(*gateway, body);
            statuses.push_back(result ? result->status : -1);
        }
        return statuses;
    };
    const std::vector<int> first = outcomes(42);
    EXPECT_EQ(outcomes(42), first);
    // With half failing, 24 draws all alike would mean the rate is ignored.
    EXPECT_NE(std::count(first.begin(), first.end(), 503), 0);
    EXPECT_NE(std::count(first.begin(), first.end(), 200), 0);
}

TEST_F(DevelopmentGatewayTests, storedEventsSurviveARestartOverTheSameDatabase) {
    const std::string dbPath = (directory / "gateway.sqlite").string();
    {
        auto gateway = startGateway({.dbPath = dbPath});
        auto result = upload(*gateway, gzip(json::array({element("first"), element("second")}).dump()));
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 200);
    }
    auto restarted = startGateway({.dbPath = dbPath});
    EXPECT_EQ(restarted->stats().events, 0u);  // counts are per run
    const json events = getJSON(*restarted, "/events");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["event"], "first");
    EXPECT_EQ(events[1]["event"], "second");
}

TEST_F(DevelopmentGatewayTests, trackingRequestsAreAcceptedAndCounted) {
    auto gateway = startGateway();
    httplib::Client client(gateway->baseURL());
    for (const char* path : {"/track/impression?ad=1", "/track/click/deeper?x=y"}) {
        auto result = client.Get(path);
        ASSERT_TRUE(result) << path;
        EXPECT_EQ(result->status, 200) << path;
    }
    auto unknown = client.Get("/elsewhere");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 404);
    EXPECT_EQ(gateway->stats().trackingRequests, 2u);
}

TEST_F(DevelopmentGatewayTests, aListingLimitOutsideZeroToAThousandIs400) {
    auto gateway = startGateway();
    httplib::Client client(gateway->baseURL());
    const std::vector<std::pair<std::string, int>> cases = {
        {"/events?limit=abc", 400},       {"/events?limit=-1", 400},
        {"/events?limit=", 400},          {"/events?limit=1001", 400},
        {"/events?limit=100000000", 400}, {"/events?limit=18446744073709551616", 400},
        {"/events?limit=0", 200},         {"/events?limit=1000", 200},
    };
    for (const auto& [path, status] : cases) {
        auto result = client.Get(path.c_str());
        ASSERT_TRUE(result) << path;
        EXPECT_EQ(result->status, status) << path;
    }
}

TEST_F(DevelopmentGatewayTests, aListingStopsAtItsByteBudgetKeepingTheNewest) {
    // Each event stores some 2,200 bytes of payload and headers: two fit in 5,000, three do not.
    auto gateway = startGateway({.maxListingBytes = 5000});
    for (const char* name : {"a", "b", "c", "d"}) {
        auto result = upload(*gateway, gzip(json::array({element(name, {{"text", std::string(2000, 'x')}})}).dump()));
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 200);
    }
    const json events = getJSON(*gateway, "/events?limit=10");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["event"], "c");
    EXPECT_EQ(events[1]["event"], "d");
    EXPECT_EQ(events[1]["payload"]["text"], std::string(2000, 'x'));
    EXPECT_EQ(gateway->lastEvents(10).size(), 4u);  // the in-process listing has no budget

    auto tiny = startGateway({.maxListingBytes = 1});
    ASSERT_TRUE(upload(*tiny, gzip(json::array({element("only")}).dump())));
    EXPECT_EQ(getJSON(*tiny, "/events").size(), 1u);  // the newest is listed whatever its size
}

TEST_F(DevelopmentGatewayTests, hostileUploadsAreRefusedAndTheGatewayKeepsAnswering) {
    auto gateway = startGateway();
    auto post = [&](const std::string& body) { return upload(*gateway, body); };
    auto chunked = [&](std::size_t size) {
        httplib::Client client(gateway->baseURL());
        const std::string piece(64 << 10, 'x');
        return client.Post(
            "/v1/events", {{"Content-Encoding", "gzip"}},
            [&, sent = std::size_t{0}](std::size_t, httplib::DataSink& sink) mutable {
                if (sent >= size) {
                    sink.done();
                    return true;
                }
                sent += piece.size();
                return sink.write(piece.data(), piece.size());
            },
            "application/json");
    };
    std::string quoted(1000, '[');
    quoted += R"(\"[{)";
    const struct {
        std::string name;
        std::function<httplib::Result()> send;
        int status;
        std::string error;  // part of the message, for refusals
    } cases[] = {
        {"nested 100,000 deep", [&] { return post(gzip(nestedUpload(100'000))); }, 400, "deeper than 256"},
        {"nested 257 deep", [&] { return post(gzip(nestedUpload(254))); }, 400, "deeper than 256"},
        {"nested 256 deep", [&] { return post(gzip(nestedUpload(253))); }, 200, ""},
        {"brackets inside a string",
         [&] { return post(gzip(json::array({element("text", {{"s", quoted}})}).dump())); }, 200, ""},
        {"9 MiB body", [&] { return post(std::string(9 << 20, 'x')); }, 413, "larger than"},
        {"9 MiB chunked body", [&] { return chunked(9 << 20); }, 413, "larger than"},
        {"40 MiB of JSON in a small gzip", [&] { return post(gzip(std::string(40 << 20, ' ').append("[]"))); }, 413,
         "inflates to more than"},
    };
    for (const auto& c : cases) {
        auto result = c.send();
        ASSERT_TRUE(result) << c.name;
        EXPECT_EQ(result->status, c.status) << c.name;
        if (!c.error.empty()) {
            EXPECT_NE(json::parse(result->body, nullptr, false).value("error", "").find(c.error), std::string::npos)
                << c.name << ": " << result->body;
        }
        EXPECT_EQ(getJSON(*gateway, "/stats")["events"], gateway->stats().events) << "after " << c.name;
    }
    EXPECT_EQ(gateway->stats().rejected, 5u);
    EXPECT_EQ(gateway->stats().events, 2u);
}

TEST_F(DevelopmentGatewayTests, idleAndSlowConnectionsDoNotKeepOthersWaiting) {
    auto gateway = startGateway();
    std::vector<int> stalled;
    for (int i = 0; i < 64; ++i) {
        // Half never send a byte; half stop in the middle of their headers.
        const int s = stalledConnection(gateway->port(), i % 2 == 0 ? "" : "POST /v1/events HTTP/1.1\r\nHost: x\r\nCont");
        if (s >= 0) stalled.push_back(s);
    }
    httplib::Client client(gateway->baseURL());
    client.set_connection_timeout(5);
    client.set_read_timeout(5);
    auto result = client.Get("/stats");
    for (int s : stalled) close(s);
    EXPECT_EQ(stalled.size(), 64u);
    ASSERT_TRUE(result) << "no answer within 5 s while stalled connections are open";
    EXPECT_EQ(result->status, 200);
}

TEST_F(DevelopmentGatewayTests, credentialsAreKeptOnlyAsPresent) {
    const std::string secret = "s3cr3t-t0ken";
    {
        auto gateway = startGateway({.dbPath = (directory / "gateway.sqlite").string()});
        auto uploaded = upload(*gateway, gzip(json::array({element("play")}).dump()),
                               {{"Content-Encoding", "gzip"}, {"authorization", "Bearer " + secret}});
        ASSERT_TRUE(uploaded);
        EXPECT_EQ(uploaded->status, 200);
        httplib::Client client(gateway->baseURL());
        auto tracked = client.Get("/track/impression", {{"Authorization", "Bearer " + secret}});
        ASSERT_TRUE(tracked);
        EXPECT_EQ(tracked->status, 200);

        auto listing = client.Get("/events");
        ASSERT_TRUE(listing);
        EXPECT_EQ(listing->body.find(secret), std::string::npos);
        const json events = json::parse(listing->body, nullptr, false);
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0]["headers"]["authorization"], "present");
    }
    for (const auto& file : std::filesystem::directory_iterator(directory.path())) {
        std::ifstream in(file.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(bytes.find(secret), std::string::npos) << file.path();
    }
}

TEST_F(DevelopmentGatewayTests, aDelayOutlastsAClientThatGivesUpSooner) {
    auto gateway = startGateway({.delay = std::chrono::milliseconds(1500)});
    httplib::Client client(gateway->baseURL());
    client.set_read_timeout(std::chrono::milliseconds(100));
    auto result = client.Post("/v1/events", {{"Content-Encoding", "gzip"}},
                              gzip(json::array({element("slow")}).dump()), "application/json");
    EXPECT_FALSE(result);
    gateway->stop();  // waits for the delayed handler, which still stores the upload
    EXPECT_EQ(gateway->lastEvents(10).size(), 1u);
}

TEST_F(DevelopmentGatewayTests, aPortInUseFailsToStartWithAReason) {
    auto first = startGateway();
    DevelopmentGateway second({.port = first->port()});
    EXPECT_FALSE(second.start());
    EXPECT_NE(second.lastError().find(std::to_string(first->port())), std::string::npos);
}

}  // namespace
}  // namespace kt::gateway
