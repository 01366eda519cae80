#pragma once

// The companion app's requests on the items of the folder that stands for the phone's
// storage, besides the look-up and the transfers (records in relay/item_requests.hpp):
//   3  list a directory   a page of at most kListPageLimit summaries, by name in byte
//                         order; the cursor names the last item of the page before, so
//                         items added or removed between pages neither repeat nor hide
//                         the others
//   4  remove            a file, a link or an empty directory
//   5  make a directory
//   7  rename            replaces a file (or an empty directory, by a directory) at the
//                        target
// Identifiers must be spelled as relay::isValidItemIdentifier says (invalidArgument
// otherwise) and are resolved as in sim/app_storage.hpp, never through a link. Refusals
// answer a RelayDeviceStatus code with an empty body: notFound for a missing item or
// folder on the way, alreadyExists for an item in the way or a directory that is not
// empty, notDirectory and isDirectory for an item of the wrong kind, invalidArgument for
// the root where an item is needed and a directory moved into itself.
//
// The calls block on the file system; the app's single-threaded executor makes them one
// at a time.

#include <filesystem>

#include "common/bytes.hpp"
#include "sim/app_handlers.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

tunnel::TunnelMessage listDirectory(const std::filesystem::path& storageRoot, const Bytes& body);
tunnel::TunnelMessage removeItem(const std::filesystem::path& storageRoot, const Bytes& body);
tunnel::TunnelMessage makeDirectory(const std::filesystem::path& storageRoot, const Bytes& body);
tunnel::TunnelMessage renameItem(const std::filesystem::path& storageRoot, const Bytes& body);

void installItemHandlers(AppHandlerTable& table, std::filesystem::path storageRoot);

}  // namespace skiff::sim
