#pragma once
// How the phone's and the service's failures become the errno a file-system call returns.
//
// The companion app answers with a RelayDeviceStatus; the relay wraps it as status 9
// (deviceStatus) with the app's code as detail. Every other relay status means the phone,
// the tunnel or the service could not be reached, which a program sees as EIO at once.
// A write refused because the phone's content changed since open gets kConflictErrno:
// EBUSY says "someone else holds this", is never retried by the kernel (unlike ESTALE),
// and tells the user apart from a plain I/O failure.
//
// Pure functions, any thread.

#include <cerrno>
#include <cstdint>

#include "common/bytes.hpp"

namespace skiff::volume {

inline constexpr int kConflictErrno = EBUSY;

// Removing a non-empty directory is answered alreadyExists by the app; rmdir wants
// ENOTEMPTY for it.
enum class Operation { other, remove };

// The errno of a RelayDeviceStatus raw value (0 for ok). Unknown codes are EIO.
int errnoOfDeviceStatus(std::int64_t status, Operation operation = Operation::other);

// The errno of a relay reply's (status, code): 0 for success.
int errnoOfRelay(std::int64_t status, std::int64_t code, Operation operation = Operation::other);

// The errno of a RequestFileIO reply: a device rejection carries the app's status in its
// body (FileIODeviceRejection); everything else failed on the way and is EIO.
int errnoOfFileIO(std::int64_t status, const Bytes& response);

}  // namespace skiff::volume
