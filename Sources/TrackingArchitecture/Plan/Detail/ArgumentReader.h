#pragma once
// Reads the arguments of one operation called by name. Each reader names the key it reads;
// the first fault is kept as the call's error and later reads return placeholders, so the
// generated callers can read every argument and then decide once whether to call.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTAnalytics/KTFoundation/Urn.h"
#include "KTAnalytics/Platform/AttributeValue.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanCall.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanEnumeration.h"
#include "KTAnalytics/TrackingArchitecture/Plan/PlanNumber.h"

namespace kt::tracking::detail {

class ArgumentReader {
public:
    ArgumentReader(std::string_view operation, const AttributeValue& arguments);

    std::string string(std::string_view key);
    std::optional<std::string> optionalString(std::string_view key);
    bool boolean(std::string_view key);
    std::optional<bool> optionalBoolean(std::string_view key);
    PlanNumber number(std::string_view key);
    std::optional<PlanNumber> optionalNumber(std::string_view key);
    AttributeValue map(std::string_view key);
    std::optional<AttributeValue> optionalMap(std::string_view key);
    AttributeValue maps(std::string_view key);
    std::optional<AttributeValue> optionalMaps(std::string_view key);
    AttributeValue strings(std::string_view key);
    std::optional<AttributeValue> optionalStrings(std::string_view key);
    /// Present whenever no error has been recorded.
    std::optional<Urn> urn(std::string_view key);
    std::optional<Urn> optionalUrn(std::string_view key);
    /// Present whenever no error has been recorded.
    std::optional<std::vector<Urn>> urns(std::string_view key);
    std::optional<std::vector<Urn>> optionalUrns(std::string_view key);

    /// A raw value outside the cases is the call's error: the arguments are data, and data
    /// that names no case is refused, never sent (the typed road, where such a value can only
    /// come from code, stops the process instead).
    template <TrackingPlanEnumeration E>
    E enumeration(std::string_view key) {
        return checked<E>(key, rawValue(key, false)).value_or(E{});
    }
    template <TrackingPlanEnumeration E>
    std::optional<E> optionalEnumeration(std::string_view key) {
        return checked<E>(key, rawValue(key, true));
    }

    /// Records an argument that no read asked for; true when the call may go ahead.
    bool finish();
    const std::optional<PlanCallError>& error() const { return error_; }

private:
    /// The value under `key`; nullptr when missing or null (an error unless `optional`).
    const AttributeValue* find(std::string_view key, bool optional);
    std::optional<std::int64_t> rawValue(std::string_view key, bool optional);
    std::optional<PlanNumber> numeric(std::string_view key, bool optional);
    template <TrackingPlanEnumeration E>
    std::optional<E> checked(std::string_view key, std::optional<std::int64_t> raw) {
        if (!raw) return std::nullopt;
        if (auto value = fromRawValue<E>(*raw)) return value;
        failOutsideCases(key, PlanEnumerationTraits<E>::name, *raw, PlanEnumerationTraits<E>::caseCount);
        return std::nullopt;
    }
    void failOutsideCases(std::string_view key, std::string_view enumeration, std::int64_t raw, std::int64_t caseCount);
    std::optional<std::string> text(std::string_view key, bool optional);
    std::optional<AttributeValue> list(std::string_view key, bool optional, bool (*element)(const AttributeValue&),
                                       std::string_view what);
    std::optional<std::vector<Urn>> urnList(std::string_view key, bool optional);
    void fail(std::string_view key, std::string message);

    std::string operation_;
    const AttributeValue& arguments_;
    std::vector<std::string_view> readKeys_;
    std::optional<PlanCallError> error_;
};

}  // namespace kt::tracking::detail
