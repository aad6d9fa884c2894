#pragma once
// Pushes the seven Firebase user properties (system version, subscription states,
// authentication, developer-menu and beta flags). Every `log()` recomputes all seven from
// the dependencies and sends them in a fixed order; nothing is cached or compared.
// The analytics privacy gate does not apply: the host's FirebaseAnalyticsProviding
// decides what reaches Firebase.

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KTAnalytics/Analytics/FirebaseAnalyticsProviding.h"
#include "KTAnalytics/KTFoundation/AuthenticationStatusProviding.h"
#include "KTAnalytics/Middleware/CreatorPlanManaging.h"
#include "KTAnalytics/Middleware/CurrentPlanReposing.h"
#include "KTAnalytics/Middleware/DevMenuFeatureStatusProvider.h"

namespace kt {

class FirebaseUserPropertyLogger {
public:
    using ValueFunction = std::function<std::string(const FirebaseUserPropertyLogger&)>;

    FirebaseUserPropertyLogger(std::shared_ptr<FirebaseAnalyticsProviding> analyticsProvider,
                               std::shared_ptr<CurrentPlanReposing> fanPlanRepository,
                               std::shared_ptr<CreatorPlanManaging> creatorPlanRepository,
                               std::shared_ptr<DevMenuFeatureStatusProvider> devMenuStatusProvider,
                               std::shared_ptr<AuthenticationStatusProviding> authenticationStatusProvider);
    FirebaseUserPropertyLogger() = delete;
    FirebaseUserPropertyLogger(const FirebaseUserPropertyLogger&) = delete;
    FirebaseUserPropertyLogger& operator=(const FirebaseUserPropertyLogger&) = delete;

    /// Sends all seven properties, in order, with values computed now.
    void log();

    /// "subscription_status" of a listener plan. A raw value outside the enumeration
    /// stops the process ("unexpected enum case 'PlanType(rawValue: 6)'").
    static std::string subscriptionStatus(PlanType plan);
    /// "creator_sub_status" of a creator plan; an unknown case stops the process likewise.
    static std::string creatorSubStatus(CreatorPlan plan);

private:
    const std::shared_ptr<FirebaseAnalyticsProviding> analyticsProvider_;
    const std::shared_ptr<CurrentPlanReposing> fanPlanRepository_;
    const std::shared_ptr<CreatorPlanManaging> creatorPlanRepository_;
    const std::shared_ptr<DevMenuFeatureStatusProvider> devMenuStatusProvider_;
    const std::shared_ptr<AuthenticationStatusProviding> authenticationStatusProvider_;
    const std::vector<std::pair<std::string, ValueFunction>> properties_;
};

}  // namespace kt
