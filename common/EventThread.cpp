#include "common/EventThread.h"

#include <csignal>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <string>

#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace Orvane
{

namespace
{

// A thread inherits its creator's signal mask. Blocking everything around the creation, instead of in the new
// thread, leaves no moment at which a signal could be delivered to it.
class AllSignalsBlocked
{
public:
    AllSignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &mPrevious);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr); }

    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t mPrevious;
};

void nameCurrentThread(const std::string& name)
{
    constexpr std::size_t kernelLimit = 15;
    pthread_setname_np(pthread_self(), name.substr(0, kernelLimit).c_str());
}

void raiseCurrentThread(const char* name, int priority)
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    const int error = pthread_setschedparam(pthread_self(), SCHED_RR, &parameters);
    if (error != 0)
        OV_LOG(2, "Thread [%s] runs without real-time priority %d: %s", name, priority, strerror(error));
}

} // namespace

EventThread::EventThread(const char* name, int priority) : EventDispatcher(name)
{
    const AllSignalsBlocked blocked;
    mThread = std::thread(&EventThread::main, this, priority);
}

EventThread::~EventThread()
{
    stop();
}

void EventThread::stop()
{
    requestStop();
    if (mThread.joinable())
        mThread.join();
    dropAll();
}

void EventThread::main(int priority)
{
    nameCurrentThread(getName());
    if (priority > 0)
        raiseCurrentThread(getName(), priority);
    run();
}

} // namespace Orvane
