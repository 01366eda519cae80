#include "sim/mux_server.hpp"

#include <array>
#include <deque>

#include "sim/mux_message.hpp"
#include "sim/unix_acceptor.hpp"

namespace skiff::sim {

// One client socket. Request/reply traffic is written inline by the serving coroutine;
// once the client listens, events and replies go through the outbox instead, because
// attaches and detaches can arrive while a write is still in flight.
class MuxConnection : public std::enable_shared_from_this<MuxConnection> {
public:
    explicit MuxConnection(AppSocket socket) : socket(std::move(socket)) {}

    void post(std::vector<uint8_t> message) {
        outbox_.push_back(std::move(message));
        if (!writing_) {
            writeNext();
        }
    }

    AppSocket socket;

private:
    void writeNext() {
        writing_ = true;
        asio::async_write(socket, asio::buffer(outbox_.front()),
                          [self = shared_from_this()](std::error_code ec, size_t) {
                              self->outbox_.pop_front();
                              if (ec) {
                                  self->outbox_.clear();
                                  self->writing_ = false;
                                  std::error_code ignored;
                                  self->socket.close(ignored);
                              } else if (!self->outbox_.empty()) {
                                  self->writeNext();
                              } else {
                                  self->writing_ = false;
                              }
                          });
    }

    std::deque<std::vector<uint8_t>> outbox_;
    bool writing_ = false;
};

namespace {

void closeSocket(AppSocket& socket) {
    std::error_code ignored;
    socket.shutdown(asio::socket_base::shutdown_both, ignored);
    socket.close(ignored);
}

std::string deviceName(const SimDevice& device) {
    return (device.udid.empty() ? std::string("(no UDID)") : device.udid) + " (handle " +
           std::to_string(device.handle) + ")";
}

}  // namespace

MuxServer::MuxServer(asio::io_context& io, std::string socketPath, DeviceTable& devices,
                     ListenerRegistry& listeners, Reporter report)
    : io_(io),
      socketPath_(std::move(socketPath)),
      devices_(devices),
      listeners_(listeners),
      report_(std::move(report)),
      acceptor_(io) {}

MuxServer::~MuxServer() {
    closeUnixAcceptor(acceptor_, socketPath_);
}

void MuxServer::start() {
    listenOnUnixSocket(acceptor_, socketPath_);
    asio::co_spawn(
        io_,
        acceptUntilClosed(acceptor_,
                          [this](UnixSocket socket) {
                              asio::co_spawn(
                                  io_, serve(std::make_shared<MuxConnection>(std::move(socket))),
                                  asio::detached);
                          }),
        asio::detached);
}

asio::awaitable<void> MuxServer::serve(std::shared_ptr<MuxConnection> connection) {
    bool listening = false;
    try {
        for (;;) {
            std::array<uint8_t, kMuxHeaderSize> headerBytes{};
            co_await asio::async_read(connection->socket, asio::buffer(headerBytes),
                                      asio::use_awaitable);
            auto header = parseMuxHeader(headerBytes);
            if (!header) {
                report_("closing a client that sent a malformed message header");
                break;
            }
            std::vector<uint8_t> payload(header->length - kMuxHeaderSize);
            co_await asio::async_read(connection->socket, asio::buffer(payload),
                                      asio::use_awaitable);
            if (listening) {
                // An event stream carries no further requests.
                continue;
            }
            MuxRequest request = decodeMuxRequest(*header, payload);
            std::vector<uint8_t> reply;
            switch (request.kind) {
                case MuxRequestKind::listDevices:
                    reply = encodeDeviceList(request.tag, devices_.devices());
                    co_await asio::async_write(connection->socket, asio::buffer(reply),
                                               asio::use_awaitable);
                    break;
                case MuxRequestKind::listen:
                    listening = true;
                    startListening(connection, request.tag);
                    break;
                case MuxRequestKind::connect:
                    if (co_await connect(*connection, request.tag, request.deviceId,
                                         request.port)) {
                        co_return;
                    }
                    break;
                case MuxRequestKind::unsupported:
                case MuxRequestKind::malformed:
                    report_(request.kind == MuxRequestKind::unsupported
                                ? "answering unsupported request " + request.messageType +
                                      " with an error"
                                : "answering a malformed request with an error: " + request.reason);
                    reply = encodeResult(request.tag, request.error);
                    co_await asio::async_write(connection->socket, asio::buffer(reply),
                                               asio::use_awaitable);
                    break;
            }
        }
    } catch (const std::system_error&) {
        // The client went away; nothing to answer.
    }
    if (listening) {
        report_("a client stopped listening for device events");
    }
    closeSocket(connection->socket);
}

void MuxServer::startListening(const std::shared_ptr<MuxConnection>& connection, uint32_t tag) {
    // Registered before anything is sent, so no attach or detach can slip between the
    // snapshot of present devices and the live events.
    std::erase_if(eventStreams_, [](const auto& weak) { return weak.expired(); });
    eventStreams_.push_back(connection);
    connection->post(encodeResult(tag, MuxResult::ok));
    for (const auto& device : devices_.devices()) {
        connection->post(encodeAttached(device));
    }
    report_("a client is listening for device events");
}

asio::awaitable<bool> MuxServer::connect(MuxConnection& connection, uint32_t tag, uint32_t deviceId,
                                         uint16_t port) {
    const SimDevice* device = devices_.findByHandle(deviceId);
    MuxResult result = MuxResult::ok;
    if (device == nullptr) {
        report_("refused a connection to port " + std::to_string(port) +
                " of unknown device handle " + std::to_string(deviceId));
        result = MuxResult::badDevice;
    } else if (listeners_.find(port) == nullptr) {
        report_("refused a connection to port " + std::to_string(port) + " of " +
                deviceName(*device) + ": nothing listens there");
        result = MuxResult::connectionRefused;
    }
    if (result != MuxResult::ok) {
        std::vector<uint8_t> refusal = encodeResult(tag, result);
        co_await asio::async_write(connection.socket, asio::buffer(refusal), asio::use_awaitable);
        co_return false;
    }
    // Recorded before the answer goes out, so that once the client has its answer the
    // connection is already known to the control interface.
    AppConnectionInfo info{device->udid, device->handle, port};
    auto socket = std::make_shared<AppSocket>(std::move(connection.socket));
    std::erase_if(appLinks_, [](const AppLink& link) { return link.socket.expired(); });
    appLinks_.push_back(AppLink{info, socket});
    report_("a client connected to port " + std::to_string(port) + " of " + deviceName(*device));
    std::error_code ec;
    std::vector<uint8_t> accepted = encodeResult(tag, MuxResult::ok);
    co_await asio::async_write(*socket, asio::buffer(accepted),
                               asio::redirect_error(asio::use_awaitable, ec));
    // The client, the device or the app may have gone while the answer was being written.
    const PortListener* listener = listeners_.find(port);
    if (ec || !socket->is_open() || devices_.findByHandle(deviceId) == nullptr ||
        listener == nullptr) {
        closeSocket(*socket);
        co_return true;
    }
    (*listener)(std::move(socket), info);
    co_return true;
}

void MuxServer::broadcast(const std::vector<uint8_t>& message) {
    std::erase_if(eventStreams_, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : eventStreams_) {
        if (auto stream = weak.lock(); stream && stream->socket.is_open()) {
            stream->post(message);
        }
    }
}

void MuxServer::deviceAttached(const SimDevice& device) {
    report_("device attached: " + deviceName(device));
    broadcast(encodeAttached(device));
}

void MuxServer::deviceDetached(const SimDevice& device) {
    size_t dropped = dropConnections(device.handle);
    report_("device detached: " + deviceName(device) +
            (dropped > 0 ? ", " + std::to_string(dropped) + " connection(s) cut" : ""));
    broadcast(encodeDetached(device.handle));
}

size_t MuxServer::dropConnections(std::optional<uint32_t> handle) {
    size_t dropped = 0;
    for (auto& link : appLinks_) {
        if (handle && link.info.handle != *handle) {
            continue;
        }
        if (auto socket = link.socket.lock(); socket && socket->is_open()) {
            closeSocket(*socket);
            ++dropped;
        }
    }
    std::erase_if(appLinks_, [&](const AppLink& link) {
        return !handle || link.info.handle == *handle || link.socket.expired();
    });
    return dropped;
}

std::vector<AppConnectionInfo> MuxServer::appConnections() const {
    std::vector<AppConnectionInfo> open;
    for (const auto& link : appLinks_) {
        if (auto socket = link.socket.lock(); socket && socket->is_open()) {
            open.push_back(link.info);
        }
    }
    return open;
}

}  // namespace skiff::sim
