#include "Gateway/DevelopmentGateway.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <poll.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <functional>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"
#include "KTAnalytics/TrackingArchitecture/Plan/TrackingPlanCatalogue.h"
#include "Support/LoopbackStack.h"
#include "Support/RunningGateway.h"
#include "Support/TemporaryDirectory.h"

namespace kt::gateway {
namespace {

using nlohmann::json;
using ::kt::testing::startGateway;

std::string gzip(const std::string& text) { return GzipCodec::gzippedData(text).value(); }
// The answer's status, or -1 when there was none.
int status(const httplib::Result& result) { return result ? result->status : -1; }

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
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(static_cast<std::uint16_t>(port)),
                        .sin_addr = {htonl(INADDR_LOOPBACK)}};
    if (s < 0 || connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        send(s, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        if (s >= 0) close(s);
        return -1;
    }
    return s;
}

// Sends `text`, then a space every 50 ms for at most `limit`; returns what the gateway
// answered until it closed the connection, and when it closed it.
std::pair<std::string, std::chrono::milliseconds> trickle(int port, const std::string& text,
                                                          std::chrono::milliseconds limit) {
    const int s = stalledConnection(port, text);
    const auto start = std::chrono::steady_clock::now();
    std::string answer;
    while (std::chrono::steady_clock::now() - start < limit) {
        send(s, " ", 1, MSG_NOSIGNAL);
        pollfd p{.fd = s, .events = POLLIN, .revents = 0};
        if (poll(&p, 1, 50) <= 0) continue;
        char buffer[4096];
        const ssize_t n = recv(s, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    close(s);
    return {answer, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)};
}

std::size_t residentKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::stoul(line.substr(line.find(':') + 1));
    return 0;
}

class DevelopmentGatewayTests : public ::testing::Test {
protected:
    static httplib::Result upload(const DevelopmentGateway& gateway, const std::string& body,
                                  httplib::Headers headers = {{"Content-Encoding", "gzip"},
                                                              {"User-Agent", "KTAnalytics-Test/2"}}) {
        return httplib::Client(gateway.baseURL()).Post("/v1/events", headers, body, "application/json");
    }

    static json getJSON(const DevelopmentGateway& gateway, const std::string& path) {
        auto result = httplib::Client(gateway.baseURL()).Get(path);
        return result && result->status == 200 ? json::parse(result->body, nullptr, false) : json();
    }

