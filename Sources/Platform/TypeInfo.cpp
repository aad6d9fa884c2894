#include "KTAnalytics/Platform/TypeInfo.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace kt {

bool isInstanceOf(const void* object, const std::type_info& dynamicType, const std::type_info& cls) {
    if (dynamicType == cls) return true;
    // __do_catch is how the runtime decides whether a thrown object of one class can be
    // caught as another; it adjusts the pointer it is given, so hand it a private copy.
    void* adjusted = const_cast<void*>(object);
    return cls.__do_catch(&dynamicType, &adjusted, 1);
}

std::string className(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                     std::free);
    std::string name = (status == 0 && demangled) ? demangled.get() : type.name();
    const auto colon = name.rfind("::");
    return colon == std::string::npos ? name : name.substr(colon + 2);
}

}  // namespace kt
