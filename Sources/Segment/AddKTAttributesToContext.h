#pragma once
// The source middleware that adds the product's own attributes to every message's
// context under "kt": client id, anonymous id, user, experiment variants, analytics id and
// the analytics session.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/Segment/Client/SEGPayload.h"

namespace kt {

class AnalyticsAttributeRegistry;
class SessionIdProviding;

class AddKTAttributesToContext final : public SEGMiddleware {
public:
    AddKTAttributesToContext(std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry,
                             std::function<std::vector<std::string>()> assignedVariantIdsProvider,
                             std::function<std::string()> anonymousIdProvider,
                             std::function<std::optional<std::string>()> analyticsIdProvider,
                             std::shared_ptr<SessionIdProviding> sessionIdProvider);

    /// The six "kt" pairs, absent values as null.
    AttributeValue ktAttributes() const;
    /// The payload rebuilt with "kt" set in its context; other kinds of payload unchanged.
    std::shared_ptr<const SEGPayload> process(const std::shared_ptr<const SEGPayload>& payload) const;
    /// Hands on the payload rebuilt by `process`.
    void context(SEGContext context, const SEGMiddlewareNext& next) override;

    const std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry;
    const std::function<std::vector<std::string>()> assignedVariantIdsProvider;
#if defined(__clang__)
    // clang refuses the emoji the name carries under GCC.
    const std::function<std::string()> anonyMouseIdProvider;
#else
    const std::function<std::string()> anony🐭IdProvider;
#endif
    const std::function<std::optional<std::string>()> analyticsIdProvider;
    const std::shared_ptr<SessionIdProviding> sessionIdProvider;
};

}  // namespace kt
