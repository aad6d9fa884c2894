#include "KTAnalytics/Promoted/APPromotedRequestFactory.h"

#include <boost/url/parse.hpp>

#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/Middleware/APEventDescripting.h"

namespace kt {

APPromotedRequestFactory::APPromotedRequestFactory(std::string userAgent) : userAgent_(std::move(userAgent)) {}

std::optional<HTTPRequest> APPromotedRequestFactory::requestForEvent(const APEventDescripting& event) const {
    auto url = URLFromEvent(event);
    if (!url) return std::nullopt;
    return makeRequestWithURL(*url, userAgent());
}

std::optional<std::string> APPromotedRequestFactory::URLFromEvent(const APEventDescripting& event) const {
    const AttributeDictionary* attributes = event.attributes();
    if (!attributes) return std::nullopt;
    const auto url = attributes->find("url");
    if (url == attributes->end() || !url->is_string()) return std::nullopt;
    const auto& text = url->get_ref<const std::string&>();
    if (!boost::urls::parse_absolute_uri(text)) return std::nullopt;
    return text;
}

std::string APPromotedRequestFactory::userAgent() const {
    return userAgent_ ? *userAgent_ : KTEnvironment::sharedInstance()->userAgent;
}

HTTPRequest APPromotedRequestFactory::makeRequestWithURL(const std::string& url, const std::string& userAgent) const {
    HTTPRequest request;
    request.url = url;
    request.method = "GET";
    request.setValue(userAgent, "User-Agent");
    request.followsRedirects = true;
    return request;
}

}  // namespace kt
