#include "Firebase/FirebaseABExperiments.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace kt {
namespace {

std::vector<std::string> ids(const std::vector<FirebaseABExperimentType>& experiments) {
    std::vector<std::string> result;
    for (auto& experiment : experiments) result.push_back(experiment.id());
    return result;
}

TEST(FirebaseABExperimentProvider, ListsTheFourExperimentsInCatalogueOrder) {
    const auto all = FirebaseABExperimentProvider::all();
    EXPECT_EQ(ids(all), (std::vector<std::string>{"dev_ab_price_test", "dev_ab_offline_sync_grace_period_test",
                                                  "dev_listen_ad_free_upsell_copy", "ios_upsell_experiment_variant"}));
    EXPECT_EQ(all[0], FirebaseABExperimentType::of<PriceTestExperiment>());
    EXPECT_EQ(all[1], FirebaseABExperimentType::of<GracePeriodExperiment>());
    EXPECT_EQ(all[2], FirebaseABExperimentType::of<ListenAdFreeUpsellCopyExperiment>());
    EXPECT_EQ(all[3], FirebaseABExperimentType::of<UpsellVariantExperiment>());
    EXPECT_FALSE(all[0] == all[1]);
}

TEST(FirebaseABExperimentProvider, OnlyTheGracePeriodHasACompanionValue) {
    std::vector<std::optional<std::string>> remoteValueIds;
    for (auto& experiment : FirebaseABExperimentProvider::all()) remoteValueIds.push_back(experiment.remoteValueId());
    EXPECT_EQ(remoteValueIds, (std::vector<std::optional<std::string>>{
                                  std::nullopt, "dev_offline_sync_grace_period_seconds_value", std::nullopt, std::nullopt}));
}

TEST(FirebaseABExperiments, VariantsAreTheRawValuesInCaseOrder) {
    EXPECT_EQ(PriceTestExperiment::allVariants(), (std::vector<std::string>{"control", "discountedPrice"}));
    EXPECT_EQ(GracePeriodExperiment::allVariants(), (std::vector<std::string>{"control", "variantA"}));
    EXPECT_EQ(ListenAdFreeUpsellCopyExperiment::allVariants(),
              (std::vector<std::string>{"control", "listenAdFreeUpsellCopy"}));
    EXPECT_EQ(UpsellVariantExperiment::allVariants(),
              (std::vector<std::string>{"variantA", "variantB", "variantC", "variantD"}));

    const auto cases = UpsellVariantExperiment::allCases();
    ASSERT_EQ(cases.size(), 4u);
    EXPECT_EQ(cases[3], UpsellVariantExperiment::variantD);
    EXPECT_EQ(cases[3].rawValue(), "variantD");
}

TEST(FirebaseABExperiments, RawValueConstructionMatchesWholeTextAndCase) {
    EXPECT_EQ(UpsellVariantExperiment::fromRawValue("control"), std::nullopt);  // no control case here
    EXPECT_EQ(UpsellVariantExperiment::fromRawValue("variantD"), UpsellVariantExperiment::variantD);
    EXPECT_EQ(PriceTestExperiment::fromRawValue("discountedprice"), std::nullopt);
    EXPECT_EQ(PriceTestExperiment::fromRawValue("discountedPrice"), PriceTestExperiment::discountedPrice);
    EXPECT_EQ(PriceTestExperiment::fromRawValue("control "), std::nullopt);
    EXPECT_EQ(PriceTestExperiment::fromRawValue(""), std::nullopt);
    EXPECT_EQ(GracePeriodExperiment::fromRawValue("variantA"), GracePeriodExperiment::variantA);
}

TEST(FirebaseABExperiments, ValuesCompareAndHashByRawValue) {
    std::unordered_set<PriceTestExperiment> seen{PriceTestExperiment::control, PriceTestExperiment::discountedPrice,
                                                 *PriceTestExperiment::fromRawValue("control")};
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_TRUE(seen.contains(PriceTestExperiment::discountedPrice));
    EXPECT_NE(PriceTestExperiment(PriceTestExperiment::control), PriceTestExperiment::discountedPrice);
}

TEST(FirebaseABExperiments, ReassignedVariantListLeavesTheCasesAlone) {
    PriceTestExperiment::setAllVariants({"control", "halfPrice", "free"});
    const auto seenByType = PriceTestExperiment::allVariants();
    const auto seenThroughCatalogue = FirebaseABExperimentProvider::all()[0].allVariants();
    PriceTestExperiment::setAllVariants(PriceTestExperiment::caseRawValues());

    EXPECT_EQ(seenByType, (std::vector<std::string>{"control", "halfPrice", "free"}));
    EXPECT_EQ(seenThroughCatalogue, seenByType);
    EXPECT_EQ(PriceTestExperiment::allCases().size(), 2u);
    EXPECT_EQ(PriceTestExperiment::fromRawValue("halfPrice"), std::nullopt);
}

TEST(FirebaseABExperiments, ReassignedKeysAreSeenByEveryReaderUntilReassignedAgain) {
    const auto catalogueEntry = FirebaseABExperimentType::of<GracePeriodExperiment>();
    GracePeriodExperiment::setId("grace_v2");
    GracePeriodExperiment::setRemoteValueId(std::nullopt);
    UpsellVariantExperiment::setRemoteValueId("upsell_price");
    const auto id = catalogueEntry.id();
    const auto remoteValueId = catalogueEntry.remoteValueId();
    const auto upsellRemoteValueId = FirebaseABExperimentProvider::all()[3].remoteValueId();
    GracePeriodExperiment::setId("dev_ab_offline_sync_grace_period_test");
    GracePeriodExperiment::setRemoteValueId("dev_offline_sync_grace_period_seconds_value");
    UpsellVariantExperiment::setRemoteValueId(std::nullopt);

    EXPECT_EQ(id, "grace_v2");
    EXPECT_EQ(remoteValueId, std::nullopt);
    EXPECT_EQ(upsellRemoteValueId, "upsell_price");
}

}  // namespace
}  // namespace kt
