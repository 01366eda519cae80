#pragma once

#include <functional>
#include <string>

namespace skiff::sim {

// Receives one human-readable line per thing that happens on the simulated phone.
using Reporter = std::function<void(const std::string&)>;

}  // namespace skiff::sim
