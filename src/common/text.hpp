#pragma once
// Small text helpers shared by the parsers and the tools' messages.

#include <string_view>

namespace skiff {

// text without the ASCII white space and line ends at either end.
inline std::string_view trimmedWhitespace(std::string_view text) {
    constexpr std::string_view kSpace = " \t\n\r\v\f";
    const auto first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(kSpace);
    return text.substr(first, last - first + 1);
}

}  // namespace skiff
