#include "Platform/UserDefaults.h"

#include <cstdlib>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using nlohmann::json;

class UserDefaultsTests : public ::testing::Test {
protected:
    std::shared_ptr<UserDefaults> openDefaults() {
        std::string error;
        auto defaults = UserDefaults::open(path_, &error);
        EXPECT_TRUE(defaults) << error;
        return defaults;
    }

    testing::TemporaryDirectory dir_{"kt-defaults"};
    std::filesystem::path path_ = dir_ / "app" / "defaults.sqlite3";
};

Date sampleDate() { return Date(std::chrono::microseconds(1'700'000'000'654'321LL)); }

TEST_F(UserDefaultsTests, ValuesSurviveReopeningTheDatabase) {
    const json assignments = {{"experiment_a", "variant_1"}, {"experiment_b", "control"}};
    const json nested = {{"list", json::array({1, 2.5, "x", true})}, {"when", value::date(sampleDate())}};
    {
        auto defaults = openDefaults();
        ASSERT_TRUE(defaults);
        defaults->set("text", "string");
        defaults->set(41, "int");
        defaults->set(2.75, "double");
        defaults->set(true, "bool");
        defaults->set(value::date(sampleDate()), "date");
        defaults->set(value::data({9, 8, 7}), "data");
        defaults->set(assignments, "assignments");
        defaults->set(nested, "nested");
        defaults->set(42, "int");  // overwrite
    }
    auto reopened = openDefaults();
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->string("string"), "text");
    EXPECT_EQ(reopened->integer("int"), 42);
    EXPECT_EQ(reopened->number("double"), 2.75);
    ASSERT_TRUE(reopened->object("bool"));
    EXPECT_TRUE(reopened->object("bool")->is_boolean());
    EXPECT_EQ(reopened->date("date"), sampleDate());
    EXPECT_EQ(value::asData(*reopened->object("data")), (Bytes{9, 8, 7}));
    EXPECT_EQ(reopened->stringDictionary("assignments"),
              (std::map<std::string, std::string>{{"experiment_a", "variant_1"}, {"experiment_b", "control"}}));
    EXPECT_EQ(reopened->object("nested"), nested);
    EXPECT_EQ(value::asDate((*reopened->object("nested"))["when"]), sampleDate());
}

TEST_F(UserDefaultsTests, TypedGettersAnswerOnlyForTheirKind) {
    auto defaults = openDefaults();
    ASSERT_TRUE(defaults);
    defaults->set("12", "numericText");
    defaults->set(-3.9, "negative");
    defaults->set(1e300, "huge");
    defaults->set(true, "flag");
    defaults->set(json{{"a", "x"}, {"b", 1}}, "mixed");
    defaults->set(json::object(), "emptyDictionary");
    defaults->set(json::array({"a"}), "array");

    // integer truncates toward zero and clamps; anything not a number reads as 0.
    const std::pair<const char*, long long> integers[] = {
        {"missing", 0}, {"numericText", 0}, {"negative", -3}, {"huge", std::numeric_limits<long long>::max()}, {"flag", 1}};
    for (auto [key, expected] : integers) EXPECT_EQ(defaults->integer(key), expected) << key;
    EXPECT_EQ(defaults->number("flag"), 1.0);
    EXPECT_FALSE(defaults->number("numericText"));
    EXPECT_FALSE(defaults->string("negative"));
    EXPECT_FALSE(defaults->date("numericText"));
    EXPECT_FALSE(defaults->date("negative"));
    for (const char* key : {"mixed", "array", "missing"}) EXPECT_FALSE(defaults->stringDictionary(key)) << key;
    EXPECT_EQ(defaults->stringDictionary("emptyDictionary"), (std::map<std::string, std::string>{}));
}

TEST_F(UserDefaultsTests, NullRemovesAndPrefixesSelectKeys) {
    auto defaults = openDefaults();
    ASSERT_TRUE(defaults);
    for (const char* key : {"ns.a", "ns.b", "nsx.c", "other"}) defaults->set(1, key);

    defaults->set(nullptr, "other");
    EXPECT_FALSE(defaults->object("other"));
    defaults->removeObject("ns.b");
    EXPECT_FALSE(defaults->object("ns.b"));
    defaults->removeObject("never-there");

    defaults->set(1, "ns.b");
    EXPECT_EQ(defaults->keys("ns."), (std::vector<std::string>{"ns.a", "ns.b"}));
    EXPECT_EQ(defaults->keys().size(), 3u);
    defaults->removeKeysWithPrefix("ns.");
    EXPECT_EQ(defaults->keys(), (std::vector<std::string>{"nsx.c"}));
}

TEST_F(UserDefaultsTests, ConcurrentWritersLoseNothing) {
    constexpr int kPerThread = 500;
    {
        auto shared = openDefaults();
        auto second = openDefaults();  // a second connection to the same file
        ASSERT_TRUE(shared && second);
        auto writer = [](UserDefaults& defaults, const std::string& prefix) {
            for (int i = 0; i < kPerThread; ++i) defaults.set(i, prefix + std::to_string(i));
        };
        std::thread a(writer, std::ref(*shared), "a.");
        std::thread b(writer, std::ref(*shared), "b.");
        std::thread c(writer, std::ref(*second), "c.");
        a.join();
        b.join();
        c.join();
    }
    auto reopened = openDefaults();
    ASSERT_TRUE(reopened);
    for (const char* prefix : {"a.", "b.", "c."}) {
        EXPECT_EQ(reopened->keys(prefix).size(), static_cast<std::size_t>(kPerThread)) << prefix;
        for (int i = 0; i < kPerThread; ++i) {
            ASSERT_EQ(reopened->integer(prefix + std::to_string(i)), i) << prefix << i;
        }
    }
}

TEST_F(UserDefaultsTests, OpenFailsWithAnErrorWhenThePathIsUnusable) {
    std::ofstream(dir_ / "plainFile") << "not a directory";
    std::ofstream(dir_ / "garbage.sqlite3") << std::string(4096, 'x');
    for (const auto& path : {dir_ / "plainFile" / "defaults.sqlite3", dir_ / "garbage.sqlite3"}) {
        std::string error;
        EXPECT_FALSE(UserDefaults::open(path, &error)) << path;
        EXPECT_FALSE(error.empty()) << path;
    }
}

TEST_F(UserDefaultsTests, StandardPathFollowsTheConfigHome) {
    struct SavedVariable {
        const char* name;
        std::optional<std::string> value = std::getenv(name) ? std::optional<std::string>(std::getenv(name)) : std::nullopt;
        ~SavedVariable() { value ? setenv(name, value->c_str(), 1) : unsetenv(name); }
    } config{"XDG_CONFIG_HOME"}, home{"HOME"};

    setenv("HOME", "/home/listener", 1);
    setenv("XDG_CONFIG_HOME", "/srv/config", 1);
    EXPECT_EQ(UserDefaults::standardPath("com.example.app"), "/srv/config/com.example.app/defaults.sqlite3");
    setenv("XDG_CONFIG_HOME", "relative/config", 1);  // relative values do not count
    EXPECT_EQ(UserDefaults::standardPath("com.example.app"), "/home/listener/.config/com.example.app/defaults.sqlite3");
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(UserDefaults::standardPath("com.example.app"), "/home/listener/.config/com.example.app/defaults.sqlite3");
}

}  // namespace
}  // namespace kt
