#pragma once
// Normalises a tracking event for the product-analytics wrapper: absent values become
// null, and the integrations map lets the event reach only the destinations it names.

#include <memory>

#include "KTAnalytics/Segment/SegmentWrapping.h"
#include "KTAnalytics/TrackingArchitecture/EventBrokering.h"

namespace kt {

class EventBroker final : public EventBrokering {
public:
    explicit EventBroker(std::shared_ptr<SegmentWrapping> segmentWrapper);

    void track(TrackingEvent event) override;
    void identify(const std::string& userId, const AttributeValue& traits) override;
    void flush() override;

    /// The integrations map of an event: its third parties, else the known keys of a
    /// "providers" map among its properties, else none; always with "All" false.
    static SegmentIntegrations integrationsFor(const TrackingEvent& event);

private:
    std::shared_ptr<SegmentWrapping> segmentWrapper_;
};

}  // namespace kt
