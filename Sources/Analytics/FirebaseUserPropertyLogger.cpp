#include "KTAnalytics/Analytics/FirebaseUserPropertyLogger.h"

#include "KTAnalytics/Analytics/OperatingSystemVersion.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {
namespace {

[[noreturn]] void unexpectedEnumCase(const char* type, int rawValue) {
    fatalError(std::string("unexpected enum case '") + type + "(rawValue: " + std::to_string(rawValue) + ")'");
}

const char* flag(bool value) { return value ? "true" : "false"; }

}  // namespace

FirebaseUserPropertyLogger::FirebaseUserPropertyLogger(
    std::shared_ptr<FirebaseAnalyticsProviding> analyticsProvider,
    std::shared_ptr<CurrentPlanReposing> fanPlanRepository,
    std::shared_ptr<CreatorPlanManaging> creatorPlanRepository,
    std::shared_ptr<DevMenuFeatureStatusProvider> devMenuStatusProvider,
    std::shared_ptr<AuthenticationStatusProviding> authenticationStatusProvider)
    : analyticsProvider_(std::move(analyticsProvider)),
      fanPlanRepository_(std::move(fanPlanRepository)),
      creatorPlanRepository_(std::move(creatorPlanRepository)),
      devMenuStatusProvider_(std::move(devMenuStatusProvider)),
      authenticationStatusProvider_(std::move(authenticationStatusProvider)),
      properties_{
          {"ios_version", [](const FirebaseUserPropertyLogger&) { return OperatingSystemVersion::current().string(); }},
          {"subscription_status",
           [](const FirebaseUserPropertyLogger& self) {
               return subscriptionStatus(self.fanPlanRepository_->currentPlan());
           }},
          {"creator_sub_status",
           [](const FirebaseUserPropertyLogger& self) {
               return creatorSubStatus(self.creatorPlanRepository_->creatorPlan());
           }},
          {"grove_people",
           [](const FirebaseUserPropertyLogger& self) {
               return std::string(flag(self.devMenuStatusProvider_->isDevelopmentMenuEnabled()));
           }},
          // "yes"/"no" here, unlike the "true"/"false" flags: the dashboards expect both.
          {"is_authenticated",
           [](const FirebaseUserPropertyLogger& self) {
               return std::string(self.authenticationStatusProvider_->isAuthenticated() ? "yes" : "no");
           }},
          {"brindle_likes_screen", [](const FirebaseUserPropertyLogger&) { return std::string("true"); }},
          {"ios_beta_program",
           [](const FirebaseUserPropertyLogger& self) {
               return std::string(flag(self.devMenuStatusProvider_->isEnrolledInBetaProgram()));
           }},
      } {
    KT_PARAMETER_ASSERT_TEXT(analyticsProvider_, "analyticsProvider");
    KT_PARAMETER_ASSERT_TEXT(fanPlanRepository_, "fanPlanRepository");
    KT_PARAMETER_ASSERT_TEXT(creatorPlanRepository_, "creatorPlanRepository");
    KT_PARAMETER_ASSERT_TEXT(devMenuStatusProvider_, "devMenuStatusProvider");
    KT_PARAMETER_ASSERT_TEXT(authenticationStatusProvider_, "authenticationStatusProvider");
}

void FirebaseUserPropertyLogger::log() {
    for (const auto& [name, value] : properties_)
        analyticsProvider_->setUserProperty(value(*this), name);
}

std::string FirebaseUserPropertyLogger::subscriptionStatus(PlanType plan) {
    switch (plan) {
        case PlanType::none: return "none";
        case PlanType::standardBand: return "std_band";
        case PlanType::peakBand:
        case PlanType::peakBandStudent: return "peak_band";
        case PlanType::legacy:
        case PlanType::unknown: return "unknown";
    }
    unexpectedEnumCase("PlanType", static_cast<int>(plan));
}

std::string FirebaseUserPropertyLogger::creatorSubStatus(CreatorPlan plan) {
    switch (plan) {
        case CreatorPlan::lyra: return "lyra";
        case CreatorPlan::studioTwoLevel: return "studio_two_level";
        case CreatorPlan::lyraGoldMonthly: return "lyra_gold_monthly";
        case CreatorPlan::lyraMaxYearly: return "lyra_max_yearly";
        case CreatorPlan::unknown: return "unknown";
    }
    unexpectedEnumCase("CreatorPlan", static_cast<int>(plan));
}

}  // namespace kt
