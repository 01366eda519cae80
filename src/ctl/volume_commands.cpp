#include "ctl/volume_commands.hpp"

#include "ctl/output.hpp"

#include <iostream>
#include <string>
#include <utility>

namespace skiff::ctl {

namespace {

int report(const Output& out, const std::pair<bool, std::string>& reply, const char* done) {
    const auto& [ok, message] = reply;
    if (out.json) {
        printJson({{"ok", ok}, {"message", message}});
    } else if (ok) {
        std::cout << done << std::endl;
    } else {
        std::cerr << "skiffctl: " << message << std::endl;
    }
    return ok ? kExitOk : kExitFailed;
}

}  // namespace

int runMount(CtlSession& session, const Output& out) {
    return report(out, session.client().mountVolume(), "mounted");
}

int runUnmount(CtlSession& session, const Output& out, bool force) {
    return report(out, session.client().unmountVolume(force), "unmounted");
}

}  // namespace skiff::ctl
