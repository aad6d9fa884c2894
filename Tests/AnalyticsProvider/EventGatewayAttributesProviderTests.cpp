#include "AnalyticsProvider/EventGateway/EventGatewayAttributesProvider.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "AnalyticsProvider/EventGateway/SessionIdProviding.h"
#include "KTFoundation/AnalyticsIdProviding.h"
#include "Middleware/AssignedABTestVariantIDProviding.h"
#include "Platform/SerialQueue.h"
#include "Support/FakeConnectivity.h"

namespace kt {
namespace {

struct CountingSessionIdProvider final : SessionIdProviding {
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
    // Its queue only runs experiment-service updates, which these tests never trigger.
    std::shared_ptr<AnalyticsAttributeRegistry> registry =
        std::make_shared<AnalyticsAttributeRegistry>(dependencies, std::make_shared<VirtualTimeSerialQueue>());
    std::shared_ptr<testing::FakeConnectivity> connectivity = std::make_shared<testing::FakeConnectivity>();
    std::shared_ptr<CountingSessionIdProvider> sessions = std::make_shared<CountingSessionIdProvider>();
    std::optional<std::string> anonymousId;
    std::optional<std::string> analyticsId;
    double seconds = 1700000000.25;
};

TEST_F(EventGatewayAttributesProviderTest, GivesAnAttributeForEachSourceWithAValueReadOnEachCall) {
    auto bare = makeProvider();
    EXPECT_EQ(bare->baseAttributes(*event("pageview")),
              (AttributeDictionary{{"session_id", "CDCDCDCD-CDCD-CDCD-CDCD-CDCDCDCDCD01"}, {"connection_type", "wifi"},
                                   {"ts", 1700000000250}}));

    registry->registerclientId(42, "agent");
    registry->registerUserUrn("quillarbor:users:7");
    anonymousId = "anon-1";
    analyticsId = "analytics-1";
    connectivity->description = "ethernet";
    seconds += 2.0;
    const auto attributes = makeProvider({"b-2", "a-1", "c 3"})->baseAttributes(*event("pageview"));
    // As text, so that a whole number sent as a float would show.
    EXPECT_EQ(attributes.dump(), AttributeDictionary({{"client_id", 42}, {"anonymous_id", "anon-1"},
                                                      {"analytics_id", "analytics-1"},
                                                      {"session_id", "CDCDCDCD-CDCD-CDCD-CDCD-CDCDCDCDCD02"},
                                                      {"connection_type", "ethernet"}, {"ts", 1700000002250},
                                                      {"user", "quillarbor:users:7"},
                                                      {"part_of_variants", "b-2,a-1,c 3"}}).dump());
    EXPECT_EQ(makeProvider({"only"})->baseAttributes(*event("x"))["part_of_variants"], "only");

    // The analytics id and variants sources are fixed when made; the rest is read again.
    auto expected = attributes;
    expected.erase("analytics_id");
    expected.erase("part_of_variants");
    expected["session_id"] = "CDCDCDCD-CDCD-CDCD-CDCD-CDCDCDCDCD04";
    EXPECT_EQ(bare->baseAttributes(*event("pageview")), expected);
}

TEST_F(EventGatewayAttributesProviderTest, OnlyAudioEventsCarryTheVPNFlag) {
    auto provider = makeProvider();
    for (bool vpn : {true, false}) {
        connectivity->vpn = vpn;
        EXPECT_EQ(provider->baseAttributes(*event("audio")).at("vpn"), vpn);
        EXPECT_FALSE(provider->baseAttributes(*event("audio_error")).contains("vpn"));
        EXPECT_FALSE(provider->baseAttributes(*event("pageview")).contains("vpn"));
    }
    connectivity = nullptr;
    EXPECT_DEATH(makeProvider(), "Invalid parameter not satisfying: connectivity");
}

TEST(MillisecondsSince1970Test, DropsTheFractionOfAMillisecondTowardZeroAndStopsOnTimesThatDoNotFit) {
    // Just short of the next millisecond: rounding would give ...124.
    EXPECT_EQ(millisecondsSince1970(1700000000.1239999), 1700000000123);
    EXPECT_EQ(millisecondsSince1970(1.0009999), 1000);
    // Before 1970 the fraction goes toward zero too, not toward the past.
    EXPECT_EQ(millisecondsSince1970(-0.0015), -1);
    EXPECT_DEATH(millisecondsSince1970(std::nan("")), "either infinite or NaN");
    EXPECT_DEATH(millisecondsSince1970(std::numeric_limits<double>::infinity()), "either infinite or NaN");
    EXPECT_DEATH(millisecondsSince1970(9223372036854775.808), "greater than Int64.max");
    EXPECT_DEATH(millisecondsSince1970(-1e17), "less than Int64.min");
}

}  // namespace
}  // namespace kt
