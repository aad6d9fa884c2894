#include "KTAnalytics/Platform/JSONSerialization.h"

#include <cmath>
#include <vector>

namespace kt {

namespace {

void setError(std::string* error, std::string text) {
    if (error != nullptr) *error = std::move(text);
}

// nlohmann writes NaN and infinities as "null" without a word and accepts binary values
// only as a type error, so both are looked for before writing. The walk keeps its own
// stack: values parsed from untrusted text can nest deeper than the call stack allows.
std::optional<std::string> firstUnrepresentable(const AttributeValue& root) {
    std::vector<const AttributeValue*> pending;
    pending.reserve(32);
    pending.push_back(&root);
    while (!pending.empty()) {
        const AttributeValue* v = pending.back();
        pending.pop_back();
        switch (v->type()) {
            case AttributeValue::value_t::number_float: {
                const double d = v->get<double>();
                if (std::isnan(d)) return "Invalid number value (NaN) in JSON write";
                if (std::isinf(d)) return "Invalid number value (infinite) in JSON write";
                break;
            }
            case AttributeValue::value_t::binary:
                return value::isDate(*v) ? "Invalid type in JSON write (date)" : "Invalid type in JSON write (data)";
            case AttributeValue::value_t::discarded:
                return "Invalid type in JSON write (discarded value)";
            case AttributeValue::value_t::array:
            case AttributeValue::value_t::object:
                for (const auto& item : *v) pending.push_back(&item);
                break;
            default:
                break;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> JSONSafeSerialization::dataWithJSONObject(const AttributeValue& object,
                                                                     std::string* error) const {
    std::string text;
    if (!appendJSONObject(object, text, error)) return std::nullopt;
    return text;
}

bool JSONSafeSerialization::appendJSONObject(const AttributeValue& object, std::string& out, std::string* error) const {
    if (auto problem = firstUnrepresentable(object)) {
        setError(error, std::move(*problem));
        return false;
    }
    const std::size_t start = out.size();
    try {
        // What `dump` does, into the caller's string. Strict error handling: invalid UTF-8
        // in a string or a key is an error, not a replacement character that would change
        // what the gateway receives.
        nlohmann::detail::serializer<AttributeValue> writer(nlohmann::detail::output_adapter<char, std::string>(out), ' ',
                                                            AttributeValue::error_handler_t::strict);
        writer.dump(object, false, false, 0);
        return true;
    } catch (const AttributeValue::type_error& e) {
        setError(error, std::string("Invalid string in JSON write: ") + e.what());
    } catch (const std::exception& e) {
        setError(error, std::string("JSON write failed: ") + e.what());
    }
    out.resize(start);
    return false;
}

std::optional<AttributeValue> JSONSafeSerialization::JSONObjectWithData(std::string_view text,
                                                                        std::string* error) const {
    try {
        return AttributeValue::parse(text.begin(), text.end());
    } catch (const AttributeValue::parse_error& e) {
        setError(error, e.what());
    } catch (const std::exception& e) {
        setError(error, std::string("JSON read failed: ") + e.what());
    }
    return std::nullopt;
}

bool JSONSafeSerialization::isValidJSONObject(const AttributeValue& object) const {
    return dataWithJSONObject(object).has_value();
}

bool jsonTextNestsDeeperThan(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

}  // namespace kt
