#include "Platform/JSONSerialization.h"

#include <limits>
#include <tuple>

#include <gtest/gtest.h>

namespace kt {
namespace {

using nlohmann::json;

TEST(JSONSerializationTests, WritesCompactJSONThatReadsBackAndBadTextIsAnError) {
    const JSONSafeSerialization serialization;
    const json batch = json::array({{{"event", "pageview"}, {"payload", {{"n", 1}, {"f", 2.5}, {"ok", true}, {"x", nullptr}}}},
                                    {{"event", "click"}, {"payload", json::object()}}});
    std::string error;
    const auto text = serialization.dataWithJSONObject(batch, &error);
    ASSERT_TRUE(text) << error;
    EXPECT_EQ(*text,
              R"([{"event":"pageview","payload":{"f":2.5,"n":1,"ok":true,"x":null}},{"event":"click","payload":{}}])");
    EXPECT_TRUE(serialization.isValidJSONObject(batch));
    const auto parsed = serialization.JSONObjectWithData(*text, &error);
    ASSERT_TRUE(parsed) << error;
    EXPECT_EQ(*parsed, batch);  // a boolean read back as a number would differ

    for (const std::string bad : {"", "{", "[1,]", "{\"a\":1} x", "\"\xff\"", "NaN"}) {
        error.clear();
        EXPECT_FALSE(serialization.JSONObjectWithData(bad, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}

TEST(JSONSerializationTests, UnrepresentableValuesAnywhereAreErrorsNotNull) {
    const JSONSafeSerialization serialization;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const std::tuple<const char*, json> cases[] = {
        {"NaN at the top", json(nan)},
        {"infinity deep in an array", json::array({1, json::array({json::object({{"v", inf}})})})},
        {"negative infinity in a dictionary", json::object({{"a", json::object({{"b", -inf}})}})},
        {"invalid UTF-8 in a string", json::object({{"k", std::string("ok\xff")}})},
        {"invalid UTF-8 in a key", json::object({{std::string("\xc3("), 1}})},
        {"a date", json::object({{"when", value::date(Date{})}})},
        {"raw data in an array", json::array({value::data({1, 2, 3})})},
    };
    for (const auto& [what, value] : cases) {
        SCOPED_TRACE(what);
        std::string error;
        EXPECT_FALSE(serialization.dataWithJSONObject(value, &error));
        EXPECT_FALSE(error.empty());
        EXPECT_FALSE(serialization.isValidJSONObject(value));
    }
}

}  // namespace
}  // namespace kt
