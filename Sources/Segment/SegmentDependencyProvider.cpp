#include "KTAnalytics/Segment/SegmentDependencyProvider.h"

#include <boost/url/parse.hpp>

#include "KTAnalytics/KTData/CurlRequestQueue.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/KTFoundation/KTLogger.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"

namespace kt {
namespace {

std::optional<std::string> gatewayHost() {
    auto url = boost::urls::parse_uri(KTEnvironment::sharedInstance()->eventGatewayBaseURL);
    if (!url || url->encoded_host().empty()) return std::nullopt;
    return std::string(url->encoded_host());
}

std::shared_ptr<KTLogger> defaultLogger() { return makeSpdlogLogger(KTEnvironment::sharedInstance()->logLevel); }

SEGAnalyticsDependencies defaultClientDependencies() {
    auto environment = KTEnvironment::sharedInstance();
    CurlRequestQueueConfiguration configuration;
    configuration.baseURL = environment->eventGatewayBaseURL;
    configuration.totalTimeout = environment->requestTimeout;
    SEGAnalyticsDependencies dependencies;
    dependencies.requestQueue = std::make_shared<CurlRequestQueue>(configuration, nullptr, nullptr);
    dependencies.stateDirectory = environment->cachesDirectory();  // the client adds "segment"
    dependencies.logger = SegmentDependencyProvider::logger();
    return dependencies;
}

std::vector<std::string> noVariants() { return {}; }
std::optional<std::string> noAnalyticsId() { return std::nullopt; }
std::shared_ptr<KeychainCredentialStoring> signedOut() { return std::make_shared<InMemoryCredentialStore>(); }

}  // namespace

std::function<std::optional<std::string>()> SegmentDependencyProvider::rewriteToEventGatewayHost = gatewayHost;
std::function<std::vector<std::string>()> SegmentDependencyProvider::assignedVariantIds = noVariants;
std::function<std::optional<std::string>()> SegmentDependencyProvider::analyticsId = noAnalyticsId;
std::function<DependencyResult<MoEngageEventLogging>()> SegmentDependencyProvider::moEngageEventLogger =
    dependencyHook<MoEngageEventLogging>(nullptr);
std::function<DependencyResult<FirebaseAnalyticsControlling>()> SegmentDependencyProvider::firebaseAnalyticsController =
    dependencyHook<FirebaseAnalyticsControlling>(nullptr);
std::function<SEGAnalyticsDependencies()> SegmentDependencyProvider::clientDependencies = defaultClientDependencies;
std::function<std::shared_ptr<KeychainCredentialStoring>()> SegmentDependencyProvider::keychain = signedOut;
std::function<std::shared_ptr<KTLogger>()> SegmentDependencyProvider::logger = defaultLogger;

void SegmentDependencyProvider::reset() {
    rewriteToEventGatewayHost = gatewayHost;
    assignedVariantIds = noVariants;
    analyticsId = noAnalyticsId;
    moEngageEventLogger = dependencyHook<MoEngageEventLogging>(nullptr);
    firebaseAnalyticsController = dependencyHook<FirebaseAnalyticsControlling>(nullptr);
    clientDependencies = defaultClientDependencies;
    keychain = signedOut;
    logger = defaultLogger;
}

}  // namespace kt
