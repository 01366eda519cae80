// A listing page comes from the phone: any bytes end in entries taken or EIO, never a crash
// or a hang, and every entry taken is a name the volume can hold, filed in the folder asked.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "volume/listing_pages.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    skiff::volume::ListingPages pages("d",
                                      std::chrono::steady_clock::now() + std::chrono::hours(1));
    std::optional<std::string> cursor;
    if (pages.add({data, size}, cursor) != 0) {
        return 0;
    }
    for (const auto& item : pages.take()) {
        if (item.filename.find_first_of(std::string("/\0", 2)) != std::string::npos ||
            item.identifier != "d/" + item.filename) {
            std::abort();
        }
    }
    return 0;
}
