#pragma once
// The stack as the end-to-end suites build it against a gateway on loopback.

#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "KTAnalytics/Setup/AnalyticsStack.h"

namespace kt::testing {

/// What every such stack shares: the gateway's port, client 7, a write key, no timed flush
/// and a short shutdown; each suite adds its own settings.
inline AnalyticsStackConfiguration loopbackConfiguration(int port, std::filesystem::path state, std::ostream& console) {
    using namespace std::chrono_literals;
    AnalyticsStackConfiguration c;
    c.environment.eventGatewayBaseURL = "http://127.0.0.1:" + std::to_string(port);
    c.environment.clientId = 7;
    c.environment.segmentWriteKey = "wk";
    c.environment.shouldFlushAtRegularIntervals = false;
    c.stateDirectory = std::move(state);
    c.shutdownTimeout = 500ms;
    c.console = &console;
    return c;
}

/// A configuration the stack refuses fails the test.
inline std::unique_ptr<AnalyticsStack> makeStack(AnalyticsStackConfiguration configuration) {
    std::string error;
    auto stack = AnalyticsStack::make(std::move(configuration), &error);
    EXPECT_NE(stack, nullptr) << error;
    return stack;
}

}  // namespace kt::testing
