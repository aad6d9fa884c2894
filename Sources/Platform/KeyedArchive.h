#pragma once
// Keyed archives: a self-describing, class-tagged CBOR encoding of objects and attribute
// values. Reading names the classes it accepts and rejects everything else, so bytes read
// from disk can never produce an object of an unexpected kind.
//
// Encoding: every value is a two-element array [class, payload]. Value classes are
// "string", "number", "array", "dictionary", "null", "date" and "data"; objects use their
// own class name with a payload map of key -> encoded value. The root is
// {"$archiver": "KTKeyedArchiver", "$version": 1, "$top": <encoded root object>}.

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

namespace archive {
inline constexpr const char* kString = "string";
inline constexpr const char* kNumber = "number";
inline constexpr const char* kArray = "array";
inline constexpr const char* kDictionary = "dictionary";
inline constexpr const char* kNull = "null";
inline constexpr const char* kDate = "date";
inline constexpr const char* kData = "data";
}  // namespace archive

/// Writes one object: a class name and its keyed fields. Each field is encoded to CBOR as
/// it is given, straight from the value (no intermediate tree); the bytes are those
/// nlohmann's `to_cbor` makes of the tree above.
class KeyedArchiver {
public:
    explicit KeyedArchiver(std::string className);
    void encodeString(const std::string& value, const std::string& key);
    void encodeValue(const AttributeValue& value, const std::string& key);
    /// Nests another archived object under `key`.
    void encodeObject(const KeyedArchiver& object, const std::string& key);
    /// The archive bytes of this object as the root.
    Bytes finish() const;

private:
    void appendEncodedObject(Bytes& out) const;
    std::string className_;
    // Encoded fields by key, in the order a CBOR map of the tree form keeps them.
    std::map<std::string, Bytes, std::less<>> fields_;
};

/// Reads one object. Every class met while decoding, the root's included, must be in
/// the allowed set, or decoding fails with a description in `error()`.
class KeyedUnarchiver {
public:
    /// Parses `bytes`; on malformed, truncated or disallowed input returns nullopt and
    /// fills `error`.
    static std::optional<KeyedUnarchiver> fromBytes(const Bytes& bytes, const std::set<std::string>& allowedClasses,
                                                    std::string* error);

    const std::string& className() const { return className_; }
    bool containsKey(const std::string& key) const;
    /// The decoded value of a field, nullopt when absent.
    std::optional<AttributeValue> decodeValue(const std::string& key) const;
    /// The same, moved out of the archive rather than copied: the field is gone after.
    std::optional<AttributeValue> takeValue(const std::string& key);
    std::optional<std::string> decodeString(const std::string& key) const;
    /// A nested object under `key`, nullopt when absent or not an object.
    std::optional<KeyedUnarchiver> decodeObject(const std::string& key) const;

    /// One field as read: a value's class and the value, or an object's class and fields.
    struct Field {
        std::string className;
        AttributeValue value;
        std::shared_ptr<const std::map<std::string, Field, std::less<>>> object;
    };
    using Fields = std::map<std::string, Field, std::less<>>;

private:
    KeyedUnarchiver() = default;
    std::string className_;
    Fields fields_;
};

}  // namespace kt
