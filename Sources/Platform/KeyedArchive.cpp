#include "KTAnalytics/Platform/KeyedArchive.h"

#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

constexpr const char* kArchiverName = "KTKeyedArchiver";
constexpr int kArchiveVersion = 1;

// Each encoded value adds two levels (the [class, payload] pair and the payload), and the
// root object a few more, so this allows attribute values nested 256 deep (the most the
// event store writes), far beyond anything an event carries, while keeping the recursive
// parser and validator well inside the stack.
constexpr std::size_t kMaxNesting = 2 * 256 + 16;

bool isValueClass(std::string_view name) {
    return name == archive::kString || name == archive::kNumber || name == archive::kArray ||
           name == archive::kDictionary || name == archive::kNull || name == archive::kDate ||
           name == archive::kData;
}

nlohmann::json tagged(const char* className, nlohmann::json payload) {
    nlohmann::json pair = nlohmann::json::array();
    pair.push_back(className);
    pair.push_back(std::move(payload));
    return pair;
}

nlohmann::json encodeAttribute(const AttributeValue& v) {
    using T = AttributeValue::value_t;
    switch (v.type()) {
        case T::string:
            return tagged(archive::kString, v);
        case T::boolean:
        case T::number_integer:
        case T::number_unsigned:
        case T::number_float:
            // The payload keeps its CBOR type, so booleans, integers and floats come back
            // as what they were even though they share one class.
            return tagged(archive::kNumber, v);
        case T::array: {
            nlohmann::json items = nlohmann::json::array();
            for (const auto& item : v) items.push_back(encodeAttribute(item));
            return tagged(archive::kArray, std::move(items));
        }
        case T::object: {
            nlohmann::json entries = nlohmann::json::object();
            for (const auto& [key, item] : v.items()) entries[key] = encodeAttribute(item);
            return tagged(archive::kDictionary, std::move(entries));
        }
        case T::binary:
            if (auto when = value::asDate(v)) {
                const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(when->time_since_epoch());
                return tagged(archive::kDate, static_cast<std::int64_t>(micros.count()));
            }
            // Plain byte string: the class carries the kind, so no CBOR tag is needed.
            return tagged(archive::kData, nlohmann::json::binary(Bytes(v.get_binary().begin(), v.get_binary().end())));
        case T::null:
        case T::discarded:
        default:
            return tagged(archive::kNull, nullptr);
    }
}

// --- reading ----------------------------------------------------------------------------

// A structural pass over the raw bytes before nlohmann parses them. The parser recurses
// once per nesting level and trusts declared lengths, so a few kilobytes of crafted bytes
// could exhaust the stack. Archives written here use definite lengths and no tags; any
// other construct is rejected as well.
class CborScanner {
public:
    explicit CborScanner(const Bytes& bytes) : bytes_(bytes) {}

    bool scan(std::string& error) {
        if (bytes_.empty()) return fail(error, "archive is empty");
        std::vector<std::uint64_t> open;  // items still expected by each open container
        std::uint64_t expected = 1;       // the single root item
        while (true) {
            if (expected == 0) {
                if (open.empty()) break;
                expected = open.back();
                open.pop_back();
                continue;
            }
            --expected;
            if (pos_ >= bytes_.size()) return fail(error, "archive is truncated");
            const std::uint8_t initial = bytes_[pos_++];
            const unsigned major = initial >> 5;
            const unsigned info = initial & 0x1f;
            std::uint64_t argument = 0;
            if (major == 7) {
                if (!skipSimple(info, error)) return false;
                continue;
            }
            if (!readArgument(info, argument, error)) return false;
            switch (major) {
                case 0:
                case 1:
                    break;
                case 2:
                case 3:
                    if (argument > remaining()) return fail(error, "archive is truncated");
                    pos_ += static_cast<std::size_t>(argument);
                    break;
                case 4:
                case 5: {
                    // Every item takes at least one byte; a larger count cannot be honest.
                    const std::uint64_t limit = remaining();
                    if (argument > limit || (major == 5 && argument > limit / 2))
                        return fail(error, "archive is truncated");
                    const std::uint64_t items = major == 5 ? 2 * argument : argument;
                    if (open.size() + 1 >= kMaxNesting) return fail(error, "archive is nested too deeply");
                    open.push_back(expected);
                    expected = items;
                    break;
                }
                default:
                    return fail(error, "archive contains an unsupported CBOR tag");
            }
        }
        if (pos_ != bytes_.size()) return fail(error, "archive has trailing bytes");
        return true;
    }

private:
    static bool fail(std::string& error, const char* text) {
        error = text;
        return false;
    }

