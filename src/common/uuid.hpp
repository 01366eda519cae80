#pragma once
// A 128-bit UUID. Text form is the canonical 8-4-4-4-12 hex form, written in
// upper case and read in either case.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace skiff {

class Uuid {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    Uuid() = default;  // the nil UUID
    explicit Uuid(const Bytes& bytes) : bytes_(bytes) {}

    static Uuid random();
    static std::optional<Uuid> parse(std::string_view text);

    std::string text() const;
    const Bytes& bytes() const { return bytes_; }
    bool isNil() const;

    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    Bytes bytes_{};
};

}  // namespace skiff

template <>
struct std::hash<skiff::Uuid> {
    std::size_t operator()(const skiff::Uuid& uuid) const noexcept;
};
