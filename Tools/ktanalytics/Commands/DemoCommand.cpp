// `ktanalytics demo`: the whole SDK at work against the development gateway, in one run.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>

#include "KTAnalytics/Analytics/ConsoleFirebaseAnalytics.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsController.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsEventFactory.h"
#include "Commands/Commands.h"
#include "Commands/DemoSession.h"
#include "Commands/Playback.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Attribution/AttributableEvents.h"
#include "KTAnalytics/KTData/ReliableRequestUploader.h"
#include "KTAnalytics/Promoted/AnalyticsEntityTagger.h"
#include "KTAnalytics/Promoted/APPromotedAnalyticsProvider.h"
#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/FirebaseABManager.h"
#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/APEventGatewayAnalyticsProvider.h"
#include "Gateway/DevelopmentGateway.h"
#include "KTAnalytics/Platform/UserDefaults.h"
#include "KTAnalytics/KTFoundation/FirebaseAnalyticsControlling.h"
#include "KTAnalytics/Segment/MoEngageEventLogging.h"
#include "KTAnalytics/Segment/SegmentWrapper.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"
#include "KTAnalytics/TrackingArchitecture/Widget/WidgetAnalyticsHandler.h"

namespace kt::tool {

namespace {

struct DemoOptions {
    std::size_t events = 400;
    std::size_t minimumBatch = 20;
    double failRate = 0.0;
    std::uint64_t seed = 7;
    int timeoutSeconds = 60;
    std::string stateDir;
    bool verbose = false;
};

// The device-mode destinations of the tracking plan: each call becomes a line of the report.
struct IntegrationLines {
    std::mutex mutex;
    std::ostringstream lines;
    std::size_t firebase = 0, moEngage = 0;
    void add(std::size_t& counter, const char* destination, const std::string& name, const AttributeValue& values) {
        std::lock_guard lock(mutex);
        ++counter;
        lines << destination << name << " " << values.dump() << "\n";
    }
};

class FirebaseIntegrationConsole final : public FirebaseAnalyticsControlling {
public:
    explicit FirebaseIntegrationConsole(std::shared_ptr<IntegrationLines> lines) : lines_(std::move(lines)) {}
    void logEvent(const std::string& name, const AttributeDictionary& parameters) override {
        lines_->add(lines_->firebase, "firebase   ", name, parameters);
    }
    void trackScreen(const std::string& name) override { logEvent("screen_view", {{"screen_name", name}}); }

private:
    std::shared_ptr<IntegrationLines> lines_;
};

class MoEngageIntegrationConsole final : public MoEngageEventLogging {
public:
    explicit MoEngageIntegrationConsole(std::shared_ptr<IntegrationLines> lines) : lines_(std::move(lines)) {}
    void logEvent(const std::string& name, const AttributeValue& properties) override {
        lines_->add(lines_->moEngage, "mo-engage  ", name, properties);
    }

private:
    std::shared_ptr<IntegrationLines> lines_;
};

class TemporaryState {
public:
    explicit TemporaryState(const std::string& requested) {
        if (!requested.empty()) {
            path_ = requested;
            return;
        }
        std::string pattern = (std::filesystem::temp_directory_path() / "ktanalytics-demo-XXXXXX").string();
        if (char* made = mkdtemp(pattern.data())) {
            path_ = made;
            owned_ = true;
        }
    }
    ~TemporaryState() {
        std::error_code ec;
        if (owned_) std::filesystem::remove_all(path_, ec);
    }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
    bool owned_ = false;
};

constexpr int kPromotedItems = 9;

// "k4tq7v (like), 4b11wy (play) x2, ...": each run of one token once, with its meaning.
std::string describeTokens(const std::vector<std::string>& tokens) {
    const auto meaning = [](const std::string& token) -> std::string {
        if (token == EventToken::playToken) return "play";
        if (token == EventToken::firstPlayToken) return "first play";
        if (token == EventToken::fifthPlayToken) return "fifth play";
        if (auto event = attributableEventFromToken(token)) {
            switch (*event) {
                case AttributableEvent::like: return "like";
                case AttributableEvent::follow: return "follow";
                case AttributableEvent::playlistPlay: return "system playlist play";
            }
        }
        return "?";
    };
    std::string text;
    for (std::size_t i = 0; i < tokens.size();) {
        std::size_t run = 1;
        while (i + run < tokens.size() && tokens[i + run] == tokens[i]) ++run;
        if (!text.empty()) text += ", ";
        text += tokens[i] + " (" + meaning(tokens[i]) + ")";
        if (run > 1) text += " x" + std::to_string(run);
        i += run;
    }
    return text.empty() ? "(none)" : text;
}

void progressBar(std::ostream& out, const char* label, std::size_t done, std::size_t total) {
    constexpr int kWidth = 30;
    const int filled = total == 0 ? kWidth : static_cast<int>(kWidth * done / total);
    out << "\r  " << std::left << std::setw(10) << label << " [" << std::string(filled, '#')
        << std::string(kWidth - filled, '.') << "] " << done << "/" << total << std::flush;
}

// Plays the Firebase side: consent given, a burst of calls, consent withdrawn, the same
// again. Returns how many calls were made in all.
std::size_t playFirebase(FirebaseAnalyticsController& controller, PrivacySettingsStoring& privacy) {
    FirebaseAnalyticsEventFactory factory;
    std::size_t calls = 0;
    const auto burst = [&] {
        controller.trackScreen("Stream");
        controller.log(factory.makePlayCheckpoint("stream"));
        controller.log(factory.makeTrackLikeEvent());
        controller.log(factory.makeTrackRepostEvent(true));
        controller.log(factory.makeFollowEvent());
        controller.log(factory.makeLikedTracksPageView());
        controller.logEvent("session_summary", AttributeDictionary{{"tracks_played", 12}});
        controller.trackScreen("Player");
        calls += 8;
    };
    privacy.updateWithPrivacySettings({.analyticsTrackingEnabled = true});
    burst();
    privacy.updateWithPrivacySettings({.analyticsTrackingEnabled = false});
    burst();
    return calls;
}

// Tracking events handed to the broker as they are, some of them addressed to the
// engagement and Firebase integrations as well. The number of messages.
std::size_t playBrokerEvents(EventSender& sender) {
    std::size_t messages = 0;
    sender.identify("quillarbor:users:7", AttributeValue{{"plan", "go+"}, {"country", "DE"}});
    ++messages;
    const char* screens[] = {"Home", "Library Liked Tracks", "Search Results", "User Profile Tracks"};
    for (int i = 0; i < 8; ++i) {
        sender.send("Screen Viewed", 2, {{"name", AttributeValue(screens[i % 4])}, {"object_urn", std::nullopt}});
        sender.send("Track Liked", 1,
                    {{"track_urn", AttributeValue("quillarbor:tracks:" + std::to_string(700 + i))},
                     {"ui_component_name", AttributeValue("stream")},
                     {"ui_component_urn", std::nullopt}},
                    i % 2 ? std::vector<std::string>{"firebase"} : std::vector<std::string>{});
        messages += 2;
    }
    sender.send("Playlist Added To Downloads", 1, {{"playlist_urn", AttributeValue("quillarbor:playlists:42")}},
                {"mo-engage"});
    sender.send("Checkout Started", 1,
                {{"billing_cycle", AttributeValue("annual")},
                 {"product_category", AttributeValue("consumer")},
                 {"product_id", AttributeValue("lark-max")},
                 {"purchase_type", AttributeValue("paid")},
                 {"providers", AttributeValue{{"MoEngage", true}, {"Firebase", true}, {"Other", true}}}});
    return messages + 2;
}

// A listener's session in the tracking plan's own operations: a sign-up, screens, plays,
// likes, follows, a purchase and launches from home-screen widgets. The number of events.
std::size_t playPlanSession(EventSender& sender, const WidgetAnalyticsHandler& widgets, std::ostream& out) {
    const auto urn = [](const std::string& text) { return *Urn::parse(text); };
    std::size_t events = 0;
    sender.accountCreationSucceeded(false, true, "email", AttributeValue{{"source", "onboarding"}});
    sender.applicationOpened(false, std::nullopt, std::nullopt);
    events += 2;
    for (auto screen : {ScreenViewedName::home, ScreenViewedName::searchResults, ScreenViewedName::libraryLikedTracks,
                        ScreenViewedName::playlistDetails, ScreenViewedName::userProfile}) {
        sender.screenViewed(screen, screen == ScreenViewedName::userProfile
                                        ? std::optional<Urn>(urn("quillarbor:users:77"))
                                        : std::nullopt);
        ++events;
    }
    for (int playlist = 1; playlist <= 3; ++playlist) {
        std::vector<Urn> tracks;
        for (int track = 0; track < 4; ++track)
            tracks.push_back(urn("quillarbor:tracks:" + std::to_string(900 + playlist * 10 + track)));
        sender.playQueueInitiated(urn("quillarbor:playlists:" + std::to_string(60 + playlist)), tracks);
        sender.trackLiked(tracks[1], "track_page", std::nullopt);
        events += 2;
    }
    sender.userFollowed(urn("quillarbor:users:77"), "user_profile", urn("quillarbor:users:77"));
    sender.userFollowed(urn("quillarbor:users:78"), std::nullopt, std::nullopt);
    sender.playlistAddedToDownloads(urn("quillarbor:playlists:61"));
    sender.checkoutStarted(CheckoutStartedBillingCycle::monthly, CheckoutStartedProductCategory::consumer,
                           CheckoutStartedProductId::larkMax, CheckoutStartedPurchaseType::paid);
    sender.productPurchased(ProductPurchasedBillingCycle::monthly, ProductPurchasedProductCategory::consumer,
                            ProductPurchasedProductId::larkMax, ProductPurchasedPurchaseType::paid, std::nullopt);
    events += 5;
    // Launches from widgets: two complete ones report; an unknown family and an ordinary
    // link send nothing.
    const char* launches[] = {
        "quillarbor://nowplaying?source=widget&widgetKind=nowPlaying&widgetFamily=systemSmall",
        "quillarbor://library/likes?sort=recent&source=widget&widgetKind=likedTracks&widgetFamily=systemMedium",
        "quillarbor://library?source=widget&widgetKind=playlist&widgetFamily=none",
        "quillarbor://search?q=lofi",
    };
    for (const char* url : launches) out << "  widget  " << url << "\n       -> " << widgets.handle(url) << "\n";
    return events + 2;
}

// Plan events of the session whose events name the engagement SDK: three plays, three
// likes, two follows and the download.
constexpr std::size_t kPlanEventsForEngagement = 9;

int runDemo(const DemoOptions& options) {
    std::ostream& out = std::cout;
    TemporaryState state(options.stateDir);
    if (state.path().empty()) {
        std::cerr << "demo: cannot create a temporary state folder\n";
        return 1;
    }

    std::ostringstream gatewayLog;
    gateway::GatewayConfiguration gatewayConfiguration;
    gatewayConfiguration.failRate = options.failRate;
    gatewayConfiguration.seed = options.seed;
    gatewayConfiguration.log = options.verbose ? &std::cerr : nullptr;
    gateway::DevelopmentGateway gateway(gatewayConfiguration);
    if (!gateway.start()) {
        std::cerr << "demo: the development gateway did not start: " << gateway.lastError() << "\n";
        return 1;
    }
    out << "KTAnalytics demo\n"
        << "  development gateway  " << gateway.baseURL() << "  (live page: " << gateway.baseURL() << "/)\n"
        << "  state folder         " << state.path().string() << "\n\n";

    AnalyticsStackConfiguration configuration;
    configuration.environment.eventGatewayBaseURL = gateway.baseURL();
    configuration.environment.clientId = 46;
    configuration.environment.minimumBatchSize = options.minimumBatch;
    configuration.stateDirectory = state.path();
    configuration.token = "demo-oauth-token";
    configuration.userUrn = "quillarbor:users:7";
    configuration.variantIds = {"4021", "4107"};
    // The demo's failures are injected at random, not outages: a short pause is enough.
    configuration.firstRetryPause = std::chrono::milliseconds(500);
    configuration.requestFirstRetryDelay = std::chrono::milliseconds(200);
    configuration.environment.segmentWriteKey = "demo-write-key";
    auto integrationLines = std::make_shared<IntegrationLines>();
    configuration.firebaseAnalyticsController = std::make_shared<FirebaseIntegrationConsole>(integrationLines);
    configuration.moEngageEventLogger = std::make_shared<MoEngageIntegrationConsole>(integrationLines);
    auto player = std::make_shared<ScriptedPlaybackService>();
    auto tokens = std::make_shared<TokenRecorder>();
    configuration.playbackService = player;
    configuration.attributionDelegate = tokens;
    std::ostringstream sessionLines;  // the session id service's console lines stay out of the report
    configuration.console = &sessionLines;
    // The host's Firebase adapter and remote configuration: the SDK builds the controller
    // behind consent and copies the experiments' assignments at start.
    std::ostringstream firebaseLines;
    configuration.firebaseAnalytics = std::make_shared<ConsoleFirebaseAnalytics>(firebaseLines);
    configuration.remoteConfig = std::make_shared<JsonFileRemoteConfig>(std::map<std::string, std::string>{
        {"dev_ab_price_test", "discountedPrice"},
        {"dev_ab_offline_sync_grace_period_test", "variantA"},
        {"dev_offline_sync_grace_period_seconds_value", "3600"}});
    std::string error;
    auto stack = AnalyticsStack::start(configuration, &error);
    if (!stack) {
        std::cerr << "demo: cannot build the analytics stack: " << error << "\n";
        return 1;
    }

    // The event gateway road.
    out << "Gateway events\n";
    const auto session = makeDemoSession(options.events, options.seed);
    const auto started = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < session.size(); ++i) {
        stack->tagEvent(session[i]);
        if ((i + 1) % 100 == 0 || i + 1 == session.size()) progressBar(out, "tagged", i + 1, session.size());
    }
    out << "\n\n";

