#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <limits>
#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APEventFormatter.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "Support/FakeRequestQueue.h"
#include "Support/RecordingLogger.h"
#include "Support/RecordingTechLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;
using Numbers = std::multiset<int>;

struct SwitchableEnvironment final : BuildEnvironmentDetecting {
    bool isAlpha() const override { return alpha.load(); }
    std::atomic<bool> alpha{false};
};

std::shared_ptr<const APEvent> event(int n, AttributeValue extra = nullptr) {
    AttributeDictionary attributes{{"n", n}, {"page_name", "stream:" + std::to_string(n)}};
    if (!extra.is_null()) attributes["extra"] = std::move(extra);
    return APEvent::make("pageview", std::move(attributes));
}

// Counts what the store asks of its folder, passing every call on to the real one.
struct CountingFolder final : EventFolderAccessing {
    std::vector<EventFolderEntry> list(const std::filesystem::path& folder, const std::string& suffix) const override {
        ++lists;
        return real.list(folder, suffix);
    }
    EventFolderEntryKind kind(const std::filesystem::path& path) const override { return real.kind(path); }
    std::optional<Bytes> read(const std::filesystem::path& path, std::size_t maximumSize, std::string& error,
                              EventFolderEntryKind* kind) const override {
        ++reads[path.filename().native()];
        return real.read(path, maximumSize, error, kind);
    }
    PosixEventFolder real;
    mutable int lists = 0;
    mutable std::map<std::string, int> reads;
};

// A file system that refuses the count (not one without attributes: one that fails).
struct FailingAttributes final : FileAttributeStoring {
    std::optional<Bytes> attribute(const std::filesystem::path&, const std::string&, int& error) const override {
        error = ENODATA;
        return std::nullopt;
    }
    int setAttribute(const std::filesystem::path&, const std::string&, const Bytes&) override { return EIO; }
};

class APEventGatewayBatchUploaderTests : public ::testing::Test {
public:
    std::shared_ptr<APEventGatewayBatchUploader> makeUploader(std::size_t minimumBatchSize, bool flushAtIntervals = true) {
        return APEventGatewayBatchUploader::make(serializer, factory, requestQueue, {}, minimumBatchSize, techLogger,
                                                 queue, environment, flushAtIntervals, logger);
    }
    void useStore(std::shared_ptr<FileAttributeStoring> attributes = std::make_shared<ExtendedFileAttributes>(),
                  std::shared_ptr<EventFolderAccessing> folder = std::make_shared<PosixEventFolder>()) {
        serializer = std::make_shared<APEventSerializer>(temp / "events", logger, attributes, folder);
    }
    void upload(const std::shared_ptr<APEventGatewayBatchUploader>& uploader, std::shared_ptr<const APEvent> e) {
        queue->async([uploader, e] { uploader->uploadEvent(e); });
        queue->runUntilIdle();
    }
    void flush(const std::shared_ptr<APEventGatewayBatchUploader>& uploader) {
        uploader->flush();
        queue->runUntilIdle();
    }
    // The request queue answers on its own thread; the uploader moves the answer onto its queue.
    void respond(int code) {
        ASSERT_TRUE(requestQueue->respond(code));
        queue->runUntilIdle();
    }
    // The values of "n" in the body of the `index`th request sent.
    Numbers sentNumbers(std::size_t index) const {
        Numbers numbers;
        const auto body = GzipCodec::gunzippedData(requestQueue->sentRequests().at(index).body);
        for (const auto& element : AttributeValue::parse(*body)) numbers.insert(element["payload"]["n"].get<int>());
        return numbers;
    }

