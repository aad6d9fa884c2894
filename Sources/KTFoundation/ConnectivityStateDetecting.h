#pragma once
// How the device is connected: the connection type sent with every gateway event, whether
// a network is reachable at all, and whether traffic goes through a VPN.

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kt {

class ConnectivityStateDetecting {
public:
    virtual ~ConnectivityStateDetecting() = default;
    ConnectivityStateDetecting() = default;
    ConnectivityStateDetecting(const ConnectivityStateDetecting&) = delete;
    ConnectivityStateDetecting& operator=(const ConnectivityStateDetecting&) = delete;

    /// "wifi", "ethernet", "cellular" or "none".
    virtual std::string connectivityStateDescription() const = 0;
    virtual bool isNetworkReachable() const = 0;
    virtual bool isConnectedToVPN() const = 0;
};

enum class InterfaceKind {
    loopback,
    wireless,
    wired,
    cellular,
    tunnel,   // VPNs: tun, tap, wg, ppp, ipsec
    virtualBridge,  // container and VM plumbing (docker0, veth..., virbr0): never a way out
};

/// Classifies an interface by its name, the kernel's loopback flag and whether sysfs
/// shows it as wireless.
InterfaceKind classifyInterface(std::string_view name, bool isLoopback, bool hasWirelessDirectory);

/// One interface as the system reports it.
struct NetworkInterfaceState {
    std::string name;
    bool isUp = false;        // administratively up and with a carrier
    bool isLoopback = false;
    bool hasAddress = false;  // an IPv4 or a non-link-local IPv6 address
    bool hasWirelessDirectory = false;
};

struct ConnectivitySummary {
    std::string description = "none";
    bool isNetworkReachable = false;
    bool isConnectedToVPN = false;
};

/// The connectivity that a set of interfaces gives. Only interfaces that are up and have an
/// address count. The type prefers wifi, then ethernet, then cellular; tunnels make the VPN
/// answer true but are no connection of their own.
ConnectivitySummary summarizeInterfaces(const std::vector<NetworkInterfaceState>& interfaces);

/// Reads the system's interfaces (getifaddrs, and sysfs for the wireless test). A reading
/// is reused for `refreshInterval`, because the connection type is asked for every event.
class SystemConnectivityDetector final : public ConnectivityStateDetecting {
public:
    explicit SystemConnectivityDetector(std::chrono::milliseconds refreshInterval = std::chrono::seconds(2),
                                        std::filesystem::path sysClassNet = "/sys/class/net");

    std::string connectivityStateDescription() const override;
    bool isNetworkReachable() const override;
    bool isConnectedToVPN() const override;

    /// The interfaces as they are now, without the cache.
    std::vector<NetworkInterfaceState> readInterfaces() const;

private:
    ConnectivitySummary current() const;

    const std::chrono::milliseconds refreshInterval_;
    const std::filesystem::path sysClassNet_;
    mutable std::mutex mutex_;
    mutable ConnectivitySummary cached_;                              // guarded by mutex_
    mutable std::chrono::steady_clock::time_point readAt_{};          // guarded by mutex_
    mutable bool hasReading_ = false;                                 // guarded by mutex_
};

}  // namespace kt
