#include "KTAnalytics/Setup/AnalyticsStack.h"

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include <sys/stat.h>

#include "KTAnalytics/Analytics/FirebaseAnalyticsController.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsEventFactory.h"
#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsRecording.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayEventTransformer.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/AnonymousID.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/EventGatewayAttributesProvider.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/SessionIdProvider.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayBatchUploader.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventSerializer.h"
#include "KTAnalytics/Attribution/AttributableEventCenter.h"
#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/FirebaseABManager.h"
#include "KTAnalytics/Firebase/RemoteConfigProviding.h"
#include "KTAnalytics/KTData/CurlRequestQueue.h"
#include "KTAnalytics/KTData/ReliableRequestUploader.h"
#include "KTAnalytics/Promoted/APPromotedAnalyticsProvider.h"
#include "KTAnalytics/KTFoundation/AnalyticsIdProviding.h"
#include "KTAnalytics/KTFoundation/ConnectivityStateDetecting.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/DependencyRegistry.h"
#include "KTAnalytics/KTFoundation/KTLogger.h"
#include "KTAnalytics/KTFoundation/KeyValueStoring.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/KTFoundation/PersistedPrivacySettings.h"
#include "KTAnalytics/Middleware/AssignedABTestVariantIDProviding.h"
#include "KTAnalytics/Platform/OwnerOnlyFiles.h"
#include "KTAnalytics/Platform/SerialQueue.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "KTAnalytics/Segment/Client/SEGAnalytics.h"
#include "KTAnalytics/Segment/SegmentWrapper.h"
#include "KTAnalytics/Setup/Detail/ResultNotifyingRequestQueue.h"
#include "KTAnalytics/TrackingArchitecture/EventBroker.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"

namespace kt {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// The product-analytics API URL as the client reads it; nullopt when it is no http(s) URL
// with a host.
std::optional<std::string> segmentAPIBase(const std::string& configured) {
    std::string text = SEGAnalyticsConfiguration::apiURL(configured);
    auto url = boost::urls::parse_uri(text);
    if (!url || (url->scheme() != "http" && url->scheme() != "https") || url->encoded_host().empty())
        return std::nullopt;
    return text;
}

constexpr const char* kFile = "Sources/Setup/AnalyticsStack";
constexpr const char* kQueueLabel = "ktanalytics.eventgateway";
constexpr const char* kRequestsFile = "requests.sqlite3";
constexpr const char* kCacheFolder = "cache";
constexpr const char* kEventsFolder = "events";

// Each pause after a failed attempt is this many times the one before.
constexpr int kRetryPauseGrowth = 3;
// How long one wait lasts before the statistics are looked at again, in case a result is
// handled without passing through the notifying queue (an injected queue, say).
constexpr std::chrono::milliseconds kLongestQuietWait{250};

std::string checkGatewayURL(const std::string& text) {
    auto parsed = boost::urls::parse_absolute_uri(text);
    if (!parsed) return "the gateway URL \"" + text + "\" is not an absolute URL";
    const auto scheme = parsed->scheme();
    if (scheme != "http" && scheme != "https") return "the gateway URL \"" + text + "\" is not http or https";
    if (parsed->encoded_host().empty()) return "the gateway URL \"" + text + "\" has no host";
    return {};
}

// Creates `path` and its missing parents, owner-only, and checks that it is a writable folder.
std::string prepareFolder(const fs::path& path) {
    std::string error;
    if (!createOwnerOnlyDirectories(path, &error)) return "cannot create the state folder " + error;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return "the state folder " + path.native() + " is not a folder";
    if (::access(path.c_str(), W_OK | X_OK) != 0)
        return "the state folder " + path.native() + " is not writable: " + std::strerror(errno);
    return {};
}

// Calls `f` with each dependency key the stack fills.
template <class F>
void forEachDependencyKey(F f) {
    f(DependencyKeys::eventSender);
    f(DependencyKeys::firebaseAnalyticsLogger);
    f(DependencyKeys::firebaseAnalyticsFactory);
    f(remoteConfig);
}

// The started stack that holds the process-wide instances; at most one at a time.
std::mutex sharedOwnerMutex;
const AnalyticsStack* sharedOwner = nullptr;  // guarded by sharedOwnerMutex

bool equalStatistics(const AnalyticsStackStatistics& a, const AnalyticsStackStatistics& b) {
    const auto& x = a.upload;
    const auto& y = b.upload;
    return a.tagged == b.tagged && x.stored == y.stored && x.delivered == y.delivered && x.dropped() == y.dropped() &&
           x.batchesSent == y.batchesSent && x.batchesFailed == y.batchesFailed && x.retries == y.retries &&
           x.waiting == y.waiting && x.inFlight == y.inFlight;
}

}  // namespace

