#pragma once
// The fluent builder of events. One builder, two surfaces: the chained operations of the
// event core (name, click, attributes, addAttribute, addAttributes, build) and the
// application-facing ones (setName, setAttributes, click with a PageName, build with a
// continuation). Every operation returns the same builder.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/Middleware/PageName.h"

namespace kt {

class APEventBuilder {
public:
    /// A fresh builder: no name, an empty attributes dictionary.
    static APEventBuilder builder() { return APEventBuilder(); }
    APEventBuilder() = default;

    APEventBuilder& name(std::optional<std::string> name);
    /// Name "click" and the three click attributes "page_name", "click_category", "click_name".
    APEventBuilder& click(std::string pageName, std::string category, std::string clickName);
    /// Replaces the attributes with a copy; nullopt leaves the builder with no dictionary at
    /// all, so later additions do nothing and the event's attributes are null.
    APEventBuilder& attributes(std::optional<AttributeDictionary> attributes);
    /// Checks the key and value (non-null, one of the five attribute kinds) and stores it.
    APEventBuilder& addAttribute(std::optional<std::string> key, std::optional<AttributeValue> value);
    /// Merges without checking kinds; nullopt is ignored.
    APEventBuilder& addAttributes(std::optional<AttributeDictionary> attributes);
    /// A new event from the current name and a copy of the attributes.
    std::shared_ptr<const APEvent> build() const&;
    /// As above, moving the attributes out of a builder that is going away.
    std::shared_ptr<const APEvent> build() &&;

    // The application-facing surface.
    APEventBuilder& setName(std::string name) { return this->name(std::move(name)); }
    APEventBuilder& setAttributes(std::optional<AttributeDictionary> attributes) {
        return this->attributes(std::move(attributes));
    }
    APEventBuilder& click(PageName pageName, std::string category, std::string clickName);
    /// Builds, hands the event to `then` once, and returns it.
    std::shared_ptr<const APEventDescripting> build(
        const std::function<void(const std::shared_ptr<const APEventDescripting>&)>& then) const;

    const std::optional<std::string>& builderName() const { return builderName_; }
    const std::optional<AttributeDictionary>& builderAttributes() const { return builderAttributes_; }

private:
    std::optional<std::string> builderName_;
    std::optional<AttributeDictionary> builderAttributes_ = AttributeDictionary::object();
};

}  // namespace kt
