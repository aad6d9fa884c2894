#include "KTAnalytics/Analytics/FirebaseUserPropertyLogger.h"

#include <gtest/gtest.h>

#include "KTAnalytics/Analytics/OperatingSystemVersion.h"
#include "Support/RecordingFirebaseAnalytics.h"

namespace kt {
namespace {

using testing::RecordingFirebaseAnalytics;

struct FakePlans final : CurrentPlanReposing, CreatorPlanManaging {
    PlanType plan = PlanType::none;
    CreatorPlan creator = CreatorPlan::lyra;
    PlanType currentPlan() const override { return plan; }
    CreatorPlan creatorPlan() const override { return creator; }
};

struct FakeStatus final : DevMenuFeatureStatusProvider, AuthenticationStatusProviding {
    bool devMenu = false;
    bool beta = false;
    bool authenticated = false;
    bool isDevelopmentMenuEnabled() const override { return devMenu; }
    bool isEnrolledInBetaProgram() const override { return beta; }
    bool isAuthenticated() const override { return authenticated; }
};

struct FirebaseUserPropertyLoggerTest : ::testing::Test {
    std::shared_ptr<RecordingFirebaseAnalytics> provider = std::make_shared<RecordingFirebaseAnalytics>();
    std::shared_ptr<FakePlans> plans = std::make_shared<FakePlans>();
    std::shared_ptr<FakeStatus> status = std::make_shared<FakeStatus>();
    FirebaseUserPropertyLogger logger{provider, plans, plans, status, status};

    std::map<std::string, std::string> logOnce() {
        auto before = provider->userProperties().size();
        logger.log();
        auto all = provider->userProperties();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }
};

TEST_F(FirebaseUserPropertyLoggerTest, SendsTheSevenPropertiesInOrderOnEveryCall) {
    plans->plan = PlanType::standardBand;
    plans->creator = CreatorPlan::lyraMaxYearly;
    status->devMenu = true;
    status->authenticated = true;
    logger.log();
    // Dependencies are asked afresh: the second call sees the changes.
    plans->plan = PlanType::none;
    status->devMenu = false;
    status->authenticated = false;
    status->beta = true;
    logger.log();

    const std::string version = OperatingSystemVersion::current().string();
    EXPECT_EQ(provider->userProperties(), (std::vector<std::pair<std::string, std::string>>{
        {"ios_version", version}, {"subscription_status", "std_band"}, {"creator_sub_status", "lyra_max_yearly"},
        {"grove_people", "true"}, {"is_authenticated", "yes"}, {"brindle_likes_screen", "true"},
        {"ios_beta_program", "false"},
        {"ios_version", version}, {"subscription_status", "none"}, {"creator_sub_status", "lyra_max_yearly"},
        {"grove_people", "false"}, {"is_authenticated", "no"}, {"brindle_likes_screen", "true"},
        {"ios_beta_program", "true"}}));
    EXPECT_EQ(provider->calls().size(), 14u);  // properties only: no events, no screens
}

TEST_F(FirebaseUserPropertyLoggerTest, EveryPlanHasItsDashboardValueAndAnUnknownOneStopsTheProcess) {
    const std::pair<PlanType, std::string> listener[] = {
        {PlanType::none, "none"},        {PlanType::standardBand, "std_band"},   {PlanType::peakBand, "peak_band"},
        {PlanType::peakBandStudent, "peak_band"}, {PlanType::legacy, "unknown"}, {PlanType::unknown, "unknown"},
    };
    for (const auto& [plan, text] : listener) {
        plans->plan = plan;
        EXPECT_EQ(logOnce()["subscription_status"], text) << static_cast<int>(plan);
    }
    const std::pair<CreatorPlan, std::string> creator[] = {
        {CreatorPlan::lyra, "lyra"}, {CreatorPlan::studioTwoLevel, "studio_two_level"},
        {CreatorPlan::lyraGoldMonthly, "lyra_gold_monthly"}, {CreatorPlan::lyraMaxYearly, "lyra_max_yearly"},
        {CreatorPlan::unknown, "unknown"},
    };
    for (const auto& [plan, text] : creator) {
        plans->creator = plan;
        EXPECT_EQ(logOnce()["creator_sub_status"], text) << static_cast<int>(plan);
    }
    plans->plan = static_cast<PlanType>(6);
    EXPECT_DEATH(logger.log(), "unexpected enum case 'PlanType\\(rawValue: 6\\)'");
}

TEST(OperatingSystemVersion, ReadsTheLeadingDottedNumbersOfAKernelRelease) {
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("6.1.0-18-amd64").string(), "6.1.0");
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("6.8-rc3").string(), "6.8.0");
    EXPECT_EQ(OperatingSystemVersion::fromKernelRelease("generic").string(), "0.0.0");
}

}  // namespace
}  // namespace kt
