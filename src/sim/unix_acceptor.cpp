#include "sim/unix_acceptor.hpp"

#include <unistd.h>

namespace skiff::sim {

void listenOnUnixSocket(UnixAcceptor& acceptor, const std::string& path) {
    ::unlink(path.c_str());
    asio::local::stream_protocol::endpoint endpoint(path);
    acceptor.open(endpoint.protocol());
    acceptor.bind(endpoint);
    acceptor.listen();
}

void closeUnixAcceptor(UnixAcceptor& acceptor, const std::string& path) {
    if (acceptor.is_open()) {
        std::error_code ignored;
        acceptor.close(ignored);
        ::unlink(path.c_str());
    }
}

asio::awaitable<void> acceptUntilClosed(UnixAcceptor& acceptor,
                                        std::function<void(UnixSocket)> onAccept) {
    for (;;) {
        std::error_code ec;
        UnixSocket socket =
            co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, ec));
        if (ec == asio::error::operation_aborted || !acceptor.is_open()) {
            co_return;
        }
        if (!ec) {
            onAccept(std::move(socket));
        }
    }
}

}  // namespace skiff::sim
