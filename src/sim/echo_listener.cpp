#include <array>

#include "sim/port_listener.hpp"

namespace skiff::sim {
namespace {

class EchoSession : public std::enable_shared_from_this<EchoSession> {
public:
    explicit EchoSession(std::shared_ptr<AppSocket> socket) : socket_(std::move(socket)) {}

    void readSome() {
        socket_->async_read_some(asio::buffer(buffer_),
                                 [self = shared_from_this()](std::error_code ec, size_t n) {
                                     if (!ec) {
                                         self->writeBack(n);
                                     }
                                 });
    }

private:
    void writeBack(size_t n) {
        asio::async_write(*socket_, asio::buffer(buffer_.data(), n),
                          [self = shared_from_this()](std::error_code ec, size_t) {
                              if (!ec) {
                                  self->readSome();
                              }
                          });
    }

    std::shared_ptr<AppSocket> socket_;
    std::array<uint8_t, 65536> buffer_{};
};

}  // namespace

PortListener makeEchoListener() {
    return [](std::shared_ptr<AppSocket> socket, const AppConnectionInfo&) {
        std::make_shared<EchoSession>(std::move(socket))->readSome();
    };
}

}  // namespace skiff::sim
