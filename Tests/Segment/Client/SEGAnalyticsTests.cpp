#include "KTAnalytics/Segment/Client/SEGAnalytics.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <future>
#include <regex>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "KTAnalytics/Analytics/OperatingSystemVersion.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "KTAnalytics/Platform/UUID.h"
#include "Support/FakeRequestQueue.h"
#include "Support/KilledChild.h"
#include "Support/RecordingLogger.h"
#include "Support/SmallDisk.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using json = AttributeValue;
using Headers = std::vector<std::pair<std::string, std::string>>;
using Batches = std::vector<std::vector<std::string>>;

namespace fs = std::filesystem;
using Drops = std::map<std::string, std::uint64_t>;
using namespace std::chrono_literals;

constexpr int kDelivered = 0, kNotSent = 1, kFailed = 2, kRejected = 3;
const std::string kBatchURL = "https://collector.example/v1/batch";

SEGAnalyticsConfiguration config(std::size_t flushAt = 100) {
    auto c = SEGAnalyticsConfiguration::configurationWithWriteKey("wk");
    c.apiHost = "collector.example/v1";
    c.flushAt = flushAt;
    return c;
}

// One client over a virtual-time worker and a request queue the test answers.
struct Harness {
    testing::TemporaryDirectory state{"kt-seg"};
    fs::path folder = state.path();
    std::shared_ptr<VirtualTimeSerialQueue> worker = std::make_shared<VirtualTimeSerialQueue>();
    std::shared_ptr<testing::FakeRequestQueue> requests = std::make_shared<testing::FakeRequestQueue>();
    std::shared_ptr<testing::RecordingLogger> logger = std::make_shared<testing::RecordingLogger>();
    std::unique_ptr<SEGAnalytics> client;

    explicit Harness(SEGAnalyticsConfiguration c = config(), fs::path at = {}) {
        if (!at.empty()) folder = at;
        start(std::move(c));
    }

    void start(SEGAnalyticsConfiguration c) {
        client.reset();
        client = std::make_unique<SEGAnalytics>(std::move(c), SEGAnalyticsDependencies{requests, folder, logger, worker});
        worker->runUntilIdle();
    }
    void track(const std::string& event, std::optional<json> properties = {}, std::optional<json> options = {}) {
        client->track(event, properties, options);
        worker->runUntilIdle();
    }
    void flush() {
        client->flush();
        worker->runUntilIdle();
    }
    void respond(int code) {
        ASSERT_TRUE(requests->respond(code));
        worker->runUntilIdle();
    }
    // Tracks each event, flushes, and answers the batch sent when `answer` is given.
    void upload(std::initializer_list<const char*> events, std::optional<int> answer = {}) {
        for (const char* event : events) track(event);
        flush();
        if (answer) respond(*answer);
    }
    std::string rawBody(std::size_t index) const {
        return *GzipCodec::gunzippedData(requests->sentRequests().at(index).body);
    }
    json body(std::size_t index) const { return json::parse(rawBody(index)); }
    // The event names of every batch sent so far, "<type>" for a message without one.
    Batches batches() const {
        Batches all(requests->sentCount());
        for (std::size_t i = 0; i < all.size(); ++i) {
            const json batch = body(i).at("batch");
            for (const auto& m : batch) all[i].push_back(m.value("event", "<" + m.value("type", "") + ">"));
        }
        return all;
    }
    SEGAnalyticsStatistics stats() const { return client->statistics(); }
    // Answers every batch, as many as it takes, with `code`; the message ids they held.
    std::vector<std::string> answerAll(int code) {
        std::vector<std::string> ids;
        for (flush(); requests->pendingCount() > 0; flush()) {
            const json batch = body(requests->sentCount() - 1).at("batch");
            for (const auto& m : batch) ids.push_back(m.at("messageId"));
            respond(code);
        }
        return ids;
    }
};

const std::regex kTimestamp(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z)");

