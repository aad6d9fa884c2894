// The composition root without a network, on a virtual-time queue: which configurations it
// refuses, where it keeps its files, how its pieces are wired. The pipeline against a real
// gateway is covered by the end-to-end suite.

#include "KTAnalytics/Setup/AnalyticsStack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProvider.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/FakeConnectivity.h"
#include "Support/RecordingLogger.h"
#include "Support/RecordingTechLogger.h"
#include "Support/SmallDisk.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

namespace fs = std::filesystem;

std::size_t eventFiles(const fs::path& folder) {
    return std::count_if(fs::directory_iterator(folder), fs::directory_iterator(),
                         [](const auto& entry) { return entry.path().extension() == ".event"; });
}

class AnalyticsStackTests : public ::testing::Test {
protected:
    AnalyticsStackConfiguration configuration() {
        AnalyticsStackConfiguration c;
        // Nothing listens on port 1; nothing here gets far enough to try.
        c.environment.eventGatewayBaseURL = "http://127.0.0.1:1";
        c.environment.clientId = 42;
        c.environment.userAgent = "StackTests/1";
        c.environment.minimumBatchSize = 50;
        c.stateDirectory = directory / "state";
        c.queue = queue;
        c.connectivity = std::make_shared<testing::FakeConnectivity>();
        c.console = &console;
        c.recorder = recorder;
        return c;
    }

    // Never null: a refused configuration fails the test.
    std::unique_ptr<AnalyticsStack> makeStack(AnalyticsStackConfiguration c) {
        std::string error;
        auto stack = AnalyticsStack::make(std::move(c), &error);
        if (!stack) throw std::runtime_error("refused: " + error);
        return stack;
    }

    testing::TemporaryDirectory directory{"kt-stack"};
    std::shared_ptr<VirtualTimeSerialQueue> queue = std::make_shared<VirtualTimeSerialQueue>();
    std::ostringstream console;
    std::shared_ptr<APEventGatewayEventRecorder> recorder = std::make_shared<APEventGatewayEventRecorder>(true);
};

TEST_F(AnalyticsStackTests, refusesConfigurationsThePipelineCannotRunWith) {
    std::ofstream(directory / "occupied") << "x";  // a state folder that is a file holds nothing
    const std::vector<std::pair<std::function<void(AnalyticsStackConfiguration&)>, std::string>> refused = {
        {[](auto& c) { c.environment.eventGatewayBaseURL = "127.0.0.1:8080"; }, "gateway URL"},
        {[](auto& c) { c.environment.eventGatewayBaseURL = "ftp://127.0.0.1/"; }, "not http or https"},
        {[](auto& c) { c.environment.eventGatewayBaseURL = "http:///v1"; }, "no host"},
        {[](auto& c) { c.environment.minimumBatchSize = 0; }, "minimum batch size"},
        {[](auto& c) { c.connectTimeout = std::chrono::milliseconds(0); }, "connect time-out"},
        {[](auto& c) { c.requestTimeout = std::chrono::milliseconds(-1); }, "request time-out"},
        {[this](auto& c) { c.stateDirectory = directory / "occupied"; }, "state folder"},
    };
    for (const auto& [change, fragment] : refused) {
        SCOPED_TRACE(fragment);
        auto c = configuration();
        change(c);
        std::string error;
        EXPECT_EQ(AnalyticsStack::make(c, &error), nullptr);
        EXPECT_NE(error.find(fragment), std::string::npos) << error;
        // Only the state folder needs the file system to be found wrong.
        EXPECT_EQ(AnalyticsStack::validate(c).empty(), fragment == "state folder");
    }
    auto https = configuration();
    https.environment.eventGatewayBaseURL = "https://events.example.org/base";
    EXPECT_EQ(AnalyticsStack::validate(https), "");
}

TEST_F(AnalyticsStackTests, keepsEveryFileBelowTheStateFolderOwnerOnly) {
    const fs::path state = directory / "state";
    {
        auto stack = makeStack(configuration());
        stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", 1}}));
        queue->runUntilIdle();
        // The session id is persisted in the state folder's user defaults, under its name space.
        const auto session = stack->sessionIdProvider()->getSessionId();
        EXPECT_EQ(stack->userDefaults()->string("session_id_provider.identifier"), session.uuidString());
        EXPECT_NE(console.str().find("SESSION ID: Creating new session id"), std::string::npos);
    }
    // Every entry, whatever made it (SQLite's journals included), is its owner's alone.
    const auto mode = [](const fs::path& p) { return static_cast<int>(fs::symlink_status(p).permissions()) & 0777; };
    std::map<std::string, int> modes{{".", mode(state)}};
    for (const auto& entry : fs::recursive_directory_iterator(state))
        modes[entry.path().extension() == ".event" ? "cache/events/<event>" : fs::relative(entry.path(), state).native()] =
            mode(entry.path());
    EXPECT_EQ(modes, (std::map<std::string, int>{{".", 0700}, {"cache", 0700}, {"cache/events", 0700},
                                                 {"cache/events/<event>", 0600}, {"cache/segment", 0700}, {"cache/segment/queue.sqlite3", 0600}, {"defaults.sqlite3", 0600},
                                                 {"requests.sqlite3", 0600}}));
}

