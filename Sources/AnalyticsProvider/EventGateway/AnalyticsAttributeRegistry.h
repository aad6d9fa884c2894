#pragma once
// Who the client and the signed-in user are, for the base attributes of gateway events
// and the upload's User-Agent. Registering a user may also tell the experiment service.
//
// Threads: the app registers on its own threads (at sign-in, say) while the pipeline reads
// on its queue. The values are published together as one immutable snapshot, swapped
// atomically, so a reader sees a whole registration or none of it, never a torn string.

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "KTAnalytics/KTFoundation/DependencyRegistry.h"

namespace kt {

class SerialQueue;

class AnalyticsAttributeRegistry {
public:
    /// What is registered, as one value.
    struct Attributes {
        std::optional<std::string> userAgent;
        std::optional<std::int64_t> clientId;
        std::optional<std::string> userUrn;
    };

    /// How long one experiment-service update may keep the next one waiting.
    static constexpr std::chrono::milliseconds kDefaultUpdateTimeout = std::chrono::seconds(10);

    /// Resolves "statsigManager" and "featureFlags" from `dependencies` when needed, so
    /// `dependencies` must outlive the registry and its pending experiment-service updates.
    /// The updates run on `backgroundQueue`; null means the process's shared background
    /// queue for such updates. An update that has not completed after `updateTimeout` is
    /// no longer waited for.
    explicit AnalyticsAttributeRegistry(DependencyRegistry& dependencies,
                                        std::shared_ptr<SerialQueue> backgroundQueue = nullptr,
                                        std::chrono::milliseconds updateTimeout = kDefaultUpdateTimeout);
    AnalyticsAttributeRegistry() = delete;
    AnalyticsAttributeRegistry(const AnalyticsAttributeRegistry&) = delete;
    AnalyticsAttributeRegistry& operator=(const AnalyticsAttributeRegistry&) = delete;

    /// The process-wide registry over DependencyRegistry::shared(), created on first use.
    static AnalyticsAttributeRegistry& shared();
    /// The same instance, for collaborators that hold their sources by shared pointer.
    static std::shared_ptr<AnalyticsAttributeRegistry> sharedInstance();

    /// The current values, all from one registration. Any thread.
    std::shared_ptr<const Attributes> snapshot() const {
        std::lock_guard lock(snapshotMutex_);
        return snapshot_;
    }
    std::optional<std::string> userAgent() const { return snapshot()->userAgent; }
    std::optional<std::int64_t> clientId() const { return snapshot()->clientId; }
    std::optional<std::string> userUrn() const { return snapshot()->userUrn; }

    void registerClientId(std::int64_t clientId, std::string userAgent);
    /// The same, under the spelling (lower-case "c") that existing callers bind to.
    void registerclientId(std::int64_t clientId, std::string userAgent) {
        registerClientId(clientId, std::move(userAgent));
    }
    /// Sets (or, with nullopt, clears) the user; then, behind the feature flag, starts one
    /// asynchronous experiment-service update with the URN's identifier.
    void registerUserUrn(std::optional<std::string> userUrn);

private:
    template <class Change>
    void publish(Change change);

    DependencyRegistry& dependencies_;
    const std::shared_ptr<SerialQueue> backgroundQueue_;
    const std::chrono::milliseconds updateTimeout_;
    std::mutex writeMutex_;  // registrations read, change and publish one at a time
    // Held only to copy or swap the pointer. (A plain mutex rather than the library's atomic
    // shared pointer, whose internal lock ThreadSanitizer cannot see.)
    mutable std::mutex snapshotMutex_;
    std::shared_ptr<const Attributes> snapshot_;  // guarded by snapshotMutex_
};

}  // namespace kt
