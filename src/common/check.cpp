#include "common/check.hpp"

#include <cstdlib>
#include <string>

#include "common/log.hpp"

namespace skiff {

void fatalError(std::string_view what, std::source_location where) {
    const std::string text(what);
    log::xpc().fault("fatal error at %{public}s:%{public}u: %{public}s", where.file_name(),
                     static_cast<unsigned>(where.line()), text.c_str());
    std::abort();
}

}  // namespace skiff