TEST(SEGAnalytics, MessagesCarryEveryFieldAndTheEnvelopeIsComplete) {
    ::setenv("LANG", "de_DE.UTF-8", 1);
    ::unsetenv("LC_ALL");
    ::setenv("TZ", ":Europe/Berlin", 1);
    Harness h;
    ::unsetenv("TZ");
    h.track("Played", json{{"track", 7}}, json{{"context", {{"app", {{"name", "x"}}}, {"library", {{"extra", 1}}}}},
                                                 {"integrations", {{"Firebase", false}}}});
    h.client->identify("u1", json{{"plan", "pro"}}, std::nullopt);
    h.track("Paused");
    h.flush();
    ASSERT_EQ(h.requests->sentCount(), 1u);

    json envelope = h.body(0);
    EXPECT_TRUE(std::regex_match(envelope.at("sentAt").get<std::string>(), kTimestamp));
    json batch = envelope.at("batch");
    envelope.erase("batch");
    envelope.erase("sentAt");
    EXPECT_EQ(envelope, json({{"writeKey", "wk"}}));

    const std::string anonymousId = h.client->getAnonymousId();
    EXPECT_TRUE(UUID::fromString(anonymousId));
    const json context = {{"library", {{"name", "ktanalytics"}, {"version", kSDKVersion}}},
                          {"os", {{"name", "Linux"}, {"version", OperatingSystemVersion::current().string()}}},
                          {"locale", "de-DE"},
                          {"timezone", "Europe/Berlin"}};
    json first = context;
    first["app"] = {{"name", "x"}};
    first["library"]["extra"] = 1;
    const json expected = json::array({
        {{"type", "track"}, {"event", "Played"}, {"properties", {{"track", 7}}}, {"context", first},
         {"integrations", {{"Firebase", false}}}, {"anonymousId", anonymousId}},
        {{"type", "identify"}, {"userId", "u1"}, {"traits", {{"plan", "pro"}}}, {"context", context},
         {"integrations", json::object()}, {"anonymousId", anonymousId}},
        {{"type", "track"}, {"event", "Paused"}, {"properties", json::object()}, {"context", context},
         {"integrations", json::object()}, {"anonymousId", anonymousId}, {"userId", "u1"}},
    });
    std::set<std::string> ids;
    for (auto& message : batch) {
        EXPECT_TRUE(UUID::fromString(message.at("messageId").get<std::string>()));
        EXPECT_TRUE(std::regex_match(message.at("timestamp").get<std::string>(), kTimestamp));
        ids.insert(message.at("messageId").get<std::string>());
        message.erase("messageId");
        message.erase("timestamp");
    }
    EXPECT_EQ(ids.size(), 3u);
    EXPECT_EQ(batch, expected);
}

TEST(SEGAnalytics, RequestHasTheClientsHeadersUnlessTheFactorysWin) {
    const Headers clientHeaders = {{"Content-Type", "application/json"},
                                   {"Content-Encoding", "gzip"},
                                   {"Authorization", "Basic d2s6"},  // base64("wk:")
                                   {"User-Agent", std::string("ktanalytics/") + kSDKVersion}};
    auto rewriting = config();
    rewriting.requestFactory = [](const std::string& url) {
        HTTPRequest request;
        request.url = "http://127.0.0.1:1/rewritten?from=" + url;
        request.method = "PUT";
        request.setValue("text/plain", "content-type");
        request.setValue("1", "X-Trace");
        return request;
    };
    const struct {
        SEGAnalyticsConfiguration configuration;
        std::string url;
        Headers headers;
    } cases[] = {
        {config(), "https://collector.example/v1/batch", clientHeaders},
        {rewriting, "http://127.0.0.1:1/rewritten?from=https://collector.example/v1/batch",
         {{"content-type", "text/plain"}, {"X-Trace", "1"}, clientHeaders[1], clientHeaders[2], clientHeaders[3]}},
    };
    for (const auto& c : cases) {
        Harness h(c.configuration);
        h.upload({"a"});
        const auto request = h.requests->sentRequests().at(0);
        EXPECT_EQ(request.url, c.url);
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.headers, c.headers);
    }
}

