// Whole-file transfers through the whole chain (skiffctl, the bus, skiffd, the tunnel, the
// simulated app and the shared transfer folder), next to two baselines measured in the
// same run: the raw tunnel (the speed test's download and upload) and a plain copy of the
// same file on the same disk. Then skiffd's peak resident memory over a 1 GiB fetch.
// Prints figures and goals; asserts nothing about them.
//   transfer_bench [MIB] [BIG_MIB]     (default 256 and 1024)

#include <fcntl.h>
#include <unistd.h>

#include <sys/wait.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "e2e/service_stack.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double kMiB = 1024.0 * 1024.0;
constexpr int kRounds = 3;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void writeFile(const fs::path& path, std::uint64_t bytes) {
    fs::create_directories(path.parent_path());
    std::vector<char> block(1 << 20);
    for (std::size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 131 + i / 251);
    }
    std::ofstream out(path, std::ios::binary);
    for (std::uint64_t done = 0; done < bytes; done += block.size()) {
        out.write(block.data(), static_cast<std::streamsize>(
                                    std::min<std::uint64_t>(block.size(), bytes - done)));
    }
}

double secondsOf(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A byte-for-byte copy through a buffer, flushed like a fetched file is.
void plainCopy(const fs::path& from, const fs::path& to) {
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (in < 0 || out < 0) {
        throw std::runtime_error("cannot open the copy's files");
    }
    std::vector<char> buffer(4 << 20);
    for (ssize_t n; (n = ::read(in, buffer.data(), buffer.size())) > 0;) {
        if (::write(out, buffer.data(), static_cast<std::size_t>(n)) != n) {
            throw std::runtime_error("copy write failed");
        }
    }
    ::fdatasync(out);
    ::close(in);
    ::close(out);
}

// One skiffctl run to completion; throws unless it succeeded.
void skiffctl(skiff::test::ServiceStack& stack, std::vector<std::string> args) {
    args.insert(args.begin(), {skiff::test::buildPath("src/ctl/skiffctl"), "--timeout", "600"});
    skiff::test::ChildProcess process(args, stack.environment());
    const auto status = process.waitForExit(std::chrono::minutes(10));
    if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
        throw std::runtime_error("skiffctl " + args[3] + " failed:\n" + process.output());
    }
}

// "Download: 123.45 MiB/s (...)" out of the speed test's report.
double rateIn(const std::string& report, const std::string& label) {
    const auto at = report.find(label + ": ");
    if (at == std::string::npos) {
        throw std::runtime_error("no " + label + " in the speed test's report:\n" + report);
    }
    return std::strtod(report.c_str() + at + label.size() + 2, nullptr);
}

void printRate(const char* what, double mibPerSecond, double baseline) {
    std::printf("%-44s %9.1f MiB/s   %5.2fx the slower baseline\n", what, mibPerSecond,
                mibPerSecond / baseline);
}

}  // namespace

int main(int argc, char** argv) {
    ::setenv("SKIFF_BUILD_DIR", SKIFF_BUILD_DIR_DEFAULT, 0);
    const std::uint64_t mib = argc > 1 ? std::stoull(argv[1]) : 256;
    const std::uint64_t bigMib = argc > 2 ? std::stoull(argv[2]) : 1024;
    try {
        skiff::test::TempDir local("skiff-transfer-bench");
        skiff::test::ServiceStack stack([&](const std::string& storage) {
            writeFile(fs::path(storage) / "big.bin", bigMib * 1024 * 1024);
            writeFile(fs::path(storage) / "file.bin", mib * 1024 * 1024);
        });
        const auto bytes = static_cast<double>(mib) * kMiB;
        const fs::path out = fs::path(local.path()) / "out.bin";

        // The 1 GiB fetch first, on a fresh skiffd, so that its peak is the fetch's own.
        const std::uint64_t idle = stack.service().peakResidentBytes();
        const double bigSeconds = secondsOf([&] {
            skiffctl(stack, {"pull", "big.bin", out.string()});
        });
        const std::uint64_t peak = stack.service().peakResidentBytes();
        fs::remove(out);

        auto client = stack.connect();
        client->setCallTimeout(std::chrono::minutes(5));
        const fs::path source = fs::path(stack.storage()) / "file.bin";
        // Rounds interleave every figure, so that a change of machine load hits all alike;
        // each is the median of its rounds.
        std::vector<double> tunnelDowns, tunnelUps, copies, fetches, pushes;
        for (int round = 0; round < kRounds; ++round) {
            const auto [ok, report] = client->runUsbMuxSpeedTest();
            if (!ok) {
                throw std::runtime_error("speed test failed: " + report);
            }
            tunnelDowns.push_back(rateIn(report, "Download"));
            tunnelUps.push_back(rateIn(report, "Upload"));
            copies.push_back(bytes / secondsOf([&] { plainCopy(source, out); }) / kMiB);
            fs::remove(out);
            fetches.push_back(bytes / secondsOf([&] {
                                  skiffctl(stack, {"pull", "file.bin", out.string()});
                              }) /
                              kMiB);
            pushes.push_back(bytes / secondsOf([&] {
                                 skiffctl(stack, {"push", out.string(), "pushed.bin"});
                             }) /
                             kMiB);
            fs::remove(out);
        }
        const double tunnelDown = median(tunnelDowns);
        const double tunnelUp = median(tunnelUps);
        const double copy = median(copies);
        const double fetch = median(fetches);
        const double push = median(pushes);

        std::printf(
            "whole-file transfers of %llu MiB (skiffctl, skiffd, simulated phone), "
            "medians of %d rounds\n",
            static_cast<unsigned long long>(mib), kRounds);
        const double slowerDown = std::min(tunnelDown, copy);
        const double slowerUp = std::min(tunnelUp, copy);
        std::printf("%-44s %9.1f MiB/s\n", "baseline: raw tunnel download (speed test)",
                    tunnelDown);
        std::printf("%-44s %9.1f MiB/s\n", "baseline: raw tunnel upload (speed test)", tunnelUp);
        std::printf("%-44s %9.1f MiB/s\n", "baseline: plain copy on the same disk", copy);
        printRate("fetch (skiffctl pull)", fetch, slowerDown);
        printRate("push (skiffctl push)", push, slowerUp);
        std::printf("goal: each at least 0.70x the slower of its baselines\n\n");

        std::printf(
            "%llu MiB fetch: %.1f MiB/s; skiffd peak resident (VmHWM) %.1f MiB "
            "(%.1f MiB before it)\n",
            static_cast<unsigned long long>(bigMib), static_cast<double>(bigMib) / bigSeconds,
            static_cast<double>(peak) / kMiB, static_cast<double>(idle) / kMiB);
        std::printf("goal: peak below 64 MiB\n");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "transfer_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
