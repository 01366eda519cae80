#include "ctl/transfer_commands.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <system_error>
#include <variant>
#include <vector>

#include "common/bridge_messages.hpp"
#include "common/json.hpp"
#include "common/unique_fd.hpp"
#include "common/uuid.hpp"
#include "ctl/relay_text.hpp"
#include "ctl/transfer_report.hpp"
#include "relay/relay_schema.hpp"
#include "transfer/file_io_records.hpp"
#include "transfer/shared_file_storage.hpp"

namespace skiff::ctl {

namespace {

using Clock = std::chrono::steady_clock;
using service::dbus::HarborClient;
using transfer::FileIOBridgeError;
using transfer::FileIOOperation;

// A failure on this machine's side, told apart from the service's by its exit status.
struct LocalFailure {
    std::string message;
};

ReportStyle styleFor(const Output& out) {
    if (out.json) {
        return ReportStyle::json;
    }
    return ::isatty(STDOUT_FILENO) == 1 ? ReportStyle::bar : ReportStyle::lines;
}

std::string systemError(int error) {
    return std::error_code(error, std::generic_category()).message();
}

// Copies byteCount bytes between two files from their starts, in the kernel when it can;
// across file systems that refuse copy_file_range, through a buffer.
void copyContents(int from, int to, std::uint64_t byteCount, const std::string& what) {
    std::uint64_t done = 0;
    while (done < byteCount) {
        const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, byteCount - done, 0);
        if (n > 0) {
            done += static_cast<std::uint64_t>(n);
            continue;
        }
        if (n == 0) {
            throw LocalFailure{what + ": the file ended early"};
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EXDEV && errno != ENOSYS && errno != EOPNOTSUPP && errno != EINVAL) {
            throw LocalFailure{what + ": " + systemError(errno)};
        }
        break;
    }
    std::vector<char> buffer(1 << 20);
    while (done < byteCount) {
        const ssize_t n =
            ::read(from, buffer.data(), std::min<std::uint64_t>(buffer.size(), byteCount - done));
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            throw LocalFailure{what + ": " +
                               (n == 0 ? "the file ended early" : systemError(errno))};
        }
        for (ssize_t written = 0; written < n;) {
            const ssize_t w =
                ::write(to, buffer.data() + written, static_cast<std::size_t>(n - written));
            if (w < 0 && errno != EINTR) {
                throw LocalFailure{what + ": " + systemError(errno)};
            }
            written += std::max<ssize_t>(w, 0);
        }
        done += static_cast<std::uint64_t>(n);
    }
}

