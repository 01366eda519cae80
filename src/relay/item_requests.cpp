#include "relay/item_requests.hpp"

namespace skiff::relay {

bool isItemName(std::string_view name) {
    // A NUL would cut the path short at the system calls.
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

bool isValidItemIdentifier(std::string_view identifier) {
    if (identifier.empty()) {
        return true;
    }
    std::size_t start = 0;
    while (true) {
        const auto end = std::min(identifier.find('/', start), identifier.size());
        if (!isItemName(identifier.substr(start, end - start))) {
            return false;
        }
        if (end == identifier.size()) {
            return true;
        }
        start = end + 1;
    }
}

}  // namespace skiff::relay