void AnalyticsStack::ResultSignal::notify() {
    {
        std::lock_guard lock(mutex);
        ++generation;
    }
    changed.notify_all();
}

fs::path AnalyticsStack::resolvedStateDirectory(const AnalyticsStackConfiguration& configuration) {
    if (!configuration.stateDirectory.empty()) return configuration.stateDirectory;
    if (configuration.environment.stateDirectory) return *configuration.environment.stateDirectory;
    return {};
}

fs::path AnalyticsStack::eventsDirectory(const fs::path& stateDirectory) {
    return stateDirectory / kCacheFolder / kEventsFolder;
}

std::string AnalyticsStack::validate(const AnalyticsStackConfiguration& configuration) {
    const auto& environment = configuration.environment;
    if (auto problem = checkGatewayURL(environment.eventGatewayBaseURL); !problem.empty()) return problem;
    if (environment.minimumBatchSize == 0) return "the minimum batch size must be at least 1";
    if (configuration.connectTimeout <= std::chrono::milliseconds::zero())
        return "the connect time-out must be positive";
    if (configuration.requestTimeout.value_or(environment.requestTimeout) <= std::chrono::milliseconds::zero())
        return "the request time-out must be positive";
    if (configuration.shutdownTimeout < std::chrono::milliseconds::zero())
        return "the shutdown time-out must not be negative";
    if (configuration.firstRetryPause < std::chrono::milliseconds::zero() ||
        configuration.longestRetryPause < configuration.firstRetryPause)
        return "the retry pauses must not be negative, and the longest not shorter than the first";
    if (!segmentAPIBase(configuration.segmentAPIHost))
        return "the product-analytics API host must be an http(s) URL or a host name: " + configuration.segmentAPIHost;
    if (configuration.segmentFlushAt == 0) return "the product-analytics flush count must be at least 1";
    return {};
}

AnalyticsStack::AnalyticsStack(Passkey) {}

