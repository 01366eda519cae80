#include "sim/control_client.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/unique_fd.hpp"

namespace skiff::sim {

ControlReply sendControlCommand(const std::string& socketPath, const std::string& line,
                                std::chrono::seconds timeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(address.sun_path)) {
        return controlError("control socket path too long: " + socketPath);
    }
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        return controlError(std::string("socket: ") + std::strerror(errno));
    }
    timeval tv{};
    tv.tv_sec = timeout.count();
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return controlError("cannot reach " + socketPath + ": " + std::strerror(errno));
    }
    std::string request = line + "\n";
    size_t sent = 0;
    while (sent < request.size()) {
        ssize_t n = ::send(fd.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return controlError(std::string("send: ") + std::strerror(errno));
        }
        sent += size_t(n);
    }
    ControlReply reply;
    std::string pending;
    char buffer[4096];
    for (;;) {
        size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            std::string text = pending.substr(0, newline);
            pending.erase(0, newline + 1);
            if (text == "ok") {
                return reply;
            }
            if (text.rfind("error: ", 0) == 0) {
                reply.ok = false;
                reply.error = text.substr(7);
                return reply;
            }
            reply.lines.push_back(std::move(text));
        }
        ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, 0);
        if (n <= 0) {
            return controlError(n == 0 ? "the simulator closed the control connection"
                                       : std::string("recv: ") + std::strerror(errno));
        }
        pending.append(buffer, size_t(n));
    }
}

}  // namespace skiff::sim
