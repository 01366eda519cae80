#include "sim/storage_watcher.hpp"

#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "common/task.hpp"

namespace skiff::sim {
namespace {

using Kind = service::ItemMutationNotifyPayload::Kind;

constexpr std::uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                        IN_DONT_FOLLOW | IN_ONLYDIR | IN_EXCL_UNLINK;

// The transfer's commit links its copy under such a name for an instant.
bool isCommitName(const std::string& name) {
    return name.starts_with(".skiff-commit-");
}

std::string join(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

}  // namespace

std::shared_ptr<StorageWatcher> StorageWatcher::start(asio::any_io_executor executor,
                                                      std::filesystem::path root, Sink sink,
                                                      Reporter report) {
    auto watcher = std::make_shared<StorageWatcher>(std::move(executor), std::move(root),
                                                    std::move(sink), std::move(report));
    watcher->watchTree("", false);
    if (watcher->folders_.empty()) {
        throw std::system_error(errno, std::generic_category(), "cannot watch the storage");
    }
    runtime::spawnTask(watcher->inotify_.get_executor(), watcher, &StorageWatcher::readEvents);
    return watcher;
}

StorageWatcher::StorageWatcher(asio::any_io_executor executor, std::filesystem::path root,
                               Sink sink, Reporter report)
    : root_(std::move(root)),
      sink_(std::move(sink)),
      report_(std::move(report)),
      inotify_(std::move(executor)) {
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "inotify_init1");
    }
    inotify_.assign(fd);
}

void StorageWatcher::stop() {
    std::error_code ignored;
    inotify_.close(ignored);
}

asio::awaitable<void> StorageWatcher::readEvents() {
    // Large enough for many events with names up to NAME_MAX at once.
    std::array<char, 64 * 1024> buffer{};
    while (inotify_.is_open()) {
        std::error_code error;
        const std::size_t n = co_await inotify_.async_read_some(
            asio::buffer(buffer), asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            co_return;  // closed by stop()
        }
        handleBatch(std::string_view(buffer.data(), n));
    }
}

void StorageWatcher::handleBatch(std::string_view events) {
    for (std::size_t at = 0; at + sizeof(inotify_event) <= events.size();) {
        // Copied out: the buffer is not aligned for the struct.
        inotify_event event{};
        std::memcpy(&event, events.data() + at, sizeof event);
        const auto name = events.substr(at + sizeof event, event.len);
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            report_("storage watch: events were lost");
        } else {
            handle(event.wd, event.mask, std::string(name.substr(0, name.find('\0'))));
        }
        at += sizeof event + event.len;
    }
}

void StorageWatcher::handle(int wd, std::uint32_t mask, const std::string& name) {
    if ((mask & IN_IGNORED) != 0) {
        folders_.erase(wd);  // the folder went, or its watch was taken off
        return;
    }
    const auto folder = folders_.find(wd);
    if (folder == folders_.end() || name.empty() || isCommitName(name)) {
        return;
    }
    const std::string path = join(folder->second, name);
    const bool isFolder = (mask & IN_ISDIR) != 0;
    if ((mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        report(Kind::created, path);
        if (isFolder) {
            watchTree(path, true);
        }
    } else if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        if (isFolder) {
            forgetTree(path);
        }
        report(Kind::deleted, path);
    }
}

void StorageWatcher::watchTree(const std::string& path, bool reportContent) {
    const int wd =
        ::inotify_add_watch(inotify_.native_handle(), (root_ / path).c_str(), kFolderEvents);
    if (wd < 0) {
        return;  // gone already, or not a folder: its deletion is reported by its parent
    }
    folders_[wd] = path;
    std::error_code error;
    for (std::filesystem::directory_iterator it(root_ / path, error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (isCommitName(name)) {
            continue;
        }
        const std::string child = join(path, name);
        if (reportContent) {
            report(Kind::created, child);
        }
        if (it->is_directory(error) && !it->is_symlink(error)) {
            watchTree(child, reportContent);
        }
    }
}

void StorageWatcher::forgetTree(const std::string& path) {
    const std::string under = path + "/";
    for (auto it = folders_.begin(); it != folders_.end();) {
        if (it->second == path || it->second.starts_with(under)) {
            ::inotify_rm_watch(inotify_.native_handle(), it->first);
            it = folders_.erase(it);
        } else {
            ++it;
        }
    }
}

void StorageWatcher::report(Kind kind, const std::string& path) {
    report_(std::string("storage watch: ") + std::string(json::enumText(kind)) + " " + path);
    sink_({kind, path});
}

}  // namespace skiff::sim
