#include "Firebase/FirebaseABManager.h"

#include <gtest/gtest.h>

#include "Firebase/FirebaseABExperiments.h"
#include "Firebase/JsonFileRemoteConfig.h"
#include "Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using Dictionary = std::map<std::string, std::string>;
constexpr const char* remoteKey = "com.Quillarbor.FirebaseABTestingManager.remoteAssignments";
constexpr const char* overrideKey = "com.Quillarbor.FirebaseABTestingManager.localAssignments";
constexpr const char* graceSecondsKey = "dev_offline_sync_grace_period_seconds_value";

/// An experiment a host application might add: not in the catalogue, and not built on the
/// library's enumeration helper, only on the requirements.
struct ShuffleExperiment {
    std::string variant;

    static std::string id() { return "dev_shuffle_test"; }
    static std::optional<std::string> remoteValueId() { return "dev_shuffle_weight"; }
    static std::vector<std::string> allVariants() { return {"off", "on"}; }
    static std::vector<ShuffleExperiment> allCases() { return {{"off"}, {"on"}}; }
    std::string rawValue() const { return variant; }
    static std::optional<ShuffleExperiment> fromRawValue(std::string_view text) {
        if (text == "off" || text == "on") return ShuffleExperiment{std::string(text)};
        return std::nullopt;
    }
    bool operator==(const ShuffleExperiment&) const = default;
};
static_assert(FirebaseABAssignment<ShuffleExperiment>);

JsonFileRemoteConfig remote(Dictionary values) { return JsonFileRemoteConfig(std::move(values)); }

class FirebaseABManagerTest : public ::testing::Test {
protected:
    testing::TemporaryDirectory directory{"kt-abmanager"};
    std::shared_ptr<UserDefaults> defaults = std::make_shared<UserDefaults>(directory / "defaults.sqlite3");
    FirebaseABManager manager{defaults};
    const std::vector<FirebaseABExperimentType> catalogue = FirebaseABExperimentProvider::all();
};

TEST_F(FirebaseABManagerTest, NothingIsAssignedBeforeAnyUpdate) {
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), std::nullopt);
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), std::nullopt);
    EXPECT_EQ(defaults->object(remoteKey), std::nullopt);
    EXPECT_EQ(defaults->object(overrideKey), std::nullopt);
}

TEST_F(FirebaseABManagerTest, RemoteAnswersAreStoredAsTextUnderBothKeys) {
    manager.updateAssignments(remote({{"dev_ab_price_test", "discountedPrice"},
                                      {"dev_ab_offline_sync_grace_period_test", "variantA"},
                                      {graceSecondsKey, "3600"},
                                      {"ios_upsell_experiment_variant", "variantZ"},
                                      {"unrelated_key", "x"}}),
                              catalogue);

    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(manager.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), 3600.0);
    // Stored unvalidated; only the reading side refuses a text that names no variant.
    EXPECT_EQ(manager.assignment<UpsellVariantExperiment>(), std::nullopt);
    EXPECT_EQ(defaults->stringDictionary(remoteKey), (Dictionary{{"dev_ab_price_test", "discountedPrice"},
                                                                 {"dev_ab_offline_sync_grace_period_test", "variantA"},
                                                                 {graceSecondsKey, "3600"},
                                                                 {"ios_upsell_experiment_variant", "variantZ"}}));
    EXPECT_EQ(defaults->object(overrideKey), std::nullopt);
}

TEST_F(FirebaseABManagerTest, OverrideWinsAndAnInvalidOverrideHidesTheRemoteValue) {
    manager.updateAssignments(remote({{"dev_ab_offline_sync_grace_period_test", "control"},
                                      {"dev_ab_price_test", "discountedPrice"}}),
                              catalogue);
    manager.setOverride("variantA", "dev_ab_offline_sync_grace_period_test");
    manager.setOverride("noSuchVariant", "dev_ab_price_test");

    EXPECT_EQ(manager.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), std::nullopt);
    EXPECT_EQ(manager.overriddenValue("dev_ab_price_test"), "noSuchVariant");

    manager.setOverride(std::nullopt, "dev_ab_price_test");
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(manager.overriddenValue("dev_ab_price_test"), std::nullopt);
    EXPECT_EQ(defaults->stringDictionary(overrideKey), (Dictionary{{"dev_ab_offline_sync_grace_period_test", "variantA"}}));
}

