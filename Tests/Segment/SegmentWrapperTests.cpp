// The wrapper's options and debug mirror, the "kt" context, the re-addressing of uploads
// and the two device-mode integrations.

#include <gtest/gtest.h>

#include <sstream>

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProviding.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/DependencyRegistry.h"
#include "KTAnalytics/KTFoundation/FirebaseAnalyticsControlling.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnonymousID.h"
#include "KTAnalytics/Segment/AddKTAttributesToContext.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"
#include "KTAnalytics/Segment/MoEngageEventLogging.h"
#include "KTAnalytics/Segment/SegmentIntegrationIdentifier.h"
#include "KTAnalytics/Segment/SegmentIntegrations.h"
#include "KTAnalytics/Segment/SegmentMiddlewareFactory.h"
#include "KTAnalytics/Segment/SegmentRequestRewriter.h"
#include "KTAnalytics/Segment/SegmentWrapper.h"
#include "KTAnalytics/Segment/SegmentDependencyProvider.h"
#include "Support/FakeRequestQueue.h"
#include "Support/RecordingLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using testing::RecordingLogger;

struct RecordingSegmentAnalytics final : SegmentAnalyticsProtocol {
    struct Call {
        std::string kind, name;
        std::optional<AttributeValue> values, options;
    };
    std::vector<Call> calls;
    int flushes = 0;
    void identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                  const std::optional<AttributeValue>& options) override {
        calls.push_back({"identify", userId, traits, options});
    }
    void track(const std::string& event, const std::optional<AttributeValue>& properties,
               const std::optional<AttributeValue>& options) override {
        calls.push_back({"track", event, properties, options});
    }
    std::string getAnonymousId() override { return "ANON-1"; }
    void flush() override { ++flushes; }
};

struct RecordingViewer final : ThirdPartyEventRecording {
    std::vector<AttributeValue> records;
    void record(const AttributeValue& dictionary) override { records.push_back(dictionary); }
};

TEST(SegmentWrapper, TrackAndIdentifyCarryTheirOptionsAndAreMirroredWithVersionAndEnabledKeys) {
    auto analytics = std::make_shared<RecordingSegmentAnalytics>();
    auto recorder = std::make_shared<SegmentEventRecorder>();
    auto viewer = std::make_shared<RecordingViewer>();
    recorder->injectEventRecorder(viewer);
    SegmentWrapper wrapper(analytics, recorder, nullptr);
    EXPECT_EQ(wrapper.anonymousId(), "ANON-1");

    wrapper.track("Screen Viewed", 2, AttributeValue{{"name", "Library Liked Tracks"}},
                  {{"MoEngage", true}, {"Firebase", false}, {"All", false}});
    wrapper.track("App Cache Cleared", 1, std::nullopt, {{"All", false}});
    wrapper.identify("u1", AttributeValue{{"plan", "free"}}, {{"All", false}});
    wrapper.flush();

    ASSERT_EQ(analytics->calls.size(), 3u);
    EXPECT_EQ(*analytics->calls[0].options,
              (AttributeValue{{"integrations", {{"All", false}, {"Firebase", false}, {"MoEngage", true}}},
                              {"context", {{"protocols", {{"event_version", 2}}}}}}));
    EXPECT_EQ(analytics->calls[0].values, (AttributeValue{{"name", "Library Liked Tracks"}}));
    EXPECT_EQ(analytics->calls[1].values, std::nullopt);
    EXPECT_EQ(*analytics->calls[2].options, (AttributeValue{{"integrations", {{"All", false}}}}));
    EXPECT_EQ(analytics->flushes, 1);

    EXPECT_EQ(viewer->records, (std::vector<AttributeValue>{
                                   {{"event", "Library Liked Tracks 📱"},
                                    {"properties", {{"name", "Library Liked Tracks"}, {"version", 2}}},
                                    {"thirdParties", {"MoEngage"}}},
                                   {{"event", "App Cache Cleared"}, {"properties", {{"version", 1}}}},
                                   {{"event", "Identify: u1"}, {"properties", {{"plan", "free"}}}},
                               }));
}

