#include "mount/phone_volume_requests.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <system_error>

#include "common/json.hpp"
#include "common/log.hpp"
#include "common/notification_payloads.hpp"
#include "common/text.hpp"

namespace skiff::mount {
namespace {

using service::ItemMutationNotifyPayload;
using service::MountControlNotifyPayload;

constexpr auto kUnmountTimeout = std::chrono::seconds(3);

// A path relative to the volume's root that stays inside it.
bool isPokeableID(std::string_view id) {
    if (id.empty() || id.front() == '/' || id.find('\0') != std::string_view::npos) {
        return false;
    }
    std::size_t start = 0;
    while (start <= id.size()) {
        const auto end = id.find('/', start);
        const auto stop = end == std::string_view::npos ? id.size() : end;
        if (id.substr(start, stop - start) == "..") {
            return false;
        }
        start = stop + 1;
    }
    return true;
}

// 0, or the error that kept the time from being set. The item itself is touched, not
// what a link there points to.
int touchModificationTime(const std::string& path) {
    const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    return ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

}  // namespace

PhoneVolumeRequests::PhoneVolumeRequests(std::shared_ptr<MountService> volume,
                                         std::weak_ptr<VolumeListener> listener)
    : volume_(std::move(volume)), listener_(std::move(listener)) {}

asio::awaitable<void> PhoneVolumeRequests::mountVolume() {
    co_await volume_->mount();
    if (const auto listener = listener_.lock()) {
        listener->volumeDidMount();
    }
}

asio::awaitable<void> PhoneVolumeRequests::unmountVolume(bool force) {
    if (force) {
        co_await volume_->unmount(true);
    } else {
        co_await volume_->unmountGracefully(kUnmountTimeout);
    }
    if (const auto listener = listener_.lock()) {
        listener->volumeDidUnmount();
    }
}

asio::awaitable<void> PhoneVolumeRequests::handleMountControl(Bytes body) {
    const auto& log = log::xpc();
    const auto request = json::decode<MountControlNotifyPayload>(body);
    if (!request) {
        log.error("mountControl decode failed");
        co_return;
    }
    const bool mounting = request->action == MountControlNotifyPayload::Action::mount;
    std::optional<std::string> failure;
    try {
        if (mounting) {
            co_await mountVolume();
        } else {
            co_await unmountVolume(false);
        }
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (failure) {
        log.error("mountControl %{public}s failed: %{public}s",
                  std::string(json::enumText(request->action)).c_str(), failure->c_str());
        co_return;
    }
    log.info(mounting ? "mountControl mount ok" : "mountControl unmount ok");
}

asio::awaitable<void> PhoneVolumeRequests::handleItemPoke(Bytes body) {
    const auto& log = log::xpc();
    const auto notice = json::decode<ItemMutationNotifyPayload>(body);
    if (!notice) {
        log.error("itemMutation poke decode failed");
        co_return;
    }
    const std::string relayID(trimmedWhitespace(notice->relayID));
    if (!isPokeableID(relayID)) {
        log.info("itemMutation poke ignored: invalid relayID");
        co_return;
    }
    const std::string kind(json::enumText(notice->kind));
    const auto mountPoint = volume_->mountPoint();
    if (!mountPoint) {
        log.error("itemMutation poke kind=%{public}s path=%{public}s: %{public}s", kind.c_str(),
                  relayID.c_str(), "no home directory is set");
        co_return;
    }
    const std::string path = (*mountPoint / relayID).string();
    log.info("itemMutation poke path=%{public}s", path.c_str());
    auto touch = [&path] { return touchModificationTime(path); };
    const int error = co_await pokes_.run(std::move(touch));
    if (error != 0) {
        log.error("itemMutation poke kind=%{public}s path=%{public}s: %{public}s", kind.c_str(),
                  path.c_str(), std::error_code(error, std::generic_category()).message().c_str());
        co_return;
    }
    log.info("itemMutation poke ok kind=%{public}s path=%{public}s", kind.c_str(), path.c_str());
}

}  // namespace skiff::mount