    testing::TemporaryDirectory directory{"kt-gateway"};
};

TEST_F(DevelopmentGatewayTests, uploadsInEitherLayoutAndTrackingRequestsAreStoredCountedAndListedWithinLimits) {
    auto gateway = startGateway();
    const json batch = json::array({element("play", {{"track", "quillarbor:tracks:1"}}), element("like")});
    const json withSentAt{{"events", json::array({element("a")})}, {"sent_at", "2024-01-01T00:00:00.000Z"}};
    const std::string bodies[] = {gzip(batch.dump()), gzip(withSentAt.dump())};
    EXPECT_EQ(status(upload(*gateway, bodies[0])), 200);
    EXPECT_EQ(status(upload(*gateway, bodies[1], {})), 200);  // gzip is recognised without the header too
    httplib::Client client(gateway->baseURL());
    for (auto [path, expected] : {std::pair{"/track/impression?ad=1", 200}, {"/track/click/deeper?x=y", 200},
                                {"/elsewhere", 404}, {"/tracking?limit=1001", 400},
                                // A listing limit outside 0 to 1000 is refused.
                                {"/events?limit=abc", 400}, {"/events?limit=-1", 400}, {"/events?limit=", 400},
                                {"/events?limit=1001", 400}, {"/events?limit=100000000", 400},
                                {"/events?limit=18446744073709551616", 400}, {"/events?limit=0", 200},
                                {"/events?limit=1000", 200}})
        EXPECT_EQ(status(client.Get(path)), expected) << path;

    EXPECT_EQ(getJSON(*gateway, "/stats"),
              (json{{"requests", 2}, {"events", 3}, {"bytes_compressed", bodies[0].size() + bodies[1].size()},
                    {"bytes_raw", batch.dump().size() + withSentAt.dump().size()}, {"failures_injected", 0},
                    {"rejected", 0}, {"refused_by_reason", {{"memory_budget", 0}, {"request_deadline", 0}}},
                    {"tracking_requests", 2},
                    {"tracking_by_prefix", {{"/track/click", 1}, {"/track/impression", 1}}},
                    {"batch_requests", 0}, {"messages", 0}, {"duplicate_messages", 0},
                    {"violations", {{"missing_base_attribute", 9}, {"unsupported_event", 2}}}}));
    const json tracking = getJSON(*gateway, "/tracking?limit=10");
    ASSERT_EQ(tracking.size(), 2u);
    EXPECT_EQ(tracking[1]["target"], "/track/click/deeper?x=y");
    EXPECT_EQ(tracking[1]["method"], "GET");
    const json events = getJSON(*gateway, "/events?limit=10");
    ASSERT_EQ(events.size(), 3u);
    json asUploaded = json::array();
    for (const auto& e : events)
        asUploaded.push_back({{"event", e["event"]}, {"version", e["version"]}, {"payload", e["payload"]}});
    EXPECT_EQ(asUploaded, json::array({batch[0], batch[1], withSentAt["events"][0]}));
    const json& headers = events[1]["headers"];
    EXPECT_EQ(std::tuple(headers["User-Agent"], headers["Content-Encoding"], headers.contains("REMOTE_ADDR")),
              std::tuple("KTAnalytics-Test/2", "gzip", false));
    EXPECT_TRUE(events[1]["received_at"].is_string());
    EXPECT_EQ(getJSON(*gateway, "/events?limit=1"), json::array({events[2]}));
}

TEST_F(DevelopmentGatewayTests, theArrivalObserverIsToldOfEveryStoredItemOnEachRoadAfterItIsStored) {
    auto gateway = startGateway();
    std::mutex mutex;
    std::vector<std::tuple<Road, std::string, std::string, std::string, json, std::size_t>> arrivals;
    gateway->setArrivalObserver([&](const Arrival& a) {
        const std::size_t stored = a.road == Road::gatewayEvent     ? gateway->lastEvents(10).size()
                                   : a.road == Road::productAnalytics ? gateway->lastMessages(10).size()
                                                                      : gateway->lastTrackingRequests(10).size();
        std::lock_guard lock(mutex);
        arrivals.emplace_back(a.road, a.name, a.user, a.clientId, json::parse(a.json), stored);
        EXPECT_EQ(a.receivedAt.size(), 24u);
    });
    const json events = json::array({element("play", {{"user", "quillarbor:users:1"}, {"client_id", 7}}),
                                     element("like", {{"anonymous_id", "anon-2"}})});
    ASSERT_EQ(status(upload(*gateway, gzip(events.dump()))), 200);
    const json message{{"type", "track"}, {"messageId", "m"}, {"userId", "u-1"}, {"event", "Track Liked"},
                       {"context", {{"kt", {{"client_application_id", 7}}}}}};
    httplib::Client client(gateway->baseURL());
    ASSERT_EQ(status(client.Post("/v1/batch", json{{"batch", {message}}}.dump(), "application/json")), 200);
    ASSERT_EQ(status(client.Get("/track/impression/3?x=1")), 200);
    ASSERT_EQ(status(upload(*gateway, "not gzip")), 400);  // refused: never told
    gateway->setArrivalObserver(nullptr);
    ASSERT_EQ(status(client.Get("/track/click")), 200);
    using A = decltype(arrivals)::value_type;
    EXPECT_EQ(arrivals, (std::vector<A>{
                            A{Road::gatewayEvent, "play", "quillarbor:users:1", "7", events[0], 2},
                            A{Road::gatewayEvent, "like", "anon-2", "", events[1], 2},
                            A{Road::productAnalytics, "Track Liked", "u-1", "7", message, 1},
                            A{Road::tracking, "/track/impression/3", "", "",
                              json{{"method", "GET"}, {"target", "/track/impression/3?x=1"},
                                   {"headers", getJSON(*gateway, "/tracking?limit=1")[0]["headers"]}}, 1},
                        }));
}

TEST_F(DevelopmentGatewayTests, itemsBreakingThePlanAreStoredAndCountedOrRefusedWhenStrictAndResetForgetsEverything) {
    const json bad{{"type", "track"}, {"messageId", "m-bad"}, {"anonymousId", "a"}, {"event", "Account Deletion Failed"},
                   {"properties", {{"extra", 1}}}, {"context", {{"protocols", {{"event_version", 1}}}}}};
    json good = bad;
    good["messageId"] = "m-good";
    good["properties"] = json::object();
    const std::string batch = json{{"batch", {good, bad}}}.dump();
    const std::string events = gzip(json::array({element("play")}).dump());
    for (const bool strict : {false, true}) {
        SCOPED_TRACE(strict ? "strict" : "default");
        auto gateway = startGateway({.strict = strict});
        httplib::Client client(gateway->baseURL());
        const auto batchAnswer = client.Post("/v1/batch", batch, "application/json");
        const auto eventsAnswer = upload(*gateway, events);
        const json listed = getJSON(*gateway, "/violations?limit=10");
        ASSERT_TRUE(batchAnswer && eventsAnswer && listed.is_array());
        const json answers = json::array({json::parse(batchAnswer->body), json::parse(eventsAnswer->body)});
        std::vector<std::tuple<json, json, json, json, json, json>> violations;
        for (const json& v : listed) violations.emplace_back(v["messageId"], v["event"], v["rule"], v["key"], v["road"], v["refused"]);
        const std::string eventId = strict ? "event-0" : "event-1";  // refused: its index; stored: its row
        EXPECT_EQ(violations, (decltype(violations){
                                  {eventId, "play", "missing_base_attribute", "ts", "event", strict},
                                  {eventId, "play", "missing_base_attribute", "connection_type", "event", strict},
                                  {eventId, "play", "missing_base_attribute", "session_id", "event", strict},
                                  {eventId, "play", "unsupported_event", nullptr, "event", strict},
                                  {"m-bad", "Account Deletion Failed", "unknown_key", "extra", "message", strict},
                              }));
        const json stats = getJSON(*gateway, "/stats");
        EXPECT_EQ(stats["violations"],
                  (json{{"unknown_key", 1}, {"unsupported_event", 1}, {"missing_base_attribute", 3}}));
        if (strict) {
            EXPECT_EQ(std::tuple(batchAnswer->status, eventsAnswer->status, stats["messages"], stats["events"],
                                 stats["rejected"]),
                      std::tuple(400, 400, 0, 0, 2));
            EXPECT_EQ(answers[0]["error"], R"(message "m-bad" breaks unknown_key (extra))");
            EXPECT_EQ(answers[1]["error"], "event-0 breaks unsupported_event, missing_base_attribute (session_id), "
                                           "missing_base_attribute (connection_type), missing_base_attribute (ts)");
            EXPECT_EQ(answers[0]["violations"].size(), 1u);
        } else {
            EXPECT_EQ(answers, json::array({{{"success", true}}, {{"accepted", 1}}}));
            EXPECT_EQ(std::tuple(stats["messages"], stats["events"], stats["rejected"]), std::tuple(2, 1, 0));
        }
        EXPECT_EQ(status(client.Get("/violations?limit=1001")), 400);
        EXPECT_EQ(getJSON(*gateway, "/violations?limit=1").size(), 1u);

        ASSERT_EQ(status(client.Post("/reset")), 200);
        EXPECT_EQ(getJSON(*gateway, "/violations"), json::array());
        EXPECT_EQ(gateway->lastMessages(10).size() + gateway->lastEvents(10).size(), 0u);
        const GatewayStatistics after = gateway->stats();
        EXPECT_EQ(std::tuple(after.batchRequests, after.requests, after.messages, after.violations.size()),
                  std::tuple(0u, 0u, 0u, 0u));
        // A message stored before the reset is no duplicate after it.
        ASSERT_EQ(status(client.Post("/v1/batch", json{{"batch", {good}}}.dump(), "application/json")), 200);
        EXPECT_EQ(gateway->stats().duplicateMessages, 0u);
    }
}

// The checks must agree with the SDK: every operation of the plan, with and without its
// optional arguments, and gateway events of both kinds, sent by a whole stack, break no rule.
TEST_F(DevelopmentGatewayTests, whatTheSDKItselfSendsBreaksNoRule) {
    auto gateway = startGateway({.strict = true});
    std::ostringstream console;
    auto configuration = testing::loopbackConfiguration(gateway->port(), directory / "state", console);
    configuration.segmentFlushAt = 50;
    auto stack = testing::makeStack(std::move(configuration));
    ASSERT_NE(stack, nullptr);
    stack->eventSender()->identify("u-7", AttributeValue{{"plan", "go+"}});
    std::size_t sent = 1;
    for (const bool optionalsGiven : {false, true})
        for (const auto& operation : tracking::planOperations()) {
            AttributeValue arguments = AttributeValue::object();
            for (const auto& p : operation.properties) {
                if (p.optional && !optionalsGiven) continue;
                using K = tracking::PropertyKind;
                const AttributeValue urn = "quillarbor:tracks:1";
                const std::map<K, AttributeValue> sample{
                    {K::string, "s"}, {K::boolean, true}, {K::number, 1.5}, {K::map, {{"k", 1}}},
                    {K::maps, AttributeValue::array({{{"k", 1}}})}, {K::strings, {"a"}}, {K::urn, urn},
                    {K::urns, AttributeValue::array({urn})}, {K::enumeration, 0}};
                arguments[std::string(p.key)] = sample.at(p.kind);
            }
            const auto error = tracking::callOperation(*stack->eventSender(), operation.name, arguments);
            ASSERT_FALSE(error) << operation.name << ": " << error->key << " " << error->message;
            ++sent;
        }
    for (const char* name : {"audio", "impression"})
        stack->tagEvent(APEvent::make(name, AttributeDictionary{{"track", "quillarbor:tracks:1"}}));
    stack->flush();
    ASSERT_TRUE(stack->waitUntilDelivered(std::chrono::seconds(20)));
    const GatewayStatistics stats = gateway->stats();
    EXPECT_EQ(std::tuple(stats.messages, stats.events, stats.rejected), std::tuple(sent, 2u, 0u));
    EXPECT_EQ(getJSON(*gateway, "/violations"), json::array());
}

TEST_F(DevelopmentGatewayTests, bodiesThatAreNotGzipJSONOfTheRightShapeAre400AndStoreNothing) {
    auto gateway = startGateway();
    const std::string valid = gzip(R"([{"event":"ok","version":"v1","payload":{}}])");
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"plain JSON", R"([{"event":"x","version":"v1","payload":{}}])"},
        {"zlib, not gzip", std::string("\x78\x9c\x8b\x8e\x05\x00\x01\x15\x00\xb9", 10)},
        {"gzip of text", gzip("this is not json")},
        {"truncated gzip", valid.substr(0, valid.size() - 6)},
        {"gzip with trailing bytes", valid + "junk"},
        {"gzip of a number", gzip("42")},
        {"element with an extra member",
         gzip(R"([{"event":"ok","version":"v1","payload":{}},{"event":"x","version":"v1","payload":{},"extra":1}])")},
        {"element without version", gzip(R"([{"event":"x","payload":{}}])")},
        {"payload not an object", gzip(R"([{"event":"x","version":"v1","payload":[]}])")},
        {"event not a string", gzip(R"([{"event":1,"version":"v1","payload":{}}])")},
        {"object without sent_at", gzip(R"({"events":[]})")},
        {"object with a third member", gzip(R"({"events":[],"sent_at":"t","more":1})")},
        {"empty body", ""},
    };
    for (const auto& [why, body] : bad) EXPECT_EQ(status(upload(*gateway, body)), 400) << why;
    const GatewayStatistics stats = gateway->stats();
    EXPECT_EQ(std::tuple(stats.rejected, stats.requests, stats.events, stats.bytesCompressed),
              std::tuple(bad.size(), bad.size(), 0u, 0u));
    EXPECT_TRUE(gateway->lastEvents(10).empty());
}