    testing::TemporaryDirectory temp{"kt-uploader"};
    std::shared_ptr<testing::RecordingLogger> logger = std::make_shared<testing::RecordingLogger>();
    std::shared_ptr<testing::RecordingTechLogger> techLogger = std::make_shared<testing::RecordingTechLogger>();
    std::shared_ptr<APEventSerializer> serializer = std::make_shared<APEventSerializer>(temp / "events", logger);
    DependencyRegistry dependencies;
    std::shared_ptr<APEventGatewayRequestFactory> factory = std::make_shared<APEventGatewayRequestFactory>(
        "http://gateway.test", std::make_shared<AnalyticsAttributeRegistry>(dependencies), JSONSafeSerialization(),
        nullptr, APEventGatewayRequestFactory::DateFormatter{}, false);
    std::shared_ptr<testing::FakeRequestQueue> requestQueue = std::make_shared<testing::FakeRequestQueue>();
    std::shared_ptr<VirtualTimeSerialQueue> queue = std::make_shared<VirtualTimeSerialQueue>();
    std::shared_ptr<SwitchableEnvironment> environment = std::make_shared<SwitchableEnvironment>();
};

TEST_F(APEventGatewayBatchUploaderTests, ReachingTheMinimumUploadsAtOnceAndWithoutTimerNothingElse) {
    auto uploader = makeUploader(3, false);
    for (int n : {1, 2}) upload(uploader, event(n));
    queue->advance(120s);
    EXPECT_EQ(requestQueue->sentCount(), 0u);
    upload(uploader, event(3));
    EXPECT_EQ(sentNumbers(0), (Numbers{1, 2, 3}));
}

TEST_F(APEventGatewayBatchUploaderTests, UnreachableNetworkSendsAndQueuesNothing) {
    requestQueue->setReachable(false);
    auto uploader = makeUploader(2);
    for (int n = 1; n <= 3; ++n) upload(uploader, event(n));
    queue->advance(60s);
    EXPECT_EQ(requestQueue->sentCount(), 0u);
    EXPECT_TRUE(uploader->queuedEvents().empty());
    EXPECT_EQ(serializer->serializedEventsCount(), 3u);
    requestQueue->setReachable(true);
    queue->advance(60s);
    EXPECT_EQ(requestQueue->sentCount(), 1u);
}

// Any code but 0 and 3 is a failed attempt. A refused count is logged once.
TEST_F(APEventGatewayBatchUploaderTests, ACountTheFileRefusesIsKeptInMemoryForAllThreeAttempts) {
    for (bool refusing : {false, true}) {
        SCOPED_TRACE(refusing ? "refused" : "stored");
        logger->clear();
        if (refusing) useStore(std::make_shared<FailingAttributes>());
        auto uploader = makeUploader(1, false);
        upload(uploader, event(1));
        for (int code : {2, 503, 2}) {
            ASSERT_EQ(serializer->serializedEventsCount(), 1u) << "before code " << code;
            respond(code);
            flush(uploader);
        }
        const auto stats = uploader->statistics();
        EXPECT_EQ(std::vector<std::uint64_t>({stats.dropped(APEventDropReason::failedThreeTimes), stats.dropped(),
                                              stats.retries, stats.batchesFailed, stats.retryCountsInMemory,
                                              serializer->serializedEventsCount(), uploader->queuedEvents().size()}),
                  std::vector<std::uint64_t>({1, 1, 2, 3, refusing ? 3u : 0u, 0, 0}));
        EXPECT_EQ(logger->messages(3).size(), refusing ? 1u : 0u);
    }
    EXPECT_EQ(techLogger->count(), 0u);
}

// Several rejected on alpha: the build changed its mind while they were out.
TEST_F(APEventGatewayBatchUploaderTests, ARejectedBatchIsDeletedAndReportedOnlyWhenAlone) {
    auto uploader = makeUploader(2, false);
    for (bool alpha : {false, true}) {
        for (int n : {1, 2}) upload(uploader, event(n));
        environment->alpha = alpha;
        respond(3);
        EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    }
    EXPECT_EQ(uploader->statistics().dropped(APEventDropReason::rejected), 4u);
    EXPECT_EQ(techLogger->count(), 0u);
    EXPECT_EQ(logger->messages(2), std::vector<std::string>{"Expected batch size of 1 on dev, alpha and beta"});
}

