// A call on another thread; the caller waits for the result.

#include "benchmarks/micro/Measured.h"
#include "common/EventAgent.h"
#include "common/EventThread.h"

using namespace Orvane;

namespace
{

struct Receiver
{
    unsigned next(unsigned number) { return number + 1; }
};

using Agent = SyncRetEventAgent1<Receiver, unsigned, unsigned>;

void synchronousCall(benchmark::State& state)
{
    Receiver receiver;
    EventThread thread("calls", 0);
    unsigned number = 0;
    const Measured measured(state);
    for (auto _ : state)
        number = (OV_NEW Agent(&receiver, &Receiver::next, number))->send(&thread);
    benchmark::DoNotOptimize(number);
}
BENCHMARK(synchronousCall)->UseRealTime();

} // namespace
