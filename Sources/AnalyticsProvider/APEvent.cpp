#include "KTAnalytics/AnalyticsProvider/APEvent.h"

#include <typeinfo>

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/KeyedArchive.h"
#include "KTAnalytics/Platform/TypeInfo.h"

namespace kt {

APEvent::APEvent(std::optional<std::string> name, std::optional<AttributeDictionary> attributes) {
    KT_PARAMETER_ASSERT(name);
    name_ = std::move(*name);
    if (attributes) attributes_ = std::make_shared<const AttributeDictionary>(std::move(*attributes));
}

std::shared_ptr<const APEvent> APEvent::make(std::optional<std::string> name,
                                             std::optional<AttributeDictionary> attributes) {
    return std::make_shared<const APEvent>(std::move(name), std::move(attributes));
}

AttributeDictionary APEvent::eventGatewayDictionary() const {
    // A dictionary cannot hold a missing value: a null payload here is a programming error.
    KT_ASSERT(attributes_, "attempt to insert a null payload into the gateway dictionary of event " + name_);
    AttributeDictionary d = AttributeDictionary::object();
    d["event"] = name_;
    d["version"] = kEventGatewayVersion;
    d["payload"] = *attributes_;
    return d;
}

bool APEvent::isEqual(const APEventDescripting* other) const {
    if (other == this) return true;
    if (other == nullptr || typeid(*other) != typeid(*this)) return false;
    return isEqualToEvent(static_cast<const APEvent&>(*other));
}

bool APEvent::isEqualToEvent(const APEvent& other) const {
    if (name_ != other.name_) return false;
    if (attributes_ == other.attributes_) return true;
    return attributes_ && other.attributes_ && *attributes_ == *other.attributes_;
}

std::size_t APEvent::hash() const {
    const std::size_t attributesHash = attributes_ ? value::hash(*attributes_) : 0;
    return std::hash<std::string>{}(name_) ^ attributesHash;
}

std::string APEvent::description() const { return describeEvent(*this); }

std::string describeEvent(const APEventDescripting& event) {
    const AttributeDictionary* attributes = event.attributes();
    return "<" + className(typeid(event)) + ": name=" + event.name() +
           " attributes=" + (attributes ? value::describe(*attributes) : "(null)") + ">";
}

void APEvent::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeString(name_, "_name");
    if (attributes_) coder.encodeValue(*attributes_, "_attributes");
}

std::shared_ptr<const APEvent> APEvent::decode(const KeyedUnarchiver& coder) {
    std::optional<AttributeDictionary> attributes;
    if (auto value = coder.decodeValue("_attributes"); value && value->is_object()) attributes = std::move(*value);
    return make(coder.decodeString("_name"), std::move(attributes));
}

Bytes APEvent::archivedData() const {
    KeyedArchiver coder(kClassName);
    encodeWithCoder(coder);
    return coder.finish();
}

std::shared_ptr<const APEvent> APEvent::unarchive(const Bytes& bytes, const std::set<std::string>& allowedClasses,
                                                  std::string* error) {
    auto coder = KeyedUnarchiver::fromBytes(bytes, allowedClasses, error);
    if (!coder) return nullptr;
    if (coder->className() != kClassName) {
        if (error) *error = "unexpected root class " + coder->className();
        return nullptr;
    }
    return decode(*coder);
}

}  // namespace kt