    // Promoted impressions and clicks: their tracking URLs point at the gateway.
    out << "Promoted tracking URLs\n";
    AnalyticsEntityTagger entities(stack->promotedProvider());
    std::vector<std::string> urls;
    for (int i = 1; i <= kPromotedItems; ++i) {
        urls.push_back(gateway.baseURL() + "/track/impression/" + std::to_string(i) + "?placement=stream");
        if (i % 3 == 0) urls.push_back(gateway.baseURL() + "/track/click/" + std::to_string(i));
    }
    entities.tagEvents(entities.promotedEventsForUrls(urls));
    out << "  fired " << urls.size() << " (impressions and clicks)\n\n";

    // A listening session on the player, with a like, a follow from a click and a play in a
    // system playlist: the attribution milestones.
    out << "Playback and attribution\n";
    std::size_t attributionEvents = 0;
    const auto tagCounted = [&](const char* name, AttributeDictionary attributes) {
        stack->tagEvent(APEvent::make(name, std::move(attributes)));
        ++attributionEvents;
    };
    tagCounted("audio", {{"action", "play"}, {"in_playlist", "quillarbor:system-playlists:weekly-wave"},
                         {"client_event_id", "attribution-1"}});
    for (int track = 1; track <= 6; ++track) {
        player->play("quillarbor:tracks:" + std::to_string(700 + track), PlayQueueItemType::track, {1.0, 5.5, 30.0});
        if (track == 2) player->play("quillarbor:tracks:ad-1", PlayQueueItemType::ad, {15.0});
        if (track == 3) tagCounted("like", {{"track", "quillarbor:tracks:703"}, {"client_event_id", "attribution-2"}});
        if (track == 4)
            tagCounted("click", {{"click_name", "follow::add"}, {"click_object", "quillarbor:users:77"},
                                 {"client_event_id", "attribution-3"}});
    }
    out << "  6 tracks played past 5 s (and one ad, which never counts)\n\n";

