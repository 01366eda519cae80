#pragma once
// The mount service's failures, with the messages people see in logs and in skiffctl.
// A tool that cannot be launched is reported as std::system_error instead.

#include <stdexcept>
#include <string>

namespace skiff::mount {

class MountServiceError : public std::runtime_error {
public:
    enum class Case { sourceUnavailable, commandFailed, timedOut, alreadyMounted, notMounted };

    static MountServiceError sourceUnavailable(const std::string& text) {
        return {Case::sourceUnavailable, "Passthrough source directory is unavailable: " + text};
    }
    static MountServiceError commandFailed(const std::string& text) {
        return {Case::commandFailed, text};
    }
    static MountServiceError timedOut(const std::string& text) { return {Case::timedOut, text}; }
    static MountServiceError alreadyMounted() {
        return {Case::alreadyMounted, "Skiff is already mounted."};
    }
    static MountServiceError notMounted() { return {Case::notMounted, "Skiff is not mounted."}; }

    Case errorCase() const { return case_; }

private:
    MountServiceError(Case c, const std::string& message) : std::runtime_error(message), case_(c) {}

    Case case_;
};

}  // namespace skiff::mount
