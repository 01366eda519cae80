#pragma once
// PhoneVolumeRequests: what the service does with the companion app's two volume pushes.
//
//   mountControl (message 3)  {"action":"mount"|"unmount"}: mounts, or unmounts
//                             gracefully within 3 s (a hung unmount is forced), and on
//                             success tells the listener so the relay probe changes loop.
//   itemMutation (message 4)  {"kind":"created"|"deleted","relayID":"a/b"}: sets the
//                             item's modification time under the mount point to now, so
//                             that the volume refreshes it.
//
// Every outcome is a log line; nothing goes back to the phone. Bodies come from the phone
// and are decoded strictly; a relayID that is blank, absolute, or holds a ".." component
// or a NUL byte is refused before any path is touched, so a poke never reaches outside
// the mount point.
//
// Threads: the push path starts each handler as a task of its own, holding the object:
//     runtime::spawnTask(executor, requests, &PhoneVolumeRequests::handleMountControl, body);
// Handlers never throw. Mount tools run on the mount service's thread; the time change
// runs on a thread of this object's own, because skiff-fs answers it by asking the
// service, and a poke stalled on an unresponsive volume must not hold up the forced
// unmount that cures it. The listener is called from those handlers' executors.

#include <asio/awaitable.hpp>
#include <memory>

#include "common/bytes.hpp"
#include "common/serial_queue.hpp"
#include "mount/mount_service.hpp"
#include "mount/volume.hpp"
#include "mount/volume_control.hpp"

namespace skiff::mount {

class PhoneVolumeRequests : public VolumeControl {
public:
    // The listener may be gone by the time a mount succeeds; it is then not told.
    PhoneVolumeRequests(std::shared_ptr<MountService> volume,
                        std::weak_ptr<VolumeListener> listener);
    PhoneVolumeRequests(const PhoneVolumeRequests&) = delete;
    PhoneVolumeRequests& operator=(const PhoneVolumeRequests&) = delete;

    asio::awaitable<void> handleMountControl(Bytes body);
    // The desktop's requests take the same path as the phone's, without the log lines.
    asio::awaitable<void> mountVolume() override;
    asio::awaitable<void> unmountVolume(bool force) override;
    asio::awaitable<void> handleItemPoke(Bytes body);

private:
    std::shared_ptr<MountService> volume_;
    std::weak_ptr<VolumeListener> listener_;
    // Declared last: destroyed first, so queued pokes still see the members above.
    runtime::SerialQueue pokes_{"item-pokes"};
};

}  // namespace skiff::mount