std::unique_ptr<AnalyticsStack> AnalyticsStack::make(AnalyticsStackConfiguration configuration, std::string* error) {
    const auto fail = [error](std::string reason) -> std::unique_ptr<AnalyticsStack> {
        if (error) *error = std::move(reason);
        return nullptr;
    };
    if (auto problem = validate(configuration); !problem.empty()) return fail(std::move(problem));

    auto stack = std::make_unique<AnalyticsStack>(Passkey());
    auto& s = *stack;
    s.configuration_ = std::move(configuration);
    const auto& config = s.configuration_;
    const auto& environment = config.environment;
    s.logger_ = config.logger ? config.logger : KTLogger::null();

    // Where things are kept: everything below the state folder when there is one, the
    // application's standard locations otherwise.
    s.stateDirectory_ = resolvedStateDirectory(config);
    fs::path userDefaultsPath, cachesRoot, requestsPath;
    if (!s.stateDirectory_.empty()) {
        if (auto problem = prepareFolder(s.stateDirectory_); !problem.empty()) return fail(std::move(problem));
        userDefaultsPath = s.stateDirectory_ / kUserDefaultsFile;
        cachesRoot = s.stateDirectory_ / kCacheFolder;
        requestsPath = s.stateDirectory_ / kRequestsFile;
    } else {
        userDefaultsPath = environment.userDefaultsPath();
        cachesRoot = environment.cachesDirectory();
        requestsPath = cachesRoot / kRequestsFile;
        createOwnerOnlyDirectories(userDefaultsPath.parent_path());
    }
    if (auto problem = prepareFolder(cachesRoot); !problem.empty()) return fail(std::move(problem));

    std::string openError;
    s.userDefaults_ = UserDefaults::open(userDefaultsPath, &openError);
    if (!s.userDefaults_) return fail("cannot open the user defaults " + userDefaultsPath.native() + ": " + openError);
    s.eventLedger_ = std::make_shared<EventDropLedger>();
    s.eventLedger_->defaults = s.userDefaults_;

    // Who the client, the user and the session are.
    s.sessionIdProvider_ = std::make_shared<SessionIdProvider>(
        std::make_shared<UserDefaultsStore>(s.userDefaults_, SessionIdProvider::kStoreNameSpace), UUID::random,
        SessionIdProvider::systemNow, SessionIdProvider::kDefaultSessionDuration, SessionIdProvider::systemNow,
        config.console);
    s.dependencies_ = std::make_unique<DependencyRegistry>();
    s.attributeRegistry_ = std::make_shared<AnalyticsAttributeRegistry>(*s.dependencies_);
    if (environment.clientId) s.attributeRegistry_->registerclientId(*environment.clientId, environment.userAgent);
    s.attributeRegistry_->registerUserUrn(config.userUrn);
    s.credentialStore_ = std::make_shared<InMemoryCredentialStore>(config.token);

    // The network.
    s.connectivity_ = config.connectivity ? config.connectivity : std::make_shared<SystemConnectivityDetector>();
    CurlRequestQueueConfiguration queueConfiguration;
    queueConfiguration.connectTimeout = config.connectTimeout;
    queueConfiguration.totalTimeout = config.requestTimeout.value_or(environment.requestTimeout);
    queueConfiguration.shutdownTimeout = config.shutdownTimeout;
    queueConfiguration.baseURL = environment.eventGatewayBaseURL;
    queueConfiguration.firstFailurePause = config.firstRetryPause;
    queueConfiguration.failurePauseGrowth = kRetryPauseGrowth;
    queueConfiguration.longestFailurePause = config.longestRetryPause;
    s.curlRequestQueue_ = std::make_shared<CurlRequestQueue>(queueConfiguration, s.connectivity_, s.logger_);

    // One serial queue for the provider's per-event work and the uploader's storage, batching
    // and results.
    if (config.queue) {
        s.queue_ = config.queue;
    } else {
        s.threadQueue_ = std::make_shared<ThreadSerialQueue>(kQueueLabel);
        s.queue_ = s.threadQueue_;
    }
    s.signal_ = std::make_shared<ResultSignal>();
    // The announcement goes through the serial queue, so it is seen after the uploader has
    // handled the result (the uploader moves its result onto the same queue first).
    s.notifyingRequestQueue_ = std::make_shared<setup_detail::ResultNotifyingRequestQueue>(
        s.curlRequestQueue_, [weakQueue = std::weak_ptr<SerialQueue>(s.queue_),
                              weakSignal = std::weak_ptr<ResultSignal>(s.signal_)] {
            if (auto queue = weakQueue.lock())
                queue->asyncUrgent([weakSignal] {
                    if (auto signal = weakSignal.lock()) signal->notify();
                });
        });
    ReliableRequestUploaderConfiguration reliableConfiguration;
    reliableConfiguration.databasePath = requestsPath;
    reliableConfiguration.firstRetryDelay = config.requestFirstRetryDelay;
    s.reliableUploader_ =
        std::make_shared<ReliableRequestUploader>(reliableConfiguration, s.notifyingRequestQueue_, s.logger_);

    // The gateway pipeline.
    s.eventSerializer_ =
        std::make_shared<APEventSerializer>(APEventSerializer::eventCacheDirectory(cachesRoot), s.logger_);
    s.requestFactory_ = std::make_shared<APEventGatewayRequestFactory>(
        environment.eventGatewayBaseURL, s.attributeRegistry_, JSONSafeSerialization(), s.credentialStore_,
        APEventGatewayRequestFactory::iso8601DateFormatter(), environment.shouldSendSentAt);
    const auto buildEnvironment = config.alpha ? BuildEnvironment::alpha : environment.buildEnvironment;
    s.uploader_ = APEventGatewayBatchUploader::make(
        s.eventSerializer_, s.requestFactory_, s.notifyingRequestQueue_, {}, environment.minimumBatchSize,
        config.techLogger, s.queue_, std::make_shared<BuildEnvironmentDetector>(buildEnvironment),
        environment.shouldFlushAtRegularIntervals, s.logger_,
        [ledger = s.eventLedger_](const APEventDropCounts& counts) { ledger->record(counts); });

    std::shared_ptr<const ConnectivityStateDetecting> connectivity = s.connectivity_;
    s.attributesProvider_ = std::make_shared<EventGatewayAttributesProvider>(
        connectivity, s.attributeRegistry_, std::make_shared<FixedAssignedABTestVariantIDProvider>(config.variantIds),
        [] { return AnonymousID::quillarborAnonymousId(); },
        std::make_shared<FixedAnalyticsIdProvider>(config.analyticsId), s.sessionIdProvider_,
        [connectivity] { return connectivity->isConnectedToVPN(); });
    s.transformer_ = std::make_shared<APEventGatewayEventTransformer>(s.attributesProvider_);
    s.recorder_ = config.recorder ? config.recorder : std::make_shared<APEventGatewayEventRecorder>(false);
    s.gatewayProvider_ = APEventGatewayAnalyticsProvider::make(s.uploader_, s.transformer_, s.recorder_, s.queue_);

    s.eventNames_ = std::make_shared<APEventNames>();
    s.controller_ =
        std::make_shared<APAnalyticsController>(s.reliableUploader_, s.eventNames_, config.techLogger, s.logger_);
    s.controller_->registerAnalyticsProvider(s.gatewayProvider_);
    s.promotedProvider_ = std::make_shared<APPromotedAnalyticsProvider>(s.reliableUploader_, environment.userAgent);
    s.controller_->registerAnalyticsProvider(s.promotedProvider_);
    if (config.playbackService) {
        s.attributableEventCenter_ = AttributableEventCenter::make(config.playbackService, s.controller_, s.userDefaults_);
        s.attributableEventCenter_->setDelegate(config.attributionDelegate);
    }

    // Firebase, behind the listener's consent. Built before the product-analytics client,
    // whose Firebase integration forwards to it.
    s.privacySettings_ =
        config.privacySettings ? config.privacySettings : std::make_shared<PersistedPrivacySettings>(s.userDefaults_);
    if (config.firebaseAnalytics)
        s.firebaseController_ = std::make_shared<FirebaseAnalyticsController>(config.firebaseAnalytics, s.privacySettings_);
    s.firebaseEventFactory_ = std::make_shared<FirebaseAnalyticsEventFactory>();
    std::shared_ptr<FirebaseAnalyticsControlling> firebaseIntegration = config.firebaseAnalyticsController;
    if (!firebaseIntegration) firebaseIntegration = s.firebaseController_;

    // The tracking plan: its product-analytics client uploads through the same request queue.
    SegmentMiddlewareSources sources;
    sources.attributeRegistry = s.attributeRegistry_;
    sources.sessionIdProvider = s.sessionIdProvider_;
    sources.assignedVariantIds = [variants = config.variantIds] { return variants; };
    sources.analyticsId = [id = config.analyticsId] { return id; };
    sources.firebaseAnalyticsController = dependencyHook(firebaseIntegration);
    sources.moEngageEventLogger = dependencyHook(config.moEngageEventLogger);
    sources.logger = s.logger_;
    sources.console = config.console;
    SegmentWrapperSetup segmentSetup;
    segmentSetup.writeKey = environment.segmentWriteKey;
    segmentSetup.apiHost = segmentAPIURL(config);
    if (auto gateway = boost::urls::parse_uri(environment.eventGatewayBaseURL))
        segmentSetup.replacementAPIHost = std::string(gateway->encoded_host());
    segmentSetup.keychain = s.credentialStore_;
    segmentSetup.flushAt = config.segmentFlushAt;
    segmentSetup.logger = s.logger_;
    segmentSetup.userAgent = environment.userAgent;
    SEGAnalyticsDependencies segmentDependencies;
    segmentDependencies.requestQueue = s.notifyingRequestQueue_;
    segmentDependencies.stateDirectory = cachesRoot;  // the client keeps its queue in <this>/segment
    segmentDependencies.logger = s.logger_;
    segmentDependencies.answerHandled = [weakSignal = std::weak_ptr<ResultSignal>(s.signal_)] {
        if (auto signal = weakSignal.lock()) signal->notify();
    };
    s.segmentWrapper_ = SegmentWrapper::make(std::move(segmentSetup), std::move(sources), std::move(segmentDependencies),
                                             config.segmentEventRecorder);
    s.segmentAnalytics_ = std::dynamic_pointer_cast<SEGAnalytics>(s.segmentWrapper_->segmentAnalytics());
    s.eventSender_ = std::make_shared<EventSender>(std::make_shared<EventBroker>(s.segmentWrapper_));

    // The experiments: remote assignments copied into user defaults once, at start.
    s.abManager_ = std::make_shared<FirebaseABManager>(s.userDefaults_);
    if (config.remoteConfig) s.abManager_->updateAssignments(*config.remoteConfig, FirebaseABExperimentProvider::all());

    s.dependencies_->set(DependencyKeys::eventSender, std::shared_ptr<EventSending>(s.eventSender_));
    s.dependencies_->set(DependencyKeys::firebaseAnalyticsLogger,
                         std::shared_ptr<FirebaseAnalyticsLogging>(s.firebaseController_));
    s.dependencies_->set(DependencyKeys::firebaseAnalyticsFactory,
                         std::shared_ptr<FirebaseAnalyticsBrindleEventsManufacturing>(s.firebaseEventFactory_));
    s.dependencies_->set(remoteConfig, config.remoteConfig);

    KT_LOG(s.logger_, 1, kFile, "+[AnalyticsStack make:]", "Event gateway pipeline to {} with state in {}",
           environment.eventGatewayBaseURL, s.stateDirectory_.empty() ? cachesRoot.native() : s.stateDirectory_.native());
    return stack;
}

