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

TEST(KeyedArchiveTests, NestedValuesAndObjectsRoundTripKeepingTheirKind) {
    std::string error;
    const auto reader = KeyedUnarchiver::fromBytes(sampleArchive(), allowing({"Record", "Child"}), &error);
    ASSERT_TRUE(reader) << error;
    EXPECT_EQ(reader->className(), "Record");
    EXPECT_EQ(reader->decodeString("_name"), "name");

    const auto attributes = reader->decodeValue("_attributes");
    ASSERT_TRUE(attributes);
    // As text too: 2 and 2.0, or true and 1, are equal values of different kinds.
    EXPECT_EQ(attributes->dump(), nestedAttributes().dump());
    EXPECT_EQ(value::asDate((*attributes)["when"]), sampleDate());
    EXPECT_EQ(value::asData((*attributes)["blob"]), (Bytes{0, 1, 0xff}));

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
    std::vector<std::pair<std::string, std::set<std::string>>> cases = {{"Record", allowing({"Child"})},
                                                                        {"Child", allowing({"Record"})}};
    for (const auto& valueClass : kValueClasses)
        cases.push_back({valueClass, allowing({"Record", "Child"}, without(kValueClasses, valueClass))});
    const Bytes bytes = sampleArchive();
    for (const auto& [missing, allowed] : cases) {
        std::string error;
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(bytes, allowed, &error)) << missing;
        EXPECT_NE(error.find("'" + missing + "'"), std::string::npos) << error;
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
    const json top = json::array({"Record", json::object()});
    auto archive = [](const json& topValue, const json& archiver = "KTKeyedArchiver", int version = 1) {
        return json::to_cbor(json{{"$archiver", archiver}, {"$version", version}, {"$top", topValue}});
    };
    // Sanity: the hand-built well-formed archive is accepted, so each rejection below is
    // about what that input breaks.
    EXPECT_TRUE(KeyedUnarchiver::fromBytes(archive(top), allowed, nullptr));

    Bytes padded = sampleArchive();
    padded.push_back(0);  // trailing bytes after a valid archive
    Bytes deep(200'000, 0x81);  // nesting far deeper than the parser's stack could follow
    deep.push_back(0x00);
    const std::vector<Bytes> inputs = {
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
    };
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        std::string error;
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(inputs[i], allowed, &error)) << "input " << i;
        EXPECT_FALSE(error.empty()) << "input " << i;
    }
}

TEST(KeyedArchiveTests, RandomAndCorruptedBytesNeverCrash) {
    const auto allowed = allowing({"Record", "Child"});
    std::mt19937 random(12345);
    for (int i = 0; i < 3000; ++i) {
        Bytes garbage(random() % 64);
        for (auto& b : garbage) b = static_cast<std::uint8_t>(random());
        EXPECT_FALSE(KeyedUnarchiver::fromBytes(garbage, allowed, nullptr));
    }
    // A corrupted archive either fails cleanly or reads as some well-formed archive.
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

}  // namespace
}  // namespace kt
