#pragma once
// Connectivity as the test sets it.

#include <string>

#include "KTAnalytics/KTFoundation/ConnectivityStateDetecting.h"

namespace kt::testing {

struct FakeConnectivity final : ConnectivityStateDetecting {
    explicit FakeConnectivity(bool reachable = true) : reachable(reachable) {}
    std::string connectivityStateDescription() const override { return description; }
    bool isNetworkReachable() const override { return reachable; }
    bool isConnectedToVPN() const override { return vpn; }
    bool reachable;
    std::string description = "wifi";
    bool vpn = false;
};

}  // namespace kt::testing
