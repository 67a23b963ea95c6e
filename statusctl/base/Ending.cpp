#include "statusctl/base/Ending.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace
{

std::atomic<void (*)()> restoreScreen{nullptr};

} // namespace

void obeyInterrupts()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
}

void setRestore(void (*restore)())
{
    restoreScreen = restore;
}

void restoreBeforeLeaving()
{
    if (void (*restore)() = restoreScreen.exchange(nullptr))
        restore();
}

void endBy(int signal)
{
    std::signal(signal, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr); // the library's threads block all signals
    std::raise(signal);
    std::abort(); // reached only if the signal does not end a process
}
