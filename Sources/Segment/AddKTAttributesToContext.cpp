#include "KTAnalytics/Segment/AddKTAttributesToContext.h"

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProviding.h"

#if defined(__clang__)
#define KT_ANONYMOUS_ID_PROVIDER anonyMouseIdProvider
#else
#define KT_ANONYMOUS_ID_PROVIDER anony🐭IdProvider
#endif

namespace kt {

AddKTAttributesToContext::AddKTAttributesToContext(std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry,
                                                   std::function<std::vector<std::string>()> assignedVariantIdsProvider,
                                                   std::function<std::string()> anonymousIdProvider,
                                                   std::function<std::optional<std::string>()> analyticsIdProvider,
                                                   std::shared_ptr<SessionIdProviding> sessionIdProvider)
    : attributeRegistry(std::move(attributeRegistry)),
      assignedVariantIdsProvider(std::move(assignedVariantIdsProvider)),
      KT_ANONYMOUS_ID_PROVIDER(std::move(anonymousIdProvider)),
      analyticsIdProvider(std::move(analyticsIdProvider)),
      sessionIdProvider(std::move(sessionIdProvider)) {}

AttributeValue AddKTAttributesToContext::ktAttributes() const {
    auto attributes = attributeRegistry ? attributeRegistry->snapshot() : nullptr;
    auto orNull = [](const auto& optional) {
        return optional ? AttributeValue(*optional) : AttributeValue(nullptr);
    };
    auto variants = assignedVariantIdsProvider ? assignedVariantIdsProvider() : std::vector<std::string>{};
    auto kt = AttributeValue::object();
    kt["client_application_id"] = attributes ? orNull(attributes->clientId) : AttributeValue(nullptr);
    kt["anonymous_id"] = KT_ANONYMOUS_ID_PROVIDER ? KT_ANONYMOUS_ID_PROVIDER() : std::string();
    kt["user_id"] = attributes ? orNull(attributes->userUrn) : AttributeValue(nullptr);
    kt["part_of_variants"] = variants.empty() ? AttributeValue(nullptr) : AttributeValue(variants);
    kt["analytics_id"] = analyticsIdProvider ? orNull(analyticsIdProvider()) : AttributeValue(nullptr);
    kt["session_id"] = sessionIdProvider ? AttributeValue(sessionIdProvider->getSessionId().uuidString())
                                         : AttributeValue(nullptr);
    return kt;
}

std::shared_ptr<const SEGPayload> AddKTAttributesToContext::process(const std::shared_ptr<const SEGPayload>& payload) const {
    if (!payload) return payload;
    auto context = payload->context.is_object() ? payload->context : AttributeValue::object();
    context["kt"] = ktAttributes();
    std::shared_ptr<SEGPayload> rebuilt;
    if (auto track = std::dynamic_pointer_cast<const SEGTrackPayload>(payload)) {
        rebuilt = std::make_shared<SEGTrackPayload>(track->event, track->properties, std::move(context),
                                                    track->integrations);
    } else if (auto identify = std::dynamic_pointer_cast<const SEGIdentifyPayload>(payload)) {
        rebuilt = std::make_shared<SEGIdentifyPayload>(identify->userId, identify->anonymousId, identify->traits,
                                                       std::move(context), identify->integrations);
    } else {
        return payload;
    }
    rebuilt->messageId = payload->messageId;
    rebuilt->timestamp = payload->timestamp;
    return rebuilt;
}

void AddKTAttributesToContext::context(SEGContext context, const SEGMiddlewareNext& next) {
    next(context.modify([this](SEGContext& c) { c.payload = process(c.payload); }));
}

}  // namespace kt
