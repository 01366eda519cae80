#pragma once
// skiffctl devices and status: what the service knows, asked without registering a role
// and without starting a service that is not running.

#include <string>
#include <utility>
#include <vector>

#include "ctl/commands.hpp"
#include "ctl/ctl_session.hpp"
#include "service/service_status.hpp"

namespace skiff::ctl {

// The status as "name: value" lines, in the order printed; a new field adds one entry.
std::vector<std::pair<std::string, std::string>> statusLines(const service::ServiceStatus& status);

int runDevices(CtlSession& session, const Output& out);
int runStatus(CtlSession& session, const Output& out);

}  // namespace skiff::ctl
