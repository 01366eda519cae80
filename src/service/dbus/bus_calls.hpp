#pragma once
// Building blocks shared by the service and the client side: answering an incoming call
// later from any thread, calling a peer asynchronously, and keeping a proxy to a peer that
// lives and dies on the loop thread.

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "common/log.hpp"
#include "service/bridge_protocols.hpp"
#include "service/dbus/bus_loop.hpp"
#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

// A generated proxy interface bound to one peer's object; raw() reaches the untyped proxy
// for calls with their own callbacks.
template <class Interface>
class ProxyGlue final : public sdbus::ProxyInterfaces<Interface> {
public:
    ProxyGlue(sdbus::IConnection& connection, std::string destination, std::string path)
        : sdbus::ProxyInterfaces<Interface>(connection, std::move(destination), std::move(path)) {
        this->registerProxy();
    }
    ~ProxyGlue() { this->unregisterProxy(); }

    sdbus::IProxy& raw() { return this->getProxy(); }
};

// No time-out: a peer that never answers leaves the call pending, as a reply that is
// never delivered must.
inline constexpr std::uint64_t kNoTimeout = UINT64_MAX;

// The answer to one incoming call. send() or fail() may be called from any thread; only the
// first one counts. Dropped unanswered, the caller's call stays pending on the bus.
template <typename... R>
class PendingReply {
public:
    PendingReply(std::shared_ptr<BusLoop> loop, sdbus::Result<R...>&& result)
        : loop_(std::move(loop)),
          result_(std::make_shared<sdbus::Result<R...>>(std::move(result))) {}

    ~PendingReply() {
        if (result_) {
            // The call message belongs to the bus thread: let it go there.
            loop_->post([unanswered = std::move(result_)] {});
        }
    }

    PendingReply(const PendingReply&) = delete;
    PendingReply& operator=(const PendingReply&) = delete;

    void send(R... values) {
        auto result = take();
        if (!result) {
            return;
        }
        loop_->post([result, values = std::make_tuple(std::move(values)...)] {
            try {
                std::apply([&](const auto&... v) { result->returnResults(v...); }, values);
            } catch (const sdbus::Error& e) {
                log::xpc().error("reply not sent: %{public}s", e.what());
            }
        });
    }

    void fail(std::string name, std::string message) {
        auto result = take();
        if (!result) {
            return;
        }
        loop_->post([result, name = std::move(name), message = std::move(message)] {
            try {
                result->returnError(sdbus::Error(name, message));
            } catch (const sdbus::Error& e) {
                log::xpc().error("error reply not sent: %{public}s", e.what());
            }
        });
    }

private:
    std::shared_ptr<sdbus::Result<R...>> take() {
        std::lock_guard guard(mutex_);
        return std::move(result_);
    }

    std::shared_ptr<BusLoop> loop_;
    std::mutex mutex_;
    std::shared_ptr<sdbus::Result<R...>> result_;
};

// Hands an incoming call to `call` with a reply callable that works from any thread.
// A method this build lacks (NotSupported) becomes the matching bus error.
template <typename... R, typename Call>
void answerLater(const std::shared_ptr<BusLoop>& loop, sdbus::Result<R...>&& result, Call&& call) {
    auto pending = std::make_shared<PendingReply<R...>>(loop, std::move(result));
    try {
        call(std::function<void(R...)>(
            [pending](R... values) { pending->send(std::move(values)...); }));
    } catch (const NotSupported& e) {
        pending->fail(kErrorNotSupported, e.what());
    } catch (const std::exception& e) {
        log::xpc().error("bus method failed: %{public}s", e.what());
        pending->fail(kErrorFailed, e.what());
    }
}

// Calls `method` on `proxy`; exactly one of onReply / onError runs, on the loop thread.
// Must itself run on the loop thread.
template <typename... R, typename... A>
void callAsync(sdbus::IProxy& proxy, const char* interface, const char* method,
               std::uint64_t timeoutUsec, std::function<void(R...)> onReply,
               std::function<void(const sdbus::Error&)> onError, const A&... args) {
    try {
        (void)proxy.callMethodAsync(method)
            .onInterface(interface)
            .withTimeout(timeoutUsec)
            .withArguments(args...)
            .uponReplyInvoke([onReply, onError](const sdbus::Error* error, R... values) {
                if (error != nullptr) {
                    onError(*error);
                } else {
                    onReply(std::move(values)...);
                }
            });
    } catch (const sdbus::Error& e) {
        onError(e);
    }
}

// A generated proxy (`Glue`) to one peer object, made on first use and destroyed on the
// loop thread. Destroying it cancels the calls still waiting for that peer.
template <typename Glue>
class ProxyLink {
public:
    ProxyLink(std::shared_ptr<BusLoop> loop, std::string destination, std::string path)
        : loop_(std::move(loop)),
          destination_(std::move(destination)),
          path_(std::move(path)),
          glue_(std::make_shared<std::unique_ptr<Glue>>()) {}

    ~ProxyLink() {
        loop_->post([glue = std::move(glue_)] { glue->reset(); });
    }

    ProxyLink(const ProxyLink&) = delete;
    ProxyLink& operator=(const ProxyLink&) = delete;

    // Runs `use` on the loop thread; `onError` instead when the proxy cannot be made.
    void with(std::function<void(Glue&)> use, std::function<void(const sdbus::Error&)> onError) {
        loop_->post([loop = loop_, destination = destination_, path = path_, glue = glue_,
                     use = std::move(use), onError = std::move(onError)] {
            try {
                if (!*glue) {
                    *glue = std::make_unique<Glue>(loop->connection(), destination, path);
                }
            } catch (const sdbus::Error& e) {
                onError(e);
                return;
            }
            use(**glue);
        });
    }

private:
    std::shared_ptr<BusLoop> loop_;
    std::string destination_;
    std::string path_;
    std::shared_ptr<std::unique_ptr<Glue>> glue_;
};

inline std::string errorText(const sdbus::Error& error) {
    return error.getName() + ": " + error.getMessage();
}

}  // namespace skiff::service::dbus
