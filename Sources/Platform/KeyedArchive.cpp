#include "KTAnalytics/Platform/KeyedArchive.h"

#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <iterator>
#include <string_view>
#include <tuple>
#include <vector>

#include "KTAnalytics/Platform/CBORWriting.h"
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

// --- writing ----------------------------------------------------------------------------
//
// CBOR written by hand, byte for byte as nlohmann's `to_cbor` writes the tree of tagged
// pairs (see CBORWriting.h). Building that tree first would copy every value twice.

using cbor::appendFloat;
using cbor::appendHead;
using cbor::appendInteger;
using cbor::appendText;
using cbor::kArrayHead;
using cbor::kByteString;
using cbor::kMapHead;
using cbor::kUnsigned;

// The [class, payload] pair of one value.
void appendAttribute(Bytes& out, const AttributeValue& v) {
    using T = AttributeValue::value_t;
    out.push_back(kArrayHead | 2);
    switch (v.type()) {
        case T::string:
            appendText(out, archive::kString);
            appendText(out, v.get_ref<const std::string&>());
            return;
        // The payload keeps its CBOR type, so booleans, integers and floats come back as
        // what they were even though they share one class.
        case T::boolean:
            appendText(out, archive::kNumber);
            out.push_back(v.get<bool>() ? 0xf5 : 0xf4);
            return;
        case T::number_integer:
            appendText(out, archive::kNumber);
            appendInteger(out, v.get<std::int64_t>());
            return;
        case T::number_unsigned:
            appendText(out, archive::kNumber);
            appendHead(out, kUnsigned, v.get<std::uint64_t>());
            return;
        case T::number_float:
            appendText(out, archive::kNumber);
            appendFloat(out, v.get<double>());
            return;
        case T::array:
            appendText(out, archive::kArray);
            appendHead(out, kArrayHead, v.size());
            for (const auto& item : v) appendAttribute(out, item);
            return;
        case T::object:
            appendText(out, archive::kDictionary);
            appendHead(out, kMapHead, v.size());
            for (auto it = v.begin(); it != v.end(); ++it) {
                appendText(out, it.key());
                appendAttribute(out, it.value());
            }
            return;
        case T::binary:
            if (auto when = value::asDate(v)) {
                appendText(out, archive::kDate);
                appendInteger(out, std::chrono::duration_cast<std::chrono::microseconds>(when->time_since_epoch()).count());
                return;
            }
            // Plain byte string: the class carries the kind, so no CBOR tag is needed.
            appendText(out, archive::kData);
            appendHead(out, kByteString, v.get_binary().size());
            out.insert(out.end(), v.get_binary().begin(), v.get_binary().end());
            return;
        case T::null:
        case T::discarded:
        default:
            appendText(out, archive::kNull);
            out.push_back(0xf6);
            return;
    }
}

// --- reading ----------------------------------------------------------------------------

// A structural pass over the raw bytes before the reader below decodes them. The reader
// recurses once per nesting level and trusts declared lengths and key kinds, so a few
// kilobytes of crafted bytes could exhaust the stack or read past the end. Archives
// written here use definite lengths, text keys and no tags; any other construct is
// rejected as well.
class CborScanner {
public:
    explicit CborScanner(const Bytes& bytes) : bytes_(bytes) {}

