#pragma once
// JSON bodies of the notifications sent to clients (and pushed by the phone). They sit
// beside the message codes so that every layer that meets a push, the mount handlers
// included, decodes it with the same records.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

#include "common/json.hpp"
#include "common/uuid.hpp"

namespace skiff::service {

struct NotifyBridgeStateChangedPayload {
    std::int64_t source = 0;
    bool connected = false;
    bool operator==(const NotifyBridgeStateChangedPayload&) const = default;
};
constexpr auto jsonFields(const NotifyBridgeStateChangedPayload*) {
    using T = NotifyBridgeStateChangedPayload;
    return std::tuple{json::field("source", &T::source), json::field("connected", &T::connected)};
}

struct FileIOProgressPayload {
    Uuid sessionID;
    std::uint64_t completedBytes = 0;
    std::uint64_t totalBytes = 0;
    std::uint8_t percent = 0;
    bool operator==(const FileIOProgressPayload&) const = default;
};
constexpr auto jsonFields(const FileIOProgressPayload*) {
    using T = FileIOProgressPayload;
    return std::tuple{
        json::field("sessionID", &T::sessionID), json::field("completedBytes", &T::completedBytes),
        json::field("totalBytes", &T::totalBytes), json::field("percent", &T::percent)};
}

struct MountControlNotifyPayload {
    enum class Action : std::uint8_t { mount, unmount };
    Action action = Action::mount;
    bool operator==(const MountControlNotifyPayload&) const = default;
};
std::span<const std::string_view> textNames(MountControlNotifyPayload::Action);
constexpr auto jsonFields(const MountControlNotifyPayload*) {
    using T = MountControlNotifyPayload;
    return std::tuple{json::field("action", &T::action)};
}

struct ItemMutationNotifyPayload {
    enum class Kind : std::uint8_t { created, deleted };
    Kind kind = Kind::created;
    std::string relayID;
    bool operator==(const ItemMutationNotifyPayload&) const = default;
};
std::span<const std::string_view> textNames(ItemMutationNotifyPayload::Kind);
constexpr auto jsonFields(const ItemMutationNotifyPayload*) {
    using T = ItemMutationNotifyPayload;
    return std::tuple{json::field("kind", &T::kind), json::field("relayID", &T::relayID)};
}

}  // namespace skiff::service
