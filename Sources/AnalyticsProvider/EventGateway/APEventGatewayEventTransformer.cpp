#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

APEventGatewayEventTransformer::APEventGatewayEventTransformer(
    std::shared_ptr<const EventGatewayAttributesProviding> attributesProvider)
    : attributesProvider_(std::move(attributesProvider)) {
    KT_PARAMETER_ASSERT_TEXT(attributesProvider_, "attributesProvider");
}

const std::array<std::string_view, 3>& APEventGatewayEventTransformer::ignoredAttributes() {
    static constexpr std::array<std::string_view, 3> kIgnored{"resource", "resource_id", "set"};
    return kIgnored;
}

std::optional<AttributeDictionary> APEventGatewayEventTransformer::transformedAttributesForEvent(
    const APEventDescripting& event) const {
    // The base attributes are read even for an event without attributes, so that their
    // sources (the session id above all) see every event; they are then dropped with it.
    AttributeDictionary base = attributesProvider_->baseAttributesFor(event);
    const AttributeDictionary* own = event.attributes();
    if (own == nullptr || !own->is_object()) return std::nullopt;

    // The one copy this needs: the event is shared and immutable.
    AttributeDictionary result = *own;
    auto& target = result.get_ref<AttributeDictionary::object_t&>();
    if (base.is_object()) {
        // Moves the nodes of the keys the event lacks without reallocating them; what is
        // left in `base` are keys both have, where the base value wins.
        auto& source = base.get_ref<AttributeDictionary::object_t&>();
        target.merge(source);
        for (auto& [key, value] : source) target.find(key)->second = std::move(value);
    }
    for (std::string_view key : ignoredAttributes()) {
        if (auto it = target.find(key); it != target.end()) target.erase(it);
    }
    return result;
}

std::shared_ptr<const APEventDescripting> APEventGatewayEventTransformer::transform(
    const APEventDescripting& event) const {
    // Same result as a fresh builder given the name and these attributes, without copying
    // the dictionary once more through the builder.
    std::optional<AttributeDictionary> attributes = transformedAttributesForEvent(event);
    return APEvent::make(event.name(), attributes ? std::move(*attributes) : AttributeDictionary::object());
}

}  // namespace kt
