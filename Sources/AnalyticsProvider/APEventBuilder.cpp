#include "KTAnalytics/AnalyticsProvider/APEventBuilder.h"

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

APEventBuilder& APEventBuilder::name(std::optional<std::string> name) {
    builderName_ = std::move(name);
    return *this;
}

APEventBuilder& APEventBuilder::click(std::string pageName, std::string category, std::string clickName) {
    builderName_ = "click";
    if (builderAttributes_) {
        (*builderAttributes_)["page_name"] = std::move(pageName);
        (*builderAttributes_)["click_category"] = std::move(category);
        (*builderAttributes_)["click_name"] = std::move(clickName);
    }
    return *this;
}

APEventBuilder& APEventBuilder::click(PageName pageName, std::string category, std::string clickName) {
    return click(std::string(rawValue(pageName)), std::move(category), std::move(clickName));
}

APEventBuilder& APEventBuilder::attributes(std::optional<AttributeDictionary> attributes) {
    builderAttributes_ = std::move(attributes);
    return *this;
}

APEventBuilder& APEventBuilder::addAttribute(std::optional<std::string> key, std::optional<AttributeValue> value) {
    KT_PARAMETER_ASSERT(key);
    KT_PARAMETER_ASSERT(value);
    KT_PARAMETER_ASSERT_TEXT(value::isAttributeKind(*value),
                             "[value isKindOfClass:NSString.class] || [value isKindOfClass:NSNumber.class] || "
                             "[value isKindOfClass:NSArray.class] || [value isKindOfClass:NSDictionary.class] || "
                             "[value isKindOfClass:NSNull.class]");
    if (builderAttributes_) (*builderAttributes_)[*key] = std::move(*value);
    return *this;
}

APEventBuilder& APEventBuilder::addAttributes(std::optional<AttributeDictionary> attributes) {
    if (!attributes || !builderAttributes_ || !attributes->is_object()) return *this;
    for (auto& [k, v] : attributes->items()) (*builderAttributes_)[k] = std::move(v);
    return *this;
}

std::shared_ptr<const APEvent> APEventBuilder::build() const& { return APEvent::make(builderName_, builderAttributes_); }

std::shared_ptr<const APEvent> APEventBuilder::build() && {
    return APEvent::make(std::move(builderName_), std::move(builderAttributes_));
}

std::shared_ptr<const APEventDescripting> APEventBuilder::build(
    const std::function<void(const std::shared_ptr<const APEventDescripting>&)>& then) const {
    std::shared_ptr<const APEventDescripting> event = build();
    if (then) then(event);
    return event;
}

}  // namespace kt
