// skiffd's relay probe against the simulated phone: an app that falls silent is noticed,
// and so is its return. It takes real periods of 3 s, so there is one such test.

#include <gtest/gtest.h>

#include <string>

#include "common/run_sync.hpp"
#include "e2e/service_stack.hpp"

namespace skiff::test {
namespace {

constexpr const char* kReachable = "[relay-probe] iOS relay reachable";
constexpr const char* kUnreachable = "[relay-probe] iOS relay unreachable";

// Whether `line` was logged after the first `after` in skiffd's output.
bool loggedAfter(ChildProcess& skiffd, const std::string& after, const std::string& line) {
    const auto output = skiffd.output();
    const auto from = output.find(after);
    return from != std::string::npos && output.find(line, from + after.size()) != std::string::npos;
}

TEST(RelayProbeE2eTest, SkiffdNoticesASilentAppAndItsReturn) {
    ServiceStack stack;
    auto& skiffd = stack.service();
    ASSERT_TRUE(skiffd.waitForOutput(kReachable, kE2eWait)) << skiffd.output();

    stack.phone().command("fault silent on");
    ASSERT_TRUE(skiffd.waitForOutput(kUnreachable, kE2eWait)) << skiffd.output();

    stack.phone().command("fault silent off");
    EXPECT_TRUE(skiff::testing::eventually([&] {
        return loggedAfter(skiffd, kUnreachable, kReachable);
    })) << skiffd.output();
}

}  // namespace
}  // namespace skiff::test
