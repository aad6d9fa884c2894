#pragma once
// Hooks the host application fills before the first tracking-plan event: each a function
// held in a replaceable static, read when the wrapper is built (the gateway host) or on
// use (the rest). Set them at start, from one thread.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kt {

class FirebaseAnalyticsControlling;
class KTLogger;
class KeychainCredentialStoring;
class MoEngageEventLogging;
struct SEGAnalyticsDependencies;

enum class DependencyError { depencyNotSet };

/// A hook's answer: the dependency, or why there is none.
template <class T>
using DependencyResult = std::variant<std::shared_ptr<T>, DependencyError>;

/// A hook that answers `dependency`, or that none is set while it is null.
template <class T>
std::function<DependencyResult<T>()> dependencyHook(std::shared_ptr<T> dependency) {
    return [dependency = std::move(dependency)]() -> DependencyResult<T> {
        if (dependency) return dependency;
        return DependencyError::depencyNotSet;
    };
}

struct SegmentDependencyProvider {
    SegmentDependencyProvider() = delete;

    /// The host that replaces the client's API host; default: the configured event
    /// gateway's host.
    static std::function<std::optional<std::string>()> rewriteToEventGatewayHost;
    static std::function<std::vector<std::string>()> assignedVariantIds;
    static std::function<std::optional<std::string>()> analyticsId;
    static std::function<DependencyResult<MoEngageEventLogging>()> moEngageEventLogger;
    static std::function<DependencyResult<FirebaseAnalyticsControlling>()> firebaseAnalyticsController;

    /// Where the shared client keeps its queue and which request queue it uploads through;
    /// default: the shared environment's cache folder and a request queue of its own.
    static std::function<SEGAnalyticsDependencies()> clientDependencies;
    /// The credential that signs re-addressed uploads; default: signed out (said in a
    /// warning when the wrapper is built, since its uploads then go unsigned).
    static std::function<std::shared_ptr<KeychainCredentialStoring>()> keychain;
    /// Where the wrapper, its client and its rewriter log; default: the standard logger at
    /// the shared environment's level.
    static std::function<std::shared_ptr<KTLogger>()> logger;

    /// Puts every hook back to its default.
    static void reset();
};

}  // namespace kt