    // The tracking plan, through the broker and the product-analytics client, re-addressed
    // to the development gateway.
    out << "Tracking plan\n";
    WidgetAnalyticsHandler widgets(stack->eventSender());
    const std::size_t sessionEvents = playPlanSession(*stack->eventSender(), widgets, out);
    const std::size_t brokerMessages = playBrokerEvents(*stack->eventSender());
    const std::size_t planMessages = sessionEvents + brokerMessages;
    out << "  " << sessionEvents << " plan events (sign-up, screens, plays, likes, follows, a purchase, widgets), "
        << brokerMessages << " messages handed to the broker as they are (a sign-in, screens, likes)\n\n";

    stack->flush();
    const bool drained = stack->waitUntilDelivered(std::chrono::seconds(options.timeoutSeconds));
    const auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const auto upload = stack->statistics().upload;
    progressBar(out, "delivered", upload.delivered, session.size() + attributionEvents);
    out << "\n\n";

    // The Firebase road, behind consent.
    auto& firebaseController = *stack->firebaseController();
    out << "Firebase calls (consent withdrawn halfway)\n";
    const std::size_t firebaseCalls = playFirebase(firebaseController, *stack->privacySettings());
    std::istringstream lines(firebaseLines.str());
    for (std::string line; std::getline(lines, line);) out << "  " << line << "\n";
    out << "\n";

