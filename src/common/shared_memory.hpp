#pragma once
// A memfd mapped into this process: the way bulk bytes cross between skiffd and a client
// without being copied through the bus. The creator makes it sealed against shrinking, so
// the other side may map it without fearing SIGBUS; the receiver adopts a descriptor only
// after checking that seal, and takes its size once.
//
// Ownership: the mapping is unmapped when the object goes away; the descriptor is kept
// only by the creator (to pass on). Several threads may read and write disjoint ranges.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "common/unique_fd.hpp"

namespace skiff {

class SharedMemory {
public:
    // A new memfd of `size` bytes, sealed against shrinking and growing, mapped read-write.
    // Throws std::system_error.
    static std::unique_ptr<SharedMemory> create(std::size_t size, const std::string& name);

    // Maps a descriptor someone handed over (it is not kept). Fails with a reason unless it
    // is a memfd sealed against shrinking, not empty, and mappable read-write.
    struct Adopted {
        std::unique_ptr<SharedMemory> memory;
        std::string refusal;
    };
    static Adopted adopt(int fd);

    ~SharedMemory();
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    std::size_t size() const { return size_; }
    int fd() const { return fd_.get(); }  // -1 for an adopted mapping
    std::span<std::uint8_t> bytes() const { return {data_, size_}; }

    // The range [offset, offset + length), or nothing when it does not lie inside.
    std::optional<std::span<std::uint8_t>> range(std::uint64_t offset, std::uint64_t length) const;

private:
    SharedMemory(UniqueFd fd, std::uint8_t* data, std::size_t size);

    UniqueFd fd_;
    std::uint8_t* data_;
    std::size_t size_;
};

}  // namespace skiff
