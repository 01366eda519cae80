#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

#include "sim/control_command.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view line(reinterpret_cast<const char*>(data), size);
    auto parsed = skiff::sim::parseControlCommand(line);
    if (auto* command = std::get_if<skiff::sim::ControlCommand>(&parsed)) {
        skiff::sim::ControlReply reply;
        reply.lines.push_back(command->udid);
        (void)skiff::sim::formatControlReply(reply);
    }
    return 0;
}
