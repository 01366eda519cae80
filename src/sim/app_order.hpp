#pragma once

// Keeps the requests of one item in the order they arrived, so that a client may send a
// stage, its chunks and the commit without waiting for each answer. Requests of other
// items, and those that name none, go on meanwhile.
//
// Used on the app's executor only. A turn is asked for before the request's first
// suspension, which is when the engine starts the request: in arrival order.

#include <asio.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "common/async_mutex.hpp"
#include "common/bytes.hpp"

namespace skiff::sim {

// The identifier a request names first (a rename's source), as its client spelled it;
// nothing for a request that names no item. Binary chunk and range bodies and JSON bodies
// with an "identifier" are understood; only a chunk's header is read.
std::optional<std::string> itemOfRequest(std::uint16_t code, const Bytes& body);

class ItemOrder {
public:
    struct Turn {
        std::shared_ptr<runtime::AsyncMutex> item;  // keeps the entry while it is held
        runtime::AsyncMutex::Lock lock;
    };

    // Resumes once every earlier request of the item has let its turn go.
    asio::awaitable<Turn> turn(std::string item);

private:
    std::map<std::string, std::weak_ptr<runtime::AsyncMutex>> items_;
};

}  // namespace skiff::sim
