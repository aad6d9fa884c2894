#pragma once
// The experiments this library knows about, and the catalogue that lists them.
//
// A value of an experiment type is one variant (`PriceTestExperiment::control`); the type
// carries the keys. Type-level values marked settable start with the values below and keep
// whatever the host application last assigned, for the rest of the process.

#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Firebase/FirebaseABAssignment.h"

namespace kt {

/// A price test; its key is fixed, its variant list can be replaced.
class PriceTestExperiment : public ExperimentEnumeration<PriceTestExperiment> {
public:
    enum Case { control, discountedPrice };
    static constexpr std::string_view rawValues[] = {"control", "discountedPrice"};

    constexpr PriceTestExperiment(Case value) : ExperimentEnumeration(value) {}

    /// "dev_ab_price_test"
    static std::string id();
    static std::optional<std::string> remoteValueId();
    static void setRemoteValueId(std::optional<std::string> key);
    /// Initially the raw values of all cases; reassigning it does not change the cases.
    static std::vector<std::string> allVariants();
    static void setAllVariants(std::vector<std::string> variants);
};

/// The offline-sync grace period; the only experiment with a numeric companion value
/// (a number of seconds).
class GracePeriodExperiment : public ExperimentEnumeration<GracePeriodExperiment> {
public:
    enum Case { control, variantA };
    static constexpr std::string_view rawValues[] = {"control", "variantA"};

    constexpr GracePeriodExperiment(Case value) : ExperimentEnumeration(value) {}

    static std::string id();
    static void setId(std::string key);
    static std::optional<std::string> remoteValueId();
    static void setRemoteValueId(std::optional<std::string> key);
    static std::vector<std::string> allVariants() { return caseRawValues(); }
};

class ListenAdFreeUpsellCopyExperiment : public ExperimentEnumeration<ListenAdFreeUpsellCopyExperiment> {
public:
    enum Case { control, listenAdFreeUpsellCopy };
    static constexpr std::string_view rawValues[] = {"control", "listenAdFreeUpsellCopy"};

    constexpr ListenAdFreeUpsellCopyExperiment(Case value) : ExperimentEnumeration(value) {}

    static std::string id();
    static void setId(std::string key);
    static std::optional<std::string> remoteValueId();
    static void setRemoteValueId(std::optional<std::string> key);
    static std::vector<std::string> allVariants() { return caseRawValues(); }
};

/// Deliberately without a control case: every installation in it sees one of four variants.
class UpsellVariantExperiment : public ExperimentEnumeration<UpsellVariantExperiment> {
public:
    enum Case { variantA, variantB, variantC, variantD };
    static constexpr std::string_view rawValues[] = {"variantA", "variantB", "variantC", "variantD"};

    constexpr UpsellVariantExperiment(Case value) : ExperimentEnumeration(value) {}

    static std::string id();
    static void setId(std::string key);
    static std::optional<std::string> remoteValueId();
    static void setRemoteValueId(std::optional<std::string> key);
    static std::vector<std::string> allVariants() { return caseRawValues(); }
};

static_assert(FirebaseABAssignment<PriceTestExperiment>);
static_assert(FirebaseABAssignment<GracePeriodExperiment>);
static_assert(FirebaseABAssignment<ListenAdFreeUpsellCopyExperiment>);
static_assert(FirebaseABAssignment<UpsellVariantExperiment>);

class FirebaseABExperimentProvider {
public:
    FirebaseABExperimentProvider() = delete;

    /// Every experiment of the catalogue, in a fixed order: price test, grace period,
    /// ad-free upsell copy, upsell variant. Each call builds a new list.
    static std::vector<FirebaseABExperimentType> all();
};

}  // namespace kt
