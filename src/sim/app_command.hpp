#pragma once

// Control commands of the companion app, parsed from a whole control line:
//   push CODE [BODY]        a push frame to every framed connection; data line: how many
//   poke created|deleted RELAYID
//                           an itemMutation push (code 4) naming the item, to every framed
//                           connection; data line: how many
//   flood CODE BYTES SECONDS
//                           push frames with BYTES filler bytes each (up to a frame's
//                           largest payload) to every framed connection, back to back
//                           for SECONDS (1 to 600), then stops; data line: how many
//   fault silent on|off     read requests but leave them unanswered (off answers them)
//   fault close on|off      close the connection instead of answering a request or a
//                           measurement line
//   fault status CODE|off   answer every request with CODE and an empty body
//   fault delay MS          hold every answer back by MS milliseconds (0: no delay)
//   fault pong TEXT|off     the line that answers PING ("PONG" when off)
//   fault ack TEXT|off      the line after a download ("BW:DOWN:OK:<N>" when off)
//   fault fail-chunk N|off  answer the N-th chunk request (reads and writes, counted
//                           from 1 after this command) with ioError (5)
//   fault drop-at-chunk N|off
//                           close the connection when the N-th chunk request arrives
//   fault endless-list on|off
//                           every listing page has a next cursor: the listing never ends
//   fault bad-names on|off  listing pages also carry entries named "", ".", "..", "a/b"
//                           and one holding a NUL byte
//   fault non-utf8-name on|off
//                           listing pages also carry an entry whose name is not UTF-8
//                           (raw bytes in the JSON text)
//   fault foreign-entry on|off
//                           listing pages also carry an entry of another folder
//   fault short-chunk on|off
//                           chunk reads (9) and range reads (10) answer half the bytes
//                           they have, though not at the item's end
//   fault clear             every fault off
//   inject unknown-flow     a response frame for a flow nobody asked for, to every
//                           framed connection; data line: how many
//   inject bad-header       16 bytes that are no frame header, likewise
//   received                what the measurement connections received, one line each
// BODY, TEXT and RELAYID are the rest of the line; "" stands for the empty text.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "common/notification_payloads.hpp"

namespace skiff::sim {

inline constexpr std::uint32_t kFloodMaxSeconds = 600;

enum class AppVerb { push, poke, flood, fault, inject, received };
enum class AppFault {
    silent,
    close,
    status,
    delay,
    pong,
    ack,
    failChunk,
    dropAtChunk,
    endlessList,
    badNames,
    nonUtf8Name,
    foreignEntry,
    shortChunk,
    clear,
};
enum class AppInjection { unknownFlow, badHeader };

struct AppCommand {
    AppVerb verb = AppVerb::received;
    std::uint16_t code = 0;  // push, flood: the push code; fault status: the answer code
    std::string text;        // push: the body; poke: the relay id; fault pong/ack: the line
    service::ItemMutationNotifyPayload::Kind pokeKind{};
    AppFault fault = AppFault::clear;
    bool on = false;            // the fault is switched on (pong/ack: text replaces the default)
    std::uint32_t delayMs = 0;  // fault delay
    std::uint64_t chunk = 0;    // fault fail-chunk, drop-at-chunk: which one, from 1
    AppInjection injection = AppInjection::unknownFlow;
    std::uint32_t floodBytes = 0;    // flood: the body size of each push
    std::uint32_t floodSeconds = 0;  // flood: how long it lasts
};

bool isAppVerb(std::string_view word);

// The command, or the error text when the line is not one.
std::variant<AppCommand, std::string> parseAppCommand(std::string_view line);

}  // namespace skiff::sim
