#pragma once
// skiffctl devices and status: what the service knows, asked without registering a role
// and without starting a service that is not running.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "ctl/commands.hpp"
#include "ctl/ctl_session.hpp"
#include "mount/volume_state.hpp"
#include "service/service_status.hpp"

namespace skiff::ctl {

// The volume as skiffctl sees it from this machine's mount table; skiffd is not asked, since
// looking at the mount point may wait for the volume, which may be waiting for skiffd.
struct VolumeStatus {
    mount::VolumeState state = mount::VolumeState::notMounted;
    std::string mountPoint;         // empty when the environment names no home directory
    std::size_t pendingWrites = 0;  // files whose bytes the phone does not have yet
};
VolumeStatus localVolumeStatus();

// The code to word a failed relay with: kNoPhone when it failed for want of a phone.
std::int64_t failureCode(CtlSession& session, const service::dbus::HarborClient::RelayReply& reply);

// Says on standard error that registering as the file provider cuts off the one there.
void warnBeforeTakingFileProvider(CtlSession& session);

// The status as "name: value" lines, in the order printed; a new field adds one entry.
std::vector<std::pair<std::string, std::string>> statusLines(const service::ServiceStatus& status,
                                                             const VolumeStatus& volume);

int runDevices(CtlSession& session, const Output& out);
int runStatus(CtlSession& session, const Output& out);

}  // namespace skiff::ctl
