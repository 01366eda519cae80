#pragma once
// The skiffctl commands. Each prints its result on standard output (one JSON document
// with --json), its errors on standard error, and returns the exit status.

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

struct Output {
    bool json = false;
};

int runVersion(CtlSession& session, const Output& out);
int runPing(CtlSession& session, const Output& out, std::int64_t role);
int runEcho(CtlSession& session, const Output& out, std::uint64_t count);
int runSpeedTest(CtlSession& session, const Output& out);
int runLookup(CtlSession& session, const Output& out, const std::string& identifier,
              const std::string& source);
// `bodyPath` "-" reads standard input; `outputPath` receives the raw response body.
int runRelay(CtlSession& session, const Output& out, std::int64_t selector,
             const std::optional<std::string>& bodyPath,
             const std::optional<std::string>& outputPath);
// Runs until `count` notifications were printed (0: no limit) or SIGINT/SIGTERM/SIGHUP,
// which the caller must have blocked in every thread.
int runWatch(CtlSession& session, std::uint64_t count);
int runIngest(CtlSession& session, const Output& out, std::uint64_t bytes);
int runHostToExt(CtlSession& session, const Output& out, std::uint64_t chunkSize,
                 std::uint64_t chunkCount);
int runExtToHostPing(CtlSession& session, const Output& out, std::int64_t value);
int runExtToHost(CtlSession& session, const Output& out, std::uint64_t chunkSize,
                 std::uint64_t chunkCount);

}  // namespace skiff::ctl
