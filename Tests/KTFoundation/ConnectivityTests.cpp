#include "KTAnalytics/KTFoundation/ConnectivityStateDetecting.h"

#include <algorithm>
#include <tuple>

#include <gtest/gtest.h>

namespace kt {
namespace {

// Fields: name, up, loopback, has an address, has a wireless directory in sysfs.
NetworkInterfaceState up(std::string name, bool wireless = false) { return {std::move(name), true, false, true, wireless}; }

TEST(ConnectivityTests, ReportsTheBestConnectionAndAnyTunnelAsTheVPN) {
    const std::tuple<std::vector<NetworkInterfaceState>, const char*, bool, bool> cases[] = {
        {{up("lo"), up("eth0"), up("wlan0")}, "wifi", true, false},  // wireless wins over wired
        {{up("wlp2s0")}, "wifi", true, false},
        {{up("radio0", true)}, "wifi", true, false},  // sysfs knows better than the name
        {{up("enp3s0"), up("wg0")}, "ethernet", true, true},
        {{up("enx00e04c680001"), up("wwan0")}, "ethernet", true, false},
        {{up("wwan0"), up("tap1")}, "cellular", true, true},
        {{up("ppp0")}, "none", false, true},
        {{up("ipsec0")}, "none", false, true},
        {{up("docker0"), up("veth1a2b3c"), up("br-5f1e2d"), up("virbr0"), {"anything", true, true, true, false}},
         "none", false, false},
        {{{"wlan0", false, false, true, false}, {"eth0", true, false, false, false}, {"tun0", false, false, true, false}},
         "none", false, false},
    };
    for (const auto& [interfaces, description, reachable, vpn] : cases) {
        SCOPED_TRACE(interfaces.front().name);
        const auto summary = summarizeInterfaces(interfaces);
        EXPECT_EQ(summary.description, description);
        EXPECT_EQ(summary.isNetworkReachable, reachable);
        EXPECT_EQ(summary.isConnectedToVPN, vpn);
    }
}

TEST(ConnectivityTests, SystemDetectorReadsTheMachinesInterfaces) {
    SystemConnectivityDetector detector(std::chrono::milliseconds(0));
    const auto interfaces = detector.readInterfaces();
    EXPECT_TRUE(std::any_of(interfaces.begin(), interfaces.end(), [](const auto& i) { return i.isLoopback; }))
        << "every Linux machine has a loopback interface";
    EXPECT_EQ(detector.connectivityStateDescription(), summarizeInterfaces(interfaces).description);
}

}  // namespace
}  // namespace kt
