#include "common/notification_payloads.hpp"

#include <array>

namespace skiff::service {

namespace {
constexpr std::array<std::string_view, 2> kActionNames{"mount", "unmount"};
constexpr std::array<std::string_view, 2> kKindNames{"created", "deleted"};
}  // namespace

std::span<const std::string_view> textNames(MountControlNotifyPayload::Action) {
    return kActionNames;
}

std::span<const std::string_view> textNames(ItemMutationNotifyPayload::Kind) {
    return kKindNames;
}

}  // namespace skiff::service
