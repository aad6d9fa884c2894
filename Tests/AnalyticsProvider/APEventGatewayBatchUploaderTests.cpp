#include "AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"

#include <atomic>
#include <chrono>
#include <limits>
#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "AnalyticsProvider/APEventFormatter.h"
#include "AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTFoundation/KTEnvironment.h"
#include "Platform/SerialQueue.h"
#include "Support/FakeRequestQueue.h"
#include "Support/RecordingLogger.h"
#include "Support/RecordingTechLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using namespace std::chrono_literals;

class SwitchableEnvironment final : public BuildEnvironmentDetecting {
public:
    explicit SwitchableEnvironment(bool alpha) : alpha(alpha) {}
    bool isAlpha() const override { return alpha.load(); }
    std::atomic<bool> alpha;
};

std::shared_ptr<const APEvent> event(int n, AttributeValue extra = nullptr) {
    AttributeDictionary attributes{{"n", n}, {"page_name", "stream:" + std::to_string(n)}};
    if (!extra.is_null()) attributes["extra"] = std::move(extra);
    return APEvent::make("pageview", std::move(attributes));
}

// The values of "n" in a request's body, sorted.
std::multiset<int> numbersIn(const HTTPRequest& request) {
    std::multiset<int> numbers;
    for (const auto& element : AttributeValue::parse(*GzipCodec::gunzippedData(request.body)))
        numbers.insert(element["payload"]["n"].get<int>());
    return numbers;
}

class APEventGatewayBatchUploaderTests : public ::testing::Test {
public:
    std::shared_ptr<APEventGatewayBatchUploader> makeUploader(std::size_t minimumBatchSize, bool flushAtIntervals = true) {
        return APEventGatewayBatchUploader::make(serializer, factory, requestQueue, {}, minimumBatchSize, techLogger,
                                                 queue, environment, flushAtIntervals, logger);
    }

    void upload(const std::shared_ptr<APEventGatewayBatchUploader>& uploader, std::shared_ptr<const APEvent> e) {
        queue->async([uploader, e] { uploader->uploadEvent(e); });
        queue->runUntilIdle();
    }

    // The request queue answers on its own thread; the uploader moves the answer onto its queue.
    void respond(int code) {
        ASSERT_TRUE(requestQueue->respond(code));
        queue->runUntilIdle();
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
    std::shared_ptr<SwitchableEnvironment> environment = std::make_shared<SwitchableEnvironment>(false);
};

TEST_F(APEventGatewayBatchUploaderTests, FewerThanTheMinimumWaitForTheTimedFlush) {
    auto uploader = makeUploader(5);
    for (int n = 1; n <= 4; ++n) upload(uploader, event(n));
    EXPECT_EQ(requestQueue->sentCount(), 0u);
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 4u);

    queue->advance(59s);
    EXPECT_EQ(requestQueue->sentCount(), 0u);
    queue->advance(1s);
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[0]), (std::multiset<int>{1, 2, 3, 4}));
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 0u);

    respond(0);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_TRUE(uploader->queuedEvents().empty());
    auto stats = uploader->statistics();
    EXPECT_EQ(stats.stored, 4u);
    EXPECT_EQ(stats.delivered, 4u);
    EXPECT_EQ(stats.batchesSent, 1u);
    EXPECT_EQ(stats.bytesGzipped, requestQueue->sentRequests()[0].body.size());
    EXPECT_EQ(stats.bytesRaw, GzipCodec::gunzippedData(requestQueue->sentRequests()[0].body)->size());
    EXPECT_EQ(stats.waiting, 0u);

    // The timer keeps going.
    upload(uploader, event(5));
    queue->advance(60s);
    EXPECT_EQ(requestQueue->sentCount(), 2u);
}

TEST_F(APEventGatewayBatchUploaderTests, ReachingTheMinimumUploadsAtOnceAndWithoutTimerNothingElse) {
    auto uploader = makeUploader(3, false);
    upload(uploader, event(1));
    upload(uploader, event(2));
    queue->advance(120s);
    EXPECT_EQ(requestQueue->sentCount(), 0u);
    upload(uploader, event(3));
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[0]), (std::multiset<int>{1, 2, 3}));
    EXPECT_EQ(uploader->statistics().inFlight, 3u);
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

