#pragma once
// The single dispatcher of named events: checks each name against the supported names,
// hands the event to every registered provider that tracks it, in registration order,
// and reports events that no provider takes.

#include <atomic>
#include <memory>
#include <typeinfo>
#include <unordered_set>
#include <vector>

#include "KTAnalytics/AnalyticsProvider/APEventNames.h"
#include "KTAnalytics/KTData/RRUReliableRequestUploader.h"
#include "KTAnalytics/KTFoundation/KTLogger.h"
#include "KTAnalytics/KTFoundation/TechEvent.h"
#include "KTAnalytics/Middleware/APAnalyticsProviderInterface.h"

namespace kt {

class APAnalyticsController {
public:
    using ProviderList = std::vector<std::shared_ptr<APAnalyticsProviderInterface>>;

    /// Fatal when `uploader` ("uploader") or `eventNames` ("eventNames") is null.
    APAnalyticsController(std::shared_ptr<RRUReliableRequestUploader> uploader, std::shared_ptr<APEventNames> eventNames,
                          std::shared_ptr<TechLogging> techLogger,
                          std::shared_ptr<KTLogger> logger = KTLogger::null());
    APAnalyticsController() = delete;
    APAnalyticsController(const APAnalyticsController&) = delete;
    APAnalyticsController& operator=(const APAnalyticsController&) = delete;

    /// Creates the shared controller once per process; later calls, and calls after
    /// `setSharedInstance`, are ignored.
    static void prepareSharedInstance(std::shared_ptr<RRUReliableRequestUploader> uploader,
                                      std::shared_ptr<APEventNames> eventNames, std::shared_ptr<TechLogging> techLogger,
                                      std::shared_ptr<KTLogger> logger = KTLogger::null());
    /// Fatal ("Accessed sharedInstance before it was prepared") before preparation.
    static APAnalyticsController& sharedInstance();
    /// Makes `controller` the shared one (the SDK's start does, with its own). A controller
    /// that was shared once lives as long as the process, so references stay valid.
    static void setSharedInstance(std::shared_ptr<APAnalyticsController> controller);

    /// Appends a provider. Fatal for a null provider or one of a class already registered.
    void registerAnalyticsProvider(std::shared_ptr<APAnalyticsProviderInterface> provider);
    /// Takes every provider away; later events are reported as unused.
    void removeAllAnalyticsProviders();
    /// True when `a` is `b`, or an instance of `b`'s class or of a subclass of it.
    static bool providerIsSameAs(const APAnalyticsProviderInterface& a, const APAnalyticsProviderInterface& b);
    /// The last registered provider whose class is exactly `cls`.
    std::shared_ptr<APAnalyticsProviderInterface> providerForClass(const std::type_info& cls) const;
    template <class T>
    std::shared_ptr<T> providerForClass() const {
        return std::static_pointer_cast<T>(providerForClass(typeid(T)));
    }

    void tagEvent(const std::shared_ptr<const APEventDescripting>& event);
    /// The union of every provider's tracked names.
    EventNameSet trackedEvents() const;
    void flush();
    void uploadFailedEvents();
    void logUnusedEvent(const APEventDescripting& event);

    std::shared_ptr<const ProviderList> analyticsProviders() const { return providers_.load(); }
    const std::shared_ptr<RRUReliableRequestUploader>& requestUploader() const { return requestUploader_; }
    const std::shared_ptr<APEventNames>& eventNames() const { return eventNames_; }
    const std::shared_ptr<TechLogging>& techLogger() const { return techLogger_; }

private:
    std::shared_ptr<RRUReliableRequestUploader> requestUploader_;
    std::shared_ptr<APEventNames> eventNames_;
    std::shared_ptr<TechLogging> techLogger_;
    std::shared_ptr<KTLogger> logger_;
    // The catalogue is fixed, so its names are looked up by hash rather than by scanning.
    std::unordered_set<std::string> supportedNames_;
    // Replaced as a whole on registration, so a dispatch in progress keeps its list.
    std::atomic<std::shared_ptr<const ProviderList>> providers_;
};

}  // namespace kt
