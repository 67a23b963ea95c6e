#include "c/Process.h"

#include <unistd.h>

#include "c/Failure.h"

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

// The first sync() is false once after posts may have been lost. If the second one fails as well, the manager
// cannot ask at all: without a time limit, a silent broker makes it wait instead.
bool Process::isAnswered(StatusManager& manager)
{
    constexpr int noTimeLimit = -1;
    if (manager.sync(noTimeLimit))
        return true;
    ++mLosses;
    return manager.sync(noTimeLimit);
}

} // namespace StatusC
