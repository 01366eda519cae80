#include "common/check.hpp"

#include <cstdlib>
#include <string>

#include "common/log.hpp"

namespace skiff {

void fatalError(std::string_view what, SourceLocation where) {
    const std::string text(what);
    log::xpc().fault("fatal error at %{public}s:%{public}u: %{public}s", where.file, where.line,
                     text.c_str());
    std::abort();
}

}  // namespace skiff
