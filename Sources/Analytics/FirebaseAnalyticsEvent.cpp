#include "KTAnalytics/Analytics/FirebaseAnalyticsEvent.h"

#include "KTAnalytics/Analytics/Detail/ParameterDescription.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

FirebaseAnalyticsEvent::FirebaseAnalyticsEvent() : parameters_(value::dictionary()) {}

FirebaseAnalyticsEvent::FirebaseAnalyticsEvent(const FirebaseAnalyticsEventName& name,
                                               AttributeDictionary parameters,
                                               bool shouldIncludeExtraUserInfo)
    : name_(name.name()),
      parameters_(parameters.is_null() ? value::dictionary() : std::move(parameters)),
      shouldIncludeExtraUserInfo_(shouldIncludeExtraUserInfo) {
    KT_PARAMETER_ASSERT_TEXT(parameters_.is_object(), "parameters.is_object()");
}

std::string FirebaseAnalyticsEvent::description() const {
    return "name: " + name_ + ", parameters: " + detail::describeParameters(parameters_);
}

bool FirebaseAnalyticsEvent::isEqual(const FirebaseAnalyticsEvent* other) const {
    if (other == nullptr)
        return false;
    return name_ == other->name_ && parameters_.size() == other->parameters_.size();
}

}  // namespace kt
