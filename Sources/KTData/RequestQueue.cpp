#include "KTAnalytics/KTData/RequestQueue.h"

#include <algorithm>
#include <cctype>

#include <boost/url/parse.hpp>

namespace kt {

RequestResult requestResultFor(long status) {
    if (status >= 200 && status < 300) return RequestResult::delivered;
    // Time-outs and throttling say nothing about the request itself: try it again later.
    if (status >= 400 && status < 500 && status != 408 && status != 429) return RequestResult::rejected;
    return RequestResult::failed;
}

std::string requestOrigin(std::string_view url) {
    auto parsed = boost::urls::parse_uri(url);
    if (!parsed) return std::string(url);
    std::string host(parsed->encoded_host());
    std::transform(host.begin(), host.end(), host.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string port(parsed->port());
    if (port.empty()) port = parsed->scheme() == "https" ? "443" : "80";
    return std::string(parsed->scheme()) + "://" + host + ":" + port;
}

}  // namespace kt
