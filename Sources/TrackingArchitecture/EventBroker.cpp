#include "KTAnalytics/TrackingArchitecture/EventBroker.h"

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Segment/SegmentIntegrationIdentifier.h"

namespace kt {

EventBroker::EventBroker(std::shared_ptr<SegmentWrapping> segmentWrapper) : segmentWrapper_(std::move(segmentWrapper)) {
    KT_PARAMETER_ASSERT(segmentWrapper_);
}

SegmentIntegrations EventBroker::integrationsFor(const TrackingEvent& event) {
    SegmentIntegrations integrations;
    if (!event.thirdParties.empty()) {
        for (const auto& name : event.thirdParties)
            if (auto identifier = SegmentIntegrationIdentifier::fromProviderName(name))
                integrations[std::string(identifier->integrationKey())] = true;
    } else if (event.properties) {
        for (const auto& [key, value] : *event.properties) {
            if (key != "providers" || !value || !value->is_object()) continue;
            // Only a map of booleans is a providers map; anything else is an ordinary property.
            bool allBooleans = true;
            for (const auto& [provider, enabled] : value->items()) allBooleans = allBooleans && enabled.is_boolean();
            if (!allBooleans) break;
            for (const auto& [provider, enabled] : value->items())
                if (SegmentIntegrationIdentifier::isIntegrationKey(provider)) integrations[provider] = enabled.get<bool>();
            break;
        }
    }
    integrations["All"] = false;
    return integrations;
}

void EventBroker::track(TrackingEvent event) {
    const auto integrations = integrationsFor(event);
    // Moved, not copied: a copy walks every value recursively, however deep.
    std::optional<AttributeValue> properties;
    if (event.properties) {
        properties = AttributeValue::object();
        for (auto& [key, value] : *event.properties)
            (*properties)[key] = value ? std::move(*value) : AttributeValue(nullptr);
    }
    segmentWrapper_->track(event.name, event.version, properties, integrations);
}

void EventBroker::identify(const std::string& userId, const AttributeValue& traits) {
    segmentWrapper_->identify(userId, traits, SegmentIntegrations{{"All", false}});
}

void EventBroker::flush() { segmentWrapper_->flush(); }

}  // namespace kt
