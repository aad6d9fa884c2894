#pragma once
// The development gateway, started on loopback for the suites that link it.

#include <memory>

#include <gtest/gtest.h>

#include "Gateway/DevelopmentGateway.h"

namespace kt::testing {

/// Started on a free port unless the configuration names one; failing to start fails the test.
inline std::unique_ptr<gateway::DevelopmentGateway> startGateway(gateway::GatewayConfiguration configuration = {}) {
    auto gateway = std::make_unique<gateway::DevelopmentGateway>(std::move(configuration));
    EXPECT_TRUE(gateway->start()) << gateway->lastError();
    return gateway;
}

/// A loopback port that was just in use and refuses connections now.
inline int closedPort() { return startGateway()->port(); }

}  // namespace kt::testing
