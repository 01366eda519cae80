// skiff-fs SOURCE MOUNTPOINT [-o OPTIONS] [-f] [-d]; also installed as mount.skiff.
//
// Serves the phone's storage at MOUNTPOINT as the service's file provider. It returns once
// the volume is mounted and the service accepted it, and goes on serving in the
// background; -f keeps it in the foreground (tests), -d adds libfuse's request trace.
// Exit status: 0 served and unmounted, 1 the mount failed, 2 the service could not be
// reached or refused the file provider, 64 a wrong command line.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/bridge_messages.hpp"
#include "common/heap_tuning.hpp"
#include "common/log.hpp"
#include "service/dbus/client_session.hpp"
#include "service/service_status.hpp"
#include "transfer/shared_file_storage.hpp"
#include "volume/phone_relay.hpp"
#include "volume/volume_fs.hpp"

namespace {

using namespace skiff;

constexpr int kUsage = 64;
constexpr auto kCallTimeout = std::chrono::seconds(30);

struct CommandLine {
    std::string source;
    std::string mountPoint;
    std::vector<std::string> options;
    bool foreground = false;
    bool debug = false;
    bool replace = false;  // take the file-provider role even from a client holding it
    std::uint64_t copyLimit = volume::VolumeFs::kDefaultCopyLimit;
};

// Options only mount(8) and fstab give meaning to; libfuse would refuse them.
bool mountTableOnly(const std::string& option) {
    for (const char* known :
         {"defaults", "auto", "noauto", "user", "nouser", "users", "_netdev", "nofail"}) {
        if (option == known) {
            return true;
        }
    }
    return false;
}

void addOptions(const std::string& list, std::vector<std::string>& options) {
    std::size_t start = 0;
    while (start <= list.size()) {
        const auto comma = list.find(',', start);
        auto option =
            list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!option.empty() && !mountTableOnly(option)) {
            options.push_back(std::move(option));
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
}

std::optional<CommandLine> parse(int argc, char** argv) {
    CommandLine line;
    // As a mount helper, mount(8) may add -n, -s, -v (and -f, a fake mount); none changes
    // how the volume is served.
    const bool helper = std::strstr(argv[0], "mount.skiff") != nullptr;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-o" && i + 1 < argc) {
            addOptions(argv[++i], line.options);
        } else if (arg.rfind("-o", 0) == 0 && arg.size() > 2) {
            addOptions(arg.substr(2), line.options);
        } else if (arg == "-f" && !helper) {
            line.foreground = true;
        } else if (arg == "-d" && !helper) {
            line.debug = true;
        } else if (helper && (arg == "-n" || arg == "-s" || arg == "-v" || arg == "-f")) {
            continue;
        } else if (!arg.empty() && arg[0] == '-') {
            return std::nullopt;
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 2) {
        return std::nullopt;
    }
    line.source = positional[0];
    line.mountPoint = positional[1];
    line.replace = std::erase(line.options, "replace") > 0;
    // copy_limit=BYTES: the disk the local copies of files nobody holds open may take.
    constexpr std::string_view kCopyLimit = "copy_limit=";
    for (auto option = line.options.begin(); option != line.options.end();) {
        if (!option->starts_with(kCopyLimit)) {
            ++option;
            continue;
        }
        const auto value = std::string_view(*option).substr(kCopyLimit.size());
        const auto parsed =
            std::from_chars(value.data(), value.data() + value.size(), line.copyLimit);
        if (parsed.ec != std::errc() || parsed.ptr != value.data() + value.size()) {
            return std::nullopt;
        }
        option = line.options.erase(option);
    }
    return line;
}

// Forks; the parent waits until the child reports that the volume is mounted (or why not)
// and exits with that status. Returns the descriptor the child reports on.
int detachUntilMounted() {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        std::perror("skiff-fs: pipe");
        std::exit(1);
    }
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("skiff-fs: fork");
        std::exit(1);
    }
    if (child > 0) {
        ::close(ready[1]);
        unsigned char status = 1;
        if (::read(ready[0], &status, 1) != 1) {
            int wstatus = 0;
            ::waitpid(child, &wstatus, 0);
            std::exit(WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 1);
        }
        std::exit(status);
    }
    ::close(ready[0]);
    ::setsid();
    return ready[1];
}

// Tells the waiting parent once; later calls do nothing.
void report(int& readyFd, unsigned char status) {
    if (readyFd >= 0) {
        [[maybe_unused]] const auto written = ::write(readyFd, &status, 1);
        ::close(readyFd);
        readyFd = -1;
    }
}

void detachOutput() {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::close(null);
    }
    [[maybe_unused]] const int ignored = ::chdir("/");
}