TEST(SEGAnalytics, MiddlewaresRunInOrderAndMayReplaceOrDrop) {
    std::vector<std::string> seen;
    std::string originalId;
    auto c = config();
    c.sourceMiddleware = {
        std::make_shared<SEGBlockMiddleware>([&](SEGContext context, const SEGMiddlewareNext& next) {
            seen.push_back("first");
            originalId = context.payload->messageId;
            if (static_cast<const SEGTrackPayload&>(*context.payload).event == "secret") return;  // dropped
            next(context);
        }),
        std::make_shared<SEGBlockMiddleware>([&](SEGContext context, const SEGMiddlewareNext& next) {
            seen.push_back("second");
            // Rebuilt without copying the id: the client restores it.
            next(context.modify([](SEGContext& changed) {
                changed.payload = std::make_shared<SEGTrackPayload>("renamed", json{{"by", "middleware"}},
                                                                    changed.payload->context, json::object());
            }));
        }),
    };
    Harness h(c);
    h.upload({"secret", "original"});
    EXPECT_EQ(seen, (std::vector<std::string>{"first", "first", "second"}));
    json batch = h.body(0).at("batch");
    EXPECT_EQ(batch.at(0).erase("context") + batch.at(0).erase("timestamp"), 2u);  // the client's own, checked above
    EXPECT_EQ(batch, json::array({{{"type", "track"}, {"event", "renamed"}, {"properties", {{"by", "middleware"}}},
                                   {"integrations", json::object()}, {"anonymousId", h.client->getAnonymousId()},
                                   {"messageId", originalId}}}));
    EXPECT_EQ(h.stats().droppedByReason, (std::map<std::string, std::uint64_t>{{"dropped_by_middleware", 1}}));
    EXPECT_EQ(h.stats().persisted, 1u);
    EXPECT_EQ(h.stats().tracked, 2u);
}

struct RecordingIntegration final : SEGIntegration {
    std::vector<std::string> received;
    void track(const SEGTrackPayload& p) override { received.push_back(p.event); }
    void identify(const SEGIdentifyPayload& p) override { received.push_back("identify:" + p.userId.value_or("")); }
};

struct Factory final : SEGIntegrationFactory {
    std::shared_ptr<RecordingIntegration> made = std::make_shared<RecordingIntegration>();
    std::string key() const override { return "Firebase"; }
    std::shared_ptr<SEGIntegration> createWithSettings(const AttributeValue& settings, SEGAnalytics&) override {
        EXPECT_EQ(settings, json::object());
        return made;
    }
};

TEST(SEGAnalytics, IntegrationsMapDecidesWhichDeviceModeIntegrationReceives) {
    const struct {
        json integrations;
        bool received;
    } cases[] = {
        {json::object(), true},
        {{{"Firebase", true}}, true},
        {{{"Firebase", false}}, false},
        {{{"All", true}}, true},
        {{{"All", false}}, false},
        {{{"All", false}, {"Firebase", true}}, true},
        {{{"All", true}, {"Firebase", false}}, false},
        {{{"Other", false}}, true},
    };
    auto factory = std::make_shared<Factory>();
    auto c = config();
    c.use(factory);
    Harness h(c);
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        h.track("e" + std::to_string(i), std::nullopt, json{{"integrations", cases[i].integrations}});
        if (cases[i].received) expected.push_back("e" + std::to_string(i));
    }
    h.client->identify("u", std::nullopt, json{{"integrations", {{"All", false}}}});
    h.client->identify("v", std::nullopt, std::nullopt);
    h.worker->runUntilIdle();
    expected.push_back("identify:v");
    EXPECT_EQ(factory->made->received, expected);
    // Disabled for the device-mode integration is not disabled for the server.
    EXPECT_EQ(h.stats().persisted, std::size(cases) + 2);
}

TEST(SEGAnalytics, RestartKeepsIdsAndSendsWhatWasQueued) {
    Harness h;
    h.client->identify("u9", std::nullopt, std::nullopt);
    h.track("before");
    const std::string anonymousId = h.client->getAnonymousId();
    EXPECT_EQ(h.requests->sentCount(), 0u);
    h.start(config());
    EXPECT_EQ(h.client->getAnonymousId(), anonymousId);
    ASSERT_EQ(h.batches(), (Batches{{"<identify>", "before"}}));  // sent at start, below flushAt
    h.respond(kDelivered);
    h.upload({"after"});
    EXPECT_EQ(h.body(1)["batch"][0]["userId"], "u9");
    EXPECT_EQ(h.body(1)["batch"][0]["anonymousId"], anonymousId);
}