TEST_F(DevelopmentGatewayTests, injectedFailuresAnswerEveryRoadWithTheFailStatusStoreNothingAndTheSameSeedFailsTheSameRequests) {
    const std::string body = gzip(json::array({element("play")}).dump());
    auto gateway = startGateway({.failRate = 1.0, .failStatus = 429, .seed = 7});
    httplib::Client client(gateway->baseURL());
    EXPECT_EQ(status(upload(*gateway, body)), 429);
    EXPECT_EQ(status(client.Get("/track/impression?id=1")), 429);
    const auto batch = client.Post("/v1/batch", R"({"batch":[{"type":"track","messageId":"m","userId":"u","event":"e"}]})",
                                   "application/json");
    ASSERT_EQ(status(batch), 429);
    EXPECT_EQ(json::parse(batch->body, nullptr, false), (json{{"success", false}, {"error", "injected failure"}}));
    EXPECT_TRUE(gateway->lastMessages(10).empty());
    EXPECT_EQ(getJSON(*gateway, "/stats"),  // inspection is never failed
              (json{{"requests", 1}, {"events", 0}, {"bytes_compressed", 0}, {"bytes_raw", 0},
                    {"failures_injected", 3}, {"rejected", 0},
                    {"refused_by_reason", {{"memory_budget", 0}, {"request_deadline", 0}}}, {"tracking_requests", 0},
                    {"tracking_by_prefix", json::object()}, {"batch_requests", 1}, {"messages", 0},
                    {"duplicate_messages", 0}, {"violations", json::object()}}));

    auto outcomes = [&](std::uint64_t seed) {
        auto halfFailing = startGateway({.failRate = 0.5, .seed = seed});
        std::vector<int> statuses;
        for (int i = 0; i < 24; ++i) statuses.push_back(status(upload(*halfFailing, body)));
        return statuses;
    };
    const std::vector<int> first = outcomes(42);
    EXPECT_EQ(outcomes(42), first);
    // With half failing, 24 draws all alike would mean the rate is ignored.
    EXPECT_NE(std::count(first.begin(), first.end(), 503), 0);
    EXPECT_NE(std::count(first.begin(), first.end(), 200), 0);
}

