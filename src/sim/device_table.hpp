#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace skiff::sim {

// One simulated iPhone as usbmuxd sees it. The handle is usbmuxd's DeviceID: it
// changes every time the device is plugged in, the UDID never does.
struct SimDevice {
    uint32_t handle = 0;
    std::string udid;
    uint16_t productId = 0x12a8;  // an iPhone's USB product id
};

struct Replug {
    SimDevice removed;
    SimDevice added;
};

// The devices currently attached, in the order usbmuxd would list them (plug-in order).
class DeviceTable {
public:
    // Nullopt when a device with this UDID is already attached.
    std::optional<SimDevice> attach(std::string udid);
    std::optional<SimDevice> detach(const std::string& udid);
    // Unplug and plug in again: same UDID, a fresh handle, moved to the end of the list.
    std::optional<Replug> replug(const std::string& udid);

    const SimDevice* findByHandle(uint32_t handle) const;
    const SimDevice* findByUdid(const std::string& udid) const;
    const std::vector<SimDevice>& devices() const { return devices_; }

private:
    std::vector<SimDevice> devices_;
    uint32_t nextHandle_ = 1;
};

}  // namespace skiff::sim