    std::uint64_t remaining() const { return bytes_.size() - pos_; }

    bool readArgument(unsigned info, std::uint64_t& argument, std::string& error) {
        if (info < 24) {
            argument = info;
            return true;
        }
        std::size_t width = 0;
        switch (info) {
            case 24: width = 1; break;
            case 25: width = 2; break;
            case 26: width = 4; break;
            case 27: width = 8; break;
            default:
                return fail(error, "archive contains an indefinite or reserved CBOR length");
        }
        if (width > remaining()) return fail(error, "archive is truncated");
        argument = 0;
        for (std::size_t i = 0; i < width; ++i) argument = argument << 8 | bytes_[pos_++];
        return true;
    }

    bool skipSimple(unsigned info, std::string& error) {
        std::size_t width = 0;
        switch (info) {
            case 20:  // false
            case 21:  // true
            case 22:  // null
                return true;
            case 25: width = 2; break;  // half float (NaN and infinities)
            case 26: width = 4; break;
            case 27: width = 8; break;
            default:
                return fail(error, "archive contains an unsupported CBOR simple value");
        }
        if (width > remaining()) return fail(error, "archive is truncated");
        pos_ += width;
        return true;
    }

    const Bytes& bytes_;
    std::size_t pos_ = 0;
};

bool validateEncoded(const nlohmann::json& node, const std::set<std::string>& allowed, std::string& error);

bool validateFields(const nlohmann::json& fields, const std::set<std::string>& allowed, std::string& error) {
    for (const auto& item : fields) {
        if (!validateEncoded(item, allowed, error)) return false;
    }
    return true;
}

bool validateEncoded(const nlohmann::json& node, const std::set<std::string>& allowed, std::string& error) {
    if (!node.is_array() || node.size() != 2 || !node[0].is_string()) {
        error = "archive holds a value without a class";
        return false;
    }
    const auto& className = node[0].get_ref<const std::string&>();
    if (allowed.count(className) == 0) {
        error = "archive contains an object of class '" + className + "' that is not allowed";
        return false;
    }
    const nlohmann::json& payload = node[1];
    bool shapeOk = false;
    if (className == archive::kString) {
        shapeOk = payload.is_string();
    } else if (className == archive::kNumber) {
        shapeOk = payload.is_number() || payload.is_boolean();
    } else if (className == archive::kNull) {
        shapeOk = payload.is_null();
    } else if (className == archive::kDate) {
        shapeOk = payload.is_number_integer() &&
                  (!payload.is_number_unsigned() ||
                   payload.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
    } else if (className == archive::kData) {
        shapeOk = payload.is_binary();
    } else if (className == archive::kArray) {
        if (!payload.is_array()) return error = "archive holds an array class without an array", false;
        return validateFields(payload, allowed, error);
    } else {
        // "dictionary" and object classes both carry a map of encoded values.
        if (!payload.is_object()) return error = "archive holds class '" + className + "' without fields", false;
        return validateFields(payload, allowed, error);
    }
    if (!shapeOk) error = "archive holds a '" + className + "' value of the wrong type";
    return shapeOk;
}

// Only called on validated trees.
AttributeValue decodeAttribute(const nlohmann::json& node) {
    const auto& className = node[0].get_ref<const std::string&>();
    const nlohmann::json& payload = node[1];
    if (className == archive::kString || className == archive::kNumber) return payload;
    if (className == archive::kNull) return nullptr;
    if (className == archive::kDate)
        return value::date(Date(std::chrono::duration_cast<Date::duration>(
            std::chrono::microseconds(payload.get<std::int64_t>()))));
    if (className == archive::kData) {
        const auto& raw = payload.get_binary();
        return value::data(Bytes(raw.begin(), raw.end()));
    }
    if (className == archive::kArray) {
        AttributeValue items = AttributeValue::array();
        for (const auto& item : payload) items.push_back(decodeAttribute(item));
        return items;
    }
    AttributeValue entries = AttributeValue::object();
    for (const auto& [key, item] : payload.items()) entries[key] = decodeAttribute(item);
    return entries;
}

}  // namespace

