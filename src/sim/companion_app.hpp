#pragma once

// The companion app on the simulated phone. A connection's first bytes pick what it
// speaks: "PRTU" starts tunnel frames, answered through the handler table by a
// TunnelEngine in the server role; "PING" or "BW:" start measurement lines. Anything
// else is echoed back, so plain byte-stream checks may use the app's port as well.
// Faults, pushes and push floods are switched from the control interface
// (sim/app_command.hpp).

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "common/bridge_messages.hpp"
#include "sim/app_command.hpp"
#include "sim/app_handlers.hpp"
#include "sim/app_link.hpp"
#include "sim/control_command.hpp"
#include "sim/port_listener.hpp"
#include "sim/reporter.hpp"

namespace skiff::sim {

using skiff::service::kCompanionAppPort;

class CompanionApp {
public:
    CompanionApp(asio::any_io_executor executor, Reporter report);
    ~CompanionApp();
    CompanionApp(const CompanionApp&) = delete;
    CompanionApp& operator=(const CompanionApp&) = delete;

    PortListener listener();
    asio::any_io_executor executor() const;
    AppHandlerTable& handlers();
    // Shapes the connections made from now on (sim/app_link.hpp).
    void setLink(const LinkModel& link);
    // What the app does after a write chunk failed, the chunk switches' failures included:
    // given the chunk's request body.
    void onWriteChunkFailed(std::function<void(const Bytes&)> handler);
    ControlReply execute(const AppCommand& command);
    // Tells every framed connection that an item changed; the data line says how many.
    ControlReply pushItemMutation(const service::ItemMutationNotifyPayload& payload);

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace skiff::sim
