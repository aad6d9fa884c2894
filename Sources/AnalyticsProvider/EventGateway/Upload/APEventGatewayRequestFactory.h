#pragma once
// Builds the one HTTP request that uploads a batch of gateway events: POST <base>/v1/events
// with a gzip-compressed JSON body and the gateway's headers.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Platform/HTTPRequest.h"
#include "KTAnalytics/Platform/JSONSerialization.h"

namespace kt {

class AnalyticsAttributeRegistry;
class KeychainCredentialStoring;

class APEventGatewayRequestFactory {
public:
    using DateFormatter = std::function<std::string(Date)>;
    using Clock = std::function<Date()>;
    using Events = std::vector<std::shared_ptr<const APEvent>>;
    /// Hands out the events of a batch one at a time, null after the last.
    using EventSource = std::function<std::shared_ptr<const APEvent>()>;

    static constexpr const char* kEventsPath = "/v1/events";

    /// `dateFormatter` formats "sent_at"; an empty one means `iso8601DateFormatter()`.
    /// `clock` gives the "sent_at" time; an empty one means the system clock.
    /// A null registry or keychain behaves as one without a user agent or credential.
    APEventGatewayRequestFactory(std::string baseURL, std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry,
                                 JSONSafeSerialization jsonSafeSerialization,
                                 std::shared_ptr<KeychainCredentialStoring> keychain, DateFormatter dateFormatter,
                                 bool shouldSendSentAt, Clock clock = {});
    APEventGatewayRequestFactory() = delete;

    /// "2024-05-01T09:30:00.125Z": UTC, milliseconds.
    static DateFormatter iso8601DateFormatter();

    /// The upload request for a non-empty batch, or nullopt (with the serialiser's message
    /// in `error`) when an event holds a value JSON cannot represent. `uncompressedBodySize`,
    /// when given, receives the size of the JSON before compression.
    std::optional<HTTPRequest> requestForEvents(const Events& events, std::string* error = nullptr,
                                                std::size_t* uncompressedBodySize = nullptr) const;
    /// The same for events pulled from `next` one at a time, each written into the
    /// compressor and let go before the next is asked for. `next` must give at least one.
    std::optional<HTTPRequest> requestForEventSource(const EventSource& next, std::string* error = nullptr,
                                                     std::size_t* uncompressedBodySize = nullptr) const;

    /// The JSON body in the layout that `shouldSendSentAt` selects.
    std::optional<std::string> eventsBody(const Events& events, std::string* error = nullptr) const;
    /// {"events": [...], "sent_at": "<now, formatted>"}.
    std::optional<std::string> eventsBodyWithTimeStamp(const Events& events, std::string* error = nullptr) const;
    /// A POST to `path` under the base URL with the gateway's headers and `body` gzipped.
    HTTPRequest requestWithPath(const std::string& path, const std::string& body) const;
    /// The signed-in user's token, nullopt when signed out.
    std::optional<std::string> tokenFromKeychain() const;

    const std::string& baseURL() const { return baseURL_; }
    bool shouldSendSentAt() const { return shouldSendSentAt_; }

private:
    using Sink = std::function<void(std::string_view)>;
    /// The body in the layout that `shouldSendSentAt` selects, in pieces.
    bool writeBody(const EventSource& events, const Sink& sink, std::string* error) const;
    bool writeBodyWithTimeStamp(const EventSource& events, const Sink& sink, std::string* error) const;
    /// The bare JSON array of the events' gateway dictionaries, one element at a time.
    bool writeEventsArray(const EventSource& events, const Sink& sink, std::string* error) const;
    HTTPRequest requestWithGzippedBody(const std::string& path, std::string body) const;
    std::string urlWithPath(const std::string& path) const;

    const std::string baseURL_;
    const std::shared_ptr<AnalyticsAttributeRegistry> analyticsAttributeRegistry_;
    const JSONSafeSerialization jsonSafeSerialization_;
    const std::shared_ptr<KeychainCredentialStoring> keychain_;
    const DateFormatter dateFormatter_;
    const bool shouldSendSentAt_;
    const Clock clock_;
    const std::string eventsURL_;  // the URL for kEventsPath, resolved once
};

}  // namespace kt
