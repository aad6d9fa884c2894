// The composition root without a network: which configurations it refuses, where it keeps
// its files, and that the pieces are wired to one another as the application wires them.
// Every stack here runs on a virtual-time queue and points at a port nothing listens on;
// the pipeline against a real gateway is covered by the end-to-end suite.

#include "Setup/AnalyticsStack.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <thread>

#include <sys/stat.h>

#include "AnalyticsProvider/APAnalyticsController.h"
#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"
#include "AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "AnalyticsProvider/EventGateway/SessionIdProvider.h"
#include "AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTFoundation/ConnectivityStateDetecting.h"
#include "KTFoundation/CredentialStore.h"
#include "Platform/SerialQueue.h"
#include "Platform/UserDefaults.h"
#include "Support/RecordingLogger.h"
#include "Support/RecordingTechLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

namespace fs = std::filesystem;

class FixedConnectivity final : public ConnectivityStateDetecting {
public:
    std::string connectivityStateDescription() const override { return "wifi"; }
    bool isNetworkReachable() const override { return true; }
    bool isConnectedToVPN() const override { return false; }
};

std::size_t eventFiles(const fs::path& folder) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.path().extension() == ".event") ++count;
    return count;
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
        c.connectivity = std::make_shared<FixedConnectivity>();
        c.console = &console;
        return c;
    }

    std::unique_ptr<AnalyticsStack> makeStack(AnalyticsStackConfiguration c) {
        std::string error;
        auto stack = AnalyticsStack::make(std::move(c), &error);
        EXPECT_NE(stack, nullptr) << error;
        return stack;
    }

    testing::TemporaryDirectory directory{"kt-stack"};
    std::shared_ptr<VirtualTimeSerialQueue> queue = std::make_shared<VirtualTimeSerialQueue>();
    std::ostringstream console;
};

TEST_F(AnalyticsStackTests, refusesConfigurationsThePipelineCannotRunWith) {
    const auto refused = [this](const std::function<void(AnalyticsStackConfiguration&)>& change,
                                const std::string& fragment) {
        auto c = configuration();
        change(c);
        std::string error;
        EXPECT_EQ(AnalyticsStack::make(c, &error), nullptr) << fragment;
        EXPECT_NE(error.find(fragment), std::string::npos) << error;
        EXPECT_EQ(AnalyticsStack::validate(c).empty(), fragment.find("state folder") != std::string::npos);
    };
    refused([](auto& c) { c.environment.eventGatewayBaseURL = "127.0.0.1:8080"; }, "gateway URL");
    refused([](auto& c) { c.environment.eventGatewayBaseURL = "ftp://127.0.0.1/"; }, "not http or https");
    refused([](auto& c) { c.environment.eventGatewayBaseURL = "http:///v1"; }, "no host");
    refused([](auto& c) { c.environment.minimumBatchSize = 0; }, "minimum batch size");
    refused([](auto& c) { c.connectTimeout = std::chrono::milliseconds(0); }, "connect time-out");
    refused([](auto& c) { c.requestTimeout = std::chrono::milliseconds(-1); }, "request time-out");

    // A state folder that is a file cannot hold anything.
    std::ofstream(directory / "occupied") << "x";
    refused([this](auto& c) { c.stateDirectory = directory / "occupied"; }, "state folder");

    EXPECT_EQ(AnalyticsStack::validate(configuration()), "");
    auto https = configuration();
    https.environment.eventGatewayBaseURL = "https://events.example.org/base";
    EXPECT_EQ(AnalyticsStack::validate(https), "");
}

TEST_F(AnalyticsStackTests, keepsEveryFileBelowTheStateFolderOwnerOnly) {
    const fs::path state = directory / "state";
    {
        auto stack = makeStack(configuration());
        ASSERT_NE(stack, nullptr);
        EXPECT_EQ(stack->stateDirectory(), state);
        EXPECT_EQ(stack->eventSerializer()->cacheDirectory(), AnalyticsStack::eventsDirectory(state));
        stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", 1}}));
        queue->runUntilIdle();
        // The session id is persisted in the state folder's user defaults, under its name space.
        const auto session = stack->sessionIdProvider()->getSessionId();
        EXPECT_EQ(stack->userDefaults()->string("session_id_provider.identifier"), session.uuidString());
        EXPECT_NE(console.str().find("SESSION ID: Creating new session id"), std::string::npos);
    }
    // Every entry, whatever made it (SQLite's journals included), is its owner's alone.
    std::map<std::string, mode_t> modes;
    modes[state.filename()] = 0;
    struct stat info {};
    ASSERT_EQ(::stat(state.c_str(), &info), 0);
    modes["."] = info.st_mode & 0777;
    for (const auto& entry : fs::recursive_directory_iterator(state)) {
        ASSERT_EQ(::lstat(entry.path().c_str(), &info), 0);
        auto name = fs::relative(entry.path(), state).native();
        if (entry.path().extension() == ".event") name = "cache/events/<event>";
        modes[name] = info.st_mode & 0777;
    }
    modes.erase(state.filename());
    EXPECT_EQ(modes, (std::map<std::string, mode_t>{{".", 0700},
                                                    {"cache", 0700},
                                                    {"cache/events", 0700},
                                                    {"cache/events/<event>", 0600},
                                                    {"defaults.sqlite3", 0600},
                                                    {"requests.sqlite3", 0600}}));
}

