#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/APEventGatewayRequestFactory.h"

#include <limits>

#include <gtest/gtest.h>

#include "KTAnalytics/AnalyticsProvider/EventGateway/AnalyticsAttributeRegistry.h"
#include "KTAnalytics/AnalyticsProvider/EventGateway/Upload/GzipCodec.h"
#include "KTAnalytics/KTFoundation/CredentialStore.h"
#include "KTAnalytics/KTFoundation/DependencyRegistry.h"

namespace kt {
namespace {

using namespace std::chrono;
using Headers = std::vector<std::pair<std::string, std::string>>;

const Date kSentAt = Date(milliseconds(1714555800125));  // 2024-05-01T09:30:00.125Z

class APEventGatewayRequestFactoryTests : public ::testing::Test {
protected:
    APEventGatewayRequestFactory factory(bool shouldSendSentAt, std::string baseURL = "http://127.0.0.1:8080",
                                         APEventGatewayRequestFactory::DateFormatter format = {}) {
        return APEventGatewayRequestFactory(std::move(baseURL), registry, JSONSafeSerialization(), keychain,
                                            std::move(format), shouldSendSentAt, [] { return kSentAt; });
    }
    static AttributeValue decodedBody(const HTTPRequest& request) {
        return AttributeValue::parse(*GzipCodec::gunzippedData(request.body));
    }

    DependencyRegistry dependencies;
    std::shared_ptr<AnalyticsAttributeRegistry> registry = std::make_shared<AnalyticsAttributeRegistry>(dependencies);
    std::shared_ptr<InMemoryCredentialStore> keychain = std::make_shared<InMemoryCredentialStore>();
    APEventGatewayRequestFactory::Events batch{
        APEvent::make("pageview", AttributeDictionary{{"page_name", "stream:main"}, {"n", 1}}),
        APEvent::make("like", AttributeDictionary{{"track_urn", "quillarbor:tracks:1"}}),
        APEvent::make("click", value::dictionary())};
};

TEST_F(APEventGatewayRequestFactoryTests, AGzippedPostOfTheGatewayElementsWithTheWireHeaders) {
    AttributeValue elements = AttributeValue::array();
    for (const auto& e : batch) elements.push_back(e->eventGatewayDictionary());
    // Without a user agent or a credential their headers are left out.
    auto request = factory(false).requestForEvents(batch);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->headers, (Headers{{"Content-Type", "application/json"}, {"Content-Encoding", "gzip"}}));

    registry->registerClientId(42, "KTAnalyticsTests/1.0 (Linux)");
    keychain->setCredential("token-123");
    request = factory(false).requestForEvents(batch);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->headers, (Headers{{"User-Agent", "KTAnalyticsTests/1.0 (Linux)"},
                                         {"Content-Type", "application/json"}, {"Content-Encoding", "gzip"},
                                         {"Authorization", "Bearer token-123"}}));
    EXPECT_EQ(decodedBody(*request), elements);

    EXPECT_EQ(decodedBody(*factory(true).requestForEvents(batch)),
              (AttributeValue{{"events", elements}, {"sent_at", "2024-05-01T09:30:00.125Z"}}));
    const auto epochSeconds = [](Date d) { return std::to_string(duration_cast<seconds>(d.time_since_epoch()).count()); };
    EXPECT_EQ(decodedBody(*factory(true, "http://h", epochSeconds).requestForEvents(batch))["sent_at"], "1714555800");
    EXPECT_EQ(APEventGatewayRequestFactory::iso8601DateFormatter()(Date(milliseconds(0))), "1970-01-01T00:00:00.000Z");
}

TEST_F(APEventGatewayRequestFactoryTests, ThePathIsAppendedToAnyBase) {
    for (const auto& [base, url] : std::vector<std::pair<std::string, std::string>>{
             {"http://h:8080/", "http://h:8080/v1/events"}, {"https://h/api", "https://h/api/v1/events"},
             {"https://h/api/?x=1", "https://h/api/v1/events?x=1"}})
        EXPECT_EQ(factory(false, base).requestForEvents(batch)->url, url);
}

TEST_F(APEventGatewayRequestFactoryTests, UnrepresentableValuesGiveNoRequestAndAnError) {
    for (const AttributeValue& bad : {AttributeValue(std::numeric_limits<double>::quiet_NaN()),
                                      AttributeValue(std::numeric_limits<double>::infinity()), value::date(kSentAt),
                                      AttributeValue(std::string("\xff\xfe broken"))}) {
        auto events = batch;
        events.push_back(APEvent::make("pageview", AttributeDictionary{{"bad", bad}}));
        for (bool sentAt : {false, true}) {
            std::string error;
            EXPECT_EQ(factory(sentAt).requestForEvents(events, &error), std::nullopt);
            EXPECT_FALSE(error.empty());
        }
    }
    EXPECT_DEATH(factory(false).requestForEvents({}), "Invalid parameter not satisfying: \\[events count\\] > 0");
}

}  // namespace
}  // namespace kt
