#include "common/json.hpp"

namespace skiff::json {

bool fromJson(const Json& j, bool& out) {
    if (!j.is_boolean()) {
        return false;
    }
    out = j.get<bool>();
    return true;
}

bool fromJson(const Json& j, std::string& out) {
    const auto* text = j.get_ptr<const std::string*>();
    if (text == nullptr) {
        return false;
    }
    out = *text;
    return true;
}

bool fromJson(const Json& j, Bytes& out) {
    const auto* text = j.get_ptr<const std::string*>();
    if (text == nullptr) {
        return false;
    }
    auto bytes = base64::decode(*text);
    if (!bytes) {
        return false;
    }
    out = std::move(*bytes);
    return true;
}

bool fromJson(const Json& j, Uuid& out) {
    const auto* text = j.get_ptr<const std::string*>();
    if (text == nullptr) {
        return false;
    }
    const auto uuid = Uuid::parse(*text);
    if (!uuid) {
        return false;
    }
    out = *uuid;
    return true;
}

bool fromJson(const Json& j, double& out) {
    if (!j.is_number()) {
        return false;
    }
    out = j.get<double>();
    return true;
}

std::optional<Json> parse(std::span<const std::uint8_t> body) {
    // No exceptions: a malformed document comes back as a discarded value.
    Json j = Json::parse(body.begin(), body.end(), nullptr, /*allow_exceptions=*/false);
    if (j.is_discarded()) {
        return std::nullopt;
    }
    return j;
}

std::optional<Bytes> serialize(const Json& j) {
    try {
        const std::string text = j.dump();
        return Bytes(text.begin(), text.end());
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

}  // namespace skiff::json
