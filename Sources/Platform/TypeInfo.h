#pragma once
// Run-time class tests that C++ has no portable spelling for.

#include <string>
#include <typeinfo>

namespace kt {

/// True when the object whose most-derived address is `object` and whose dynamic type is
/// `dynamicType` is an instance of `cls` or of a class derived from it. Uses the C++ ABI's
/// exception-matching machinery, which already knows every class hierarchy at run time.
bool isInstanceOf(const void* object, const std::type_info& dynamicType, const std::type_info& cls);

/// The demangled class name without namespaces: "APEventGatewayAnalyticsProvider".
std::string className(const std::type_info& type);

}  // namespace kt
