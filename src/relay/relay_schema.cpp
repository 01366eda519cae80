#include "relay/relay_schema.hpp"

namespace skiff::relay {

using json::get;
using json::put;

std::span<const std::string_view> textNames(RelayLookupSource) {
    static constexpr std::array<std::string_view, 4> kNames{
        "fsGetAttributes",
        "fsLookupByName",
        "fsSetAttributesRefresh",
        "fsSetAttributesAfterTruncate",
    };
    return kNames;
}

void encodeFields(Json& j, const RelayLookupRequest& v) {
    put(j, "identifier", v.identifier);
    put(j, "source", v.source);
}

bool decodeFields(const Json& j, RelayLookupRequest& v) {
    return get(j, "identifier", v.identifier) && get(j, "source", v.source);
}

void encodeFields(Json& j, const RelayTimespec& v) {
    put(j, "tvSec", v.tvSec);
    put(j, "tvNsec", v.tvNsec);
}

bool decodeFields(const Json& j, RelayTimespec& v) {
    return get(j, "tvSec", v.tvSec) && get(j, "tvNsec", v.tvNsec);
}

void encodeFields(Json& j, const RelayItemSummary& v) {
    put(j, "identifier", v.identifier);
    put(j, "filename", v.filename);
    put(j, "isDirectory", v.isDirectory);
    put(j, "inode", v.inode);
    put(j, "size", v.size);
    put(j, "allocSize", v.allocSize);
    put(j, "mode", v.mode);
    put(j, "uid", v.uid);
    put(j, "gid", v.gid);
    put(j, "flags", v.flags);
    put(j, "linkCount", v.linkCount);
    put(j, "accessTime", v.accessTime);
    put(j, "modifyTime", v.modifyTime);
    put(j, "changeTime", v.changeTime);
    put(j, "birthTime", v.birthTime);
    put(j, "contentVersion", v.contentVersion);
    put(j, "metadataVersion", v.metadataVersion);
}

bool decodeFields(const Json& j, RelayItemSummary& v) {
    return get(j, "identifier", v.identifier) && get(j, "filename", v.filename) &&
           get(j, "isDirectory", v.isDirectory) && get(j, "inode", v.inode) &&
           get(j, "size", v.size) && get(j, "allocSize", v.allocSize) && get(j, "mode", v.mode) &&
           get(j, "uid", v.uid) && get(j, "gid", v.gid) && get(j, "flags", v.flags) &&
           get(j, "linkCount", v.linkCount) && get(j, "accessTime", v.accessTime) &&
           get(j, "modifyTime", v.modifyTime) && get(j, "changeTime", v.changeTime) &&
           get(j, "birthTime", v.birthTime) && get(j, "contentVersion", v.contentVersion) &&
           get(j, "metadataVersion", v.metadataVersion);
}

}  // namespace skiff::relay