TEST(SEGAnalytics, DestructionStoresWhatItsOwnWorkerWasHanded) {
    testing::TemporaryDirectory state("kt-seg");
    auto requests = std::make_shared<testing::FakeRequestQueue>();
    {
        SEGAnalytics client(config(10), {requests, state.path(), nullptr, nullptr});
        // Counts read and failed answers given from other threads while the worker runs
        // (ThreadSanitizer checks this); failed batches stay queued.
        std::thread reader([&] {
            for (int i = 0; i < 100; ++i) {
                (void)client.statistics();
                requests->respondToAll(kFailed);
            }
        });
        for (int i = 0; i < 50; ++i) client.track("e" + std::to_string(i), std::nullopt, std::nullopt);
        reader.join();
    }
    auto worker = std::make_shared<VirtualTimeSerialQueue>();
    SEGAnalytics again(config(), {requests, state.path(), nullptr, worker});
    EXPECT_EQ(again.statistics().waiting, 50u);
    const std::size_t before = requests->sentCount();
    worker->runUntilIdle();
    EXPECT_EQ(requests->sentCount(), before + 1);
}

TEST(SEGAnalytics, UploadsAtFlushAtAndOnTheInterval) {
    auto c = config(3);
    c.flushInterval = std::chrono::seconds(30);
    Harness h(c);
    for (const char* name : {"a", "b"}) h.track(name);
    EXPECT_EQ(h.requests->sentCount(), 0u);
    h.track("c");
    EXPECT_EQ(h.batches(), (Batches{{"a", "b", "c"}}));
    for (const char* name : {"d", "e", "f"}) h.track(name);  // one batch at a time
    EXPECT_EQ(h.requests->sentCount(), 1u);
    h.respond(kDelivered);
    EXPECT_EQ(h.batches(), (Batches{{"a", "b", "c"}, {"d", "e", "f"}}));
    h.respond(kDelivered);

    h.track("g");
    h.worker->advance(std::chrono::seconds(29));
    EXPECT_EQ(h.requests->sentCount(), 2u);
    h.worker->advance(std::chrono::seconds(31));
    EXPECT_EQ(h.batches(), (Batches{{"a", "b", "c"}, {"d", "e", "f"}, {"g"}}));
    h.respond(kDelivered);
    EXPECT_EQ(h.stats().delivered, 7u);
    EXPECT_EQ(h.stats().batchesSent, 3u);
    EXPECT_EQ(h.stats().waiting, 0u);
}

TEST(SEGAnalytics, UploadsWaitForTheRoadAndOnlyFailuresGrowTheBackOff) {
    Harness h;
    h.requests->setPause(kBatchURL, 5s);
    h.upload({"a"});
    h.worker->advance(60s);  // the flush and two timer ticks, all held by the pause
    EXPECT_EQ(h.requests->sentCount(), 0u);
    h.requests->setPause(kBatchURL, 0ms);
    h.worker->advance(5s);
    ASSERT_EQ(h.requests->sentCount(), 1u);
    h.respond(kNotSent);  // costs no attempt: the next failure still waits the first pause
    h.worker->advance(1200ms);
    ASSERT_EQ(h.requests->sentCount(), 2u);
    h.respond(kFailed);
    h.upload({"b"});  // a flush during the back-off sends nothing
    EXPECT_EQ(h.requests->sentCount(), 2u);
    h.worker->advance(1200ms);  // the first pause, jitter included
    ASSERT_EQ(h.batches(), (Batches{{"a"}, {"a"}, {"a", "b"}}));
    EXPECT_EQ(h.body(2)["batch"][0]["messageId"], h.body(0)["batch"][0]["messageId"]);
    h.respond(kFailed);  // the second pause is 2 s ± 20 %
    h.worker->advance(1500ms);
    EXPECT_EQ(h.requests->sentCount(), 3u);
    h.worker->advance(1000ms);
    ASSERT_EQ(h.requests->sentCount(), 4u);
    h.respond(kDelivered);  // resets the back-off
    h.upload({"c"}, kFailed);
    h.worker->advance(1200ms);
    EXPECT_EQ(h.requests->sentCount(), 6u);
    EXPECT_EQ(h.stats().retries, 3u);
    EXPECT_EQ(h.stats().delivered, 2u);
    EXPECT_TRUE(h.stats().droppedByReason.empty());
}

