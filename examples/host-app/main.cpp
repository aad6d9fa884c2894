// A small host application: builds the SDK with its one call, then uses every road the way
// an application does (controller events, a promoted tracking URL, a play past the
// attribution threshold, tracking-plan events, Firebase events, an experiment), waits for
// delivery and says what arrived. Exits 0 only when everything arrived.
//
//   host-app <gateway base URL> [state folder]

#include <KTAnalytics/KTAnalytics.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

namespace {

// The application's player: plays what it is told and tells its delegate.
class Player final : public kt::PlaybackServicing {
public:
    void setDelegate(std::weak_ptr<kt::PlaybackServiceDelegating> delegate) override { delegate_ = std::move(delegate); }
    void play(const std::string& urn, double seconds) {
        auto delegate = delegate_.lock();
        auto parsed = kt::Urn::parse(urn);
        if (!delegate || !parsed) return;
        delegate->currentPlayQueueItemDidChangeToItem(kt::PlayQueueItem{*parsed, kt::PlayQueueItemType::track});
        delegate->progressDidChangeToDuration(seconds);
    }

private:
    std::weak_ptr<kt::PlaybackServiceDelegating> delegate_;
};

// The application's attribution client: keeps the tokens it is handed.
class Attribution final : public kt::AttributableEventCenterDelegate {
public:
    void didTriggerEventWithName(const std::string& token) override {
        std::lock_guard lock(mutex_);
        tokens_.push_back(token);
    }
    std::vector<std::string> tokens() const {
        std::lock_guard lock(mutex_);
        return tokens_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> tokens_;
};

// The application's Firebase adapter: here it only counts what reaches it.
class Firebase final : public kt::FirebaseAnalyticsWrapping {
public:
    void logEventWithName(const std::string& name, const kt::AttributeDictionary&, bool) override { ++events; }
    void trackScreenWithName(const std::string&) override { ++screens; }
    void setUserIdentifier(const std::string&) override {}
    void setUserProperty(const std::string&, const std::string&) override {}
    int events = 0, screens = 0;
};

bool report(const char* destination, bool arrived, const std::string& detail) {
    std::cout << "  " << (arrived ? "arrived " : "MISSING ") << destination << ": " << detail << "\n";
    return arrived;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: host-app <gateway base URL> [state folder]\n";
        return 2;
    }
    const std::string base = argv[1];
    const auto state = argc > 2 ? std::filesystem::path(argv[2])
                                : std::filesystem::temp_directory_path() / ("host-app-" + std::to_string(::getpid()));

    auto player = std::make_shared<Player>();
    auto attribution = std::make_shared<Attribution>();
    auto firebase = std::make_shared<Firebase>();

    kt::AnalyticsStackConfiguration configuration;
    configuration.environment.eventGatewayBaseURL = base;
    configuration.environment.clientId = 46;
    configuration.environment.userAgent = "HostApp/1.0 (Linux)";
    configuration.environment.segmentWriteKey = "host-app-write-key";
    configuration.stateDirectory = state;
    configuration.token = "host-app-token";
    configuration.playbackService = player;
    configuration.attributionDelegate = attribution;
    configuration.firebaseAnalytics = firebase;
    configuration.remoteConfig = std::make_shared<kt::JsonFileRemoteConfig>(
        std::map<std::string, std::string>{{"dev_ab_price_test", "discountedPrice"}});

    std::string error;
    auto sdk = kt::AnalyticsStack::start(configuration, &error);
    if (!sdk) {
        std::cerr << "host-app: " << error << "\n";
        return 1;
    }

    // Gateway events, through the shared controller as features reach it.
    auto& controller = kt::APAnalyticsController::sharedInstance();
    for (int i = 1; i <= 25; ++i)
        controller.tagEvent(kt::APEvent::make("pageview", kt::AttributeDictionary{{"page_name", "stream:main"}, {"index", i}}));
    // A promoted impression whose tracking URL is on the gateway.
    controller.tagEvent(kt::APEvent::make("promoted_event", kt::AttributeDictionary{{"url", base + "/track/impression/host-app"}}));
    // A play past the attribution threshold: the first counted play.
    player->play("quillarbor:tracks:42", 31.0);
    // Tracking-plan events, through the sender the SDK registered.
    auto sender = kt::DependencyRegistry::shared().get(kt::DependencyKeys::eventSender);
    sender->applicationOpened(false, std::nullopt, std::nullopt);
    sender->screenViewed(kt::ScreenViewedName::home, std::nullopt);
    // Firebase events, with the listener's consent.
    sdk->privacySettings()->updateWithPrivacySettings({.analyticsTrackingEnabled = true});
    auto logger = kt::DependencyRegistry::shared().get(kt::DependencyKeys::firebaseAnalyticsLogger);
    auto events = kt::DependencyRegistry::shared().get(kt::DependencyKeys::firebaseAnalyticsFactory);
    logger->log(events->makeLikedTracksPageView());
    sdk->firebaseController()->trackScreen("Stream");
    // An experiment, copied from remote configuration at start.
    const auto price = sdk->abManager()->assignment<kt::PriceTestExperiment>();

    const bool settled = sdk->waitUntilDelivered(std::chrono::seconds(60));
    const auto s = sdk->statistics();
    std::cout << "host-app against " << base << "\n";
    bool ok = settled;
    ok &= report("event gateway", s.upload.delivered == 25 && s.upload.waiting == 0 && s.upload.dropped() == 0,
                 std::to_string(s.upload.delivered) + " events delivered");
    ok &= report("promoted URL", s.reliableRequests.delivered == 1,
                 std::to_string(s.reliableRequests.delivered) + " tracking request delivered");
    const auto tokens = attribution->tokens();
    ok &= report("attribution", tokens.size() >= 2, std::to_string(tokens.size()) + " tokens handed over");
    ok &= report("product analytics", s.segment.delivered == 2 && s.segment.dropped() == 0,
                 std::to_string(s.segment.delivered) + " plan messages delivered");
    ok &= report("firebase", firebase->events == 1 && firebase->screens == 1,
                 std::to_string(firebase->events) + " event, " + std::to_string(firebase->screens) + " screen");
    ok &= report("experiment", price && *price == kt::PriceTestExperiment::discountedPrice,
                 "dev_ab_price_test is " + std::string(price ? price->rawValue() : "unassigned"));
    sdk->shutdown();
    if (argc <= 2) std::filesystem::remove_all(state);
    std::cout << (ok ? "everything arrived\n" : "INCOMPLETE\n");
    return ok ? 0 : 1;
}
