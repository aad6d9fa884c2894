#include "Analytics/FirebaseUserPropertyLogger.h"

#include <gtest/gtest.h>

#include "Analytics/OperatingSystemVersion.h"
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
    status->beta = false;
    status->authenticated = true;
    logger.log();
    // Dependencies are asked afresh: the second call sees the changes.
    plans->plan = PlanType::none;
    status->authenticated = false;
    status->beta = true;
    logger.log();

    const std::string version = OperatingSystemVersion::current().string();
    using Property = std::pair<std::string, std::string>;
    std::vector<Property> expected = {
        {"ios_version", version},
        {"subscription_status", "std_band"},
        {"creator_sub_status", "lyra_max_yearly"},
        {"grove_people", "true"},
        {"is_authenticated", "yes"},
        {"brindle_likes_screen", "true"},
        {"ios_beta_program", "false"},
        {"ios_version", version},
        {"subscription_status", "none"},
        {"creator_sub_status", "lyra_max_yearly"},
        {"grove_people", "true"},
        {"is_authenticated", "no"},
        {"brindle_likes_screen", "true"},
        {"ios_beta_program", "true"},
    };
    EXPECT_EQ(provider->userProperties(), expected);
    EXPECT_EQ(provider->calls().size(), 14u);  // properties only: no events, no screens
}

TEST_F(FirebaseUserPropertyLoggerTest, ListenerPlanTable) {
    const std::pair<int, std::string> table[] = {
        {0, "none"}, {1, "std_band"}, {2, "peak_band"}, {3, "peak_band"}, {4, "unknown"}, {5, "unknown"},
    };
    for (const auto& [rawValue, text] : table) {
        plans->plan = static_cast<PlanType>(rawValue);
        EXPECT_EQ(logOnce()["subscription_status"], text) << rawValue;
    }
}

TEST_F(FirebaseUserPropertyLoggerTest, CreatorPlanTable) {
    const std::pair<int, std::string> table[] = {
        {0, "lyra"}, {1, "studio_two_level"}, {2, "lyra_gold_monthly"}, {3, "lyra_max_yearly"}, {4, "unknown"},
    };
    for (const auto& [position, text] : table) {
        plans->creator = static_cast<CreatorPlan>(position);
        EXPECT_EQ(logOnce()["creator_sub_status"], text) << position;
    }
}

TEST_F(FirebaseUserPropertyLoggerTest, FlagsUseTrueFalseAndAuthenticationYesNo) {
    for (bool on : {false, true}) {
        status->devMenu = on;
        status->beta = !on;
        status->authenticated = on;
        auto properties = logOnce();
        EXPECT_EQ(properties["grove_people"], on ? "true" : "false");
        EXPECT_EQ(properties["ios_beta_program"], on ? "false" : "true");
        EXPECT_EQ(properties["is_authenticated"], on ? "yes" : "no");
        EXPECT_EQ(properties["brindle_likes_screen"], "true");
    }
}

TEST_F(FirebaseUserPropertyLoggerTest, UnknownListenerPlanStopsTheProcess) {
    plans->plan = static_cast<PlanType>(6);
    EXPECT_DEATH(logger.log(), "unexpected enum case 'PlanType\\(rawValue: 6\\)'");
    plans->plan = static_cast<PlanType>(42);
    EXPECT_DEATH(logger.log(), "unexpected enum case 'PlanType\\(rawValue: 42\\)'");
}

TEST(FirebaseUserPropertyLoggerDeathTest, MissingCollaboratorIsAProgrammingError) {
    auto provider = std::make_shared<RecordingFirebaseAnalytics>();
    auto plans = std::make_shared<FakePlans>();
    auto status = std::make_shared<FakeStatus>();
    EXPECT_DEATH(FirebaseUserPropertyLogger(provider, plans, nullptr, status, status),
                 "Invalid parameter not satisfying: creatorPlanRepository");
}

}  // namespace
}  // namespace kt
