#include "KTFoundation/ConnectivityStateDetecting.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

NetworkInterfaceState up(std::string name, bool wirelessDirectory = false) {
    return NetworkInterfaceState{std::move(name), true, false, true, wirelessDirectory};
}

TEST(ConnectivityTests, ReportsTheBestConnectionAndAnyTunnelAsTheVPN) {
    auto loopbackFlag = up("anything");
    loopbackFlag.isLoopback = true;
    auto down = up("wlan0");
    down.isUp = false;
    auto noAddress = up("eth0");
    noAddress.hasAddress = false;
    auto vpnDown = up("tun0");
    vpnDown.isUp = false;
    const struct {
        std::vector<NetworkInterfaceState> interfaces;
        const char* description;
        bool reachable;
        bool vpn;
    } cases[] = {
        {{up("lo"), up("eth0"), up("wlan0")}, "wifi", true, false},  // wireless wins over wired
        {{up("wlp2s0")}, "wifi", true, false},
        {{up("radio0", true)}, "wifi", true, false},  // sysfs knows better than the name
        {{up("enp3s0"), up("wg0")}, "ethernet", true, true},
        {{up("enx00e04c680001"), up("wwan0")}, "ethernet", true, false},
        {{up("wwan0"), up("tap1")}, "cellular", true, true},
        {{up("ppp0")}, "none", false, true},
        {{up("ipsec0")}, "none", false, true},
        {{up("docker0"), up("veth1a2b3c"), up("br-5f1e2d"), up("virbr0"), loopbackFlag}, "none", false, false},
        {{down, noAddress, vpnDown}, "none", false, false},
    };
    for (const auto& c : cases) {
        std::string names;
        for (const auto& interface : c.interfaces) names += interface.name + " ";
        const auto summary = summarizeInterfaces(c.interfaces);
        EXPECT_EQ(summary.description, c.description) << names;
        EXPECT_EQ(summary.isNetworkReachable, c.reachable) << names;
        EXPECT_EQ(summary.isConnectedToVPN, c.vpn) << names;
    }
}

TEST(ConnectivityTests, SystemDetectorAgreesWithTheInterfacesItReads) {
    SystemConnectivityDetector detector(std::chrono::milliseconds(0));
    auto interfaces = detector.readInterfaces();
    auto expected = summarizeInterfaces(interfaces);
    bool sawLoopback = false;
    for (const auto& interface : interfaces)
        sawLoopback = sawLoopback || interface.isLoopback;
    EXPECT_TRUE(sawLoopback) << "every Linux machine has a loopback interface";
    EXPECT_EQ(detector.connectivityStateDescription(), expected.description);
    EXPECT_EQ(detector.isNetworkReachable(), expected.isNetworkReachable);
    EXPECT_EQ(detector.isConnectedToVPN(), expected.isConnectedToVPN);
}

}  // namespace
}  // namespace kt
