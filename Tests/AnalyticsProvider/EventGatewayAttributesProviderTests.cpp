#include "AnalyticsProvider/EventGateway/EventGatewayAttributesProvider.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "AnalyticsProvider/EventGateway/AnonymousID.h"
#include "AnalyticsProvider/EventGateway/SessionIdProviding.h"
#include "KTFoundation/AnalyticsIdProviding.h"
#include "KTFoundation/ConnectivityStateDetecting.h"
#include "Middleware/AssignedABTestVariantIDProviding.h"
#include "Platform/SerialQueue.h"

namespace kt {
namespace {

class FakeConnectivity final : public ConnectivityStateDetecting {
public:
    std::string connectivityStateDescription() const override { return description; }
    bool isNetworkReachable() const override { return true; }
    bool isConnectedToVPN() const override { return vpn; }

    std::string description = "wifi";
    bool vpn = false;
};

class CountingSessionIdProvider final : public SessionIdProviding {
public:
    UUID getSessionId() override {
        std::array<std::uint8_t, 16> bytes{};
        bytes.fill(0xCD);
        bytes[15] = static_cast<std::uint8_t>(++calls);
        return UUID(bytes);
    }
    int calls = 0;
};

class EventGatewayAttributesProviderTest : public ::testing::Test {
protected:
    EventGatewayAttributesProviderTest() {
        // The registry only needs its queue for experiment-service updates, which these
        // tests never trigger.
        registry = std::make_shared<AnalyticsAttributeRegistry>(dependencies, std::make_shared<VirtualTimeSerialQueue>());
    }

    std::unique_ptr<EventGatewayAttributesProvider> makeProvider(std::vector<std::string> variants = {}) {
        return std::make_unique<EventGatewayAttributesProvider>(
            connectivity, registry, std::make_shared<FixedAssignedABTestVariantIDProvider>(std::move(variants)),
            [this] { return anonymousId; }, std::make_shared<FixedAnalyticsIdProvider>(analyticsId), sessions,
            [this] { return connectivity->isConnectedToVPN(); }, [this] { return seconds; });
    }

    static std::shared_ptr<const APEvent> event(const std::string& name) {
        return APEvent::make(name, AttributeDictionary::object());
    }

