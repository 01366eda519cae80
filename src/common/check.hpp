#pragma once
// Programming errors (an impossible enumeration value, a broken invariant) stop the
// process: log where it happened, then abort.

#include <string_view>

namespace skiff {

// Where a call was made. std::source_location is not usable with clang 14 on this
// toolchain (the fuzz build), while these builtins work in both compilers.
struct SourceLocation {
    const char* file;
    unsigned line;

    static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                            unsigned line = __builtin_LINE()) {
        return {file, line};
    }
};

[[noreturn]] void fatalError(std::string_view what,
                             SourceLocation where = SourceLocation::current());

}  // namespace skiff
