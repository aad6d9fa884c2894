#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"

#include <chrono>
#include <cstdio>
#include <ctime>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/OAuthHelper.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

// Appends `path` (which starts with "/") to the path of `base`, whether or not the base
// has a path of its own or a trailing slash; query and fragment stay where they are.
std::string appendingPath(const std::string& base, const std::string& path) {
    auto parsed = boost::urls::parse_uri_reference(base);
    if (!parsed) {
        // Not a URL at all: the request still goes out and the request queue reports the
        // failure, which the uploader handles like any other failed send.
        std::string text = base;
        while (!text.empty() && text.back() == '/') text.pop_back();
        return text + path;
    }
    boost::urls::url url(*parsed);
    std::string encodedPath(url.encoded_path());
    while (!encodedPath.empty() && encodedPath.back() == '/') encodedPath.pop_back();
    url.set_encoded_path(encodedPath + path);
    return std::string(url.buffer());
}

}  // namespace

APEventGatewayRequestFactory::APEventGatewayRequestFactory(std::string baseURL,
                                                           std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry,
                                                           JSONSafeSerialization jsonSafeSerialization,
                                                           std::shared_ptr<KeychainCredentialStoring> keychain,
                                                           DateFormatter dateFormatter, bool shouldSendSentAt,
                                                           Clock clock)
    : baseURL_(std::move(baseURL)),
      analyticsAttributeRegistry_(std::move(attributeRegistry)),
      jsonSafeSerialization_(jsonSafeSerialization),
      keychain_(std::move(keychain)),
      dateFormatter_(dateFormatter ? std::move(dateFormatter) : iso8601DateFormatter()),
      shouldSendSentAt_(shouldSendSentAt),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); })),
      eventsURL_(appendingPath(baseURL_, kEventsPath)) {}

APEventGatewayRequestFactory::DateFormatter APEventGatewayRequestFactory::iso8601DateFormatter() {
    return [](Date date) {
        using namespace std::chrono;
        const auto millis = time_point_cast<milliseconds>(date);
        const auto seconds = floor<std::chrono::seconds>(millis);
        const auto fraction = static_cast<int>((millis - seconds).count());
        const std::time_t time = system_clock::to_time_t(seconds);
        std::tm utc{};
        gmtime_r(&time, &utc);
        char text[64];
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                      utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, fraction);
        return std::string(text);
    };
}

namespace {

APEventGatewayRequestFactory::EventSource sourceOf(const APEventGatewayRequestFactory::Events& events) {
    return [&events, i = std::size_t{0}]() mutable {
        return i < events.size() ? events[i++] : std::shared_ptr<const APEvent>();
    };
}

}  // namespace

std::optional<HTTPRequest> APEventGatewayRequestFactory::requestForEvents(const Events& events, std::string* error,
                                                                          std::size_t* uncompressedBodySize) const {
    KT_PARAMETER_ASSERT_TEXT(!events.empty(), "[events count] > 0");
    return requestForEventSource(sourceOf(events), error, uncompressedBodySize);
}

std::optional<HTTPRequest> APEventGatewayRequestFactory::requestForEventSource(const EventSource& events,
                                                                               std::string* error,
                                                                               std::size_t* uncompressedBodySize) const {
    // The body goes into the compressor element by element: a batch of thousands of events
    // never exists as one JSON text, only as its (much smaller) gzip form.
    GzipWriter gzip;
    if (!gzip.isValid()) {
        if (error) *error = "the compressor could not be set up";
        return std::nullopt;
    }
    if (!writeBody(events, [&gzip](std::string_view piece) { gzip.append(piece); }, error)) return std::nullopt;
    if (uncompressedBodySize) *uncompressedBodySize = gzip.uncompressedSize();
    return requestWithGzippedBody(kEventsPath, gzip.finish());
}

std::optional<std::string> APEventGatewayRequestFactory::eventsBody(const Events& events, std::string* error) const {
    std::string body;
    if (!writeBody(sourceOf(events), [&body](std::string_view piece) { body += piece; }, error)) return std::nullopt;
    return body;
}

std::optional<std::string> APEventGatewayRequestFactory::eventsBodyWithTimeStamp(const Events& events,
                                                                                 std::string* error) const {
    std::string body;
    if (!writeBodyWithTimeStamp(sourceOf(events), [&body](std::string_view piece) { body += piece; }, error))
        return std::nullopt;
    return body;
}

bool APEventGatewayRequestFactory::writeBody(const EventSource& events, const Sink& sink, std::string* error) const {
    return shouldSendSentAt_ ? writeBodyWithTimeStamp(events, sink, error) : writeEventsArray(events, sink, error);
}

bool APEventGatewayRequestFactory::writeBodyWithTimeStamp(const EventSource& events, const Sink& sink,
                                                          std::string* error) const {
    auto sentAt = jsonSafeSerialization_.dataWithJSONObject(AttributeValue(dateFormatter_(clock_())), error);
    if (!sentAt) return false;
    sink("{\"events\":");
    if (!writeEventsArray(events, sink, error)) return false;
    sink(",\"sent_at\":");
    sink(*sentAt);
    sink("}");
    return true;
}

// Writes the array element by element instead of building one big JSON value: each
// payload is serialised straight from the event, which is shared and never copied. The
// elements are exactly the events' gateway dictionaries.
bool APEventGatewayRequestFactory::writeEventsArray(const EventSource& events, const Sink& sink,
                                                    std::string* error) const {
    std::string out = "[";
    bool first = true;
    while (const auto event = events()) {
        const AttributeDictionary* payload = event->attributes();
        // An event without attributes has no gateway dictionary; asking for it stops the
        // process with the event core's own message.
        if (payload == nullptr) (void)event->eventGatewayDictionary();
        if (!first) out += ',';
        first = false;
        // Each element is written into one reused buffer, straight from the event.
        out += "{\"event\":";
        if (!jsonSafeSerialization_.appendJSONObject(AttributeValue(event->name()), out, error)) return false;
        out += ",\"version\":\"";
        out += APEvent::kEventGatewayVersion;
        out += "\",\"payload\":";
        if (!jsonSafeSerialization_.appendJSONObject(*payload, out, error)) return false;
        out += '}';
        sink(out);
        out.clear();
    }
    out += ']';
    sink(out);
    return true;
}

std::string APEventGatewayRequestFactory::urlWithPath(const std::string& path) const {
    return path == kEventsPath ? eventsURL_ : appendingPath(baseURL_, path);
}

HTTPRequest APEventGatewayRequestFactory::requestWithPath(const std::string& path, const std::string& body) const {
    auto gzipped = GzipCodec::gzippedData(body);
    return requestWithGzippedBody(path, gzipped ? std::move(*gzipped) : std::string());
}

HTTPRequest APEventGatewayRequestFactory::requestWithGzippedBody(const std::string& path, std::string body) const {
    HTTPRequest request;
    request.url = urlWithPath(path);
    request.method = "POST";
    if (analyticsAttributeRegistry_) {
        if (const auto& userAgent = analyticsAttributeRegistry_->userAgent()) request.setValue(*userAgent, "User-Agent");
    }
    request.setValue("application/json", "Content-Type");
    request.setValue("gzip", "Content-Encoding");
    if (auto token = tokenFromKeychain()) request.setValue(OAuthHelper::authHeaderForToken(*token), "Authorization");
    request.body = std::move(body);
    return request;
}

std::optional<std::string> APEventGatewayRequestFactory::tokenFromKeychain() const {
    return keychain_ ? keychain_->credential() : std::nullopt;
}

}  // namespace kt