TEST_F(APEventGatewayBatchUploaderTests, AlphaBuildsSendOneEventPerRequestAndReportInvalidOnes) {
    environment->alpha = true;
    auto uploader = makeUploader(2, false);
    for (int n : {1, 2}) upload(uploader, event(n));
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    const Numbers first = sentNumbers(0);
    ASSERT_EQ(first.size(), 1u);

    respond(3);
    const auto description = APEventFormatter::shortDescriptionForEvent(*event(*first.begin()));
    EXPECT_EQ(techLogger->events(),
              std::vector<TechEvent>{TechEvent("invalid-tracking-event", 1).addAttribute("event", description)});

    flush(uploader);
    EXPECT_EQ(sentNumbers(1), (Numbers{3 - *first.begin()}));  // the other one
    respond(0);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_EQ(techLogger->count(), 1u);
}

TEST_F(APEventGatewayBatchUploaderTests, AnEventStoredAgainWhileInFlightIsNotSentTwice) {
    auto uploader = makeUploader(1, false);
    for (int n : {1, 1}) upload(uploader, event(n));
    flush(uploader);
    EXPECT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 0u);
    respond(0);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_EQ(uploader->statistics().stored, 2u);
    EXPECT_EQ(uploader->statistics().delivered, 1u);
}

// A value JSON cannot carry is refused before it is stored: stored, it would fail the JSON
// of the whole batch it joined, and the batch would be dropped with it.
TEST_F(APEventGatewayBatchUploaderTests, EventsJSONCannotCarryAreRefusedBeforeTheyJoinABatch) {
    auto uploader = makeUploader(2, false);
    upload(uploader, event(1, std::numeric_limits<double>::infinity()));
    upload(uploader, event(2, std::numeric_limits<double>::quiet_NaN()));
    upload(uploader, event(3));
    flush(uploader);
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(sentNumbers(0), (Numbers{3}));
    EXPECT_EQ(uploader->statistics().dropped(APEventDropReason::notRepresentable), 2u);
    EXPECT_TRUE(techLogger->events().empty());
}

TEST_F(APEventGatewayBatchUploaderTests, AnswersAndTimersAfterTheUploaderIsGoneDoNothing) {
    auto uploader = makeUploader(1);
    upload(uploader, event(1));
    ASSERT_EQ(requestQueue->pendingCount(), 1u);
    uploader.reset();
    respond(0);
    queue->advance(120s);
    EXPECT_EQ(serializer->serializedEventsCount(), 1u);
    EXPECT_EQ(requestQueue->sentCount(), 1u);
}

TEST_F(APEventGatewayBatchUploaderTests, AFlushReadsOnlyWhatIsNotInFlightAndListsNothing) {
    auto folder = std::make_shared<CountingFolder>();
    useStore(std::make_shared<ExtendedFileAttributes>(), folder);
    auto uploader = makeUploader(10, false);
    for (int n = 0; n < 1000; ++n) upload(uploader, event(n));  // 100 batches in flight
    ASSERT_EQ(requestQueue->pendingCount(), 100u);
    upload(uploader, event(1000));
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 1u);
    folder->lists = 0;
    folder->reads.clear();

    uploader->flush();  // from this thread: runs on the queue
    EXPECT_EQ(requestQueue->sentCount(), 100u);
    queue->runUntilIdle();
    EXPECT_EQ(sentNumbers(100), (Numbers{1000}));
    EXPECT_EQ(folder->lists, 0);
    EXPECT_EQ(folder->reads,
              (std::map<std::string, int>{{serializer->serializeEvent(event(1000))->eventURL().filename(), 1}}));
    EXPECT_EQ(uploader->statistics().inFlight, 1001u);

    // Failed events wait again and are read once each by the next flush.
    requestQueue->respondToAll(2);
    queue->runUntilIdle();
    folder->reads.clear();
    flush(uploader);
    EXPECT_EQ(folder->reads.size(), 1001u);
    EXPECT_TRUE(std::all_of(folder->reads.begin(), folder->reads.end(), [](const auto& r) { return r.second == 1; }));
    EXPECT_EQ(folder->lists, 0);
}

