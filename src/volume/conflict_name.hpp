#pragma once
// The name under which the user's version of a file is kept when the phone's copy changed
// underneath it: "NAME (conflict YYYY-MM-DD HHMMSS).EXT" in local time, beside the phone's.
//
// Pure function, any thread.

#include <chrono>
#include <string>
#include <string_view>

namespace skiff::volume {

// A name without an extension, or a dot-file such as ".bashrc", gets the suffix at its end.
// The stem is cut so that the result stays within 255 bytes, never inside a UTF-8 sequence.
std::string conflictName(std::string_view name, std::chrono::system_clock::time_point when);

}  // namespace skiff::volume
