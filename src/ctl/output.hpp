#pragma once
// What every skiffctl command prints: JSON documents on standard output, errors on
// standard error.

#include <string>

#include "common/json.hpp"
#include "ctl/commands.hpp"

namespace skiff::ctl {

// One line; text that is not UTF-8 is replaced rather than refused.
void printJson(const json::Json& document);

// Prints "skiffctl: message" on standard error and returns status.
int fail(const std::string& message, int status = kExitFailed);

}  // namespace skiff::ctl
