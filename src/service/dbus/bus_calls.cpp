#include "service/dbus/bus_calls.hpp"

#include <cstring>

#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

PendingCall::PendingCall(std::shared_ptr<BusConnection> bus, sd_bus_message* call)
    : bus_(std::move(bus)), call_(MessageRef::share(call)) {}

PendingCall::~PendingCall() {
    abandon();
}

MessageRef PendingCall::take() {
    std::lock_guard guard(mutex_);
    return std::move(call_);
}

void PendingCall::abandon() {
    if (auto call = take()) {
        // Messages are counted without atomics: let go of it on the strand.
        bus_->post([call = std::move(call)] {});
    }
}

void PendingCall::fail(std::string name, std::string text) {
    auto call = take();
    if (!call) {
        return;
    }
    bus_->post([call = std::move(call), name = std::move(name), text = std::move(text)] {
        if (sd_bus_message_get_expect_reply(call.get()) <= 0) {
            return;
        }
        const int r = sd_bus_reply_method_errorf(call.get(), name.c_str(), "%s", text.c_str());
        if (r < 0) {
            log::xpc().error("error reply not sent: %{public}s", std::strerror(-r));
        }
    });
}

void PendingCall::reply(sd_bus_message* call,
                        const std::function<int(sd_bus_message*)>& appendValues) {
    if (sd_bus_message_get_expect_reply(call) <= 0) {
        return;
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(call, &raw);
    auto message = MessageRef::adopt(raw);
    if (r >= 0) {
        r = appendValues(message.get());
    }
    if (r >= 0) {
        r = sd_bus_send(nullptr, message.get(), nullptr);
    }
    if (r < 0) {
        log::xpc().error("reply not sent: %{public}s", std::strerror(-r));
    }
}

namespace {

struct CallHandlers {
    ReplyReader onReply;
    ErrorHandler onError;
};

int onCallDone(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto& handlers = *static_cast<CallHandlers*>(userdata);
    if (sd_bus_message_is_method_error(m, nullptr)) {
        const sd_bus_error* error = sd_bus_message_get_error(m);
        handlers.onError({error && error->name ? error->name : kErrorFailed,
                          error && error->message ? error->message : ""});
    } else {
        handlers.onReply(m);
    }
    return 0;
}

void freeHandlers(void* userdata) {
    delete static_cast<CallHandlers*>(userdata);
}

int newCall(BusConnection& bus, MessageRef& out, const char* destination, const char* path,
            const char* interface, const char* method,
            const std::function<int(sd_bus_message*)>& appendArgs) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus.bus(), &raw, destination, path, interface, method);
    out = MessageRef::adopt(raw);
    if (r >= 0 && appendArgs) {
        r = appendArgs(raw);
    }
    return r;
}

}  // namespace

void startCall(BusConnection& bus, const char* destination, const char* path, const char* interface,
               const char* method, std::uint64_t timeoutUsec,
               const std::function<int(sd_bus_message*)>& appendArgs, ReplyReader onReply,
               ErrorHandler onError) {
    MessageRef call;
    int r = newCall(bus, call, destination, path, interface, method, appendArgs);
    if (r < 0) {
        onError({kErrorFailed, std::string("call not sent: ") + std::strerror(-r)});
        return;
    }
    auto* handlers = new CallHandlers{std::move(onReply), nullptr};
    handlers->onError = onError;
    sd_bus_slot* slot = nullptr;
    r = sd_bus_call_async(bus.bus(), &slot, call.get(), onCallDone, handlers, timeoutUsec);
    if (r < 0) {
        delete handlers;
        onError({kErrorFailed, std::string("call not sent: ") + std::strerror(-r)});
        return;
    }
    // The slot frees the handlers whether the call ends or the connection goes first.
    sd_bus_slot_set_destroy_callback(slot, freeHandlers);
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
}

int sendOneWay(BusConnection& bus, const char* destination, const char* path, const char* interface,
               const char* method, const std::function<int(sd_bus_message*)>& appendArgs) {
    MessageRef call;
    int r = newCall(bus, call, destination, path, interface, method, appendArgs);
    if (r >= 0) {
        r = sd_bus_message_set_expect_reply(call.get(), 0);
    }
    if (r >= 0) {
        r = sd_bus_send(bus.bus(), call.get(), nullptr);
    }
    return r;
}

}  // namespace skiff::service::dbus
