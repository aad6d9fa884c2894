#pragma once
// Programming errors stop the process in every build type, with the message the rest of
// the system (and its death tests) expects. These never compile away under NDEBUG.

#include <string>
#include <string_view>

namespace kt {

/// Where a fatal error was raised. The compiler builtins stand in for std::source_location,
/// which not every supported compiler provides yet.
struct SourceLocation {
    const char* file;
    unsigned line;
    const char* function;
    static constexpr SourceLocation current(const char* file = __builtin_FILE(), unsigned line = __builtin_LINE(),
                                            const char* function = __builtin_FUNCTION()) {
        return {file, line, function};
    }
};

/// Writes "Fatal error: <message>" and the source location to stderr, then aborts.
[[noreturn]] void fatalError(std::string_view message,
                             SourceLocation where = SourceLocation::current());

/// The argument-check failure: "Invalid parameter not satisfying: <condition text>".
[[noreturn]] void invalidParameter(std::string_view conditionText,
                                   SourceLocation where = SourceLocation::current());

/// The must-not-be-null failure: "Expected '<what>' not to be nil."
[[noreturn]] void expectedNotNil(std::string_view what,
                                 SourceLocation where = SourceLocation::current());

}  // namespace kt

/// Argument check whose message is the condition's own text: KT_PARAMETER_ASSERT(name).
#define KT_PARAMETER_ASSERT(condition) \
    do { if (!(condition)) ::kt::invalidParameter(#condition); } while (0)

/// Argument check with the condition text given explicitly, for checks whose C++ form
/// differs from the text callers know (for example "[events count] > 0").
#define KT_PARAMETER_ASSERT_TEXT(condition, text) \
    do { if (!(condition)) ::kt::invalidParameter(text); } while (0)

/// Internal must-not-be-null check.
#define KT_EXPECT_NOT_NIL(value, text) \
    do { if (!(value)) ::kt::expectedNotNil(text); } while (0)

/// General assertion with a full message (any expression yielding a string).
#define KT_ASSERT(condition, message) \
    do { if (!(condition)) ::kt::fatalError(message); } while (0)
