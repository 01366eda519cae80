#pragma once

// Faults that make the companion app's answers lie, for tests of how far a client trusts
// the phone. Each is switched from the control interface (sim/app_command.hpp).

#include <cstdint>

#include "common/bytes.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

struct AnswerFaults {
    bool endlessList = false;   // every listing page has a next cursor; the last page repeats
    bool badNames = false;      // listing pages carry entries named "", ".", "..", "a/b", "n\0ul"
    bool nonUtf8Name = false;   // listing pages carry an entry whose name is not UTF-8
    bool foreignEntry = false;  // listing pages carry an entry of another folder
    bool shortChunks = false;   // chunk and range reads answer half the bytes they have

    bool any() const {
        return endlessList || badNames || nonUtf8Name || foreignEntry || shortChunks;
    }
};

// Rewrites a successful answer to the request (code, body) as the faults say.
void distortAnswer(const AnswerFaults& faults, std::uint16_t code, const Bytes& request,
                   tunnel::TunnelMessage& answer);

}  // namespace skiff::sim
