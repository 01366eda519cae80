#include "sim/sim_phone.hpp"

#include "sim/app_items.hpp"
#include "sim/app_lookup.hpp"
#include "sim/app_transfer.hpp"
#include "sim/app_volume.hpp"

namespace skiff::sim {
SimPhone::SimPhone(asio::io_context& io, SimPhoneOptions options, Reporter report)
    : report_(std::move(report)),
      app_(io.get_executor(), report_),
      mux_(io, muxSocketPath(options.dir), devices_, listeners_, report_),
      control_(io, controlSocketPath(options.dir),
               [this](const ControlCommand& command) { return execute(command); }) {
    for (auto& udid : options.devices) {
        devices_.attach(std::move(udid));
    }
    app_.setLink(options.link);
    if (options.appPort) {
        listeners_.listen(*options.appPort, app_.listener());
    }
    if (!options.storage.empty()) {
        installLookupHandler(app_.handlers(), options.storage);
        installTransferHandlers(app_, options.storage);
        installItemHandlers(app_.handlers(), options.storage);
        installVolumeHandlers(app_.handlers(), options.storage);
        if (options.watchStorage) {
            watchedStorage_ = options.storage;
        }
    }
    if (options.echoPort) {
        listeners_.listen(*options.echoPort, makeEchoListener());
    }
}

SimPhone::~SimPhone() {
    if (watcher_) {
        watcher_->stop();
    }
}

void SimPhone::start() {
    mux_.start();
    control_.start();
    if (!watchedStorage_.empty()) {
        watcher_ = StorageWatcher::start(
            app_.executor(), watchedStorage_,
            [this](const service::ItemMutationNotifyPayload& payload) {
                app_.pushItemMutation(payload);
            },
            report_);
    }
}

ControlReply SimPhone::execute(const ControlCommand& command) {
    ControlReply reply;
    switch (command.verb) {
        case ControlVerb::app:
            return app_.execute(command.app);
        case ControlVerb::list:
            for (const auto& device : devices_.devices()) {
                reply.lines.push_back(std::to_string(device.handle) + " " + device.udid);
            }
            break;
        case ControlVerb::attach: {
            auto device = devices_.attach(command.udid);
            if (!device) {
                return controlError(command.udid + " is already attached");
            }
            mux_.deviceAttached(*device);
            reply.lines.push_back(std::to_string(device->handle));
            break;
        }
        case ControlVerb::detach: {
            auto device = devices_.detach(command.udid);
            if (!device) {
                return controlError(command.udid + " is not attached");
            }
            mux_.deviceDetached(*device);
            break;
        }
        case ControlVerb::replug: {
            auto replug = devices_.replug(command.udid);
            if (!replug) {
                return controlError(command.udid + " is not attached");
            }
            mux_.deviceDetached(replug->removed);
            mux_.deviceAttached(replug->added);
            reply.lines.push_back(std::to_string(replug->added.handle));
            break;
        }
        case ControlVerb::connections:
            for (const auto& info : mux_.appConnections()) {
                reply.lines.push_back(std::to_string(info.handle) + " " +
                                      std::to_string(info.port) + " " + info.udid);
            }
            break;
        case ControlVerb::drop: {
            std::optional<uint32_t> handle;
            if (command.hasUdid) {
                const SimDevice* device = devices_.findByUdid(command.udid);
                if (device == nullptr) {
                    return controlError(command.udid + " is not attached");
                }
                handle = device->handle;
            }
            size_t dropped = mux_.dropConnections(handle);
            report_("dropped " + std::to_string(dropped) + " device-side connection(s)");
            reply.lines.push_back(std::to_string(dropped));
            break;
        }
    }
    return reply;
}

}  // namespace skiff::sim
