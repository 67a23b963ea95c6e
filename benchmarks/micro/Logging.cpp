// The cost of a message and a trace scope that the file's control words suppress.

#include "common/Logging.h"

#include "benchmarks/micro/Measured.h"

OV_LOG_CONTROL_WORDS;

namespace
{

void suppressedMessage(benchmark::State& state)
{
    int number = 0;
    const Measured measured(state);
    for (auto _ : state)
    {
        OV_LOG(7, "Message %d", ++number);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(suppressedMessage);

void suppressedScope(benchmark::State& state)
{
    const Measured measured(state);
    for (auto _ : state)
    {
        OV_TRACE(7);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(suppressedScope);

} // namespace
