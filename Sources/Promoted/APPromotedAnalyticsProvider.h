#pragma once
// The provider that fires promoted tracking URLs: it takes only "promoted_event" and hands
// each one's GET to the reliable request uploader, which owns delivery and retries.

#include <memory>
#include <string>

#include "KTAnalytics/AnalyticsProvider/APBaseAnalyticsProvider.h"

namespace kt {

class APPromotedRequestFactory;
class RRUReliableRequestUploader;

class APPromotedAnalyticsProvider final : public APBaseAnalyticsProvider {
public:
    static constexpr const char* kPromotedEventName = "promoted_event";

    /// With a request factory of its own, which reads the user agent from the shared environment.
    explicit APPromotedAnalyticsProvider(std::shared_ptr<RRUReliableRequestUploader> uploader);
    /// With a request factory of its own whose requests all carry `userAgent`.
    APPromotedAnalyticsProvider(std::shared_ptr<RRUReliableRequestUploader> uploader, std::string userAgent);
    APPromotedAnalyticsProvider(std::shared_ptr<APPromotedRequestFactory> requestFactory,
                                std::shared_ptr<RRUReliableRequestUploader> uploader);
    APPromotedAnalyticsProvider() = delete;

    /// {"promoted_event"}.
    std::shared_ptr<const EventNameSet> trackedEvents() const override;
    /// On the caller's thread: the event's request goes to the uploader; an event without a
    /// usable "url" is refused there, logged and counted under its reason (not text, not a
    /// URL, ...), never fatal: the text comes from ad-server data.
    void tagEvent(const std::shared_ptr<const APEventDescripting>& event) override;
    void flush() override;

private:
    const std::shared_ptr<APPromotedRequestFactory> requestFactory_;
    const std::shared_ptr<RRUReliableRequestUploader> uploader_;
};

}  // namespace kt
