#pragma once
// Client roles and message codes shared by the registry, the notifications and the
// phone's pushes. Both travel as plain integers.

#include <cstddef>
#include <cstdint>
#include <optional>

namespace skiff::service {

// The companion app listens here on the phone: relays, the probe, transfers and the
// unmount notice all go to this port.
inline constexpr std::uint16_t kCompanionAppPort = 33325;

// The largest body one relay request or answer may carry, and so the payload limit of one
// tunnel frame: 5 MiB.
inline constexpr std::size_t kMaxRelayBodyBytes = 5'242'880;

enum class HarborBridgeClientRole : std::int64_t {
    fileProvider = 0,
    desktopApp = 1,
    usbMux = 2,  // the last case
};

inline std::optional<HarborBridgeClientRole> clientRoleFromRaw(std::int64_t raw) {
    if (raw < 0 || raw > static_cast<std::int64_t>(HarborBridgeClientRole::usbMux)) {
        return std::nullopt;
    }
    return static_cast<HarborBridgeClientRole>(raw);
}

// 1 is deliberately no message: the numbering has a gap there that clients and the
// companion app rely on.
enum class BridgeNotifyMessage : std::int64_t {
    bridgeStateChanged = 0,
    fileIOProgress = 2,
    mountControl = 3,
    itemMutation = 4,
};

inline std::optional<BridgeNotifyMessage> notifyMessageFromRaw(std::int64_t raw) {
    switch (raw) {
        case 0:
        case 2:
        case 3:
        case 4:
            return static_cast<BridgeNotifyMessage>(raw);
        default:
            return std::nullopt;
    }
}

}  // namespace skiff::service
