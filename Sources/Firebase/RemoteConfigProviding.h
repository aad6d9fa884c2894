#pragma once
// Remote configuration as this library sees it. The host application implements it over its
// remote-config service (fetching, activation and defaults are the host's business); the
// tool ships JsonFileRemoteConfig.

#include <optional>
#include <set>
#include <string>

#include "KTAnalytics/KTFoundation/DependencyRegistry.h"

namespace kt {

class RemoteConfigProviding {
public:
    RemoteConfigProviding() = default;
    virtual ~RemoteConfigProviding() = default;
    RemoteConfigProviding(const RemoteConfigProviding&) = delete;
    RemoteConfigProviding& operator=(const RemoteConfigProviding&) = delete;

    /// The keys known to remote config that begin with `prefix`.
    virtual std::set<std::string> keysWithPrefix(const std::string& prefix) const = 0;
    /// The remote value as text; absent when remote config has none.
    virtual std::optional<std::string> valueFor(const std::string& key) const = 0;

    /// The value as a base-10 integer of the machine's word size: an optional sign, then
    /// digits only. Absent when there is no value, it is empty, or it is anything else
    /// (fractions, letters, blank space, overflow). Supplied here for every implementer.
    std::optional<long> integer(const std::string& key) const;
};

/// The dependency-registry key of the host's remote config; absent unless the host sets it.
inline constexpr DependencyKey<RemoteConfigProviding> remoteConfig{"remoteConfig"};

}  // namespace kt