TEST_F(APEventGatewayBatchUploaderTests, AnEventIsDroppedAfterItsThirdFailure) {
    auto uploader = makeUploader(1, false);
    upload(uploader, event(1));
    respond(2);
    EXPECT_EQ(serializer->serializedEventsCount(), 1u);
    uploader->flush();
    queue->runUntilIdle();
    respond(503);  // any code but 0 and 3 is a failure
    EXPECT_EQ(serializer->serializedEventsCount(), 1u);
    uploader->flush();
    queue->runUntilIdle();
    ASSERT_EQ(requestQueue->sentCount(), 3u);
    respond(2);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_TRUE(uploader->queuedEvents().empty());
    auto stats = uploader->statistics();
    EXPECT_EQ(stats.retries, 2u);
    EXPECT_EQ(stats.dropped(APEventDropReason::failedThreeTimes), 1u);
    EXPECT_EQ(stats.batchesFailed, 3u);
    EXPECT_EQ(techLogger->count(), 0u);
}

TEST_F(APEventGatewayBatchUploaderTests, RejectedBatchIsDeletedAndReportedOnlyOnAlpha) {
    auto uploader = makeUploader(2, false);
    upload(uploader, event(1));
    upload(uploader, event(2));
    respond(3);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_EQ(uploader->statistics().dropped(APEventDropReason::rejected), 2u);
    EXPECT_EQ(techLogger->count(), 0u);
}

TEST_F(APEventGatewayBatchUploaderTests, AlphaBuildsSendOneEventPerRequestAndReportInvalidOnes) {
    environment->alpha = true;
    auto uploader = makeUploader(2, false);
    upload(uploader, event(1));
    upload(uploader, event(2));
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    const std::multiset<int> first = numbersIn(requestQueue->sentRequests()[0]);
    ASSERT_EQ(first.size(), 1u);

    respond(3);
    auto reported = techLogger->eventsNamed("invalid-tracking-event");
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(reported[0].space, 1);
    EXPECT_EQ(reported[0].attributes,
              (AttributeDictionary{{"event", APEventFormatter::shortDescriptionForEvent(*event(*first.begin()))}}));
    EXPECT_EQ(serializer->serializedEventsCount(), 1u);

    uploader->flush();
    queue->runUntilIdle();
    ASSERT_EQ(requestQueue->sentCount(), 2u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[1]).size(), 1u);
    EXPECT_NE(numbersIn(requestQueue->sentRequests()[1]), first);
    respond(0);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_EQ(techLogger->count(), 1u);
}

TEST_F(APEventGatewayBatchUploaderTests, RejectedBatchOfSeveralOnAlphaIsOnlyWarnedAbout) {
    auto uploader = makeUploader(2, false);
    upload(uploader, event(1));
    upload(uploader, event(2));
    environment->alpha = true;  // the build changed its mind while the batch was out
    respond(3);
    EXPECT_EQ(techLogger->count(), 0u);
    auto warnings = logger->messages(2);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], "Expected batch size of 1 on dev, alpha and beta");
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
}

TEST_F(APEventGatewayBatchUploaderTests, EventStoredWhileABatchIsInFlightWaitsForTheNext) {
    auto uploader = makeUploader(2, false);
    upload(uploader, event(1));
    upload(uploader, event(2));
    upload(uploader, event(3));
    EXPECT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 1u);

    uploader->flush();  // from this thread: runs on the queue
    EXPECT_EQ(requestQueue->sentCount(), 1u);
    queue->runUntilIdle();
    ASSERT_EQ(requestQueue->sentCount(), 2u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[1]), (std::multiset<int>{3}));

    requestQueue->respondToAll(0);
    queue->runUntilIdle();
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    EXPECT_EQ(uploader->statistics().delivered, 3u);
}

// The same event stored again while its file is in flight collapses into that file: it is
// not sent twice, and the answer for the batch settles it.
TEST_F(APEventGatewayBatchUploaderTests, AnEventStoredAgainWhileInFlightIsNotSentTwice) {
    auto uploader = makeUploader(1, false);
    upload(uploader, event(1));
    upload(uploader, event(1));
    uploader->flush();
    queue->runUntilIdle();
    EXPECT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), 0u);
    respond(0);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    const auto stats = uploader->statistics();
    EXPECT_EQ(stats.stored, 2u);
    EXPECT_EQ(stats.delivered, 1u);
}

