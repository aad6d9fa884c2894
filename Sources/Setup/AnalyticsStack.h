#pragma once
// The SDK's one entry: one call builds, from one configuration, everything the host
// application builds at start, in this order: the gateway pipeline (user defaults, session
// id, attribute registry, credential, request queue, reliable uploader, event store,
// request factory, batch uploader, transformer, attributes provider, gateway provider), the
// promoted provider over the reliable uploader, the attributable event center (when a
// player is given), the product-analytics client with its wrapper, middlewares,
// integrations and the event sender, the Firebase controller over the host's Firebase
// adapter, the A/B manager over the host's remote configuration, and the dependency keys.
// It tears them down in order.
//
// `start` also makes the process-wide instances (environment, analytics controller,
// product-analytics wrapper, dependency registry) be this stack's, so code that reaches
// them and code that holds the stack see one configuration and one set of providers.
// `make` builds a stack that leaves them alone, so that several stacks (each over its own
// state folder) can live in one process.
//
// Every persisted file lives below the state folder:
//   <state>/defaults.sqlite3        user defaults (session id, play count, experiments, drops)
//   <state>/requests.sqlite3        promoted tracking requests the reliable uploader retries
//   <state>/cache/events/*.event    the gateway's on-disk event queue
//   <state>/cache/segment/          the tracking plan's message queue and anonymous id

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayUploadStatistics.h"
#include "KTAnalytics/KTData/RequestStatistics.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/Segment/Client/SEGAnalyticsStatistics.h"

