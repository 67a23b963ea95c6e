#include "daemon/Signals.h"

#include <cerrno>
#include <csignal>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

Signals::Signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    mDescriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (mDescriptor == -1)
        throw std::system_error(errno, std::generic_category(), "signalfd");
}

Signals::~Signals()
{
    close(mDescriptor);
}

int Signals::take()
{
    signalfd_siginfo info{};
    return read(mDescriptor, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}