TEST_F(DevelopmentGatewayTests, aListingStopsAtItsByteBudgetKeepingTheNewest) {
    // Each event stores some 2,200 bytes of payload and headers: two fit in 5,000, three do not.
    auto gateway = startGateway({.maxListingBytes = 5000});
    for (const char* name : {"a", "b", "c", "d"})
        EXPECT_EQ(status(upload(*gateway, gzip(json::array({element(name, {{"text", std::string(2000, 'x')}})}).dump()))),
                  200);
    const json events = getJSON(*gateway, "/events?limit=10");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(std::tuple(events[0]["event"], events[1]["event"], events[1]["payload"]["text"]),
              std::tuple("c", "d", std::string(2000, 'x')));
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
    // Half never send a byte; half stop in the middle of their headers.
    const std::string partial = "POST /v1/events HTTP/1.1\r\nHost: x\r\nCont";
    for (int i = 0; i < 64; ++i) stalled.push_back(stalledConnection(gateway->port(), i % 2 == 0 ? "" : partial));
    httplib::Client client(gateway->baseURL());
    client.set_connection_timeout(5);
    client.set_read_timeout(5);
    auto result = client.Get("/stats");
    for (int s : stalled) close(s);
    EXPECT_EQ(std::count(stalled.begin(), stalled.end(), -1), 0) << "connections that could not be opened";
    EXPECT_EQ(status(result), 200) << "no answer within 5 s while stalled connections are open";
}

