// Asks the kernel for the owner of a connection's other end, as the broker does once per connection.

#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <vector>

#include "benchmarks/micro/Measured.h"
#include "broker/peer/OwnerQuery.h"
#include "broker/peer/Services.h"

namespace
{

sockaddr* place(sockaddr_in& address)
{
    return reinterpret_cast<sockaddr*>(&address);
}

// Connections of this process to itself. The benchmark asks about the last one.
class Connections
{
public:
    explicit Connections(int64_t count) : mListener(socket(AF_INET, SOCK_STREAM, 0))
    {
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(own);
        bool isDone = bind(mListener.number(), place(own), size) == 0 && listen(mListener.number(), 1) == 0 &&
                      getsockname(mListener.number(), place(own), &size) == 0;
        while (isDone && count-- != 0)
        {
            const Descriptor& connecting = mEnds.emplace_back(socket(AF_INET, SOCK_STREAM, 0));
            isDone = connect(connecting.number(), place(own), sizeof(own)) == 0;
            mEnds.emplace_back(accept(mListener.number(), place(peer), &size));
        }
        if (!isDone)
            throw std::runtime_error("no connections");
    }

    sockaddr_in own{};
    sockaddr_in peer{};

private:
    Descriptor mListener;
    std::vector<Descriptor> mEnds;
};

void ask(benchmark::State& state, OwnerQuery query, OwnerQuery::Road road)
{
    const Connections connections(state.range(0));
    if (query.road() != road || !query.ask(connections.peer, connections.own).isKnown())
    {
        state.SkipWithError("not offered here");
        return;
    }
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(query.ask(connections.peer, connections.own));
}

void askForOwner(benchmark::State& state)
{
    ask(state, OwnerQuery(), OwnerQuery::Road::SockDiag);
}
BENCHMARK(askForOwner)->Arg(1)->Arg(300);

// The slow way, for kernels or sandboxes without the quick way.
void askForOwnerByTable(benchmark::State& state)
{
    OwnerQuery::Sources sources;
    sources.sockDiag = SockDiag(Descriptor());
    ask(state, OwnerQuery(std::move(sources)), OwnerQuery::Road::ConnectionTable);
}
BENCHMARK(askForOwnerByTable)->Arg(1)->Arg(300);

// A service that is already known.
void nameService(benchmark::State& state)
{
    Services services(Services::rootIn("/proc"));
    OwnerQuery query;
    const Connections connections(1);
    const Owner owner = query.ask(connections.peer, connections.own);
    if (!owner.cgroup() || services.find(*owner.cgroup()).knowledge == Services::Knowledge::Unknown)
    {
        state.SkipWithError("no control groups here");
        return;
    }
    const Measured measured(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(services.find(*owner.cgroup()));
}
BENCHMARK(nameService);

} // namespace
