#include "c/Process.h"

#include <pthread.h>
#include <unistd.h>

#include "statusmanager/StatusManagerProxy.h"

namespace StatusC
{

namespace
{

std::atomic<pid_t> owner{0};      // the process that has opened a status
std::atomic<bool> isChild{false}; // this process is a child of it, or a later descendant

} // namespace

Process& Process::instance()
{
    static Process& process = *new Process;
    return process;
}

bool Process::isForked() noexcept
{
    const pid_t pid = owner;
    return isChild || (pid != 0 && pid != getpid());
}

void Process::claim()
{
    pid_t none = 0;
    if (!owner.compare_exchange_strong(none, getpid()))
        return;
    // A descendant may get the number of the owner, after its end or in another namespace. Without memory for
    // this, the number alone must do.
    static_cast<void>(pthread_atfork(nullptr, nullptr, [] { isChild = true; }));
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