TEST_F(AnalyticsStackTests, aFullFileSystemDropsCountedAndRecoversBySelf) {
    testing::SmallDisk disk("512k");
    if (!disk.mounted) GTEST_SKIP() << "needs root to mount a small tmpfs";
    auto logger = std::make_shared<testing::RecordingLogger>();
    auto c = configuration();
    c.stateDirectory = disk / "state";
    c.logger = logger;
    c.environment.minimumBatchSize = 1'000'000;
    { auto first = makeStack(c); }  // the state exists before the disk fills up
    disk.fill();
    auto stack = makeStack(c);
    for (int i = 0; i < 50; ++i) stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", i}}));
    queue->runUntilIdle();
    auto upload = stack->statistics().upload;
    EXPECT_EQ(upload.dropped(APEventDropReason::notStored), 50u - upload.stored);
    EXPECT_GT(upload.dropped(APEventDropReason::notStored), 0u);
    EXPECT_EQ(logger->messages(2).size(), 1u);

    disk.free();
    stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", 50}}));
    queue->runUntilIdle();
    EXPECT_EQ(stack->statistics().upload.stored, upload.stored + 1);
}

// The configuration's registrations go to instances of the stack's own.
TEST_F(AnalyticsStackTests, aTaggedEventIsTransformedRecordedAndStoredOnThePipelinesQueue) {
    auto techLogger = std::make_shared<testing::RecordingTechLogger>();
    auto c = configuration();
    c.techLogger = techLogger;
    c.token = "token-1";
    c.userUrn = "quillarbor:users:7";
    auto stack = makeStack(c);
    EXPECT_EQ(stack->credentialStore()->credential(), "token-1");
    EXPECT_NE(stack->attributeRegistry(), AnalyticsAttributeRegistry::sharedInstance());
    EXPECT_EQ(stack->controller().providerForClass<APEventGatewayAnalyticsProvider>(), stack->gatewayProvider());

    stack->tagEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:1"}, {"resource", "x"}}));
    stack->tagEvent(APEvent::make("follow", AttributeDictionary::object()));
    EXPECT_EQ(recorder->recordedEvents().size(), 0u);
    EXPECT_EQ(eventFiles(stack->eventSerializer()->cacheDirectory()), 0u);
    queue->runUntilIdle();
    const auto recorded = recorder->recordedEvents();
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0]["event"], "like");
    auto payload = recorded[0]["payload"];
    EXPECT_EQ(payload.erase("ts") + payload.erase("anonymous_id"), 2u);  // their values vary
    EXPECT_EQ(payload, (AttributeDictionary{{"track", "quillarbor:tracks:1"}, {"client_id", 42},
                                            {"user", "quillarbor:users:7"}, {"connection_type", "wifi"},
                                            {"session_id", stack->sessionIdProvider()->getSessionId().uuidString()}}));
    EXPECT_EQ(eventFiles(stack->eventSerializer()->cacheDirectory()), 1u);
    const auto unused = techLogger->eventsNamed("unused_event");
    ASSERT_EQ(unused.size(), 1u);
    EXPECT_EQ(unused[0].attributes["event"], "follow");
    const auto s = stack->statistics();
    EXPECT_EQ(std::vector<std::uint64_t>({s.tagged, s.upload.stored, s.upload.waiting, s.upload.batchesSent}),
              std::vector<std::uint64_t>({2, 1, 1, 0}));  // below the minimum batch size
    // The stack's regular flush sends it anyway after sixty seconds.
    queue->advance(std::chrono::seconds(59));
    EXPECT_EQ(stack->statistics().upload.batchesSent, 0u);
    queue->advance(std::chrono::seconds(1));
    EXPECT_EQ(stack->statistics().upload.batchesSent, 1u);
}

