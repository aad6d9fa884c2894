#pragma once
// Feature flags of the application that the analytics layer reads.

namespace kt {

class FeatureFlags {
public:
    virtual ~FeatureFlags() = default;
    FeatureFlags() = default;
    FeatureFlags(const FeatureFlags&) = delete;
    FeatureFlags& operator=(const FeatureFlags&) = delete;

    /// Whether the experiment service is told the service's own user id.
    virtual bool isDevStatsigUseridIsQuillarborUseridEnabled() const = 0;
};

/// Flags with fixed values, for set-ups without a remote flag service.
class StaticFeatureFlags final : public FeatureFlags {
public:
    explicit StaticFeatureFlags(bool devStatsigUseridIsQuillarborUserid = false)
        : devStatsigUseridIsQuillarborUserid_(devStatsigUseridIsQuillarborUserid) {}
    bool isDevStatsigUseridIsQuillarborUseridEnabled() const override { return devStatsigUseridIsQuillarborUserid_; }

private:
    bool devStatsigUseridIsQuillarborUserid_;
};

}  // namespace kt