// A full file system: writes fail, each failed event is counted and the failure logged
// once, opening the state again never crashes, and storing resumes when space returns.
TEST_F(AnalyticsStackTests, aFullFileSystemDropsCountedAndRecoversBySelf) {
    const fs::path mount = directory / "small";
    fs::create_directories(mount);
    if (::geteuid() != 0 || std::system(("mount -t tmpfs -o size=512k tmpfs " + mount.native() + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "needs root to mount a small tmpfs";
    struct Unmount {
        fs::path path;
        ~Unmount() { std::system(("umount " + path.native()).c_str()); }
    } unmount{mount};
    auto logger = std::make_shared<testing::RecordingLogger>();
    auto c = configuration();
    c.stateDirectory = mount / "state";
    c.logger = logger;
    c.environment.minimumBatchSize = 1'000'000;
    { auto first = makeStack(c); }  // the state exists before the disk fills up
    {
        std::ofstream filler(mount / "filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), block.size())) {
        }
    }
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);
    for (int i = 0; i < 50; ++i) stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", i}}));
    queue->runUntilIdle();
    auto upload = stack->statistics().upload;
    EXPECT_EQ(upload.dropped(APEventDropReason::notStored), 50u - upload.stored);
    EXPECT_GT(upload.dropped(APEventDropReason::notStored), 0u);
    EXPECT_EQ(logger->messages(2).size(), 1u);

    fs::remove(mount / "filler");
    stack->tagEvent(APEvent::make("like", AttributeDictionary{{"i", 50}}));
    queue->runUntilIdle();
    EXPECT_EQ(stack->statistics().upload.stored, upload.stored + 1);
}

TEST_F(AnalyticsStackTests, resolvesTheStateFolderFromTheConfigurationThenTheEnvironment) {
    auto c = configuration();
    c.environment.stateDirectory = directory / "from-environment";
    EXPECT_EQ(AnalyticsStack::resolvedStateDirectory(c), directory / "state");
    c.stateDirectory.clear();
    EXPECT_EQ(AnalyticsStack::resolvedStateDirectory(c), directory / "from-environment");
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);
    EXPECT_TRUE(fs::is_directory(directory / "from-environment" / "cache" / "events"));
}

TEST_F(AnalyticsStackTests, registersTheClientUserAndCredentialFromTheConfiguration) {
    auto c = configuration();
    c.token = "token-1";
    c.userUrn = "quillarbor:users:7";
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);
    EXPECT_EQ(stack->attributeRegistry()->clientId(), 42);
    EXPECT_EQ(stack->attributeRegistry()->userAgent(), "StackTests/1");
    EXPECT_EQ(stack->attributeRegistry()->userUrn(), "quillarbor:users:7");
    EXPECT_EQ(stack->credentialStore()->credential(), "token-1");
    // An instance of its own, not the process-wide one.
    EXPECT_NE(stack->attributeRegistry(), AnalyticsAttributeRegistry::sharedInstance());

    auto signedOut = configuration();
    signedOut.stateDirectory = directory / "other";
    auto second = makeStack(signedOut);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->credentialStore()->credential(), std::nullopt);
    EXPECT_EQ(second->attributeRegistry()->userUrn(), std::nullopt);
}

