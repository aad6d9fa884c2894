#include "Firebase/RemoteConfigProviding.h"

#include <gtest/gtest.h>

#include <climits>

#include "Firebase/JsonFileRemoteConfig.h"

namespace kt {
namespace {

TEST(RemoteConfigProvidingInteger, ReadsWholeTextBaseTenIntegers) {
    const JsonFileRemoteConfig config({
        {"plain", "42"},         {"plus", "+42"},       {"minus", "-42"},     {"zeros", "007"},
        {"max", "9223372036854775807"},                 {"min", "-9223372036854775808"},
    });
    EXPECT_EQ(config.integer("plain"), 42);
    EXPECT_EQ(config.integer("plus"), 42);
    EXPECT_EQ(config.integer("minus"), -42);
    EXPECT_EQ(config.integer("zeros"), 7);
    EXPECT_EQ(config.integer("max"), LONG_MAX);
    EXPECT_EQ(config.integer("min"), LONG_MIN);
}

TEST(RemoteConfigProvidingInteger, AnythingButAnIntegerIsAbsent) {
    const std::map<std::string, std::string> texts = {
        {"empty", ""},           {"fraction", "12.5"}, {"letters", "abc"},   {"unit", "42s"},
        {"leading", " 42"},      {"trailing", "42 "},  {"signOnly", "-"},    {"plusOnly", "+"},
        {"twoSigns", "+-1"},     {"minusPlus", "-+1"}, {"hex", "0x10"},      {"exponent", "1e3"},
        {"overflow", "9223372036854775808"},           {"underflow", "-9223372036854775809"},
    };
    const JsonFileRemoteConfig config(texts);
    for (const auto& [key, text] : texts) EXPECT_EQ(config.integer(key), std::nullopt) << "text: \"" << text << "\"";
    EXPECT_EQ(config.integer("missing"), std::nullopt);
}

TEST(RemoteConfigProvidingKey, IsAbsentUntilTheHostSetsIt) {
    DependencyRegistry registry;
    EXPECT_EQ(registry.get(remoteConfig), nullptr);

    auto config = std::make_shared<JsonFileRemoteConfig>(std::map<std::string, std::string>{{"k", "v"}});
    registry.set(remoteConfig, std::shared_ptr<RemoteConfigProviding>(config));
    ASSERT_NE(registry.get(remoteConfig), nullptr);
    EXPECT_EQ(registry.get(remoteConfig)->valueFor("k"), "v");
    EXPECT_TRUE(registry.contains("remoteConfig"));
}

}  // namespace
}  // namespace kt
