#pragma once
// A private session bus for tests: its own dbus-daemon on a socket in a temporary
// directory, stopped (and the directory removed) when the object goes away.

#include <memory>
#include <string>

#include "support/child_process.hpp"

namespace skiff::testing {

class TestBus {
public:
    TestBus();  // throws std::runtime_error when the daemon does not come up
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    // What DBUS_SESSION_BUS_ADDRESS would hold for this bus.
    const std::string& address() const { return address_; }

    // Kills the daemon at once (SIGKILL), as a crash would: every connection drops.
    void kill();

private:
    test::TempDir dir_{"skiff-bus"};
    std::unique_ptr<test::ChildProcess> daemon_;
    std::string address_;
};

}  // namespace skiff::testing
