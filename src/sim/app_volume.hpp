#pragma once

// The companion app's requests of the mounted volume (records in relay/volume_records.hpp),
// over the folder that stands for the phone's storage:
//   8   set attributes  the file's modification and access times and permission bits,
//                       each when present; answers the item's RelayItemSummary
//   10  range read      the bytes of the range while the file still has the version the
//                       request names (versionConflict otherwise), fewer only where the
//                       file ends
//   12  storage space   the storage folder's file system: total and free-to-use bytes
// Identifiers are checked and resolved as for the item requests (sim/app_items.hpp);
// links are never followed. Refusals answer a RelayDeviceStatus code with an empty body.
//
// The calls block on the file system; the app's single-threaded executor makes them one
// at a time.

#include <filesystem>

#include "common/bytes.hpp"
#include "sim/app_handlers.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

tunnel::TunnelMessage setAttributes(const std::filesystem::path& storageRoot, const Bytes& body);
tunnel::TunnelMessage readVersionRange(const std::filesystem::path& storageRoot, const Bytes& body);
tunnel::TunnelMessage storageSpace(const std::filesystem::path& storageRoot, const Bytes& body);

void installVolumeHandlers(AppHandlerTable& table, std::filesystem::path storageRoot);

}  // namespace skiff::sim
