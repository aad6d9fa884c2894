#include "KTAnalytics/Promoted/APPromotedAnalyticsProvider.h"

#include "KTAnalytics/KTData/RRUReliableRequestUploader.h"
#include "KTAnalytics/Middleware/APEventDescripting.h"
#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Promoted/APPromotedRequestFactory.h"

namespace kt {

APPromotedAnalyticsProvider::APPromotedAnalyticsProvider(std::shared_ptr<RRUReliableRequestUploader> uploader)
    : APPromotedAnalyticsProvider(std::make_shared<APPromotedRequestFactory>(), std::move(uploader)) {}

APPromotedAnalyticsProvider::APPromotedAnalyticsProvider(std::shared_ptr<RRUReliableRequestUploader> uploader,
                                                         std::string userAgent)
    : APPromotedAnalyticsProvider(std::make_shared<APPromotedRequestFactory>(std::move(userAgent)), std::move(uploader)) {}

APPromotedAnalyticsProvider::APPromotedAnalyticsProvider(std::shared_ptr<APPromotedRequestFactory> requestFactory,
                                                         std::shared_ptr<RRUReliableRequestUploader> uploader)
    : requestFactory_(std::move(requestFactory)), uploader_(std::move(uploader)) {
    KT_PARAMETER_ASSERT_TEXT(requestFactory_ != nullptr, "requestFactory");
    KT_PARAMETER_ASSERT_TEXT(uploader_ != nullptr, "uploader");
}

std::shared_ptr<const EventNameSet> APPromotedAnalyticsProvider::trackedEvents() const {
    static const auto names = std::make_shared<const EventNameSet>(EventNameSet{kPromotedEventName});
    return names;
}

void APPromotedAnalyticsProvider::tagEvent(const std::shared_ptr<const APEventDescripting>& event) {
    if (auto request = requestFactory_->requestForEvent(*event)) {
        uploader_->uploadRequest(std::move(*request));
        return;
    }
    // Never dropped without a word: the uploader refuses what can never be sent, logs its text
    // and counts it under its reason.
    if (const AttributeDictionary* attributes = event->attributes()) {
        const auto url = attributes->find("url");
        if (url != attributes->end() && url->is_string()) {
            const auto& text = url->get_ref<const std::string&>();
            uploader_->uploadRequest(requestFactory_->makeRequestWithURL(text, requestFactory_->userAgent()));
            return;
        }
    }
    uploader_->refuseRequest(request_drop_reason::notText);
}

void APPromotedAnalyticsProvider::flush() { uploader_->flush(); }

}  // namespace kt