namespace kt {

class APAnalyticsController;
class APEventGatewayBatchUploader;
class APPromotedAnalyticsProvider;
class CurlRequestQueue;
class FirebaseABManager;
class FirebaseAnalyticsController;
class FirebaseAnalyticsEventFactory;
class FirebaseAnalyticsWrapping;
class PrivacySettingsStoring;
class ReliableRequestUploader;
class RemoteConfigProviding;
class SEGAnalytics;
class AttributableEventCenter;
class AttributableEventCenterDelegate;
class EventSender;
class FirebaseAnalyticsControlling;
class MoEngageEventLogging;
class SegmentEventRecording;
class SegmentWrapper;
class PlaybackServicing;
class APEventDescripting;
class APEventGatewayAnalyticsProvider;
class APEventGatewayAnalyticsRecording;
class APEventGatewayEventTransformer;
class APEventGatewayRequestFactory;
class APEventNames;
class APEventSerializer;
class AnalyticsAttributeRegistry;
class ConnectivityStateDetecting;
class DependencyRegistry;
class EventGatewayAttributesProvider;
class KTLogger;
class KeychainCredentialStoring;
class SerialQueue;
class SessionIdProvider;
class TechLogging;
class ThreadSerialQueue;
class UserDefaults;

namespace setup_detail {
class ResultNotifyingRequestQueue;
}

/// What the pipeline has done, taken at one moment.
struct AnalyticsStackStatistics {
    /// Events tagged through the stack's own `tagEvent`.
    std::uint64_t tagged = 0;
    APEventGatewayUploadStatistics upload;
    CurlRequestQueueStatistics requests;
    ReliableRequestUploaderStatistics reliableRequests;
    /// The tracking plan's product-analytics messages.
    SEGAnalyticsStatistics segment;
};

struct AnalyticsStackConfiguration {
    /// Gateway URL, client id and user agent, batching, build environment, log level.
    KTEnvironment environment{};
    /// Where every persisted file goes. Empty: `environment.stateDirectory`, and when that
    /// is unset too, the standard per-user locations of `environment.applicationId`.
    std::filesystem::path stateDirectory{};
    /// The signed-in user's OAuth token; absent means signed out (no "Authorization").
    std::optional<std::string> token{};
    std::optional<std::string> userUrn{};
    /// Behave as an alpha build (one event per upload, rejected events reported) whatever
    /// `environment.buildEnvironment` says.
    bool alpha = false;
    std::optional<std::string> analyticsId{};
    std::vector<std::string> variantIds{};
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(5);
    /// A whole transfer; absent means `environment.requestTimeout`.
    std::optional<std::chrono::milliseconds> requestTimeout{};
    /// How long destruction waits for queued work and requests in flight.
    std::chrono::milliseconds shutdownTimeout = std::chrono::seconds(5);
    /// Null: nothing is logged.
    std::shared_ptr<KTLogger> logger{};
    /// Null: technical events go nowhere.
    std::shared_ptr<TechLogging> techLogger{};
    /// Null: a recorder that is not recording.
    std::shared_ptr<APEventGatewayAnalyticsRecording> recorder{};
    /// Null: the system's network interfaces.
    std::shared_ptr<ConnectivityStateDetecting> connectivity{};
    /// The pipeline's serial queue. Null: a queue with a thread of its own, which the stack
    /// drains and shuts down. A test may hand in a virtual-time queue and drive it; the
    /// stack's waiting operations then only look at the statistics.
    std::shared_ptr<SerialQueue> queue{};
    /// Where the session id service writes its "SESSION ID: " lines; null is standard output.
    std::ostream* console = nullptr;
    /// Called from `waitUntilDelivered`, on the waiting thread, whenever the statistics change.
    std::function<void(const AnalyticsStackStatistics&)> progress{};
    /// After a failed attempt, nothing more is sent to that server (the gateway, a tracking
    /// URL's host) for a pause, whatever arrives or is flushed meanwhile: the first pause, then
    /// three times longer each time up to the longest, each with ±20 % jitter, ended by an
    /// answer. With the defaults an event's three attempts span more than a minute, so a
    /// gateway that is down for a minute costs no event.
    std::chrono::milliseconds firstRetryPause = std::chrono::seconds(20);
    std::chrono::milliseconds longestRetryPause = std::chrono::minutes(5);
    /// Single requests (promoted tracking URLs): see ReliableRequestUploaderConfiguration.
    std::chrono::milliseconds requestFirstRetryDelay = std::chrono::seconds(2);
    /// The player. When set, an attributable event center watches it and the controller's
    /// events, and hands its tokens to `attributionDelegate` (held weakly by the center, so
    /// the stack keeps it).
    std::shared_ptr<PlaybackServicing> playbackService{};
    std::shared_ptr<AttributableEventCenterDelegate> attributionDelegate{};
    /// The tracking plan's product-analytics client (write key: `environment.segmentWriteKey`).
    /// Its API URL; empty: the client's default. The uploads keep its host and path and take
    /// the gateway URL's scheme and port; the request rewriter then puts the gateway's host in
    /// place of the API host and signs them with the token, so only that rewriting brings them
    /// to the gateway.
    std::string segmentAPIHost{};
    /// Upload once this many messages wait.
    std::size_t segmentFlushAt = 20;
    /// Receive the events the tracking plan addresses to them; null: not forwarded (logged).
    std::shared_ptr<FirebaseAnalyticsControlling> firebaseAnalyticsController{};
    std::shared_ptr<MoEngageEventLogging> moEngageEventLogger{};
    /// Mirrors every tracking-plan event; null: none.
    std::shared_ptr<SegmentEventRecording> segmentEventRecorder{};
    /// The host's Firebase adapter. When set, a Firebase controller over it (behind
    /// `privacySettings`) logs the Firebase events, receives the tracking plan's Firebase
    /// integration unless `firebaseAnalyticsController` is set, and is registered under
    /// `firebaseAnalyticsLogger`. Null: no Firebase controller.
    std::shared_ptr<FirebaseAnalyticsWrapping> firebaseAnalytics{};
    /// Whether the listener allows analytics tracking; null: the persisted privacy settings
    /// in the state folder's user defaults.
    std::shared_ptr<PrivacySettingsStoring> privacySettings{};
    /// The host's remote configuration. The A/B manager copies the experiments' assignments
    /// from it at start, and it is registered under `remoteConfig`. Null: the assignments
    /// stored by earlier runs stay as they are.
    std::shared_ptr<RemoteConfigProviding> remoteConfig{};
};

class AnalyticsStack {
    struct Passkey {
        explicit Passkey() = default;
    };

public:
    /// Builds the whole SDK as a host application does at start and makes the process-wide
    /// instances this stack's until it shuts down: the shared environment is the
    /// configuration's; `APAnalyticsController::sharedInstance()` is `controller()`, with every
    /// provider registered; `SegmentWrapper::shared()` is `segmentWrapper()`; the shared
    /// dependency registry holds the event sender, the Firebase logger and event factory and
    /// the remote configuration. Null, with the reason in `error`, when the configuration is
    /// unusable (see `make`) or another started stack of this process is still running.
    static std::unique_ptr<AnalyticsStack> start(AnalyticsStackConfiguration configuration,
                                                 std::string* error = nullptr);
    /// Builds the same SDK without touching the process-wide instances. Null, with the
    /// reason in `error`, when the configuration is unusable (gateway URL not http(s),
    /// minimum batch size 0, a time-out not positive, a state folder that cannot be created
    /// or opened).
    static std::unique_ptr<AnalyticsStack> make(AnalyticsStackConfiguration configuration,
                                                std::string* error = nullptr);

