#include "common/spawned_child.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string_view>
#include <system_error>

extern char** environ;

namespace skiff {
namespace {

std::vector<char*> pointers(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const auto& s : strings) {
        out.push_back(const_cast<char*>(s.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

void redirect(posix_spawn_file_actions_t& actions, int target, int fd, int nullMode) {
    if (fd < 0) {
        ::posix_spawn_file_actions_addopen(&actions, target, "/dev/null", nullMode, 0);
    } else {
        ::posix_spawn_file_actions_adddup2(&actions, fd, target);
    }
}

}  // namespace

SpawnedChild::SpawnedChild(const SpawnOptions& options) {
    const std::string& program = options.argv.at(0);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_init(&attributes);
    redirect(actions, STDIN_FILENO, options.standardInput, O_RDONLY);
    redirect(actions, STDOUT_FILENO, options.standardOutput, O_WRONLY);
    redirect(actions, STDERR_FILENO, options.standardError, O_WRONLY);
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setsigdefault(&attributes, &all);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const auto argv = pointers(options.argv);
    const auto env = options.environment ? pointers(*options.environment) : std::vector<char*>{};
    char* const* envp = options.environment ? env.data() : environ;
    const auto spawn = options.searchPath ? ::posix_spawnp : ::posix_spawn;
    const int error = spawn(&pid_, program.c_str(), &actions, &attributes, argv.data(), envp);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        throw std::system_error(error, std::generic_category(), "could not launch " + program);
    }
    pidfd_ = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    if (pidfd_.get() < 0) {
        const int openError = errno;
        ::kill(pid_, SIGKILL);
        reap(0);
        throw std::system_error(openError, std::generic_category(), "could not watch " + program);
    }
}

SpawnedChild::~SpawnedChild() {
    if (!status_) {
        signal(SIGKILL);
        reap(WNOHANG);
    }
}

void SpawnedChild::signal(int number) const {
    // Through the pidfd: a reaped child's number may already name another process.
    ::syscall(SYS_pidfd_send_signal, pidfd_.get(), number, nullptr, 0);
}

std::optional<int> SpawnedChild::reap(int options) {
    if (status_) {
        return status_;
    }
    int raw = 0;
    pid_t done;
    do {
        done = ::waitpid(pid_, &raw, options);
    } while (done < 0 && errno == EINTR);
    if (done == pid_) {
        status_ = raw;
    } else if (done < 0) {
        status_ = -1;
    }
    return status_;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& extra) {
    std::set<std::string_view> replaced;
    for (const auto& x : extra) {
        replaced.insert(std::string_view(x).substr(0, x.find('=')));
    }
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string_view entry(*e);
        if (!replaced.contains(entry.substr(0, entry.find('=')))) {
            env.emplace_back(entry);
        }
    }
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

}  // namespace skiff
