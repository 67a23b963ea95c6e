#ifndef EXAMPLES_STOPSIGNAL_H
#define EXAMPLES_STOPSIGNAL_H

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <semaphore.h>

/// Lets a program end in an orderly way on SIGINT and SIGTERM. The library's threads block these signals, so
/// the program's own threads receive them. Each signal is caught once. A second one ends the program at once,
/// even while it waits for a broker that does not answer.
namespace StopSignal
{

inline sem_t arrived;

// sem_post() is one of the few functions that a signal handler may call.
inline void onSignal(int)
{
    const int savedErrno = errno;
    sem_post(&arrived);
    errno = savedErrno;
}

inline void install()
{
    sem_init(&arrived, 0, 0);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

/// Waits for a signal, without limit.
inline void wait()
{
    while (sem_wait(&arrived) != 0 && errno == EINTR)
        ;
}

/// Waits for a signal until `deadline`; returns whether a signal came.
inline bool waitUntil(std::chrono::steady_clock::time_point deadline)
{
    using namespace std::chrono;
    const auto sinceStart = deadline.time_since_epoch();
    const auto whole = duration_cast<seconds>(sinceStart);
    timespec end = {};
    end.tv_sec = static_cast<time_t>(whole.count());
    end.tv_nsec = static_cast<long>(duration_cast<nanoseconds>(sinceStart - whole).count());

    // The monotonic clock, because processes of this device may set the wall clock.
    int result = 0;
    do
        result = sem_clockwait(&arrived, CLOCK_MONOTONIC, &end);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace StopSignal

#endif