    /// The checks of `make`, without building anything; an empty string when usable.
    static std::string validate(const AnalyticsStackConfiguration& configuration);
    /// The state folder a configuration resolves to (see `stateDirectory`).
    static std::filesystem::path resolvedStateDirectory(const AnalyticsStackConfiguration& configuration);
    /// The folder of the on-disk event queue below a state folder.
    static std::filesystem::path eventsDirectory(const std::filesystem::path& stateDirectory);

    explicit AnalyticsStack(Passkey);
    AnalyticsStack() = delete;
    AnalyticsStack(const AnalyticsStack&) = delete;
    AnalyticsStack& operator=(const AnalyticsStack&) = delete;
    /// `shutdown()`.
    ~AnalyticsStack();

    /// The orderly end: hands the process-wide instances back (the shared controller keeps
    /// no provider, so a later tag through it is reported as unused; the shared wrapper and
    /// the registry's keys are released), lets queued work finish and the requests in flight
    /// be answered (together bounded by `shutdownTimeout`), records the drops, then stops the
    /// client, the queue and the request queue. What did not get through stays on disk for
    /// the next start. Only the destructor may follow.
    void shutdown();
    /// Whether this stack holds the process-wide instances (made by `start`, not yet shut down).
    bool ownsSharedInstances() const { return ownsShared_; }

    /// The application's lifecycle: a session continues across short absences.
    void becameActive();
    /// Also flushes every destination, since the process may not come back.
    void becameInactive();

    /// Hands the event to this stack's controller, on the caller's thread. The name must be
    /// one of the supported names (an unknown one stops the process, as on the controller).
    void tagEvent(const std::shared_ptr<const APEventDescripting>& event);
    /// Flushes every provider: everything stored and not in flight is uploaded.
    void flush();
    /// Waits until every event tagged so far has been stored and the store is empty with
    /// nothing in flight: delivered, or dropped after its last attempt; and until every
    /// single request (promoted tracking URLs) is delivered or given up. Flushes (again after
    /// failed attempts, with a growing pause) while events wait and none is in flight. True
    /// when the store emptied, false at the time-out. Never call it on the pipeline's queue.
    bool waitUntilDelivered(std::chrono::milliseconds timeout);
    /// Waits until queued work has run and no upload is in flight, without flushing. True
    /// when that happened within `timeout`. Before a run ends, this lets the requests in
    /// flight be answered, so that what was delivered is deleted, not sent again later.
    bool waitUntilIdle(std::chrono::milliseconds timeout);
    /// Runs the work queued so far on the pipeline's own queue (see `drain` of the thread
    /// queue). True at once for an injected queue, which its owner drives.
    bool drainQueue(std::chrono::milliseconds timeout);

    AnalyticsStackStatistics statistics() const;

