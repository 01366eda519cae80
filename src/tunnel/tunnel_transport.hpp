#pragma once
// The byte stream under a TunnelEngine.

#include <asio.hpp>
#include <cstddef>

#include "common/bytes.hpp"

namespace skiff::tunnel {

class TunnelTransport {
public:
    virtual ~TunnelTransport() = default;

    // Writes every byte of head and then of tail, as one unit: units never interleave on the
    // wire, so a frame handed over as its header and its body stays in one piece. The body
    // is written from where it lies, not copied behind the header. Throws
    // TunnelTransportError.
    virtual asio::awaitable<void> send(Bytes head, SharedBytes tail) = 0;

    // Returns exactly count bytes (count fits in 32 bits). Throws TunnelTransportError,
    // disconnected when the peer has gone.
    virtual asio::awaitable<Bytes> receive(std::size_t count) = 0;

    // Ends the stream; pending and later calls fail. Never throws.
    virtual asio::awaitable<void> close() = 0;
};

}  // namespace skiff::tunnel
