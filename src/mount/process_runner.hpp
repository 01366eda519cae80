#pragma once
// Runs the system's mount tools. A tool is launched by its path with an argument list,
// its standard input and output on /dev/null and its standard error caught in a pipe,
// so that a failure is reported in the tool's own words. It starts with no blocked
// signals and default dispositions, whatever this process set up for itself, so that a
// termination request reaches it.
//
// Outcome, for both runs: exit status 0 is success. Otherwise MountServiceError::
// commandFailed with the tool's standard error trimmed of white space and line ends, or,
// when it wrote nothing, "<path> exited with status N". A tool that cannot be launched
// (missing, not executable) is a std::system_error naming its path.

#include <asio/awaitable.hpp>
#include <chrono>
#include <string>
#include <vector>

namespace skiff::mount {

using Arguments = std::vector<std::string>;

// Blocks the calling thread until the tool exits, with no time-out. Call it on a thread
// of the caller's own, never on an io_context thread: the tools this runs call back into
// the service over the bus.
void runCommand(const std::string& executable, const Arguments& arguments);

// Waits for the exit without blocking a thread (the reactor of the caller's executor
// watches the child's pidfd), racing a timer. When the timer wins, the tool is asked to
// terminate (SIGTERM, SIGKILL when it lingers), reaped, and the run fails with
// MountServiceError::timedOut "<path> did not finish within 3.0s". The figure in that
// message is fixed: the callers only ever pass 3 seconds. Any executor may await it.
asio::awaitable<void> runCommandTimed(std::string executable, Arguments arguments,
                                      std::chrono::steady_clock::duration timeout);

}  // namespace skiff::mount
