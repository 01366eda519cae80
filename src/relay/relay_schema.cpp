#include "relay/relay_schema.hpp"

namespace skiff::relay {

std::span<const std::string_view> textNames(RelayLookupSource) {
    static constexpr std::array<std::string_view, 4> kNames{
        "fsGetAttributes",
        "fsLookupByName",
        "fsSetAttributesRefresh",
        "fsSetAttributesAfterTruncate",
    };
    return kNames;
}

}  // namespace skiff::relay