    DependencyRegistry dependencies;
    std::shared_ptr<AnalyticsAttributeRegistry> registry;
    std::shared_ptr<FakeConnectivity> connectivity = std::make_shared<FakeConnectivity>();
    std::shared_ptr<CountingSessionIdProvider> sessions = std::make_shared<CountingSessionIdProvider>();
    std::optional<std::string> anonymousId;
    std::optional<std::string> analyticsId;
    double seconds = 1700000000.25;
};

TEST_F(EventGatewayAttributesProviderTest, GivesEveryBaseAttributeWhenEverySourceHasAValue) {
    registry->registerclientId(42, "agent");
    registry->registerUserUrn("quillarbor:users:7");
    anonymousId = "anon-1";
    analyticsId = "analytics-1";

    const auto attributes = makeProvider({"v1", "v2"})->baseAttributes(*event("pageview"));

    const AttributeDictionary expected = {
        {"client_id", 42},
        {"anonymous_id", "anon-1"},
        {"analytics_id", "analytics-1"},
        {"session_id", "CDCDCDCD-CDCD-CDCD-CDCD-CDCDCDCDCD01"},
        {"connection_type", "wifi"},
        {"ts", 1700000000250},
        {"user", "quillarbor:users:7"},
        {"part_of_variants", "v1,v2"},
    };
    EXPECT_EQ(attributes, expected);
    EXPECT_TRUE(attributes["client_id"].is_number_integer());
    EXPECT_TRUE(attributes["ts"].is_number_integer());
}

TEST_F(EventGatewayAttributesProviderTest, LeavesOutWhatTheSourcesDoNotHave) {
    const auto attributes = makeProvider()->baseAttributes(*event("pageview"));

    for (const char* absent : {"client_id", "anonymous_id", "analytics_id", "user", "part_of_variants", "vpn"})
        EXPECT_FALSE(attributes.contains(absent)) << absent;
    EXPECT_TRUE(attributes.contains("session_id"));
    EXPECT_EQ(attributes["connection_type"], "wifi");
    EXPECT_TRUE(attributes.contains("ts"));
    EXPECT_EQ(attributes.size(), 3u);
}

TEST_F(EventGatewayAttributesProviderTest, OnlyAudioEventsCarryTheVPNFlag) {
    auto provider = makeProvider();
    connectivity->vpn = true;
    EXPECT_EQ(provider->baseAttributes(*event("audio"))["vpn"], true);
    connectivity->vpn = false;
    const auto audio = provider->baseAttributes(*event("audio"));
    ASSERT_TRUE(audio.contains("vpn"));
    EXPECT_TRUE(audio["vpn"].is_boolean());
    EXPECT_EQ(audio["vpn"], false);

    EXPECT_FALSE(provider->baseAttributes(*event("audio_error")).contains("vpn"));
    EXPECT_FALSE(provider->baseAttributes(*event("pageview")).contains("vpn"));
}

TEST_F(EventGatewayAttributesProviderTest, JoinsVariantsInOrderWithPlainCommas) {
    EXPECT_EQ(makeProvider({"only"})->baseAttributes(*event("x"))["part_of_variants"], "only");
    EXPECT_EQ(makeProvider({"b-2", "a-1", "c 3"})->baseAttributes(*event("x"))["part_of_variants"], "b-2,a-1,c 3");
}

TEST_F(EventGatewayAttributesProviderTest, ReadsEverySourceAgainOnEachCall) {
    auto provider = makeProvider();
    const auto first = provider->baseAttributes(*event("x"));

    connectivity->description = "ethernet";
    seconds += 2.0;
    registry->registerclientId(9, "agent");
    const auto second = provider->baseAttributes(*event("x"));

    EXPECT_EQ(sessions->calls, 2);
    EXPECT_NE(first["session_id"], second["session_id"]);
    EXPECT_EQ(second["connection_type"], "ethernet");
    EXPECT_EQ(second["ts"].get<std::int64_t>() - first["ts"].get<std::int64_t>(), 2000);
    EXPECT_EQ(second["client_id"], 9);
}

TEST(MillisecondsSince1970Test, DropsTheFractionOfAMillisecondTowardZero) {
    // Just short of the next millisecond: rounding would give ...124.
    EXPECT_EQ(millisecondsSince1970(1700000000.1239999), 1700000000123);
    EXPECT_EQ(millisecondsSince1970(1.0009999), 1000);
    EXPECT_EQ(millisecondsSince1970(0.0), 0);
    // Before 1970 the fraction goes toward zero too, not toward the past.
    EXPECT_EQ(millisecondsSince1970(-0.0015), -1);
}

TEST(MillisecondsSince1970DeathTest, TimesThatDoNotFitStopTheProcess) {
    EXPECT_DEATH(millisecondsSince1970(std::nan("")), "either infinite or NaN");
    EXPECT_DEATH(millisecondsSince1970(std::numeric_limits<double>::infinity()), "either infinite or NaN");
    EXPECT_DEATH(millisecondsSince1970(9223372036854775.808), "greater than Int64.max");
    EXPECT_DEATH(millisecondsSince1970(-1e17), "less than Int64.min");
}

TEST_F(EventGatewayAttributesProviderTest, RefusesAMissingSource) {
    EXPECT_DEATH(EventGatewayAttributesProvider(nullptr, registry,
                                                std::make_shared<FixedAssignedABTestVariantIDProvider>(),
                                                [] { return std::nullopt; },
                                                std::make_shared<FixedAnalyticsIdProvider>(std::nullopt), sessions,
                                                [] { return false; }),
                 "Invalid parameter not satisfying: connectivity");
}

TEST(AnonymousIDTest, QuillarborIdIsComputedOnceEvenUnderConcurrentFirstUse) {
    // Re-executed in a fresh process: the id is computed once per process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atomic<int> computed{0};
            const bool sourceSet = AnonymousID::setQuillarborAnonymousIdSource([&computed] {
                return std::optional<std::string>("ID-" + std::to_string(++computed));
            });
            std::vector<std::optional<std::string>> seen(8);
            std::vector<std::thread> threads;
            for (std::size_t i = 0; i < seen.size(); ++i)
                threads.emplace_back([&seen, i] { seen[i] = AnonymousID::quillarborAnonymousId(); });
            for (auto& t : threads) t.join();

            bool allSame = true;
            for (const auto& id : seen) allSame = allSame && id == std::optional<std::string>("ID-1");
            const bool lateSourceRefused = !AnonymousID::setQuillarborAnonymousIdSource([] { return std::nullopt; });
            const bool stillSame = AnonymousID::quillarborAnonymousId() == std::optional<std::string>("ID-1");
            std::exit(sourceSet && allSame && computed == 1 && lateSourceRefused && stillSame ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(AnonymousIDTest, SegmentIdIsReadFromItsSourceOnEveryCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const bool emptyWithoutSource = AnonymousID::segmentAnonymousId().empty();
            std::string current = "first";
            AnonymousID::setSegmentAnonymousIdSource([&current] { return current; });
            const bool first = AnonymousID::segmentAnonymousId() == "first";
            current = "second";
            const bool second = AnonymousID::segmentAnonymousId() == "second";
            std::exit(emptyWithoutSource && first && second ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kt
