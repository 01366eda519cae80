#include "sim/control_command.hpp"

namespace skiff::sim {
namespace {

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) {
            ++i;
        }
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') {
            ++i;
        }
        if (i > start) {
            out.push_back(line.substr(start, i - start));
        }
    }
    return out;
}

}  // namespace

std::variant<ControlCommand, std::string> parseControlCommand(std::string_view line) {
    auto w = words(line);
    if (w.empty()) {
        return std::string("empty command");
    }
    if (isAppVerb(w[0])) {
        auto app = parseAppCommand(line);
        if (auto* error = std::get_if<std::string>(&app)) {
            return *error;
        }
        ControlCommand command;
        command.verb = ControlVerb::app;
        command.app = std::get<AppCommand>(std::move(app));
        return command;
    }
    ControlCommand command;
    bool needsUdid = true;
    bool mayHaveUdid = true;
    if (w[0] == "list") {
        command.verb = ControlVerb::list;
        needsUdid = mayHaveUdid = false;
    } else if (w[0] == "attach") {
        command.verb = ControlVerb::attach;
    } else if (w[0] == "detach") {
        command.verb = ControlVerb::detach;
    } else if (w[0] == "replug") {
        command.verb = ControlVerb::replug;
    } else if (w[0] == "connections") {
        command.verb = ControlVerb::connections;
        needsUdid = mayHaveUdid = false;
    } else if (w[0] == "drop") {
        command.verb = ControlVerb::drop;
        needsUdid = false;
    } else {
        return "unknown command " + std::string(w[0]);
    }
    size_t maxWords = mayHaveUdid ? 2 : 1;
    if (w.size() > maxWords || (needsUdid && w.size() < 2)) {
        return std::string(w[0]) + (needsUdid ? " takes one UDID" : " takes no UDID");
    }
    if (w.size() == 2) {
        command.hasUdid = true;
        command.udid = w[1] == "\"\"" ? std::string() : std::string(w[1]);
    }
    return command;
}

ControlReply controlError(std::string why) {
    ControlReply reply;
    reply.ok = false;
    reply.error = std::move(why);
    return reply;
}

std::string formatControlReply(const ControlReply& reply) {
    std::string out;
    for (const auto& line : reply.lines) {
        out += line;
        out += '\n';
    }
    out += reply.ok ? "ok\n" : "error: " + reply.error + "\n";
    return out;
}

}  // namespace skiff::sim
