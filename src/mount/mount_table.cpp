#include "mount/mount_table.hpp"

#include <vector>

namespace skiff::mount {
namespace {

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

std::string unescaped(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctalDigit(field[i + 1]) &&
            isOctalDigit(field[i + 2]) && isOctalDigit(field[i + 3])) {
            out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                            (field[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    while (start < line.size()) {
        const auto end = line.find(' ', start);
        const auto stop = end == std::string_view::npos ? line.size() : end;
        if (stop > start) {
            out.push_back(line.substr(start, stop - start));
        }
        start = stop + 1;
    }
    return out;
}

}  // namespace

std::optional<std::string> mountedTypeAt(std::string_view table, std::string_view mountPoint) {
    std::optional<std::string> found;
    std::size_t start = 0;
    while (start < table.size()) {
        const auto end = table.find('\n', start);
        const auto stop = end == std::string_view::npos ? table.size() : end;
        const auto line = fields(table.substr(start, stop - start));
        start = stop + 1;
        // id parent major:minor root mount-point options [optional fields...] - type source
        if (line.size() < 8 || unescaped(line[4]) != mountPoint) {
            continue;
        }
        for (std::size_t i = 6; i + 1 < line.size(); ++i) {
            if (line[i] == "-") {
                found = std::string(line[i + 1]);
                break;
            }
        }
    }
    return found;
}

bool isSkiffType(std::string_view type) {
    return type == "skiff" || type == "fuse.skiff";
}

}  // namespace skiff::mount
