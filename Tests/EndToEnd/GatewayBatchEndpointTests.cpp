#include "Gateway/DevelopmentGateway.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <thread>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "Support/RunningGateway.h"

namespace kt::gateway {
namespace {

using nlohmann::json;
using ::kt::testing::startGateway;

std::string gzip(const std::string& text) { return GzipCodec::gzippedData(text).value(); }

json track(const std::string& id, const std::string& event) {
    return json{{"type", "track"}, {"messageId", id}, {"anonymousId", "anon-1"}, {"event", event}};
}

json with(json message, const std::string& key, json value) {
    message[key] = std::move(value);
    return message;
}

std::string batchOf(std::vector<json> messages) {
    return json{{"batch", std::move(messages)}, {"sentAt", "2024-05-01T10:00:00.000Z"}}.dump();
}

const httplib::Headers kGzip{{"Content-Encoding", "gzip"}};

httplib::Result post(const DevelopmentGateway& gateway, const std::string& body, const httplib::Headers& headers = {}) {
    return httplib::Client(gateway.baseURL()).Post("/v1/batch", headers, body, "application/json");
}

json getJSON(const DevelopmentGateway& gateway, const std::string& path) {
    auto result = httplib::Client(gateway.baseURL()).Get(path);
    return result && result->status == 200 ? json::parse(result->body, nullptr, false) : json();
}

TEST(GatewayBatchEndpointTests, batchesAreAnsweredAsTheBatchAPIDoesAndAMalformedOneStoresNothing) {
    auto gateway = startGateway({.maxBodyBytes = 16 << 10, .maxRawBytes = 64 << 10});
    const json valid = json::array({track("m1", "Play")});
    const struct {
        std::string name;
        std::string body;  // as sent
        httplib::Headers headers;
        int status;
        std::string error;  // part of the message of a refusal
    } cases[] = {
        {"valid gzip", gzip(batchOf(valid)), kGzip, 200, ""},
        {"valid plain", batchOf(valid), {}, 200, ""},
        {"empty batch, no sentAt", R"({"batch":[]})", {}, 200, ""},
        {"not JSON", "{batch", {}, 400, "not JSON"},
        {"not an object", "[" + batchOf(valid).append("]"), {}, 400, "must be an object"},
        {"no batch", gzip(R"({"sentAt":"t"})"), kGzip, 400, "\"batch\" must be an array"},
        {"writeKey not a string", R"({"batch":[],"writeKey":1})", {}, 400, "\"writeKey\" must be a string"},
        {"track without event", batchOf({track("a", "ok"), {{"type", "track"}, {"messageId", "b"}, {"userId", "u"}}}),
         {}, 400, "message 1: a track needs an \"event\""},
        {"message without messageId", batchOf({{{"type", "identify"}, {"userId", "u"}}}), {}, 400,
         "message 0: \"messageId\""},
        {"unknown type", batchOf({{{"type", "wave"}, {"messageId", "a"}, {"userId", "u"}}}), {}, 400,
         "\"type\" must be one of"},
        {"no identity", batchOf({{{"type", "page"}, {"messageId", "a"}, {"userId", nullptr}}}), {}, 400,
         "\"anonymousId\" or \"userId\""},
        {"properties not an object", batchOf({with(track("a", "x"), "properties", json::array())}), {}, 400,
         "\"properties\" must be an object"},
        {"timestamp not a string", batchOf({with(track("a", "x"), "timestamp", 5)}), {}, 400,
         "\"timestamp\" must be a string"},
        {"gzip declared, plain sent", batchOf(valid), kGzip, 400, "not gzip"},
        {"oversize", batchOf({track("a", std::string(20 << 10, 'x'))}), {}, 413, "larger than"},
        {"inflates past the limit", gzip(batchOf({track("a", std::string(100 << 10, 'x'))})), kGzip, 413,
         "inflates"},
        {"too deep", R"({"batch":[],"x":)" + std::string(300, '[') + std::string(300, ']') + "}", {}, 400,
         "deeper than 256"},
    };
    for (const auto& c : cases) {
        auto result = post(*gateway, c.body, c.headers);
        ASSERT_TRUE(result) << c.name;
        EXPECT_EQ(result->status, c.status) << c.name;
        const json answer = json::parse(result->body, nullptr, false);
        if (c.status == 200) {
            EXPECT_EQ(answer, (json{{"success", true}})) << c.name;
        } else {
            EXPECT_EQ(answer.value("success", true), false) << c.name << ": " << result->body;
            EXPECT_NE(answer.value("error", "").find(c.error), std::string::npos) << c.name << ": " << result->body;
        }
    }
    // The plain batch re-sent "m1"; /v1/events saw nothing.
    const GatewayStatistics s = gateway->stats();
    EXPECT_EQ(std::tuple(s.batchRequests, s.rejected, s.messages, s.duplicateMessages, s.requests),
              std::tuple(std::size(cases), std::size(cases) - 3, 2u, 1u, 0u));
    EXPECT_EQ(gateway->lastMessages(100).size(), 2u);
}

TEST(GatewayBatchEndpointTests, acceptedMessagesAreStoredWithTheirKtIntegrationsSigningAndCompression) {
    auto gateway = startGateway();
    json played = track("m-1", "Track Played");
    played["context"] = {{"kt", {{"plan", "v3"}}}, {"app", {{"name", "demo"}}}};
    played["integrations"] = {{"All", false}, {"Amplitude", true}};
    const json identify{{"type", "identify"}, {"messageId", "m-2"}, {"userId", "user-7"}, {"traits", json::object()}};
    const json screen{{"type", "screen"}, {"messageId", "m-3"}, {"anonymousId", "anon-1"}, {"name", "Home"}};
    const std::string first = batchOf({played, identify, screen});
    ASSERT_EQ(post(*gateway, gzip(first), {{"Content-Encoding", "gzip"}, {"Authorization", "Basic c2VjcmV0Og=="}})->status, 200);
    const std::string second = batchOf({track("m-1", "Track Played")});
    ASSERT_EQ(post(*gateway, second)->status, 200);

    const std::vector<StoredMessage> stored = gateway->lastMessages(10);
    ASSERT_EQ(stored.size(), 4u);
    const std::tuple<std::string, std::string, std::string, std::string, std::string, std::string, bool> expected[] = {
        {"m-1", "track", "Track Played", R"({"plan":"v3"})", R"({"All":false,"Amplitude":true})", "Basic present", true},
        {"m-2", "identify", "user-7", "null", "null", "Basic present", true},
        {"m-3", "screen", "", "null", "null", "Basic present", true},
        {"m-1", "track", "Track Played", "null", "null", "", false},
    };
    for (std::size_t i = 0; i < stored.size(); ++i) {
        const StoredMessage& m = stored[i];
        EXPECT_EQ(std::tie(m.messageId, m.type, m.name, m.kt, m.integrations, m.authorization, m.gzip), expected[i])
            << "message " << i;
        EXPECT_EQ(json::parse(m.message), i < 3 ? json::parse(first)["batch"][i] : json::parse(second)["batch"][0]);
        EXPECT_FALSE(m.receivedAt.empty());
    }

    const json listing = getJSON(*gateway, "/messages?limit=2");
    ASSERT_EQ(listing.size(), 2u);
    EXPECT_EQ(std::tuple(listing[0]["type"], listing[0]["name"], listing[0]["message"], listing[1]["message_id"],
                         listing[1]["gzip"]),
              std::tuple("screen", "", screen, "m-1", false));
    EXPECT_EQ(httplib::Client(gateway->baseURL()).Get("/messages?limit=1001")->status, 400);
    EXPECT_EQ(getJSON(*gateway, "/stats"),
              (json{{"requests", 0}, {"events", 0}, {"bytes_compressed", gzip(first).size() + second.size()},
                    {"bytes_raw", first.size() + second.size()}, {"failures_injected", 0}, {"rejected", 0},
                    {"refused_by_reason", {{"memory_budget", 0}, {"request_deadline", 0}}}, {"tracking_requests", 0}, {"tracking_by_prefix", json::object()}, {"batch_requests", 2},
                    {"messages", 4}, {"duplicate_messages", 1}, {"violations", {{"unknown_event", 2}}}}));
}

TEST(GatewayBatchEndpointTests, concurrentBatchesOfOneMessageIdAreAllStoredAndAllButOneCountedAsDuplicates) {
    auto gateway = startGateway();
    const std::string body = gzip(batchOf({track("same", "Play")}));
    std::vector<int> statuses(8);
    {
        std::vector<std::jthread> senders;
        for (int& s : statuses)
            senders.emplace_back([&] {
                auto result = post(*gateway, body, kGzip);
                s = result ? result->status : -1;
            });
    }
    EXPECT_EQ(statuses, std::vector<int>(8, 200));
    EXPECT_EQ(std::tuple(gateway->stats().messages, gateway->stats().duplicateMessages), std::tuple(8u, 7u));
    EXPECT_EQ(gateway->lastMessages(100).size(), 8u);
}

}  // namespace
}  // namespace kt::gateway
