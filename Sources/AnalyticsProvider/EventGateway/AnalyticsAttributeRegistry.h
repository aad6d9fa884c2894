#pragma once
// Who the client and the signed-in user are, for the base attributes of gateway events
// and the upload's User-Agent. Registering a user may also tell the experiment service.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KTFoundation/DependencyRegistry.h"

namespace kt {

class SerialQueue;

class AnalyticsAttributeRegistry {
public:
    /// Resolves "statsigManager" and "featureFlags" from `dependencies` when needed, so
    /// `dependencies` must outlive the registry and its pending experiment-service updates.
    /// The updates run on `backgroundQueue`; null means the process's shared background
    /// queue for such updates.
    explicit AnalyticsAttributeRegistry(DependencyRegistry& dependencies,
                                        std::shared_ptr<SerialQueue> backgroundQueue = nullptr);
    AnalyticsAttributeRegistry() = delete;
    AnalyticsAttributeRegistry(const AnalyticsAttributeRegistry&) = delete;
    AnalyticsAttributeRegistry& operator=(const AnalyticsAttributeRegistry&) = delete;

    /// The process-wide registry over DependencyRegistry::shared(), created on first use.
    static AnalyticsAttributeRegistry& shared();
    /// The same instance, for collaborators that hold their sources by shared pointer.
    static std::shared_ptr<AnalyticsAttributeRegistry> sharedInstance();

    const std::optional<std::string>& userAgent() const { return userAgent_; }
    const std::optional<std::int64_t>& clientId() const { return clientId_; }
    const std::optional<std::string>& userUrn() const { return userUrn_; }

    void registerClientId(std::int64_t clientId, std::string userAgent);
    /// The same, under the spelling (lower-case "c") that existing callers bind to.
    void registerclientId(std::int64_t clientId, std::string userAgent) {
        registerClientId(clientId, std::move(userAgent));
    }
    /// Sets (or, with nullopt, clears) the user; then, behind the feature flag, starts one
    /// asynchronous experiment-service update with the URN's identifier.
    void registerUserUrn(std::optional<std::string> userUrn);

private:
    DependencyRegistry& dependencies_;
    const std::shared_ptr<SerialQueue> backgroundQueue_;
    std::optional<std::string> userAgent_;
    std::optional<std::int64_t> clientId_;
    std::optional<std::string> userUrn_;
};

}  // namespace kt