TEST_F(DevelopmentGatewayTests, credentialsAreKeptOnlyAsPresentAndStoredEventsSurviveARestart) {
    const std::string secret = "s3cr3t-t0ken";
    const std::string dbPath = (directory / "gateway.sqlite").string();
    {
        auto gateway = startGateway({.dbPath = dbPath});
        EXPECT_EQ(status(upload(*gateway, gzip(json::array({element("first"), element("second")}).dump()),
                                {{"Content-Encoding", "gzip"}, {"authorization", "Bearer " + secret}})),
                  200);
        httplib::Client client(gateway->baseURL());
        EXPECT_EQ(status(client.Get("/track/impression", {{"Authorization", "Bearer " + secret}})), 200);
    }
    auto restarted = startGateway({.dbPath = dbPath});
    EXPECT_EQ(restarted->stats().events, 0u);  // counts are per run
    auto listing = httplib::Client(restarted->baseURL()).Get("/events");
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->body.find(secret), std::string::npos);
    const json events = json::parse(listing->body, nullptr, false);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(std::tuple(events[0]["event"], events[1]["event"], events[1]["headers"]["authorization"]),
              std::tuple("first", "second", "present"));
    restarted.reset();
    for (const auto& file : std::filesystem::directory_iterator(directory.path())) {
        std::ifstream in(file.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(bytes.find(secret), std::string::npos) << file.path();
    }
}

