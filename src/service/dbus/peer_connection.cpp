#include "service/dbus/peer_connection.hpp"

#include <utility>

namespace skiff::service::dbus {

namespace {

// Calls into one client. Each call is made on the bus thread; a failed call goes to the
// error handler and its reply is never invoked.
class RemoteClientProxy final : public HarborBridgeClientProtocol {
public:
    RemoteClientProxy(std::shared_ptr<ProxyLink<ClientGlue>> link,
                      std::function<void(const std::string&)> errorHandler)
        : link_(std::move(link)),
          onError_([errorHandler = std::move(errorHandler)](const sdbus::Error& error) {
              if (errorHandler) {
                  errorHandler(errorText(error));
              }
          }) {}

    void echo(std::function<void()> reply) override { call("Echo", std::move(reply)); }

    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override {
        call("BenchmarkIngest", std::move(reply), std::move(data));
    }

    void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) override {
        call("RunExtToHostPing", std::move(reply), value);
    }

    void benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                             std::function<void(double)> reply) override {
        call("BenchmarkSendChunks", std::move(reply), chunkSize, chunkCount);
    }

    void notifyClient(std::int64_t message, Bytes param) override {
        link_->with(
            [message, param = std::move(param), onError = onError_](ClientGlue& glue) {
                try {
                    glue.NotifyClient(message, param);
                } catch (const sdbus::Error& e) {
                    onError(e);
                }
            },
            onError_);
    }

private:
    template <typename... R, typename... A>
    void call(const char* method, std::function<void(R...)> reply, A... args) {
        link_->with(
            [method, reply = std::move(reply), onError = onError_, args...](ClientGlue& glue) {
                callAsync(glue.raw(), kClientInterface, method, kNoTimeout, reply, onError,
                          args...);
            },
            onError_);
    }

    std::shared_ptr<ProxyLink<ClientGlue>> link_;
    std::function<void(const sdbus::Error&)> onError_;
};

}  // namespace

PeerConnection::PeerConnection(std::shared_ptr<BusLoop> loop, std::string peer)
    : peer_(std::move(peer)),
      link_(std::make_shared<ProxyLink<ClientGlue>>(std::move(loop), peer_, kClientPath)) {}

void PeerConnection::setExportedObject(std::shared_ptr<HarborBridgeHostProtocol> host) {
    std::lock_guard guard(mutex_);
    host_ = std::move(host);
}

HarborBridgeHostProtocol* PeerConnection::exportedObject() const {
    std::lock_guard guard(mutex_);
    return host_.get();
}

void PeerConnection::setInvalidationHandler(std::function<void()> handler) {
    std::lock_guard guard(mutex_);
    invalidationHandler_ = std::move(handler);
}

std::function<void()> PeerConnection::takeInvalidationHandler() {
    std::lock_guard guard(mutex_);
    return std::exchange(invalidationHandler_, nullptr);
}

std::shared_ptr<HarborBridgeClientProtocol> PeerConnection::remoteObjectProxy(
    std::function<void(const std::string& error)> errorHandler) {
    return std::make_shared<RemoteClientProxy>(link_, std::move(errorHandler));
}

}  // namespace skiff::service::dbus