std::unique_ptr<AnalyticsStack> AnalyticsStack::start(AnalyticsStackConfiguration configuration, std::string* error) {
    {
        // Checked before building, so that a second start does not open the first one's files.
        std::lock_guard lock(sharedOwnerMutex);
        if (sharedOwner) {
            if (error) *error = "the SDK is already started in this process; shut the running one down first";
            return nullptr;
        }
    }
    auto stack = make(std::move(configuration), error);
    if (stack && !stack->adoptSharedInstances(error)) return nullptr;
    return stack;
}

bool AnalyticsStack::adoptSharedInstances(std::string* error) {
    std::lock_guard lock(sharedOwnerMutex);
    if (sharedOwner) {
        if (error) *error = "the SDK is already started in this process; shut the running one down first";
        return false;
    }
    sharedOwner = this;
    ownsShared_ = true;
    auto environment = configuration_.environment;
    if (!stateDirectory_.empty()) environment.stateDirectory = stateDirectory_;
    KTEnvironment::setSharedInstance(std::move(environment));
    APAnalyticsController::setSharedInstance(controller_);
    SegmentWrapper::setShared(segmentWrapper_);
    forEachDependencyKey([this](const auto& key) { DependencyRegistry::shared().set(key, dependencies_->get(key)); });
    return true;
}