// Run under ThreadSanitizer (see the README) to show the two threads share nothing unguarded.
TEST_F(AnalyticsStackTests, signingInWhileEventsAreTaggedIsSafe) {
    auto c = configuration();
    c.queue = nullptr;  // the stack's own worker thread
    c.environment.minimumBatchSize = 1'000'000;
    auto stack = makeStack(c);
    std::thread tagger([&] {
        for (int i = 0; i < 300; ++i) stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", i}}));
    });
    for (int i = 0; i < 300; ++i) {
        stack->attributeRegistry()->registerclientId(i, "Agent/" + std::to_string(i));
        stack->attributeRegistry()->registerUserUrn("quillarbor:users:" + std::to_string(i));
    }
    tagger.join();
    ASSERT_TRUE(stack->drainQueue(std::chrono::seconds(30)));
    const auto recorded = recorder->recordedEvents();
    ASSERT_EQ(recorded.size(), 300u);
    for (const auto& event : recorded)
        ASSERT_TRUE(event["payload"]["client_id"].is_number_integer() && event["payload"]["user"].is_string()) << event;
    EXPECT_EQ(stack->statistics().upload.stored, 300u);
}

// The pipeline's queue held, bursts past the backlog's bound, one after the other: the
// newest events are dropped on the tagging thread and counted at once, what fit is stored
// once the queue runs (which frees the bound for the next burst), and the ledger the tool
// reads has the drops under the reason's key.
TEST_F(AnalyticsStackTests, burstsPastTheBacklogBoundDropTheNewestCountedAndRecorded) {
    using Provider = APEventGatewayAnalyticsProvider;
    auto c = configuration();
    c.environment.minimumBatchSize = 1'000'000;
    c.recorder = std::make_shared<APEventGatewayEventRecorder>(false);
    auto stack = makeStack(c);
    const auto backlogFull = [&] { return stack->statistics().upload.dropped(APEventDropReason::backlogFull); };
    std::uint64_t sent = 0, dropped = 0;
    for (const std::size_t blob : {std::size_t{1} << 20, std::size_t{256} << 10}) {
        SCOPED_TRACE(blob);
        const auto tag = [&](AttributeDictionary attributes) {
            stack->tagEvent(APEvent::make("like", std::move(attributes)));
            ++sent;
        };
        // The first events wait whole; those beyond travel compact, against the bound.
        for (std::size_t i = 0; i < Provider::kCompactAbove; ++i) tag({{"i", i}});
        std::size_t compact = 0;
        for (; backlogFull() == dropped && compact <= 2 * Provider::kMaximumBacklogBytes / blob; ++compact)
            tag({{"blob", std::string(blob, 'x')}});
        for (int i = 0; i < 4; ++i) tag({{"blob", std::string(blob, 'x')}});
        EXPECT_EQ(backlogFull(), dropped + 5);
        EXPECT_LE((compact - 1) * blob, Provider::kMaximumBacklogBytes);
        EXPECT_GE((compact + 1) * blob, Provider::kMaximumBacklogBytes);
        dropped += 5;
        queue->runUntilIdle();
        const auto s = stack->statistics();
        EXPECT_EQ(std::tuple(s.tagged, s.upload.stored + s.upload.dropped()), std::tuple(sent, sent));
        EXPECT_EQ(stack->gatewayProvider()->backlogBytes(), 0u);
    }
    EXPECT_EQ(UserDefaultsStore(stack->userDefaults(), AnalyticsStack::kDropLedgerNameSpace).number("backlog_full"),
              static_cast<double>(dropped));
}

// The state folder comes from the configuration, else from the environment.
TEST_F(AnalyticsStackTests, twoStacksKeepTheirEventsApartAndANewOneOverTheSameFolderFindsThemAndTheSession) {
    std::optional<UUID> session;
    {
        auto c = configuration();
        c.stateDirectory = directory / "second";
        auto stack = makeStack(configuration());
        auto second = makeStack(c);
        session = stack->sessionIdProvider()->getSessionId();
        for (const char* page : {"a", "b"}) stack->tagEvent(APEvent::make("pageview", AttributeDictionary{{"page", page}}));
        second->tagEvent(APEvent::make("search", AttributeDictionary{{"query", "c"}}));
        queue->runUntilIdle();
        EXPECT_EQ(eventFiles(stack->eventSerializer()->cacheDirectory()), 2u);
        EXPECT_EQ(eventFiles(second->eventSerializer()->cacheDirectory()), 1u);
    }
    auto c = configuration();
    c.environment.stateDirectory = directory / "from-environment";
    EXPECT_EQ(AnalyticsStack::resolvedStateDirectory(c), directory / "state");
    c.environment.stateDirectory = c.stateDirectory;
    c.stateDirectory.clear();
    EXPECT_EQ(AnalyticsStack::resolvedStateDirectory(c), directory / "state");
    queue = std::make_shared<VirtualTimeSerialQueue>();
    c.queue = queue;
    auto stack = makeStack(c);
    EXPECT_EQ(stack->statistics().upload.waiting, 2u);
    EXPECT_EQ(stack->sessionIdProvider()->getSessionId(), session);
}

}  // namespace
}  // namespace kt
