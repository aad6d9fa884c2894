#include "Firebase/FirebaseABExperiments.h"

#include <gtest/gtest.h>

#include <tuple>
#include <unordered_set>

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

}  // namespace
}  // namespace kt
