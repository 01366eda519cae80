// Prints figures of the mounted volume:
//   SKIFF_BUILD_DIR=build/release volume_bench [MiB]   (size of the sequential file, default 256)
// - sequential read and write through the mount, next to the same on the phone's storage
//   folder and to raw chunk relays through the service (the ceiling of a read);
// - `ls -l` of a cold directory of 1,000 entries;
// - skiff-fs's peak resident memory while reading 1 GiB.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/shared_memory.hpp"
#include "e2e/service_stack.hpp"
#include "relay/relay_schema.hpp"
#include "transfer/file_io_records.hpp"

using namespace skiff;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1 << 20;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double rate(std::uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / kMiB / seconds : 0;
}

void makeFile(const fs::path& path, std::uint64_t bytes) {
    std::ofstream out(path, std::ios::binary);
    std::vector<char> block(kMiB, 'x');
    for (std::uint64_t done = 0; done < bytes; done += block.size()) {
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
}

// Reads the whole file in 1 MiB reads; the seconds it took.
double readAll(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path.string());
    }
    std::vector<char> buffer(kMiB);
    const auto start = Clock::now();
    while (::read(fd, buffer.data(), buffer.size()) > 0) {
    }
    ::close(fd);
    return secondsSince(start);
}

// Writes bytes in 1 MiB writes and closes (the push happens at close).
double writeAll(const fs::path& path, std::uint64_t bytes) {
    std::vector<char> block(kMiB, 'y');
    const auto start = Clock::now();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (std::uint64_t done = 0; fd >= 0 && done < bytes; done += block.size()) {
        if (::write(fd, block.data(), block.size()) < 0) {
            break;
        }
    }
    if (fd < 0 || ::close(fd) != 0) {
        throw std::runtime_error("write through " + path.string() + " failed");
    }
    return secondsSince(start);
}

// The same chunks a read asks for, relayed by a second client straight through the service.
double rawRelayRead(test::ServiceStack& stack, const std::string& identifier, std::uint64_t bytes) {
    auto client = stack.connect();
    client->registerClient(1);
    auto buffer = SharedMemory::create(kMiB + service::kMaxRelayBodyBytes, "bench");
    const auto id = client->registerSharedBuffer(buffer->fd());
    const auto start = Clock::now();
    for (std::uint64_t offset = 0; offset < bytes; offset += transfer::kChunkSize) {
        const auto body = transfer::encodeReadChunkRequest(identifier, offset).value();
        std::copy(body.begin(), body.end(), buffer->bytes().begin());
        const auto reply = client->relayToUsbMuxShared(
            static_cast<std::int64_t>(relay::UsbMuxRelaySelector::readChunk), id, 0, body.size(),
            kMiB, service::kMaxRelayBodyBytes);
        if (reply.status != 0) {
            throw std::runtime_error("raw relay failed");
        }
    }
    return secondsSince(start);
}

int shell(const std::string& command) {
    test::ChildProcess child({"/bin/sh", "-c", command});
    const auto status = child.waitForExit(std::chrono::minutes(10));
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t size = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 256) * kMiB;
    test::ServiceStack stack([&](const std::string& storage) {
        makeFile(fs::path(storage) / "seq.bin", size);
        makeFile(fs::path(storage) / "gib.bin", 1024 * kMiB);
        fs::create_directories(fs::path(storage) / "thousand");
        for (int i = 0; i < 1000; ++i) {
            std::ofstream(fs::path(storage) / "thousand" / ("entry" + std::to_string(i)));
        }
    });
    test::TempDir mountDir("skiff-bench-mnt");
    test::ChildProcess volume(
        {test::buildPath("src/volume/skiff-fs"), "skiff-bench", mountDir.path(), "-f"},
        stack.environment());
    if (!volume.waitForOutput("skiff-fs: mounted", test::kE2eWait)) {
        std::fprintf(stderr, "skiff-fs did not mount:\n%s", volume.output().c_str());
        return 1;
    }
    const fs::path mount = mountDir.path();
    const fs::path storage = stack.storage();
    for (int tries = 0; tries < 200 && !fs::exists(mount / "seq.bin"); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the phone's arrival
    }

    // ls -l first, while nothing is cached.
    const auto lsStart = Clock::now();
    shell("ls -l '" + (mount / "thousand").string() + "' > /dev/null");
    const double lsMount = secondsSince(lsStart);
    const auto lsLocalStart = Clock::now();
    shell("ls -l '" + (storage / "thousand").string() + "' > /dev/null");
    const double lsLocal = secondsSince(lsLocalStart);
    std::printf("ls -l of 1000 entries, cold: mount %.1f ms, storage folder %.1f ms (x%.1f)\n",
                lsMount * 1e3, lsLocal * 1e3, lsLocal > 0 ? lsMount / lsLocal : 0);

    const double raw = rawRelayRead(stack, "seq.bin", size);
    const double readMount = readAll(mount / "seq.bin");
    const double readLocal = readAll(storage / "seq.bin");
    std::printf(
        "sequential read %llu MiB: mount %.1f MiB/s, raw chunk relay %.1f MiB/s "
        "(mount/raw %.2f), storage folder %.1f MiB/s\n",
        static_cast<unsigned long long>(size / kMiB), rate(size, readMount), rate(size, raw),
        raw / readMount, rate(size, readLocal));

    const double writeMount = writeAll(mount / "written.bin", size);
    const double writeLocal = writeAll(storage / "written-local.bin", size);
    std::printf(
        "sequential write %llu MiB (open to close): mount %.1f MiB/s, storage folder "
        "%.1f MiB/s (mount/storage %.2f)\n",
        static_cast<unsigned long long>(size / kMiB), rate(size, writeMount),
        rate(size, writeLocal), writeLocal / writeMount);

    const double gib = readAll(mount / "gib.bin");
    std::printf("read 1 GiB through the mount: %.1f MiB/s, skiff-fs peak RSS %.1f MiB\n",
                rate(1024 * kMiB, gib), static_cast<double>(volume.peakResidentBytes()) / kMiB);

    shell("fusermount3 -u -z '" + mountDir.path() + "'");
    volume.stop();
    return 0;
}
