#include "common/file_io.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

namespace skiff {

bool writeAllAt(int fd, std::span<const std::uint8_t> bytes, std::uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(n));
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

std::optional<std::size_t> readUpTo(int fd, std::span<std::uint8_t> out, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t n =
            ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return std::nullopt;
        }
        if (n == 0) {
            break;  // the end of the file
        }
        done += static_cast<std::size_t>(n);
    }
    return done;
}

}  // namespace skiff