    bool scan(std::string& error) {
        if (bytes_.empty()) return fail(error, "archive is empty");
        // Items still expected by each open container, and whether it is a map.
        std::vector<std::pair<std::uint64_t, bool>> open;
        std::uint64_t expected = 1;  // the single root item
        bool inMap = false;
        while (true) {
            if (expected == 0) {
                if (open.empty()) break;
                std::tie(expected, inMap) = open.back();
                open.pop_back();
                continue;
            }
            const bool isKey = inMap && expected % 2 == 0;
            --expected;
            if (pos_ >= bytes_.size()) return fail(error, "archive is truncated");
            const std::uint8_t initial = bytes_[pos_++];
            const unsigned major = initial >> 5;
            const unsigned info = initial & 0x1f;
            if (isKey && major != 3) return fail(error, "archive has a map key that is not text");
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
                    open.emplace_back(expected, inMap);
                    expected = items;
                    inMap = major == 5;
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

// Decodes what the scanner accepted: every length lies within the input, every map key is
// text and nesting is bounded, so the reader checks only what the archive means. Values
// are decoded straight into attribute values as the classes are checked, in one pass.
class ArchiveReader {
public:
    ArchiveReader(const Bytes& bytes, const std::set<std::string>& allowed, std::string& error)
        : bytes_(bytes), allowed_(allowed), error_(error) {
        for (std::size_t i = 0; i < std::size(kValueClassNames); ++i)
            valueClassAllowed_[i] = allowed_.count(kValueClassNames[i]) != 0;
    }

    // The root map's class and fields; false with the reason in `error`.
    bool readRoot(std::string& className, KeyedUnarchiver::Fields& fields) {
        if (peekMajor() != kMap) return fail("archive root is not a map");
        std::size_t archiver = 0, version = 0, top = 0;  // where each value starts; 0: absent
        for (std::uint64_t n = head().argument; n > 0; --n) {
            const std::string_view key = text(head());
            // A key given twice means its last value, as a map of the decoded tree keeps it.
            if (key == "$archiver") archiver = pos_;
            else if (key == "$version") version = pos_;
            else if (key == "$top") top = pos_;
            skip();
        }
        if (!holdsArchiverMarker(archiver)) return fail("archive has no \"$archiver\" marker");
        if (!holdsVersion(version)) return fail("archive has an unsupported version");
        if (top == 0) return fail("archive has no \"$top\" object");
        pos_ = top;
        if (!readClass(className)) return false;
        if (valueClassIndex(className) >= 0) {
            AttributeValue ignored;
            if (!readPayload(className, ignored)) return false;
            return fail("archive root is a '" + className + "' value, not an object");
        }
        return readObjectFields(className, fields);
    }

private:
    static constexpr std::uint8_t kUnsignedMajor = 0, kNegativeMajor = 1, kBytes = 2, kText = 3, kArray = 4, kMap = 5,
                                  kSimple = 7;
    static constexpr const char* kValueClassNames[] = {archive::kString, archive::kNumber, archive::kArray,
                                                       archive::kDictionary, archive::kNull, archive::kDate,
                                                       archive::kData};

    struct Head {
        std::uint8_t major;
        std::uint8_t info;
        std::uint64_t argument;  // the length, the number, or a float's bits
    };

    static int valueClassIndex(std::string_view name) {
        for (std::size_t i = 0; i < std::size(kValueClassNames); ++i)
            if (name == kValueClassNames[i]) return static_cast<int>(i);
        return -1;
    }

    bool holdsArchiverMarker(std::size_t at) {
        if (at == 0) return false;
        pos_ = at;
        return peekMajor() == kText && text(head()) == kArchiverName;
    }

    bool holdsVersion(std::size_t at) {
        if (at == 0) return false;
        pos_ = at;
        return peekMajor() == kUnsignedMajor && head().argument == static_cast<std::uint64_t>(kArchiveVersion);
    }

    bool fail(std::string reason) {
        error_ = std::move(reason);
        return false;
    }

    std::uint8_t peekMajor() const { return bytes_[pos_] >> 5; }

    Head head() {
        const std::uint8_t initial = bytes_[pos_++];
        Head h{static_cast<std::uint8_t>(initial >> 5), static_cast<std::uint8_t>(initial & 0x1f), 0};
        const std::size_t width = h.info < 24 ? 0 : std::size_t{1} << (h.info - 24);
        if (h.info < 24 && h.major != kSimple) h.argument = h.info;
        for (std::size_t i = 0; i < width; ++i) h.argument = h.argument << 8 | bytes_[pos_++];
        return h;
    }

    std::string_view text(const Head& h) {
        const std::string_view view(reinterpret_cast<const char*>(bytes_.data() + pos_), h.argument);
        pos_ += h.argument;
        return view;
    }

    void skip() {
        const Head h = head();
        if (h.major == kBytes || h.major == kText) pos_ += h.argument;
        else if (h.major == kArray) for (std::uint64_t n = h.argument; n > 0; --n) skip();
        else if (h.major == kMap) for (std::uint64_t n = 2 * h.argument; n > 0; --n) skip();
    }

    // The class of a [class, payload] pair, checked against the allowed ones.
    bool readClass(std::string& className) {
        if (peekMajor() != kArray) return fail("archive holds a value without a class");
        if (const Head pair = head(); pair.argument != 2 || peekMajor() != kText)
            return fail("archive holds a value without a class");
        className = text(head());
        const int index = valueClassIndex(className);
        if (index >= 0 ? !valueClassAllowed_[static_cast<std::size_t>(index)] : allowed_.count(className) == 0)
            return fail("archive contains an object of class '" + className + "' that is not allowed");
        return true;
    }

    // A value in a value's place: its pair, decoded.
    bool readValue(AttributeValue& out) {
        std::string className;
        return readClass(className) && readPayload(className, out);
    }

    bool wrongType(const std::string& className) {
        return fail("archive holds a '" + className + "' value of the wrong type");
    }

    bool readPayload(const std::string& className, AttributeValue& out) {
        const Head h = head();
        switch (valueClassIndex(className)) {
            case 0:  // string
                if (h.major != kText) return wrongType(className);
                out = std::string(text(h));
                return true;
            case 1:  // number: integers keep their sign class, floats their width's value
                if (h.major == kUnsignedMajor) out = h.argument;
                else if (h.major == kNegativeMajor) out = static_cast<std::int64_t>(~h.argument);
                else if (h.major == kSimple && (h.info == 20 || h.info == 21)) out = h.info == 21;
                else if (h.major == kSimple && h.info >= 25 && h.info <= 27) out = floatOf(h);
                else return wrongType(className);
                return true;
            case 4:  // null
                if (h.major != kSimple || h.info != 22) return wrongType(className);
                out = nullptr;
                return true;
            case 5: {  // date, in microseconds
                std::int64_t micros = 0;
                if (h.major == kUnsignedMajor && h.argument <= static_cast<std::uint64_t>(INT64_MAX))
                    micros = static_cast<std::int64_t>(h.argument);
                else if (h.major == kNegativeMajor)
                    micros = static_cast<std::int64_t>(~h.argument);
                else
                    return wrongType(className);
                out = value::date(Date(std::chrono::duration_cast<Date::duration>(std::chrono::microseconds(micros))));
                return true;
            }
            case 6:  // data
                if (h.major != kBytes) return wrongType(className);
                out = value::data(Bytes(bytes_.begin() + static_cast<std::ptrdiff_t>(pos_),
                                        bytes_.begin() + static_cast<std::ptrdiff_t>(pos_ + h.argument)));
                pos_ += h.argument;
                return true;
            case 2: {  // array
                if (h.major != kArray) return fail("archive holds an array class without an array");
                out = AttributeValue::array();
                auto& items = out.get_ref<AttributeValue::array_t&>();
                items.reserve(h.argument);
                for (std::uint64_t n = h.argument; n > 0; --n)
                    if (!readValue(items.emplace_back())) return false;
                return true;
            }
            default:  // a dictionary, or an object in a value's place: read as a dictionary
                if (h.major != kMap) return fail("archive holds class '" + className + "' without fields");
                out = AttributeValue::object();
                auto& entries = out.get_ref<AttributeValue::object_t&>();
                for (std::uint64_t n = h.argument; n > 0; --n) {
                    std::string key(text(head()));
                    AttributeValue item;
                    if (!readValue(item)) return false;
                    entries.insert_or_assign(entries.end(), std::move(key), std::move(item));
                }
                return true;
        }
    }

    // An object's fields: values decoded, nested objects kept as objects.
    bool readObjectFields(const std::string& className, KeyedUnarchiver::Fields& fields) {
        const Head h = head();
        if (h.major != kMap) return fail("archive holds class '" + className + "' without fields");
        for (std::uint64_t n = h.argument; n > 0; --n) {
            std::string key(text(head()));
            KeyedUnarchiver::Field field;
            if (!readClass(field.className)) return false;
            if (valueClassIndex(field.className) >= 0) {
                if (!readPayload(field.className, field.value)) return false;
            } else {
                auto nested = std::make_shared<KeyedUnarchiver::Fields>();
                if (!readObjectFields(field.className, *nested)) return false;
                field.object = std::move(nested);
            }
            fields.insert_or_assign(fields.end(), std::move(key), std::move(field));
        }
        return true;
    }

    static double floatOf(const Head& h) {
        if (h.info == 27) return std::bit_cast<double>(h.argument);
        if (h.info == 26) return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(h.argument)));
        // Half precision, as nlohmann reads it.
        const auto half = static_cast<unsigned>(h.argument);
        const int exponent = static_cast<int>((half >> 10) & 0x1f);
        const unsigned mantissa = half & 0x3ff;
        double value = 0;
        if (exponent == 0) value = std::ldexp(mantissa, -24);
        else if (exponent == 31) value = mantissa == 0 ? std::numeric_limits<double>::infinity()
                                                      : std::numeric_limits<double>::quiet_NaN();
        else value = std::ldexp(mantissa + 1024, exponent - 25);
        return (half & 0x8000) != 0 ? -value : value;
    }

    const Bytes& bytes_;
    const std::set<std::string>& allowed_;
    std::string& error_;
    std::size_t pos_ = 0;
    bool valueClassAllowed_[std::size(kValueClassNames)] = {};
};

}  // namespace

