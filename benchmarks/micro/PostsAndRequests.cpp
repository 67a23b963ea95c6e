// The broker's work on a post and on a request, between its sockets.

#include <stdexcept>
#include <vector>

#include "benchmarks/micro/BrokerCore.h"
#include "benchmarks/micro/Measured.h"
#include "benchmarks/micro/Samples.h"
#include "protocol/ClientDocuments.h"

namespace Key = BrokerProtocol::Key;

namespace
{

// Posts of one value each, spread over all keys. Each post changes its value, in whatever order they come.
std::vector<std::string> postsThatChange(std::size_t keys)
{
    constexpr std::size_t some = 100;
    std::vector<std::string> posts;
    for (std::size_t i = 0; i < 2 * some; ++i)
    {
        const std::string name = Samples::name(i % some * keys / some);
        posts.push_back(BrokerProtocol::writeMap(Key::postStatus, {{name, Samples::value(some + i)}}));
    }
    return posts;
}

void brokerPost(benchmark::State& state)
{
    const auto keys = static_cast<std::size_t>(state.range());
    BrokerCore core(keys);
    const std::vector<std::string> posts = postsThatChange(keys);
    const uint64_t before = core.device().revision();
    std::size_t next = 0;
    const Measured measured(state);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(core.post(posts[next]));
        next = (next + 1) % posts.size();
    }
    if (core.device().revision() - before != static_cast<uint64_t>(state.iterations()))
        throw std::logic_error("a post changed nothing");
}
BENCHMARK(brokerPost)->ArgName("keys")->Arg(10)->Arg(100)->Arg(10000);

void brokerPostOfTheSameValue(benchmark::State& state)
{
    BrokerCore core(100);
    const std::string text =
        BrokerProtocol::writeMap(Key::postStatus, {{Samples::name(1), Samples::value(1)}});
    if (core.post(text))
        throw std::logic_error("the value is not the same");
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(core.post(text));
}
BENCHMARK(brokerPostOfTheSameValue);

void brokerEvent(benchmark::State& state)
{
    BrokerCore core(0);
    const std::string text = BrokerProtocol::writePostEvent(Samples::name(1), Samples::value(1));
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(core.post(text));
}
BENCHMARK(brokerEvent);

void brokerQuery(benchmark::State& state)
{
    const auto keys = static_cast<std::size_t>(state.range());
    BrokerCore core(keys);
    const std::string text = BrokerProtocol::writeText(Key::getClientInfoValue, Samples::name(keys / 2));
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(core.ask(text));
}
BENCHMARK(brokerQuery)->ArgName("keys")->Arg(10)->Arg(100)->Arg(10000);

void brokerQueryOfAll(benchmark::State& state)
{
    BrokerCore core(static_cast<std::size_t>(state.range()));
    const std::string text = BrokerProtocol::writeGetClientInfo();
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(core.ask(text));
}
BENCHMARK(brokerQueryOfAll)->ArgName("keys")->Arg(10)->Arg(100)->Arg(10000);

void brokerCounterIncrement(benchmark::State& state)
{
    BrokerCore core(0);
    const std::string text = BrokerProtocol::writeText(Key::incrementCounter, Samples::name(1));
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(core.ask(text));
}
BENCHMARK(brokerCounterIncrement);

} // namespace