TEST(SEGAnalytics, DropsAreWrittenWithTheirRemovalAndOutliveAKilledProcess) {
    testing::TemporaryDirectory state("kt-seg");
    auto c = config();
    c.maxQueueSize = 2;
    c.sourceMiddleware = {std::make_shared<SEGBlockMiddleware>([](SEGContext context, const SEGMiddlewareNext& next) {
        if (static_cast<const SEGTrackPayload&>(*context.payload).event != "secret") next(context);
    })};
    ASSERT_TRUE(testing::killedChild([&] {
        Harness h(c, state.path());
        fs::remove_all(h.state.path());
        for (const char* name : {"a", "b", "c", "d", "secret"}) h.track(name);
        h.track("big", json{{"blob", std::string(SEGAnalytics::kMaximumMessageBytes, 'x')}});
        testing::killNow();
    }));
    const Drops first{{"queue_full", 2}, {"dropped_by_middleware", 1}, {"too_large", 1}};
    EXPECT_EQ(SEGAnalytics::recordedDrops(state.path()), first);

    Harness h(c, state.path());  // sends "c" and "d" at start
    h.respond(kRejected);
    EXPECT_TRUE(h.logger->contains("rejected"));
    std::string error;
    EXPECT_EQ(SEGAnalytics::recordedDrops(state.path(), &error), std::nullopt);  // held by the client
    EXPECT_NE(error, "");
    h.start(config());  // nothing left to send
    h.client.reset();
    EXPECT_EQ(h.requests->sentCount(), 1u);
    Drops all = first;
    all["rejected"] = 2;
    EXPECT_EQ(SEGAnalytics::recordedDrops(state.path()), all);
    EXPECT_EQ(SEGAnalytics::recordedDrops(state / "none"), Drops{});
}

// Nests `depth` arrays without recursion, as a hostile caller could.
json nested(std::size_t depth) {
    json value = json::array();
    for (std::size_t i = 1; i < depth; ++i) {
        json outer = json::array();
        outer.push_back(std::move(value));
        value = std::move(outer);
    }
    return value;
}