TEST_F(APEventGatewayBatchUploaderTests, CorruptedEventsAreDeletedReportedAndStayInFlight) {
    auto uploader = makeUploader(5, false);
    upload(uploader, event(1, std::numeric_limits<double>::infinity()));
    upload(uploader, event(2, std::numeric_limits<double>::quiet_NaN()));
    uploader->flush();
    queue->runUntilIdle();

    EXPECT_EQ(requestQueue->sentCount(), 0u);
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    auto reported = techLogger->eventsNamed("corrupted_events");
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_TRUE(reported[0].attributes.empty());
    EXPECT_EQ(uploader->statistics().dropped(APEventDropReason::notRepresentable), 2u);
    EXPECT_TRUE(logger->contains("Fatal error - unable to serialize events to JSON"));

    // The stale in-flight entries make the waiting count wrap, so the next event is sent
    // at once although the minimum is 5.
    EXPECT_EQ(uploader->queuedEvents().size(), 2u);
    EXPECT_EQ(uploader->numberOfEventsWaitingToBeUploaded(), std::numeric_limits<std::size_t>::max() - 1);
    upload(uploader, event(3));
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[0]), (std::multiset<int>{3}));
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

TEST_F(APEventGatewayBatchUploaderTests, ARestartUploadsWhatWasStored) {
    {
        requestQueue->setReachable(false);
        auto uploader = makeUploader(1, false);
        upload(uploader, event(1));
        upload(uploader, event(2));
    }
    requestQueue->setReachable(true);
    serializer = std::make_shared<APEventSerializer>(temp / "events", logger);
    auto uploader = makeUploader(10, false);
    uploader->flush();
    queue->runUntilIdle();
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[0]), (std::multiset<int>{1, 2}));
}

// Counts what the store asks of its folder, passing every call on to the real one.
class CountingFolder final : public EventFolderAccessing {
public:
    std::vector<EventFolderEntry> list(const std::filesystem::path& folder, const std::string& suffix) const override {
        ++lists;
        return real.list(folder, suffix);
    }
    EventFolderEntryKind kind(const std::filesystem::path& path) const override { return real.kind(path); }
    std::optional<Bytes> read(const std::filesystem::path& path, std::size_t maximumSize,
                              std::string& error) const override {
        ++reads[path.filename().native()];
        return real.read(path, maximumSize, error);
    }
    PosixEventFolder real;
    mutable int lists = 0;
    mutable std::map<std::string, int> reads;
};

TEST_F(APEventGatewayBatchUploaderTests, AFlushReadsOnlyWhatIsNotInFlightAndListsNothing) {
    auto folder = std::make_shared<CountingFolder>();
    serializer = std::make_shared<APEventSerializer>(temp / "events", logger, std::make_shared<ExtendedFileAttributes>(),
                                                     folder);
    auto uploader = makeUploader(10, false);
    for (int n = 0; n < 1000; ++n) upload(uploader, event(n));  // 100 batches in flight
    ASSERT_EQ(requestQueue->pendingCount(), 100u);
    upload(uploader, event(1000));
    folder->lists = 0;
    folder->reads.clear();

    uploader->flush();
    queue->runUntilIdle();
    ASSERT_EQ(requestQueue->sentCount(), 101u);
    EXPECT_EQ(folder->lists, 0);
    EXPECT_EQ(folder->reads,
              (std::map<std::string, int>{{serializer->serializeEvent(event(1000))->eventURL().filename(), 1}}));
    EXPECT_EQ(uploader->statistics().inFlight, 1001u);

    // Failed events wait again, are read once each by the next flush, and the timed flush
    // lists the folder once.
    requestQueue->respondToAll(2);
    queue->runUntilIdle();
    folder->reads.clear();
    uploader->flush();
    queue->runUntilIdle();
    EXPECT_EQ(folder->reads.size(), 1001u);
    EXPECT_TRUE(std::all_of(folder->reads.begin(), folder->reads.end(), [](const auto& r) { return r.second == 1; }));
    EXPECT_EQ(folder->lists, 0);
}

TEST_F(APEventGatewayBatchUploaderTests, TheTimedFlushListsTheFolderOnceAndFindsForeignFiles) {
    auto folder = std::make_shared<CountingFolder>();
    serializer = std::make_shared<APEventSerializer>(temp / "events", logger, std::make_shared<ExtendedFileAttributes>(),
                                                     folder);
    auto uploader = makeUploader(100);
    upload(uploader, event(1));
    // Another process of the application stored one too.
    APEventSerializer other(temp / "events", nullptr);
    ASSERT_TRUE(other.serializeEvent(event(2)));
    folder->lists = 0;
    queue->advance(60s);
    EXPECT_EQ(folder->lists, 1);
    ASSERT_EQ(requestQueue->sentCount(), 1u);
    EXPECT_EQ(numbersIn(requestQueue->sentRequests()[0]), (std::multiset<int>{1, 2}));
}

