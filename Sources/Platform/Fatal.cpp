#include "KTAnalytics/Platform/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kt {

void fatalError(std::string_view message, SourceLocation where) {
    std::fprintf(stderr, "Fatal error: %.*s\n  at %s:%u in %s\n", static_cast<int>(message.size()),
                 message.data(), where.file, where.line, where.function);
    std::fflush(stderr);
    std::abort();
}

void invalidParameter(std::string_view conditionText, SourceLocation where) {
    fatalError(std::string("Invalid parameter not satisfying: ").append(conditionText), where);
}

void expectedNotNil(std::string_view what, SourceLocation where) {
    fatalError(std::string("Expected '").append(what).append("' not to be nil."), where);
}

}  // namespace kt