TEST(SEGAnalytics, MessagesThatCannotBeKeptAreCountedByReason) {
    const struct {
        json properties;
        const char* reason;
    } cases[] = {
        {{{"blob", std::string(SEGAnalytics::kMaximumMessageBytes, 'x')}}, "too_large"},
        {{{"ratio", std::nan("")}}, "not_persisted"},
        {{{"name", std::string("\xff\xfe")}}, "not_persisted"},
        {json::object(), "too_deeply_nested"},  // properties made below: copying them would recurse
    };
    for (const auto& c : cases) {
        Harness h;
        if (c.properties.empty()) {
            // Deeper than a recursive walk of the caller's stack could survive, handed over by reference.
            std::optional<json> deep = json::object();
            (*deep)["deep"] = nested(200'000);
            h.client->track("deep", deep, std::nullopt);
        } else {
            h.track("big", c.properties);
        }
        h.track("fine", json{{"blob", std::string(SEGAnalytics::kMaximumMessageBytes - 1000, 'x')}});
        EXPECT_EQ(h.stats().droppedByReason, (std::map<std::string, std::uint64_t>{{c.reason, 1}})) << c.reason;
        EXPECT_EQ(h.stats().persisted, 1u);
        EXPECT_EQ(h.stats().waiting, 1u);
    }
}

// Messages near the largest a message may be, of many sizes, and a long write key: the
// envelope counts. A receiver whose 500 KB is 500,000 bytes takes every body, and nothing is
// lost or reordered.
TEST(SEGAnalytics, LargeQueueIsSentInFullBatchesEachUnder500000BytesAsSent) {
    auto c = config();
    c.writeKey = std::string(4'000, 'k');
    Harness h(c);
    constexpr int kMessages = 60;
    std::vector<std::string> expected;
    for (int i = 0; i < kMessages; ++i) {
        expected.push_back("e" + std::to_string(i));
        const std::size_t filler = SEGAnalytics::kMaximumMessageBytes - 2'000 - 997 * (i % 7);
        h.track(expected.back(), json{{"f", std::string(filler, 'x')}});
    }
    for (h.flush(); h.requests->pendingCount() > 0;) h.respond(kDelivered);
    for (std::size_t i = 0; i < h.requests->sentCount(); ++i) {
        const std::size_t bytes = h.rawBody(i).size();
        EXPECT_LT(bytes, 500'000u) << i;
        EXPECT_LE(bytes, SEGAnalytics::kMaximumBatchBytes) << i;
        // Full: the next batch's first message would not have fitted (nor its comma).
        if (i + 1 < h.requests->sentCount())
            EXPECT_GT(bytes + 1 + h.body(i + 1)["batch"][0].dump().size(), SEGAnalytics::kMaximumBatchBytes) << i;
    }
    std::vector<std::string> all;
    for (const auto& batch : h.batches()) all.insert(all.end(), batch.begin(), batch.end());
    EXPECT_EQ(all, expected);
    EXPECT_EQ(h.stats().delivered, std::uint64_t(kMessages));
    EXPECT_EQ(h.stats().dropped(), 0u);
}

TEST(SEGAnalytics, AFullDiskFailsSoftlyBoundsTheJournalAndGivesTheSpaceBack) {
    testing::SmallDisk disk("2m");
    if (!disk.mounted) GTEST_SKIP() << "needs root to mount a small tmpfs";
    const auto size = [&](const char* file) {
        std::error_code missing;
        const auto bytes = fs::file_size(disk / "state" / "segment" / file, missing);
        return missing ? 0 : bytes;
    };
    auto c = config(1'000'000);
    c.maxQueueSize = 100'000;
    Harness h(c, disk / "state");
    const json properties{{"f", std::string(3000, 'x')}};
    std::uintmax_t largestJournal = 0;
    for (int i = 0; i < 800; ++i) {
        h.track("e", properties);
        largestJournal = std::max(largestJournal, size("queue.sqlite3-wal"));
    }
    auto stats = h.stats();
    EXPECT_GT(stats.droppedByReason["not_persisted"], 0u);
    EXPECT_EQ(stats.persisted + stats.dropped(), 800u);
    EXPECT_LE(largestJournal, 1024u * 1024);

    const auto ids = h.answerAll(kDelivered);
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), stats.persisted);  // none twice
    EXPECT_EQ(ids.size(), stats.persisted);
    EXPECT_LT(size("queue.sqlite3") + size("queue.sqlite3-wal"), 128u * 1024);
    h.track("after");
    h.flush();
    EXPECT_EQ(h.batches().back(), std::vector<std::string>{"after"});
    EXPECT_EQ(h.stats().persisted, stats.persisted + 1);
}

// The default SQLite file system, but writes fail as on a full disk while `full` is set:
// the space the client keeps aside makes a real full disk refuse deletions too rarely to test.
struct RefusingWrites {
    static inline std::atomic<bool> full{false};
    static inline sqlite3_vfs* real = sqlite3_vfs_find(nullptr);
    static inline sqlite3_vfs vfs = [] {
        sqlite3_vfs v = *real;
        v.zName = "kt-refusing-writes";
        v.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out) {
            const int rc = real->xOpen(real, name, file, flags, out);
            static sqlite3_io_methods methods;
            static const sqlite3_io_methods* original = nullptr;
            if (file->pMethods && file->pMethods != &methods) {
                original = file->pMethods;
                methods = *original;
                methods.xWrite = [](sqlite3_file* f, const void* data, int n, sqlite3_int64 at) {
                    return full ? SQLITE_FULL : original->xWrite(f, data, n, at);
                };
                file->pMethods = &methods;
            }
            return rc;
        };
        return v;
    }();
    RefusingWrites() { sqlite3_vfs_register(&vfs, 1); }
    ~RefusingWrites() { sqlite3_vfs_register(real, 1), sqlite3_vfs_unregister(&vfs); }
};