void AnalyticsStack::releaseSharedInstances() {
    std::lock_guard lock(sharedOwnerMutex);
    if (!ownsShared_) return;
    ownsShared_ = false;
    sharedOwner = nullptr;
    // The shared controller stays this one (references to it stay valid) but without
    // providers: a later tag is reported as an unused event instead of reaching a pipeline
    // that has stopped.
    controller_->removeAllAnalyticsProviders();
    SegmentWrapper::setShared(nullptr);
    // A key another owner has set since stays as it is.
    forEachDependencyKey([this](const auto& key) {
        auto& shared = DependencyRegistry::shared();
        if (shared.get(key) == dependencies_->get(key)) shared.set(key, decltype(shared.get(key))());
    });
}

AnalyticsStack::~AnalyticsStack() { shutdown(); }

void AnalyticsStack::shutdown() {
    if (shutDown_) return;
    shutDown_ = true;
    if (controller_) releaseSharedInstances();
    // Events tagged until now get stored; then nothing more runs on the queue, and the
    // request queue lets what is in flight finish (or answers it as failed) before its worker
    // is joined. Whatever did not get through stays on disk for the next start.
    // The answers to requests in flight are waited for too (bounded), so that what was
    // delivered is deleted now rather than sent again by the next start.
    if (threadQueue_) {
        if (uploader_) waitUntilIdle(configuration_.shutdownTimeout);
        threadQueue_->shutdown();
    }
    if (uploader_ && userDefaults_) recordDrops();
    // The client persists what it was handed and stops before the request queue goes.
    if (dependencies_) dependencies_->removeAll();
    eventSender_.reset();
    segmentWrapper_.reset();
    segmentAnalytics_.reset();
    if (notifyingRequestQueue_) notifyingRequestQueue_->stop();
    reliableUploader_.reset();
    curlRequestQueue_.reset();
}

