#pragma once
// Reading the kernel's mount table (/proc/self/mountinfo) for the file system mounted at
// a path. Only the table's text is read, never the path itself: a stat under a mounted
// volume waits for its file system, which may be waiting for this service.

#include <optional>
#include <string>
#include <string_view>

namespace skiff::mount {

// The type ("ext4", "fuse.skiff", ...) of the file system that a mount at mountPoint
// shows, given the table's text: the last entry for exactly that path, since a later
// mount hides the ones below it. Nothing when no entry names the path. Lines that do not
// parse are skipped. Paths in the table are compared after undoing its octal escapes
// (\040 for a space, \011, \012, \134).
std::optional<std::string> mountedTypeAt(std::string_view table, std::string_view mountPoint);

// Whether that type is the volume's: "skiff", or "fuse.skiff" as FUSE reports it.
bool isSkiffType(std::string_view type);

}  // namespace skiff::mount
