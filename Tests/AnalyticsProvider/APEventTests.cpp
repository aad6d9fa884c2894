#include <gtest/gtest.h>

#include "AnalyticsProvider/APEvent.h"
#include "AnalyticsProvider/APEventBuilder.h"
#include "Platform/KeyedArchive.h"

namespace kt {
namespace {

const std::set<std::string> kEventClasses{"APEvent", "string", "number", "dictionary", "array"};

TEST(APEventTests, EqualEventsHaveEqualHashesAndNullAttributesOnlyMatchNull) {
    auto a = APEvent::make("pageview", AttributeDictionary{{"page_name", "stream:main"}, {"n", 1}});
    auto b = APEvent::make("pageview", AttributeDictionary{{"n", 1}, {"page_name", "stream:main"}});
    EXPECT_TRUE(a->isEqual(b.get()));
    EXPECT_EQ(a->hash(), b->hash());

    auto nullA = APEvent::make("pageview", std::nullopt);
    auto nullB = APEvent::make("pageview", std::nullopt);
    auto empty = APEvent::make("pageview", AttributeDictionary::object());
    EXPECT_TRUE(nullA->isEqual(nullB.get()));
    EXPECT_FALSE(nullA->isEqual(empty.get()));
    EXPECT_FALSE(empty->isEqual(nullA.get()));
    EXPECT_FALSE(nullA->isEqual(APEvent::make("click", std::nullopt).get()));
    EXPECT_FALSE(a->isEqual(nullptr));
}

class OtherDescripting final : public APEventDescripting {
public:
    const std::string& name() const override { return name_; }
    const AttributeDictionary* attributes() const override { return nullptr; }

private:
    std::string name_ = "pageview";
};

TEST(APEventTests, AnEventOfAnotherClassIsNeverEqual) {
    auto event = APEvent::make("pageview", std::nullopt);
    OtherDescripting other;
    EXPECT_FALSE(event->isEqual(&other));
}

TEST(APEventTests, ConstructionCopiesTheCallersDictionary) {
    AttributeDictionary attributes{{"k", "v"}};
    auto event = APEvent::make("like", attributes);
    attributes["k"] = "changed";
    EXPECT_EQ((*event->attributes())["k"], "v");
}

TEST(APEventTests, GatewayDictionaryHasExactlyEventVersionAndPayload) {
    auto event = APEvent::make("pageview", AttributeDictionary{{"x", 1}});
    const auto d = event->eventGatewayDictionary();
    EXPECT_EQ(d, (AttributeDictionary{{"event", "pageview"}, {"version", "v1.27.36"}, {"payload", {{"x", 1}}}}));
}

TEST(APEventTests, DescriptionNamesClassNameAndAttributes) {
    auto event = APEvent::make("like", AttributeDictionary{{"track_urn", "quillarbor:tracks:1"}});
    EXPECT_EQ(event->description(), "<APEvent: name=like attributes={track_urn = quillarbor:tracks:1}>");
    EXPECT_EQ(APEvent::make("like", std::nullopt)->description(), "<APEvent: name=like attributes=(null)>");
}

TEST(APEventTests, ArchivedEventReadsBackEqual) {
    auto event = APEvent::make(
        "audio", AttributeDictionary{{"track", "quillarbor:tracks:9"},
                                     {"position", 12.5},
                                     {"count", 3},
                                     {"muted", false},
                                     {"nested", {{"list", {1, "two", AttributeDictionary{{"three", 3}}}}}}});
    std::string error;
    auto back = APEvent::unarchive(event->archivedData(), kEventClasses, &error);
    ASSERT_TRUE(back) << error;
    EXPECT_TRUE(back->isEqual(event.get()));
    EXPECT_EQ(back->hash(), event->hash());

    auto withoutAttributes = APEvent::make("foreground", std::nullopt);
    auto backNull = APEvent::unarchive(withoutAttributes->archivedData(), kEventClasses, &error);
    ASSERT_TRUE(backNull) << error;
    EXPECT_EQ(backNull->attributes(), nullptr);
}

TEST(APEventTests, ArchiveOfAnotherClassOrWithDisallowedValuesIsRejected) {
    KeyedArchiver other("APSomethingElse");
    other.encodeString("pageview", "_name");
    std::string error;
    EXPECT_EQ(APEvent::unarchive(other.finish(), kEventClasses, &error), nullptr);
    EXPECT_FALSE(error.empty());

    // A date merged without checks archives, but reading it back refuses the date.
    auto dated = APEventBuilder::builder()
                     .name("like")
                     .addAttributes(AttributeDictionary{{"when", value::date(Date{})}})
                     .build();
    error.clear();
    EXPECT_EQ(APEvent::unarchive(dated->archivedData(), kEventClasses, &error), nullptr);
    EXPECT_FALSE(error.empty());
}

TEST(APEventTests, TruncatedArchiveIsRejectedWithoutCrashing) {
    auto bytes = APEvent::make("like", AttributeDictionary{{"a", "b"}, {"c", {1, 2, 3}}})->archivedData();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        Bytes prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        std::string error;
        EXPECT_EQ(APEvent::unarchive(prefix, kEventClasses, &error), nullptr) << "length " << length;
    }
}

TEST(APEventDeathTests, NullNameAndNullPayloadAreFatal) {
    EXPECT_DEATH(APEvent::make(std::nullopt, std::nullopt), "Invalid parameter not satisfying: name");
    auto event = APEvent::make("pageview", std::nullopt);
    EXPECT_DEATH(event->eventGatewayDictionary(), "null payload");

    KeyedArchiver nameless(APEvent::kClassName);
    nameless.encodeValue(AttributeDictionary{{"a", 1}}, "_attributes");
    const auto bytes = nameless.finish();
    EXPECT_DEATH(APEvent::unarchive(bytes, kEventClasses, nullptr), "Invalid parameter not satisfying: name");
}

}  // namespace
}  // namespace kt
