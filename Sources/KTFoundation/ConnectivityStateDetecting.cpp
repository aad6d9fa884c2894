#include "KTAnalytics/KTFoundation/ConnectivityStateDetecting.h"

#include <map>
#include <system_error>

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace kt {

namespace {

bool startsWithAny(std::string_view name, std::initializer_list<std::string_view> prefixes) {
    for (auto prefix : prefixes)
        if (name.substr(0, prefix.size()) == prefix)
            return true;
    return false;
}

bool isLinkLocalIPv6(const sockaddr* address) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    return IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr);
}

}  // namespace

InterfaceKind classifyInterface(std::string_view name, bool isLoopback, bool hasWirelessDirectory) {
    if (isLoopback || name == "lo")
        return InterfaceKind::loopback;
    if (startsWithAny(name, {"tun", "tap", "wg", "ppp", "ipsec"}))
        return InterfaceKind::tunnel;
    if (startsWithAny(name, {"docker", "veth", "br-", "virbr", "lxcbr", "lxdbr", "vnet", "vmnet", "vboxnet",
                             "podman", "cni", "dummy"}))
        return InterfaceKind::virtualBridge;
    if (hasWirelessDirectory || startsWithAny(name, {"wl"}))
        return InterfaceKind::wireless;
    if (startsWithAny(name, {"ww"}))
        return InterfaceKind::cellular;
    // eth0, enp3s0, eno1, enx<mac> (USB adapters) and anything unknown: treat as wired.
    return InterfaceKind::wired;
}

ConnectivitySummary summarizeInterfaces(const std::vector<NetworkInterfaceState>& interfaces) {
    bool wireless = false, wired = false, cellular = false, tunnel = false;
    for (const auto& interface : interfaces) {
        if (!interface.isUp || !interface.hasAddress)
            continue;
        switch (classifyInterface(interface.name, interface.isLoopback, interface.hasWirelessDirectory)) {
        case InterfaceKind::wireless: wireless = true; break;
        case InterfaceKind::wired: wired = true; break;
        case InterfaceKind::cellular: cellular = true; break;
        case InterfaceKind::tunnel: tunnel = true; break;
        case InterfaceKind::loopback:
        case InterfaceKind::virtualBridge: break;
        }
    }
    ConnectivitySummary summary;
    summary.description = wireless ? "wifi" : wired ? "ethernet" : cellular ? "cellular" : "none";
    summary.isNetworkReachable = wireless || wired || cellular;
    summary.isConnectedToVPN = tunnel;
    return summary;
}

SystemConnectivityDetector::SystemConnectivityDetector(std::chrono::milliseconds refreshInterval,
                                                       std::filesystem::path sysClassNet)
    : refreshInterval_(refreshInterval), sysClassNet_(std::move(sysClassNet)) {}

std::vector<NetworkInterfaceState> SystemConnectivityDetector::readInterfaces() const {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return {};

    // getifaddrs lists an interface once per address (and once for its link layer).
    std::map<std::string, NetworkInterfaceState> byName;
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_name)
            continue;
        auto& state = byName[entry->ifa_name];
        state.name = entry->ifa_name;
        state.isUp = (entry->ifa_flags & IFF_UP) && (entry->ifa_flags & IFF_RUNNING);
        state.isLoopback = entry->ifa_flags & IFF_LOOPBACK;
        if (const sockaddr* address = entry->ifa_addr) {
            if (address->sa_family == AF_INET || (address->sa_family == AF_INET6 && !isLinkLocalIPv6(address)))
                state.hasAddress = true;
        }
    }
    ::freeifaddrs(list);

    std::vector<NetworkInterfaceState> interfaces;
    interfaces.reserve(byName.size());
    for (auto& [name, state] : byName) {
        std::error_code error;
        state.hasWirelessDirectory = std::filesystem::exists(sysClassNet_ / name / "wireless", error) ||
                                     std::filesystem::exists(sysClassNet_ / name / "phy80211", error);
        interfaces.push_back(std::move(state));
    }
    return interfaces;
}

ConnectivitySummary SystemConnectivityDetector::current() const {
    std::lock_guard lock(mutex_);
    auto now = std::chrono::steady_clock::now();
    if (!hasReading_ || now - readAt_ >= refreshInterval_) {
        cached_ = summarizeInterfaces(readInterfaces());
        readAt_ = now;
        hasReading_ = true;
    }
    return cached_;
}

std::string SystemConnectivityDetector::connectivityStateDescription() const {
    return current().description;
}

bool SystemConnectivityDetector::isNetworkReachable() const {
    return current().isNetworkReachable;
}

bool SystemConnectivityDetector::isConnectedToVPN() const {
    return current().isConnectedToVPN;
}

}  // namespace kt