    /// Name space, in the user defaults of a state folder, of the events dropped by every
    /// run over that folder, one number per reason key ("failed_three_times", ...).
    static constexpr const char* kDropLedgerNameSpace = "ktanalytics.dropped_events";
    /// The user defaults file of a state folder.
    static constexpr const char* kUserDefaultsFile = "defaults.sqlite3";
    /// The drops recorded in a state folder's user defaults by every run so far.
    static APEventDropCounts recordedDrops(std::shared_ptr<UserDefaults> defaults);
    /// The product-analytics messages dropped by every run over a state folder, by reason
    /// (reasons with none left out); written by the client in the transaction that removed
    /// each of them. Nullopt, with the reason in `error`, while a client holds the queue.
    static std::optional<std::map<std::string, std::uint64_t>> recordedMessageDrops(
        const std::filesystem::path& stateDirectory, std::string* error = nullptr);
    /// The promoted tracking requests dropped by every run over a state folder, by reason;
    /// written by the uploader in the transaction that removed each of them.
    static std::map<std::string, std::uint64_t> recordedRequestDrops(const std::filesystem::path& stateDirectory);
    /// What waits on disk in a state folder, for another process or after the stack is gone:
    /// the product-analytics messages as JSON (nullopt while a client holds them, the reason
    /// in `error`) and the promoted URLs.
    static std::optional<std::vector<std::string>> storedMessages(const std::filesystem::path& stateDirectory,
                                                                  std::string* error = nullptr);
    static std::vector<std::string> storedURLs(const std::filesystem::path& stateDirectory);
    /// Adds this stack's event drops since the last call to the state folder's ledger. Event drops are written as they happen, once per piece of work
    /// that dropped some; this is also done by `waitUntilDelivered` and on destruction.
    void recordDrops();

    const AnalyticsStackConfiguration& configuration() const { return configuration_; }
    const std::filesystem::path& stateDirectory() const { return stateDirectory_; }
    const std::shared_ptr<UserDefaults>& userDefaults() const { return userDefaults_; }
    const std::shared_ptr<SessionIdProvider>& sessionIdProvider() const { return sessionIdProvider_; }
    const std::shared_ptr<AnalyticsAttributeRegistry>& attributeRegistry() const { return attributeRegistry_; }
    const std::shared_ptr<KeychainCredentialStoring>& credentialStore() const { return credentialStore_; }
    const std::shared_ptr<ConnectivityStateDetecting>& connectivity() const { return connectivity_; }
    const std::shared_ptr<CurlRequestQueue>& requestQueue() const { return curlRequestQueue_; }
    /// Null unless the configuration has a Firebase adapter.
    const std::shared_ptr<FirebaseAnalyticsController>& firebaseController() const { return firebaseController_; }
    const std::shared_ptr<FirebaseAnalyticsEventFactory>& firebaseEventFactory() const { return firebaseEventFactory_; }
    const std::shared_ptr<PrivacySettingsStoring>& privacySettings() const { return privacySettings_; }
    const std::shared_ptr<FirebaseABManager>& abManager() const { return abManager_; }
    /// The services of this stack under the dependency keys (also in the shared registry
    /// while the stack owns the process-wide instances).
    DependencyRegistry& dependencies() const { return *dependencies_; }
    const std::shared_ptr<ReliableRequestUploader>& reliableUploader() const { return reliableUploader_; }
    const std::shared_ptr<APEventSerializer>& eventSerializer() const { return eventSerializer_; }
    const std::shared_ptr<APEventGatewayRequestFactory>& requestFactory() const { return requestFactory_; }
    const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
    const std::shared_ptr<EventGatewayAttributesProvider>& attributesProvider() const { return attributesProvider_; }
    const std::shared_ptr<APEventGatewayEventTransformer>& transformer() const { return transformer_; }
    const std::shared_ptr<APEventGatewayBatchUploader>& uploader() const { return uploader_; }
    const std::shared_ptr<APEventGatewayAnalyticsRecording>& recorder() const { return recorder_; }
    const std::shared_ptr<APEventGatewayAnalyticsProvider>& gatewayProvider() const { return gatewayProvider_; }
    const std::shared_ptr<APPromotedAnalyticsProvider>& promotedProvider() const { return promotedProvider_; }
    /// Null unless the configuration has a playback service.
    const std::shared_ptr<AttributableEventCenter>& attributableEventCenter() const { return attributableEventCenter_; }
    const std::shared_ptr<APEventNames>& eventNames() const { return eventNames_; }
    const std::shared_ptr<SegmentWrapper>& segmentWrapper() const { return segmentWrapper_; }
    /// The tracking plan's sender, over a broker of `segmentWrapper`.
    const std::shared_ptr<EventSender>& eventSender() const { return eventSender_; }
    /// The client's API URL as configured for this stack's gateway (see `segmentAPIHost`).
    static std::string segmentAPIURL(const AnalyticsStackConfiguration& configuration);
    APAnalyticsController& controller() const { return *controller_; }

private:
    // Wakes the waiting operations when a request's result has been handled on the queue.
    struct ResultSignal {
        std::mutex mutex;
        std::condition_variable changed;
        std::uint64_t generation = 0;  // guarded by mutex
        void notify();
    };
    // The state folder's ledger of dropped events: adds what a count grew by since the last
    // time. Called from the pipeline's queue as drops happen and from the stack.
    struct EventDropLedger {
        std::mutex mutex;
        std::shared_ptr<UserDefaults> defaults;
        APEventDropCounts recorded;  // guarded by mutex
        void record(const APEventDropCounts& now);
    };

