#include "KTAnalytics/TrackingArchitecture/Plan/Detail/ArgumentReader.h"

#include <algorithm>
#include <limits>

namespace kt::tracking::detail {

ArgumentReader::ArgumentReader(std::string_view operation, const AttributeValue& arguments)
    : operation_(operation), arguments_(arguments) {
    if (!arguments_.is_object() && !arguments_.is_null())
        fail("", "the arguments of '" + operation_ + "' are not a JSON object");
}

void ArgumentReader::fail(std::string_view key, std::string message) {
    if (!error_) error_ = PlanCallError{operation_, std::string(key), std::move(message)};
}

const AttributeValue* ArgumentReader::find(std::string_view key, bool optional) {
    readKeys_.push_back(key);
    if (error_) return nullptr;
    const AttributeValue* value = nullptr;
    if (arguments_.is_object())
        if (auto found = arguments_.find(key); found != arguments_.end() && !found->is_null()) value = &*found;
    if (!value && !optional)
        fail(key, "'" + operation_ + "' needs the argument '" + std::string(key) + "'");
    return value;
}

std::optional<std::string> ArgumentReader::text(std::string_view key, bool optional) {
    const auto* value = find(key, optional);
    if (!value) return std::nullopt;
    if (value->is_string()) return value->get<std::string>();
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a string");
    return std::nullopt;
}

std::optional<std::int64_t> ArgumentReader::rawValue(std::string_view key, bool optional) {
    const auto* value = find(key, optional);
    if (!value) return std::nullopt;
    if (value->is_number_integer() &&
        (value->is_number_unsigned() ? value->get<std::uint64_t>() <= std::uint64_t(std::numeric_limits<std::int64_t>::max())
                                     : true))
        return value->get<std::int64_t>();
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not an integer");
    return std::nullopt;
}

void ArgumentReader::failOutsideCases(std::string_view key, std::string_view enumeration, std::int64_t raw,
                                      std::int64_t caseCount) {
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is " + std::to_string(raw) + ", and " +
                  std::string(enumeration) + " has no case with that raw value (0 to " +
                  std::to_string(caseCount - 1) + ")");
}

// JSON keeps what the caller wrote apart: 2 is an integer, 2.5 and 2.0 are not.
std::optional<PlanNumber> ArgumentReader::numeric(std::string_view key, bool optional) {
    const auto* value = find(key, optional);
    if (!value) return std::nullopt;
    if (value->is_number_unsigned()) return PlanNumber(value->get<std::uint64_t>());
    if (value->is_number_integer()) return PlanNumber(value->get<std::int64_t>());
    if (value->is_number_float()) return PlanNumber(value->get<double>());
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a number");
    return std::nullopt;
}

std::string ArgumentReader::string(std::string_view key) { return text(key, false).value_or(""); }
std::optional<std::string> ArgumentReader::optionalString(std::string_view key) { return text(key, true); }

std::optional<bool> ArgumentReader::optionalBoolean(std::string_view key) {
    const auto* value = find(key, true);
    if (!value) return std::nullopt;
    if (value->is_boolean()) return value->get<bool>();
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a boolean");
    return std::nullopt;
}

bool ArgumentReader::boolean(std::string_view key) {
    const auto* value = find(key, false);
    if (!value) return false;
    if (value->is_boolean()) return value->get<bool>();
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a boolean");
    return false;
}

PlanNumber ArgumentReader::number(std::string_view key) { return numeric(key, false).value_or(PlanNumber(0)); }
std::optional<PlanNumber> ArgumentReader::optionalNumber(std::string_view key) { return numeric(key, true); }

std::optional<AttributeValue> ArgumentReader::list(std::string_view key, bool optional,
                                                   bool (*element)(const AttributeValue&), std::string_view what) {
    const auto* value = find(key, optional);
    if (!value) return std::nullopt;
    if (value->is_array() && std::all_of(value->begin(), value->end(), element)) return *value;
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not " + std::string(what));
    return std::nullopt;
}

std::optional<AttributeValue> ArgumentReader::optionalMap(std::string_view key) {
    const auto* value = find(key, true);
    if (!value) return std::nullopt;
    if (value->is_object()) return *value;
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a map");
    return std::nullopt;
}

AttributeValue ArgumentReader::map(std::string_view key) {
    if (auto value = find(key, false)) {
        if (value->is_object()) return *value;
        fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a map");
    }
    return AttributeValue::object();
}

namespace {
bool isMap(const AttributeValue& value) { return value.is_object(); }
bool isString(const AttributeValue& value) { return value.is_string(); }
}  // namespace

AttributeValue ArgumentReader::maps(std::string_view key) {
    return list(key, false, isMap, "a list of maps").value_or(AttributeValue::array());
}
std::optional<AttributeValue> ArgumentReader::optionalMaps(std::string_view key) {
    return list(key, true, isMap, "a list of maps");
}
AttributeValue ArgumentReader::strings(std::string_view key) {
    return list(key, false, isString, "a list of strings").value_or(AttributeValue::array());
}
std::optional<AttributeValue> ArgumentReader::optionalStrings(std::string_view key) {
    return list(key, true, isString, "a list of strings");
}

std::optional<Urn> ArgumentReader::optionalUrn(std::string_view key) {
    const auto* value = find(key, true);
    if (!value) return std::nullopt;
    if (value->is_string())
        if (auto urn = Urn::parse(value->get_ref<const std::string&>())) return urn;
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a urn: " + value->dump());
    return std::nullopt;
}

std::optional<Urn> ArgumentReader::urn(std::string_view key) {
    if (!find(key, false)) return std::nullopt;
    readKeys_.pop_back();  // read again below, as an optional that is known to be present
    return optionalUrn(key);
}

std::optional<std::vector<Urn>> ArgumentReader::urnList(std::string_view key, bool optional) {
    const auto* value = find(key, optional);
    if (!value) return std::nullopt;
    std::vector<Urn> urns;
    if (value->is_array()) {
        for (const auto& element : *value) {
            auto urn = element.is_string() ? Urn::parse(element.get_ref<const std::string&>()) : std::nullopt;
            if (!urn) break;
            urns.push_back(std::move(*urn));
        }
        if (urns.size() == value->size()) return urns;
    }
    fail(key, "the argument '" + std::string(key) + "' of '" + operation_ + "' is not a list of urns: " + value->dump());
    return std::nullopt;
}

std::optional<std::vector<Urn>> ArgumentReader::urns(std::string_view key) { return urnList(key, false); }
std::optional<std::vector<Urn>> ArgumentReader::optionalUrns(std::string_view key) { return urnList(key, true); }

bool ArgumentReader::finish() {
    if (!error_ && arguments_.is_object())
        for (const auto& [key, value] : arguments_.items())
            if (std::find(readKeys_.begin(), readKeys_.end(), key) == readKeys_.end()) {
                fail(key, "'" + operation_ + "' has no argument '" + key + "'");
                break;
            }
    return !error_;
}

}  // namespace kt::tracking::detail
