#pragma once
// The body of GetStatus: one JSON object, so that a field is added here and filled in
// Harbor_XPC::getStatus without touching the bus signature. Decoding ignores keys it does
// not know; a field added later should be optional so that older services still decode.

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/json.hpp"

namespace skiff::service {

struct ServiceStatus {
    std::int64_t version = 0;
    std::vector<std::string> attachedDevices;  // UDIDs, in the order the phones came
    bool fileProviderRegistered = false;
    // A volume's file provider was replaced by a later client and is cut off meanwhile.
    std::optional<bool> fileProviderReplaced;

    friend bool operator==(const ServiceStatus&, const ServiceStatus&) = default;
};
constexpr auto jsonFields(const ServiceStatus*) {
    using T = ServiceStatus;
    return std::tuple{json::field("version", &T::version),
                      json::field("attachedDevices", &T::attachedDevices),
                      json::field("fileProviderRegistered", &T::fileProviderRegistered),
                      json::field("fileProviderReplaced", &T::fileProviderReplaced)};
}

}  // namespace skiff::service
