#pragma once

// The control line protocol: one command per line, answered by zero or more data lines
// and then a line "ok" or "error: <why>".
//   list                 one line per attached device: "<handle> <udid>"
//   attach UDID          data line: the new handle
//   detach UDID
//   replug UDID          detach and attach again; data line: the new handle
//   connections          one line per open device-side stream: "<handle> <port> <udid>"
//   drop [UDID]          close the device-side streams (of one device, or all);
//                        data line: how many were closed
// A UDID written as "" stands for the empty UDID (a device that reports none; libusbmuxd
// refuses such a record and keeps reconnecting, so it is for probing other clients).

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "sim/app_command.hpp"

namespace skiff::sim {

inline constexpr size_t kControlMaxLine = 4096;

enum class ControlVerb { list, attach, detach, replug, drop, connections, app };

struct ControlCommand {
    ControlVerb verb = ControlVerb::list;
    std::string udid;
    bool hasUdid = false;
    AppCommand app;  // verb app
};

struct ControlReply {
    bool ok = true;
    std::vector<std::string> lines;
    std::string error;
};

// The error text when the line is not a command.
std::variant<ControlCommand, std::string> parseControlCommand(std::string_view line);

ControlReply controlError(std::string why);

std::string formatControlReply(const ControlReply& reply);

}  // namespace skiff::sim