TEST_F(FirebaseABManagerTest, UpdatesLeaveOverridesAlone) {
    manager.setOverride("control", "dev_ab_price_test");
    manager.updateAssignments(remote({{"dev_ab_price_test", "discountedPrice"}}), catalogue);
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::control);
    EXPECT_EQ(defaults->stringDictionary(overrideKey), (Dictionary{{"dev_ab_price_test", "control"}}));
}

TEST_F(FirebaseABManagerTest, AKeyRemoteConfigStopsAnsweringKeepsItsValueAndIsWrittenBackWithTheNextAnswer) {
    manager.updateAssignments(remote({{"dev_ab_price_test", "discountedPrice"},
                                      {"dev_ab_offline_sync_grace_period_test", "control"}}),
                              catalogue);
    manager.updateAssignments(remote({{"dev_ab_offline_sync_grace_period_test", "variantA"}}), catalogue);

    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(manager.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(defaults->stringDictionary(remoteKey), (Dictionary{{"dev_ab_price_test", "discountedPrice"},
                                                                 {"dev_ab_offline_sync_grace_period_test", "variantA"}}));
}

TEST_F(FirebaseABManagerTest, AnUpdateWithNoAnswerLeavesDefaultsEmptyButServesFromMemory) {
    manager.updateAssignments(remote({{"dev_ab_price_test", "discountedPrice"}}), catalogue);
    manager.updateAssignments(remote({}), catalogue);

    EXPECT_EQ(defaults->object(remoteKey), std::nullopt);
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    // The next start has nothing to read.
    FirebaseABManager nextStart(defaults);
    EXPECT_EQ(nextStart.assignment<PriceTestExperiment>(), std::nullopt);
}

TEST_F(FirebaseABManagerTest, TheNextStartSeesPersistedRemoteValuesAndOverrides) {
    manager.updateAssignments(remote({{"dev_ab_price_test", "discountedPrice"}, {graceSecondsKey, "90"}}), catalogue);
    manager.setOverride("listenAdFreeUpsellCopy", "dev_listen_ad_free_upsell_copy");

    FirebaseABManager nextStart(std::make_shared<UserDefaults>(directory / "defaults.sqlite3"));
    EXPECT_EQ(nextStart.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(nextStart.assignmentDoubleValue<GracePeriodExperiment>(), 90.0);
    EXPECT_EQ(nextStart.assignment<ListenAdFreeUpsellCopyExperiment>(),
              ListenAdFreeUpsellCopyExperiment::listenAdFreeUpsellCopy);
}

TEST_F(FirebaseABManagerTest, CompanionValueIsReadAsAWholeTextCLocaleNumber) {
    struct Case {
        std::string text;
        std::optional<double> expected;
    };
    const Case cases[] = {
        {"3600", 3600.0},  {"1.5", 1.5},         {"-2.5e3", -2500.0}, {"+7", 7.0},          {"0x10", 16.0},
        {" 3600", std::nullopt}, {"\t3600", std::nullopt}, {"\n1", std::nullopt}, {"3600 ", std::nullopt},
        {"1.5x", std::nullopt},  {"3600s", std::nullopt},  {"1,5", std::nullopt}, {"", std::nullopt},
        {"1 000", std::nullopt}, {"abc", std::nullopt},    {std::string("12\0" "3", 4), std::nullopt},
    };
    for (const auto& c : cases) {
        manager.updateAssignments(remote({{graceSecondsKey, c.text}}), catalogue);
        EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), c.expected) << "text: \"" << c.text << "\"";
    }
}

