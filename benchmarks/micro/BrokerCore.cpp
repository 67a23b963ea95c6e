// What the broker does with a post and with a request, between its sockets: from a text to a text.

#include <stdexcept>
#include <vector>

#include "benchmarks/micro/Measured.h"
#include "benchmarks/micro/Samples.h"
#include "broker/state/DeviceState.h"

namespace Key = BrokerProtocol::Key;

namespace
{

std::optional<std::string> post(DeviceState& device, const std::string& text)
{
    return device.apply(*BrokerProtocol::readPost(text));
}

std::optional<std::string> ask(DeviceState& device, const std::string& text)
{
    return device.answer(*BrokerProtocol::readRequest(text));
}

struct Holding
{
    explicit Holding(std::size_t keys)
    {
        post(device, BrokerProtocol::writeMap(Key::postStatus, Samples::values(keys)));
        if (device.keys() != keys)
            throw std::logic_error("not all keys were stored");
    }

    Limits limits;
    Refusals refusals;
    DeviceState device{limits, refusals};
};

// Posts of one value each, from all over the keys. Each changes something, whenever it comes.
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
    Holding holding(keys);
    const std::vector<std::string> posts = postsThatChange(keys);
    const uint64_t before = holding.device.revision();
    std::size_t next = 0;
    const Measured measured(state);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(post(holding.device, posts[next]));
        next = (next + 1) % posts.size();
    }
    if (holding.device.revision() - before != static_cast<uint64_t>(state.iterations()))
        throw std::logic_error("a post changed nothing");
}
BENCHMARK(brokerPost)->ArgName("keys")->Arg(10)->Arg(100)->Arg(10000);

void brokerPostOfTheSameValue(benchmark::State& state)
{
    Holding holding(100);
    const std::string text =
        BrokerProtocol::writeMap(Key::postStatus, {{Samples::name(1), Samples::value(1)}});
    if (post(holding.device, text))
        throw std::logic_error("the value is not the same");
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(post(holding.device, text));
}
BENCHMARK(brokerPostOfTheSameValue);

void brokerEvent(benchmark::State& state)
{
    Holding holding(0);
    const std::string text = BrokerProtocol::writePostEvent(Samples::name(1), Samples::value(1));
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(post(holding.device, text));
}
BENCHMARK(brokerEvent);

void brokerQuery(benchmark::State& state)
{
    const auto keys = static_cast<std::size_t>(state.range());
    Holding holding(keys);
    const std::string text = BrokerProtocol::writeText(Key::getClientInfoValue, Samples::name(keys / 2));
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(ask(holding.device, text));
}
BENCHMARK(brokerQuery)->ArgName("keys")->Arg(10)->Arg(100)->Arg(10000);

void brokerQueryOfAll(benchmark::State& state)
{
    Holding holding(static_cast<std::size_t>(state.range()));
    const std::string text = BrokerProtocol::writeGetClientInfo();
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(ask(holding.device, text));
}
BENCHMARK(brokerQueryOfAll)->ArgName("keys")->Arg(10)->Arg(100)->Arg(10000);

void brokerCounterIncrement(benchmark::State& state)
{
    Holding holding(0);
    const std::string text = BrokerProtocol::writeText(Key::incrementCounter, Samples::name(1));
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(ask(holding.device, text));
}
BENCHMARK(brokerCounterIncrement);

} // namespace
