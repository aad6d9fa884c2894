#include "KTAnalytics/Segment/Client/SEGPayload.h"

namespace kt {

SEGPayload::SEGPayload(AttributeValue context, AttributeValue integrations)
    : context(std::move(context)), integrations(std::move(integrations)) {}

SEGTrackPayload::SEGTrackPayload(std::string event, std::optional<AttributeValue> properties, AttributeValue context,
                                 AttributeValue integrations)
    : SEGPayload(std::move(context), std::move(integrations)), event(std::move(event)), properties(std::move(properties)) {}

SEGIdentifyPayload::SEGIdentifyPayload(std::optional<std::string> userId, std::optional<std::string> anonymousId,
                                       std::optional<AttributeValue> traits, AttributeValue context,
                                       AttributeValue integrations)
    : SEGPayload(std::move(context), std::move(integrations)),
      userId(std::move(userId)),
      anonymousId(std::move(anonymousId)),
      traits(std::move(traits)) {}

}  // namespace kt
