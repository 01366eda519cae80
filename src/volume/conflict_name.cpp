#include "volume/conflict_name.hpp"

#include <ctime>

namespace skiff::volume {

namespace {

constexpr std::size_t kMaxNameBytes = 255;

bool isContinuationByte(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// text cut to at most bytes, backing off to the start of a UTF-8 sequence.
std::string_view cutAt(std::string_view text, std::size_t bytes) {
    if (text.size() <= bytes) {
        return text;
    }
    while (bytes > 0 && isContinuationByte(text[bytes])) {
        --bytes;
    }
    return text.substr(0, bytes);
}

}  // namespace

std::string conflictName(std::string_view name, std::chrono::system_clock::time_point when) {
    const auto seconds = std::chrono::system_clock::to_time_t(when);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, " (conflict %Y-%m-%d %H%M%S)", &local);

    // A dot at the very start names a hidden file, not an extension.
    const auto dot = name.rfind('.');
    const bool hasExtension = dot != std::string_view::npos && dot > 0;
    auto stem = hasExtension ? name.substr(0, dot) : name;
    auto extension = hasExtension ? name.substr(dot) : std::string_view{};
    const std::string_view suffix(stamp);
    // An extension so long that nothing else fits is treated as part of the stem.
    if (suffix.size() + extension.size() >= kMaxNameBytes) {
        stem = name;
        extension = {};
    }
    const auto room = kMaxNameBytes - suffix.size() - extension.size();
    std::string out(cutAt(stem, room));
    out += suffix;
    out += extension;
    return out;
}

}  // namespace skiff::volume