    // The experiments: remote values copied into user defaults at start, read back.
    const auto& abManager = *stack->abManager();

    // The report.
    const auto gatewayStats = gateway.stats();
    const auto counts = firebaseController.callCounts();
    out << "Delivery report\n";
    out << "  " << std::left << std::setw(16) << "destination" << std::right << std::setw(8) << "tagged"
        << std::setw(8) << "stored" << std::setw(10) << "uploaded" << std::setw(9) << "batches" << std::setw(11)
        << "bytes raw" << std::setw(11) << "gzipped" << std::setw(9) << "retries" << std::setw(9) << "dropped"
        << "\n";
    out << "  " << std::left << std::setw(16) << "event gateway" << std::right << std::setw(8)
        << session.size() + attributionEvents
        << std::setw(8) << upload.stored << std::setw(10) << upload.delivered << std::setw(9) << upload.batchesSent
        << std::setw(11) << upload.bytesRaw << std::setw(11) << upload.bytesGzipped << std::setw(9) << upload.retries
        << std::setw(9) << upload.dropped() << "\n";
    const auto promoted = stack->statistics().reliableRequests;
    out << "  " << std::left << std::setw(16) << "promoted URLs" << std::right << std::setw(8) << promoted.fired
        << std::setw(8) << promoted.fired - promoted.notStored << std::setw(10) << promoted.delivered << std::setw(9)
        << "-" << std::setw(11) << "-" << std::setw(11) << "-" << std::setw(9) << promoted.retried << std::setw(9)
        << promoted.dropped() << "\n";
    const auto messages = stack->statistics().segment;
    const auto messagesDropped = messages.dropped();
    out << "  " << std::left << std::setw(16) << "product analytics" << std::right << std::setw(7)
        << messages.tracked << std::setw(8) << messages.persisted << std::setw(10) << messages.delivered
        << std::setw(9) << messages.batchesSent << std::setw(11) << "-" << std::setw(11) << messages.bytesSent
        << std::setw(9) << messages.retries << std::setw(9) << messagesDropped << "\n";
    out << "  " << std::left << std::setw(16) << "firebase" << std::right << std::setw(8) << firebaseCalls
        << std::setw(8) << "-" << std::setw(10) << counts.forwarded << std::setw(9) << "-" << std::setw(11) << "-"
        << std::setw(11) << "-" << std::setw(9) << "-" << std::setw(9) << counts.suppressed
        << "   (suppressed: no consent)\n";
    out << "\n  gateway received " << gatewayStats.events << " events in " << gatewayStats.requests
        << " requests (" << gatewayStats.failuresInjected << " failures injected), " << std::fixed
        << std::setprecision(2) << elapsed << " s from first tag to last delivery\n";
    out << "  still waiting on disk: " << upload.waiting << "\n";
    out << "  dropped by reason:";
    for (std::size_t i = 0; i < kEventDropReasonCount; ++i)
        out << (i == 0 ? " " : ", ") << eventDropReasonKey(static_cast<APEventDropReason>(i)) << " "
            << upload.droppedByReason.counts[i];
    out << "\n  events waiting in memory at the peak of the burst: " << stack->gatewayProvider()->peakPendingEvents()
        << "\n\n";