TEST(SegmentEventRecorder, HoldsTheViewerWeakly) {
    SegmentEventRecorder recorder;
    auto viewer = std::make_shared<RecordingViewer>();
    recorder.injectEventRecorder(viewer);
    std::weak_ptr<RecordingViewer> weak = viewer;
    viewer.reset();
    EXPECT_TRUE(weak.expired());
    recorder.record("Screen Viewed", AttributeValue{{"name", 7}}, std::nullopt);  // must not reach a gone viewer
}

TEST(SegmentRequestRewriter, ReaddressesOnlyTheConfiguredHostAndSignsOnlyThose) {
    auto logger = std::make_shared<RecordingLogger>();
    auto keychain = std::make_shared<InMemoryCredentialStore>(std::string("tok"));
    auto rewriter = SegmentRequestRewriter::make(keychain, "http://api.segment.io:8123/v1", "127.0.0.1", logger);
    EXPECT_EQ(rewriter.segmentAPIHost, "api.segment.io");
    using Headers = std::vector<std::pair<std::string, std::string>>;
    struct Case {
        std::string url, expected;
        bool signed_;
    } cases[] = {
        {"http://api.segment.io:8123/v1/batch?x=1&y=%20", "http://127.0.0.1:8123/v1/batch?x=1&y=%20", true},
        {"https://api.segment.io/v1/import", "https://127.0.0.1/v1/import", true},
        {"https://elsewhere.example/v1/batch", "https://elsewhere.example/v1/batch", false},
        {"https://api.segment.io.evil.example/v1/batch", "https://api.segment.io.evil.example/v1/batch", false},
        {"not a url", "not a url", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto request = rewriter(c.url);
        EXPECT_EQ(request.url, c.expected);
        EXPECT_EQ(request.headers, (c.signed_ ? Headers{{"Authorization", "Bearer tok"}} : Headers{}));
    }

    keychain->setCredential(std::nullopt);
    auto unsigned_ = rewriter("https://api.segment.io/v1/batch");
    EXPECT_EQ(unsigned_.url, "https://127.0.0.1/v1/batch");
    EXPECT_TRUE(unsigned_.headers.empty());
    ASSERT_EQ(logger->messages(), std::vector<std::string>{"Missing credentials for segment request"});
    EXPECT_EQ(logger->records()[0].level, 3);
    EXPECT_EQ(logger->records()[0].function, "addAuthorizationHeader(_:)");

    // A configured URL without a host falls back to the client's default host.
    EXPECT_EQ(SegmentRequestRewriter::make(keychain, "file:///v1", "gw", nullptr).segmentAPIHost, "api.segment.io");
    EXPECT_EQ(SegmentRequestRewriter::make(keychain, "api.example.com/v1", "gw", nullptr).segmentAPIHost,
              "api.example.com");
}

struct FixedSession final : SessionIdProviding {
    UUID id = *UUID::fromString("0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9");
    UUID getSessionId() override { return id; }
};

TEST(AddKTAttributesToContext, RebuildsTrackAndIdentifyWithTheSixKeysAndKeepsTheMessageId) {
    DependencyRegistry dependencies;
    auto registry = std::make_shared<AnalyticsAttributeRegistry>(dependencies);
    std::vector<std::string> variants;
    std::optional<std::string> analyticsId;
    auto middleware = std::make_shared<AddKTAttributesToContext>(
        registry, [&] { return variants; }, [] { return std::string("ANON-1"); }, [&] { return analyticsId; },
        std::make_shared<FixedSession>());
    // What the middleware hands on, as the kind of message it was given.
    auto run = [&]<class Payload>(std::shared_ptr<Payload> payload) {
        payload->messageId = "m-1";
        std::shared_ptr<const SEGPayload> out;
        middleware->context(SEGContext{payload}, [&](SEGContext c) { out = c.payload; });
        EXPECT_EQ(out->messageId, "m-1");
        return std::dynamic_pointer_cast<const Payload>(out);
    };
    const auto kt = [](AttributeValue client, AttributeValue user, AttributeValue variants, AttributeValue analytics) {
        return AttributeValue{{"client_application_id", client}, {"anonymous_id", "ANON-1"}, {"user_id", user},
                              {"part_of_variants", variants}, {"analytics_id", analytics},
                              {"session_id", "0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9"}};
    };

    auto track = run(std::make_shared<SEGTrackPayload>("Played", AttributeValue{{"a", 1}},
                                                       AttributeValue{{"kt", "old"}, {"locale", "de-DE"}},
                                                       AttributeValue{{"All", false}}));
    ASSERT_TRUE(track);
    EXPECT_EQ(track->context, (AttributeValue{{"locale", "de-DE"}, {"kt", kt(nullptr, nullptr, nullptr, nullptr)}}));
    EXPECT_EQ(track->event, "Played");
    EXPECT_EQ(track->properties, (AttributeValue{{"a", 1}}));
    EXPECT_EQ(track->integrations, (AttributeValue{{"All", false}}));

    registry->registerClientId(42, "ua");
    registry->registerUserUrn("quillarbor:users:7");
    variants = {"v1", "v2"};
    analyticsId = "an-9";
    auto identify = run(std::make_shared<SEGIdentifyPayload>("u7", "ANON-1", AttributeValue{{"t", 1}},
                                                             AttributeValue::object(), AttributeValue::object()));
    ASSERT_TRUE(identify);
    EXPECT_EQ(identify->context, (AttributeValue{{"kt", kt(42, "quillarbor:users:7", {"v1", "v2"}, "an-9")}}));
    EXPECT_EQ(identify->userId, "u7");
    EXPECT_EQ(identify->traits, (AttributeValue{{"t", 1}}));
}

struct RecordingController final : FirebaseAnalyticsControlling {
    std::vector<std::pair<std::string, AttributeValue>> events;
    void logEvent(const std::string& name, const AttributeDictionary& parameters) override {
        events.emplace_back(name, parameters);
    }
    void trackScreen(const std::string&) override {}
};

struct RecordingEngagement final : MoEngageEventLogging {
    std::vector<std::pair<std::string, AttributeValue>> events;
    void logEvent(const std::string& name, const AttributeValue& properties) override {
        events.emplace_back(name, properties);
    }
};

TEST(SegmentIntegrations, ForwardOnceTheirHookAnswersAndAskAgainUntilThen) {
    auto logger = std::make_shared<RecordingLogger>();
    auto controller = std::make_shared<RecordingController>();
    auto engagement = std::make_shared<RecordingEngagement>();
    bool ready = false;
    int asked = 0;
    std::ostringstream console;
    auto firebase = std::make_shared<SegmentFirebaseIntegration>(
        [&]() -> DependencyResult<FirebaseAnalyticsControlling> {
            ++asked;
            return ready ? DependencyResult<FirebaseAnalyticsControlling>(controller) : DependencyError::depencyNotSet;
        },
        logger);
    auto moEngage = std::make_shared<SegmentMoEngageIntegration>(
        [&]() -> DependencyResult<MoEngageEventLogging> {
            return ready ? DependencyResult<MoEngageEventLogging>(engagement) : DependencyError::depencyNotSet;
        },
        logger, console);

    SEGTrackPayload payload("Track Liked", AttributeValue{{"track_urn", "quillarbor:tracks:1"}},
                            AttributeValue::object(), AttributeValue::object());
    firebase->track(payload);
    moEngage->track(payload);
    EXPECT_EQ(logger->messages(3),
              (std::vector<std::string>{
                  "SegmentFirebaseIntegration initialized without FirebaseAnalyticsController being provided.",
                  "SegmentMoEngageIntegration initialized without MoEngageWrapper being provided."}));
    ready = true;
    firebase->track(payload);
    moEngage->track(payload);
    firebase->track(payload);
    EXPECT_EQ(asked, 2);  // kept once it answered
    using Events = std::vector<std::pair<std::string, AttributeValue>>;
    const Events::value_type liked{"Track Liked", *payload.properties};
    EXPECT_EQ(controller->events, (Events{liked, liked}));
    EXPECT_EQ(engagement->events, Events{liked});
    const std::string line = "track invoked on MoEngage Integration for event with name: Track Liked and properties: "
                             "{\"track_urn\":\"quillarbor:tracks:1\"}\n";
    EXPECT_EQ(console.str(), line + line);
}

// The context middleware and the integrations it installs show in every delivered message
// (the tracking-plan delivery and demo tests).
TEST(SegmentWrapper, ConfigurationCarriesTheWriteKey) {
    SegmentMiddlewareSources sources;
    SegmentWrapperSetup setup{.writeKey = "wk", .apiHost = "http://api.segment.io:9/v1",
                              .middlewareFactory = std::make_shared<SegmentMiddlewareFactory>(sources)};
    EXPECT_EQ(SegmentWrapper::makeConfiguration(setup).writeKey, "wk");
}

TEST(SegmentIntegrationIdentifier, ParsesProviderNamesAndKeysExactly) {
    std::vector<std::tuple<std::string, std::string>> names;
    for (auto c : SegmentIntegrationIdentifier::allCases) {
        SegmentIntegrationIdentifier id(c);
        names.emplace_back(id.providerName(), id.integrationKey());
        EXPECT_EQ(SegmentIntegrationIdentifier::fromProviderName(id.providerName()), id);
        EXPECT_TRUE(SegmentIntegrationIdentifier::isIntegrationKey(id.integrationKey()));
    }
    EXPECT_EQ(names, (std::vector<std::tuple<std::string, std::string>>{
                         {"braze", "Appboy"}, {"firebase", "Firebase"}, {"mo-engage", "MoEngage"}}));
    for (const char* unknown : {"Braze", "moEngage", "appboy", "All", ""}) {
        EXPECT_FALSE(SegmentIntegrationIdentifier::fromProviderName(unknown)) << unknown;
        EXPECT_FALSE(SegmentIntegrationIdentifier::isIntegrationKey(unknown)) << unknown;
    }
}

// The process-wide wrapper is built once, from the hooks as they stand at its first use,
// logger and credential included: an unsigned re-addressing is said, not silent.
TEST(SegmentWrapper, SharedInstanceIsBuiltOnceFromTheHooksLogsThroughThemAndGivesItsAnonymousIdToTheGateway) {
    testing::TemporaryDirectory state;
    auto queue = std::make_shared<testing::FakeRequestQueue>();
    auto logger = std::make_shared<testing::RecordingLogger>();
    SegmentDependencyProvider::rewriteToEventGatewayHost = [] { return std::optional<std::string>("gateway.example"); };
    SegmentDependencyProvider::logger = [logger] { return logger; };
    SegmentDependencyProvider::clientDependencies = [&] {
        SEGAnalyticsDependencies dependencies;
        dependencies.requestQueue = queue;
        dependencies.stateDirectory = state.path();
        return dependencies;
    };
    auto wrapper = SegmentWrapper::shared();
    SegmentDependencyProvider::reset();
    EXPECT_EQ(SegmentWrapper::shared(), wrapper);
    wrapper->track("Track Liked", 1, AttributeValue::object(), {});
    EXPECT_EQ(logger->messages(), (std::vector<std::string>{
                                      "No credential: uploads re-addressed to gateway.example go unsigned until the "
                                      "keychain hook answers one",
                                      "Track Liked {}"}));
    EXPECT_EQ(AnonymousID::segmentAnonymousId(), wrapper->anonymousId());
    EXPECT_FALSE(wrapper->anonymousId().empty());
    // The engagement hook fails until the host sets it.
    EXPECT_EQ(std::get<DependencyError>(SegmentDependencyProvider::moEngageEventLogger()), DependencyError::depencyNotSet);
}

}  // namespace
}  // namespace kt