// --- KeyedArchiver ----------------------------------------------------------------------

KeyedArchiver::KeyedArchiver(std::string className) : className_(std::move(className)) {
    // Object classes share the tag slot with value classes; a clash would make the reader
    // take an object for a value.
    KT_PARAMETER_ASSERT(!className_.empty() && !isValueClass(className_));
}

void KeyedArchiver::encodeString(const std::string& value, const std::string& key) {
    fields_[key] = tagged(archive::kString, value);
}

void KeyedArchiver::encodeValue(const AttributeValue& value, const std::string& key) {
    fields_[key] = encodeAttribute(value);
}

void KeyedArchiver::encodeObject(const KeyedArchiver& object, const std::string& key) {
    fields_[key] = object.encodedObject();
}

nlohmann::json KeyedArchiver::encodedObject() const { return tagged(className_.c_str(), fields_); }

Bytes KeyedArchiver::finish() const {
    // Object keys are kept sorted, so equal objects always give identical bytes (the
    // event store names files after a digest of them).
    nlohmann::json root = nlohmann::json::object();
    root["$archiver"] = kArchiverName;
    root["$version"] = kArchiveVersion;
    root["$top"] = encodedObject();
    return nlohmann::json::to_cbor(root);
}

// --- KeyedUnarchiver --------------------------------------------------------------------

std::optional<KeyedUnarchiver> KeyedUnarchiver::fromBytes(const Bytes& bytes, const std::set<std::string>& allowedClasses,
                                                          std::string* error) {
    std::string problem;
    try {
        if (!CborScanner(bytes).scan(problem)) {
            if (error != nullptr) *error = std::move(problem);
            return std::nullopt;
        }
        nlohmann::json root = nlohmann::json::from_cbor(bytes, true, false);
        if (root.is_discarded()) {
            problem = "archive is not valid CBOR";
        } else if (!root.is_object()) {
            problem = "archive root is not a map";
        } else if (auto it = root.find("$archiver"); it == root.end() || *it != kArchiverName) {
            problem = "archive has no \"$archiver\" marker";
        } else if (auto version = root.find("$version");
                   version == root.end() || !version->is_number_integer() || *version != kArchiveVersion) {
            problem = "archive has an unsupported version";
        } else if (auto top = root.find("$top"); top == root.end()) {
            problem = "archive has no \"$top\" object";
        } else if (validateEncoded(*top, allowedClasses, problem)) {
            const auto& className = (*top)[0].get_ref<const std::string&>();
            if (isValueClass(className)) {
                problem = "archive root is a '" + className + "' value, not an object";
            } else {
                KeyedUnarchiver reader;
                reader.className_ = className;
                reader.fields_ = std::move((*top)[1]);
                reader.allowed_ = allowedClasses;
                return reader;
            }
        }
    } catch (const std::exception& e) {
        // Allocation failures and the like: still an unreadable archive, not a crash.
        problem = std::string("archive could not be read: ") + e.what();
    }
    if (error != nullptr) *error = std::move(problem);
    return std::nullopt;
}

bool KeyedUnarchiver::containsKey(const std::string& key) const { return fields_.contains(key); }

std::optional<AttributeValue> KeyedUnarchiver::decodeValue(const std::string& key) const {
    auto it = fields_.find(key);
    if (it == fields_.end() || !isValueClass((*it)[0].get_ref<const std::string&>())) return std::nullopt;
    return decodeAttribute(*it);
}

std::optional<std::string> KeyedUnarchiver::decodeString(const std::string& key) const {
    auto it = fields_.find(key);
    if (it == fields_.end() || (*it)[0] != archive::kString) return std::nullopt;
    return (*it)[1].get<std::string>();
}

std::optional<KeyedUnarchiver> KeyedUnarchiver::decodeObject(const std::string& key) const {
    auto it = fields_.find(key);
    if (it == fields_.end()) return std::nullopt;
    const auto& className = (*it)[0].get_ref<const std::string&>();
    if (isValueClass(className)) return std::nullopt;
    KeyedUnarchiver nested;
    nested.className_ = className;
    nested.fields_ = (*it)[1];
    nested.allowed_ = allowed_;
    return nested;
}

}  // namespace kt
