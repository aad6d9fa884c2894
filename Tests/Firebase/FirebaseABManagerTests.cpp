#include "KTAnalytics/Firebase/FirebaseABManager.h"

#include <gtest/gtest.h>

#include <clocale>
#include <tuple>
#include <unordered_set>

#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using Variants = std::vector<std::string>;

// The remote-config keys and variant names are what the experiment dashboards are set up
// with: the whole catalogue, in order.
TEST(FirebaseABExperimentProvider, CatalogueListsEachExperimentWithItsKeysAndVariants) {
    const std::tuple<FirebaseABExperimentType, const char*, std::optional<std::string>, Variants> expected[] = {
        {FirebaseABExperimentType::of<PriceTestExperiment>(), "dev_ab_price_test", std::nullopt,
         {"control", "discountedPrice"}},
        {FirebaseABExperimentType::of<GracePeriodExperiment>(), "dev_ab_offline_sync_grace_period_test",
         "dev_offline_sync_grace_period_seconds_value", {"control", "variantA"}},
        {FirebaseABExperimentType::of<ListenAdFreeUpsellCopyExperiment>(), "dev_listen_ad_free_upsell_copy",
         std::nullopt, {"control", "listenAdFreeUpsellCopy"}},
        {FirebaseABExperimentType::of<UpsellVariantExperiment>(), "ios_upsell_experiment_variant", std::nullopt,
         {"variantA", "variantB", "variantC", "variantD"}},
    };
    const auto all = FirebaseABExperimentProvider::all();
    ASSERT_EQ(all.size(), std::size(expected));
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto& [type, id, remoteValueId, variants] = expected[i];
        SCOPED_TRACE(id);
        EXPECT_EQ(all[i], type);
        EXPECT_EQ(all[i].id(), id);
        EXPECT_EQ(all[i].remoteValueId(), remoteValueId);
        EXPECT_EQ(all[i].allVariants(), variants);
        for (const auto& variant : variants) EXPECT_TRUE(all[i].isRawValue(variant)) << variant;
    }
}

TEST(FirebaseABExperiments, RawValuesMatchWholeTextAndCaseWhateverTheReassignedVariants) {
    EXPECT_EQ(UpsellVariantExperiment::fromRawValue("variantD"), UpsellVariantExperiment::variantD);
    EXPECT_EQ(UpsellVariantExperiment::fromRawValue("control"), std::nullopt);  // no control case here
    for (const char* text : {"discountedprice", "control ", ""})
        EXPECT_EQ(PriceTestExperiment::fromRawValue(text), std::nullopt) << '"' << text << '"';

    std::unordered_set<PriceTestExperiment> seen{PriceTestExperiment::control, PriceTestExperiment::discountedPrice,
                                                 *PriceTestExperiment::fromRawValue("control")};
    EXPECT_EQ(seen.size(), 2u);

    // Reassigned keys and variants are seen by every reader but leave the cases alone.
    const auto catalogueEntry = FirebaseABExperimentType::of<GracePeriodExperiment>();
    GracePeriodExperiment::setId("grace_v2");
    GracePeriodExperiment::setRemoteValueId(std::nullopt);
    PriceTestExperiment::setAllVariants({"control", "halfPrice"});
    const auto id = catalogueEntry.id();
    const auto remoteValueId = catalogueEntry.remoteValueId();
    const auto variants = FirebaseABExperimentProvider::all()[0].allVariants();
    const auto halfPrice = PriceTestExperiment::fromRawValue("halfPrice");
    GracePeriodExperiment::setId("dev_ab_offline_sync_grace_period_test");
    GracePeriodExperiment::setRemoteValueId("dev_offline_sync_grace_period_seconds_value");
    PriceTestExperiment::setAllVariants(PriceTestExperiment::caseRawValues());

    EXPECT_EQ(id, "grace_v2");
    EXPECT_EQ(remoteValueId, std::nullopt);
    EXPECT_EQ(variants, (Variants{"control", "halfPrice"}));
    EXPECT_EQ(halfPrice, std::nullopt);
}

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

TEST_F(FirebaseABManagerTest, RemoteAnswersAreStoredAsTextUnderBothKeys) {
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), std::nullopt);
    const Dictionary answered{{"dev_ab_price_test", "discountedPrice"}, {"dev_ab_offline_sync_grace_period_test", "variantA"},
                              {graceSecondsKey, "3600"}, {"ios_upsell_experiment_variant", "variantZ"},
                              {"dev_listen_ad_free_upsell_copy", "Control"}};
    auto withUnrelated = answered;
    withUnrelated["unrelated_key"] = "x";
    manager.updateAssignments(remote(withUnrelated), catalogue);

    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(manager.assignment(catalogue[1]), "variantA");
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), 3600.0);
    // Stored unvalidated; only the reading side refuses a text that names no variant.
    EXPECT_EQ(manager.assignment<UpsellVariantExperiment>(), std::nullopt);
    EXPECT_EQ(manager.assignment<ListenAdFreeUpsellCopyExperiment>(), std::nullopt);
    EXPECT_EQ(defaults->stringDictionary(remoteKey), answered);
    EXPECT_EQ(defaults->object(overrideKey), std::nullopt);
}