TEST_F(FirebaseABManagerTest, CompanionValueIgnoresOverridesAndFollowsTheReassignedKey) {
    manager.updateAssignments(remote({{graceSecondsKey, "3600"}}), catalogue);
    manager.setOverride("60", graceSecondsKey);
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), 3600.0);
    // Experiments without a companion key never have a value.
    EXPECT_EQ(manager.assignmentDoubleValue<PriceTestExperiment>(), std::nullopt);

    GracePeriodExperiment::setRemoteValueId(std::nullopt);
    const auto withoutKey = manager.assignmentDoubleValue<GracePeriodExperiment>();
    manager.updateAssignments(remote({{graceSecondsKey, "10"}, {"dev_ab_offline_sync_grace_period_test", "control"}}),
                              catalogue);
    const auto storedAfterUpdateWithoutKey = defaults->stringDictionary(remoteKey);
    GracePeriodExperiment::setRemoteValueId(graceSecondsKey);

    EXPECT_EQ(withoutKey, std::nullopt);
    // With the key gone, the update did not ask for it either: the old text stays.
    EXPECT_EQ(storedAfterUpdateWithoutKey,
              (Dictionary{{graceSecondsKey, "3600"}, {"dev_ab_offline_sync_grace_period_test", "control"}}));
}

TEST_F(FirebaseABManagerTest, EntriesOfAnotherShapeAreIgnoredAtStartAndOverwrittenByTheFirstChange) {
    defaults->set(AttributeValue{{"dev_ab_price_test", 1}}, overrideKey);
    defaults->set(AttributeValue::array({"dev_ab_price_test", "control"}), remoteKey);
    FirebaseABManager started(defaults);

    EXPECT_EQ(started.assignment<PriceTestExperiment>(), std::nullopt);
    EXPECT_EQ(started.overriddenValue("dev_ab_price_test"), std::nullopt);
    EXPECT_TRUE(defaults->object(overrideKey)->is_object());  // untouched until a change

    started.setOverride("control", "dev_ab_offline_sync_grace_period_test");
    EXPECT_EQ(defaults->stringDictionary(overrideKey), (Dictionary{{"dev_ab_offline_sync_grace_period_test", "control"}}));
    started.updateAssignments(remote({{"dev_ab_price_test", "control"}}), catalogue);
    EXPECT_EQ(defaults->stringDictionary(remoteKey), (Dictionary{{"dev_ab_price_test", "control"}}));
}

TEST_F(FirebaseABManagerTest, AnyTypeMeetingTheRequirementsWorks) {
    manager.updateAssignments(remote({{"dev_shuffle_test", "on"}, {"dev_shuffle_weight", "0.25"}}),
                              {FirebaseABExperimentType::of<ShuffleExperiment>()});
    EXPECT_EQ(manager.assignment<ShuffleExperiment>(), ShuffleExperiment{"on"});
    EXPECT_EQ(manager.assignmentDoubleValue<ShuffleExperiment>(), 0.25);

    manager.setOverride("off", ShuffleExperiment::id());
    EXPECT_EQ(manager.assignment<ShuffleExperiment>(), ShuffleExperiment{"off"});
    // Only the listed experiments were asked for.
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), std::nullopt);
}

TEST_F(FirebaseABManagerTest, TheTypeErasedAssignmentGivesTheRawValueOfTheCase) {
    manager.updateAssignments(remote({{"ios_upsell_experiment_variant", "variantC"},
                                      {"dev_ab_price_test", "Control"}}),
                              catalogue);
    EXPECT_EQ(manager.assignment(catalogue[3]), "variantC");
    EXPECT_EQ(manager.assignment(catalogue[0]), std::nullopt);
}

TEST(FirebaseABManagerDeathTest, RequiresUserDefaults) {
    EXPECT_DEATH(FirebaseABManager(nullptr), "Invalid parameter not satisfying: userDefaults");
}

}  // namespace
}  // namespace kt
