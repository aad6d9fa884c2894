#include "KTAnalytics/Segment/SegmentIntegrationIdentifier.h"

namespace kt {
namespace {
struct Names {
    std::string_view providerName;
    std::string_view integrationKey;
};
constexpr Names kNames[] = {{"braze", "Appboy"}, {"firebase", "Firebase"}, {"mo-engage", "MoEngage"}};
}  // namespace

std::optional<SegmentIntegrationIdentifier> SegmentIntegrationIdentifier::fromProviderName(std::string_view name) {
    for (auto c : allCases)
        if (kNames[c].providerName == name) return SegmentIntegrationIdentifier(c);
    return std::nullopt;
}

std::optional<SegmentIntegrationIdentifier> SegmentIntegrationIdentifier::fromIntegrationKey(std::string_view key) {
    for (auto c : allCases)
        if (kNames[c].integrationKey == key) return SegmentIntegrationIdentifier(c);
    return std::nullopt;
}

bool SegmentIntegrationIdentifier::isIntegrationKey(std::string_view key) { return fromIntegrationKey(key).has_value(); }

std::string_view SegmentIntegrationIdentifier::providerName() const { return kNames[value_].providerName; }
std::string_view SegmentIntegrationIdentifier::integrationKey() const { return kNames[value_].integrationKey; }

}  // namespace kt
