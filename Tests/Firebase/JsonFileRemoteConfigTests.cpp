#include "Firebase/JsonFileRemoteConfig.h"

#include <gtest/gtest.h>

#include <fstream>

#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

class JsonFileRemoteConfigTest : public ::testing::Test {
protected:
    std::filesystem::path write(const std::string& text) {
        auto path = directory / "remote.json";
        std::ofstream(path) << text;
        return path;
    }

    testing::TemporaryDirectory directory{"kt-remotejson"};
    std::string error;
};

TEST_F(JsonFileRemoteConfigTest, AnswersTheTextsOfTheFile) {
    auto config = JsonFileRemoteConfig::load(
        write(R"({"dev_ab_price_test": "discountedPrice", "dev_ab_x": "", "other": "1"})"), &error);
    ASSERT_NE(config, nullptr) << error;
    EXPECT_EQ(config->valueFor("dev_ab_price_test"), "discountedPrice");
    EXPECT_EQ(config->valueFor("dev_ab_x"), "");
    EXPECT_EQ(config->valueFor("missing"), std::nullopt);
    EXPECT_EQ(config->keysWithPrefix("dev_ab_"), (std::set<std::string>{"dev_ab_price_test", "dev_ab_x"}));
    EXPECT_EQ(config->keysWithPrefix("zzz"), std::set<std::string>{});
    EXPECT_EQ(config->keysWithPrefix("").size(), 3u);
}

TEST_F(JsonFileRemoteConfigTest, RefusesWhatIsNotAnObjectOfTexts) {
    struct Case {
        std::string text;
        std::string errorPart;
    };
    const Case cases[] = {
        {R"(["a", "b"])", "must hold one JSON object of key to text, not array"},
        {R"({"a": 3600})", "the value of \"a\" must be text, not number"},
        {R"({"a": null})", "the value of \"a\" must be text, not null"},
        {R"({"a": "x",)", "is not valid JSON"},
        {"", "is not valid JSON"},
    };
    for (const auto& c : cases) {
        error.clear();
        EXPECT_EQ(JsonFileRemoteConfig::load(write(c.text), &error), nullptr) << c.text;
        EXPECT_NE(error.find(c.errorPart), std::string::npos) << "text: " << c.text << ", error: " << error;
    }
}

TEST_F(JsonFileRemoteConfigTest, NamesAMissingFileOrADirectory) {
    const auto missing = directory / "nowhere.json";
    EXPECT_EQ(JsonFileRemoteConfig::load(missing, &error), nullptr);
    EXPECT_EQ(error, "remote config file " + missing.string() + " does not exist");

    EXPECT_EQ(JsonFileRemoteConfig::load(directory.path(), &error), nullptr);
    EXPECT_EQ(error, "remote config file " + directory.path().string() + " is a directory");
    EXPECT_EQ(JsonFileRemoteConfig::load(missing), nullptr);  // the error is optional
}

}  // namespace
}  // namespace kt
