// A delayed post, while other delayed posts wait on the same thread.

#include "benchmarks/micro/Measured.h"
#include "common/EventAgent.h"
#include "common/EventThread.h"

using namespace Orvane;

namespace
{

struct Receiver
{
    void nothing(unsigned) {}
};

// So late that no post is ever due.
constexpr uint32_t hour = 3600U * 1000U;

void postDelayed(EventThread& thread, Receiver& receiver, uint32_t delay)
{
    using Agent = AsyncEventAgent1<Receiver, unsigned>;
    thread.postDelayed(OV_NEW Agent(&receiver, &Receiver::nothing, delay), delay);
}

void delayedPost(benchmark::State& state)
{
    constexpr uint32_t batch = 100;
    const auto waiting = static_cast<uint32_t>(state.range());
    Receiver waiter;
    Receiver guest;
    EventThread thread("delayed", 0);
    for (uint32_t i = 0; i < waiting; ++i)
        postDelayed(thread, waiter, hour + i);
    const Measured measured(state, batch);
    for (auto _ : state)
    {
        for (uint32_t i = 0; i < batch; ++i)
            postDelayed(thread, guest, hour + i * waiting / batch);
        state.PauseTiming();
        thread.removeAgentsByReceiver(&guest);
        state.ResumeTiming();
    }
}
BENCHMARK(delayedPost)->ArgName("waiting")->Arg(1)->Arg(100)->Arg(10000)->UseRealTime();

} // namespace