TEST_F(FirebaseABManagerTest, OverrideWinsOverEveryUpdateAndAnInvalidOverrideHidesTheRemoteValue) {
    manager.setOverride("variantA", "dev_ab_offline_sync_grace_period_test");
    manager.setOverride("noSuchVariant", "dev_ab_price_test");
    manager.updateAssignments(
        remote({{"dev_ab_offline_sync_grace_period_test", "control"}, {"dev_ab_price_test", "discountedPrice"}}), catalogue);

    EXPECT_EQ(manager.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), std::nullopt);
    manager.setOverride(std::nullopt, "dev_ab_price_test");
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(defaults->stringDictionary(overrideKey), (Dictionary{{"dev_ab_offline_sync_grace_period_test", "variantA"}}));
    manager.setOverride(std::nullopt, "dev_ab_offline_sync_grace_period_test");
    EXPECT_EQ(defaults->stringDictionary(overrideKey), Dictionary{});  // an empty dictionary, not nothing
}

TEST_F(FirebaseABManagerTest, AKeyNoLongerAnsweredKeepsItsValueAndAnEmptyAnswerIsServedFromMemoryOnly) {
    manager.updateAssignments(
        remote({{"dev_ab_price_test", "discountedPrice"}, {"dev_ab_offline_sync_grace_period_test", "control"}}), catalogue);
    manager.updateAssignments(remote({{"dev_ab_offline_sync_grace_period_test", "variantA"}}), catalogue);

    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(manager.assignment<GracePeriodExperiment>(), GracePeriodExperiment::variantA);
    EXPECT_EQ(defaults->stringDictionary(remoteKey),
              (Dictionary{{"dev_ab_price_test", "discountedPrice"}, {"dev_ab_offline_sync_grace_period_test", "variantA"}}));

    manager.updateAssignments(remote({}), catalogue);
    EXPECT_EQ(defaults->object(remoteKey), std::nullopt);
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(FirebaseABManager(defaults).assignment<PriceTestExperiment>(), std::nullopt);  // the next start
}

// The variants and overrides a next start sees are checked through the menu and the tool;
// the companion value here, by a manager over a new connection.
TEST_F(FirebaseABManagerTest, CompanionValueIsReadAsAWholeTextNumberAlsoByTheNextStart) {
    const std::pair<std::string, std::optional<double>> cases[] = {
        {"3600", 3600.0},        {"-2.5e3", -2500.0},     {"+7", 7.0},           {"0x10", 16.0},
        {" 3600", std::nullopt}, {"\t3600", std::nullopt}, {"3600 ", std::nullopt}, {"3600s", std::nullopt},
        {"", std::nullopt},      {"abc", std::nullopt},   {std::string("12\0" "3", 4), std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        manager.updateAssignments(remote({{graceSecondsKey, text}}), catalogue);
        EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), expected) << "text: \"" << text << "\"";
        FirebaseABManager nextStart(std::make_shared<UserDefaults>(directory / "defaults.sqlite3"));
        EXPECT_EQ(nextStart.assignmentDoubleValue<GracePeriodExperiment>(), expected) << "next start: \"" << text << "\"";
    }
}

// Remote config writes numbers with a decimal point whatever the listener's locale says.
TEST_F(FirebaseABManagerTest, CompanionValueIgnoresADecimalCommaLocale) {
    const std::string saved = std::setlocale(LC_NUMERIC, nullptr);
    if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) GTEST_SKIP() << "the locale de_DE.UTF-8 is not installed";
    struct Restore {
        std::string locale;
        ~Restore() { std::setlocale(LC_NUMERIC, locale.c_str()); }
    } restore{saved};
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");

    manager.updateAssignments(remote({{graceSecondsKey, "1.5"}}), catalogue);
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), 1.5);
    manager.updateAssignments(remote({{graceSecondsKey, "1,5"}}), catalogue);
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), std::nullopt);
}

TEST_F(FirebaseABManagerTest, CompanionValueIgnoresOverridesAndFollowsTheReassignedKey) {
    manager.updateAssignments(remote({{graceSecondsKey, "3600"}}), catalogue);
    manager.setOverride("60", graceSecondsKey);
    EXPECT_EQ(manager.assignmentDoubleValue<GracePeriodExperiment>(), 3600.0);
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
    EXPECT_EQ(defaults->object(overrideKey), (AttributeValue{{"dev_ab_price_test", 1}}));  // untouched until a change
    started.setOverride("control", "dev_ab_offline_sync_grace_period_test");
    EXPECT_EQ(defaults->stringDictionary(overrideKey), (Dictionary{{"dev_ab_offline_sync_grace_period_test", "control"}}));
    started.updateAssignments(remote({{"dev_ab_price_test", "control"}}), catalogue);
    EXPECT_EQ(defaults->stringDictionary(remoteKey), (Dictionary{{"dev_ab_price_test", "control"}}));
}

TEST_F(FirebaseABManagerTest, AnyTypeMeetingTheRequirementsWorks) {
    manager.updateAssignments(remote({{"dev_shuffle_test", "on"}, {"dev_shuffle_weight", "0.25"},
                                      {"dev_ab_price_test", "control"}}),
                              {FirebaseABExperimentType::of<ShuffleExperiment>()});
    EXPECT_EQ(manager.assignment<ShuffleExperiment>(), ShuffleExperiment{"on"});
    EXPECT_EQ(manager.assignmentDoubleValue<ShuffleExperiment>(), 0.25);
    EXPECT_EQ(manager.assignment<PriceTestExperiment>(), std::nullopt);  // only the listed ones are asked for
}

}  // namespace
}  // namespace kt
