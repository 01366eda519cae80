#pragma once
// A runtime whose pool runs from construction to destruction, for fixtures that use it
// throughout a test. Declare it before everything that uses its executor.

#include <cstddef>

#include "common/io_runtime.hpp"

namespace skiff::testing {

class StartedRuntime : public runtime::IoRuntime {
public:
    explicit StartedRuntime(std::size_t threadCount = 2) : IoRuntime(threadCount) { start(); }
};

}  // namespace skiff::testing
