// Figures of the mounted volume, each next to a baseline measured in the same run, with the
// ratio and the goal it is held to. One phone per link setting (unshaped, 1 and 10 ms round trips,
// USB 2); the baselines are a local folder, raw chunk relays, `skiffctl push` and the link
// rate. fio jobs with crc32c verify prove the bytes as well. Prints; asserts nothing.
//   SKIFF_BUILD_DIR=build/release volume_bench [MiB [LINK...]]
//   (sequential file size, default 256; only the cases of the links named, default all)

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/json.hpp"
#include "common/shared_memory.hpp"
#include "e2e/service_stack.hpp"
#include "relay/relay_schema.hpp"
#include "transfer/file_io_records.hpp"

using namespace skiff;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kGiB = 1024 * kMiB;
constexpr double kUsb2MBps = 35;  // the usb2 preset of the simulated link
constexpr int kSmallFiles = 100;  // per-operation medians are taken over this many 4 KiB files
constexpr int kTreeFiles = 1000;

double secondsOf(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double mibPerSecond(std::uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / kMiB / seconds : 0;
}

void makeFile(const fs::path& path, std::uint64_t bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    std::vector<char> block(std::min(bytes, kMiB), 'x');
    for (std::uint64_t done = 0; done < bytes; done += block.size()) {
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
}

// What every folder under measure holds before it is measured: the phone's storage and the
// local folder alike, so that each figure and its baseline touch the same names.
void prepare(const fs::path& folder, std::uint64_t seqBytes, bool withGiB) {
    makeFile(folder / "seq.bin", seqBytes);
    makeFile(folder / "random.bin", 64 * kMiB);
    for (int i = 0; i < kSmallFiles; ++i) {
        makeFile(folder / "small" / ("r" + std::to_string(i)), 4096);
    }
    fs::create_directories(folder / "thousand");
    for (int i = 0; i < kTreeFiles; ++i) {
        std::ofstream(folder / "thousand" / ("entry" + std::to_string(i)));
    }
    if (withGiB) {
        makeFile(folder / "gib.bin", kGiB);
    }
}

// Reads the whole file in 1 MiB reads.
void readAll(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path.string());
    }
    std::vector<char> buffer(kMiB);
    while (::read(fd, buffer.data(), buffer.size()) > 0) {
    }
    ::close(fd);
}

// Writes bytes in writes of at most 1 MiB and closes (the push happens at close).
void writeAll(const fs::path& path, std::uint64_t bytes) {
    std::vector<char> block(std::min(bytes, kMiB), 'y');
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (std::uint64_t done = 0; fd >= 0 && done < bytes; done += block.size()) {
        if (::write(fd, block.data(), block.size()) < 0) {
            break;
        }
    }
    if (fd < 0 || ::close(fd) != 0) {
        throw std::runtime_error("write through " + path.string() + " failed");
    }
}

int shell(const std::string& command, std::string* output = nullptr) {
    test::ChildProcess child({"/bin/sh", "-c", command});
    const auto status = child.waitForExit(std::chrono::minutes(10));
    if (output) {
        *output = child.output();
    }
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

std::string quoted(const fs::path& path) {
    return "'" + path.string() + "'";
}

// User plus system CPU seconds a process has spent so far.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) {
            ticks += std::strtod(field.c_str(), nullptr);  // utime and stime
        }
    }
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// One phone with one link setting, skiffd, and skiff-fs mounted on them; all gone with it.
class MountedStack {
public:
    MountedStack(std::vector<std::string> phoneArgs, std::uint64_t seqBytes, bool withGiB)
        : stack_([&](const std::string& storage) { prepare(storage, seqBytes, withGiB); }, {}, {},
                 std::move(phoneArgs)),
          dir_("skiff-bench-mnt") {
        volume_ = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{test::buildPath("src/volume/skiff-fs"), "skiff-bench",
                                     dir_.path(), "-f"},
            stack_.environment());
        if (!volume_->waitForOutput("skiff-fs: mounted", test::kE2eWait)) {
            throw std::runtime_error("skiff-fs did not mount:\n" + volume_->output());
        }
        for (int tries = 0; tries < 300 && !fs::exists(path() / "seq.bin"); ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the phone's arrival
        }
    }
    ~MountedStack() {
        shell("fusermount3 -u -z " + quoted(path()));
        volume_->stop();
    }
    MountedStack(const MountedStack&) = delete;
    MountedStack& operator=(const MountedStack&) = delete;

    fs::path path() const { return dir_.path(); }
    test::ServiceStack& stack() { return stack_; }
    test::ChildProcess& volume() { return *volume_; }

