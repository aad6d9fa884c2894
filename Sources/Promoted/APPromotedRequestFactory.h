#pragma once
// Turns a "promoted_event" into the plain GET that fires its tracking URL.

#include <optional>
#include <string>

#include "KTAnalytics/Platform/HTTPRequest.h"

namespace kt {

class APEventDescripting;

class APPromotedRequestFactory {
public:
    /// The user agent is read from the shared environment on every request.
    APPromotedRequestFactory() = default;
    /// Every request carries `userAgent`, whatever the shared environment says.
    explicit APPromotedRequestFactory(std::string userAgent);

    /// GET of the event's "url" with the app's "User-Agent"; nullopt without a usable "url".
    std::optional<HTTPRequest> requestForEvent(const APEventDescripting& event) const;
    /// The "url" attribute, when it is a string that parses as an absolute URL.
    std::optional<std::string> URLFromEvent(const APEventDescripting& event) const;
    /// The user agent given at construction, or else the shared environment's, read afresh.
    std::string userAgent() const;
    /// A GET with no body and "User-Agent" as its only header. Ad servers commonly answer a
    /// tracking pixel with a redirect, so it follows them: it carries no credentials.
    HTTPRequest makeRequestWithURL(const std::string& url, const std::string& userAgent) const;

private:
    std::optional<std::string> userAgent_;
};

}  // namespace kt