TEST_F(DevelopmentGatewayTests, aRequestTricklingInUnderTheSilenceLimitIsAnswered408AtItsDeadlineAndClosed) {
    auto gateway = startGateway({.requestDeadline = std::chrono::milliseconds(500)});
    const std::string headers = "POST /v1/events HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\n";
    const struct {
        std::string name, sent, answer;
    } cases[] = {
        {"request line", "POST /v1/events HTTP/1.1", "\r\n\r\n{\"error\":\"the request did not arrive in time\"}"},
        {"headers", "POST /v1/events HTTP/1.1\r\nHost: x\r\nX-Slow: yes", "\"error\":\"the request did not arrive within 500 ms\"}"},
        {"body", headers, "\"error\":\"the request did not arrive within 500 ms\"}"},
    };
    for (const auto& c : cases) {
        const auto [answer, closedAfter] = trickle(gateway->port(), c.sent, std::chrono::seconds(3));
        EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 408") << c.name;
        EXPECT_TRUE(answer.ends_with(c.answer)) << c.name << ": " << answer;
        EXPECT_LT(closedAfter, std::chrono::milliseconds(1500)) << c.name;
    }
    EXPECT_EQ(getJSON(*gateway, "/stats")["refused_by_reason"]["request_deadline"], std::size(cases));
}