// --- KeyedArchiver ----------------------------------------------------------------------

KeyedArchiver::KeyedArchiver(std::string className) : className_(std::move(className)) {
    // Object classes share the tag slot with value classes; a clash would make the reader
    // take an object for a value.
    KT_PARAMETER_ASSERT(!className_.empty() && !isValueClass(className_));
}

void KeyedArchiver::encodeString(const std::string& value, const std::string& key) {
    Bytes& out = fields_[key];
    out.clear();
    out.push_back(kArrayHead | 2);
    appendText(out, archive::kString);
    appendText(out, value);
}

void KeyedArchiver::encodeValue(const AttributeValue& value, const std::string& key) {
    Bytes& out = fields_[key];
    out.clear();
    appendAttribute(out, value);
}

void KeyedArchiver::encodeObject(const KeyedArchiver& object, const std::string& key) {
    Bytes encoded;
    object.appendEncodedObject(encoded);
    fields_[key] = std::move(encoded);
}

void KeyedArchiver::appendEncodedObject(Bytes& out) const {
    out.push_back(kArrayHead | 2);
    appendText(out, className_);
    appendHead(out, kMapHead, fields_.size());
    for (const auto& [key, encoded] : fields_) {
        appendText(out, key);
        out.insert(out.end(), encoded.begin(), encoded.end());
    }
}

