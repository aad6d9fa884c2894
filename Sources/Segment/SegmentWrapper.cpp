#include "KTAnalytics/Segment/SegmentWrapper.h"

#include <mutex>

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnonymousID.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"
#include "KTAnalytics/Segment/SegmentDependencyProvider.h"
#include "KTAnalytics/Segment/SegmentMiddlewareFactory.h"
#include "KTAnalytics/Segment/SegmentRequestRewriter.h"

namespace kt {
namespace {
constexpr const char* kFile = "Sources/Segment/SegmentWrapper";

std::vector<std::string> enabledKeys(const SegmentIntegrations& integrations) {
    std::vector<std::string> keys;
    for (const auto& [key, enabled] : integrations)
        if (enabled) keys.push_back(key);
    return keys;
}

bool tooDeep(const AttributeValue& values) { return value::nestsDeeperThan(values, SEGAnalytics::kMaximumNesting); }

AttributeValue integrationsObject(const SegmentIntegrations& integrations) {
    auto object = AttributeValue::object();
    for (const auto& [key, enabled] : integrations) object[key] = enabled;
    return object;
}
}  // namespace

SegmentWrapper::SegmentWrapper(std::shared_ptr<SegmentAnalyticsProtocol> segmentAnalytics,
                               std::shared_ptr<SegmentEventRecording> eventRecorder, std::shared_ptr<KTLogger> logger)
    : segmentAnalytics_(std::move(segmentAnalytics)),
      eventRecorder_(std::move(eventRecorder)),
      anonymousId_(segmentAnalytics_ ? segmentAnalytics_->getAnonymousId() : std::string()),
      logger_(std::move(logger)) {
    KT_PARAMETER_ASSERT(segmentAnalytics_);
}

SEGAnalyticsConfiguration SegmentWrapper::makeConfiguration(const SegmentWrapperSetup& setup) {
    auto configuration = SEGAnalyticsConfiguration::configurationWithWriteKey(setup.writeKey);
    if (!setup.apiHost.empty()) configuration.apiHost = setup.apiHost;
    configuration.flushAt = setup.flushAt;
    configuration.userAgent = setup.userAgent;
    if (setup.middlewareFactory) configuration.sourceMiddleware = setup.middlewareFactory->makeSourceMiddleware();
    if (setup.replacementAPIHost) {
        configuration.requestFactory = SegmentRequestRewriter::make(setup.keychain, configuration.apiHost,
                                                                    *setup.replacementAPIHost, setup.logger);
    }
    if (setup.middlewareFactory)
        for (auto& factory : setup.middlewareFactory->makeIntegrations()) configuration.use(std::move(factory));
    return configuration;
}

std::shared_ptr<SegmentWrapper> SegmentWrapper::make(SegmentWrapperSetup setup, SegmentMiddlewareSources sources,
                                                     SEGAnalyticsDependencies dependencies,
                                                     std::shared_ptr<SegmentEventRecording> eventRecorder) {
    // The context middleware reports the anonymous id of the client it is configured into,
    // which exists only afterwards.
    struct ClientSlot {
        std::mutex mutex;
        std::weak_ptr<SEGAnalytics> client;
    };
    auto slot = std::make_shared<ClientSlot>();
    if (!sources.anonymousId) {
        sources.anonymousId = [slot] {
            std::lock_guard lock(slot->mutex);
            auto client = slot->client.lock();
            return client ? client->getAnonymousId() : std::string();
        };
    }
    setup.middlewareFactory = std::make_shared<SegmentMiddlewareFactory>(std::move(sources));
    auto client = std::make_shared<SEGAnalytics>(makeConfiguration(setup), std::move(dependencies));
    {
        std::lock_guard lock(slot->mutex);
        slot->client = client;
    }
    return std::make_shared<SegmentWrapper>(client, std::move(eventRecorder), setup.logger);
}

namespace {
struct SharedSlot {
    std::mutex mutex;
    std::shared_ptr<SegmentWrapper> installed;  // the started SDK's
    std::shared_ptr<SegmentWrapper> fromHooks;  // built on first use without one
};
// The gateway's events report the shared wrapper's anonymous id (none without one).
void reportAnonymousIdOf(const std::shared_ptr<SegmentWrapper>& wrapper) {
    if (!wrapper) return AnonymousID::setSegmentAnonymousIdSource(nullptr);
    AnonymousID::setSegmentAnonymousIdSource([weak = std::weak_ptr<SegmentWrapper>(wrapper)] {
        auto wrapper = weak.lock();
        return wrapper ? wrapper->anonymousId() : std::string();
    });
}

SharedSlot& sharedSlot() {
    // Destroyed at exit like any static, so the wrapper's client stops and joins its worker
    // then, before the statics it uses go; a slot that is never destroyed would leave that
    // worker running into their destruction.
    static SharedSlot slot;
    return slot;
}
}  // namespace

std::shared_ptr<SegmentWrapper> SegmentWrapper::shared() {
    auto& slot = sharedSlot();
    std::lock_guard lock(slot.mutex);
    if (slot.installed) return slot.installed;
    if (slot.fromHooks) return slot.fromHooks;
    SegmentWrapperSetup setup;
    setup.writeKey = KTEnvironment::sharedInstance()->segmentWriteKey;
    setup.replacementAPIHost = SegmentDependencyProvider::rewriteToEventGatewayHost();
    setup.keychain = SegmentDependencyProvider::keychain();
    setup.logger = SegmentDependencyProvider::logger();
    setup.userAgent = KTEnvironment::sharedInstance()->userAgent;
    if (setup.replacementAPIHost && setup.keychain && !setup.keychain->credential())
        KT_LOG(setup.logger, 2, kFile, "shared()",
               "No credential: uploads re-addressed to {} go unsigned until the keychain hook answers one",
               *setup.replacementAPIHost);
    auto wrapper = make(std::move(setup), SegmentMiddlewareFactory::sourcesFromHooks(nullptr, nullptr),
                        SegmentDependencyProvider::clientDependencies(), SegmentEventRecorder::shared());
    reportAnonymousIdOf(wrapper);
    slot.fromHooks = wrapper;
    return wrapper;
}

void SegmentWrapper::setShared(std::shared_ptr<SegmentWrapper> wrapper) {
    auto& slot = sharedSlot();
    std::lock_guard lock(slot.mutex);
    slot.installed = std::move(wrapper);
    reportAnonymousIdOf(slot.installed ? slot.installed : slot.fromHooks);
}

void SegmentWrapper::track(const std::string& name, std::int64_t version,
                           const std::optional<AttributeValue>& properties, const SegmentIntegrations& integrations) {
    AttributeValue options = {{"integrations", integrationsObject(integrations)},
                              {"context", {{"protocols", {{"event_version", version}}}}}};
    segmentAnalytics_->track(name, properties, options);
    const bool mirrored = eventRecorder_ && eventRecorder_->isRecording();
    const bool logged = logger_ && logger_->isEnabled(1);
    // The client refuses (and counts) properties nested too deeply; the mirror and the log
    // line must not walk them either.
    if ((!mirrored && !logged) || (properties && tooDeep(*properties))) return;

    if (mirrored) {
        auto mirrored = properties && properties->is_object() ? *properties : AttributeValue::object();
        mirrored["version"] = version;
        eventRecorder_->record(name, mirrored, enabledKeys(integrations));
    }
    KT_LOG(logger_, 1, kFile, "track(_:version:properties:integrations:)", "{} {}", name,
           properties ? properties->dump(-1, ' ', false, AttributeValue::error_handler_t::replace) : std::string("nil"));
}

void SegmentWrapper::identify(const std::string& userId, const std::optional<AttributeValue>& traits,
                              const SegmentIntegrations& integrations) {
    AttributeValue options = {{"integrations", integrationsObject(integrations)}};
    segmentAnalytics_->identify(userId, traits, options);
    if (eventRecorder_ && eventRecorder_->isRecording() && !(traits && tooDeep(*traits)))
        eventRecorder_->record("Identify: " + userId, traits, enabledKeys(integrations));
}

void SegmentWrapper::flush() { segmentAnalytics_->flush(); }

}  // namespace kt
