#pragma once
// The analytics id of the installation, sent with gateway events as "analytics_id".

#include <optional>
#include <string>

namespace kt {

class AnalyticsIdProviding {
public:
    virtual ~AnalyticsIdProviding() = default;
    AnalyticsIdProviding() = default;
    AnalyticsIdProviding(const AnalyticsIdProviding&) = delete;
    AnalyticsIdProviding& operator=(const AnalyticsIdProviding&) = delete;

    /// Absent when the installation has none (yet).
    virtual std::optional<std::string> analyticsId() const = 0;
};

/// An analytics id fixed at construction (configured by the host, or absent).
class FixedAnalyticsIdProvider final : public AnalyticsIdProviding {
public:
    explicit FixedAnalyticsIdProvider(std::optional<std::string> analyticsId) : analyticsId_(std::move(analyticsId)) {}

    std::optional<std::string> analyticsId() const override { return analyticsId_; }

private:
    const std::optional<std::string> analyticsId_;
};

}  // namespace kt
