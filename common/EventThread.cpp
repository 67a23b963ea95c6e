#include "common/EventThread.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <sched.h>
#include <string>
#include <system_error>

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

void require(int error, const char* what)
{
    if (error != 0)
        throw std::system_error(error, std::generic_category(), what);
}

class Attributes
{
public:
    explicit Attributes(std::size_t stackSize)
    {
        require(pthread_attr_init(&mAttributes), "Failed to start an event thread");
        mError = pthread_attr_setstacksize(&mAttributes, stackSize);
    }
    ~Attributes() { pthread_attr_destroy(&mAttributes); }

    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const pthread_attr_t* get() const
    {
        require(mError, "Bad stack size of an event thread");
        return &mAttributes;
    }

private:
    pthread_attr_t mAttributes;
    int mError;
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

struct EventThread::Start
{
    EventThread* thread;
    int priority;
};

EventThread::EventThread(const char* name, int priority) : EventThread(name, priority, defaultStackSize()) {}

// Not by std::thread, which knows no stack size.
EventThread::EventThread(const char* name, int priority, std::size_t stackSize) : EventDispatcher(name)
{
    const Attributes attributes(stackSize);
    auto start = std::make_unique<Start>(Start{this, priority});
    const AllSignalsBlocked blocked;
    require(pthread_create(&mThread, attributes.get(), &EventThread::enter, start.get()),
            "Failed to start an event thread");
    static_cast<void>(start.release()); // the thread's now
}

std::size_t EventThread::defaultStackSize()
{
    return std::size_t{1024} * VESKCOMMON_EVENT_THREAD_STACK_KIB;
}

EventThread::~EventThread()
{
    stop();
}

void EventThread::stop()
{
    requestStop();
    constexpr const char* failure = "Failed to end an event thread";
    if (isThreadCurrent())
        require(EDEADLK, failure);
    if (mThread != pthread_t{})
        require(pthread_join(mThread, nullptr), failure);
    mThread = pthread_t{};
    dropAll();
}

// An exception that leaves an agent ends the program.
void* EventThread::enter(void* start) noexcept
{
    const std::unique_ptr<Start> own(static_cast<Start*>(start));
    own->thread->main(own->priority);
    return nullptr;
}

void EventThread::main(int priority)
{
    nameCurrentThread(getName());
    if (priority > 0)
        raiseCurrentThread(getName(), priority);
    run();
}

} // namespace Orvane
