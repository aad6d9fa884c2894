#include "KTAnalytics/Platform/UserDefaults.h"

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

TEST_F(UserDefaultsTests, ValuesSurviveReopeningTypedGettersAnswerOnlyForTheirKindAndNullRemoves) {
    const Date when(std::chrono::microseconds(1'700'000'000'654'321LL));
    const json nested = {{"list", json::array({1, 2.5, "x", true})}, {"when", value::date(when)}};
    {
        auto defaults = openDefaults();
        ASSERT_TRUE(defaults);
        defaults->set("text", "string");
        defaults->set(41, "int");
        defaults->set(42, "int");  // overwrite
        defaults->set(-3.9, "negative");
        defaults->set(1e300, "huge");
        defaults->set(true, "flag");
        defaults->set("12", "numericText");
        defaults->set(value::date(when), "date");
        defaults->set(value::data({9, 8, 7}), "data");
        defaults->set(json{{"experiment_a", "variant_1"}, {"experiment_b", "control"}}, "assignments");
        defaults->set(json{{"a", "x"}, {"b", 1}}, "mixed");
        defaults->set(json::object(), "emptyDictionary");
        defaults->set(nested, "nested");
    }
    auto reopened = openDefaults();
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->string("string"), "text");
    EXPECT_EQ(reopened->number("negative"), -3.9);
    EXPECT_EQ(reopened->object("flag"), std::optional<json>(true));  // not 1: JSON tells them apart
    EXPECT_EQ(reopened->date("date"), when);
    EXPECT_EQ(value::asData(*reopened->object("data")), (Bytes{9, 8, 7}));
    EXPECT_EQ(reopened->stringDictionary("assignments"),
              (std::map<std::string, std::string>{{"experiment_a", "variant_1"}, {"experiment_b", "control"}}));
    EXPECT_EQ(reopened->stringDictionary("emptyDictionary"), (std::map<std::string, std::string>{}));
    EXPECT_EQ(reopened->object("nested"), nested);  // the date inside too: binary values compare with their tag

    // integer truncates toward zero and clamps; anything not a number reads as 0.
    const std::pair<const char*, long long> integers[] = {{"int", 42},         {"missing", 0}, {"numericText", 0},
                                                          {"negative", -3},    {"flag", 1},
                                                          {"huge", std::numeric_limits<long long>::max()}};
    for (auto [key, expected] : integers) EXPECT_EQ(reopened->integer(key), expected) << key;
    EXPECT_EQ(reopened->number("flag"), 1.0);
    EXPECT_FALSE(reopened->number("numericText"));
    EXPECT_FALSE(reopened->string("negative"));
    EXPECT_FALSE(reopened->date("numericText"));
    EXPECT_FALSE(reopened->date("negative"));
    for (const char* key : {"mixed", "nested", "missing"}) EXPECT_FALSE(reopened->stringDictionary(key)) << key;

    // Removing a key or a name space is checked through the name-spaced store's users.
    reopened->set(1, "other");
    reopened->set(nullptr, "other");
    reopened->removeObject("never-there");
    EXPECT_FALSE(reopened->object("other"));
}

TEST_F(UserDefaultsTests, ConnectionsSeeEachOthersWritesAndConcurrentWritersLoseNothing) {
    constexpr int kPerThread = 500;
    {
        auto shared = openDefaults();
        auto second = openDefaults();  // a second connection to the same file
        ASSERT_TRUE(shared && second);
        // Read first, so that a stale cached value would show.
        EXPECT_FALSE(shared->object("from-second"));
        second->set("fresh", "from-second");
        EXPECT_EQ(shared->string("from-second"), "fresh");
        second->removeObject("from-second");
        EXPECT_FALSE(shared->object("from-second"));

        auto writer = [](UserDefaults& defaults, const std::string& prefix) {
            for (int i = 0; i < kPerThread; ++i) defaults.set(i, prefix + std::to_string(i));
        };
        std::jthread a(writer, std::ref(*shared), "a.");
        std::jthread b(writer, std::ref(*shared), "b.");
        std::jthread c(writer, std::ref(*second), "c.");
    }
    auto reopened = openDefaults();
    ASSERT_TRUE(reopened);
    for (const char* prefix : {"a.", "b.", "c."}) {
        EXPECT_EQ(reopened->keys(prefix).size(), static_cast<std::size_t>(kPerThread)) << prefix;
        for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(reopened->integer(prefix + std::to_string(i)), i) << prefix << i;
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
    for (const char* ignored : {"relative/config", static_cast<const char*>(nullptr)}) {  // relative: as unset
        ignored ? setenv("XDG_CONFIG_HOME", ignored, 1) : unsetenv("XDG_CONFIG_HOME");
        EXPECT_EQ(UserDefaults::standardPath("com.example.app"), "/home/listener/.config/com.example.app/defaults.sqlite3");
    }
}

}  // namespace
}  // namespace kt
