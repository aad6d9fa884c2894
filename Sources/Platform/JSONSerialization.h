#pragma once
// JSON that reports what it cannot represent instead of writing "null" silently:
// non-finite numbers, invalid UTF-8, dates and raw data are errors.

#include <optional>
#include <string>
#include <string_view>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt {

class JSONSafeSerialization {
public:
    /// Compact JSON text, or nullopt with a description in `error`.
    std::optional<std::string> dataWithJSONObject(const AttributeValue& object, std::string* error = nullptr) const;
    /// The same text appended to `out` (left as it was on failure): a body of many values
    /// is written without a string per value.
    bool appendJSONObject(const AttributeValue& object, std::string& out, std::string* error = nullptr) const;
    /// Parses JSON text, or nullopt with a description in `error`.
    std::optional<AttributeValue> JSONObjectWithData(std::string_view text, std::string* error = nullptr) const;
    /// True when `dataWithJSONObject` would succeed.
    bool isValidJSONObject(const AttributeValue& object) const;
};

/// Whether JSON `text` nests arrays and objects deeper than `limit`, found without
/// recursion so that any depth can be refused before a recursive parser, copy or writer
/// sees it. Brackets in strings do not count; malformed text is left for the parser.
bool jsonTextNestsDeeperThan(std::string_view text, std::size_t limit);

}  // namespace kt
