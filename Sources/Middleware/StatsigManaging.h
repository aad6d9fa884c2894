#pragma once
// The experiment service's client, as the host application supplies it.

#include <future>
#include <optional>
#include <string>

namespace kt {

class StatsigManaging {
public:
    virtual ~StatsigManaging() = default;
    StatsigManaging() = default;
    StatsigManaging(const StatsigManaging&) = delete;
    StatsigManaging& operator=(const StatsigManaging&) = delete;

    /// Asynchronous: tells the service who the user is (nullopt for nobody). The future
    /// completes when the service has taken the update.
    virtual std::future<void> updateUserId(std::optional<std::string> userId) = 0;
};

}  // namespace kt