Bytes KeyedArchiver::finish() const {
    // Keys are written sorted ("$archiver", "$top", "$version"), and so are the fields, so
    // equal objects always give identical bytes (the event store names files after a
    // digest of them).
    std::size_t size = 64 + className_.size();
    for (const auto& [key, encoded] : fields_) size += key.size() + encoded.size() + 9;
    Bytes out;
    out.reserve(size);
    appendHead(out, kMapHead, 3);
    appendText(out, "$archiver");
    appendText(out, kArchiverName);
    appendText(out, "$top");
    appendEncodedObject(out);
    appendText(out, "$version");
    appendInteger(out, kArchiveVersion);
    return out;
}

// --- KeyedUnarchiver --------------------------------------------------------------------

std::optional<KeyedUnarchiver> KeyedUnarchiver::fromBytes(const Bytes& bytes, const std::set<std::string>& allowedClasses,
                                                          std::string* error) {
    std::string problem;
    try {
        if (CborScanner(bytes).scan(problem)) {
            KeyedUnarchiver reader;
            if (ArchiveReader(bytes, allowedClasses, problem).readRoot(reader.className_, reader.fields_))
                return reader;
        }
    } catch (const std::exception& e) {
        // Allocation failures and the like: still an unreadable archive, not a crash.
        problem = std::string("archive could not be read: ") + e.what();
    }
    if (error != nullptr) *error = std::move(problem);
    return std::nullopt;
}

bool KeyedUnarchiver::containsKey(const std::string& key) const { return fields_.count(key) != 0; }

std::optional<AttributeValue> KeyedUnarchiver::decodeValue(const std::string& key) const {
    auto it = fields_.find(key);
    if (it == fields_.end() || it->second.object) return std::nullopt;
    return it->second.value;
}

std::optional<AttributeValue> KeyedUnarchiver::takeValue(const std::string& key) {
    auto it = fields_.find(key);
    if (it == fields_.end() || it->second.object) return std::nullopt;
    AttributeValue value = std::move(it->second.value);
    fields_.erase(it);
    return value;
}

std::optional<std::string> KeyedUnarchiver::decodeString(const std::string& key) const {
    auto it = fields_.find(key);
    if (it == fields_.end() || it->second.className != archive::kString) return std::nullopt;
    return it->second.value.get<std::string>();
}

std::optional<KeyedUnarchiver> KeyedUnarchiver::decodeObject(const std::string& key) const {
    auto it = fields_.find(key);
    if (it == fields_.end() || !it->second.object) return std::nullopt;
    KeyedUnarchiver nested;
    nested.className_ = it->second.className;
    nested.fields_ = *it->second.object;
    return nested;
}

}  // namespace kt