void AnalyticsStack::becameActive() { sessionIdProvider_->becameActive(); }

void AnalyticsStack::becameInactive() {
    sessionIdProvider_->becameInactive();
    flush();
    if (segmentWrapper_) segmentWrapper_->flush();
}

void AnalyticsStack::tagEvent(const std::shared_ptr<const APEventDescripting>& event) {
    controller_->tagEvent(event);
    tagged_.fetch_add(1, std::memory_order_relaxed);
}

void AnalyticsStack::flush() { controller_->flush(); }

bool AnalyticsStack::drainQueue(std::chrono::milliseconds timeout) {
    return threadQueue_ ? threadQueue_->drain(timeout) : true;
}

std::uint64_t AnalyticsStack::signalGeneration() const {
    std::lock_guard lock(signal_->mutex);
    return signal_->generation;
}

void AnalyticsStack::waitForResult(std::uint64_t generation, Clock::time_point until) const {
    std::unique_lock lock(signal_->mutex);
    signal_->changed.wait_until(lock, until, [&] { return signal_->generation != generation; });
}

void AnalyticsStack::reportProgress(std::optional<AnalyticsStackStatistics>& last) const {
    if (!configuration_.progress) return;
    auto now = statistics();
    if (last && equalStatistics(*last, now)) return;
    configuration_.progress(now);
    last = std::move(now);
}

bool AnalyticsStack::waitUntilIdle(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto generation = signalGeneration();
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (remaining <= std::chrono::milliseconds::zero() || !drainQueue(remaining)) return false;
        if (uploader_->statistics().requestsInFlight == 0) return true;
        waitForResult(generation, std::min(deadline, Clock::now() + kLongestQuietWait));
    }
}

bool AnalyticsStack::waitUntilDelivered(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::optional<AnalyticsStackStatistics> reported;
    // The signal generation when the last flush was issued; kNoFlush once that is settled.
    constexpr std::uint64_t kNoFlush = ~std::uint64_t{0};
    std::uint64_t flushedAt = kNoFlush;
    bool settled = false;
    for (;;) {
        const auto generation = signalGeneration();
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (remaining <= std::chrono::milliseconds::zero() || !drainQueue(remaining)) break;
        reportProgress(reported);
        const auto upload = uploader_->statistics();
        if (upload.waiting == 0 && upload.inFlight == 0) {
            settled = true;
            break;
        }
        if (upload.requestsInFlight == 0) {
            // Everything on disk waits for an attempt. The uploader itself holds back while
            // the gateway pauses after a failure, so asking again costs no attempt.
            if (flushedAt == generation) {
                // The last flush put nothing in flight and nothing was answered since (a pause,
                // or an injected queue its owner has not run yet): wait before asking again.
                flushedAt = kNoFlush;
                waitForResult(generation, std::min(deadline, Clock::now() + kLongestQuietWait));
                continue;
            }
            gatewayProvider_->flush();
            flushedAt = generation;
            continue;
        }
        waitForResult(generation, std::min(deadline, Clock::now() + kLongestQuietWait));
    }
    reportProgress(reported);
    // Single requests and tracking-plan messages retry on their own back-off; they are done
    // when delivered or given up.
    reliableUploader_->flush();
    segmentAnalytics_->flush();
    const auto othersWaiting = [this] {
        return reliableUploader_->statistics().waiting + segmentAnalytics_->statistics().waiting;
    };
    bool othersSettled;
    while (!(othersSettled = othersWaiting() == 0) && Clock::now() < deadline)
        waitForResult(signalGeneration(), std::min(deadline, Clock::now() + kLongestQuietWait));
    recordDrops();
    if (settled) return othersSettled;
    const auto upload = uploader_->statistics();
    return upload.waiting == 0 && upload.inFlight == 0 && othersSettled;
}