// The fetched file under the destination's name without a copy, when both lie on one file
// system: a second name, put in place in one step with the mode a new file would get. The
// service removes only its own name at the release. False when that cannot be done.
bool linkOut(const std::filesystem::path& fetched, const std::filesystem::path& destination,
             const std::string& token) {
    const auto folder =
        destination.has_parent_path() ? destination.parent_path() : std::filesystem::path(".");
    const auto temp = folder / ("." + destination.filename().string() + ".skiff-" + token);
    if (::link(fetched.c_str(), temp.c_str()) != 0) {
        return false;
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    if (::chmod(temp.c_str(), 0666 & ~mask) != 0 ||
        ::rename(temp.c_str(), destination.c_str()) != 0) {
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

// Copies the fetched file to the destination in place; removes what it wrote on failure.
void copyOut(int from, const std::filesystem::path& destination, std::uint64_t byteCount) {
    UniqueFd to(::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (to.get() < 0) {
        throw LocalFailure{"cannot write " + destination.string() + ": " + systemError(errno)};
    }
    try {
        copyContents(from, to.get(), byteCount, destination.string());
    } catch (const LocalFailure&) {
        ::unlink(destination.c_str());
        throw;
    }
}

// Subscribes to the service's signals, makes one RequestFileIO call on another thread and
// shows this session's progress, as the service reports it to observers, until the answer
// arrives. Throws BusError.
HarborClient::FileIOReply requestWithProgress(CtlSession& session, TransferReport& report,
                                              const Uuid& sessionID, FileIOOperation operation,
                                              Bytes body) {
    session.observe();
    auto answer = std::async(std::launch::async, [&session, operation, body = std::move(body)] {
        return session.client().requestFileIO(static_cast<std::int64_t>(operation), body);
    });
    auto show = [&](const std::vector<WatchEvent>& events) {
        for (const auto& event : events) {
            const auto* n = std::get_if<Notification>(&event);
            if (n == nullptr || n->message != static_cast<std::int64_t>(
                                                  service::BridgeNotifyMessage::fileIOProgress)) {
                continue;
            }
            const auto step = json::decode<service::FileIOProgressPayload>(n->param);
            if (step && step->sessionID == sessionID) {
                report.progress(*step);
            }
        }
    };
    while (answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        show(session.takeEvents(std::chrono::milliseconds(100)));
    }
    // The service reports the last step before it answers, so it has arrived by now.
    show(session.takeEvents(std::chrono::milliseconds(0)));
    return answer.get();
}

// The phone's item at identifier, or the device status that refused the look-up (nullopt
// with no item when the look-up itself could not be made).
struct Looked {
    std::optional<relay::RelayItemSummary> item;
    std::optional<std::int64_t> refusal;
};
Looked lookUp(CtlSession& session, const std::string& identifier) {
    auto body = json::encode(
        relay::RelayLookupRequest{identifier, relay::RelayLookupSource::fsGetAttributes});
    if (!body) {
        return {};
    }
    const auto reply = session.client().relayToUsbMux(
        static_cast<std::int64_t>(relay::UsbMuxRelaySelector::lookupItem), std::move(*body));
    if (reply.status == static_cast<std::int64_t>(relay::UsbMuxRelayError::deviceStatus)) {
        return {std::nullopt, reply.code};
    }
    return {json::decode<relay::RelayItemSummary>(reply.response), std::nullopt};
}

bool isNotFound(const Looked& looked) {
    return looked.refusal == static_cast<std::int64_t>(relay::RelayDeviceStatus::notFound);
}

// Why the phone refused to hand out the item: a look-up names it.
std::string whyRefused(CtlSession& session, const std::string& identifier) {
    const auto looked = lookUp(session, identifier);
    if (isNotFound(looked)) {
        return "\"" + identifier + "\" not found on the phone";
    }
    if (looked.item && looked.item->isDirectory) {
        return "\"" + identifier + "\": that is a folder";
    }
    if (looked.refusal) {
        return "the phone refused: " + std::string(deviceStatusName(*looked.refusal));
    }
    return "the phone refused";
}

// Why the phone refused to store the item: its folder is missing, or something else.
std::string whyRefusedToStore(CtlSession& session, const std::string& identifier) {
    const auto slash = identifier.rfind('/');
    if (slash != std::string::npos && isNotFound(lookUp(session, identifier.substr(0, slash)))) {
        return "\"" + identifier.substr(0, slash) + "\": no such folder on the phone";
    }
    return "the phone refused to store \"" + identifier + "\"";
}

int serviceFailure(TransferReport& report, std::int64_t status, const std::string& message) {
    report.failed(status, message);
    std::cerr << "skiffctl: " << message << std::endl;
    return kExitFailed;
}

// A begin request the service answered with a failure; `refusal` words the phone's refusal.
int beginFailed(TransferReport& report, std::int64_t status,
                const std::function<std::string()>& refusal) {
    const bool refused = status == static_cast<std::int64_t>(FileIOBridgeError::deviceRejected);
    return serviceFailure(report, status, refused ? refusal() : fileIOStatusText(status));
}

int localFailure(TransferReport& report, const std::string& message) {
    report.failed(std::nullopt, message);
    std::cerr << "skiffctl: " << message << std::endl;
    return kExitBadInput;
}

std::filesystem::path pullDestination(const std::string& identifier,
                                      const std::optional<std::string>& destination) {
    const auto name = std::filesystem::path(identifier).filename();
    if (!destination) {
        return name;
    }
    std::filesystem::path path(*destination);
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        return path / name;
    }
    return path;
}

// Calls `release` when it goes: a transfer's files leave the shared folder however the
// command ends.
class Release {
public:
    explicit Release(std::function<void()> release) : release_(std::move(release)) {}
    ~Release() {
        try {
            release_();
        } catch (...) {
            // The service sweeps what it was not told to release.
        }
    }
    Release(const Release&) = delete;
    Release& operator=(const Release&) = delete;

private:
    std::function<void()> release_;
};

template <class EndRequest>
void endTransfer(CtlSession& session, FileIOOperation operation, const std::string& token) {
    if (auto body = json::encode(EndRequest{token})) {
        session.client().requestFileIO(static_cast<std::int64_t>(operation), std::move(*body));
    }
}

}  // namespace

int runPull(CtlSession& session, const Output& out, const std::string& identifier,
            const std::optional<std::string>& destination) {
    const auto path = pullDestination(identifier, destination);
    TransferReport report(std::cout, styleFor(out), "pull", identifier, path.string());
    if (path.filename().empty()) {
        return localFailure(report, "no file name to save \"" + identifier + "\" under; name one");
    }
    const auto folder = path.has_parent_path() ? path.parent_path() : ".";
    if (::access(folder.c_str(), W_OK) != 0) {
        return localFailure(report,
                            "cannot write in " + folder.string() + ": " + systemError(errno));
    }
    const auto start = Clock::now();
    const Uuid sessionID = Uuid::random();
    auto body = json::encode(transfer::FileIOBeginReadRequest{identifier, sessionID});
    if (!body) {
        return localFailure(report, "the name \"" + identifier + "\" is not valid UTF-8");
    }
    const auto reply =
        requestWithProgress(session, report, sessionID, FileIOOperation::beginRead, *body);
    if (reply.status != 0) {
        return beginFailed(report, reply.status, [&] { return whyRefused(session, identifier); });
    }
    const auto descriptor = json::decode<transfer::SharedFileDescriptor>(reply.response);
    if (!descriptor) {
        return serviceFailure(report, reply.status, "the service's answer is not a fetched file");
    }
    Release release([&] {
        endTransfer<transfer::FileIOEndReadRequest>(session, FileIOOperation::endRead,
                                                    descriptor->token);
    });
    try {
        const transfer::SharedFileStorage storage;
        UniqueFd from;
        try {
            from = storage.openSourceFile(descriptor->fileName);
        } catch (const transfer::SharedFileStorageError& e) {
            throw LocalFailure{"cannot open the fetched file in the shared transfer folder: " +
                               e.cause().message()};
        }
        if (!linkOut(storage.containerPath() / descriptor->fileName, path, descriptor->token)) {
            copyOut(from.get(), path, descriptor->byteCount);
        }
    } catch (const LocalFailure& failure) {
        return localFailure(report, failure.message);
    }
    report.finished(descriptor->byteCount,
                    std::chrono::duration<double>(Clock::now() - start).count());
    return kExitOk;
}

int runPush(CtlSession& session, const Output& out, const std::string& file,
            const std::string& identifier) {
    TransferReport report(std::cout, styleFor(out), "push", identifier, file);
    UniqueFd from(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (from.get() < 0 || ::fstat(from.get(), &st) != 0) {
        return localFailure(report, "cannot read " + file + ": " + systemError(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        return localFailure(report, file + " is not a regular file");
    }
    const auto start = Clock::now();
    const auto byteCount = static_cast<std::uint64_t>(st.st_size);
    const Uuid transferID = Uuid::random();
    const std::string staged = "push_" + transferID.text();
    const transfer::SharedFileStorage storage;
    try {
        try {
            // A second name for the file costs nothing when it is on the folder's file
            // system (the service reads it and removes only that name); a copy otherwise.
            const auto linked = storage.containerPath() / staged;
            if (::linkat(AT_FDCWD, file.c_str(), AT_FDCWD, linked.c_str(), 0) != 0) {
                UniqueFd to = storage.create(staged, byteCount);
                copyContents(from.get(), to.get(), byteCount, file);
            }
        } catch (const transfer::SharedFileStorageError& e) {
            throw LocalFailure{"cannot place the file in the shared transfer folder: " +
                               e.cause().message()};
        }
    } catch (const LocalFailure& failure) {
        storage.remove(staged);
        return localFailure(report, failure.message);
    }
    // The service removes the staged file at the end request; removing it here too covers a
    // push the service refused before it took the file on.
    Release release([&] {
        storage.remove(staged);
        endTransfer<transfer::FileIOEndWriteRequest>(session, FileIOOperation::endWrite,
                                                     transferID.text());
    });
    const Uuid sessionID = Uuid::random();
    // The push replaces whatever the phone holds: it expects the item's current version
    // (none for a new item).
    Bytes current;
    if (const auto looked = lookUp(session, identifier); looked.item) {
        if (looked.item->isDirectory) {
            return serviceFailure(report,
                                  static_cast<std::int64_t>(FileIOBridgeError::deviceRejected),
                                  "\"" + identifier + "\": that is a folder");
        }
        current = looked.item->contentVersion.value_or(Bytes{});
    }
    auto body = json::encode(transfer::FileIOBeginWriteRequest{
        identifier, sessionID, current, transferID.text(), staged, byteCount});
    if (!body) {
        return localFailure(report, "the name \"" + identifier + "\" is not valid UTF-8");
    }
    const auto reply =
        requestWithProgress(session, report, sessionID, FileIOOperation::beginWrite, *body);
    if (reply.status != 0) {
        return beginFailed(report, reply.status,
                           [&] { return whyRefusedToStore(session, identifier); });
    }
    report.finished(byteCount, std::chrono::duration<double>(Clock::now() - start).count());
    return kExitOk;
}

}  // namespace skiff::ctl
