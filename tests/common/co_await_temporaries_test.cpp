// Canary for the co_await temporaries rule in common/task.hpp: GCC 12 destroys aggregate
// and lambda temporaries of a full-expression that contains co_await twice.
#include <gtest/gtest.h>

#include <asio.hpp>

namespace {

#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ == 12
constexpr bool kKnownToDestroyTwice = true;
#else
constexpr bool kKnownToDestroyTwice = false;
#endif

// Counts live instances. Its storage is trivial, so a second destruction only miscounts.
int liveProbes = 0;
struct Probe {
    Probe() { ++liveProbes; }
    Probe(const Probe&) { ++liveProbes; }
    ~Probe() { --liveProbes; }
};
struct Box {
    Probe probe;
};
class Wrapper {
public:
    explicit Wrapper(const Probe& probe) : probe_(probe) {}

private:
    Probe probe_;
};

Box boxOf(const Probe& probe) {
    return Box{probe};
}

template <class T>
asio::awaitable<int> take(T) {
    co_return 1;
}

// Each writes one construct inside a co_await expression.
asio::awaitable<void> lambdaExpression() {
    Probe probe;
    co_await take([probe] { return 0; });
}
asio::awaitable<void> bracedAggregate() {
    Probe probe;
    co_await take(Box{probe});
}
asio::awaitable<void> aggregateFromACall() {
    Probe probe;
    co_await take(boxOf(probe));
}
asio::awaitable<void> classWithAConstructor() {
    Probe probe;
    co_await take(Wrapper{probe});
}

TEST(CoAwaitTemporaries, OnlyLambdaAndBracedAggregateTemporariesAreDestroyedTwice) {
    const struct {
        const char* construct;
        asio::awaitable<void> (*write)();
        bool forbidden;  // by the rule, because GCC 12 destroys it twice
    } cases[] = {
        {"a lambda", &lambdaExpression, true},
        {"a braced aggregate", &bracedAggregate, true},
        {"an aggregate returned by a call", &aggregateFromACall, false},
        {"a class with a constructor", &classWithAConstructor, false},
    };
    for (const auto& c : cases) {
        liveProbes = 0;
        asio::io_context io;
        asio::co_spawn(io, c.write(), asio::detached);
        io.run();
        const int extraDestructions = -liveProbes;
        const int expected = c.forbidden && kKnownToDestroyTwice ? 1 : 0;
        EXPECT_EQ(extraDestructions, expected)
            << "this compiler destroys " << c.construct << " in a co_await expression "
            << 1 + extraDestructions << " times: revisit the rule in common/task.hpp";
    }
}

}  // namespace
