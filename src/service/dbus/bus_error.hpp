#pragma once
// A failed bus call as callers outside the adapter see it: the D-Bus error name
// (e.g. "org.freedesktop.DBus.Error.NotSupported") and its message.

#include <stdexcept>
#include <string>

namespace skiff::service::dbus {

class BusError : public std::runtime_error {
public:
    BusError(std::string name, std::string message);

    const std::string& name() const { return name_; }
    const std::string& message() const { return message_; }

private:
    std::string name_;
    std::string message_;
};

}  // namespace skiff::service::dbus
