#pragma once
// Whether the volume is in use, as a person asking skiffctl wants to know it: the mount
// table says whether it is mounted, and a stat of the mount point says whether the file
// system still answers. A volume whose skiff-fs died stays in the table while every call
// under it fails with ENOTCONN; a hung one never answers. Both are broken, and a forced
// unmount clears them.
//
// Threads: volumeStateAt() stats on a thread of its own and blocks its caller up to the
// given time. It is for short-lived tools (skiffctl): never call it on an io_context
// thread of skiffd, whose bus loop the volume may be waiting for. A stat that never
// returns leaves its thread behind until the process exits.

#include <chrono>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>

namespace skiff::mount {

enum class VolumeState { notMounted, mounted, broken };

// "notMounted", "mounted", "broken": the state's text in JSON (json::enumText).
std::span<const std::string_view> textNames(VolumeState);

// $XDG_DATA_HOME/Harbor/mnt, or ~/.local/share/Harbor/mnt; nothing when the environment
// names no home directory. Looked up from the environment at each call.
std::optional<std::filesystem::path> defaultMountPoint();

// The state of the volume at mountPoint. The table is read as text (see mount_table.hpp);
// an unreadable table counts as not mounted. Only a mount of the volume's type is stat'ed,
// and one that does not answer within answerWithin is broken.
VolumeState volumeStateAt(const std::filesystem::path& mountTable,
                          const std::filesystem::path& mountPoint,
                          std::chrono::milliseconds answerWithin);

}  // namespace skiff::mount
