#include "Platform/KeyedArchive.h"

#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace kt {
namespace {

using nlohmann::json;

const std::set<std::string> kValueClasses = {archive::kString, archive::kNumber, archive::kArray,
                                             archive::kDictionary, archive::kNull, archive::kDate,
                                             archive::kData};

std::set<std::string> allowing(std::initializer_list<std::string> objectClasses,
                               const std::set<std::string>& values = kValueClasses) {
    std::set<std::string> allowed = values;
    allowed.insert(objectClasses);
    return allowed;
}

std::set<std::string> without(std::set<std::string> classes, const std::string& removed) {
    classes.erase(removed);
    return classes;
}

Date sampleDate() { return Date(std::chrono::microseconds(1'700'000'000'123'456LL)); }

json nestedAttributes() {
    return json{{"text", "héllo"},
                {"int", 42},
                {"negative", -7},
                {"unsigned", std::numeric_limits<std::uint64_t>::max()},
                {"float", 1.25},
                {"wholeFloat", 2.0},
                {"yes", true},
                {"no", false},
                {"nothing", nullptr},
                {"list", json::array({1, "two", json::array({3.5}), json{{"k", false}}})},
                {"deep", json{{"inner", json{{"empty", json::array()}, {"emptyDict", json::object()}}}}},
                {"when", value::date(sampleDate())},
                {"blob", value::data({0, 1, 0xff})}};
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

TEST(KeyedArchiveTests, NestedValuesAndObjectsRoundTrip) {
    std::string error;
    const auto reader = KeyedUnarchiver::fromBytes(sampleArchive(), allowing({"Record", "Child"}), &error);
    ASSERT_TRUE(reader) << error;
    EXPECT_EQ(reader->className(), "Record");
    EXPECT_EQ(reader->decodeString("_name"), "name");

    const auto attributes = reader->decodeValue("_attributes");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(*attributes, nestedAttributes());
    EXPECT_EQ(value::asDate((*attributes)["when"]), sampleDate());
    EXPECT_EQ(value::asData((*attributes)["blob"]), (Bytes{0, 1, 0xff}));

    const auto child = reader->decodeObject("_child");
    ASSERT_TRUE(child);
    EXPECT_EQ(child->className(), "Child");
    EXPECT_EQ(child->decodeString("label"), "inner");
}

TEST(KeyedArchiveTests, BooleansIntegersAndFloatsKeepTheirKind) {
    // nlohmann compares 2 and 2.0 as equal, so equality alone would not catch a lost kind.
    const auto reader = KeyedUnarchiver::fromBytes(sampleArchive(), allowing({"Record", "Child"}), nullptr);
    ASSERT_TRUE(reader);
    const json attributes = *reader->decodeValue("_attributes");
    EXPECT_TRUE(attributes["yes"].is_boolean());
    EXPECT_TRUE(attributes["no"].is_boolean());
    EXPECT_TRUE(attributes["list"][3]["k"].is_boolean());
    EXPECT_TRUE(attributes["int"].is_number_integer());
    EXPECT_TRUE(attributes["negative"].is_number_integer());
    EXPECT_EQ(attributes["unsigned"].get<std::uint64_t>(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_TRUE(attributes["float"].is_number_float());
    EXPECT_TRUE(attributes["wholeFloat"].is_number_float());
    EXPECT_TRUE(attributes["list"][0].is_number_integer());
    EXPECT_TRUE(attributes["nothing"].is_null());
}

TEST(KeyedArchiveTests, AccessorsAnswerOnlyForTheirOwnKind) {
    const auto reader = KeyedUnarchiver::fromBytes(sampleArchive(), allowing({"Record", "Child"}), nullptr);
    ASSERT_TRUE(reader);
    EXPECT_TRUE(reader->containsKey("_child"));
    EXPECT_FALSE(reader->containsKey("missing"));
    EXPECT_FALSE(reader->decodeValue("missing"));
    EXPECT_FALSE(reader->decodeValue("_child"));       // an object is not a value
    EXPECT_FALSE(reader->decodeObject("_attributes")); // a value is not an object
    EXPECT_FALSE(reader->decodeString("_attributes"));
    EXPECT_FALSE(reader->decodeObject("missing"));
}

TEST(KeyedArchiveTests, EqualObjectsGiveIdenticalBytes) {
    KeyedArchiver first("Record");
    first.encodeValue(json{{"b", 1}, {"a", "x"}}, "_attributes");
    first.encodeString("n", "_name");
    KeyedArchiver second("Record");
    second.encodeString("n", "_name");
    second.encodeValue(json{{"a", "x"}, {"b", 1}}, "_attributes");
    EXPECT_EQ(first.finish(), second.finish());
}

TEST(KeyedArchiveTests, EveryClassMetMustBeAllowed) {
    const Bytes bytes = sampleArchive();
    const struct {
        const char* missing;
        std::set<std::string> allowed;
    } cases[] = {
        {"Record", allowing({"Child"})},
        {"Child", allowing({"Record"})},
        {"date", allowing({"Record", "Child"}, without(kValueClasses, archive::kDate))},
        {"data", allowing({"Record", "Child"}, without(kValueClasses, archive::kData))},
        {"null", allowing({"Record", "Child"}, without(kValueClasses, archive::kNull))},
        {"number", allowing({"Record", "Child"}, without(kValueClasses, archive::kNumber))},
        {"array", allowing({"Record", "Child"}, without(kValueClasses, archive::kArray))},
        {"dictionary", allowing({"Record", "Child"}, without(kValueClasses, archive::kDictionary))},
        {"string", allowing({"Record", "Child"}, without(kValueClasses, archive::kString))},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(bytes, c.allowed, &error)) << c.missing;
        EXPECT_NE(error.find(std::string("'") + c.missing + "'"), std::string::npos) << error;
    }

    // A date buried three levels down is found as well.
    KeyedArchiver archiver("Record");
    archiver.encodeValue(json{{"a", json::array({json{{"b", value::date(sampleDate())}}})}}, "_attributes");
    EXPECT_FALSE(KeyedUnarchiver::fromBytes(archiver.finish(),
                                            allowing({"Record"}, without(kValueClasses, archive::kDate)), nullptr));
}

TEST(KeyedArchiveTests, EveryTruncationIsRejected) {
    const Bytes bytes = sampleArchive();
    const auto allowed = allowing({"Record", "Child"});
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        std::string error;
        const Bytes prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(prefix, allowed, &error)) << length;
        EXPECT_FALSE(error.empty()) << length;
    }
}

TEST(KeyedArchiveTests, ForeignAndMalformedInputIsRejected) {
    const auto allowed = allowing({"Record"});
    auto rejected = [&](const Bytes& bytes) {
        std::string error;
        const bool failed = !KeyedUnarchiver::fromBytes(bytes, allowed, &error);
        return failed && !error.empty();
    };
    const json top = json::array({"Record", json::object()});

    EXPECT_TRUE(rejected(json::to_cbor(json{{"a", 1}})));
    EXPECT_TRUE(rejected(json::to_cbor(json{{"$top", top}, {"$version", 1}})));
    EXPECT_TRUE(rejected(json::to_cbor(json{{"$archiver", "KTKeyedArchiver"}, {"$version", 1}})));
    EXPECT_TRUE(rejected(json::to_cbor(json{{"$archiver", "Other"}, {"$version", 1}, {"$top", top}})));
    EXPECT_TRUE(rejected(json::to_cbor(json{{"$archiver", "KTKeyedArchiver"}, {"$version", 2}, {"$top", top}})));
    EXPECT_TRUE(rejected(json::to_cbor(json::array({1, 2}))));
    // A value class may not stand at the root, and a payload must match its class.
    EXPECT_TRUE(rejected(json::to_cbor(
        json{{"$archiver", "KTKeyedArchiver"}, {"$version", 1}, {"$top", json::array({"string", "x"})}})));
    EXPECT_TRUE(rejected(json::to_cbor(json{{"$archiver", "KTKeyedArchiver"},
                                            {"$version", 1},
                                            {"$top", json::array({"Record", json{{"f", json::array({"number", "1"})}}})}})));
    EXPECT_TRUE(rejected(json::to_cbor(
        json{{"$archiver", "KTKeyedArchiver"}, {"$version", 1}, {"$top", json::array({"Record", json{{"f", 3}}})}})));

    // Sanity: the hand-built well-formed archive is accepted, so the rejections above are
    // about what each one breaks.
    EXPECT_TRUE(KeyedUnarchiver::fromBytes(
        json::to_cbor(json{{"$archiver", "KTKeyedArchiver"}, {"$version", 1}, {"$top", top}}), allowed, nullptr));

    // Trailing bytes after a valid archive.
    Bytes padded = sampleArchive();
    padded.push_back(0);
    EXPECT_TRUE(rejected(padded));

    // Nesting far deeper than the parser's stack could follow, and lengths that lie.
    Bytes deep(200'000, 0x81);
    deep.push_back(0x00);
    EXPECT_TRUE(rejected(deep));
    EXPECT_TRUE(rejected(Bytes{0x9b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
    EXPECT_TRUE(rejected(Bytes{0x5b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00}));
    EXPECT_TRUE(rejected(Bytes{0xbf, 0xff}));  // indefinite-length map
}

TEST(KeyedArchiveTests, RandomAndCorruptedBytesNeverCrash) {
    const auto allowed = allowing({"Record", "Child"});
    std::mt19937 random(12345);
    for (int i = 0; i < 3000; ++i) {
        Bytes garbage(random() % 64);
        for (auto& b : garbage) b = static_cast<std::uint8_t>(random());
        std::string error;
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(garbage, allowed, &error));
        EXPECT_FALSE(error.empty());
    }
    // Single-byte corruptions of a real archive: each must either fail cleanly or read as
    // some well-formed archive whose values can all be decoded.
    const Bytes original = sampleArchive();
    for (std::size_t at = 0; at < original.size(); ++at) {
        for (std::uint8_t mask : {0x01, 0x20, 0xff}) {
            Bytes corrupted = original;
            corrupted[at] ^= mask;
            if (auto reader = KeyedUnarchiver::fromBytes(corrupted, allowed, nullptr)) {
                reader->decodeValue("_attributes");
                reader->decodeObject("_child");
            }
        }
    }
}

TEST(KeyedArchiveDeathTest, ObjectClassMayNotReuseAValueClassName) {
    EXPECT_DEATH(KeyedArchiver("dictionary"), "Invalid parameter not satisfying");
    EXPECT_DEATH(KeyedArchiver(""), "Invalid parameter not satisfying");
}

}  // namespace
}  // namespace kt
