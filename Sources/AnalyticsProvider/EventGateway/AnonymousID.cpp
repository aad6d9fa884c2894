#include "KTAnalytics/AnalyticsProvider/EventGateway/AnonymousID.h"

#include <mutex>

#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/Platform/DeviceIdentifier.h"

namespace kt::AnonymousID {

namespace {

// Never destroyed: gateway workers may read the ids while the process exits.
struct State {
    std::once_flag quillarborOnce;
    std::mutex mutex;
    std::function<std::optional<std::string>()> quillarborSource;  // guarded by mutex
    bool quillarborComputed = false;                                // guarded by mutex
    std::optional<std::string> quillarborValue;  // written once inside quillarborOnce
    std::function<std::string()> segmentSource;  // guarded by mutex
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

std::optional<std::string> deviceIdentifier() {
    return identifierForVendor(KTEnvironment::sharedInstance()->applicationId);
}

}  // namespace

std::optional<std::string> quillarborAnonymousId() {
    State& s = state();
    std::call_once(s.quillarborOnce, [&s] {
        std::function<std::optional<std::string>()> source;
        {
            std::lock_guard lock(s.mutex);
            s.quillarborComputed = true;
            source = s.quillarborSource ? s.quillarborSource : deviceIdentifier;
        }
        s.quillarborValue = source();
    });
    return s.quillarborValue;
}

bool setQuillarborAnonymousIdSource(std::function<std::optional<std::string>()> source) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (s.quillarborComputed) return false;
    s.quillarborSource = std::move(source);
    return true;
}

std::string segmentAnonymousId() {
    State& s = state();
    std::function<std::string()> source;
    {
        std::lock_guard lock(s.mutex);
        source = s.segmentSource;
    }
    return source ? source() : std::string();
}

void setSegmentAnonymousIdSource(std::function<std::string()> source) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.segmentSource = std::move(source);
}

}  // namespace kt::AnonymousID
