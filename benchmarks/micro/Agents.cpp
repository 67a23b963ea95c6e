// Posts agents to another thread, which delivers them.

#include "benchmarks/micro/Measured.h"
#include "common/EventAgent.h"
#include "common/EventThread.h"

using namespace Orvane;

namespace
{

struct Receiver
{
    void take(unsigned number) { sum += number; }
    void nothing() {}

    unsigned sum = 0;
};

// The event thread delivers agents while this thread posts more, and then waits for the last.
void postAndDeliver(benchmark::State& state)
{
    constexpr std::size_t burst = 1000;
    Receiver receiver;
    EventThread thread("agents", 0);
    const Measured measured(state, burst);
    for (auto _ : state)
    {
        for (unsigned i = 0; i < burst; ++i)
        {
            using Agent = AsyncEventAgent1<Receiver, unsigned>;
            (OV_NEW Agent(&receiver, &Receiver::take, i))->send(&thread);
        }
        (OV_NEW SyncEventAgent0<Receiver>(&receiver, &Receiver::nothing))->send(&thread);
    }
}
BENCHMARK(postAndDeliver)->UseRealTime();

} // namespace
