#pragma once
// Names, paths and interfaces that skiffd and its clients agree on.

namespace skiff::service::dbus {

inline constexpr const char* kServiceName = "Mox.Harbor.SkiffService";
inline constexpr const char* kHostPath = "/Mox/Harbor/SkiffService";
inline constexpr const char* kHostInterface = "Mox.Harbor.BridgeHost";
inline constexpr const char* kClientPath = "/Mox/Harbor/BridgeClient";
inline constexpr const char* kClientInterface = "Mox.Harbor.BridgeClient";

inline constexpr const char* kErrorNotSupported = "org.freedesktop.DBus.Error.NotSupported";
inline constexpr const char* kErrorAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr const char* kErrorFailed = "org.freedesktop.DBus.Error.Failed";
inline constexpr const char* kErrorNoReply = "org.freedesktop.DBus.Error.NoReply";
inline constexpr const char* kErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

// Signals of the host object, for observers that need no role.
inline constexpr const char* kSignalNotification = "Notification";
inline constexpr const char* kSignalDeviceChanged = "DeviceChanged";
inline constexpr const char* kSignalRoleChanged = "RoleChanged";
inline constexpr const char* kSignalVolumeNotice = "VolumeNotice";

}  // namespace skiff::service::dbus
