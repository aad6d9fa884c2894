#include <map>
#include <string>

#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/Promoted/APPromotedAnalyticsProvider.h"
#include "KTAnalytics/Promoted/APPromotedRequestFactory.h"
#include "KTAnalytics/Promoted/AnalyticsEntityTagger.h"
#include "KTAnalytics/KTData/ReliableRequestUploader.h"
#include "KTAnalytics/Promoted/AnalyticsScreenTagger.h"
#include "Support/FakeRequestQueue.h"
#include "Support/RecordingUploader.h"
#include "Support/TemporaryDirectory.h"

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
}

// A plain GET that follows redirects, with the user agent given to the provider, or else the
// shared environment's, read afresh for every request.
TEST(APPromotedAnalyticsProviderTests, FiresAPlainGETWithTheGivenOrElseTheEnvironmentsUserAgent) {
    KTEnvironment environment;
    environment.userAgent = "Quillarbor/9.1 (Linux; promoted test)";
    KTEnvironment::setSharedInstance(environment);
    auto uploader = std::make_shared<RecordingUploader>();
    APPromotedAnalyticsProvider provider(uploader), configured(uploader, "Quillarbor/10 (configured)");
    EXPECT_EQ(*provider.trackedEvents(), EventNameSet{"promoted_event"});

    const auto tag = [](auto& p, const char* url) {
        p.tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", url}, {"ignored", "x"}}));
    };
    tag(provider, "https://ads.example.test/imp?id=7");
    tag(configured, "https://ads.example.test/1");
    environment.userAgent = "Quillarbor/9.2";
    KTEnvironment::setSharedInstance(environment);
    tag(provider, "https://ads.example.test/2");
    tag(configured, "https://ads.example.test/3");
    const auto get = [](std::string url, std::string userAgent) {
        return HTTPRequest{.url = std::move(url), .method = "GET", .headers = {{"User-Agent", std::move(userAgent)}},
                           .followsRedirects = true};
    };
    EXPECT_EQ(uploader->requests, (std::vector<HTTPRequest>{
                                      get("https://ads.example.test/imp?id=7", "Quillarbor/9.1 (Linux; promoted test)"),
                                      get("https://ads.example.test/1", "Quillarbor/10 (configured)"),
                                      get("https://ads.example.test/2", "Quillarbor/9.2"),
                                      get("https://ads.example.test/3", "Quillarbor/10 (configured)")}));
    provider.flush();
    EXPECT_EQ(uploader->flushes, 1);
    KTEnvironment::setSharedInstance(KTEnvironment{});
}

// A URL that can never be sent is refused when tagged: counted under its reason, in this
// run's statistics and in the table as it happens; never stored, never sent. Ad-server data
// writes these texts, so one reaching the tagger is refused the same way, never fatal.
TEST(APPromotedAnalyticsProviderTests, URLsThatCanNeverBeSentAreRefusedAndCountedByReason) {
    using namespace std::string_literals;
    testing::TemporaryDirectory directory{"kt-promoted"};
    const ReliableRequestUploaderConfiguration c{.databasePath = directory / "requests.sqlite3"};
    auto queue = std::make_shared<testing::FakeRequestQueue>(false);
    auto uploader = std::make_shared<ReliableRequestUploader>(c, queue, nullptr);
    auto provider = std::make_shared<APPromotedAnalyticsProvider>(uploader, "UA");
    for (const AttributeValue& url : {AttributeValue("https://ads.test/imp\0id=1"s), AttributeValue(42), AttributeValue(nullptr),
                                      AttributeValue{{"href", "https://ads.test/"}}, AttributeValue("not a url"),
                                      AttributeValue("https://ads.test/imp?q={id}"), AttributeValue("https://ads.test/imp?q=a b"),
                                      AttributeValue("http:/imp"), AttributeValue("ftp://ads.test/imp"),
                                      AttributeValue("https://ads.test/" + std::string(10'000'000, 'a')),
                                      AttributeValue("https://ads.test/imp?id=1")})
        provider->tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"url", url}}));
    provider->tagEvent(APEvent::make("promoted_event", AttributeDictionary{{"link", "https://ads.test/imp"}}));
    AnalyticsEntityTagger tagger(provider);
    tagger.tagEvents(tagger.promotedEventsForUrls({"http://ads.example/t?x={a b}"}));
    const std::map<std::string, std::uint64_t> refused{
        {"control_character", 1}, {"not_text", 4}, {"not_a_url", 5}, {"not_http", 1}, {"too_long", 1}};
    EXPECT_EQ(uploader->statistics().droppedByReason, refused);
    EXPECT_EQ(ReliableRequestUploader::recordedDrops(c.databasePath), refused);
    EXPECT_EQ(uploader->statistics().fired, 13u);
    EXPECT_EQ(uploader->numberOfStoredRequests(), 1u);
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