TEST_F(DevelopmentGatewayTests, anUploadWhoseBodyWouldPassTheHeldBodyBudgetIs503WithRetryAfterUntilTheBudgetHasRoom) {
    auto gateway = startGateway({.maxBodyBytes = 64 << 10, .heldBodyBudgetBytes = 64 << 10});
    // 63,000 bytes held by an upload still arriving; the next one, some 4.8 KB of gzip, does not fit.
    const int held = stalledConnection(gateway->port(), "POST /v1/events HTTP/1.1\r\nHost: x\r\nContent-Length: 63001"
                                                        "\r\n\r\n" + std::string(63000, 'x'));
    // An upload read while the held bytes are still arriving would take budget from them and
    // have the held one refused instead: the probes start once its handler reads them.
    for (int i = 0; i < 3000 && getJSON(*gateway, "/stats")["requests"] == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::mt19937 random(1);
    std::string text;
    for (int i = 0; i < 8000; ++i) text += static_cast<char>('a' + random() % 26);
    const std::string body = gzip(json::array({element("big", {{"text", text}})}).dump());
    ASSERT_GT(body.size(), (64u << 10) - 63000);
    // Until the gateway has read the held bytes, the upload may still fit.
    auto refused = upload(*gateway, body);
    for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
         status(refused) == 200 && std::chrono::steady_clock::now() < deadline;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        refused = upload(*gateway, body);
    }
    ASSERT_EQ(status(refused), 503);
    EXPECT_EQ(std::tuple(refused->get_header_value("Retry-After"), json::parse(refused->body)["error"]),
              std::tuple("1", "the gateway holds too many bodies at once; retry later"));
    send(held, "x", 1, MSG_NOSIGNAL);
    char answer[12] = {};
    EXPECT_EQ(recv(held, answer, sizeof answer, MSG_WAITALL), 12);
    EXPECT_EQ(std::string(answer, 12), "HTTP/1.1 400");  // its body is taken, then found not gzip
    close(held);
    EXPECT_EQ(status(upload(*gateway, body)), 200);
    EXPECT_EQ(getJSON(*gateway, "/stats")["refused_by_reason"]["memory_budget"], 1);
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)  // gcc; clang answers __has_feature
#define KT_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KT_SANITIZED
#endif
#endif
TEST_F(DevelopmentGatewayTests, concurrentNearLimitUploadsOfTinyValuesPeakAtAFewTimesTheInflatedLimit) {
#ifdef KT_SANITIZED
    GTEST_SKIP() << "a sanitizer's shadow memory counts toward the peak";
#endif
    auto gateway = startGateway();
    std::string bodies[2];
    {
        // Just under the 32 MiB inflated limit: a tree of these takes some 30 times their size.
        std::string zeros = "[", objects = "[";
        while (zeros.size() < (32u << 20) - 4) zeros += "0,";
        while (objects.size() < (32u << 20) - 4) objects += "{},";
        bodies[0] = gzip(zeros + "0]");
        bodies[1] = gzip(objects + "{}]");
    }
    std::ofstream("/proc/self/clear_refs") << "5";  // restarts VmHWM from the current size
    const std::size_t before = residentKiB("VmHWM");
    std::vector<std::future<int>> answers;
    // Decoded one at a time: on a loaded machine the last answer comes after httplib's usual
    // five seconds.
    for (int i = 0; i < 4; ++i)
        answers.push_back(std::async(std::launch::async, [&, i] {
            httplib::Client client(gateway->baseURL());
            client.set_read_timeout(60);
            return status(client.Post("/v1/events", {{"Content-Encoding", "gzip"}}, bodies[i % 2], "application/json"));
        }));
    for (auto& answer : answers) EXPECT_EQ(answer.get(), 400);
    // One decode at a time in about twice the inflated size, and the bodies as sent: 128 MiB
    // leaves room for allocator slack, a tree of any of them would pass it many times.
    EXPECT_LT(residentKiB("VmHWM") - before, 128u << 10);
}

TEST_F(DevelopmentGatewayTests, storedPayloadsAreTheParsedValueWrittenCompactWithSortedUniqueMembers) {
    auto gateway = startGateway();
    const std::string payloads[] = {
        R"({"b":1,"a":{"z":[1.50,1e2,-0],"y":"\u00e9\/"},"a":{"x":null}})",
        R"({"\u0041":1,"\n":2,"A ":3,"":4})",
        R"({"k":{"b":{"d":1,"c":2},"a":[{"y":1,"x":2}]}})",
    };
    std::string body = "[";
    for (const std::string& p : payloads) body += R"({"event":"e","version":"v","payload":)" + p + "},";
    body.back() = ']';
    ASSERT_EQ(status(upload(*gateway, gzip(body))), 200);
    const auto stored = gateway->lastEvents(3);
    ASSERT_EQ(stored.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(stored[i].payload, json::parse(payloads[i]).dump()) << i;
}

}  // namespace
}  // namespace kt::gateway
