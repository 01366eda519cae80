#pragma once

#include <chrono>
#include <string>

#include "sim/control_command.hpp"

namespace skiff::sim {

// Sends one command line to a simulator's control socket and waits (bounded) for its
// reply. A transport failure comes back as a failed reply whose error says so.
ControlReply sendControlCommand(const std::string& socketPath, const std::string& line,
                                std::chrono::seconds timeout = std::chrono::seconds(10));

}  // namespace skiff::sim
