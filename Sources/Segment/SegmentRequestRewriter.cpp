#include "KTAnalytics/Segment/SegmentRequestRewriter.h"

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/KTFoundation/OAuthHelper.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"

namespace kt {
namespace {
constexpr const char* kFile = "Sources/Segment/SegmentRequestRewriter";

std::optional<std::string> hostOf(const std::string& url) {
    auto parsed = boost::urls::parse_uri_reference(url);
    if (!parsed || !parsed->has_authority() || parsed->encoded_host().empty()) return std::nullopt;
    return std::string(parsed->encoded_host());
}
}  // namespace

SegmentRequestRewriter SegmentRequestRewriter::make(std::shared_ptr<KeychainCredentialStoring> keychain,
                                                    const std::string& apiHost, std::string replacementAPIHost,
                                                    std::shared_ptr<KTLogger> logger) {
    // Read as the client reads it: a host without a scheme ("api.example.com/v1") is still a host.
    auto defaultHost = hostOf(SEGAnalyticsConfiguration::apiURL({})).value_or(std::string());
    auto host = hostOf(SEGAnalyticsConfiguration::apiURL(apiHost)).value_or(defaultHost);
    return SegmentRequestRewriter{std::move(keychain), std::move(host), std::move(replacementAPIHost),
                                  std::move(defaultHost), std::move(logger)};
}

HTTPRequest SegmentRequestRewriter::operator()(const std::string& url) const {
    HTTPRequest plain;
    plain.url = url;
    auto parsed = boost::urls::parse_uri_reference(url);
    if (!parsed || !parsed->has_authority() || parsed->encoded_host().empty() ||
        parsed->encoded_host() != segmentAPIHost)
        return plain;

    boost::urls::url rewritten(*parsed);
    try {
        rewritten.set_encoded_host(replacementAPIHost);
    } catch (const std::exception&) {
        return plain;  // a replacement that is no host leaves the request as it was
    }
    HTTPRequest request;
    request.url = std::string(rewritten.buffer());
    if (!boost::urls::parse_uri(request.url)) return plain;

    if (auto credential = keychain ? keychain->credential() : std::nullopt) {
        request.setValue(OAuthHelper::authHeaderForToken(*credential), "Authorization");
    } else {
        KT_LOG(logger, 3, kFile, "addAuthorizationHeader(_:)", "Missing credentials for segment request");
    }
    return request;
}

}  // namespace kt