int serve(const CommandLine& line, int& readyFd) {
    constexpr auto role = static_cast<std::int64_t>(service::HarborBridgeClientRole::fileProvider);
    std::unique_ptr<service::dbus::ClientSession> session;
    // Shared with the session's follower, which may still run while serve() returns.
    std::shared_ptr<volume::PhoneRelay> phone;
    // The file system the follower tells of the service's return, while there is one.
    struct Served {
        std::mutex mutex;
        volume::VolumeFs* volume = nullptr;
    };
    const auto served = std::make_shared<Served>();
    try {
        session = std::make_unique<service::dbus::ClientSession>(std::string(), kCallTimeout);
        auto& client = session->client();
        client.setLostHandler([] { log::xpc().error("skiff-fs lost its bus connection"); });
        // Registering would cut off the volume (or tool) that holds the role now.
        const auto status = json::decode<service::ServiceStatus>(client.getStatus());
        if (!line.replace && status && status->fileProviderRegistered) {
            std::fprintf(stderr,
                         "skiff-fs: another client holds the file-provider role (a mounted "
                         "volume?); -o replace takes it over and cuts that one off\n");
            return 2;
        }
        if (!client.registerClient(role)) {
            std::fprintf(stderr, "skiff-fs: the service refused the file provider\n");
            return 2;
        }
        phone = std::make_shared<volume::PhoneRelay>(client);
        // A restarted skiffd knows neither the volume nor its buffer; until it has both
        // back, calls fail with EIO at once.
        session->keepRegistered(role, [weak = std::weak_ptr(phone), served](bool registered) {
            const auto relay = weak.lock();
            if (!relay) {
                return;
            } else if (registered) {
                relay->reattach();
                // What waits for the phone goes out now rather than at its next retry.
                std::lock_guard guard(served->mutex);
                if (served->volume) {
                    served->volume->retryNow();
                }
            } else {
                relay->detach();
            }
        });
    } catch (const std::exception& e) {
        std::fprintf(stderr, "skiff-fs: cannot reach the service: %s\n", e.what());
        return 2;
    }

    transfer::SharedFileStorage storage;
    std::filesystem::path copies;
    try {
        copies = storage.makeContainer() / "volume";
    } catch (const std::exception& e) {
        std::fprintf(stderr, "skiff-fs: no folder for local copies: %s\n", e.what());
        return 1;
    }
    volume::VolumeFs volumeFs(*phone, copies, line.copyLimit);
    {
        std::lock_guard guard(served->mutex);
        served->volume = &volumeFs;
    }
    // Before the file system goes, whatever happens below.
    const std::unique_ptr<Served, void (*)(Served*)> unserve(served.get(), [](Served* s) {
        std::lock_guard guard(s->mutex);
        s->volume = nullptr;
    });
    std::vector<std::string> args = {"skiff-fs", "-o", "fsname=" + line.source + ",subtype=skiff"};
    for (const auto& option : line.options) {
        args.insert(args.end(), {"-o", option});
    }
    if (line.debug) {
        args.push_back("-d");
    }
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    fuse_args fuseArgs = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());
    const auto ops = volume::VolumeFs::operations();
    fuse_session* fs = fuse_session_new(&fuseArgs, &ops, sizeof ops, &volumeFs);
    fuse_opt_free_args(&fuseArgs);
    if (!fs) {
        return 1;
    }
    if (fuse_session_mount(fs, line.mountPoint.c_str()) != 0) {
        fuse_session_destroy(fs);
        return 1;
    }
    fuse_set_signal_handlers(fs);
    volumeFs.start(fs);
    log::xpc().info("skiff-fs mounted %{public}s at %{public}s", line.source.c_str(),
                    line.mountPoint.c_str());
    if (readyFd >= 0) {
        report(readyFd, 0);
        detachOutput();
    } else {
        std::printf("skiff-fs: mounted\n");
        std::fflush(stdout);
    }
    fuse_loop_config* loop = fuse_loop_cfg_create();
    const int looped = fuse_session_loop_mt(fs, loop);
    fuse_loop_cfg_destroy(loop);
    volumeFs.finish();
    fuse_remove_signal_handlers(fs);
    fuse_session_unmount(fs);
    fuse_session_destroy(fs);
    try {
        session->client().filesystemDidUnmount();
    } catch (const std::exception&) {
        // The service is gone; there is nobody to tell.
    }
    return looped == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const auto line = parse(argc, argv);
    if (!line) {
        std::fprintf(stderr,
                     "usage: skiff-fs SOURCE MOUNTPOINT [-o OPTIONS] [-o replace] "
                     "[-o copy_limit=BYTES] [-f] [-d]\n");
        return kUsage;
    }
    int readyFd = line->foreground ? -1 : detachUntilMounted();
    // After the fork: the serving process is the one whose chunks come and go.
    tuneHeapForLargeBodies();
    const int status = serve(*line, readyFd);
    report(readyFd, static_cast<unsigned char>(status));
    return status;
}
