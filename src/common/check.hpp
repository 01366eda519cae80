#pragma once
// Programming errors (an impossible enumeration value, a broken invariant) stop the
// process: log where it happened, then abort.

#include <source_location>
#include <string_view>

namespace skiff {

[[noreturn]] void fatalError(std::string_view what,
                             std::source_location where = std::source_location::current());

}  // namespace skiff