    out << "  tracking requests at the gateway: " << gatewayStats.trackingRequests << " (";
    for (auto it = gatewayStats.trackingByPrefix.begin(); it != gatewayStats.trackingByPrefix.end(); ++it)
        out << (it == gatewayStats.trackingByPrefix.begin() ? "" : ", ") << it->first << " " << it->second;
    out << ")\n\n";

    out << "Attribution tokens, in order\n  " << describeTokens(tokens->tokens()) << "\n\n";

    const auto received = gateway.lastMessages(planMessages + 10);
    std::uint64_t violations = 0;
    for (const auto& [rule, count] : gatewayStats.violations) violations += count;
    out << "Tracking plan at the gateway\n  " << gatewayStats.messages << " messages in " << gatewayStats.batchRequests
        << " batches, " << gatewayStats.duplicateMessages << " duplicates, " << violations
        << " items breaking a plan rule (events and messages)\n";
    if (!received.empty()) {
        out << "  \"kt\" context of the last: " << received.back().kt << "\n";
        std::map<std::string, std::size_t> byName;
        for (const auto& m : received) ++byName[m.type == "track" ? m.name : "(" + m.type + ")"];
        out << "  received, by event name:\n";
        for (const auto& [name, count] : byName) out << "  " << std::setw(5) << count << "  " << name << "\n";
    }
    // The client's worker may still call an integration: read its counts and lines together.
    std::size_t firebaseIntegrationCalls = 0, moEngageCalls = 0;
    {
        std::lock_guard lock(integrationLines->mutex);
        firebaseIntegrationCalls = integrationLines->firebase;
        moEngageCalls = integrationLines->moEngage;
        out << "  integration calls: firebase " << firebaseIntegrationCalls << ", mo-engage " << moEngageCalls << "\n";
        std::istringstream integrationText(integrationLines->lines.str());
        for (std::string line; std::getline(integrationText, line);) out << "    " << line << "\n";
    }
    out << "\n";

