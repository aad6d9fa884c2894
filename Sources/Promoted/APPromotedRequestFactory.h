#pragma once
// Turns a "promoted_event" into the plain GET that fires its tracking URL.

#include <optional>
#include <string>

#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

class APEventDescripting;

class APPromotedRequestFactory {
public:
    APPromotedRequestFactory() = default;

    /// GET of the event's "url" with the app's "User-Agent"; nullopt without a usable "url".
    std::optional<HTTPRequest> requestForEvent(const APEventDescripting& event) const;
    /// The "url" attribute, when it is a string that parses as an absolute URL.
    std::optional<std::string> URLFromEvent(const APEventDescripting& event) const;
    /// The app's user agent, read afresh from the shared environment on every call.
    std::string userAgent() const;
    /// A GET with no body and "User-Agent" as its only header.
    HTTPRequest makeRequestWithURL(const std::string& url, const std::string& userAgent) const;
};

}  // namespace kt
