#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"

#include <gtest/gtest.h>

#include <climits>
#include <fstream>

#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

using Texts = std::map<std::string, std::string>;

class JsonFileRemoteConfigTest : public ::testing::Test {
protected:
    std::filesystem::path write(const std::string& text) {
        auto path = directory / ("remote-" + std::to_string(++files) + ".json");
        std::ofstream(path) << text;
        return path;
    }

    testing::TemporaryDirectory directory{"kt-remotejson"};
    std::string error;
    int files = 0;
};

TEST_F(JsonFileRemoteConfigTest, AnswersTheTextsOfTheFileAndRefusesAnythingElseNamingTheFault) {
    auto config = JsonFileRemoteConfig::load(
        write(R"({"dev_ab_price_test": "discountedPrice", "dev_ab_x": "", "other": "1"})"), &error);
    ASSERT_NE(config, nullptr) << error;
    EXPECT_EQ(config->valueFor("dev_ab_price_test"), "discountedPrice");
    EXPECT_EQ(config->valueFor("dev_ab_x"), "");
    EXPECT_EQ(config->valueFor("missing"), std::nullopt);
    EXPECT_EQ(config->keysWithPrefix("dev_ab_"), (std::set<std::string>{"dev_ab_price_test", "dev_ab_x"}));

    const auto missing = directory / "nowhere.json";
    const std::pair<std::filesystem::path, std::string> cases[] = {
        {write(R"(["a", "b"])"), "must hold one JSON object of key to text, not array"},
        {write(R"({"a": 3600})"), "the value of \"a\" must be text, not number"},
        {write(R"({"a": null})"), "the value of \"a\" must be text, not null"},
        {write(R"({"a": "x",)"), "is not valid JSON"},
        {write(""), "is not valid JSON"},
        {missing, "remote config file " + missing.string() + " does not exist"},
        {directory.path(), "remote config file " + directory.path().string() + " is a directory"},
    };
    for (const auto& [path, errorPart] : cases) {
        error.clear();
        EXPECT_EQ(JsonFileRemoteConfig::load(path, &error), nullptr) << errorPart;
        EXPECT_NE(error.find(errorPart), std::string::npos) << "error: " << error;
    }
}

TEST(RemoteConfigProvidingInteger, ReadsOnlyWholeTextBaseTenIntegersOfTheWordSize) {
    const std::pair<std::string, std::optional<long>> cases[] = {
        {"42", 42}, {"+42", 42}, {"-42", -42}, {"007", 7},
        {"9223372036854775807", LONG_MAX}, {"-9223372036854775808", LONG_MIN},
        {"", std::nullopt}, {"12.5", std::nullopt}, {"42s", std::nullopt}, {" 42", std::nullopt},
        {"42 ", std::nullopt}, {"-", std::nullopt}, {"+", std::nullopt}, {"+-1", std::nullopt},
        {"-+1", std::nullopt}, {"0x10", std::nullopt}, {"1e3", std::nullopt},
        {"9223372036854775808", std::nullopt}, {"-9223372036854775809", std::nullopt},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(JsonFileRemoteConfig(Texts{{"k", text}}).integer("k"), expected) << "text: \"" << text << "\"";
    EXPECT_EQ(JsonFileRemoteConfig(Texts{}).integer("k"), std::nullopt);
}

}  // namespace
}  // namespace kt
