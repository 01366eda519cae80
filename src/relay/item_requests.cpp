#include "relay/item_requests.hpp"

namespace skiff::relay {

bool isValidItemIdentifier(std::string_view identifier) {
    if (identifier.empty()) {
        return true;
    }
    // A NUL would cut the path short at the system calls.
    if (identifier.find('\0') != std::string_view::npos) {
        return false;
    }
    std::size_t start = 0;
    while (true) {
        const auto end = std::min(identifier.find('/', start), identifier.size());
        const auto part = identifier.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        if (end == identifier.size()) {
            return true;
        }
        start = end + 1;
    }
}

}  // namespace skiff::relay
