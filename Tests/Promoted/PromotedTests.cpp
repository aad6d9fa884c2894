#include <gtest/gtest.h>

#include "AnalyticsProvider/APAnalyticsController.h"
#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/APEventNames.h"
#include "KTFoundation/KTEnvironment.h"
#include "Promoted/APPromotedAnalyticsProvider.h"
#include "Promoted/APPromotedRequestFactory.h"
#include "Promoted/AnalyticsEntityTagger.h"
#include "Promoted/AnalyticsScreenTagger.h"
#include "Support/RecordingUploader.h"

namespace kt {
namespace {

using testing::RecordingUploader;

class RecordingProvider final : public APBaseAnalyticsProvider {
public:
    explicit RecordingProvider(EventNameSet names) : names_(std::make_shared<const EventNameSet>(std::move(names))) {}
    std::shared_ptr<const EventNameSet> trackedEvents() const override { return names_; }
    void tagEvent(const std::shared_ptr<const APEventDescripting>& event) override { tagged.push_back(event); }
    std::vector<std::shared_ptr<const APEventDescripting>> tagged;

private:
    std::shared_ptr<const EventNameSet> names_;
};

TEST(AnalyticsEntityTaggerTests, OnePromotedEventPerURLInOrderCarryingOnlyTheURL) {
    auto provider = std::make_shared<RecordingProvider>(EventNameSet{});
    AnalyticsEntityTagger tagger(provider);
    EXPECT_TRUE(tagger.promotedEventsForUrls({}).empty());
    const std::vector<std::string> urls = {"https://ads.example.test/imp?id=1", "http://127.0.0.1:8080/track/2",
                                           "https://ads.example.test/click?x=%20y"};
    const auto events = tagger.promotedEventsForUrls(urls);
    ASSERT_EQ(events.size(), 3u);
    for (std::size_t i = 0; i < urls.size(); ++i) {
        EXPECT_EQ(events[i]->name(), "promoted_event");
        EXPECT_EQ(*events[i]->attributes(), (AttributeDictionary{{"url", urls[i]}}));
    }
    tagger.tagEvents(events);
    ASSERT_EQ(provider->tagged.size(), 3u);
    EXPECT_EQ(provider->tagged[2], events[2]);
    EXPECT_DEATH(AnalyticsEntityTagger(nullptr), "Invalid parameter not satisfying: analyticsProvider");
    EXPECT_DEATH(tagger.promotedEventsForUrls({"not a url"}), "Expected 'absoluteString' not to be nil.");
}

TEST(APPromotedAnalyticsProviderTests, FiresAPlainGETWithTheEnvironmentsUserAgentAndNothingElse) {
    KTEnvironment environment;
    environment.userAgent = "Quillarbor/9.1 (Linux; promoted test)";
    KTEnvironment::setSharedInstance(environment);
    auto uploader = std::make_shared<RecordingUploader>();
    APPromotedAnalyticsProvider provider(uploader);
    EXPECT_EQ(*provider.trackedEvents(), EventNameSet{"promoted_event"});

    provider.tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", "https://ads.example.test/imp?id=7"},
                                                                          {"ignored", "x"}}));
    // The user agent is read afresh for every request.
    environment.userAgent = "Quillarbor/9.2";
    KTEnvironment::setSharedInstance(environment);
    provider.tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", "https://ads.example.test/2"}}));
    // Without a usable "url" nothing is fired.
    for (const auto& attributes : {AttributeDictionary::object(), AttributeDictionary{{"url", 42}},
                                   AttributeDictionary{{"url", "not a url"}}, AttributeDictionary{{"link", "https://x.test"}}})
        provider.tagEvent(APEvent::make("promoted_event", attributes));
    const auto get = [](std::string url, std::string userAgent) {
        return HTTPRequest{.url = std::move(url), .method = "GET", .headers = {{"User-Agent", std::move(userAgent)}}};
    };
    EXPECT_EQ(uploader->requests, (std::vector<HTTPRequest>{
                                      get("https://ads.example.test/imp?id=7", "Quillarbor/9.1 (Linux; promoted test)"),
                                      get("https://ads.example.test/2", "Quillarbor/9.2")}));
    provider.flush();
    EXPECT_EQ(uploader->flushes, 1);
    KTEnvironment::setSharedInstance(KTEnvironment{});
}

TEST(AnalyticsScreenTaggerTests, AScreenBecomesAPageviewWithItsPageNameWhenItHasOne) {
    auto names = std::make_shared<APEventNames>();
    auto controller = std::make_shared<APAnalyticsController>(std::make_shared<RecordingUploader>(), names, nullptr);
    auto provider = std::make_shared<RecordingProvider>(EventNameSet{"pageview"});
    controller->registerAnalyticsProvider(provider);
    AnalyticsScreenTagger tagger(controller);
    AnalyticsEntityTagger entities(provider);

    tagger.tagScreen(AnalyticsScreen::likes);
    ASSERT_EQ(provider->tagged.size(), 1u);
    EXPECT_EQ(provider->tagged[0]->name(), "pageview");
    EXPECT_EQ(*provider->tagged[0]->attributes(), (AttributeDictionary{{"page_name", "collection:likes"}}));
    EXPECT_TRUE(entities.isValidScreen(AnalyticsScreen::likes));

    for (auto screen : {AnalyticsScreen::unknown, AnalyticsScreen::legacyExplore, AnalyticsScreen::onboardingWelcome}) {
        EXPECT_EQ(*tagger.screenEventForScreen(screen)->attributes(), AttributeDictionary::object());
        EXPECT_FALSE(entities.isValidScreen(screen));
    }
    EXPECT_DEATH(AnalyticsScreenTagger(nullptr), "Invalid parameter not satisfying: controller");
}

}  // namespace
}  // namespace kt
