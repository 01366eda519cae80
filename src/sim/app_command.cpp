#include "sim/app_command.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

#include "tunnel/tunnel_frame.hpp"

namespace skiff::sim {
namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// Splits off the first word; the rest keeps its inner spaces.
std::string_view nextWord(std::string_view& rest) {
    size_t i = 0;
    while (i < rest.size() && isBlank(rest[i])) {
        ++i;
    }
    size_t start = i;
    while (i < rest.size() && !isBlank(rest[i])) {
        ++i;
    }
    std::string_view word = rest.substr(start, i - start);
    rest.remove_prefix(i);
    return word;
}

std::string restText(std::string_view rest) {
    while (!rest.empty() && isBlank(rest.front())) {
        rest.remove_prefix(1);
    }
    while (!rest.empty() && isBlank(rest.back())) {
        rest.remove_suffix(1);
    }
    return rest == "\"\"" ? std::string() : std::string(rest);
}

template <class T>
std::optional<T> number(std::string_view word) {
    T value{};
    auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (word.empty() || error != std::errc() || end != word.data() + word.size()) {
        return std::nullopt;
    }
    return value;
}

std::variant<AppCommand, std::string> parseFault(std::string_view rest) {
    AppCommand command;
    command.verb = AppVerb::fault;
    std::string_view name = nextWord(rest);
    std::string_view peek = rest;
    std::string_view value = nextWord(peek);
    bool single = nextWord(peek).empty();
    if (name == "clear") {
        command.fault = AppFault::clear;
        return value.empty() ? std::variant<AppCommand, std::string>(command)
                             : std::string("fault clear takes nothing");
    }
    static constexpr std::pair<std::string_view, AppFault> kSwitches[] = {
        {"silent", AppFault::silent},
        {"close", AppFault::close},
        {"endless-list", AppFault::endlessList},
        {"bad-names", AppFault::badNames},
        {"non-utf8-name", AppFault::nonUtf8Name},
        {"foreign-entry", AppFault::foreignEntry},
        {"short-chunk", AppFault::shortChunk},
    };
    const auto* found = std::find_if(std::begin(kSwitches), std::end(kSwitches),
                                     [&](const auto& entry) { return entry.first == name; });
    if (found != std::end(kSwitches)) {
        command.fault = found->second;
        if (!single || (value != "on" && value != "off")) {
            return "fault " + std::string(name) + " takes on or off";
        }
        command.on = value == "on";
        return command;
    }
    if (name == "status") {
        command.fault = AppFault::status;
        command.on = value != "off";
        auto code = number<std::uint16_t>(value);
        if (!single || (command.on && !code)) {
            return std::string("fault status takes a code of 0 to 65535, or off");
        }
        command.code = code.value_or(0);
        return command;
    }
    if (name == "delay") {
        command.fault = AppFault::delay;
        auto ms = number<std::uint32_t>(value);
        if (!single || !ms) {
            return std::string("fault delay takes milliseconds");
        }
        command.delayMs = *ms;
        command.on = *ms > 0;
        return command;
    }
    if (name == "fail-chunk" || name == "drop-at-chunk") {
        command.fault = name == "fail-chunk" ? AppFault::failChunk : AppFault::dropAtChunk;
        command.on = value != "off";
        auto chunk = number<std::uint64_t>(value);
        if (!single || (command.on && (!chunk || *chunk == 0))) {
            return "fault " + std::string(name) + " takes a chunk number from 1, or off";
        }
        command.chunk = chunk.value_or(0);
        return command;
    }
    if (name == "pong" || name == "ack") {
        command.fault = name == "pong" ? AppFault::pong : AppFault::ack;
        if (value.empty()) {
            return "fault " + std::string(name) + " takes a line, or off";
        }
        command.on = !(single && value == "off");
        command.text = command.on ? restText(rest) : std::string();
        return command;
    }
    return "unknown fault " + std::string(name);
}

std::variant<AppCommand, std::string> parseFlood(std::string_view rest) {
    AppCommand command;
    command.verb = AppVerb::flood;
    auto code = number<std::uint16_t>(nextWord(rest));
    // Wide enough that any too-large number gets the range in its error.
    auto bytes = number<std::uint64_t>(nextWord(rest));
    auto seconds = number<std::uint64_t>(nextWord(rest));
    if (!code || !bytes || !seconds || !nextWord(rest).empty()) {
        return std::string("flood takes a code of 0 to 65535, a body size in bytes and seconds");
    }
    if (*bytes > tunnel::maxFramePayload) {
        return "flood body size is at most " + std::to_string(tunnel::maxFramePayload) + " bytes";
    }
    if (*seconds < 1 || *seconds > kFloodMaxSeconds) {
        return "flood lasts 1 to " + std::to_string(kFloodMaxSeconds) + " seconds";
    }
    command.code = *code;
    command.floodBytes = static_cast<std::uint32_t>(*bytes);
    command.floodSeconds = static_cast<std::uint32_t>(*seconds);
    return command;
}

}  // namespace

bool isAppVerb(std::string_view word) {
    return word == "push" || word == "poke" || word == "flood" || word == "fault" ||
           word == "inject" || word == "received";
}

std::variant<AppCommand, std::string> parseAppCommand(std::string_view line) {
    std::string_view rest = line;
    std::string_view verb = nextWord(rest);
    AppCommand command;
    if (verb == "push") {
        command.verb = AppVerb::push;
        auto code = number<std::uint16_t>(nextWord(rest));
        if (!code) {
            return std::string("push takes a code of 0 to 65535 and an optional body");
        }
        command.code = *code;
        command.text = restText(rest);
        return command;
    }
    if (verb == "poke") {
        command.verb = AppVerb::poke;
        const auto kind =
            json::enumFromText<service::ItemMutationNotifyPayload::Kind>(nextWord(rest));
        command.text = restText(rest);
        if (!kind || command.text.empty()) {
            return std::string("poke takes created or deleted and a relay id");
        }
        command.pokeKind = *kind;
        return command;
    }
    if (verb == "flood") {
        return parseFlood(rest);
    }
    if (verb == "fault") {
        return parseFault(rest);
    }
    std::string_view what = nextWord(rest);
    bool nothingMore = nextWord(rest).empty();
    if (verb == "inject") {
        command.verb = AppVerb::inject;
        if (what == "unknown-flow" && nothingMore) {
            command.injection = AppInjection::unknownFlow;
        } else if (what == "bad-header" && nothingMore) {
            command.injection = AppInjection::badHeader;
        } else {
            return std::string("inject takes unknown-flow or bad-header");
        }
        return command;
    }
    if (verb == "received") {
        command.verb = AppVerb::received;
        if (!what.empty()) {
            return std::string("received takes nothing");
        }
        return command;
    }
    return "unknown command " + std::string(verb);
}

}  // namespace skiff::sim
