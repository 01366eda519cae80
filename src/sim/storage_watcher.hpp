#pragma once

// Watches the folder that stands for the phone's storage and reports each item created or
// deleted in it, as the companion app's itemMutation push names it: the path relative to
// the folder. Folders made later, or moved in, are watched too; a folder moved within the
// storage counts as deleted under its old name and created under its new one, with its
// content. The commit's own short-lived names (sim/app_transfer.hpp) are left out.
//
// Threads: everything runs on the executor given to start(), the sink included. stop()
// must be called there too; the watcher's read loop holds it until then.

#include <asio.hpp>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "common/notification_payloads.hpp"
#include "common/unique_fd.hpp"
#include "sim/reporter.hpp"

namespace skiff::sim {

class StorageWatcher : public std::enable_shared_from_this<StorageWatcher> {
public:
    using Sink = std::function<void(const service::ItemMutationNotifyPayload&)>;

    // Watches root and every folder under it; throws std::system_error when inotify or
    // the root's watch cannot be set up.
    static std::shared_ptr<StorageWatcher> start(asio::any_io_executor executor,
                                                 std::filesystem::path root, Sink sink,
                                                 Reporter report);
    StorageWatcher(const StorageWatcher&) = delete;
    StorageWatcher& operator=(const StorageWatcher&) = delete;

    void stop();

    // Use start().
    StorageWatcher(asio::any_io_executor executor, std::filesystem::path root, Sink sink,
                   Reporter report);

private:
    asio::awaitable<void> readEvents();
    void handleBatch(std::string_view events);
    void handle(int wd, std::uint32_t mask, const std::string& name);
    // Watches the folder at path (relative) and those under it; when reportContent, each
    // item found is reported created, for what was made before the watch was in place.
    void watchTree(const std::string& path, bool reportContent);
    void forgetTree(const std::string& path);
    void report(service::ItemMutationNotifyPayload::Kind kind, const std::string& path);

    std::filesystem::path root_;
    Sink sink_;
    Reporter report_;
    asio::posix::stream_descriptor inotify_;
    std::map<int, std::string> folders_;  // by watch descriptor: the folder's path
};

}  // namespace skiff::sim