    out << std::defaultfloat << std::setprecision(6) << "Experiments\n";
    for (const auto& experiment : FirebaseABExperimentProvider::all()) {
        out << "  " << std::left << std::setw(44) << experiment.id() << " "
            << abManager.assignment(experiment).value_or("(none)");
        if (auto value = abManager.assignmentDoubleValue(experiment)) out << "  value " << *value;
        out << "\n";
    }

    // Every gateway event either arrived or, with injected failures, was dropped after its
    // last attempt and counted; consent decided every Firebase call.
    const std::size_t gatewayTagged = session.size() + attributionEvents;
    const bool gatewayOk = drained && upload.waiting == 0 &&
                           gatewayStats.events == upload.delivered &&
                           upload.delivered + upload.dropped() == gatewayTagged &&
                           (options.failRate > 0.0 || upload.delivered == gatewayTagged);
    // Promoted URLs are retried until they arrive, failures injected or not.
    const bool promotedOk = promoted.delivered == urls.size() && promoted.waiting == 0 &&
                            gatewayStats.trackingRequests == urls.size();
    const auto emitted = tokens->tokens();
    const bool attributionOk =
        std::count(emitted.begin(), emitted.end(), EventToken::playToken) == 6 &&
        std::count(emitted.begin(), emitted.end(), EventToken::firstPlayToken) == 1 &&
        std::count(emitted.begin(), emitted.end(), EventToken::fifthPlayToken) == 1;
    const bool firebaseOk = counts.forwarded + counts.suppressed == firebaseCalls && counts.forwarded == firebaseCalls / 2;
    // Every tracking-plan message arrived once. Addressed to Firebase: five of the broker's
    // (four likes and the checkout); to the engagement SDK: two of the broker's (the download
    // and the checkout) and the plan's own (plays, likes, follows, the download).
    const bool planOk = messages.delivered == planMessages && messages.waiting == 0 && messagesDropped == 0 &&
                        gatewayStats.messages == planMessages && gatewayStats.duplicateMessages == 0 && violations == 0 &&
                        firebaseIntegrationCalls == 5 && moEngageCalls == 2 + kPlanEventsForEngagement;
    const bool ok = gatewayOk && firebaseOk && promotedOk && attributionOk && planOk;
    out << "\nResult: " << (ok ? "everything that should arrive arrived" : "INCOMPLETE") << "\n";
    stack.reset();
    gateway.stop();
    return ok ? 0 : 1;
}

}  // namespace

void registerDemoCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* demo = app.add_subcommand(
        "demo", "Start the development gateway, play a listening session through the SDK and report delivery");
    demo->add_option("--events", options->events, "Gateway events to tag (default 400)")->check(CLI::Range(1, 1000000));
    demo->add_option("--min-batch", options->minimumBatch, "Minimum batch size (default 20)")
        ->check(CLI::Range(1, 100000));
    demo->add_option("--fail-rate", options->failRate, "Share of uploads the gateway fails (default 0)")
        ->check(CLI::Range(0.0, 1.0));
    demo->add_option("--seed", options->seed, "Seed of the session and of the failures");
    demo->add_option("--timeout", options->timeoutSeconds, "Seconds to wait for delivery (default 60)")
        ->check(CLI::Range(1, 3600));
    demo->add_option("--state-dir", options->stateDir, "Keep the state here instead of a temporary folder");
    demo->add_flag("--verbose", options->verbose, "Print every request the gateway receives");
    demo->callback([options, &exitCode] { exitCode = runDemo(*options); });
}

}  // namespace kt::tool