std::string AnalyticsStack::segmentAPIURL(const AnalyticsStackConfiguration& configuration) {
    auto base = segmentAPIBase(configuration.segmentAPIHost);
    if (!base) return configuration.segmentAPIHost;
    boost::urls::url api(*base);
    auto gateway = boost::urls::parse_uri(configuration.environment.eventGatewayBaseURL);
    if (!gateway) return std::string(api.buffer());
    api.set_scheme(gateway->scheme());
    if (gateway->has_port())
        api.set_port(gateway->port());
    else
        api.remove_port();
    return std::string(api.buffer());
}

APEventDropCounts AnalyticsStack::recordedDrops(std::shared_ptr<UserDefaults> defaults) {
    UserDefaultsStore ledger(std::move(defaults), kDropLedgerNameSpace);
    APEventDropCounts counts;
    for (std::size_t i = 0; i < kEventDropReasonCount; ++i)
        counts.counts[i] = static_cast<std::uint64_t>(
            ledger.number(std::string(eventDropReasonKey(static_cast<APEventDropReason>(i)))).value_or(0));
    return counts;
}

std::optional<std::map<std::string, std::uint64_t>> AnalyticsStack::recordedMessageDrops(
    const fs::path& stateDirectory, std::string* error) {
    return SEGAnalytics::recordedDrops(stateDirectory / kCacheFolder, error);
}

std::map<std::string, std::uint64_t> AnalyticsStack::recordedRequestDrops(const fs::path& stateDirectory) {
    return ReliableRequestUploader::recordedDrops(stateDirectory / kRequestsFile);
}

std::optional<std::vector<std::string>> AnalyticsStack::storedMessages(const fs::path& stateDirectory,
                                                                       std::string* error) {
    return SEGAnalytics::storedMessages(stateDirectory / kCacheFolder, error);
}

std::vector<std::string> AnalyticsStack::storedURLs(const fs::path& stateDirectory) {
    return ReliableRequestUploader::storedURLs(stateDirectory / kRequestsFile);
}

void AnalyticsStack::recordDrops() {
    eventLedger_->record(uploader_->statistics().droppedByReason);
}

void AnalyticsStack::EventDropLedger::record(const APEventDropCounts& now) {
    std::lock_guard lock(mutex);
    UserDefaultsStore ledger(defaults, kDropLedgerNameSpace);
    for (std::size_t i = 0; i < kEventDropReasonCount; ++i) {
        // Counts only grow; a smaller one is an older snapshot arriving late.
        if (now.counts[i] <= recorded.counts[i]) continue;
        const std::uint64_t added = now.counts[i] - recorded.counts[i];
        const std::string key(eventDropReasonKey(static_cast<APEventDropReason>(i)));
        ledger.setNumber(ledger.number(key).value_or(0) + static_cast<double>(added), key);
        recorded.counts[i] = now.counts[i];
    }
}

AnalyticsStackStatistics AnalyticsStack::statistics() const {
    AnalyticsStackStatistics s;
    s.tagged = tagged_.load(std::memory_order_relaxed);
    s.upload = uploader_->statistics();
    if (curlRequestQueue_) s.requests = curlRequestQueue_->statistics();
    if (reliableUploader_) s.reliableRequests = reliableUploader_->statistics();
    if (segmentAnalytics_) s.segment = segmentAnalytics_->statistics();
    return s;
}

}  // namespace kt
