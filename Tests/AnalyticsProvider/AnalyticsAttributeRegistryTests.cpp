#include "AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"

#include <atomic>
#include <condition_variable>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "Middleware/DependencyKeys.h"
#include "Platform/SerialQueue.h"

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

}  // namespace
}  // namespace kt
