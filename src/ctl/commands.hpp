#pragma once
// The skiffctl commands. Each prints its result on standard output (one JSON document
// with --json), its errors on standard error, and returns the exit status.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "ctl/ctl_session.hpp"

namespace skiff::ctl {

enum ExitStatus : int {
    kExitOk = 0,
    kExitFailed = 1,       // the service answered, with a failure
    kExitUnreachable = 2,  // no answer: the bus, the service or the registration failed
    kExitBadInput = 3      // an input named on the command line could not be read or parsed
};

// Up to this size a relay body rides in the bus message; setting up a shared buffer costs
// more than copying it.
inline constexpr std::size_t kSharedRelayBytes = 64 * 1024;

struct Output {
    bool json = false;
};

int runVersion(CtlSession& session, const Output& out);
int runPing(CtlSession& session, const Output& out, std::int64_t role);
int runEcho(CtlSession& session, const Output& out, std::uint64_t count);
int runSpeedTest(CtlSession& session, const Output& out);
int runLookup(CtlSession& session, const Output& out, const std::string& identifier,
              const std::string& source);
// `bodyPath` "-" reads standard input; `outputPath` receives the raw response body. A body
// over kSharedRelayBytes goes through a shared buffer instead of the bus message.
int runRelay(CtlSession& session, const Output& out, std::int64_t selector,
             const std::optional<std::string>& bodyPath,
             const std::optional<std::string>& outputPath);
struct WatchOptions {
    std::uint64_t count = 0;  // stop after this many notifications (0: no limit)
    bool exitOnLoss = false;  // kExitUnreachable when skiffd is not running or goes away
};
// Prints what the service tells its observers, and its coming and going, as JSON lines
// (see notification_line.hpp); registers nothing. Runs until the count is reached,
// SIGINT/SIGTERM/SIGHUP (which the caller must have blocked in every thread), the bus
// connection is lost (kExitUnreachable), or skiffd is gone with exitOnLoss.
int runWatch(CtlSession& session, const WatchOptions& options);
int runIngest(CtlSession& session, const Output& out, std::uint64_t bytes);
int runHostToExt(CtlSession& session, const Output& out, std::uint64_t chunkSize,
                 std::uint64_t chunkCount);
int runExtToHostPing(CtlSession& session, const Output& out, std::int64_t value);
int runExtToHost(CtlSession& session, const Output& out, std::uint64_t chunkSize,
                 std::uint64_t chunkCount);

}  // namespace skiff::ctl
