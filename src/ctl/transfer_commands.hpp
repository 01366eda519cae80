#pragma once
// skiffctl pull and push: whole-file transfers through the service and the shared
// transfer folder, with the progress the service reports to its observers. They need a
// registered role for RequestFileIO (the caller registers before calling them).

#include <optional>
#include <string>

#include "ctl/commands.hpp"
#include "ctl/ctl_session.hpp"

namespace skiff::ctl {

// Fetches the item into destination (default: the identifier's last name in the current
// folder; a folder receives that name) and releases the service's copy.
int runPull(CtlSession& session, const Output& out, const std::string& identifier,
            const std::optional<std::string>& destination);
// Places the file in the shared folder, pushes it to the item (overwriting whatever the
// phone holds) and releases it.
int runPush(CtlSession& session, const Output& out, const std::string& file,
            const std::string& identifier);

}  // namespace skiff::ctl
