#include "KTAnalytics/KTFoundation/KTEnvironment.h"

#include <cstdlib>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kt {
namespace {

using ::testing::HasSubstr;

KTEnvironment::VariableLookup variables(std::map<std::string, std::string> values) {
    return [values = std::move(values)](std::string_view name) -> std::optional<std::string> {
        auto it = values.find(std::string(name));
        return it == values.end() ? std::nullopt : std::optional(it->second);
    };
}

TEST(KTEnvironmentTests, VariablesOverrideTheBaseAndOnlyAlphaAndDevBuildsCountAsAlpha) {
    KTEnvironment base{.applicationId = "player", .minimumBatchSize = 5, .shouldSendSentAt = true};
    std::string error;
    auto environment = KTEnvironment::fromVariables(
        base,
        variables({{"KTANALYTICS_GATEWAY_URL", "https://gateway.example:9443"}, {"KTANALYTICS_CLIENT_ID", "46"},
                   {"KTANALYTICS_USER_AGENT", "Player/3.1"}, {"KTANALYTICS_STATE_DIR", "/var/lib/player"},
                   {"KTANALYTICS_MIN_BATCH", "1"}, {"KTANALYTICS_BUILD", "Alpha"}, {"KTANALYTICS_LOG_LEVEL", "0"}}),
        error);
    ASSERT_TRUE(environment.has_value()) << error;
    EXPECT_EQ(environment->eventGatewayBaseURL, "https://gateway.example:9443");
    EXPECT_EQ(environment->clientId, 46);
    EXPECT_EQ(environment->userAgent, "Player/3.1");
    EXPECT_EQ(environment->stateDirectory, std::filesystem::path("/var/lib/player"));
    EXPECT_EQ(environment->minimumBatchSize, 1u);
    EXPECT_EQ(environment->buildEnvironment, BuildEnvironment::alpha);
    EXPECT_EQ(environment->logLevel, 0);

    auto unchanged = KTEnvironment::fromVariables(base, variables({{"KTANALYTICS_MIN_BATCH", ""}}), error);
    ASSERT_TRUE(unchanged.has_value()) << "an empty variable counts as unset";
    EXPECT_EQ(unchanged->minimumBatchSize, 5u);

    ::setenv("KTANALYTICS_MIN_BATCH", "3", 1);
    auto fromProcess = KTEnvironment::fromEnvironmentVariables(base, error);
    ::unsetenv("KTANALYTICS_MIN_BATCH");
    ASSERT_TRUE(fromProcess.has_value()) << error;
    EXPECT_EQ(fromProcess->minimumBatchSize, 3u);

    for (auto [name, alpha] : {std::pair{"production", false}, {"beta", false}, {"ALPHA", true}, {"dev", true}})
        EXPECT_EQ(BuildEnvironmentDetector(buildEnvironmentFromString(name).value()).isAlpha(), alpha) << name;
    EXPECT_EQ(buildEnvironmentFromString(""), std::nullopt);
}

TEST(KTEnvironmentTests, MalformedValuesAreRefusedWithTheVariableNamed) {
    const std::pair<const char*, const char*> cases[] = {
        {"KTANALYTICS_CLIENT_ID", "12abc"},         {"KTANALYTICS_CLIENT_ID", "99999999999999999999"},
        {"KTANALYTICS_MIN_BATCH", "0"},             {"KTANALYTICS_MIN_BATCH", "-3"},
        {"KTANALYTICS_MIN_BATCH", " 7"},            {"KTANALYTICS_LOG_LEVEL", "4"},
        {"KTANALYTICS_LOG_LEVEL", "warn"},          {"KTANALYTICS_BUILD", "staging"},
        {"KTANALYTICS_GATEWAY_URL", "ftp://gateway.example"}, {"KTANALYTICS_GATEWAY_URL", "gateway.example:8080"},
    };
    for (auto [variable, value] : cases) {
        SCOPED_TRACE(std::string(variable) + "=" + value);
        std::string error;
        EXPECT_FALSE(KTEnvironment::fromVariables(KTEnvironment{}, variables({{variable, value}}), error));
        EXPECT_THAT(error, HasSubstr(variable));
        EXPECT_THAT(error, HasSubstr(value));
    }
}

TEST(KTEnvironmentTests, PersistedFilesGoBelowTheStateDirectoryOrFollowTheXDGConvention) {
    KTEnvironment environment{.applicationId = "player"};
    const auto xdg = variables({{"XDG_CACHE_HOME", "/tmp/xdg"}, {"HOME", "/home/listener"}});
    EXPECT_EQ(environment.cachesDirectory(xdg), std::filesystem::path("/tmp/xdg/player"));
    for (const auto& home : {variables({{"HOME", "/home/listener"}}),  // a relative XDG_CACHE_HOME is ignored
                             variables({{"XDG_CACHE_HOME", "cache"}, {"HOME", "/home/listener"}})})
        EXPECT_EQ(environment.cachesDirectory(home), std::filesystem::path("/home/listener/.cache/player"));

    environment.stateDirectory = "/srv/state";
    EXPECT_EQ(environment.cachesDirectory(xdg), std::filesystem::path("/srv/state/cache"));
    EXPECT_EQ(environment.userDefaultsPath(), std::filesystem::path("/srv/state/defaults.sqlite3"));
}

}  // namespace
}  // namespace kt
