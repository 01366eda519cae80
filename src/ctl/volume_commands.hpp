#pragma once
// skiffctl mount / unmount: the desktop's own mount and unmount of the volume, through
// the same steps as the phone's mount control.

#include "ctl/commands.hpp"

namespace skiff::ctl {

int runMount(CtlSession& session, const Output& out);
// Without force the unmount is graceful, and forced only when that fails or hangs.
int runUnmount(CtlSession& session, const Output& out, bool force);

}  // namespace skiff::ctl