// A file system that refuses the count (not one without attributes: one that fails).
class FailingAttributes final : public FileAttributeStoring {
public:
    std::optional<Bytes> attribute(const std::filesystem::path&, const std::string&, int& error) const override {
        error = ENODATA;
        return std::nullopt;
    }
    int setAttribute(const std::filesystem::path&, const std::string&, const Bytes&) override { return EIO; }
};

TEST_F(APEventGatewayBatchUploaderTests, ACountTheFileRefusesIsKeptInMemoryForAllThreeAttempts) {
    serializer = std::make_shared<APEventSerializer>(temp / "events", logger, std::make_shared<FailingAttributes>());
    auto uploader = makeUploader(1, false);
    upload(uploader, event(1));
    for (int attempt = 1; attempt <= 3; ++attempt) {
        ASSERT_EQ(serializer->serializedEventsCount(), 1u) << "attempt " << attempt;
        respond(2);
        uploader->flush();
        queue->runUntilIdle();
    }
    EXPECT_EQ(serializer->serializedEventsCount(), 0u);
    const auto stats = uploader->statistics();
    EXPECT_EQ(stats.dropped(APEventDropReason::failedThreeTimes), 1u);
    EXPECT_EQ(stats.dropped(), 1u);
    EXPECT_EQ(stats.retryCountsInMemory, 3u);
    EXPECT_EQ(logger->messages(3).size(), 1u);  // logged once, not at every attempt
}

// Each reason an event can leave without being delivered, reached the way it happens.
TEST_F(APEventGatewayBatchUploaderTests, EveryDropIsCountedUnderItsReason) {
    const auto nested = [](int depth) {
        AttributeValue v = 1;
        for (int i = 0; i < depth; ++i) v = AttributeValue::array({std::move(v)});
        return v;
    };
    struct Case {
        const char* name;
        std::function<void(APEventGatewayBatchUploaderTests&, const std::shared_ptr<APEventGatewayBatchUploader>&)> act;
        APEventDropReason reason;
    };
    const std::vector<Case> cases = {
        {"third failure",
         [](auto& t, const auto& u) {
             t.upload(u, event(1));
             for (int i = 0; i < 3; ++i) {
                 t.respond(2);
                 u->flush();
                 t.queue->runUntilIdle();
             }
         },
         APEventDropReason::failedThreeTimes},
        {"rejected", [](auto& t, const auto& u) { t.upload(u, event(1)); t.respond(3); }, APEventDropReason::rejected},
        {"not JSON", [](auto& t, const auto& u) { t.upload(u, event(1, std::numeric_limits<double>::infinity())); },
         APEventDropReason::notRepresentable},
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(temp / "events");
        serializer = std::make_shared<APEventSerializer>(temp / "events", logger);
        requestQueue = std::make_shared<testing::FakeRequestQueue>();
        auto uploader = makeUploader(1, false);
        c.act(*this, uploader);
        const auto stats = uploader->statistics();
        EXPECT_EQ(stats.dropped(c.reason), 1u);
        EXPECT_EQ(stats.dropped(), 1u);
        EXPECT_EQ(stats.waiting + stats.delivered, 0u);
    }
    // Depth 256 is the most the store takes, and it reads it back.
    std::filesystem::remove_all(temp / "events");
    serializer = std::make_shared<APEventSerializer>(temp / "events", logger);
    requestQueue = std::make_shared<testing::FakeRequestQueue>();
    auto uploader = makeUploader(1, false);
    upload(uploader, event(1, nested(255)));  // inside the attributes dictionary: 256 levels
    respond(0);
    EXPECT_EQ(uploader->statistics().delivered, 1u);
    EXPECT_EQ(uploader->statistics().dropped(), 0u);
}

TEST_F(APEventGatewayBatchUploaderTests, UploadingNothingIsAProgrammingError) {
    auto uploader = makeUploader(1, false);
    EXPECT_DEATH(uploader->uploadEvent(nullptr), "Invalid parameter not satisfying: event");
}

}  // namespace
}  // namespace kt