TEST_F(AnalyticsStackTests, aTaggedEventIsTransformedRecordedAndStoredOnThePipelinesQueue) {
    auto recorder = std::make_shared<APEventGatewayEventRecorder>(true);
    auto c = configuration();
    c.recorder = recorder;
    c.userUrn = "quillarbor:users:7";
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);
    EXPECT_EQ(stack->controller().providerForClass<APEventGatewayAnalyticsProvider>(), stack->gatewayProvider());

    stack->tagEvent(APEvent::make("like", AttributeDictionary{{"track", "quillarbor:tracks:1"}, {"resource", "x"}}));
    // Nothing happens on the caller's thread.
    EXPECT_EQ(recorder->recordedEvents().size(), 0u);
    EXPECT_EQ(eventFiles(stack->eventSerializer()->cacheDirectory()), 0u);

    queue->runUntilIdle();
    const auto recorded = recorder->recordedEvents();
    ASSERT_EQ(recorded.size(), 1u);
    const auto& payload = recorded[0]["payload"];
    EXPECT_EQ(recorded[0]["event"], "like");
    EXPECT_EQ(payload["track"], "quillarbor:tracks:1");
    EXPECT_FALSE(payload.contains("resource"));
    EXPECT_EQ(payload["client_id"], 42);
    EXPECT_EQ(payload["user"], "quillarbor:users:7");
    EXPECT_EQ(payload["connection_type"], "wifi");
    EXPECT_EQ(payload["session_id"], stack->sessionIdProvider()->getSessionId().uuidString());
    EXPECT_EQ(eventFiles(stack->eventSerializer()->cacheDirectory()), 1u);

    const auto s = stack->statistics();
    EXPECT_EQ(s.tagged, 1u);
    EXPECT_EQ(s.upload.stored, 1u);
    EXPECT_EQ(s.upload.waiting, 1u);
    EXPECT_EQ(s.upload.batchesSent, 0u);  // below the minimum batch size
}

// Sign-in while events flow: the pipeline's own thread reads the registry while this one
// registers. Every stored event carries a whole registration. Run under ThreadSanitizer
// (see the README) to show the two threads share nothing unguarded.
TEST_F(AnalyticsStackTests, signingInWhileEventsAreTaggedIsSafe) {
    auto recorder = std::make_shared<APEventGatewayEventRecorder>(true);
    auto c = configuration();
    c.queue = nullptr;  // the stack's own worker thread
    c.recorder = recorder;
    c.environment.minimumBatchSize = 1'000'000;
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);
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
    for (const auto& event : recorded) {
        const auto& payload = event["payload"];
        ASSERT_TRUE(payload["client_id"].is_number_integer()) << payload.dump();
        ASSERT_TRUE(payload["user"].is_string()) << payload.dump();
    }
    EXPECT_EQ(stack->statistics().upload.stored, 300u);
}

TEST_F(AnalyticsStackTests, aNameOutsideTheGatewayVocabularyReachesNoStoreAndIsReportedUnused) {
    auto techLogger = std::make_shared<testing::RecordingTechLogger>();
    auto c = configuration();
    c.techLogger = techLogger;
    auto stack = makeStack(c);
    ASSERT_NE(stack, nullptr);
    stack->tagEvent(APEvent::make("follow", AttributeDictionary::object()));
    queue->runUntilIdle();
    EXPECT_EQ(eventFiles(stack->eventSerializer()->cacheDirectory()), 0u);
    ASSERT_EQ(techLogger->eventsNamed("unused_event").size(), 1u);
    EXPECT_EQ(techLogger->eventsNamed("unused_event")[0].attributes["event"], "follow");
}

TEST_F(AnalyticsStackTests, twoStacksInOneProcessKeepTheirEventsApart) {
    auto first = makeStack(configuration());
    auto c = configuration();
    c.stateDirectory = directory / "second";
    auto secondQueue = std::make_shared<VirtualTimeSerialQueue>();
    c.queue = secondQueue;
    auto second = makeStack(c);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);

    first->tagEvent(APEvent::make("pageview", AttributeDictionary{{"page", "a"}}));
    first->tagEvent(APEvent::make("pageview", AttributeDictionary{{"page", "b"}}));
    second->tagEvent(APEvent::make("search", AttributeDictionary{{"query", "c"}}));
    queue->runUntilIdle();
    secondQueue->runUntilIdle();
    EXPECT_EQ(eventFiles(first->eventSerializer()->cacheDirectory()), 2u);
    EXPECT_EQ(eventFiles(second->eventSerializer()->cacheDirectory()), 1u);
}

TEST_F(AnalyticsStackTests, aNewStackOverTheSameFolderFindsTheStoredEventsAndTheSession) {
    std::optional<UUID> session;
    {
        auto stack = makeStack(configuration());
        ASSERT_NE(stack, nullptr);
        session = stack->sessionIdProvider()->getSessionId();
        stack->tagEvent(APEvent::make("pageview", AttributeDictionary{{"page", "a"}}));
        queue->runUntilIdle();
    }
    queue = std::make_shared<VirtualTimeSerialQueue>();
    auto stack = makeStack(configuration());
    ASSERT_NE(stack, nullptr);
    EXPECT_EQ(stack->statistics().upload.waiting, 1u);
    EXPECT_EQ(stack->sessionIdProvider()->getSessionId(), session);
}

}  // namespace
}  // namespace kt
