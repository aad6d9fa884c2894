#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"

#include <future>
#include <utility>
#include <vector>

#include "KTAnalytics/KTFoundation/Urn.h"
#include "KTAnalytics/Middleware/DependencyKeys.h"
#include "KTAnalytics/Platform/SerialQueue.h"

namespace kt {

namespace {

// Experiment-service updates are fire-and-forget for the caller, but they should not each
// cost a thread of their own, nor be abandoned half-way by a detached thread at exit. One
// background queue, created on first use and kept for the life of the process (never
// destroyed, so exit does not wait on a slow service), runs them in registration order:
// the service always ends up with the latest user.
std::shared_ptr<SerialQueue> sharedBackgroundQueue() {
    static auto* queue = new std::shared_ptr<SerialQueue>(std::make_shared<ThreadSerialQueue>("ktanalytics.background"));
    return *queue;
}

// Updates the experiment service never completed, kept so that letting go of them cannot
// block (a future's destructor may wait). One list per background queue's thread.
std::vector<std::future<void>>& abandonedUpdates() {
    static thread_local std::vector<std::future<void>> updates;
    return updates;
}

}  // namespace

AnalyticsAttributeRegistry::AnalyticsAttributeRegistry(DependencyRegistry& dependencies,
                                                       std::shared_ptr<SerialQueue> backgroundQueue,
                                                       std::chrono::milliseconds updateTimeout)
    : dependencies_(dependencies),
      backgroundQueue_(backgroundQueue ? std::move(backgroundQueue) : sharedBackgroundQueue()),
      updateTimeout_(updateTimeout),
      snapshot_(std::make_shared<const Attributes>()) {}

template <class Change>
void AnalyticsAttributeRegistry::publish(Change change) {
    std::lock_guard lock(writeMutex_);
    auto next = std::make_shared<Attributes>(*snapshot());
    change(*next);
    std::shared_ptr<const Attributes> previous;
    {
        std::lock_guard swap(snapshotMutex_);
        previous = std::exchange(snapshot_, std::move(next));
    }
    // `previous` may be the last reference; it is released outside the lock.
}

std::shared_ptr<AnalyticsAttributeRegistry> AnalyticsAttributeRegistry::sharedInstance() {
    // Kept for the life of the process: gateway workers read it until the very end.
    static auto* instance =
        new std::shared_ptr<AnalyticsAttributeRegistry>(std::make_shared<AnalyticsAttributeRegistry>(DependencyRegistry::shared()));
    return *instance;
}

AnalyticsAttributeRegistry& AnalyticsAttributeRegistry::shared() { return *sharedInstance(); }

void AnalyticsAttributeRegistry::registerClientId(std::int64_t clientId, std::string userAgent) {
    publish([&](Attributes& a) {
        a.clientId = clientId;
        a.userAgent = std::move(userAgent);
    });
}

void AnalyticsAttributeRegistry::registerUserUrn(std::optional<std::string> userUrn) {
    publish([&](Attributes& a) { a.userUrn = userUrn; });

    // No flag service registered means the flag is off.
    const auto featureFlags = dependencies_.get(DependencyKeys::featureFlags);
    if (!featureFlags || !featureFlags->isDevStatsigUseridIsQuillarborUseridEnabled()) return;

    // The task holds what it needs by value; the registry's own fields may change meanwhile.
    DependencyRegistry* dependencies = &dependencies_;
    backgroundQueue_->async([dependencies, urnText = std::move(userUrn), timeout = updateTimeout_] {
        std::optional<std::string> userId;
        if (urnText) {
            // A URN that does not parse is sent as "no user", without a report.
            if (auto urn = Urn::parse(*urnText)) userId = urn->identifier();
        }
        const auto statsigManager = dependencies->get(DependencyKeys::statsigManager);
        if (!statsigManager) return;
        auto update = statsigManager->updateUserId(std::move(userId));
        // Waiting keeps the updates in order: one is taken before the next is sent. But an
        // update that never completes must not hold back every later one; past the time-out
        // it is set aside.
        if (update.valid() && update.wait_for(timeout) != std::future_status::ready)
            abandonedUpdates().push_back(std::move(update));
        std::erase_if(abandonedUpdates(), [](std::future<void>& f) {
            return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
    });
}

}  // namespace kt
