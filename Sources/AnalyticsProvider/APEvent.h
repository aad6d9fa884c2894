#pragma once
// The immutable analytics event: a name and an attributes dictionary (which may be null).
// Events are shared, never copied deeply: handing one to several providers and queues
// costs a reference count.

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "KTAnalytics/Middleware/APEventDescripting.h"
#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class KeyedArchiver;
class KeyedUnarchiver;

class APEvent : public APEventDescripting {
public:
    /// The version of the gateway wire element.
    static constexpr const char* kEventGatewayVersion = "v1.27.36";

    /// A null name is a programming error ("Invalid parameter not satisfying: name").
    /// The attributes are the event's own copy; nullopt gives null attributes.
    APEvent(std::optional<std::string> name, std::optional<AttributeDictionary> attributes);
    APEvent() = delete;

    static std::shared_ptr<const APEvent> make(std::optional<std::string> name,
                                               std::optional<AttributeDictionary> attributes);

    const std::string& name() const override { return name_; }
    const AttributeDictionary* attributes() const override { return attributes_.get(); }

    /// {"event": name, "version": "v1.27.36", "payload": attributes}. Fatal when the
    /// attributes are null.
    AttributeDictionary eventGatewayDictionary() const;

    /// Same concrete class and `isEqualToEvent`.
    bool isEqual(const APEventDescripting* other) const;
    bool isEqualToEvent(const APEvent& other) const;
    bool operator==(const APEvent& other) const { return isEqual(&other); }
    /// Hash of the name XOR hash of the attributes (0 for null attributes).
    std::size_t hash() const;
    /// "<APEvent: name=... attributes=...>".
    std::string description() const;

    /// Archive fields "_name" and "_attributes".
    void encodeWithCoder(KeyedArchiver& coder) const;
    static constexpr const char* kClassName = "APEvent";
    /// Reads an event back; a record without a name fails the name assertion.
    static std::shared_ptr<const APEvent> decode(const KeyedUnarchiver& coder);
    /// The whole archive of this event as the root object.
    Bytes archivedData() const;
    /// Decodes a root archive, accepting only `allowedClasses`; null with `error` filled on failure.
    static std::shared_ptr<const APEvent> unarchive(const Bytes& bytes, const std::set<std::string>& allowedClasses,
                                                    std::string* error);

private:
    std::string name_;
    std::shared_ptr<const AttributeDictionary> attributes_;
};

/// "<Class: name=... attributes=...>" for any event, whatever its class.
std::string describeEvent(const APEventDescripting& event);

struct APEventHash {
    std::size_t operator()(const APEvent& e) const { return e.hash(); }
};

}  // namespace kt