    // Makes the process-wide instances this stack's; false when another stack holds them.
    bool adoptSharedInstances(std::string* error);
    void releaseSharedInstances();
    std::uint64_t signalGeneration() const;
    // Waits until a result newer than `generation` has been handled, or until `until`.
    void waitForResult(std::uint64_t generation, std::chrono::steady_clock::time_point until) const;
    void reportProgress(std::optional<AnalyticsStackStatistics>& last) const;

    AnalyticsStackConfiguration configuration_;
    std::filesystem::path stateDirectory_;
    std::shared_ptr<EventDropLedger> eventLedger_;
    std::shared_ptr<ResultSignal> signal_;
    std::atomic<std::uint64_t> tagged_{0};

    std::shared_ptr<KTLogger> logger_;
    std::shared_ptr<UserDefaults> userDefaults_;
    std::shared_ptr<SessionIdProvider> sessionIdProvider_;
    // Must outlive the registry, which resolves its services from it.
    std::unique_ptr<DependencyRegistry> dependencies_;
    std::shared_ptr<AnalyticsAttributeRegistry> attributeRegistry_;
    std::shared_ptr<KeychainCredentialStoring> credentialStore_;
    std::shared_ptr<ConnectivityStateDetecting> connectivity_;
    std::shared_ptr<CurlRequestQueue> curlRequestQueue_;
    std::shared_ptr<setup_detail::ResultNotifyingRequestQueue> notifyingRequestQueue_;
    std::shared_ptr<ReliableRequestUploader> reliableUploader_;
    std::shared_ptr<APEventSerializer> eventSerializer_;
    std::shared_ptr<APEventGatewayRequestFactory> requestFactory_;
    std::shared_ptr<SerialQueue> queue_;
    std::shared_ptr<ThreadSerialQueue> threadQueue_;  // null for an injected queue
    std::shared_ptr<EventGatewayAttributesProvider> attributesProvider_;
    std::shared_ptr<APEventGatewayEventTransformer> transformer_;
    std::shared_ptr<APEventGatewayBatchUploader> uploader_;
    std::shared_ptr<APEventGatewayAnalyticsRecording> recorder_;
    std::shared_ptr<APEventGatewayAnalyticsProvider> gatewayProvider_;
    std::shared_ptr<APPromotedAnalyticsProvider> promotedProvider_;
    std::shared_ptr<AttributableEventCenter> attributableEventCenter_;
    std::shared_ptr<APEventNames> eventNames_;
    std::shared_ptr<APAnalyticsController> controller_;
    std::shared_ptr<SEGAnalytics> segmentAnalytics_;
    std::shared_ptr<SegmentWrapper> segmentWrapper_;
    std::shared_ptr<EventSender> eventSender_;
    std::shared_ptr<PrivacySettingsStoring> privacySettings_;
    std::shared_ptr<FirebaseAnalyticsController> firebaseController_;
    std::shared_ptr<FirebaseAnalyticsEventFactory> firebaseEventFactory_;
    std::shared_ptr<FirebaseABManager> abManager_;
    bool ownsShared_ = false;
    bool shutDown_ = false;
};

}  // namespace kt
