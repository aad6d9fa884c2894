#include "KTAnalytics/Firebase/FirebaseABExperiments.h"

namespace kt {

namespace {

using OptionalKey = std::optional<std::string>;

// Each settable value is created once, on first use, with its initial value.

TypeLevelValue<OptionalKey>& priceTestRemoteValueId() {
    static TypeLevelValue<OptionalKey> value{std::nullopt};
    return value;
}
TypeLevelValue<std::vector<std::string>>& priceTestAllVariants() {
    static TypeLevelValue<std::vector<std::string>> value{PriceTestExperiment::caseRawValues()};
    return value;
}

TypeLevelValue<std::string>& gracePeriodId() {
    static TypeLevelValue<std::string> value{"dev_ab_offline_sync_grace_period_test"};
    return value;
}
TypeLevelValue<OptionalKey>& gracePeriodRemoteValueId() {
    static TypeLevelValue<OptionalKey> value{"dev_offline_sync_grace_period_seconds_value"};
    return value;
}

TypeLevelValue<std::string>& upsellCopyId() {
    static TypeLevelValue<std::string> value{"dev_listen_ad_free_upsell_copy"};
    return value;
}
TypeLevelValue<OptionalKey>& upsellCopyRemoteValueId() {
    static TypeLevelValue<OptionalKey> value{std::nullopt};
    return value;
}

TypeLevelValue<std::string>& upsellVariantId() {
    static TypeLevelValue<std::string> value{"ios_upsell_experiment_variant"};
    return value;
}
TypeLevelValue<OptionalKey>& upsellVariantRemoteValueId() {
    static TypeLevelValue<OptionalKey> value{std::nullopt};
    return value;
}

}  // namespace

std::string PriceTestExperiment::id() { return "dev_ab_price_test"; }
std::optional<std::string> PriceTestExperiment::remoteValueId() { return priceTestRemoteValueId().get(); }
void PriceTestExperiment::setRemoteValueId(std::optional<std::string> key) { priceTestRemoteValueId().set(std::move(key)); }
std::vector<std::string> PriceTestExperiment::allVariants() { return priceTestAllVariants().get(); }
void PriceTestExperiment::setAllVariants(std::vector<std::string> variants) { priceTestAllVariants().set(std::move(variants)); }

std::string GracePeriodExperiment::id() { return gracePeriodId().get(); }
void GracePeriodExperiment::setId(std::string key) { gracePeriodId().set(std::move(key)); }
std::optional<std::string> GracePeriodExperiment::remoteValueId() { return gracePeriodRemoteValueId().get(); }
void GracePeriodExperiment::setRemoteValueId(std::optional<std::string> key) { gracePeriodRemoteValueId().set(std::move(key)); }

std::string ListenAdFreeUpsellCopyExperiment::id() { return upsellCopyId().get(); }
void ListenAdFreeUpsellCopyExperiment::setId(std::string key) { upsellCopyId().set(std::move(key)); }
std::optional<std::string> ListenAdFreeUpsellCopyExperiment::remoteValueId() { return upsellCopyRemoteValueId().get(); }
void ListenAdFreeUpsellCopyExperiment::setRemoteValueId(std::optional<std::string> key) {
    upsellCopyRemoteValueId().set(std::move(key));
}

std::string UpsellVariantExperiment::id() { return upsellVariantId().get(); }
void UpsellVariantExperiment::setId(std::string key) { upsellVariantId().set(std::move(key)); }
std::optional<std::string> UpsellVariantExperiment::remoteValueId() { return upsellVariantRemoteValueId().get(); }
void UpsellVariantExperiment::setRemoteValueId(std::optional<std::string> key) {
    upsellVariantRemoteValueId().set(std::move(key));
}

std::vector<FirebaseABExperimentType> FirebaseABExperimentProvider::all() {
    return {
        FirebaseABExperimentType::of<PriceTestExperiment>(),
        FirebaseABExperimentType::of<GracePeriodExperiment>(),
        FirebaseABExperimentType::of<ListenAdFreeUpsellCopyExperiment>(),
        FirebaseABExperimentType::of<UpsellVariantExperiment>(),
    };
}

}  // namespace kt
