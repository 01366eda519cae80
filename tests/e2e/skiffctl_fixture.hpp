#pragma once
// skiffctl as people and scripts use it: separate processes against a running skiffd.
// Every process a test starts is stopped with the fixture.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "common/json.hpp"
#include "e2e/service_stack.hpp"

namespace skiff::test {

struct CtlRun {
    int exitStatus = -1;
    std::string output;  // standard output and standard error together
};

class SkiffctlFixture : public ::testing::Test {
protected:
    explicit SkiffctlFixture(std::function<void(const std::string&)> prepare = writeNotes)
        : stack_(std::move(prepare)) {}

    std::unique_ptr<ChildProcess> start(std::vector<std::string> args,
                                        std::vector<std::string> extraEnv = {}) {
        args.insert(args.begin(), buildPath("src/ctl/skiffctl"));
        auto env = stack_.environment();
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return std::make_unique<ChildProcess>(std::move(args), std::move(env));
    }

    CtlRun run(std::vector<std::string> args, std::vector<std::string> extraEnv = {}) {
        return finish(*start(std::move(args), std::move(extraEnv)));
    }

    static CtlRun finish(ChildProcess& process) {
        const auto status = process.waitForExit(kE2eWait);
        // The exit can be seen before the last output is read; waitForOutput returns once
        // the output has ended when the text never comes.
        process.waitForOutput(std::string_view("\0", 1), kE2eWait);
        CtlRun result;
        result.output = process.output();
        if (status && WIFEXITED(*status)) {
            result.exitStatus = WEXITSTATUS(*status);
        }
        return result;
    }

    ServiceStack stack_;
};

inline std::vector<json::Json> jsonLines(const std::string& output) {
    std::vector<json::Json> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        auto parsed = json::parse(Bytes(line.begin(), line.end()));
        if (parsed) {
            lines.push_back(std::move(*parsed));
        }
    }
    return lines;
}

}  // namespace skiff::test
