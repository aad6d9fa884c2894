#pragma once
// A stand-in for the host's Firebase adapter: writes one readable line per call to a
// stream and counts the calls, so that a demonstration can show what would have reached
// Firebase. Safe to call from several threads (lines never interleave).

#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>

#include "KTAnalytics/Analytics/FirebaseAnalyticsProviding.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsWrapping.h"

namespace kt {

class ConsoleFirebaseAnalytics final : public FirebaseAnalyticsWrapping, public FirebaseAnalyticsProviding {
public:
    struct Counts {
        std::uint64_t events = 0;
        std::uint64_t screens = 0;
        std::uint64_t userIdentifiers = 0;
        std::uint64_t userProperties = 0;
        std::uint64_t total() const { return events + screens + userIdentifiers + userProperties; }
    };

    /// `out` must outlive this object. Every line starts with `prefix` and a space.
    explicit ConsoleFirebaseAnalytics(std::ostream& out, std::string prefix = "firebase:");
    ConsoleFirebaseAnalytics() = delete;

    // FirebaseAnalyticsWrapping
    void logEventWithName(const std::string& name, const AttributeDictionary& parameters,
                          bool shouldIncludeExtraUserInfo) override;
    void trackScreenWithName(const std::string& name) override;
    // Both interfaces
    void setUserIdentifier(const std::string& identifier) override;
    void setUserProperty(const std::string& value, const std::string& forName) override;
    // FirebaseAnalyticsProviding
    void logEventWithName(const std::string& name, const AttributeDictionary& parameters) override;
    /// Counted as a screen.
    void setScreenName(const std::string& screenName, const std::string& screenClass) override;

    /// Calls so far, by kind.
    Counts counts() const;

private:
    void writeLine(const std::string& text);

    std::ostream& out_;
    const std::string prefix_;
    std::mutex writeMutex_;
    std::atomic<std::uint64_t> events_{0};
    std::atomic<std::uint64_t> screens_{0};
    std::atomic<std::uint64_t> userIdentifiers_{0};
    std::atomic<std::uint64_t> userProperties_{0};
};

}  // namespace kt
