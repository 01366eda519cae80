#include "common/shared_memory.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace skiff {

namespace {

std::uint8_t* mapShared(int fd, std::size_t size) {
    void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return data == MAP_FAILED ? nullptr : static_cast<std::uint8_t*>(data);
}

}  // namespace

std::unique_ptr<SharedMemory> SharedMemory::create(std::size_t size, const std::string& name) {
    UniqueFd fd(::memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (fd.get() < 0) {
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
    if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0 ||
        ::fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        throw std::system_error(errno, std::generic_category(), "sizing the shared buffer");
    }
    auto* data = mapShared(fd.get(), size);
    if (data == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return std::unique_ptr<SharedMemory>(new SharedMemory(std::move(fd), data, size));
}

SharedMemory::Adopted SharedMemory::adopt(int fd) {
    const int seals = ::fcntl(fd, F_GET_SEALS);
    if (seals < 0) {
        return {nullptr, "not a memfd"};
    }
    if (!(seals & F_SEAL_SHRINK)) {
        return {nullptr, "not sealed against shrinking"};
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || info.st_size <= 0) {
        return {nullptr, "empty"};
    }
    const auto size = static_cast<std::size_t>(info.st_size);
    auto* data = mapShared(fd, size);
    if (data == nullptr) {
        return {nullptr, std::string("cannot be mapped: ") + std::strerror(errno)};
    }
    return {std::unique_ptr<SharedMemory>(new SharedMemory(UniqueFd(), data, size)), {}};
}

SharedMemory::SharedMemory(UniqueFd fd, std::uint8_t* data, std::size_t size)
    : fd_(std::move(fd)), data_(data), size_(size) {}

SharedMemory::~SharedMemory() {
    ::munmap(data_, size_);
}

std::optional<std::span<std::uint8_t>> SharedMemory::range(std::uint64_t offset,
                                                           std::uint64_t length) const {
    if (offset > size_ || length > size_ - offset) {
        return std::nullopt;
    }
    return std::span<std::uint8_t>(data_ + offset, length);
}

}  // namespace skiff