TEST(SEGAnalytics, DeliveredMessagesTheDiskWouldNotDeleteAreNeverSentAgain) {
    // In a child: SQLite's lock bookkeeping does not always survive the refused writes, and
    // must not spoil the other tests.
    testing::TemporaryDirectory state("kt-seg");
    if (const pid_t child = ::fork(); child != 0) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        Harness h(config(), state.path());  // the deletion was done after all: nothing to send
        EXPECT_EQ(h.requests->sentCount(), 0u);
        return;
    }
    struct Exit {
        ~Exit() { ::_exit(::testing::Test::HasFailure() ? 1 : 0); }
    } exit;
    RefusingWrites disk;
    Harness h(config(), state.path());
    h.upload({"a", "b"});
    disk.full = true;
    h.respond(kDelivered);
    ASSERT_TRUE(h.logger->contains("deleted no longer"));
    h.upload({"x"});  // not stored, and nothing sent
    EXPECT_EQ(h.requests->sentCount(), 1u);
    disk.full = false;
    h.upload({"c"}, kDelivered);
    EXPECT_TRUE(h.logger->contains("deleted again"));
    EXPECT_EQ(h.batches(), (Batches{{"a", "b"}, {"c"}}));
    EXPECT_EQ(h.stats().delivered, 3u);
    EXPECT_EQ(h.stats().droppedByReason, (Drops{{"not_persisted", 1}}));
}

// The worker thread held by a task waiting on a gate, calls of each kind and size past the
// backlog's bound: the newest are dropped on the caller's thread and counted at once, what
// fit is stored once the worker runs (which frees the bound for the next row), and the drops
// are in the queue's file under the reason's key.
TEST(SEGAnalytics, CallsPastTheBacklogBoundAreDroppedCountedAndWritten) {
    testing::TemporaryDirectory state("kt-seg");
    auto c = config(1'000'000);
    c.maxBacklogBytes = 64 * 1024;
    auto worker = std::make_shared<ThreadSerialQueue>("held");
    auto client = std::make_unique<SEGAnalytics>(
        c, SEGAnalyticsDependencies{std::make_shared<testing::FakeRequestQueue>(), state.path(), nullptr, worker});
    const auto backlogFull = [&] { return client->statistics().droppedByReason["backlog_full"]; };
    std::uint64_t sent = 0, dropped = 0;
    const struct {
        bool identify;
        std::size_t blob;
    } rows[] = {{false, 4096}, {true, 4096}, {false, 0}};
    for (const auto& row : rows) {
        const bool identify = row.identify;
        const std::size_t blob = row.blob;
        SCOPED_TRACE(blob);
        std::promise<void> gate;
        worker->async([opened = gate.get_future().share()] { opened.wait(); });
        const auto call = [&] {
            const json values{{"blob", std::string(blob, 'x')}};
            identify ? client->identify("u", values, {}) : client->track("e", values, {});
            ++sent;
        };
        std::size_t calls = 0;
        for (; backlogFull() == dropped && calls <= c.maxBacklogBytes / 64; ++calls) call();
        for (int i = 0; i < 4; ++i) call();
        EXPECT_EQ(backlogFull(), dropped + 5);
        EXPECT_LE((calls - 1) * blob, c.maxBacklogBytes);
        // Waiting, a call costs little beyond its values.
        EXPECT_GE(calls - 1, c.maxBacklogBytes / (blob + 400));
        dropped += 5;
        gate.set_value();
        ASSERT_TRUE(worker->drain(30s));
        const auto s = client->statistics();
        EXPECT_EQ(std::tuple(s.tracked, s.persisted + s.dropped(), s.waiting), std::tuple(sent, sent, s.persisted));
    }
    client.reset();
    EXPECT_EQ(SEGAnalytics::recordedDrops(state.path()), (Drops{{"backlog_full", dropped}}));
}

TEST(SEGAnalytics, FullQueueDropsTheOldestWaitingMessage) {
    auto c = config();
    c.maxQueueSize = 3;
    Harness h(c);
    for (const char* name : {"a", "b", "c", "d", "e"}) h.track(name);
    EXPECT_EQ(h.stats().droppedByReason, (std::map<std::string, std::uint64_t>{{"queue_full", 2}}));
    EXPECT_EQ(h.stats().waiting, 3u);
    h.flush();
    EXPECT_EQ(h.batches(), (Batches{{"c", "d", "e"}}));
    // While those three are in flight the newest gives way, not a message being sent.
    h.track("f");
    h.respond(kDelivered);
    EXPECT_EQ(h.stats().delivered, 3u);
    EXPECT_EQ(h.stats().droppedByReason.at("queue_full"), 3u);
}

}  // namespace
}  // namespace kt
