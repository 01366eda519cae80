#include "service/dbus/bus_error.hpp"

#include <utility>

namespace skiff::service::dbus {

BusError::BusError(std::string name, std::string message)
    : std::runtime_error(name + ": " + message),
      name_(std::move(name)),
      message_(std::move(message)) {}

}  // namespace skiff::service::dbus
