#pragma once
// Typed failures of the tunnel protocol: the engine's and the transport's.

#include <cstdint>
#include <exception>

namespace skiff::tunnel {

class TunnelEngineError : public std::exception {
public:
    enum class Case {
        unknownFlow,
        notBound,
        notStarted,
        invalidFrame,
        disconnected,
        payloadTooLarge,
        protocolViolation
    };

    explicit TunnelEngineError(Case c) : case_(c) {}
    static TunnelEngineError unknownFlow(std::uint32_t flow) {
        TunnelEngineError error(Case::unknownFlow);
        error.flow_ = flow;
        return error;
    }

    Case errorCase() const { return case_; }
    // The flow value of an unknownFlow error; 0 for every other case.
    std::uint32_t flow() const { return flow_; }
    const char* what() const noexcept override;

private:
    Case case_;
    std::uint32_t flow_ = 0;
};

class TunnelTransportError : public std::exception {
public:
    enum class Case { disconnected, ioFailed };

    explicit TunnelTransportError(Case c) : case_(c) {}
    Case errorCase() const { return case_; }
    const char* what() const noexcept override;

private:
    Case case_;
};

}  // namespace skiff::tunnel
