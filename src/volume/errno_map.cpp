#include "volume/errno_map.hpp"

#include "relay/relay_schema.hpp"
#include "transfer/file_io_records.hpp"

namespace skiff::volume {

using relay::RelayDeviceStatus;

int errnoOfDeviceStatus(std::int64_t status, Operation operation) {
    const auto known = json::enumFromRaw<RelayDeviceStatus>(status);
    if (!known) {
        return EIO;
    }
    switch (*known) {
        case RelayDeviceStatus::ok:
            return 0;
        case RelayDeviceStatus::notFound:
            return ENOENT;
        case RelayDeviceStatus::permissionDenied:
            return EACCES;
        case RelayDeviceStatus::alreadyExists:
            return operation == Operation::remove ? ENOTEMPTY : EEXIST;
        case RelayDeviceStatus::invalidArgument:
            return EINVAL;
        case RelayDeviceStatus::ioError:
            return EIO;
        case RelayDeviceStatus::versionConflict:
            return kConflictErrno;
        case RelayDeviceStatus::notDirectory:
            return ENOTDIR;
        case RelayDeviceStatus::isDirectory:
            return EISDIR;
        case RelayDeviceStatus::noSpace:
            return ENOSPC;
    }
    return EIO;
}

int errnoOfRelay(std::int64_t status, std::int64_t code, Operation operation) {
    if (status == static_cast<std::int64_t>(relay::UsbMuxRelayError::ok)) {
        return 0;
    }
    if (status == static_cast<std::int64_t>(relay::UsbMuxRelayError::deviceStatus)) {
        // A device status of 0 with the deviceStatus wrapper is not a success.
        const int error = errnoOfDeviceStatus(code, operation);
        return error == 0 ? EIO : error;
    }
    return EIO;
}

int errnoOfFileIO(std::int64_t status, const Bytes& response) {
    if (status == static_cast<std::int64_t>(transfer::FileIOBridgeError::ok)) {
        return 0;
    }
    if (status == static_cast<std::int64_t>(transfer::FileIOBridgeError::deviceRejected)) {
        if (const auto rejection = json::decode<transfer::FileIODeviceRejection>(response)) {
            const int error = errnoOfDeviceStatus(rejection->status);
            return error == 0 ? EIO : error;
        }
    }
    return EIO;
}

}  // namespace skiff::volume