// Listing finds what another process of the application stored.
TEST_F(APEventGatewayBatchUploaderTests, TheTimedFlushListsTheFolderOnceAndFindsForeignFiles) {
    auto folder = std::make_shared<CountingFolder>();
    useStore(std::make_shared<ExtendedFileAttributes>(), folder);
    auto uploader = makeUploader(5);
    for (int n = 1; n <= 3; ++n) upload(uploader, event(n));
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 3u);
    ASSERT_TRUE(APEventSerializer(temp / "events", nullptr).serializeEvent(event(4)));
    folder->lists = 0;
    queue->advance(59s);
    EXPECT_EQ(requestQueue->sentCount(), 0u);
    queue->advance(1s);
    EXPECT_EQ(folder->lists, 1);
    EXPECT_EQ(sentNumbers(0), (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 0u);

    respond(0);
    upload(uploader, event(5));  // the timer keeps going
    queue->advance(60s);
    EXPECT_EQ(sentNumbers(1), (Numbers{5}));
}

// Each reason an event can leave without being delivered, reached the way it happens.
TEST_F(APEventGatewayBatchUploaderTests, EveryDropIsCountedUnderItsReason) {
    const auto nested = [](int depth) {
        AttributeValue v = 1;
        for (int i = 0; i < depth; ++i) v = AttributeValue::array({std::move(v)});
        return v;
    };
    using Uploader = std::shared_ptr<APEventGatewayBatchUploader>;
    // (case, what happens, the reason it is dropped for or none when delivered)
    const std::vector<std::tuple<const char*, std::function<void(APEventGatewayBatchUploaderTests&, const Uploader&)>,
                                 std::optional<APEventDropReason>>>
        cases = {
        // A third failure, a rejection and a value JSON cannot hold have tests of their own above.
        // A null marker is stored but is not a class the store reads back.
        {"unreadable", [](auto& t, const auto& u) { t.upload(u, event(1, AttributeValue::array({nullptr}))); },
         APEventDropReason::unreadable},
        {"file gone before the count",
         [](auto& t, const auto& u) {
             t.upload(u, event(1));
             std::filesystem::remove(u->queuedEvents().begin()->eventURL());
             t.respond(2);
         },
         APEventDropReason::retryCountLost},
        {"too deep", [nested](auto& t, const auto& u) { t.upload(u, event(1, nested(300))); },
         APEventDropReason::tooDeeplyNested},
        {"write failed",
         [](auto& t, const auto& u) {
             // A file where the folder should be: creating anything in it fails, even as root.
             std::filesystem::remove_all(t.temp / "events");
             std::ofstream(t.temp / "events") << "not a folder";
             t.upload(u, event(1));
         },
         APEventDropReason::notStored},
        // Depth 256 is the most the store takes (the attributes dictionary is one level), and
        // it reads it back.
        {"deepest accepted", [nested](auto& t, const auto& u) { t.upload(u, event(1, nested(255))), t.respond(0); },
         std::nullopt},
    };
    for (const auto& [name, act, reason] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all(temp / "events");
        useStore();
        requestQueue = std::make_shared<testing::FakeRequestQueue>();
        auto uploader = makeUploader(1, false);
        act(*this, uploader);
        const auto stats = uploader->statistics();
        // (dropped for the reason, dropped in all, waiting, delivered)
        EXPECT_EQ(std::vector<std::uint64_t>({reason ? stats.dropped(*reason) : 0, stats.dropped(), stats.waiting,
                                              stats.delivered}),
                  std::vector<std::uint64_t>({reason ? 1u : 0u, reason ? 1u : 0u, 0, reason ? 0u : 1u}));
    }
}

}  // namespace
}  // namespace kt
