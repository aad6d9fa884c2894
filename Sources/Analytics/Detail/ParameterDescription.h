#pragma once
// Text of Firebase parameters for descriptions and console lines, in the notation the
// application's developers read everywhere else: `["has_caption": true, "mode": 2]`,
// `[:]` when empty, strings quoted and escaped, arrays as `[1, 2]`.

#include <string>

#include "KTAnalytics/Platform/AttributeValue.h"

namespace kt::detail {

/// A dictionary in dictionary-literal notation, keys in sorted order.
std::string describeParameters(const AttributeValue& dictionary);
/// One value in the same notation (strings quoted).
std::string describeParameterValue(const AttributeValue& value);

}  // namespace kt::detail
