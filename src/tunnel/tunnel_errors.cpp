#include "tunnel/tunnel_errors.hpp"

namespace skiff::tunnel {

const char* TunnelEngineError::what() const noexcept {
    switch (case_) {
        case Case::unknownFlow:
            return "TunnelEngineError.unknownFlow";
        case Case::notBound:
            return "TunnelEngineError.notBound";
        case Case::notStarted:
            return "TunnelEngineError.notStarted";
        case Case::invalidFrame:
            return "TunnelEngineError.invalidFrame";
        case Case::disconnected:
            return "TunnelEngineError.disconnected";
        case Case::payloadTooLarge:
            return "TunnelEngineError.payloadTooLarge";
        case Case::protocolViolation:
            return "TunnelEngineError.protocolViolation";
    }
    return "TunnelEngineError";
}

const char* TunnelTransportError::what() const noexcept {
    return case_ == Case::disconnected ? "TunnelTransportError.disconnected"
                                       : "TunnelTransportError.ioFailed";
}

}  // namespace skiff::tunnel
