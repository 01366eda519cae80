// Any user may mount a FUSE file system at a path of their choosing, so the table's text
// is read as untrusted: the first line names the mount point, the rest is the table.
// Whatever is found is one field of it, never spanning a blank or a line end.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mount/mount_table.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto split = input.find('\n');
    if (split == std::string_view::npos) {
        return 0;
    }
    const auto type = skiff::mount::mountedTypeAt(input.substr(split + 1), input.substr(0, split));
    if (type && (type->empty() || type->find_first_of(" \n") != std::string::npos)) {
        std::abort();
    }
    return 0;
}
