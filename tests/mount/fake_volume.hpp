#pragma once
// A volume made of shell scripts: the fake mount.skiff adds the volume to a fake mount
// table, the fake fusermount3 takes it out, and every tool notes its arguments in a log.
// What a tool does beyond that is chosen per test through files in the directory
// (fail-<tool>, hang-<tool>), so one set of scripts serves every case.

#include <asio.hpp>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "mount/mount_error.hpp"
#include "mount/mount_service.hpp"
#include "support/child_process.hpp"
#include "support/file_text.hpp"

namespace skiff::mount::testing {

namespace fs = std::filesystem;

// What a call failed with, a time-out marked as such.
inline std::string describe(const std::exception& error) {
    const auto* mountError = dynamic_cast<const MountServiceError*>(&error);
    const bool timedOut =
        mountError != nullptr && mountError->errorCase() == MountServiceError::Case::timedOut;
    return (timedOut ? "timedOut: " : "") + std::string(error.what());
}

// "ok", or what the call failed with, worked out on the thread the call ran on: an
// exception handed to the test's thread would be freed by whichever side lets go last,
// through a reference count that ThreadSanitizer cannot see.
inline asio::awaitable<std::string> outcomeOf(asio::awaitable<void> call) {
    try {
        co_await std::move(call);
        co_return "ok";
    } catch (const std::exception& error) {
        co_return describe(error);
    }
}

class FakeVolume {
public:
    FakeVolume() {
        fs::create_directories(tools_);
        // A tool told to hang (on any arguments, or on those in the file) records its pid
        // and waits to be terminated. One told to fail writes the file's text to standard
        // error and exits 1, before doing its work or, with fail-after, after it.
        const std::string before = R"(#!/bin/sh
dir=")" + base_.path() + R"("
name=$(basename "$0")
echo "$name $*" >> "$dir/calls"
if [ -e "$dir/hang-$name" ]; then
    want=$(cat "$dir/hang-$name")
    if [ -z "$want" ] || [ "$want" = "$*" ]; then echo $$ > "$dir/pid-$name"; exec sleep 60; fi
fi
if [ -e "$dir/fail-$name" ]; then cat "$dir/fail-$name" >&2; exit 1; fi
)";
        const std::string after = R"(if [ -e "$dir/fail-after-$name" ]; then exit 1; fi
)";
        script("mount.skiff", before + R"(escaped=$(printf '%s' "$2" | sed 's/ /\\040/g')
printf '%s\n' "200 1 0:77 / $escaped rw,nosuid,nodev shared:9 - fuse.skiff skiff rw" >> "$dir/mountinfo"
)" + after);
        script("fusermount3", before + R"(grep -v fuse.skiff "$dir/mountinfo" > "$dir/mountinfo.new"
mv "$dir/mountinfo.new" "$dir/mountinfo"
)" + after);
        script("xdg-open", before);
        skiff::test::writeFile(table(), "22 1 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n");
    }

    MountServiceOptions options() const {
        return {.mountTool = (tools_ / "mount.skiff").string(),
                .unmountTool = (tools_ / "fusermount3").string(),
                .openTool = (tools_ / "xdg-open").string(),
                .mountTable = table(),
                .mountPoint = mountPoint(),
                .container = container()};
    }

    fs::path dir() const { return base_.path(); }
    // A space in the path makes the table escape it.
    fs::path mountPoint() const { return dir() / "Harbor data" / "mnt"; }
    fs::path container() const { return dir() / "Harbor data" / "group.Mox.Harbor"; }
    fs::path table() const { return dir() / "mountinfo"; }

    // The tools run so far, one "name arguments..." line each.
    std::vector<std::string> calls() const {
        std::vector<std::string> lines;
        std::istringstream in(skiff::test::readFile(dir() / "calls"));
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    void failWith(const std::string& name, const std::string& errorText) const {
        skiff::test::writeFile(dir() / ("fail-" + name), errorText);
    }
    void failAfterWork(const std::string& name) const {
        skiff::test::writeFile(dir() / ("fail-after-" + name), "");
    }
    // Hangs on these arguments only, or on any when empty.
    void hang(const std::string& name, const std::string& arguments = "") const {
        std::ofstream(dir() / ("hang-" + name)) << arguments;
    }
    pid_t hungPid(const std::string& name) const {
        return static_cast<pid_t>(std::stol(skiff::test::readFile(dir() / ("pid-" + name))));
    }
    // Another file system at the mount point, its path escaped as the kernel writes it.
    void addMount(const std::string& type) const {
        std::string at = mountPoint().string();
        for (auto i = at.find(' '); i != std::string::npos; i = at.find(' ', i)) {
            at.replace(i, 1, "\\040");
        }
        std::ofstream(table(), std::ios::app)
            << "300 1 0:88 / " << at << " rw - " << type << " none rw\n";
    }

private:
    void script(const std::string& name, const std::string& text) const {
        skiff::test::writeFile(tools_ / name, text);
        fs::permissions(tools_ / name, fs::perms(0755));
    }

    test::TempDir base_{"skiff-mount"};
    fs::path tools_ = fs::path(base_.path()) / "tools";
};

}  // namespace skiff::mount::testing