private:
    test::ServiceStack stack_;
    test::TempDir dir_;
    std::unique_ptr<test::ChildProcess> volume_;
};

// The same chunks a read asks for, relayed by a second client straight through the service.
double rawRelaySeconds(test::ServiceStack& stack, const std::string& identifier,
                       std::uint64_t bytes) {
    auto client = stack.connect();
    client->registerClient(1);
    auto buffer = SharedMemory::create(kMiB + service::kMaxRelayBodyBytes, "bench");
    const auto id = client->registerSharedBuffer(buffer->fd());
    return secondsOf([&] {
        for (std::uint64_t offset = 0; offset < bytes; offset += transfer::kChunkSize) {
            const auto body = transfer::encodeReadChunkRequest(identifier, offset).value();
            std::copy(body.begin(), body.end(), buffer->bytes().begin());
            const auto reply = client->relayToUsbMuxShared(
                static_cast<std::int64_t>(relay::UsbMuxRelaySelector::readChunk), id, 0,
                body.size(), kMiB, service::kMaxRelayBodyBytes);
            if (reply.status != 0) {
                throw std::runtime_error("raw relay failed");
            }
        }
    });
}

double pushSeconds(test::ServiceStack& stack, const fs::path& file, const std::string& name) {
    const std::vector<std::string> args{
        test::buildPath("src/ctl/skiffctl"), "--timeout", "600", "push", file.string(), name};
    return secondsOf([&] {
        test::ChildProcess process(args, stack.environment());
        const auto status = process.waitForExit(std::chrono::minutes(10));
        if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
            throw std::runtime_error("skiffctl push failed:\n" + process.output());
        }
    });
}

// Median milliseconds of `op` over the small files, each file once.
double medianMs(const fs::path& folder, const std::function<void(const fs::path&, int)>& op) {
    std::vector<double> ms;
    for (int i = 0; i < kSmallFiles; ++i) {
        ms.push_back(1e3 * secondsOf([&] { op(folder, i); }));
    }
    std::nth_element(ms.begin(), ms.begin() + kSmallFiles / 2, ms.end());
    return ms[kSmallFiles / 2];
}

struct FioJob {
    const char* rw;
    const char* blockSize;
    const char* size;
    const char* extra;  // verify and timing options
};

// Runs fio in `folder`; its IOPS and MiB/s, reads and writes summed. A failed job, and
// above all a failed verify, is printed in full: a wrong byte matters more than any rate.
std::pair<double, double> fio(const fs::path& folder, const std::string& name, const FioJob& job) {
    test::TempDir out("skiff-bench-fio");
    const fs::path report = fs::path(out.path()) / "report.json";
    const std::string command =
        "fio --name=" + name + " --filename=" + quoted(folder / name) + " --rw=" + job.rw +
        " --bs=" + job.blockSize + " --size=" + job.size +
        " --ioengine=psync --iodepth=1 --fallocate=none --verify_state_save=0" +
        " --output-format=json --output=" + quoted(report) + " " + job.extra;
    std::string output;
    const int status = shell(command, &output);
    std::ifstream in(report);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto start = std::min(text.find('{'), text.size());  // fio may note things first
    const auto doc = json::parse(
        std::span(reinterpret_cast<const std::uint8_t*>(text.data()) + start, text.size() - start));
    const bool ok = status == 0 && doc && doc->contains("jobs") && !(*doc)["jobs"].empty() &&
                    (*doc)["jobs"][0].value("error", 1) == 0;
    if (!ok) {
        std::printf(
            "!!!!!! FIO JOB %s FAILED in %s (exit %d): VERIFY OR I/O ERROR !!!!!!\n%s\n%s\n",
            name.c_str(), folder.c_str(), status, output.c_str(), text.c_str());
        return {NAN, NAN};
    }
    const auto& j = (*doc)["jobs"][0];
    const auto sum = [&](const char* key) {
        return j["read"].value(key, 0.0) + j["write"].value(key, 0.0);
    };
    return {sum("iops"), sum("bw_bytes") / kMiB};
}

