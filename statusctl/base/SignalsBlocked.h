#ifndef STATUSCTL_BASE_SIGNALSBLOCKED_H
#define STATUSCTL_BASE_SIGNALSBLOCKED_H

#include <csignal>

/// Blocks all signals to this thread while it lives. The event threads of the library leave the signals of
/// faults unblocked, for the crash handlers of its programs. This program has no crash handler, and must not
/// end at all meanwhile.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &mBefore);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t mBefore{};
};

#endif
