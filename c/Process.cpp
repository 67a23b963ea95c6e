#include "c/Process.h"

#include <unistd.h>

#include "c/Failure.h"
#include "statusmanager/StatusManagerProxy.h"

namespace StatusC
{

namespace
{

std::atomic<pid_t> owner{0}; // the process that has opened a status

} // namespace

Process& Process::instance()
{
    static Process& process = *new Process;
    return process;
}

void Process::checkNotForked()
{
    const pid_t pid = owner;
    if (pid != 0 && pid != getpid())
        throw Failure{STATUS_EFORKED};
}

void Process::claim()
{
    pid_t none = 0;
    owner.compare_exchange_strong(none, getpid());
    checkNotForked();
}

// sync() is false once after posts may have been lost: several times in a row, if several brokers end
// quickly. If it is false each time, the manager cannot ask at all: without a time limit, a silent broker
// makes it wait instead.
bool Process::isAnswered(StatusManager& manager)
{
    constexpr int noTimeLimit = -1;
    constexpr int mostAttempts = 5;
    for (int attempt = 0; attempt != mostAttempts; ++attempt)
    {
        if (manager.sync(noTimeLimit))
            return true;
        countLoss();
    }
    return false;
}

uint64_t Process::losses(StatusManager& manager) const
{
    const auto* const client = dynamic_cast<const StatusManagerProxy*>(&manager);
    return mLosses + (client == nullptr ? 0 : client->lostPosts());
}

} // namespace StatusC
