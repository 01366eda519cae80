#include "sim/device_table.hpp"

#include <algorithm>

namespace skiff::sim {

std::optional<SimDevice> DeviceTable::attach(std::string udid) {
    if (findByUdid(udid) != nullptr) {
        return std::nullopt;
    }
    SimDevice device;
    device.handle = nextHandle_++;
    device.udid = std::move(udid);
    devices_.push_back(device);
    return device;
}

std::optional<SimDevice> DeviceTable::detach(const std::string& udid) {
    auto it = std::find_if(devices_.begin(), devices_.end(),
                           [&](const SimDevice& d) { return d.udid == udid; });
    if (it == devices_.end()) {
        return std::nullopt;
    }
    SimDevice removed = *it;
    devices_.erase(it);
    return removed;
}

std::optional<Replug> DeviceTable::replug(const std::string& udid) {
    auto removed = detach(udid);
    if (!removed) {
        return std::nullopt;
    }
    auto added = attach(udid);
    return Replug{*removed, *added};
}

const SimDevice* DeviceTable::findByHandle(uint32_t handle) const {
    for (const auto& d : devices_) {
        if (d.handle == handle) {
            return &d;
        }
    }
    return nullptr;
}

const SimDevice* DeviceTable::findByUdid(const std::string& udid) const {
    for (const auto& d : devices_) {
        if (d.udid == udid) {
            return &d;
        }
    }
    return nullptr;
}

}  // namespace skiff::sim
