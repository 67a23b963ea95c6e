// A client's work after reading a notification: each listener gets the values that it subscribed to.

#include <stdexcept>

#include "benchmarks/micro/FanOut.h"
#include "benchmarks/micro/Measured.h"
#include "benchmarks/micro/Samples.h"

namespace
{

void fanOut(benchmark::State& state, FanOut& listeners, const StatusMap& update)
{
    listeners.onThread(
        [&]
        {
            const Measured measured(state);
            for (auto _ : state)
                listeners.notify(update);
        });
    if (listeners.callbacks() != static_cast<uint64_t>(state.iterations() * state.range(0)))
        throw std::logic_error("not all listeners were told");
}

// The usual case: one of a listener's many values changed.
void fanOutOfOneValue(benchmark::State& state)
{
    const auto subscribed = static_cast<std::size_t>(state.range(1));
    FanOut listeners(static_cast<std::size_t>(state.range(0)), subscribed);
    fanOut(state, listeners, {{Samples::name(subscribed / 2), Samples::value(1)}});
}
BENCHMARK(fanOutOfOneValue)
    ->ArgNames({"listeners", "keys"})
    ->ArgsProduct({{1, 10, 100}, {1, 10, 100}})
    ->Args({1, 1000})
    ->Args({1, 10000});

// All values changed at once.
void fanOutOfAllValues(benchmark::State& state)
{
    const auto subscribed = static_cast<std::size_t>(state.range(1));
    FanOut listeners(static_cast<std::size_t>(state.range(0)), subscribed);
    fanOut(state, listeners, Samples::values(subscribed));
}
BENCHMARK(fanOutOfAllValues)->ArgNames({"listeners", "keys"})->ArgsProduct({{1, 10, 100}, {10, 100}});

} // namespace
