// The two forms values are written in: JSON for the wire, keyed archives on disk.

#include "KTAnalytics/Platform/CBORWriting.h"
#include "KTAnalytics/Platform/JSONSerialization.h"
#include "KTAnalytics/Platform/KeyedArchive.h"

#include <functional>
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

const std::set<std::string> kValueClasses = {archive::kString, archive::kNumber, archive::kArray,
                                             archive::kDictionary, archive::kNull, archive::kDate,
                                             archive::kData};

// The value classes but `missing`, and the given object classes.
std::set<std::string> allowing(std::initializer_list<std::string> objectClasses, const std::string& missing = "") {
    std::set<std::string> allowed = kValueClasses;
    allowed.erase(missing);
    allowed.insert(objectClasses);
    return allowed;
}

Date sampleDate() { return Date(std::chrono::microseconds(1'700'000'000'123'456LL)); }

json nestedAttributes() {
    return json{{"text", "héllo"}, {"int", 42}, {"negative", -7}, {"unsigned", std::numeric_limits<std::uint64_t>::max()},
                {"float", 1.25}, {"wholeFloat", 2.0}, {"yes", true}, {"no", false}, {"nothing", nullptr},
                {"list", json::array({1, "two", json::array({3.5}), json{{"k", false}}})},
                {"deep", json{{"inner", json{{"empty", json::array()}, {"emptyDict", json::object()}}}}},
                {"when", value::date(sampleDate())}, {"blob", value::data({0, 1, 0xff})}};
}

Bytes sampleArchive() {
    KeyedArchiver child("Child");
    child.encodeString("inner", "label");
    KeyedArchiver root("Record");
    root.encodeString("name", "_name");
    root.encodeValue(nestedAttributes(), "_attributes");
    root.encodeObject(child, "_child");
    return root.finish();
}

TEST(KeyedArchiveTests, NestedValuesAndObjectsRoundTripKeepingTheirKindAndEqualObjectsGiveEqualBytes) {
    std::string error;
    const auto reader = KeyedUnarchiver::fromBytes(sampleArchive(), allowing({"Record", "Child"}), &error);
    ASSERT_TRUE(reader) << error;
    EXPECT_EQ(reader->className(), "Record");
    EXPECT_EQ(reader->decodeString("_name"), "name");

    // As text: 2 and 2.0, or true and 1, are equal values of different kinds; dates and data
    // print their bytes and tag. Missing, it reads as null.
    EXPECT_EQ(reader->decodeValue("_attributes").value_or(nullptr).dump(), nestedAttributes().dump());

    const auto child = reader->decodeObject("_child");
    ASSERT_TRUE(child);
    EXPECT_EQ(child->className(), "Child");
    EXPECT_EQ(child->decodeString("label"), "inner");

    // Each accessor answers only for its own kind.
    EXPECT_FALSE(reader->containsKey("missing"));
    EXPECT_FALSE(reader->decodeValue("missing"));
    EXPECT_FALSE(reader->decodeValue("_child"));
    EXPECT_FALSE(reader->decodeObject("_attributes"));
    EXPECT_FALSE(reader->decodeString("_attributes"));

    // Equal objects give identical bytes, whatever order their fields were written in.
    KeyedArchiver first("Record"), second("Record");
    first.encodeValue(json{{"b", 1}, {"a", "x"}}, "_attributes");
    first.encodeString("n", "_name");
    second.encodeString("n", "_name");
    second.encodeValue(json{{"a", "x"}, {"b", 1}}, "_attributes");
    EXPECT_EQ(first.finish(), second.finish());
}

// The archiver writes CBOR itself; its bytes must stay those of the tree form its header
// describes, as nlohmann writes it, at every width of every kind (files are named by them).
TEST(KeyedArchiveTests, BytesAreThoseOfTheTreeFormAtEveryWidth) {
    std::function<json(const json&)> tree = [&](const json& v) {
        const auto pair = [](const char* name, json payload) { return json::array({json(name), std::move(payload)}); };
        json items = v.is_array() ? json::array() : json::object();
        switch (v.type()) {
            case json::value_t::string: return pair("string", v);
            case json::value_t::null: return pair("null", nullptr);
            case json::value_t::array:
                for (const auto& item : v) items.push_back(tree(item));
                return pair("array", items);
            case json::value_t::object:
                for (const auto& [key, item] : v.items()) items[key] = tree(item);
                return pair("dictionary", items);
            case json::value_t::binary:
                if (auto when = value::asDate(v))
                    return pair("date", std::chrono::duration_cast<std::chrono::microseconds>(when->time_since_epoch()).count());
                return pair("data", json::binary(Bytes(v.get_binary().begin(), v.get_binary().end())));
            default: return pair("number", v);
        }
    };
    json values = nestedAttributes();
    json many = json::object(), list = json::array();
    for (int i = 0; i < 300; ++i) {
        many[std::to_string(1000 + i)] = i;
        list.push_back(-i * 1000);
    }
    const std::pair<std::string, json> extra[] = {
        {"i", json::array({-24, -25, -256, -257, -65536, -65537, -4294967296LL, std::numeric_limits<std::int64_t>::min(),
                           23, 24, 255, 256, 65535, 65536, 4294967295LL, 4294967296LL,
                           std::numeric_limits<std::int64_t>::max()})},
        {"u", json::array({0u, 23u, 24u, 255u, 65536u, 4294967296ULL})},
        {"f", json::array({0.1, -2.5, 1e300, 1e-300, 3.4028234663852886e38, 1e39, -0.0,
                           std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                           -std::numeric_limits<double>::infinity()})},
        {"s", json::array({"", std::string(23, 'a'), std::string(24, 'b'), std::string(256, 'c'), std::string(70000, 'd')})},
        {"b", json::array({value::data({}), value::data(Bytes(300, 7)), value::date(Date(std::chrono::microseconds(-5)))})},
        {"many", many}, {"list", list}, {std::string(40, 'K'), "a key longer than 23 bytes"},
        {"tags", json::array({json::binary({1}, 23), json::binary({2}, 300), json::binary({3}, 70000),
                              json::binary({4}, 5000000000ULL), json::binary(Bytes(24, 5))})}};
    for (const auto& [key, value] : extra) values[key] = value;
    Bytes plain{0x01};
    cbor::appendValue(plain, values);
    EXPECT_EQ(plain, [&] {
        Bytes expected{0x01};
        json::to_cbor(values, expected);
        return expected;
    }());

    KeyedArchiver child("Child");
    child.encodeString("inner", "label");
    KeyedArchiver root("Record");
    root.encodeValue(values, "_attributes");
    root.encodeString("name", "_name");
    root.encodeObject(child, "_child");
    json fields = json::object();
    fields["_attributes"] = tree(values);
    fields["_name"] = tree("name");
    fields["_child"] = json::array({"Child", json{{"label", tree("inner")}}});
    const json expected = {{"$archiver", "KTKeyedArchiver"}, {"$version", 1}, {"$top", json::array({"Record", fields})}};
    EXPECT_EQ(root.finish(), json::to_cbor(expected));
}

// The bounded writer refuses exactly what the depth check refuses, leaving the buffer as
// it was, and never recurses into a hostile depth.
TEST(CBORWritingTests, ABoundedValueIsRefusedAtTheDepthTheCheckRefuses) {
    const auto nested = [](std::size_t depth, bool arrays) {
        json v = 1;
        for (std::size_t i = 0; i < depth; ++i) v = arrays ? json::array({std::move(v)}) : json{{"k", std::move(v)}};
        return v;
    };
    for (const std::size_t depth : {0, 1, 255, 256, 257, 5000})
        for (const bool arrays : {true, false}) {
            SCOPED_TRACE(std::to_string(depth) + (arrays ? " arrays" : " dictionaries"));
            const json v = nested(depth, arrays);
            Bytes out{0x01};
            const bool written = cbor::appendValue(out, v, 256);
            EXPECT_EQ(written, !value::nestsDeeperThan(v, 256));
            if (written) {
                EXPECT_EQ(Bytes(out.begin() + 1, out.end()), json::to_cbor(v));
            } else {
                EXPECT_EQ(out, Bytes{0x01});
            }
        }
}

// Never an exception or a crash.
TEST(KeyedArchiveTests, AnythingButAWellFormedArchiveOfAllowedClassesIsRejectedWithAReason) {
    const Bytes bytes = sampleArchive();
    const auto allowed = allowing({"Record", "Child"});
    std::vector<std::tuple<std::string, Bytes, std::set<std::string>>> cases = {
        {"'Record'", bytes, allowing({"Child"})}, {"'Child'", bytes, allowing({"Record"})}};
    for (const auto& valueClass : kValueClasses)
        cases.push_back({"'" + valueClass + "'", bytes, allowing({"Record", "Child"}, valueClass)});
    KeyedArchiver buried("Record");  // a date three levels down is found as well
    buried.encodeValue(json{{"a", json::array({json{{"b", value::date(sampleDate())}}})}}, "_attributes");
    cases.push_back({"'date'", buried.finish(), allowing({"Record"}, archive::kDate)});
    for (std::size_t length = 0; length < bytes.size(); ++length)
        cases.push_back({"", Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)), allowed});

    const json top = json::array({"Record", json::object()});
    auto archive = [](const json& topValue, const json& archiver = "KTKeyedArchiver", int version = 1) {
        return json::to_cbor(json{{"$archiver", archiver}, {"$version", version}, {"$top", topValue}});
    };
    // The hand-built well-formed archive is accepted, so each rejection below is about what
    // that input breaks.
    ASSERT_TRUE(KeyedUnarchiver::fromBytes(archive(top), allowed, nullptr));
    Bytes padded = bytes;
    padded.push_back(0);        // trailing bytes after a valid archive
    Bytes deep(200'000, 0x81);  // nesting far deeper than the parser's stack could follow
    deep.push_back(0x00);
    for (const Bytes& input : std::vector<Bytes>{
             json::to_cbor(json{{"a", 1}}),
             json::to_cbor(json{{"$top", top}, {"$version", 1}}),
             json::to_cbor(json{{"$archiver", "KTKeyedArchiver"}, {"$version", 1}}),
             archive(top, "Other"),
             archive(top, "KTKeyedArchiver", 2),
             json::to_cbor(json::array({1, 2})),
             // A value class may not stand at the root, and a payload must match its class.
             archive(json::array({"string", "x"})),
             archive(json::array({"Record", json{{"f", json::array({"number", "1"})}}})),
             archive(json::array({"Record", json{{"f", 3}}})),
             padded,
             deep,
             // Lengths that lie, and an indefinite-length map.
             Bytes{0x9b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
             Bytes{0x5b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00},
             Bytes{0xbf, 0xff},
         })
        cases.push_back({"", input, allowed});

    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [named, input, classes] = cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + " " + named);
        std::string error;
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(input, classes, &error));
        EXPECT_NE(error.find(named), std::string::npos) << error;
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
}  // namespace kt
