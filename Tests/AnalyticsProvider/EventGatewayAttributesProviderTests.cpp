// The registry the application fills, and the attributes every gateway event takes from it.

#include "KTAnalytics/AnalyticsProvider/EventGateway/EventGatewayAttributesProvider.h"

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProviding.h"
#include "KTAnalytics/KTFoundation/AnalyticsIdProviding.h"
#include "KTAnalytics/Middleware/AssignedABTestVariantIDProviding.h"
#include "KTAnalytics/Middleware/DependencyKeys.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "Support/FakeConnectivity.h"

namespace kt {
namespace {

using namespace std::chrono_literals;

// Records the user ids it is given. Each update completes at once but the first after the test
// sets `holdNext`, which completes only when the test sets `held`.
struct RecordingStatsigManager final : StatsigManaging {
    std::future<void> updateUserId(std::optional<std::string> userId) override {
        std::lock_guard lock(mutex_);
        updates_.push_back(std::move(userId));
        changed_.notify_all();
        if (std::exchange(holdNext, false)) return held.get_future();
        std::promise<void> done;
        done.set_value();
        return done.get_future();
    }

    std::vector<std::optional<std::string>> waitForUpdates(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 10s, [&] { return updates_.size() >= count; });
        return updates_;
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::optional<std::string>> updates_;  // guarded by mutex_
    bool holdNext = false;  // set before the update it holds is asked for; then guarded by mutex_
    std::promise<void> held;
};

class AnalyticsAttributeRegistryTest : public ::testing::Test {
protected:
    void setFlag(bool enabled) {
        dependencies.set(DependencyKeys::featureFlags, std::shared_ptr<FeatureFlags>(std::make_shared<StaticFeatureFlags>(enabled)));
    }

    void drainUpdates() { ASSERT_TRUE(queue->drain(10s)); }

    DependencyRegistry dependencies;
    std::shared_ptr<RecordingStatsigManager> statsig = std::make_shared<RecordingStatsigManager>();
    std::shared_ptr<ThreadSerialQueue> queue = std::make_shared<ThreadSerialQueue>("registry-test");
    AnalyticsAttributeRegistry registry{dependencies, queue};

    void SetUp() override { dependencies.set(DependencyKeys::statsigManager, std::shared_ptr<StatsigManaging>(statsig)); }
};

TEST_F(AnalyticsAttributeRegistryTest, OnlyTheFlagOnSendsTheURNsIdentifierOrNoUserToTheExperimentService) {
    registry.registerUserUrn("quillarbor:users:7");  // no flag service registered at all
    setFlag(false);
    registry.registerUserUrn("quillarbor:users:8");
    registry.registerUserUrn(std::nullopt);
    drainUpdates();
    EXPECT_TRUE(statsig->waitForUpdates(0).empty());

    setFlag(true);
    for (const auto& urn : {std::optional<std::string>("quillarbor:users:7"), std::optional<std::string>(),
                            std::optional<std::string>("not a urn")}) {
        registry.registerUserUrn(urn);
        drainUpdates();
        EXPECT_EQ(registry.userUrn(), urn);  // an unparseable URN is still the registered user
    }
    EXPECT_EQ(statsig->waitForUpdates(3), (std::vector<std::optional<std::string>>{"7", std::nullopt, std::nullopt}));
}

TEST_F(AnalyticsAttributeRegistryTest, AnUpdateThatNeverCompletesHoldsBackTheNextOnlyUntilTheTimeOut) {
    AnalyticsAttributeRegistry impatient{dependencies, queue, 50ms};
    setFlag(true);
    statsig->holdNext = true;  // never released before the second update arrives
    impatient.registerUserUrn("quillarbor:users:7");
    impatient.registerUserUrn("quillarbor:users:9");
    EXPECT_EQ(statsig->waitForUpdates(2), (std::vector<std::optional<std::string>>{"7", "9"}));
    statsig->held.set_value();
    drainUpdates();
}

// As the pipeline's queue reads while the app registers. Run under ThreadSanitizer too.
TEST_F(AnalyticsAttributeRegistryTest, ReadersSeeWholeRegistrationsWhileTheAppRegisters) {
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i) {
            registry.registerclientId(i, "KTAnalytics/" + std::to_string(i) + " (a user agent long enough to allocate)");
            registry.registerUserUrn(i % 2 ? std::optional<std::string>("quillarbor:users:" + std::to_string(i))
                                           : std::nullopt);
        }
        done = true;
    });
    std::size_t torn = 0, reads = 0;
    while (!done) {
        const auto snapshot = registry.snapshot();
        ++reads;
        if (snapshot->clientId &&
            snapshot->userAgent != "KTAnalytics/" + std::to_string(*snapshot->clientId) +
                                       " (a user agent long enough to allocate)")
            ++torn;
    }
    writer.join();
    EXPECT_EQ(torn, 0u) << "of " << reads << " reads";
    EXPECT_EQ(registry.clientId(), 19999);
    EXPECT_EQ(registry.userAgent(), "KTAnalytics/19999 (a user agent long enough to allocate)");
    EXPECT_EQ(registry.userUrn(), "quillarbor:users:19999");
}

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
