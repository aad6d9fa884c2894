#include "KTFoundation/ConnectivityStateDetecting.h"

#include <gtest/gtest.h>

namespace kt {
namespace {

NetworkInterfaceState up(std::string name, bool wirelessDirectory = false) {
    return NetworkInterfaceState{std::move(name), true, false, true, wirelessDirectory};
}

TEST(ConnectivityTests, ClassifiesInterfacesByNameAndFlags) {
    struct Case {
        const char* name;
        bool loopback;
        bool wirelessDirectory;
        InterfaceKind expected;
    };
    for (auto [name, loopback, wirelessDirectory, expected] : {
             Case{"lo", false, false, InterfaceKind::loopback},
             Case{"anything", true, false, InterfaceKind::loopback},
             Case{"wlan0", false, false, InterfaceKind::wireless},
             Case{"wlp2s0", false, false, InterfaceKind::wireless},
             Case{"radio0", false, true, InterfaceKind::wireless},  // sysfs knows better than the name
             Case{"eth0", false, false, InterfaceKind::wired},
             Case{"enp3s0", false, false, InterfaceKind::wired},
             Case{"enx00e04c680001", false, false, InterfaceKind::wired},
             Case{"wwan0", false, false, InterfaceKind::cellular},
             Case{"tun0", false, false, InterfaceKind::tunnel},
             Case{"tap1", false, false, InterfaceKind::tunnel},
             Case{"wg0", false, false, InterfaceKind::tunnel},
             Case{"ppp0", false, false, InterfaceKind::tunnel},
             Case{"ipsec0", false, false, InterfaceKind::tunnel},
             Case{"docker0", false, false, InterfaceKind::virtualBridge},
             Case{"veth1a2b3c", false, false, InterfaceKind::virtualBridge},
             Case{"br-5f1e2d", false, false, InterfaceKind::virtualBridge},
             Case{"virbr0", false, false, InterfaceKind::virtualBridge},
         }) {
        EXPECT_EQ(classifyInterface(name, loopback, wirelessDirectory), expected) << name;
    }
}

TEST(ConnectivityTests, WirelessWinsOverWiredAndTunnelsOnlyMarkTheVPN) {
    auto both = summarizeInterfaces({up("lo"), up("eth0"), up("wlan0")});
    EXPECT_EQ(both.description, "wifi");
    EXPECT_TRUE(both.isNetworkReachable);
    EXPECT_FALSE(both.isConnectedToVPN);

    auto wiredWithVPN = summarizeInterfaces({up("enp3s0"), up("wg0")});
    EXPECT_EQ(wiredWithVPN.description, "ethernet");
    EXPECT_TRUE(wiredWithVPN.isNetworkReachable);
    EXPECT_TRUE(wiredWithVPN.isConnectedToVPN);

    auto cellular = summarizeInterfaces({up("wwan0")});
    EXPECT_EQ(cellular.description, "cellular");
    EXPECT_TRUE(cellular.isNetworkReachable);
}

TEST(ConnectivityTests, DownUnaddressedLoopbackAndBridgeInterfacesGiveNoConnection) {
    auto loopback = up("lo");
    loopback.isLoopback = true;
    auto down = up("wlan0");
    down.isUp = false;
    auto noAddress = up("eth0");
    noAddress.hasAddress = false;
    auto vpnDown = up("tun0");
    vpnDown.isUp = false;

    auto summary = summarizeInterfaces({loopback, down, noAddress, up("docker0"), up("veth9"), vpnDown});
    EXPECT_EQ(summary.description, "none");
    EXPECT_FALSE(summary.isNetworkReachable);
    EXPECT_FALSE(summary.isConnectedToVPN);

    auto tunnelOnly = summarizeInterfaces({up("tun0")});
    EXPECT_EQ(tunnelOnly.description, "none");
    EXPECT_FALSE(tunnelOnly.isNetworkReachable);
    EXPECT_TRUE(tunnelOnly.isConnectedToVPN);
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
