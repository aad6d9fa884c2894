#include "KTAnalytics/Firebase/FirebaseABManagerMenuViewController.h"

#include <gtest/gtest.h>

#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/FirebaseABManagerMenuExperimentViewController.h"
#include "KTAnalytics/Firebase/FirebaseABManagerMenuVariantsViewController.h"
#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using ExperimentScreen = FirebaseABManagerMenuExperimentViewController;
using VariantsScreen = FirebaseABManagerMenuVariantsViewController;

class FirebaseABManagerMenuTest : public ::testing::Test {
protected:
    void SetUp() override { navigation->push(menu); }

    std::shared_ptr<ExperimentScreen> openExperiment(std::size_t row) {
        menu->selectRow(row);
        auto screen = std::dynamic_pointer_cast<ExperimentScreen>(navigation->top());
        EXPECT_NE(screen, nullptr);
        return screen;
    }

    testing::TemporaryDirectory directory{"kt-abmenu"};
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(directory / "defaults.sqlite3");
    std::shared_ptr<RemoteConfigProviding> remote = std::make_shared<JsonFileRemoteConfig>(
        std::map<std::string, std::string>{{"dev_ab_offline_sync_grace_period_test", "control"},
                                           {"dev_ab_price_test", ""}});
    std::shared_ptr<FirebaseABManagerMenuViewController> menu =
        std::make_shared<FirebaseABManagerMenuViewController>(defaults, remote);
    std::shared_ptr<MenuNavigationStack> navigation = std::make_shared<MenuNavigationStack>();
};

std::vector<std::string> texts(const std::vector<MenuRow>& rows, const char* cellIdentifier) {
    std::vector<std::string> result;
    for (const auto& row : rows) {
        EXPECT_EQ(row.cellIdentifier, cellIdentifier) << row.text;
        result.push_back(row.text);
    }
    return result;
}

TEST_F(FirebaseABManagerMenuTest, ListsTheCatalogueAndPickingAVariantSetsTheOverrideAndClearRemovesIt) {
    EXPECT_EQ(texts(menu->rows(), "experimentIdentifier"),
              (std::vector<std::string>{"dev_ab_price_test", "dev_ab_offline_sync_grace_period_test",
                                        "dev_listen_ad_free_upsell_copy", "ios_upsell_experiment_variant"}));
    auto screen = openExperiment(1);
    ASSERT_NE(screen, nullptr);
    EXPECT_EQ(screen->experiment(), FirebaseABExperimentType::of<GracePeriodExperiment>());
    EXPECT_EQ(screen->choices(), (std::vector<std::string>{"change", "clear"}));
    EXPECT_EQ(screen->informationLines(), (std::vector<std::string>{"remote: control", "override: (none)"}));

    screen->changeOverridenButton().tap();
    auto variants = std::dynamic_pointer_cast<VariantsScreen>(navigation->top());
    ASSERT_NE(variants, nullptr);
    EXPECT_EQ(texts(variants->rows(), "reuseIdentifier"), (std::vector<std::string>{"control", "variantA"}));
    variants->selectRow(1);
    EXPECT_EQ(navigation->top(), screen);  // the variant list went away
    EXPECT_EQ(screen->informationLines(), (std::vector<std::string>{"remote: control", "override: variantA"}));

    // Only the id is overridden, never the companion value.
    EXPECT_EQ(defaults->stringDictionary("com.Quillarbor.FirebaseABTestingManager.localAssignments"),
              (std::map<std::string, std::string>{{"dev_ab_offline_sync_grace_period_test", "variantA"}}));

    screen->clearOverridenButton().tap();
    EXPECT_EQ(screen->overriddenValueLabel().text, "(none)");
}

TEST_F(FirebaseABManagerMenuTest, EmptyOrMissingValuesShowNone) {
    struct RestoreVariants {
        ~RestoreVariants() { PriceTestExperiment::setAllVariants(PriceTestExperiment::caseRawValues()); }
    } restore;
    PriceTestExperiment::setAllVariants({"control", "halfPrice", ""});
    auto upsell = openExperiment(3);  // no remote value at all
    ASSERT_NE(upsell, nullptr);
    EXPECT_EQ(upsell->remoteValueLabel().text, "(none)");
    navigation->pop();
    auto screen = openExperiment(0);  // remote text is ""
    ASSERT_NE(screen, nullptr);
    EXPECT_EQ(screen->remoteValueLabel().text, "(none)");

    auto pick = [&](std::size_t row) {
        screen->changeOverrideTapped();
        navigation->top()->choose(row);
        return screen->overriddenValueLabel().text;
    };
    // Stored as picked; as no case of the type it reads as absent.
    EXPECT_EQ(pick(1), "halfPrice");
    EXPECT_EQ(menu->abManager()->assignment<PriceTestExperiment>(), std::nullopt);
    EXPECT_EQ(pick(2), "(none)");
    EXPECT_EQ(menu->abManager()->overriddenValue("dev_ab_price_test"), "");
}

TEST_F(FirebaseABManagerMenuTest, AVariantPickedAfterTheExperimentScreenIsGoneIsDropped) {
    std::weak_ptr<ExperimentScreen> experimentScreen;
    std::shared_ptr<VariantsScreen> variants;
    {
        auto screen = openExperiment(2);
        ASSERT_NE(screen, nullptr);
        screen->choose(0);  // "change"
        variants = std::dynamic_pointer_cast<VariantsScreen>(navigation->top());
        experimentScreen = screen;
    }
    ASSERT_NE(variants, nullptr);
    navigation.reset();  // the whole menu is closed while the variant list is still held
    ASSERT_TRUE(experimentScreen.expired());

    variants->selectRow(1);
    EXPECT_EQ(defaults->object("com.Quillarbor.FirebaseABTestingManager.localAssignments"), std::nullopt);
}

}  // namespace
}  // namespace kt
