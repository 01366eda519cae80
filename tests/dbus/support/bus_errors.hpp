#pragma once
// The bus error a call ends with, for tests that expect one.

#include <string>

#include "service/dbus/bus_error.hpp"

namespace skiff::testing {

// The D-Bus error name `call` throws, or "no error".
template <class Call>
std::string busErrorOf(Call&& call) {
    try {
        call();
    } catch (const service::dbus::BusError& e) {
        return e.name();
    }
    return "no error";
}

}  // namespace skiff::testing
