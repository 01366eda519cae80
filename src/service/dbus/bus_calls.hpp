#pragma once
// Building blocks shared by the service and the client side: answering an incoming call
// later from any thread, calling a peer asynchronously, and one-way messages.

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "common/bridge_protocols.hpp"
#include "common/log.hpp"
#include "service/dbus/bus_connection.hpp"
#include "service/dbus/bus_message.hpp"

namespace skiff::service::dbus {

// The answer to one incoming call. send() or fail() may be called from any thread; only
// the first answer counts. abandon() (the caller left the bus) drops the call message,
// and with it the request's body, at once. Dropped unanswered, the call stays pending.
// The message itself is only touched on the connection's strand.
class PendingCall {
public:
    // On the strand: `call` is the message a method handler received.
    PendingCall(std::shared_ptr<BusConnection> bus, sd_bus_message* call);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    template <class... R>
    void send(R... values) {
        auto call = take();
        if (!call) {
            return;
        }
        bus_->post([call = std::move(call), values = std::make_tuple(std::move(values)...)] {
            std::apply(
                [&](const auto&... v) {
                    reply(call.get(), [&](sd_bus_message* m) { return wire::appendAll(m, v...); });
                },
                values);
        });
    }

    void fail(std::string name, std::string text);
    void abandon();

private:
    MessageRef take();
    static void reply(sd_bus_message* call,
                      const std::function<int(sd_bus_message*)>& appendValues);

    std::shared_ptr<BusConnection> bus_;
    std::mutex mutex_;
    MessageRef call_;
};

// Calls `invoke(reply)` with a reply that answers `pending` from any thread. What the
// callee refuses synchronously becomes the matching bus error: InvalidArgs (logged, with
// `caller` named), NotSupported, or Failed for anything else.
template <class... R, class Invoke>
void answerWith(const std::shared_ptr<PendingCall>& pending, const std::string& caller,
                Invoke&& invoke) {
    try {
        invoke(std::function<void(R...)>(
            [pending](R... values) { pending->send(std::move(values)...); }));
    } catch (const InvalidArgs& e) {
        log::xpc().error("refused a call of %{public}s: %{public}s", caller.c_str(), e.what());
        pending->fail("org.freedesktop.DBus.Error.InvalidArgs", e.what());
    } catch (const NotSupported& e) {
        pending->fail("org.freedesktop.DBus.Error.NotSupported", e.what());
    } catch (const std::exception& e) {
        log::xpc().error("bus method failed: %{public}s", e.what());
        pending->fail("org.freedesktop.DBus.Error.Failed", e.what());
    }
}

// Reads a call's arguments into `args`; false when they do not match.
template <class... A>
bool readArgs(sd_bus_message* m, std::tuple<A...>& args) {
    return std::apply([&](auto&... a) { return wire::readAll(m, a...); }, args) >= 0;
}

// Whom an incoming call is for: the object that serves it, the pending answer, and the
// caller's name for logs. A null object refuses the call (AccessDenied).
template <class T>
struct CallTarget {
    std::shared_ptr<T> object;
    std::shared_ptr<PendingCall> pending;
    std::string caller;
};

// Serves one method with replies R... and arguments A...: reads the arguments, finds the
// target with `find(m)`, and calls `invoke(object, args..., reply)`.
template <class Replies, class... A>
struct MethodCall;

template <class... R, class... A>
struct MethodCall<std::tuple<R...>, A...> {
    template <class Find, class Invoke>
    static int serve(sd_bus_message* m, sd_bus_error* error, Find&& find, Invoke&& invoke) {
        std::tuple<A...> args;
        if (!readArgs(m, args)) {
            return sd_bus_error_set(error, "org.freedesktop.DBus.Error.InvalidArgs",
                                    "arguments do not match the signature");
        }
        auto target = find(m);
        if (!target.object) {
            return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied",
                                    "connection refused");
        }
        answerWith<R...>(target.pending, target.caller, [&](std::function<void(R...)> reply) {
            std::apply(
                [&](auto&... a) { invoke(*target.object, std::move(a)..., std::move(reply)); },
                args);
        });
        return 1;
    }
};

// A failed outgoing call: the D-Bus error name and text.
struct CallError {
    std::string name;
    std::string text;
};
using ReplyReader = std::function<void(sd_bus_message* reply)>;
using ErrorHandler = std::function<void(const CallError&)>;

// Starts a method call with its own time-out (0: sd-bus's default). Exactly one of
// onReply / onError runs later, on the strand. Must itself run on the strand.
void startCall(BusConnection& bus, const char* destination, const char* path, const char* interface,
               const char* method, std::uint64_t timeoutUsec,
               const std::function<int(sd_bus_message*)>& appendArgs, ReplyReader onReply,
               ErrorHandler onError);

// Sends a one-way method call (no reply expected). Must run on the strand; returns the
// sd-bus result.
int sendOneWay(BusConnection& bus, const char* destination, const char* path, const char* interface,
               const char* method, const std::function<int(sd_bus_message*)>& appendArgs);

// Reads a typed reply and hands its values to `reply`; a reply of the wrong shape goes
// to `onError` instead.
template <class... R>
ReplyReader readReply(std::function<void(R...)> reply, ErrorHandler onError) {
    return [reply = std::move(reply), onError = std::move(onError)](sd_bus_message* m) {
        std::tuple<R...> values;
        const int r = std::apply([&](auto&... v) { return wire::readAll(m, v...); }, values);
        if (r < 0) {
            onError({"org.freedesktop.DBus.Error.InvalidSignature", "reply of the wrong shape"});
            return;
        }
        std::apply(reply, std::move(values));
    };
}

inline std::uint64_t toUsec(std::chrono::microseconds d) {
    return static_cast<std::uint64_t>(d.count());
}

}  // namespace skiff::service::dbus
