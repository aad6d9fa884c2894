#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"

#include <mutex>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/APEventFormatter.h"
#include "KTAnalytics/KTFoundation/LogMacros.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/TypeInfo.h"

namespace kt {

namespace {
constexpr const char* kFile = "Sources/AnalyticsProvider/APAnalyticsController";

std::mutex sharedMutex;
bool sharedPrepared = false;  // guarded by sharedMutex
// Every controller that has been the shared one stays alive, so a reference taken from
// `sharedInstance()` stays valid whatever is installed later.
std::vector<std::shared_ptr<APAnalyticsController>>& sharedControllers() {
    static auto* controllers = new std::vector<std::shared_ptr<APAnalyticsController>>();
    return *controllers;
}
std::atomic<APAnalyticsController*> sharedController{nullptr};

std::string dynamicClassName(const APAnalyticsProviderInterface& provider) { return className(typeid(provider)); }
}  // namespace

APAnalyticsController::APAnalyticsController(std::shared_ptr<RRUReliableRequestUploader> uploader,
                                             std::shared_ptr<APEventNames> eventNames,
                                             std::shared_ptr<TechLogging> techLogger, std::shared_ptr<KTLogger> logger)
    : requestUploader_(std::move(uploader)),
      eventNames_(std::move(eventNames)),
      techLogger_(std::move(techLogger)),
      logger_(logger ? std::move(logger) : KTLogger::null()),
      providers_(std::make_shared<const ProviderList>()) {
    KT_PARAMETER_ASSERT_TEXT(requestUploader_, "uploader");
    KT_PARAMETER_ASSERT_TEXT(eventNames_, "eventNames");
    const auto& names = eventNames_->supportedEventNames();
    supportedNames_.insert(names.begin(), names.end());
}

void APAnalyticsController::prepareSharedInstance(std::shared_ptr<RRUReliableRequestUploader> uploader,
                                                  std::shared_ptr<APEventNames> eventNames,
                                                  std::shared_ptr<TechLogging> techLogger,
                                                  std::shared_ptr<KTLogger> logger) {
    {
        std::lock_guard lock(sharedMutex);
        if (sharedPrepared || sharedController.load()) return;
        sharedPrepared = true;
    }
    setSharedInstance(std::make_shared<APAnalyticsController>(std::move(uploader), std::move(eventNames),
                                                              std::move(techLogger), std::move(logger)));
}

void APAnalyticsController::setSharedInstance(std::shared_ptr<APAnalyticsController> controller) {
    KT_PARAMETER_ASSERT(controller);
    std::lock_guard lock(sharedMutex);
    sharedController.store(controller.get());
    sharedControllers().push_back(std::move(controller));
}

APAnalyticsController& APAnalyticsController::sharedInstance() {
    auto* controller = sharedController.load();
    KT_ASSERT(controller != nullptr, "Accessed sharedInstance before it was prepared");
    return *controller;
}

bool APAnalyticsController::providerIsSameAs(const APAnalyticsProviderInterface& a,
                                             const APAnalyticsProviderInterface& b) {
    if (&a == &b) return true;
    return isInstanceOf(dynamic_cast<const void*>(&a), typeid(a), typeid(b));
}

void APAnalyticsController::registerAnalyticsProvider(std::shared_ptr<APAnalyticsProviderInterface> provider) {
    KT_PARAMETER_ASSERT(provider);
    auto current = providers_.load();
    for (const auto& existing : *current)
        KT_ASSERT(!providerIsSameAs(*existing, *provider), "Provider with same class already exists");
    auto next = std::make_shared<ProviderList>(*current);
    next->push_back(std::move(provider));
    providers_.store(std::move(next));
}

void APAnalyticsController::removeAllAnalyticsProviders() { providers_.store(std::make_shared<const ProviderList>()); }

std::shared_ptr<APAnalyticsProviderInterface> APAnalyticsController::providerForClass(const std::type_info& cls) const {
    auto current = providers_.load();
    for (auto it = current->rbegin(); it != current->rend(); ++it)
        if (typeid(**it) == cls) return *it;
    return nullptr;
}

void APAnalyticsController::tagEvent(const std::shared_ptr<const APEventDescripting>& event) {
    KT_PARAMETER_ASSERT(event);
    const std::string& name = event->name();
    if (supportedNames_.count(name) == 0) fatalError("unknown event name " + name);

    const bool dispatchLogged = logger_->isEnabled(1);
    std::string taggedClasses;
    bool tagged = false;
    const auto providers = providers_.load();
    for (const auto& provider : *providers) {
        const auto tracked = provider->trackedEvents();
        if (!tracked || tracked->count(name) == 0) continue;
        if (dispatchLogged) {
            if (tagged) taggedClasses += ',';
            taggedClasses += dynamicClassName(*provider);
        }
        tagged = true;
        provider->tagEvent(event);
    }

    if (name == "audio") {
        KT_LOG(logger_, 1, kFile, "-[APAnalyticsController tagEvent:]", "#playback_analytics: tag audio event {}",
               APEventFormatter::shortDescriptionForEvent(
                   *event, {"client_event_id", "track", "playhead_position", "pause_reason"}));
    }
    if (!tagged) {
        logUnusedEvent(*event);
    } else {
        KT_LOG(logger_, 1, kFile, "-[APAnalyticsController tagEvent:]", "Tagging event to providers {}:\n{}",
               taggedClasses, APEventFormatter::shortDescriptionForEvent(*event));
    }
}

EventNameSet APAnalyticsController::trackedEvents() const {
    EventNameSet all;
    for (const auto& provider : *providers_.load())
        if (auto tracked = provider->trackedEvents()) all.insert(tracked->begin(), tracked->end());
    return all;
}

void APAnalyticsController::flush() {
    for (const auto& provider : *providers_.load()) provider->flush();
}

void APAnalyticsController::uploadFailedEvents() { requestUploader_->uploadFailedRequests(); }

void APAnalyticsController::logUnusedEvent(const APEventDescripting& event) {
    TechEvent techEvent("unused_event", 1);
    techEvent.addAttribute("event", event.name());
    if (techLogger_) techLogger_->logEvent(techEvent);
    KT_LOG(logger_, 1, kFile, "-[APAnalyticsController logUnusedEvent:]",
           "Event was tagged but not logged by any analytics provider\n {}", describeEvent(event));
}

}  // namespace kt
