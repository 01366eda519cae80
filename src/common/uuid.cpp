#include "common/uuid.hpp"

#include <uuid/uuid.h>

#include <algorithm>
#include <cstring>

namespace skiff {

Uuid Uuid::random() {
    Bytes bytes;
    uuid_generate_random(bytes.data());
    return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    constexpr std::size_t kTextLength = 36;
    if (text.size() != kTextLength) {
        return std::nullopt;
    }
    // libuuid wants a terminated string; the length check above keeps an
    // embedded NUL from shortening what it sees.
    char buffer[kTextLength + 1];
    std::memcpy(buffer, text.data(), kTextLength);
    buffer[kTextLength] = '\0';
    if (std::find(buffer, buffer + kTextLength, '\0') != buffer + kTextLength) {
        return std::nullopt;
    }
    Bytes bytes;
    if (uuid_parse(buffer, bytes.data()) != 0) {
        return std::nullopt;
    }
    return Uuid(bytes);
}

std::string Uuid::text() const {
    char buffer[37];
    uuid_unparse_upper(bytes_.data(), buffer);
    return std::string(buffer, 36);
}

bool Uuid::isNil() const {
    return std::all_of(bytes_.begin(), bytes_.end(), [](std::uint8_t b) { return b == 0; });
}

}  // namespace skiff

std::size_t std::hash<skiff::Uuid>::operator()(const skiff::Uuid& uuid) const noexcept {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    std::memcpy(&high, uuid.bytes().data(), 8);
    std::memcpy(&low, uuid.bytes().data() + 8, 8);
    return std::hash<std::uint64_t>{}(high ^ (low * 0x9E3779B97F4A7C15ULL));
}
