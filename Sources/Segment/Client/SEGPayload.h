#pragma once
// The messages of the product-analytics client, the source-middleware chain they pass
// through and the device-mode integrations that may receive them.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

/// What every message carries. "context" and "integrations" are JSON objects.
class SEGPayload {
public:
    virtual ~SEGPayload() = default;

    AttributeValue context = AttributeValue::object();
    AttributeValue integrations = AttributeValue::object();
    /// A UUID, set when the message is made; a middleware that rebuilds a payload copies it.
    std::string messageId;
    /// ISO 8601 UTC with milliseconds, set when the message is made.
    std::string timestamp;

protected:
    SEGPayload(AttributeValue context, AttributeValue integrations);
};

class SEGTrackPayload final : public SEGPayload {
public:
    SEGTrackPayload(std::string event, std::optional<AttributeValue> properties, AttributeValue context,
                    AttributeValue integrations);

    std::string event;
    std::optional<AttributeValue> properties;
};

class SEGIdentifyPayload final : public SEGPayload {
public:
    SEGIdentifyPayload(std::optional<std::string> userId, std::optional<std::string> anonymousId,
                       std::optional<AttributeValue> traits, AttributeValue context, AttributeValue integrations);

    std::optional<std::string> userId;
    std::optional<std::string> anonymousId;
    std::optional<AttributeValue> traits;
};

/// The context a middleware sees: the payload on its way to the queue.
struct SEGContext {
    std::shared_ptr<const SEGPayload> payload;

    /// A copy of this context changed by `modify`.
    SEGContext modify(const std::function<void(SEGContext&)>& modify) const {
        SEGContext copy = *this;
        modify(copy);
        return copy;
    }
};

/// Hands the context to the next middleware (or, after the last, to the queue). A
/// middleware that does not call it drops the message (counted by the client).
using SEGMiddlewareNext = std::function<void(SEGContext)>;

class SEGMiddleware {
public:
    virtual ~SEGMiddleware() = default;
    virtual void context(SEGContext context, const SEGMiddlewareNext& next) = 0;
};

/// A middleware made of a function.
class SEGBlockMiddleware final : public SEGMiddleware {
public:
    using Block = std::function<void(SEGContext, const SEGMiddlewareNext&)>;
    explicit SEGBlockMiddleware(Block block) : block_(std::move(block)) {}
    void context(SEGContext context, const SEGMiddlewareNext& next) override { block_(std::move(context), next); }

private:
    Block block_;
};

/// A device-mode destination: receives, in the process, the messages whose integrations
/// map enables its key.
class SEGIntegration {
public:
    virtual ~SEGIntegration() = default;
    virtual void track(const SEGTrackPayload& payload) = 0;
    virtual void identify(const SEGIdentifyPayload&) {}
    virtual void flush() {}
};

class SEGAnalytics;

class SEGIntegrationFactory {
public:
    virtual ~SEGIntegrationFactory() = default;
    /// The key of the integration in a message's integrations map ("Firebase").
    virtual std::string key() const = 0;
    /// `settings` is an empty object: this client fetches no remote settings.
    virtual std::shared_ptr<SEGIntegration> createWithSettings(const AttributeValue& settings,
                                                               SEGAnalytics& analytics) = 0;
};

}  // namespace kt