enum class Goal { none, atMost, atLeast, ratioAtMost, ratioAtLeast };

struct Figure {
    double value = NAN;
    double baseline = NAN;
};

struct Case {
    const char* link;  // the phone it runs on: "unshaped", "1 ms" or "usb2"
    const char* what;
    const char* unit;
    const char* against;
    Goal goal;
    double limit;
    std::function<Figure()> measure;
};

// `note` follows the goal on the line.
void print(const Case& c, const Figure& f, const std::string& note) {
    const double ratio = f.value / f.baseline;
    const bool onRatio = c.goal == Goal::ratioAtMost || c.goal == Goal::ratioAtLeast;
    const double judged = onRatio ? ratio : f.value;
    const bool atMost = c.goal == Goal::atMost || c.goal == Goal::ratioAtMost;
    std::string goal = "-";
    if (c.goal != Goal::none) {
        char text[64];
        std::snprintf(text, sizeof text, "%s %s%g %s: %s", atMost ? "<=" : ">=", onRatio ? "x" : "",
                      c.limit, onRatio ? "" : c.unit,
                      std::isnan(judged)                                 ? "FAILED"
                      : (atMost ? judged <= c.limit : judged >= c.limit) ? "met"
                                                                         : "MISSED");
        goal = text;
    }
    std::printf("[%-8s] %-38s %10.3f %-6s | %-22s %10.3f | x%7.3f | %s%s\n", c.link, c.what,
                f.value, c.unit, c.against, f.baseline, ratio, goal.c_str(), note.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t size = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 256) * kMiB;
    test::TempDir localDir("skiff-bench-local");
    const fs::path local = localDir.path();
    prepare(local, size, false);
    for (int i = 0; i < kTreeFiles; ++i) {
        makeFile(local / "tree" / ("f" + std::to_string(i)), 4096);
    }

    struct Link {
        std::vector<std::string> phoneArgs;
        double roundTripMs = 0;
    };
    const std::map<std::string, Link> links{{"unshaped", {}},
                                            {"1 ms", {{"--link-latency", "1"}, 1}},
                                            {"10 ms", {{"--link-latency", "10"}, 10}},
                                            {"usb2", {{"--link", "usb2"}, 0}}};
    std::unique_ptr<MountedStack> on;
    std::string onLink;
    std::map<std::string, double> cpu;       // filled by the 1 GiB read and the sequential write
    std::map<std::string, double> unshaped;  // figures of the unshaped phone, by what

    // On the unshaped phone and on phones with a round trip: the difference over the round
    // trip is the number of them an operation waits for one after the other.
    const auto smallCases = [&](const char* link, bool withGoals, bool withTree) {
        const auto goal = withGoals ? Goal::atMost : Goal::none;
        const auto both = [&](const std::function<double(const fs::path&)>& one) {
            return [&, one] { return Figure{one(on->path()), one(local)}; };
        };
        std::vector<Case> small{
            {link, "copy in a 4 KiB file (median)", "ms", "local folder", goal, 1.5,
             both([&](const fs::path& to) {
                 return medianMs(to, [&](const fs::path& dir, int i) {
                     fs::copy_file(local / "small" / ("r" + std::to_string(i)),
                                   dir / ("in" + std::to_string(i)));
                 });
             })},
            {link, "read a 4 KiB file (median)", "ms", "local folder", goal, 1.5,
             both([&](const fs::path& from) {
                 return medianMs(from, [&](const fs::path& dir, int i) {
                     readAll(dir / "small" / ("r" + std::to_string(i)));
                 });
             })},
            {link, "remove a 4 KiB file (median)", "ms", "local folder", goal, 1.2,
             both([&](const fs::path& at) {
                 return medianMs(at, [&](const fs::path& dir, int i) {
                     fs::remove(dir / ("in" + std::to_string(i)));
                 });
             })},
            {link, "cp -r of 1,000 4 KiB files", "s", "local folder", goal, 1.5,
             both([&](const fs::path& to) {
                 fs::remove_all(local / "tree-copy");
                 return secondsOf([&] {
                     shell("cp -r " + quoted(local / "tree") + " " + quoted(to / "tree-copy"));
                 });
             })},
        };
        if (!withTree) {
            small.pop_back();
        }
        return small;
    };
    const auto fioCase = [&](const char* what, const char* name, FioJob job) {
        return Case{
            "unshaped", what, "MiB/s", "local folder", Goal::none, 0, [&, name, job] {
                return Figure{fio(on->path(), name, job).second, fio(local, name, job).second};
            }};
    };
    constexpr const char* kVerify = "--verify=crc32c --do_verify=1 --verify_fatal=1";
    constexpr const char* kReverify = "--verify=crc32c --verify_only --verify_fatal=1";

    std::vector<Case> cases{
        {"unshaped", "ls -l of 1,000 entries, cold", "ms", "local folder", Goal::ratioAtMost, 2,
         [&] {
             const auto ls = [](const fs::path& dir) {
                 return 1e3 * secondsOf([&] { shell("ls -l " + quoted(dir) + " > /dev/null"); });
             };
             return Figure{ls(on->path() / "thousand"), ls(local / "thousand")};
         }},
        {"unshaped", "sequential read", "MiB/s", "raw chunk relays", Goal::ratioAtLeast, 0.9,
         [&] {
             const double raw = rawRelaySeconds(on->stack(), "seq.bin", size);
             return Figure{mibPerSecond(size, secondsOf([&] { readAll(on->path() / "seq.bin"); })),
                           mibPerSecond(size, raw)};
         }},
        {"unshaped", "second read of an unchanged file", "MiB/s", "local folder",
         Goal::ratioAtLeast, 0.5,
         [&] {
             return Figure{mibPerSecond(size, secondsOf([&] { readAll(on->path() / "seq.bin"); })),
                           mibPerSecond(size, secondsOf([&] { readAll(local / "seq.bin"); }))};
         }},
        {"unshaped", "sequential write, open to close", "MiB/s", "skiffctl push",
         Goal::ratioAtLeast, 0.9,
         [&] {
             const double push = pushSeconds(on->stack(), local / "seq.bin", "pushed.bin");
             const double fsBefore = cpuSeconds(on->volume().pid());
             const double dBefore = cpuSeconds(on->stack().service().pid());
             const double seconds = secondsOf([&] { writeAll(on->path() / "written.bin", size); });
             const double gib = static_cast<double>(size) / kGiB;
             cpu["fs write"] = (cpuSeconds(on->volume().pid()) - fsBefore) / gib;
             cpu["d write"] = (cpuSeconds(on->stack().service().pid()) - dBefore) / gib;
             return Figure{mibPerSecond(size, seconds), mibPerSecond(size, push)};
         }},
        {"unshaped", "fio randread 4k, queue depth 1", "IOPS", "local folder", Goal::atLeast, 2000,
         [&] {
             const FioJob job{"randread", "4k", "64m", "--runtime=10 --time_based"};
             return Figure{fio(on->path(), "random.bin", job).first,
                           fio(local, "random.bin", job).first};
         }},
        fioCase("fio sequential write + crc32c verify", "verify-seq.bin",
                {"write", "1m", "32m", kVerify}),
        fioCase("fio sequential re-read, verified", "verify-seq.bin",
                {"write", "1m", "32m", kReverify}),
        fioCase("fio random 4k write + crc32c verify", "verify-rand.bin",
                {"randwrite", "4k", "8m", kVerify}),
        fioCase("fio random 4k re-read, verified", "verify-rand.bin",
                {"randwrite", "4k", "8m", kReverify}),
        {"unshaped", "read 1 GiB", "MiB/s", "phone's storage folder", Goal::none, 0,
         [&] {
             const double fsBefore = cpuSeconds(on->volume().pid());
             const double dBefore = cpuSeconds(on->stack().service().pid());
             const double seconds = secondsOf([&] { readAll(on->path() / "gib.bin"); });
             cpu["fs read"] = cpuSeconds(on->volume().pid()) - fsBefore;
             cpu["d read"] = cpuSeconds(on->stack().service().pid()) - dBefore;
             const double storage =
                 secondsOf([&] { readAll(fs::path(on->stack().storage()) / "gib.bin"); });
             return Figure{mibPerSecond(kGiB, seconds), mibPerSecond(kGiB, storage)};
         }},
        {"unshaped", "skiff-fs CPU per GiB read / written", "s", "per GiB written", Goal::none, 0,
         [&] {
             return Figure{cpu["fs read"], cpu["fs write"]};
         }},
        {"unshaped", "skiffd CPU per GiB read / written", "s", "per GiB written", Goal::none, 0,
         [&] {
             return Figure{cpu["d read"], cpu["d write"]};
         }},
        {"unshaped", "skiff-fs peak memory (VmHWM)", "MiB", "-", Goal::none, 0,
         [&] {
             return Figure{static_cast<double>(on->volume().peakResidentBytes()) / kMiB, NAN};
         }},
        {"usb2", "copy a file in", "MB/s", "link rate", Goal::ratioAtLeast, 0.9,
         [&] {
             const double s =
                 secondsOf([&] { fs::copy_file(local / "seq.bin", on->path() / "copied-in.bin"); });
             return Figure{static_cast<double>(size) / 1e6 / s, kUsb2MBps};
         }},
        {"usb2", "copy a file out", "MB/s", "link rate", Goal::ratioAtLeast, 0.9,
         [&] {
             fs::remove(local / "copied-out.bin");
             const double s = secondsOf(
                 [&] { fs::copy_file(on->path() / "seq.bin", local / "copied-out.bin"); });
             return Figure{static_cast<double>(size) / 1e6 / s, kUsb2MBps};
         }},
    };
    const auto unshapedSmall = smallCases("unshaped", false, true);
    cases.insert(cases.begin() + 1, unshapedSmall.begin(), unshapedSmall.end());
    for (const auto& more : {smallCases("1 ms", true, true), smallCases("10 ms", false, false)}) {
        cases.insert(cases.end(), more.begin(), more.end());
    }

    std::printf("sequential file %llu MiB; [link] figure value unit | baseline | ratio | goal\n",
                static_cast<unsigned long long>(size / kMiB));
    const std::vector<std::string> only(argv + std::min(argc, 2), argv + argc);
    for (const auto& c : cases) {
        if (!only.empty() && std::find(only.begin(), only.end(), c.link) == only.end()) {
            continue;
        }
        if (onLink != c.link) {
            on.reset();
            onLink = c.link;
            on = std::make_unique<MountedStack>(links.at(onLink).phoneArgs, size,
                                                onLink == "unshaped");
        }
        try {
            const auto figure = c.measure();
            // A figure less the unshaped one, over the round trip: the round trips it waits
            // for one after the other (per file for cp -r).
            std::string note;
            const double roundTrip = links.at(onLink).roundTripMs;
            if (onLink == "unshaped") {
                unshaped[c.what] = figure.value;
            } else if (roundTrip > 0 && unshaped.contains(c.what)) {
                const double ms = std::string(c.unit) == "s" ? 1e3 / kTreeFiles : 1;
                char text[64];
                std::snprintf(text, sizeof text, "  (~%.1f serial round trips)",
                              (figure.value - unshaped[c.what]) * ms / roundTrip);
                note = text;
            }
            print(c, figure, note);
        } catch (const std::exception& e) {
            std::printf("[%-8s] %-38s FAILED: %s\n", c.link, c.what, e.what());
        }
    }
    return 0;
}
