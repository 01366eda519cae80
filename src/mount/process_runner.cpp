#include "mount/process_runner.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <cerrno>
#include <optional>
#include <system_error>

#include "common/spawned_child.hpp"
#include "common/text.hpp"
#include "common/unique_fd.hpp"
#include "mount/mount_error.hpp"

namespace skiff::mount {
namespace {

// More than any tool's complaint; a tool that floods its standard error is not held up,
// its excess is dropped.
constexpr std::size_t kErrorOutputLimit = 64 * 1024;
// How long a terminated tool gets to go before it is killed, and again before it is left
// for the destructor.
constexpr auto kTerminationGrace = std::chrono::seconds(1);

[[noreturn]] void throwSystemError(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

struct ExitStatus {
    bool signalled = false;
    int value = 0;  // the exit status, or the signal that ended the tool
};

// One launched tool, with its standard error caught in a pipe.
class ToolProcess {
public:
    ToolProcess(const std::string& executable, const Arguments& arguments) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throwSystemError(errno, "could not make a pipe for " + executable);
        }
        errorOutput_ = UniqueFd(ends[0]);
        const UniqueFd writeEnd(ends[1]);
        SpawnOptions options;
        options.argv.push_back(executable);
        options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
        options.standardError = writeEnd.get();
        child_.emplace(options);
        // Read after the exit without waiting for a background child that may hold it.
        ::fcntl(errorOutput_.get(), F_SETFL, O_NONBLOCK);
    }

    int pidfd() const { return child_->pidfd(); }
    int errorOutputFd() const { return errorOutput_.get(); }
    const std::string& errorOutput() const { return errorText_; }
    void signal(int number) const { child_->signal(number); }

    // Reads what is waiting in the pipe; false once it has ended.
    bool collectErrorOutput() {
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(errorOutput_.get(), buffer, sizeof buffer);
            if (n > 0) {
                const auto room = kErrorOutputLimit - errorText_.size();
                errorText_.append(buffer, std::min(static_cast<std::size_t>(n), room));
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            return n < 0 && errno == EAGAIN;
        }
    }

    // The exit status once the child has gone; waits only when options lack WNOHANG.
    std::optional<ExitStatus> reap(int options) {
        const auto raw = child_->reap(options);
        if (!raw) {
            return std::nullopt;
        }
        return WIFSIGNALED(*raw) ? ExitStatus{true, WTERMSIG(*raw)}
                                 : ExitStatus{false, WEXITSTATUS(*raw)};
    }

private:
    UniqueFd errorOutput_;
    std::optional<SpawnedChild> child_;
    std::string errorText_;
};

void checkExit(const std::string& executable, const ExitStatus& status, std::string_view errors) {
    if (!status.signalled && status.value == 0) {
        return;
    }
    const auto text = trimmedWhitespace(errors);
    if (!text.empty()) {
        throw MountServiceError::commandFailed(std::string(text));
    }
    if (status.signalled) {
        throw MountServiceError::commandFailed(executable + " was stopped by signal " +
                                               std::to_string(status.value));
    }
    throw MountServiceError::commandFailed(executable + " exited with status " +
                                           std::to_string(status.value));
}

// Whether the child exits within grace.
asio::awaitable<bool> exitsWithin(asio::posix::stream_descriptor& exited,
                                  std::chrono::steady_clock::duration grace) {
    using namespace asio::experimental::awaitable_operators;
    asio::steady_timer timer(co_await asio::this_coro::executor, grace);
    const auto first =
        co_await (exited.async_wait(asio::posix::descriptor_base::wait_read, asio::use_awaitable) ||
                  timer.async_wait(asio::use_awaitable));
    co_return first.index() == 0;
}

// A reactor watch on a duplicate of fd; the tool keeps the original.
asio::posix::stream_descriptor watch(const asio::any_io_executor& executor, int fd,
                                     const std::string& executable) {
    const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) {
        throwSystemError(errno, "could not watch " + executable);
    }
    return asio::posix::stream_descriptor(executor, duplicate);
}

}  // namespace

void runCommand(const std::string& executable, const Arguments& arguments) {
    ToolProcess tool(executable, arguments);
    // Drain standard error while waiting, so that a talkative tool never stalls on a full
    // pipe.
    pollfd watched[2] = {{tool.pidfd(), POLLIN, 0}, {tool.errorOutputFd(), POLLIN, 0}};
    for (;;) {
        if (::poll(watched, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throwSystemError(errno, "could not wait for " + executable);
        }
        if (watched[1].revents != 0 && !tool.collectErrorOutput()) {
            watched[1].fd = -1;
        }
        if (watched[0].revents != 0) {
            break;
        }
    }
    const auto status = tool.reap(0);
    tool.collectErrorOutput();
    checkExit(executable, *status, tool.errorOutput());
}

asio::awaitable<void> runCommandTimed(std::string executable, Arguments arguments,
                                      std::chrono::steady_clock::duration timeout) {
    using namespace asio::experimental::awaitable_operators;
    constexpr auto kReady = asio::posix::descriptor_base::wait_read;
    ToolProcess tool(executable, arguments);
    const auto executor = co_await asio::this_coro::executor;
    auto exited = watch(executor, tool.pidfd(), executable);
    auto errors = watch(executor, tool.errorOutputFd(), executable);
    asio::steady_timer deadline(executor, timeout);
    // Drains standard error while waiting, as the synchronous run does.
    bool draining = true;
    std::optional<bool> exitedInTime;
    while (!exitedInTime) {
        if (draining) {
            const auto first = co_await (exited.async_wait(kReady, asio::use_awaitable) ||
                                         errors.async_wait(kReady, asio::use_awaitable) ||
                                         deadline.async_wait(asio::use_awaitable));
            if (first.index() == 1) {
                draining = tool.collectErrorOutput();
            } else {
                exitedInTime = first.index() == 0;
            }
        } else {
            const auto first = co_await (exited.async_wait(kReady, asio::use_awaitable) ||
                                         deadline.async_wait(asio::use_awaitable));
            exitedInTime = first.index() == 0;
        }
    }
    if (!*exitedInTime) {
        tool.signal(SIGTERM);
        if (!co_await exitsWithin(exited, kTerminationGrace)) {
            tool.signal(SIGKILL);
            co_await exitsWithin(exited, kTerminationGrace);
        }
        tool.reap(WNOHANG);
        throw MountServiceError::timedOut(executable + " did not finish within 3.0s");
    }
    const auto status = tool.reap(0);
    tool.collectErrorOutput();
    checkExit(executable, *status, tool.errorOutput());
}

}  // namespace skiff::mount
