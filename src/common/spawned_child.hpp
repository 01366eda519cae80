#pragma once
// A child process started with posix_spawn and watched through a pidfd, so that a caller
// can wait for its exit in a poll or a reactor instead of a blocking waitpid. The child
// starts with no blocked signals and default dispositions, whatever this process set up
// for itself, so that a termination request reaches it.
//
// Owns the child until it is reaped: one still running when its owner goes is killed,
// and reaped when that does not block. Not thread-safe; one owner drives it.

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.hpp"

namespace skiff {

struct SpawnOptions {
    // argv[0] is the program: a path, or with searchPath a name looked up in PATH.
    std::vector<std::string> argv;
    bool searchPath = false;
    // "NAME=value" entries; this process's environment when absent.
    std::optional<std::vector<std::string>> environment;
    // What the child gets as standard input, output and error; -1 is /dev/null.
    int standardInput = -1;
    int standardOutput = -1;
    int standardError = -1;
};

class SpawnedChild {
public:
    // Throws std::system_error naming the program when it cannot be started or watched.
    explicit SpawnedChild(const SpawnOptions& options);
    ~SpawnedChild();
    SpawnedChild(const SpawnedChild&) = delete;
    SpawnedChild& operator=(const SpawnedChild&) = delete;

    pid_t pid() const { return pid_; }
    // Readable once the child has exited.
    int pidfd() const { return pidfd_.get(); }

    // Harmless once the child is reaped.
    void signal(int number) const;

    // The child's wait status once it has gone; waits only when options lack WNOHANG.
    // -1 when it cannot be waited for at all.
    std::optional<int> reap(int options);

private:
    pid_t pid_ = -1;
    UniqueFd pidfd_;
    std::optional<int> status_;
};

// "NAME=value" entries of this process's environment, with extra's names replaced or added.
std::vector<std::string> environmentWith(const std::vector<std::string>& extra);

}  // namespace skiff
